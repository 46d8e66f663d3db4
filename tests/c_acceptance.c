/* A pure-C component: includes only kspl.h, loads kspl.so through the
 * component runtime and drives it through its tables. Exit status 0 when
 * every check holds; prints "N passed, N failed". */
#include <stdio.h>
#include <string.h>

#include "kspl.h"

static int passed, failed;
#define CHECK(cond)                                                       \
    do {                                                                  \
        if (cond) {                                                       \
            ++passed;                                                     \
        } else {                                                          \
            ++failed;                                                     \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
        }                                                                 \
    } while (0)

int main(int argc, char** argv) {
    static const GUID clsid = KSPL_GUID_CLSID_ZorvikKspl;
    static const GUID iid = KSPL_GUID_IID_IZorvikKspl_1;
    static const GUID iidUnknown = KSPL_GUID_IID_IUnknown;
    IKspl* k = NULL;
    IKspl* same = NULL;
    const IKsplVtbl* v;
    UINT32 size = 0;
    unsigned char stats[4096];
    GEN_KSPL_STATS_INFO_BUF* buf = (GEN_KSPL_STATS_INFO_BUF*)stats;
    char* p;
    LIST_ENTRY head, a, b;

    if (argc < 2) {
        fprintf(stderr, "usage: %s path/to/kspl.so\n", argv[0]);
        return 2;
    }
    CHECK(OrlmLoadComponent(argv[1]) == 0);
    CHECK(OrlmCreateInstance(&clsid, NULL, &iid, (void**)&k) == 0);
    if (k == NULL) {
        printf("%d passed, %d failed\n", passed, failed + 1);
        return 1;
    }
    v = k->lpVtbl;

    CHECK(v->QueryInterface(k, &iidUnknown, (void**)&same) == 0 && same == k);
    CHECK(v->Release(k) == 1);
    CHECK(v->KsoRegisterModuleName(k, "c-acceptance") == 0);

    p = (char*)v->KsoAllocPagedMemory(k, 100);
    CHECK(p != NULL);
    if (p != NULL) {
        memset(p, 0x5A, 100);
        CHECK(v->KsoFreeMemory(k, p) == 0);
    }
    CHECK(v->KsoFreeMemory(k, NULL) == 0xC7F10004u);

    v->KsoInitializeListHead(k, &head);
    v->KsoInsertTailList(k, &head, &a);
    v->KsoInsertTailList(k, &head, &b);
    CHECK(v->KsoRemoveHeadList(k, &head) == &a);
    CHECK(v->KsoRemoveHeadList(k, &head) == &b);
    CHECK(v->KsoIsListEmpty(k, &head));
    CHECK(v->KsoStrHash(k, "abc", 1000) == 499);

    CHECK(v->KsoGetGeneralKsplStatistics(k, &size, NULL) == 0xC7F10007u);
    CHECK(size <= sizeof(stats));
    if (size <= sizeof(stats)) {
        CHECK(v->KsoGetGeneralKsplStatistics(k, &size, stats) == 0);
        CHECK(buf->GenKsplStatsInfoSize == 80);
        CHECK(size == 8 + 80 * buf->InterfaceCount);
        CHECK(buf->InterfaceCount >= 2);
        CHECK(strcmp(buf->GenKsplStatsInfo[buf->InterfaceCount - 1].ModuleName, "c-acceptance") == 0);
    }
    CHECK(v->Release(k) == 0);
    OrlmUnloadAll();
    printf("%d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
