/* kspl_host - a small component host. It loads kspl.so through the component
 * runtime (ORLM_COMPONENTS, or the path given as its argument), obtains
 * IKspl as a component does, uses its services and prints the statistics of
 * every live instance. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "host_util.h"
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
        printf("statistics size query failed: %08X (%s)\n", st, status_text(st));
        return;
    }
    buf = (unsigned char*)malloc(size);
    if (buf == NULL) return;
    st = v->KsoGetGeneralKsplStatistics(k, &size, buf);
    if (st != 0) {
        printf("statistics failed: %08X (%s)\n", st, status_text(st));
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

/* The latest failures the runtime recorded (every status built in this
 * process, with where it was built), newest last, with their dates. */
static void print_recent_statuses(IKspl* k) {
    ORLM_STATUS_RECORD records[8];
    UINT32 count = 0, i;
    UINT64 now_system = 0;
    struct timespec now_mono;
    UINT64 mono_ns;
    char date[64];

    OrlmGetRecentStatuses(records, 8, &count);
    k->lpVtbl->KsoGetSystemTime(k, &now_system);
    clock_gettime(CLOCK_MONOTONIC, &now_mono);
    mono_ns = (UINT64)now_mono.tv_sec * 1000000000u + (UINT64)now_mono.tv_nsec;
    printf("latest statuses built in this process (newest last):\n");
    for (i = 0; i < count; ++i) {
        const ORLM_STATUS_RECORD* r = &records[i];
        UINT64 age = mono_ns > r->MonotonicNs ? (mono_ns - r->MonotonicNs) / 100u : 0;
        printf("  %s  %08X  %s\n      in %s at %s:%d%s%s\n",
               format_system_time(now_system - age, date, sizeof date), r->Status,
               status_text(r->Status), r->Function, r->Unit, r->Line, r->Text[0] ? ": " : "",
               r->Text);
    }
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
        /* The runtime recorded the loader's reason with the failure. */
        ORLM_STATUS_RECORD last;
        UINT32 n = 0;
        OrlmGetRecentStatuses(&last, 1, &n);
        fprintf(stderr, "kspl_host: %08X (%s)\n  %s\n", st, status_text(st),
                n == 1 && last.Status == st && last.Text[0] ? last.Text : module);
        return 1;
    }
    st = OrlmCreateInstance(&clsid, NULL, &iid, (void**)&k);
    if (st != 0) {
        fprintf(stderr, "kspl_host: no IKspl instance: %08X (%s)\n", st, status_text(st));
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
    print_recent_statuses(k);

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
