// timer.cpp - one-shot timers run by the timer thread on a 10 ms tick.
//
// Scheduling pushes onto the feeder list (constant work under the mutex);
// the timer thread merges the feeder list into the main queue once per tick.
// The main queue is a delta list: each timer's delta is the number of ticks
// between its predecessor's due time and its own, so a tick touches only the
// head. The due time of a timer is the sum of the deltas up to it.
//
// g_KsplTimerQueueMutex guards both lists, every listed timer's links,
// delta and list fields, every timer's timerState, g_KsplCurrentTimers and
// the main queue's tail and length below. Timer routines run without it, one
// at a time, on the timer thread.
#include <errno.h>

#include <cstring>
#include <ctime>

#include "../memory_int.h"
#include "dbg_int.h"
#include "schedule_int.h"
#include "stdio_int.h"
#include "sync_int.h"

KSPL_SOURCE_UNIT("schedule");

pthread_mutex_t g_KsplTimerQueueMutex = PTHREAD_MUTEX_INITIALIZER;
KSO_TIMER_HANDLE* g_KsplTimerFeededQueHeadPtr = nullptr;
KSO_TIMER_HANDLE* g_KsplTimerQueHeadPtr = nullptr;
UINT32 g_KsplCurrentTimers = 0;
KSO_TIMER_HANDLE* g_KsplCurrentlyExecutingTimerPtr = nullptr;
UINT64 g_KsplTimerTickValue = 10000;
BOOLEAN g_KsplTimerThreadExit = 0;

namespace {

// Last timer of the main queue and its due time (the sum of all deltas), so
// that a timer due after every queued one is appended without a walk.
KSO_TIMER_HANDLE* g_timerQueTail = nullptr;
UINT64 g_timerQueTotal = 0;

// At most this many ticks are serviced after one sleep of the timer thread.
// A sleep that long means the process was stopped (or the machine
// suspended); the rest of the gap is dropped, so that timers which
// reschedule themselves do not fire in a burst of thousands.
constexpr INT64 kMaxCatchUpTicks = 100;

// The guard of g_KsplTimerQueueMutex. release() gives the lock up before
// the guard's end, relock() takes it back (the timer thread runs routines
// without the lock); the destructor unlocks only a lock still held.
class TimerQueueGuard {
public:
    TimerQueueGuard() { pthread_mutex_lock(&g_KsplTimerQueueMutex); }
    ~TimerQueueGuard() {
        if (held_) pthread_mutex_unlock(&g_KsplTimerQueueMutex);
    }
    TimerQueueGuard(const TimerQueueGuard&) = delete;
    TimerQueueGuard& operator=(const TimerQueueGuard&) = delete;

    void release() {
        KS_DCHECK(held_);
        held_ = false;
        pthread_mutex_unlock(&g_KsplTimerQueueMutex);
    }
    void relock() {
        KS_DCHECK(!held_);
        pthread_mutex_lock(&g_KsplTimerQueueMutex);
        held_ = true;
    }

private:
    bool held_ = true;
};

inline bool QueueLocked() { return KsplMutexLocked(&g_KsplTimerQueueMutex); }

inline UINT32 StateOf(const KSO_TIMER_HANDLE* t) {
    return __atomic_load_n(&t->timerState, __ATOMIC_ACQUIRE);
}
inline void SetState(KSO_TIMER_HANDLE* t, UINT32 state) {
    __atomic_store_n(&t->timerState, state, __ATOMIC_RELEASE);
}
inline KSO_TIMER_HANDLE* Executing() {
    return __atomic_load_n(&g_KsplCurrentlyExecutingTimerPtr, __ATOMIC_ACQUIRE);
}
inline void SetExecuting(KSO_TIMER_HANDLE* t) {
    __atomic_store_n(&g_KsplCurrentlyExecutingTimerPtr, t, __ATOMIC_RELEASE);
}
inline UINT32 CurrentTimers() { return __atomic_load_n(&g_KsplCurrentTimers, __ATOMIC_ACQUIRE); }

// Links `t` (due `due` ticks from now) into the main queue after `prev`
// (null: at the head), whose due time is `prevDue`. The caller has found
// the place: every timer up to `prev` is due at or before `due`, the one
// after it strictly later. REQUIRES: g_KsplTimerQueueMutex is held.
void LinkIntoMain(KSO_TIMER_HANDLE* t, UINT64 due, KSO_TIMER_HANDLE* prev, UINT64 prevDue) {
    KS_DCHECK(QueueLocked());
    KS_DCHECK(due >= prevDue);
    KSO_TIMER_HANDLE* next = prev != nullptr ? prev->pNextTimerStruct : g_KsplTimerQueHeadPtr;
    t->delta = static_cast<UINT32>(due - prevDue);
    t->pPrevTimerStruct = prev;
    t->pNextTimerStruct = next;
    t->list = kTimerListMain;
    if (prev != nullptr) {
        prev->pNextTimerStruct = t;
    } else {
        g_KsplTimerQueHeadPtr = t;
    }
    if (next != nullptr) {
        next->pPrevTimerStruct = t;
        KS_DCHECK(next->delta >= t->delta);
        next->delta -= t->delta;  // its due time stays where it was
    } else {
        g_timerQueTail = t;
        g_timerQueTotal = due;
    }
}

// Inserts `t` after every timer due at or before its delay. The search
// starts either at the cursor (a timer known to be due no later than `t`;
// null with cursorDue 0 for the head) walking forward, or at the tail
// walking back, whichever is nearer in due time. Returns `t`, the cursor
// for a later timer due no earlier. REQUIRES: g_KsplTimerQueueMutex is held.
KSO_TIMER_HANDLE* InsertMain(KSO_TIMER_HANDLE* t, KSO_TIMER_HANDLE* cursor, UINT64 cursorDue) {
    const UINT64 due = t->timeOutValue;
    KSO_TIMER_HANDLE* prev;
    UINT64 prevDue;
    if (due >= g_timerQueTotal) {
        prev = g_timerQueTail;  // null on an empty queue
        prevDue = g_timerQueTotal;
    } else if (due - cursorDue <= g_timerQueTotal - due) {
        prev = cursor;
        prevDue = cursorDue;
        KSO_TIMER_HANDLE* next = prev != nullptr ? prev->pNextTimerStruct : g_KsplTimerQueHeadPtr;
        while (next != nullptr && prevDue + next->delta <= due) {
            prevDue += next->delta;
            prev = next;
            next = next->pNextTimerStruct;
        }
    } else {
        prev = g_timerQueTail;
        prevDue = g_timerQueTotal;
        while (prev != nullptr && prevDue > due) {
            prevDue -= prev->delta;
            prev = prev->pPrevTimerStruct;
        }
    }
    LinkIntoMain(t, due, prev, prevDue);
    return t;
}

// Stable merge sort of a null-terminated list linked through
// pNextTimerStruct, by timeOutValue; timers with equal values keep their
// order. The back links are not maintained.
KSO_TIMER_HANDLE* SortByDelay(KSO_TIMER_HANDLE* list) {
    if (list == nullptr || list->pNextTimerStruct == nullptr) return list;
    KSO_TIMER_HANDLE* slow = list;
    KSO_TIMER_HANDLE* fast = list->pNextTimerStruct;
    while (fast != nullptr && fast->pNextTimerStruct != nullptr) {
        slow = slow->pNextTimerStruct;
        fast = fast->pNextTimerStruct->pNextTimerStruct;
    }
    KSO_TIMER_HANDLE* second = slow->pNextTimerStruct;
    slow->pNextTimerStruct = nullptr;
    KSO_TIMER_HANDLE* a = SortByDelay(list);
    KSO_TIMER_HANDLE* b = SortByDelay(second);
    KSO_TIMER_HANDLE head{};
    KSO_TIMER_HANDLE* tail = &head;
    while (a != nullptr && b != nullptr) {
        if (a->timeOutValue <= b->timeOutValue) {
            tail->pNextTimerStruct = a;
            a = a->pNextTimerStruct;
        } else {
            tail->pNextTimerStruct = b;
            b = b->pNextTimerStruct;
        }
        tail = tail->pNextTimerStruct;
    }
    tail->pNextTimerStruct = a != nullptr ? a : b;
    return head.pNextTimerStruct;
}

}  // namespace

// ---------------------------------------------------------------------------
// Queue operations. REQUIRES: g_KsplTimerQueueMutex is held.

void KsplAddToTimerFeederQue(KSO_TIMER_HANDLE* pTimer) {
    KS_DCHECK(QueueLocked());
    pTimer->pPrevTimerStruct = nullptr;
    pTimer->pNextTimerStruct = g_KsplTimerFeededQueHeadPtr;
    pTimer->delta = 0;
    pTimer->list = kTimerListFeeder;
    if (g_KsplTimerFeededQueHeadPtr != nullptr) g_KsplTimerFeededQueHeadPtr->pPrevTimerStruct = pTimer;
    g_KsplTimerFeededQueHeadPtr = pTimer;
}

void KsplAddToTimerQue(KSO_TIMER_HANDLE* pTimer) {
    pTimer->pNextTimerStruct = pTimer->pPrevTimerStruct = nullptr;
    InsertMain(pTimer, nullptr, 0);
}

void KsplMergeTimerFeederQue() {
    KS_DCHECK(QueueLocked());
    // Taking the feeder list newest first and inserting each timer after
    // every queued timer due no later gives: among the timers of one merge
    // with equal due times the newest first, and all of them after queued
    // timers with the same due time. A stable sort of the newest-first list
    // followed by one ordered pass gives the same queue in O(n + m log m).
    KSO_TIMER_HANDLE* batch = SortByDelay(g_KsplTimerFeededQueHeadPtr);
    g_KsplTimerFeededQueHeadPtr = nullptr;
    KSO_TIMER_HANDLE* cursor = nullptr;
    UINT64 cursorDue = 0;
    while (batch != nullptr) {
        KSO_TIMER_HANDLE* t = batch;
        batch = batch->pNextTimerStruct;
        t->pNextTimerStruct = t->pPrevTimerStruct = nullptr;
        cursor = InsertMain(t, cursor, cursorDue);
        cursorDue = t->timeOutValue;
    }
}

void KsplRemoveFromTimerQue(KSO_TIMER_HANDLE* pTimer) {
    KS_DCHECK(QueueLocked());
    KS_DCHECK(pTimer->list != kTimerListNone);
    KSO_TIMER_HANDLE* prev = pTimer->pPrevTimerStruct;
    KSO_TIMER_HANDLE* next = pTimer->pNextTimerStruct;
    const bool inMain = pTimer->list == kTimerListMain;
    if (prev != nullptr) {
        prev->pNextTimerStruct = next;
    } else if (inMain) {
        g_KsplTimerQueHeadPtr = next;
    } else {
        g_KsplTimerFeededQueHeadPtr = next;
    }
    if (next != nullptr) {
        next->pPrevTimerStruct = prev;
        next->delta += pTimer->delta;  // the successors' due times stay put
    } else if (inMain) {
        KS_DCHECK(g_timerQueTotal >= pTimer->delta);
        g_timerQueTail = prev;
        g_timerQueTotal -= pTimer->delta;
    }
    pTimer->pNextTimerStruct = pTimer->pPrevTimerStruct = nullptr;
    pTimer->list = kTimerListNone;
    UINT32 before = __atomic_fetch_sub(&g_KsplCurrentTimers, 1u, __ATOMIC_RELEASE);
    KS_DCHECK(before != 0);
    static_cast<void>(before);
}

// ---------------------------------------------------------------------------
// The timer thread.

void KsplServiceTimerQueues() {
    if (CurrentTimers() == 0) return;
    TimerQueueGuard lock;
    if (g_KsplTimerFeededQueHeadPtr != nullptr) KsplMergeTimerFeederQue();
    KSO_TIMER_HANDLE* head = g_KsplTimerQueHeadPtr;
    if (head == nullptr) return;
    if (head->delta != 0) {
        KS_DCHECK(g_timerQueTotal != 0);
        --head->delta;
        --g_timerQueTotal;
        if (head->delta != 0) return;
    }
    for (;;) {
        // Fire the head; every timer behind it with delta 0 is due in this
        // same tick.
        KSO_TIMER_HANDLE* t = g_KsplTimerQueHeadPtr;
        KsplRemoveFromTimerQue(t);
        SetState(t, kTimerStateFired);
        PKSO_TIMER_ROUTINE routine = t->pCallerTimerRoutine;
        PVOID context = t->pCallerContext;
        SetExecuting(t);
        lock.release();
        if (routine != nullptr) routine(t, context);  // may reschedule or destroy t
        SetExecuting(nullptr);

        if (CurrentTimers() == 0) return;
        lock.relock();
        head = g_KsplTimerQueHeadPtr;
        if (head == nullptr || head->delta != 0) return;
    }
}

namespace {

INT64 MonotonicNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<INT64>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Sleeps until `untilNs` on the monotonic clock, through interruptions.
void SleepUntil(INT64 untilNs) {
    struct timespec until;
    until.tv_sec = static_cast<time_t>(untilNs / 1000000000);
    until.tv_nsec = static_cast<long>(untilNs % 1000000000);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

}  // namespace

// Each round services the ticks that the previous sleep counted, then
// sleeps one tick. Only the time spent sleeping is counted: while routines
// run, time does not advance for the timers, so a long routine delays every
// later timer by its own length instead of leaving a backlog of ticks to be
// serviced back to back (which would fire due timers in a burst and a timer
// that re-arms itself once per missed tick). The sleep is measured on the
// monotonic clock, so a step of the system clock neither adds nor loses
// ticks; whole ticks only, as a sleep overshoots by a fraction of one.
void* KsplTimerThread(void* /*pUnused*/) {
    pthread_detach(pthread_self());
    INT64 ticksToService = 0;
    while (!__atomic_load_n(&g_KsplTimerThreadExit, __ATOMIC_ACQUIRE)) {
        for (INT64 i = 0; i < ticksToService; ++i) KsplServiceTimerQueues();

        const UINT64 tickUs = __atomic_load_n(&g_KsplTimerTickValue, __ATOMIC_RELAXED);
        const INT64 tickNs = static_cast<INT64>(tickUs != 0 ? tickUs : 1) * 1000;
        const INT64 start = MonotonicNs();
        SleepUntil(start + tickNs);
        const INT64 slept = MonotonicNs() - start;
        ticksToService = slept / tickNs;
        if (ticksToService > kMaxCatchUpTicks) ticksToService = kMaxCatchUpTicks;
    }
    KsAtomicAdd(&g_KsplNumTimerThreads, -1);
    return nullptr;
}

void KsplStartTimerThread() {
    __atomic_store_n(&g_KsplTimerThreadExit, 0, __ATOMIC_RELEASE);
    // Counted before the thread exists, so that the count never reads lower
    // than the number of live timer threads.
    KsAtomicAdd(&g_KsplNumTimerThreads, 1);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, KsplTimerThread, nullptr) != 0) {
        KsAtomicAdd(&g_KsplNumTimerThreads, -1);  // timers will not fire
    }
}

void KsplStopTimerThread() { __atomic_store_n(&g_KsplTimerThreadExit, 1, __ATOMIC_RELEASE); }

// The fork handlers hold the lock from prepare to parent or child, across
// calls, which no scoped guard can express.
void KsplTimerForkPrepare() { pthread_mutex_lock(&g_KsplTimerQueueMutex); }
void KsplTimerForkParent() { pthread_mutex_unlock(&g_KsplTimerQueueMutex); }

void KsplTimerForkChild() {
    // The parent's timer thread does not exist here; a routine it was
    // running at the fork never returns in the child.
    __atomic_store_n(&g_KsplNumTimerThreads, 0, __ATOMIC_SEQ_CST);
    SetExecuting(nullptr);
    // Timers pending at the fork stay the parent's, as a process's own
    // timers are not inherited by its child: their routines and contexts
    // belong to threads that do not exist here (a context on such a
    // thread's stack is reused by the first thread the child starts). In
    // the child they are cancelled, free to be scheduled or destroyed.
    for (KSO_TIMER_HANDLE* list : {g_KsplTimerFeededQueHeadPtr, g_KsplTimerQueHeadPtr}) {
        while (list != nullptr) {
            KSO_TIMER_HANDLE* t = list;
            list = t->pNextTimerStruct;
            t->pNextTimerStruct = t->pPrevTimerStruct = nullptr;
            t->delta = 0;
            t->list = kTimerListNone;
            SetState(t, kTimerStateCancelled);
        }
    }
    g_KsplTimerFeededQueHeadPtr = nullptr;
    g_KsplTimerQueHeadPtr = nullptr;
    g_timerQueTail = nullptr;
    g_timerQueTotal = 0;
    __atomic_store_n(&g_KsplCurrentTimers, 0u, __ATOMIC_RELEASE);
    __atomic_store_n(&g_KsplTimerThreadExit, 0, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&g_KsplTimerQueueMutex);
}

// ---------------------------------------------------------------------------
// IKspl slots.

KSSTATUS KsoAllocTimer(IKspl* pThis, PKSO_TIMER_ROUTINE pTimerRoutine, PVOID pContext,
                       BOOLEAN /*bDispatchLevel*/, PHANDLE pHandle) {
    if (!KsplValidInstance(pThis) || pTimerRoutine == nullptr || pHandle == nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    auto* t = static_cast<KSO_TIMER_HANDLE*>(KsoAllocPagedMemory(pThis, sizeof(KSO_TIMER_HANDLE)));
    if (t == nullptr) {
        *pHandle = nullptr;
        return KSPL_STATUS(KSPL_CODE_NO_MEMORY);
    }
    std::memset(t, 0, sizeof(*t));
    t->Header.Signature = kSigTimer;
    t->pCallerTimerRoutine = pTimerRoutine;
    t->pCallerContext = pContext;
    KsAtomicAdd(&KsplInfo(pThis)->TimerInUse, 1u);
    *pHandle = t;
    return 0;
}

KSSTATUS KsoScheduleTimer(IKspl* pThis, HANDLE hTimer, UINT64 Timeout) {
    if (pThis == nullptr || !KsplHandleIs(hTimer, kSigTimer)) {
        return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    }
    KsplRestartPoolsIfForked();
    auto* t = static_cast<KSO_TIMER_HANDLE*>(hTimer);
    UINT64 tickUs = __atomic_load_n(&g_KsplTimerTickValue, __ATOMIC_RELAXED);
    UINT64 ticks = Timeout / (tickUs != 0 ? tickUs : 1);
    if (ticks > 0xFFFFFFFFu) ticks = 0xFFFFFFFFu;  // clamped, never wrapped
    if (ticks == 0) ticks = 1;
    {
        TimerQueueGuard lock;
        if (StateOf(t) != kTimerStatePending) {
            SetState(t, kTimerStatePending);
            t->timeOutValue = static_cast<UINT32>(ticks);
            KsplAddToTimerFeederQue(t);
            __atomic_add_fetch(&g_KsplCurrentTimers, 1u, __ATOMIC_RELEASE);
            return 0;
        }
    }
    KsoDebugPrintf(pThis, const_cast<PCHAR>("KsoScheduleTimer: Timer pending"));
    return KSPL_STATUS(KSPL_CODE_BUSY);
}

BOOLEAN KsoCancelTimer(IKspl* pThis, HANDLE hTimer) {
    if (!KsplValidInstance(pThis) || !KsplHandleIs(hTimer, kSigTimer)) return FALSE;
    auto* t = static_cast<KSO_TIMER_HANDLE*>(hTimer);
    if (Executing() == t) return FALSE;
    TimerQueueGuard lock;
    if (StateOf(t) != kTimerStatePending) return FALSE;
    KsplRemoveFromTimerQue(t);
    SetState(t, kTimerStateCancelled);
    return TRUE;
}

KSSTATUS KsoDestroyTimer(IKspl* pThis, HANDLE hTimer) {
    if (!KsplValidInstance(pThis) || !KsplHandleIs(hTimer, kSigTimer)) {
        return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    }
    auto* t = static_cast<KSO_TIMER_HANDLE*>(hTimer);
    if (StateOf(t) == kTimerStatePending) {
        KsoDebugPrintf(pThis, const_cast<PCHAR>("KsoDestroyTimer: Timer in use"));
        return KSPL_STATUS(KSPL_CODE_BUSY);
    }
    IKspl* owner = KsplRecordOwner(t);
    if (owner == nullptr) return KsoFreeMemory(pThis, t);  // refused: not a tracked block
    KsplCountDown(&KsplInfo(owner)->TimerInUse);
    KsoZeroMemory(owner, t, sizeof(*t));
    return KsoFreeMemory(owner, t);
}

// ---------------------------------------------------------------------------
// Infrastructure.

int InitTimerInfrastructure(void) {
    return pthread_mutex_init(&g_KsplTimerQueueMutex, nullptr) < 0 ? -1 : 0;
}

void StartTimerInfrastructure(void) { KsplPoolSetTimerStarted(true); }

void UnInitTimerInfrastructure(void) { KsplPoolSetTimerStarted(false); }
