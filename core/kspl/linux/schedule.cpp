// schedule.cpp - work items run by a fixed pool of worker threads, the plain
// delay, and the pool bookkeeping shared with the timer thread (start, stop
// and rebuilding in a forked child).
//
// Invariants of the work queue, all under g_KsplWorkItemQueue.mutex:
// - an item is on listHead exactly when its pending flag is set;
// - a worker's inactive flag is set only while it waits (or is about to
//   wait) on its own condition; a scheduler that finds it set clears it and
//   signals, so a wake-up is never lost: the worker tests the queue and sets
//   inactive under the same mutex under which the scheduler appends and
//   tests inactive.
#include <errno.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <limits>

#include "dbg_int.h"
#include "linklist_int.h"
#include "memory_int.h"
#include "schedule_int.h"
#include "stdio_int.h"

KSPL_SOURCE_UNIT("schedule");

QUEUE_INFO g_KsplWorkItemQueue = {0, PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER,
                                  {&g_KsplWorkItemQueue.listHead, &g_KsplWorkItemQueue.listHead}};
WorkItemThreadObj g_KsplWorkItemThreads[kKsplWorkItemThreadSlots];

namespace {

// Pool bookkeeping. g_poolMutex guards the two "started" flags (a pool is
// started from its Start* call until its UnInit* call) and serialises a
// forked child's rebuild against the stop requests. g_poolsNeedRestart is
// set only in a forked child whose parent ran pools, and read without the
// mutex on every schedule.
pthread_mutex_t g_poolMutex = PTHREAD_MUTEX_INITIALIZER;
bool g_workersStarted = false;
bool g_timerStarted = false;
bool g_poolsNeedRestart = false;  // atomic
bool g_forkHandlersRegistered = false;

// Fresh condition state copied over the inherited ones in a forked child:
// threads of the parent may have waited on them, and they do not exist in
// the child.
const pthread_cond_t kFreshCond = PTHREAD_COND_INITIALIZER;

inline KSO_WORK_ITEM_HANDLE* ItemOf(PLIST_ENTRY entry) {
    return KsContainerOf(entry, KSO_WORK_ITEM_HANDLE, schedQueue);
}

inline bool ItemPending(KSO_WORK_ITEM_HANDLE* item) {
    return __atomic_load_n(&item->pending, __ATOMIC_ACQUIRE) != 0;
}
inline void SetItemPending(KSO_WORK_ITEM_HANDLE* item, bool pending) {
    __atomic_store_n(&item->pending, static_cast<BOOLEAN>(pending ? 1 : 0), __ATOMIC_RELEASE);
}

// Starts the pool's workers. REQUIRES: g_poolMutex is held.
void StartWorkers() {
    KS_DCHECK(KsMutexIsLocked(&g_poolMutex));
    for (int i = 0; i < kKsplWorkItemThreadSlots; ++i) {
        WorkItemThreadObj* obj = &g_KsplWorkItemThreads[i];
        {
            KsMutexGuard guard(&g_KsplWorkItemQueue.mutex);
            obj->exit = 0;
            obj->inactive = 0;
        }
        pthread_cond_init(&obj->condition, nullptr);
        // Counted before the thread exists, so that the count never reads
        // lower than the number of live workers.
        KsAtomicAdd(&g_KsplNumWorkItemThreads, 1);
        pthread_t thread;
        if (pthread_create(&thread, nullptr, KsplWorkItemThread, obj) != 0) {
            KsAtomicAdd(&g_KsplNumWorkItemThreads, -1);
            break;  // the pool stays smaller
        }
    }
}

void StopWorkers() {
    KsMutexGuard guard(&g_KsplWorkItemQueue.mutex);
    INT32 n = KsAtomicLoad(&g_KsplNumWorkItemThreads);
    for (INT32 i = 0; i < n && i < kKsplWorkItemThreadSlots; ++i) {
        g_KsplWorkItemThreads[i].exit = 1;
        pthread_cond_broadcast(&g_KsplWorkItemThreads[i].condition);
    }
}

// fork() prepare/parent handlers: the forking thread holds every scheduling
// lock across the fork, so the child inherits consistent lists.
void ForkPrepare() {
    pthread_mutex_lock(&g_poolMutex);
    KsplTimerForkPrepare();
    pthread_mutex_lock(&g_KsplWorkItemQueue.mutex);
}

void ForkParent() {
    pthread_mutex_unlock(&g_KsplWorkItemQueue.mutex);
    KsplTimerForkParent();
    pthread_mutex_unlock(&g_poolMutex);
}

void ForkChild() { KsplScheduleForkChild(); }

}  // namespace

// ---------------------------------------------------------------------------
// Worker threads.

void* KsplWorkItemThread(void* pThreadObj) {
    auto* self = static_cast<WorkItemThreadObj*>(pThreadObj);
    pthread_detach(pthread_self());
    pthread_mutex_lock(&g_KsplWorkItemQueue.mutex);
    while (!self->exit) {
        if (!KsListEmpty(&g_KsplWorkItemQueue.listHead)) {
            PLIST_ENTRY entry = g_KsplWorkItemQueue.listHead.Flink;
            KsListRemove(entry);  // leaves the removed-entry marker in both links
            KSO_WORK_ITEM_HANDLE* item = ItemOf(entry);
            KS_DCHECK(item->Header.Signature == kSigWorkItem && ItemPending(item));
            // Read before the item stops being pending: from then on its
            // owner may destroy it.
            PKSO_WORK_ITEM_ROUTINE routine = item->pCallerRoutine;
            PVOID context = item->pCallerContext;
            SetItemPending(item, false);
            pthread_mutex_unlock(&g_KsplWorkItemQueue.mutex);
            routine(item, context);  // the item is not touched afterwards
            pthread_mutex_lock(&g_KsplWorkItemQueue.mutex);
            continue;
        }
        self->inactive = 1;
        pthread_cond_wait(&self->condition, &g_KsplWorkItemQueue.mutex);
        // Awake, whether signalled or not: no scheduler may count on this
        // worker to pick up a new item any more.
        self->inactive = 0;
    }
    pthread_mutex_unlock(&g_KsplWorkItemQueue.mutex);
    KsAtomicAdd(&g_KsplNumWorkItemThreads, -1);
    return nullptr;
}

// ---------------------------------------------------------------------------
// IKspl slots.

KSSTATUS KsoAllocWorkItem(IKspl* pThis, PKSO_WORK_ITEM_ROUTINE pWorkItemRoutine, PVOID pContext,
                          HANDLE* pHandle) {
    if (!KsplValidInstance(pThis) || pWorkItemRoutine == nullptr || pHandle == nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    auto* item = static_cast<KSO_WORK_ITEM_HANDLE*>(
        KsoAllocPagedMemory(pThis, sizeof(KSO_WORK_ITEM_HANDLE)));
    if (item == nullptr) {
        *pHandle = nullptr;
        return KSPL_STATUS(KSPL_CODE_NO_MEMORY);
    }
    std::memset(item, 0, sizeof(*item));
    item->Header.Signature = kSigWorkItem;
    item->pCallerRoutine = pWorkItemRoutine;
    item->pCallerContext = pContext;
    KsAtomicAdd(&KsplInfo(pThis)->WorkItemInUse, 1u);
    *pHandle = item;
    return 0;
}

KSSTATUS KsoScheduleWorkItem(IKspl* pThis, HANDLE hWorkItem, KSO_PRIORITY Priority) {
    if (pThis == nullptr || !KsplHandleIs(hWorkItem, kSigWorkItem)) {
        return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    }
    if (Priority > KSO_PRIORITY_REALTIME) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    KsplRestartPoolsIfForked();

    auto* item = static_cast<KSO_WORK_ITEM_HANDLE*>(hWorkItem);
    WorkItemThreadObj* wake = nullptr;
    {
        KsMutexGuard guard(&g_KsplWorkItemQueue.mutex);
        if (ItemPending(item)) goto busy;  // queued at most once at a time
        // Not pending, so on no list: its links are fresh or the removal marker.
        KS_DCHECK(item->schedQueue.Flink == nullptr ||
                  item->schedQueue.Flink == reinterpret_cast<PLIST_ENTRY>(KS_LIST_REMOVED_MARKER));
        SetItemPending(item, true);
        KsListInsertTail(&g_KsplWorkItemQueue.listHead, &item->schedQueue);
        INT32 n = KsAtomicLoad(&g_KsplNumWorkItemThreads);
        for (INT32 i = 0; i < n && i < kKsplWorkItemThreadSlots; ++i) {
            if (g_KsplWorkItemThreads[i].inactive) {
                g_KsplWorkItemThreads[i].inactive = 0;
                wake = &g_KsplWorkItemThreads[i];
                break;
            }
        }
    }
    // Signalled after the unlock so that the woken worker does not block at
    // once on the mutex we hold. Nothing is lost: the worker was found
    // inactive under the mutex, so it is inside its wait; at worst it has
    // woken spuriously meanwhile and this signal finds no waiter or ends a
    // later wait early, which the worker's loop tolerates.
    if (wake != nullptr) pthread_cond_signal(&wake->condition);
    return 0;
busy:
    return KSPL_STATUS(KSPL_CODE_BUSY);
}

KSSTATUS KsoDestroyWorkItem(IKspl* pThis, HANDLE hWork) {
    if (!KsplValidInstance(pThis) || !KsplHandleIs(hWork, kSigWorkItem)) {
        return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    }
    auto* item = static_cast<KSO_WORK_ITEM_HANDLE*>(hWork);
    if (ItemPending(item)) {
        KsoDebugPrintf(pThis, const_cast<PCHAR>("KsoDestroyWorkItem: Work Item pending"));
        return KSPL_STATUS(KSPL_CODE_BUSY);
    }
    IKspl* owner = KsplRecordOwner(item);
    if (owner == nullptr) return KsoFreeMemory(pThis, item);  // refused: not a tracked block
    KsAtomicSubChecked(&KsplInfo(owner)->WorkItemInUse, 1u);
    KsoZeroMemory(owner, item, sizeof(*item));
    return KsoFreeMemory(owner, item);
}

void KsoSleep(IKspl* /*pThis*/, UINT64 Interval) {
    constexpr UINT64 kMaxSeconds = static_cast<UINT64>(std::numeric_limits<time_t>::max());
    UINT64 seconds = Interval / 1000000u;
    struct timespec request;
    request.tv_sec = static_cast<time_t>(seconds > kMaxSeconds ? kMaxSeconds : seconds);
    request.tv_nsec = static_cast<long>((Interval * 1000u) % 1000000000u);
    struct timespec remain = {0, 0};
    if (nanosleep(&request, &remain) != 0 && errno == EINTR) nanosleep(&remain, nullptr);
}

// ---------------------------------------------------------------------------
// Infrastructure.

int InitWorkItemInfrastructure(void) {
    if (pthread_mutex_init(&g_KsplWorkItemQueue.mutex, nullptr) < 0) return -1;
    KsListInit(&g_KsplWorkItemQueue.listHead);
    if (!g_forkHandlersRegistered &&
        pthread_atfork(ForkPrepare, ForkParent, ForkChild) == 0) {
        g_forkHandlersRegistered = true;
    }
    return 0;
}

void StartWorkItemInfrastructure(void) {
    KsMutexGuard guard(&g_poolMutex);
    g_workersStarted = true;
    StartWorkers();
}

void UnInitWorkItemInfrastructure(void) {
    KsMutexGuard guard(&g_poolMutex);
    g_workersStarted = false;
    if (!g_timerStarted) __atomic_store_n(&g_poolsNeedRestart, false, __ATOMIC_RELAXED);
    StopWorkers();
}

// Called by the timer side; REQUIRES: g_poolMutex is not held.
void KsplPoolSetTimerStarted(bool started) {
    KsMutexGuard guard(&g_poolMutex);
    g_timerStarted = started;
    if (!started && !g_workersStarted) __atomic_store_n(&g_poolsNeedRestart, false, __ATOMIC_RELAXED);
    if (started) {
        KsplStartTimerThread();
    } else {
        KsplStopTimerThread();
    }
}

void KsplRestartPoolsIfForked() {
    if (!__atomic_load_n(&g_poolsNeedRestart, __ATOMIC_ACQUIRE)) return;
    KsMutexGuard guard(&g_poolMutex);
    if (!__atomic_load_n(&g_poolsNeedRestart, __ATOMIC_RELAXED)) return;
    if (g_timerStarted) KsplStartTimerThread();
    if (g_workersStarted) StartWorkers();
    __atomic_store_n(&g_poolsNeedRestart, false, __ATOMIC_RELEASE);
}

void KsplScheduleForkChild() {
    KS_DCHECK(KsMutexIsLocked(&g_poolMutex) && KsMutexIsLocked(&g_KsplWorkItemQueue.mutex));
    // Only the forking thread exists here, and it holds every scheduling
    // lock (taken by the prepare handler): the lists are consistent. The
    // conditions may still record waiters of the parent: start them afresh.
    // Items queued at the fork stay the parent's work (their routines and
    // contexts belong to its threads); in the child they are simply idle.
    while (!KsListEmpty(&g_KsplWorkItemQueue.listHead)) {
        PLIST_ENTRY entry = g_KsplWorkItemQueue.listHead.Flink;
        KsListRemove(entry);
        SetItemPending(ItemOf(entry), false);
    }
    std::memcpy(static_cast<void*>(&g_KsplWorkItemQueue.condition), &kFreshCond, sizeof(kFreshCond));
    for (WorkItemThreadObj& obj : g_KsplWorkItemThreads) {
        obj.exit = 0;
        obj.inactive = 0;
        std::memcpy(static_cast<void*>(&obj.condition), &kFreshCond, sizeof(kFreshCond));
    }
    __atomic_store_n(&g_KsplNumWorkItemThreads, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_poolsNeedRestart, g_workersStarted || g_timerStarted, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&g_KsplWorkItemQueue.mutex);
    KsplTimerForkChild();
    pthread_mutex_unlock(&g_poolMutex);
}
