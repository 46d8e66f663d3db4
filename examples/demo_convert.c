/* demo_convert - character conversion through IKspl: a 16-bit string with
 * characters that the ANSI code page may not hold goes to that code page
 * and back. A character the code page cannot hold travels as "[XXXX]" (its
 * 16-bit value in hexadecimal) and comes back unchanged; ':' '\' '/' keep
 * their bytes in every code page. */
#include <stdio.h>

#include "host_util.h"
#include "kspl.h"

static void print_units(const char* label, const WCHAR* text, UINT32 count) {
    UINT32 i;
    printf("%s", label);
    for (i = 0; i < count; ++i) {
        if (text[i] >= 0x20 && text[i] < 0x7F) {
            putchar((int)text[i]);
        } else {
            printf("<U+%04X>", (unsigned)text[i]);
        }
    }
    putchar('\n');
}

static void print_bytes(const char* label, const char* text, UINT32 count) {
    UINT32 i;
    printf("%s", label);
    for (i = 0; i < count; ++i) {
        unsigned char c = (unsigned char)text[i];
        if (c >= 0x20 && c < 0x7F) {
            putchar(c);
        } else {
            printf("\\x%02X", (unsigned)c);
        }
    }
    printf(" (%u bytes)\n", (unsigned)count);
}

void demo_convert(IKspl* k) {
    const IKsplVtbl* v = k->lpVtbl;
    /* "caf<e-acute> <CJK> C:\dir/f" and a lone surrogate, which no code
     * page holds whatever the locale. */
    WCHAR original[] = {'c', 'a', 'f', 0x00E9, ' ', 0x4E2D, ' ', 'C', ':', '\\', 'd', 'i',
                        'r', '/', 'f', ' ', 0xDC00, 0};
    char narrow[128];
    WCHAR back[64];
    UINT32 narrowLen = sizeof(narrow);
    UINT32 backLen = sizeof(back) / sizeof(back[0]);
    KSSTATUS st;

    print_units("convert: original   ", original, (UINT32)(sizeof(original) / sizeof(WCHAR) - 1));

    /* Code page selector 1 is the ANSI code page chosen at start-up. */
    st = v->KsoWideCharToMultiByte(k, 1, original, -1, narrow, &narrowLen);
    if (st != 0) {
        printf("convert: to ANSI failed: %08X (%s)\n", (unsigned)st, status_text(st));
        return;
    }
    print_bytes("convert: ANSI bytes ", narrow, narrowLen);

    st = v->KsoMultiByteToWideChar(k, 1, narrow, (INT32)narrowLen, back, &backLen);
    if (st != 0) {
        printf("convert: back from ANSI failed: %08X (%s)\n", (unsigned)st, status_text(st));
        return;
    }
    print_units("convert: round trip ", back, backLen);
}
