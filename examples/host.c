/* kspl_host - a small component host. It loads kspl.so through the component
 * runtime (ORLM_COMPONENTS, or the path given as its argument), obtains
 * IKspl as a component does, uses its services and prints the statistics of
 * every live instance. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kspl.h"

/* Demos of the service families (demo_<service>.c). */
void demo_sync(IKspl* k);
void demo_schedule(IKspl* k);
void demo_convert(IKspl* k);
void demo_config(IKspl* k);
void demo_object(IKspl* k);
void demo_scobject(IKspl* k);

static void run_demos(IKspl* k) {
#ifdef KSPL_HAVE_DEMO_SYNC
    demo_sync(k);
#endif
#ifdef KSPL_HAVE_DEMO_SCHEDULE
    demo_schedule(k);
#endif
#ifdef KSPL_HAVE_DEMO_CONVERT
    demo_convert(k);
#endif
#ifdef KSPL_HAVE_DEMO_CONFIG
    demo_config(k);
#endif
#ifdef KSPL_HAVE_DEMO_OBJECT
    demo_object(k);
#endif
#ifdef KSPL_HAVE_DEMO_SCOBJECT
    demo_scobject(k);
#endif
    (void)k;
}

static void print_statistics(IKspl* k) {
    const IKsplVtbl* v = k->lpVtbl;
    UINT32 size = 0;
    KSSTATUS st = v->KsoGetGeneralKsplStatistics(k, &size, NULL);
    unsigned char* buf;
    GEN_KSPL_STATS_INFO_BUF* stats;
    UINT32 i;

    if (st != 0xC7F10007u) {
        printf("statistics size query failed: %08X\n", st);
        return;
    }
    buf = (unsigned char*)malloc(size);
    if (buf == NULL) return;
    st = v->KsoGetGeneralKsplStatistics(k, &size, buf);
    if (st != 0) {
        printf("statistics failed: %08X\n", st);
        free(buf);
        return;
    }
    stats = (GEN_KSPL_STATS_INFO_BUF*)buf;
    printf("%u live instance(s), %u bytes per entry\n", stats->InterfaceCount,
           stats->GenKsplStatsInfoSize);
    printf("%-20s %5s %5s %5s %6s %6s %8s %8s %8s %8s %5s %5s %5s\n", "module", "event", "key",
           "rwlck", "mutex", "spin", "np-use", "np-total", "pg-use", "pg-total", "thrd", "timer",
           "work");
    for (i = 0; i < stats->InterfaceCount; ++i) {
        const GEN_KSPL_STATS_INFO* e = &stats->GenKsplStatsInfo[i];
        printf("%-20s %5u %5u %5u %6u %6u %8u %8u %8u %8u %5u %5u %5u\n",
               e->ModuleName[0] ? e->ModuleName : "(unnamed)", e->EventInUse, e->KeyInUse,
               e->LockInUse, e->MutexInUse, e->SpinLockInUse, e->MemoryNonPagedInUse,
               e->MemoryNonPagedTotalAllocated, e->MemoryPagedInUse, e->MemoryPagedTotalAllocated,
               e->ThreadInUse, e->TimerInUse, e->WorkItemInUse);
    }
    free(buf);
}

int main(int argc, char** argv) {
    static const GUID clsid = KSPL_GUID_CLSID_ZorvikKspl;
    static const GUID iid = KSPL_GUID_IID_IZorvikKspl_1;
    const char* module = argc > 1 ? argv[1] : getenv("ORLM_COMPONENTS");
    IKspl* k = NULL;
    IKspl* other = NULL;
    const IKsplVtbl* v;
    KSSTATUS st;
    void* paged;
    void* nonpaged;

    if (module == NULL) module = KSPL_DEFAULT_MODULE;
    st = OrlmLoadComponent(module);
    if (st != 0) {
        fprintf(stderr, "kspl_host: cannot load %s: %08X\n", module, st);
        return 1;
    }
    st = OrlmCreateInstance(&clsid, NULL, &iid, (void**)&k);
    if (st != 0) {
        fprintf(stderr, "kspl_host: no IKspl instance: %08X\n", st);
        return 1;
    }
    v = k->lpVtbl;
    v->KsoRegisterModuleName(k, "kspl_host");
    printf("kspl_host: loaded %s and obtained IKspl\n", module);

    /* Tracked memory: a paged and a non-paged block, one of them still live
     * when the table is printed. */
    paged = v->KsoAllocPagedMemory(k, 4096);
    nonpaged = v->KsoAllocNonPagedMemory(k, 256);
    if (paged == NULL || nonpaged == NULL) {
        fprintf(stderr, "kspl_host: allocation failed\n");
        return 1;
    }
    memset(paged, 0, 4096);
    v->KsoFreeMemory(k, nonpaged);

    /* A second component instance, to show per-instance accounting. */
    if (OrlmCreateInstance(&clsid, NULL, &iid, (void**)&other) == 0) {
        other->lpVtbl->KsoRegisterModuleName(other, "kspl_host.worker");
        nonpaged = other->lpVtbl->KsoAllocNonPagedMemory(other, 100);
    }

    run_demos(k);
    print_statistics(k);

    if (other != NULL) {
        other->lpVtbl->KsoFreeMemory(other, nonpaged);
        other->lpVtbl->Release(other);
    }
    v->KsoFreeMemory(k, paged);
    v->Release(k);
    OrlmUnloadAll();
    printf("kspl_host: done\n");
    return 0;
}
