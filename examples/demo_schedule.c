/* demo_schedule - deferred execution through IKspl. A work item runs on the
 * library's pool of worker threads; a timer, which fires once per schedule,
 * schedules itself again from its routine to run every 50 ms until it has
 * run five times; a second timer is cancelled before it fires. The host's
 * thread waits by polling counters with KsoSleep. The counters are written
 * by the library's threads, so they are read and written atomically. */
#include <stdio.h>

#include "host_util.h"
#include "kspl.h"

typedef struct {
    IKspl* k;
    UINT32 runs;     /* routine runs so far */
    UINT32 wanted;   /* the timer stops rescheduling itself after this many */
    UINT32 finished; /* set by the last run as its very last step */
} DemoCounter;

static UINT32 load_counter(const UINT32* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }

static void work_routine(HANDLE hWorkItem, PVOID pContext) {
    DemoCounter* c = (DemoCounter*)pContext;
    (void)hWorkItem;
    __atomic_add_fetch(&c->runs, 1u, __ATOMIC_RELEASE);
    __atomic_store_n(&c->finished, 1u, __ATOMIC_RELEASE);
}

static void tick_routine(HANDLE hTimer, PVOID pContext) {
    DemoCounter* c = (DemoCounter*)pContext;
    UINT32 n = __atomic_add_fetch(&c->runs, 1u, __ATOMIC_ACQ_REL);
    if (n < c->wanted) {
        /* Timers are one-shot: a periodic timer re-arms itself. */
        c->k->lpVtbl->KsoScheduleTimer(c->k, hTimer, 50000);
    } else {
        __atomic_store_n(&c->finished, 1u, __ATOMIC_RELEASE);
    }
}

static void never_routine(HANDLE hTimer, PVOID pContext) {
    (void)hTimer;
    (void)pContext;
    printf("schedule: a cancelled timer fired (unexpected)\n");
}

/* Polls every 10 ms until the counter's last run has finished, at most
 * limitMs milliseconds. */
static int wait_finished(IKspl* k, DemoCounter* c, UINT32 limitMs) {
    UINT32 waited = 0;
    while (!load_counter(&c->finished)) {
        if (waited >= limitMs) return 0;
        k->lpVtbl->KsoSleep(k, 10000);
        waited += 10;
    }
    return 1;
}

void demo_schedule(IKspl* k) {
    const IKsplVtbl* v = k->lpVtbl;
    DemoCounter work = {0, 0, 1, 0};
    DemoCounter ticks = {0, 0, 5, 0};
    HANDLE hWork = NULL;
    HANDLE hTick = NULL;
    HANDLE hNever = NULL;
    UINT64 start = 0;
    UINT64 end = 0;
    KSSTATUS st;

    work.k = k;
    ticks.k = k;

    /* A work item: packaged once, queued, run by a worker thread. */
    st = v->KsoAllocWorkItem(k, work_routine, &work, &hWork);
    if (st != 0) {
        printf("schedule: KsoAllocWorkItem failed: %08X (%s)\n", (unsigned)st, status_text(st));
        return;
    }
    st = v->KsoScheduleWorkItem(k, hWork, KSO_PRIORITY_NORMAL);
    if (st == 0 && wait_finished(k, &work, 5000)) {
        printf("schedule: work item ran %u time(s) on a worker thread\n",
               (unsigned)load_counter(&work.runs));
    } else {
        printf("schedule: work item did not run (status %08X, %s)\n", (unsigned)st,
               status_text(st));
    }
    /* Not queued any more, so it may be destroyed. */
    st = v->KsoDestroyWorkItem(k, hWork);
    if (st != 0) printf("schedule: KsoDestroyWorkItem failed: %08X (%s)\n", (unsigned)st, status_text(st));

    /* A periodic timer on the 10 ms tick. */
    st = v->KsoAllocTimer(k, tick_routine, &ticks, FALSE, &hTick);
    if (st != 0) {
        printf("schedule: KsoAllocTimer failed: %08X (%s)\n", (unsigned)st, status_text(st));
        return;
    }
    v->KsoGetSystemTime(k, &start);
    st = v->KsoScheduleTimer(k, hTick, 50000);
    if (st == 0 && wait_finished(k, &ticks, 10000)) {
        v->KsoGetSystemTime(k, &end);
        printf("schedule: periodic timer ran %u times in about %u ms\n",
               (unsigned)load_counter(&ticks.runs), (unsigned)((end - start) / 10000u));
    } else {
        printf("schedule: periodic timer stopped early (status %08X, %s, %u runs)\n", (unsigned)st, status_text(st),
               (unsigned)load_counter(&ticks.runs));
        /* Whatever it is doing, make sure it is not pending any more. */
        v->KsoCancelTimer(k, hTick);
        v->KsoSleep(k, 100000);
    }
    st = v->KsoDestroyTimer(k, hTick);
    if (st != 0) printf("schedule: KsoDestroyTimer failed: %08X (%s)\n", (unsigned)st, status_text(st));

    /* A timer cancelled before it fires: its routine never runs. */
    st = v->KsoAllocTimer(k, never_routine, NULL, FALSE, &hNever);
    if (st != 0) {
        printf("schedule: KsoAllocTimer failed: %08X (%s)\n", (unsigned)st, status_text(st));
        return;
    }
    v->KsoScheduleTimer(k, hNever, 10000000);
    printf("schedule: a 10 s timer cancelled before it fired: %s\n",
           v->KsoCancelTimer(k, hNever) ? "yes" : "no");
    st = v->KsoDestroyTimer(k, hNever);
    if (st != 0) printf("schedule: KsoDestroyTimer failed: %08X (%s)\n", (unsigned)st, status_text(st));
}
