/* A host built against an installed kspl: makes kspl.so and the component
 * known to the runtime, runs the component once, then the example from the
 * header comment of kspl.h (extracted into header_example.c by the test).
 * Usage: host KSPL_MODULE COMPONENT */
#include <stdio.h>

#include "kspl.h"
#include "consumer.h"

int use_kspl(void); /* header_example.c */

int main(int argc, char** argv) {
    static const GUID clsid = CONSUMER_CLSID;
    static const GUID iid = CONSUMER_IID;
    Consumer* c = NULL;
    UINT32 units = 0;
    KSSTATUS st;
    int rc;
    if (argc != 3) {
        fprintf(stderr, "usage: %s KSPL_MODULE COMPONENT\n", argv[0]);
        return 2;
    }
    if ((st = OrlmLoadComponent(argv[1])) != 0 || (st = OrlmLoadComponent(argv[2])) != 0) {
        fprintf(stderr, "host: loading failed: %08X\n", (unsigned)st);
        return 1;
    }
    st = OrlmCreateInstance(&clsid, NULL, &iid, (void**)&c);
    if (st != 0) {
        fprintf(stderr, "host: no component instance: %08X\n", (unsigned)st);
        return 1;
    }
    /* Five characters, three of them outside ASCII. */
    st = c->lpVtbl->Run(c, "gr\xC3\xBC\xC3\x9F\xE2\x82\xAC", &units);
    c->lpVtbl->Release(c);
    if (st != 0 || units != 5) {
        fprintf(stderr, "host: Run gave %08X, %u units\n", (unsigned)st, (unsigned)units);
        return 1;
    }
    rc = use_kspl();
    if (rc != 0) {
        fprintf(stderr, "host: the header example returned %d\n", rc);
        return 1;
    }
    OrlmUnloadAll();
    printf("host: ok\n");
    return 0;
}
