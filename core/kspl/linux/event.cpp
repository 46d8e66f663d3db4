// event.cpp - events: signal, reset, and waits for one or several events.
//
// A synchronization event releases one waiter per signal and is cleared by
// the waiter that consumes it; a notification event releases every waiter
// and stays set until reset.
//
// A multiple wait registers the calling thread on every event it still has
// to see (MY_EVENT_LIST_ENTRY on the event's multiWaitList) and sleeps on a
// private event of its own; a signal on any of those events sets and
// signals the private event.
//
// Lock order (outer first):
//   event->mutex
//     private->mutex      (a signal reaching a registered multiple waiter)
//     instance ProtectionMutex  (registration memory, allocated and freed
//                                while the event is locked)
// A multiple waiter takes event mutexes one at a time and only while it
// does not hold its private mutex.
//
// Cancellation: a thread cancelled in a wait leaves every event as it was
// usable: the single wait's cleanup releases the event mutex (passing on a
// wake-up it may have taken); the multiple wait runs with cancellation off
// except while it sleeps, and its cleanup removes every registration.
#include <cerrno>
#include <cstdlib>

#include "../sysalloc_int.h"
#include "linklist_int.h"
#include "memory_int.h"
#include "stdio_int.h"
#include "sync_int.h"

KSPL_SOURCE_UNIT("sync");

namespace {

inline KSO_EVENT_HANDLE* AsEvent(HANDLE h) { return static_cast<KSO_EVENT_HANDLE*>(h); }

inline UINT32 LoadState(const KSO_EVENT_HANDLE* e) {
    return __atomic_load_n(&e->state, __ATOMIC_SEQ_CST);
}
inline void StoreState(KSO_EVENT_HANDLE* e, UINT32 value) {
    __atomic_store_n(&e->state, value, __ATOMIC_SEQ_CST);
}

// Takes the event if it is set: a synchronization event is cleared (consumed)
// by the taker, a notification event stays set. The consumption is an
// exchange because a reset may clear the state concurrently without the
// mutex: exactly one of the two takes a given signal.
// REQUIRES: e->mutex is held.
inline bool TakeIfSet(KSO_EVENT_HANDLE* e) {
    KS_DCHECK(KsplMutexLocked(&e->mutex));
    // Only signals set the state, under the mutex: a clear state stays clear.
    if (LoadState(e) == 0) return false;
    if (e->type == KsoNotificationEvent) return true;
    return __atomic_exchange_n(&e->state, 0u, __ATOMIC_SEQ_CST) != 0;
}

void InitEventRecord(KSO_EVENT_HANDLE* e, UINT32 type) {
    KsListInit(&e->Header.Link);
    e->Header.Signature = kSigEvent;
    e->type = type;
    e->state = 0;
    e->singleWaiters = 0;
    KsListInit(&e->multiWaitList);
    KsplCondInit(&e->condition);
    pthread_mutex_init(&e->mutex, nullptr);
}

// ----------------------------------------------------------------------------
// Single wait
// ----------------------------------------------------------------------------

// Cleanup of a single waiter cancelled in its sleep (the mutex is held
// again). The cancelled thread may have taken the one wake-up a signal of a
// synchronization event gave out; hand it to another sleeper.
void SingleWaitCancelled(void* arg) {
    auto* e = static_cast<KSO_EVENT_HANDLE*>(arg);
    KS_DCHECK(e->singleWaiters != 0);
    --e->singleWaiters;
    if (LoadState(e) != 0 && e->singleWaiters != 0) pthread_cond_signal(&e->condition);
    pthread_mutex_unlock(&e->mutex);
}

// ----------------------------------------------------------------------------
// Multiple wait
// ----------------------------------------------------------------------------

// State of one multiple wait, in the waiting call's frame.
struct MultiWait {
    IKspl* instance;            // registrations come from its paged memory
    KSO_EVENT_HANDLE priv;      // never handed out; signallers set it
    LIST_ENTRY registrations;   // MY_EVENT_LIST_ENTRY via MasterEntry
};

inline MY_EVENT_LIST_ENTRY* FromMaster(PLIST_ENTRY link) {
    return reinterpret_cast<MY_EVENT_LIST_ENTRY*>(reinterpret_cast<char*>(link) -
                                                 offsetof(MY_EVENT_LIST_ENTRY, MasterEntry));
}
inline MY_EVENT_LIST_ENTRY* FromSingle(PLIST_ENTRY link) {
    return reinterpret_cast<MY_EVENT_LIST_ENTRY*>(reinterpret_cast<char*>(link) -
                                                 offsetof(MY_EVENT_LIST_ENTRY, SingleEntry));
}

// Registers the wait on `e`.
// REQUIRES: e->mutex is held (no signal can fall between the caller's test
// of the state and the registration).
bool Register(MultiWait* w, KSO_EVENT_HANDLE* e) {
    KS_DCHECK(KsplMutexLocked(&e->mutex));
    auto* r = static_cast<MY_EVENT_LIST_ENTRY*>(
        KsoAllocPagedMemory(w->instance, sizeof(MY_EVENT_LIST_ENTRY)));
    if (r == nullptr) return false;
    r->pMasterEvent = &w->priv;
    r->pSingleEvent = e;
    KsListInsertTail(&w->registrations, &r->MasterEntry);
    KsListInsertTail(&e->multiWaitList, &r->SingleEntry);
    return true;
}

// Unlinks a registration from its event (taking the event's mutex unless
// the caller holds it) and from the private list, and frees it.
void Unregister(MultiWait* w, MY_EVENT_LIST_ENTRY* r, bool eventLocked) {
    KSO_EVENT_HANDLE* e = r->pSingleEvent;
    if (!eventLocked) pthread_mutex_lock(&e->mutex);
    KS_DCHECK(KsplMutexLocked(&e->mutex));
    KsListRemove(&r->SingleEntry);
    if (!eventLocked) pthread_mutex_unlock(&e->mutex);
    KsListRemove(&r->MasterEntry);
    r->pMasterEvent = nullptr;
    r->pSingleEvent = nullptr;
    KsoFreeMemory(w->instance, r);
}

// Removes every registration, newest first.
// REQUIRES: w->priv.mutex is not held.
void UnregisterAll(MultiWait* w) {
    while (!KsListEmpty(&w->registrations)) {
        Unregister(w, FromMaster(w->registrations.Blink), false);
    }
}

// Cleanup of a multiple waiter cancelled in its sleep (the private mutex is
// held again): no event may keep a registration that points into this frame.
void MultiWaitCancelled(void* arg) {
    auto* w = static_cast<MultiWait*>(arg);
    pthread_mutex_unlock(&w->priv.mutex);
    UnregisterAll(w);
    pthread_mutex_destroy(&w->priv.mutex);
    pthread_cond_destroy(&w->priv.condition);
}

// First position of `e` in the caller's array.
UINT32 PositionOf(HANDLE* handles, UINT32 count, KSO_EVENT_HANDLE* e) {
    for (UINT32 i = 0; i < count; ++i) {
        if (handles[i] == e) return i;
    }
    return 0;
}

enum class Sleep { kWoken, kTimedOut, kFailed };

// What a single wait returns when the sleep fails for a reason other than
// its deadline: the bare value 1, neither built nor logged, and not an
// error status (its severity bits are clear).
constexpr KSSTATUS kSingleWaitFailed = 1;

// The sleep itself, the only place where a multiple wait can be cancelled.
// REQUIRES: w->priv.mutex held; cancellation disabled by the caller, whose
// previous state is `cancelState`.
int CancellableSleep(MultiWait* w, const struct timespec* deadline, int cancelState) {
    volatile int rc = 0;  // volatile: lives across the cleanup's setjmp
    pthread_cleanup_push(MultiWaitCancelled, w);
    pthread_setcancelstate(cancelState, nullptr);
    rc = KsplCondWait(&w->priv.condition, &w->priv.mutex, deadline);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_cleanup_pop(0);
    return rc;
}

// One sleep on the private event, skipped when a signal already came.
// REQUIRES: cancellation disabled by the caller; w->priv.mutex not held.
Sleep SleepOnPrivate(MultiWait* w, const struct timespec* deadline, int cancelState) {
    Sleep result = Sleep::kWoken;
    pthread_mutex_lock(&w->priv.mutex);
    if (LoadState(&w->priv) == 0) {
        int oldType;
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &oldType);
        int rc = CancellableSleep(w, deadline, cancelState);
        pthread_setcanceltype(oldType, &oldType);
        if (rc == ETIMEDOUT) {
            result = Sleep::kTimedOut;
        } else if (rc != 0 && rc != EINTR) {
            result = Sleep::kFailed;
        }
    }
    StoreState(&w->priv, 0);
    pthread_mutex_unlock(&w->priv.mutex);
    return result;
}

}  // namespace

// ----------------------------------------------------------------------------
// Allocation and destruction
// ----------------------------------------------------------------------------

KSSTATUS KsoAllocEvent(IKspl* pThis, KSO_EVENT_TYPE EventType, HANDLE* pHandle) {
    if (!KsplValidInstance(pThis) || pHandle == nullptr || EventType > KsoNotificationEvent) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    *pHandle = nullptr;
    auto* e = static_cast<KSO_EVENT_HANDLE*>(KsplSysCalloc(1, sizeof(KSO_EVENT_HANDLE)));
    if (e == nullptr) return KSPL_STATUS(KSPL_CODE_FAILURE);
    InitEventRecord(e, EventType);
    KsAtomicAdd(&KsplInfo(pThis)->EventInUse, 1u);
    *pHandle = e;
    return 0;
}

KSSTATUS KsoDestroyEvent(IKspl* pThis, HANDLE Handle) {
    if (!KsplValidInstance(pThis) || !KsplHandleIs(Handle, kSigEvent)) {
        return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    }
    KSO_EVENT_HANDLE* e = AsEvent(Handle);
    // All or nothing: the event is refused while anyone holds its mutex,
    // sleeps in a single wait or is registered by a multiple wait; only then
    // is anything torn down.
    if (pthread_mutex_trylock(&e->mutex) != 0) return KSPL_STATUS(KSPL_CODE_BUSY);
    bool inUse = e->singleWaiters != 0 || !KsListEmpty(&e->multiWaitList);
    pthread_mutex_unlock(&e->mutex);
    if (inUse || pthread_mutex_destroy(&e->mutex) != 0) return KSPL_STATUS(KSPL_CODE_BUSY);
    pthread_cond_destroy(&e->condition);
    KsplCountDown(&KsplInfo(pThis)->EventInUse);
    KsoZeroMemory(pThis, e, sizeof(*e));
    KsplSysFree(e);
    return 0;
}

// ----------------------------------------------------------------------------
// Signal and reset
// ----------------------------------------------------------------------------

KSSTATUS KsoSignalEvent(IKspl* /*pThis*/, HANDLE Handle, PBOOLEAN pPrevState) {
    if (!KsplHandleIs(Handle, kSigEvent)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    KSO_EVENT_HANDLE* e = AsEvent(Handle);
    pthread_mutex_lock(&e->mutex);
    bool wasSet = LoadState(e) != 0;
    if (!wasSet) {
        StoreState(e, 1);
        // singleWaiters is exact under the mutex: no sleeper, no wake-up due.
        if (e->singleWaiters != 0) {
            if (e->type == KsoNotificationEvent) {
                pthread_cond_broadcast(&e->condition);
            } else {
                pthread_cond_signal(&e->condition);
            }
        }
        // A registration is linked here only while its pointers are set:
        // they are cleared after it is unlinked, under this mutex.
        for (PLIST_ENTRY link = e->multiWaitList.Flink; link != &e->multiWaitList;
             link = link->Flink) {
            KSO_EVENT_HANDLE* master = FromSingle(link)->pMasterEvent;
            KS_DCHECK(master != nullptr && FromSingle(link)->pSingleEvent == e);
            pthread_mutex_lock(&master->mutex);
            if (LoadState(master) == 0) {
                StoreState(master, 1);
                pthread_cond_signal(&master->condition);
            }
            pthread_mutex_unlock(&master->mutex);
        }
    }
    pthread_mutex_unlock(&e->mutex);
    if (pPrevState != nullptr) *pPrevState = wasSet ? TRUE : FALSE;
    return 0;
}

KSSTATUS KsoResetEvent(IKspl* pThis, HANDLE Handle, PBOOLEAN pPrevState) {
    if (!KsplHandleIs(Handle, kSigEvent)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    // Lock-free: a reset racing a signal is ordered by the exchange, the
    // later of the two wins.
    UINT32 old = KsoInterlockedExchange(pThis, &AsEvent(Handle)->state, 0);
    if (pPrevState != nullptr) *pPrevState = old != 0 ? TRUE : FALSE;
    return 0;
}

// ----------------------------------------------------------------------------
// Waits
// ----------------------------------------------------------------------------

KSSTATUS KsoWaitForSingleEvent(IKspl* /*pThis*/, HANDLE Handle, INT64 Timeout) {
    if (!KsplHandleIs(Handle, kSigEvent)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    if (Timeout < -1) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    KSO_EVENT_HANDLE* e = AsEvent(Handle);
    struct timespec deadline;
    const struct timespec* limit = nullptr;
    if (Timeout != -1) {
        KsplDeadline(Timeout, &deadline);
        limit = &deadline;
    }

    volatile KSSTATUS result = 0;  // volatile: lives across the cleanup's setjmp
    int oldType;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &oldType);
    pthread_cleanup_push(SingleWaitCancelled, e);
    pthread_mutex_lock(&e->mutex);
    ++e->singleWaiters;
    // Success only for a set event actually seen (and, for a synchronization
    // event, consumed) here; a wake-up that finds the event clear (another
    // waiter or a reset was first, or a spurious wake) sleeps again until
    // the deadline.
    while (!TakeIfSet(e)) {
        if (Timeout == 0) {
            result = KSPL_STATUS_WAIT_TIMEOUT;
            break;
        }
        int rc = KsplCondWait(&e->condition, &e->mutex, limit);
        if (rc == ETIMEDOUT) {
            if (TakeIfSet(e)) break;
            result = KSPL_STATUS_WAIT_TIMEOUT;
            break;
        }
        if (rc != 0 && rc != EINTR) {
            result = kSingleWaitFailed;
            break;
        }
    }
    KS_DCHECK(e->singleWaiters != 0);
    --e->singleWaiters;
    pthread_mutex_unlock(&e->mutex);
    pthread_cleanup_pop(0);
    pthread_setcanceltype(oldType, &oldType);
    return result;
}

KSSTATUS KsoWaitForMultipleEvents(IKspl* pThis, UINT32 Count, HANDLE* Handles, BOOLEAN bWaitAll,
                                  INT64 Timeout) {
    if (Count == 0 || Handles == nullptr) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    if (Count == 1) return KsoWaitForSingleEvent(pThis, Handles[0], Timeout);
    if (Timeout < -1) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);

    // Every wait on several events starts out as the code 1 failure, built
    // (and so logged) on each call whatever the outcome. It is the answer
    // when nothing satisfies a zero-timeout wait or a sleep fails outright.
    const KSSTATUS notSatisfied = KSPL_STATUS(KSPL_CODE_FAILURE);

    // Wait-any with an event already set needs no registration: take the
    // first set one in array order. (A registering scan would find the same
    // event, after allocating and freeing registrations for the ones before.)
    if (!bWaitAll) {
        for (UINT32 i = 0; i < Count; ++i) {
            if (!KsplHandleIs(Handles[i], kSigEvent)) {
                return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
            }
            KSO_EVENT_HANDLE* e = AsEvent(Handles[i]);
            pthread_mutex_lock(&e->mutex);
            bool taken = TakeIfSet(e);
            pthread_mutex_unlock(&e->mutex);
            if (taken) return i;
        }
        if (Timeout == 0) return notSatisfied;
    }

    // Cancellation strikes only while the call sleeps (SleepOnPrivate); a
    // cancellation anywhere else could leave registrations behind.
    int cancelState;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);

    MultiWait w;
    w.instance = pThis;
    InitEventRecord(&w.priv, KsoSynchronizationEvent);
    KsListInit(&w.registrations);

    // First scan, in array order. Handles are checked as the scan reaches
    // them, so events before a bad handle may already be consumed.
    UINT32 failure = 0;  // code of a failure found by the scan
    bool satisfied = false;
    bool anyClear = false;
    UINT32 index = 0;
    for (UINT32 i = 0; i < Count; ++i) {
        if (!KsplHandleIs(Handles[i], kSigEvent)) {
            failure = KSPL_CODE_INVALID_HANDLE;
            break;
        }
        KSO_EVENT_HANDLE* e = AsEvent(Handles[i]);
        pthread_mutex_lock(&e->mutex);
        if (TakeIfSet(e)) {
            pthread_mutex_unlock(&e->mutex);
            if (bWaitAll) continue;
            satisfied = true;
            index = i;
            break;
        }
        anyClear = true;
        bool registered = Timeout == 0 || Register(&w, e);
        pthread_mutex_unlock(&e->mutex);
        if (!registered) {
            failure = KSPL_CODE_NO_MEMORY;
            break;
        }
    }
    // Wait-all is satisfied when the scan found every event set.
    if (failure == 0 && bWaitAll) satisfied = !anyClear;

    bool timedOut = false;
    if (failure == 0 && !satisfied && Timeout != 0) {
        // Wait-any sleeps until one deadline for the whole call, going back
        // to sleep after a wake-up that found nothing. Wait-all gives every
        // cycle the full timeout from that cycle's start: a wait-all times
        // out only when no further event came within one timeout of the last.
        struct timespec deadline;
        const struct timespec* limit = nullptr;
        if (Timeout != -1) {
            KsplDeadline(Timeout, &deadline);
            limit = &deadline;
        }
        for (bool firstCycle = true;; firstCycle = false) {
            if (bWaitAll && limit != nullptr && !firstCycle) KsplDeadline(Timeout, &deadline);
            Sleep slept = SleepOnPrivate(&w, limit, cancelState);
            // Pass over the registrations in array order: every event found
            // set is consumed and its registration dropped, in both modes.
            // Wait-any reports the first one found; the others it took in the
            // same pass are not reported.
            bool found = false;
            PLIST_ENTRY link = w.registrations.Flink;
            while (link != &w.registrations) {
                MY_EVENT_LIST_ENTRY* r = FromMaster(link);
                link = link->Flink;
                KSO_EVENT_HANDLE* e = r->pSingleEvent;
                pthread_mutex_lock(&e->mutex);
                if (TakeIfSet(e)) {
                    if (!found && !bWaitAll) index = PositionOf(Handles, Count, e);
                    found = true;
                    Unregister(&w, r, true);
                }
                pthread_mutex_unlock(&e->mutex);
            }
            // A cycle whose sleep ran out ends the wait with code 10, even
            // when the pass found events set (those stay consumed).
            if (slept == Sleep::kTimedOut) {
                timedOut = true;
                break;
            }
            // Wait-all goes on while registrations remain; wait-any is done
            // once a pass found anything, else it sleeps again for the rest
            // of the timeout.
            satisfied = bWaitAll ? KsListEmpty(&w.registrations) : found;
            if (satisfied || slept == Sleep::kFailed) break;
        }
    }

    UnregisterAll(&w);
    pthread_mutex_destroy(&w.priv.mutex);
    pthread_cond_destroy(&w.priv.condition);
    pthread_setcancelstate(cancelState, nullptr);

    if (failure != 0) return KSPL_STATUS(failure);
    if (timedOut) return KSPL_STATUS(KSPL_CODE_TIMEOUT);
    if (satisfied) return bWaitAll ? 0 : index;
    // Timeout 0 and not satisfied, or a sleep that failed outright.
    return notSatisfied;
}
