/* demo_config.c - the host keeps its settings in the configuration store:
 * it writes them below Software\Zorvik\Examples\KsplHost, reads them back
 * one by one and lists the key's values with their types. */
#include <stdio.h>
#include <string.h>

#include "host_util.h"
#include "kspl.h"

/* ASCII text to a NUL-terminated 16-bit string. */
static void widen(const char* s, WCHAR* out, size_t room) {
    size_t i = 0;
    for (; s[i] != '\0' && i + 1 < room; ++i) out[i] = (WCHAR)(unsigned char)s[i];
    out[i] = 0;
}

/* 16-bit units to printable ASCII ('?' for anything else). */
static void narrow(const WCHAR* w, size_t units, char* out, size_t room) {
    size_t i = 0;
    for (; i < units && i + 1 < room; ++i)
        out[i] = w[i] == 0 ? '|' : (w[i] < 0x7F && w[i] >= 0x20 ? (char)w[i] : '?');
    out[i] = '\0';
}

static const char* type_name(UINT32 type) {
    switch (type) {
        case KSO_REG_BINARY: return "binary";
        case KSO_REG_UINT32: return "uint32";
        case KSO_REG_SZ: return "sz";
        case KSO_REG_MULTI_SZ: return "multi_sz";
        case KSO_REG_UINT64: return "uint64";
        default: return "?";
    }
}

/* Prints one value record as KsoQueryValueKey / KsoEnumerateValueKey lay it out. */
static void print_record(const UINT8* rec) {
    const KSO_KEY_VALUE_INFORMATION* info = (const KSO_KEY_VALUE_INFORMATION*)rec;
    const UINT8* data = rec + info->ValueOffset;
    char name[64], text[128];
    UINT32 i;
    narrow(info->KeyValueName, info->KeyValueNameLength / 2 - 1, name, sizeof name);
    printf("  %-10s %-8s ", name, type_name(info->ValueType));
    if (info->ValueType == KSO_REG_UINT32 && info->ValueLength == 4) {
        UINT32 u;
        memcpy(&u, data, 4);
        printf("%u\n", u);
    } else if (info->ValueType == KSO_REG_UINT64 && info->ValueLength == 8) {
        UINT64 u;
        char date[64];
        memcpy(&u, data, 8);
        /* Started holds a system time: shown as the date it stands for. */
        if (strcmp(name, "Started") == 0) {
            printf("%s\n", format_system_time(u, date, sizeof date));
        } else {
            printf("%llu\n", (unsigned long long)u);
        }
    } else if (info->ValueType == KSO_REG_SZ || info->ValueType == KSO_REG_MULTI_SZ) {
        /* The record ends the text with 0 units; show the inner ones as '|'. */
        UINT32 units = info->ValueLength / 2;
        while (units > 0 && ((const WCHAR*)data)[units - 1] == 0) --units;
        narrow((const WCHAR*)data, units, text, sizeof text);
        printf("\"%s\"\n", text);
    } else {
        for (i = 0; i < info->ValueLength && i < 16; ++i) printf("%02x", data[i]);
        printf("\n");
    }
}

void demo_config(IKspl* k) {
    const IKsplVtbl* v = k->lpVtbl;
    WCHAR key[64], name[32], text[64];
    /* A list: each string with its 0 unit, then one more. */
    static const WCHAR modules[] = {'k', 's', 'p', 'l', '.', 's', 'o', 0,
                                    'l', 'i', 'b', 'o', 'r', 'l', 'm', '.', 's', 'o', 0, 0};
    static const UINT8 cookie[4] = {0xC0, 0xFF, 0xEE, 0x01};
    UINT8 rec[256];
    UINT32 level = 3, result = 0, index;
    UINT64 started = 0;
    HANDLE h = NULL;
    KSSTATUS st;

    widen("Examples\\KsplHost", key, 64);
    st = v->KsoCreateKey(k, key, KSO_KEY_ALL_ACCESS, &h);
    if (st != 0) {
        printf("demo_config: cannot create the settings key: %08X (%s)\n", st, status_text(st));
        return;
    }
    v->KsoGetSystemTime(k, &started);
    widen("LogLevel", name, 32);
    st = v->KsoSetValueKey(k, h, name, KSO_REG_UINT32, &level, sizeof level);
    widen("HostName", name, 32);
    widen("kspl_host", text, 64);
    if (st == 0) st = v->KsoSetValueKey(k, h, name, KSO_REG_SZ, text, sizeof text);
    widen("Modules", name, 32);
    if (st == 0) st = v->KsoSetValueKey(k, h, name, KSO_REG_MULTI_SZ, (PVOID)modules, sizeof modules);
    widen("Started", name, 32);
    if (st == 0) st = v->KsoSetValueKey(k, h, name, KSO_REG_UINT64, &started, sizeof started);
    widen("Cookie", name, 32);
    if (st == 0) st = v->KsoSetValueKey(k, h, name, KSO_REG_BINARY, (PVOID)cookie, sizeof cookie);
    if (st != 0) {
        printf("demo_config: writing a setting failed: %08X (%s)\n", st, status_text(st));
        v->KsoCloseKey(k, h);
        return;
    }

    widen("LogLevel", name, 32);
    st = v->KsoQueryValueKey(k, h, name, rec, sizeof rec, &result);
    printf("demo_config: settings in Software\\Zorvik\\Examples\\KsplHost\n");
    if (st == 0) {
        printf("  read back LogLevel (%u bytes of record):\n", result);
        print_record(rec);
    }
    printf("  all values:\n");
    for (index = 0; v->KsoEnumerateValueKey(k, h, index, rec, sizeof rec, &result) == 0; ++index)
        print_record(rec);
    st = v->KsoCloseKey(k, h);
    if (st != 0) printf("demo_config: close failed: %08X (%s)\n", st, status_text(st));
}
