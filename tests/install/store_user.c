/* A program that uses the configuration store library directly: writes a
 * value into the database file named on the command line and reads it back.
 * Usage: store_user DATABASE */
#include <stdio.h>

#include "zlreg.h"

int main(int argc, char** argv) {
    HANDLE key = NULL;
    UINT32 in = 0x5A17u, out = 0, type = 99, size = sizeof(out);
    KSSTATUS st;
    if (argc != 2) return 2;
    if ((st = ZLRegSetDatabasePath(argv[1])) != 0 ||
        (st = ZLRegCreateKeyExA(ZLREG_HKEY_LOCAL_MACHINE, "Software\\Zorvik\\InstallTest", 0, NULL,
                                0, ZLREG_ACCESS_ALL, NULL, &key, NULL)) != 0 ||
        (st = ZLRegSetValueExA(key, "Answer", 0, ZLREG_UINT32, &in, sizeof(in))) != 0 ||
        (st = ZLRegQueryValueExA(key, "Answer", NULL, &type, &out, &size)) != 0) {
        fprintf(stderr, "store_user: %08X\n", (unsigned)st);
        if (key != NULL) ZLRegCloseKey(key);
        return 1;
    }
    ZLRegCloseKey(key);
    if (type != ZLREG_UINT32 || size != sizeof(out) || out != in) {
        fprintf(stderr, "store_user: read back type %u size %u value %u\n", (unsigned)type,
                (unsigned)size, (unsigned)out);
        return 1;
    }
    printf("store_user: ok\n");
    return 0;
}
