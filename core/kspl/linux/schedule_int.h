// schedule_int.h - work items, timers and the plain delay.
//
// Lock order: the pool mutex of schedule.cpp (start, stop, a forked child's
// rebuild, fork handlers) > g_KsplTimerQueueMutex > g_KsplWorkItemQueue.mutex.
// No library lock is held while a caller's routine runs.
#pragma once
#include "../kspl_internal.h"
#include "../memory_int.h"

KSSTATUS KsoAllocWorkItem(IKspl* pThis, PKSO_WORK_ITEM_ROUTINE pWorkItemRoutine, PVOID pContext,
                          HANDLE* pHandle);
KSSTATUS KsoScheduleWorkItem(IKspl* pThis, HANDLE hWorkItem, KSO_PRIORITY Priority);
KSSTATUS KsoDestroyWorkItem(IKspl* pThis, HANDLE hWork);
void KsoSleep(IKspl* pThis, UINT64 Interval);

KSSTATUS KsoAllocTimer(IKspl* pThis, PKSO_TIMER_ROUTINE pTimerRoutine, PVOID pContext,
                       BOOLEAN bDispatchLevel, PHANDLE pHandle);
KSSTATUS KsoScheduleTimer(IKspl* pThis, HANDLE hTimer, UINT64 Timeout);
BOOLEAN KsoCancelTimer(IKspl* pThis, HANDLE hTimer);
KSSTATUS KsoDestroyTimer(IKspl* pThis, HANDLE hTimer);

// The instance whose tracked memory holds a resource record: its counters
// are the ones the record was counted in, whichever instance a caller passes
// to destroy it. Null when the record is not a live tracked block.
inline IKspl* KsplRecordOwner(void* record) {
    auto* header =
        reinterpret_cast<KSO_MEM_HANDLE*>(static_cast<unsigned char*>(record) - kMemHeaderSize);
    return header->Signature == kSigMemory && KsplValidInstance(header->Owner) ? header->Owner
                                                                                : nullptr;
}

// ---------------------------------------------------------------------------
// Work items.

struct KSO_WORK_ITEM_HANDLE {
    KsoHandleHeader Header;  // Signature 'WORK'; the links are not used
    LIST_ENTRY schedQueue;   // on g_KsplWorkItemQueue.listHead while pending
    // Set and cleared under g_KsplWorkItemQueue.mutex; read without it by
    // KsoDestroyWorkItem, so every access is atomic.
    BOOLEAN pending;
    PKSO_WORK_ITEM_ROUTINE pCallerRoutine;
    PVOID pCallerContext;
};

struct QUEUE_INFO {
    BOOLEAN exit;               // not used: each worker has its own stop flag
    pthread_mutex_t mutex;      // guards listHead, every worker's inactive
                                // and exit flags, and queued items' pending
    pthread_cond_t condition;   // not used: workers sleep on their own
    LIST_ENTRY listHead;        // FIFO of KSO_WORK_ITEM_HANDLE.schedQueue
};

struct WorkItemThreadObj {
    BOOLEAN exit;              // stop request; guarded by the queue's mutex
    BOOLEAN inactive;          // asleep for lack of work; guarded likewise
    pthread_cond_t condition;  // this worker sleeps here with the queue's mutex
};

constexpr int kKsplWorkItemThreadSlots = 8;

extern QUEUE_INFO g_KsplWorkItemQueue;
extern WorkItemThreadObj g_KsplWorkItemThreads[kKsplWorkItemThreadSlots];

void* KsplWorkItemThread(void* pThreadObj);

// ---------------------------------------------------------------------------
// Timers.

constexpr UINT32 kTimerStatePending = KsSignature("CALA");
constexpr UINT32 kTimerStateCancelled = KsSignature("CALC");
constexpr UINT32 kTimerStateFired = KsSignature("CALF");
static_assert(kTimerStatePending == 0x414C4143u && kTimerStateCancelled == 0x434C4143u &&
                  kTimerStateFired == 0x464C4143u,
              "timer states");

struct KSO_TIMER_HANDLE {
    KsoHandleHeader Header;  // Signature 'TIMR'; the links are not used
    // Neighbours in whichever timer list holds the timer; null at the ends.
    KSO_TIMER_HANDLE* pNextTimerStruct;
    KSO_TIMER_HANDLE* pPrevTimerStruct;
    UINT32 timeOutValue;  // requested delay in ticks, at least 1
    UINT32 delta;         // in the main queue: ticks after the previous timer's due time
    // 0, 'CALA', 'CALC' or 'CALF'. Changed under g_KsplTimerQueueMutex; read
    // without it by KsoDestroyTimer, so every access is atomic.
    UINT32 timerState;
    PKSO_TIMER_ROUTINE pCallerTimerRoutine;
    PVOID pCallerContext;
    // Which list holds the timer (kTimerListNone/Feeder/Main), so that a
    // removal can keep the main queue's tail and length in step.
    UINT32 list;
};

constexpr UINT32 kTimerListNone = 0;
constexpr UINT32 kTimerListFeeder = 1;
constexpr UINT32 kTimerListMain = 2;

// g_KsplTimerQueueMutex guards both lists, every timer's links, delta,
// list and timerState, and the counters below (g_KsplCurrentTimers is also
// read without it, atomically).
extern pthread_mutex_t g_KsplTimerQueueMutex;
extern KSO_TIMER_HANDLE* g_KsplTimerFeededQueHeadPtr;  // newest first
extern KSO_TIMER_HANDLE* g_KsplTimerQueHeadPtr;        // delta list by due time
extern UINT32 g_KsplCurrentTimers;                     // timers in either list
extern KSO_TIMER_HANDLE* g_KsplCurrentlyExecutingTimerPtr;  // atomic
extern UINT64 g_KsplTimerTickValue;                    // microseconds per tick
extern BOOLEAN g_KsplTimerThreadExit;                  // atomic

// REQUIRES: g_KsplTimerQueueMutex is held.
void KsplAddToTimerFeederQue(KSO_TIMER_HANDLE* pTimer);
void KsplAddToTimerQue(KSO_TIMER_HANDLE* pTimer);
void KsplRemoveFromTimerQue(KSO_TIMER_HANDLE* pTimer);
// Moves the whole feeder list into the main queue.
void KsplMergeTimerFeederQue();

// Take the mutex themselves.
void KsplServiceTimerQueues();
void* KsplTimerThread(void* pUnused);

// ---------------------------------------------------------------------------
// Pool start, stop and fork support. A forked child has none of the
// parent's threads: the fork handlers keep the lists consistent across the
// fork and reset the thread counts in the child (creating no thread), and
// the first schedule in the child starts fresh pools. Work items queued and
// timers pending at the fork are the parent's: the child starts with empty
// queues, those items idle and those timers cancelled.

// Records whether the timer pool is wanted and starts or stops its thread.
// REQUIRES: g_poolMutex (schedule.cpp) is not held.
void KsplPoolSetTimerStarted(bool started);
// REQUIRES: the pool mutex is held (or initialisation is single-threaded).
void KsplStartTimerThread();
void KsplStopTimerThread();

// Starts the pools again if the process is a forked child whose parent ran
// them; one relaxed load when there is nothing to do.
void KsplRestartPoolsIfForked();

// fork() handlers: the timer side is driven by the work-item side, which
// registers the handlers. Prepare takes the timer mutex, parent releases
// it, child releases it and resets the timer thread's state.
void KsplTimerForkPrepare();
void KsplTimerForkParent();
void KsplTimerForkChild();
// Child handler of the whole module.
void KsplScheduleForkChild();
