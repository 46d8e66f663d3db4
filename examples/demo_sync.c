/* demo_sync - a lock, an event and a client thread in use.
 *
 * A client thread waits for a "go" event, adds to a shared total under a
 * recursive mutex, reports through a "done" event and ends itself with an
 * exit status. The host waits for "done" (or a time-out) with a multiple
 * wait, then for the thread's end, reads its exit status and gives
 * everything back. */
#include <stdio.h>

#include "host_util.h"
#include "kspl.h"

typedef struct DemoShared {
    IKspl* k;
    HANDLE mutex; /* guards total */
    HANDLE go;    /* notification: set once, releases the worker */
    HANDLE done;  /* synchronization: the worker's report */
    UINT32 total;
} DemoShared;

static void demo_worker(HANDLE self, PVOID context) {
    DemoShared* s = (DemoShared*)context;
    const IKsplVtbl* v = s->k->lpVtbl;
    UINT32 i;

    v->KsoWaitForSingleEvent(s->k, s->go, -1);
    for (i = 1; i <= 100; ++i) {
        v->KsoAcquireMutex(s->k, s->mutex);
        s->total += i;
        v->KsoReleaseMutex(s->k, s->mutex);
    }
    v->KsoSignalEvent(s->k, s->done, NULL);
    /* Ends this thread; the record stays for the host to read and destroy. */
    v->KsoExitThread(s->k, self, 0x2Au, FALSE);
}

void demo_sync(IKspl* k) {
    const IKsplVtbl* v = k->lpVtbl;
    DemoShared s;
    HANDLE thread = NULL;
    HANDLE waitFor[2];
    HANDLE never = NULL;
    KSSTATUS st;

    s.k = k;
    s.mutex = s.go = s.done = NULL;
    s.total = 0;
    if (v->KsoAllocMutex(k, 0, &s.mutex) != 0 ||
        v->KsoAllocEvent(k, KsoNotificationEvent, &s.go) != 0 ||
        v->KsoAllocEvent(k, KsoSynchronizationEvent, &s.done) != 0 ||
        v->KsoAllocEvent(k, KsoSynchronizationEvent, &never) != 0) {
        printf("demo_sync: could not allocate the locks and events\n");
        goto out;
    }
    st = v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, demo_worker, &s, &thread);
    if (st != 0) {
        printf("demo_sync: thread creation failed: %08X (%s)\n", st, status_text(st));
        goto out;
    }
    st = v->KsoDestroyThread(k, thread);
    printf("demo_sync: worker started; destroy while running gives %08X (%s)\n", st,
           status_text(st));

    v->KsoSignalEvent(k, s.go, NULL);
    waitFor[0] = never;
    waitFor[1] = s.done;
    st = v->KsoWaitForMultipleEvents(k, 2, waitFor, FALSE, 5000000); /* 5 s */
    printf("demo_sync: wait-any returned %u (1 = the worker's report)\n", st);

    st = v->KsoWaitForThreadExit(k, thread, -1);
    v->KsoAcquireMutex(k, s.mutex);
    printf("demo_sync: worker ended (%08X, %s), exit status %08X, total %u\n", st,
           status_text(st), v->KsoGetThreadExitStatus(k, thread), s.total);
    v->KsoReleaseMutex(k, s.mutex);
    v->KsoDestroyThread(k, thread);

out:
    if (never != NULL) v->KsoDestroyEvent(k, never);
    if (s.done != NULL) v->KsoDestroyEvent(k, s.done);
    if (s.go != NULL) v->KsoDestroyEvent(k, s.go);
    if (s.mutex != NULL) v->KsoDestroyMutex(k, s.mutex);
}
