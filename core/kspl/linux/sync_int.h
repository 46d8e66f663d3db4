// sync_int.h - mutexes, spin locks, read-write locks, atomic counters and
// events: their records and the timing helpers shared with the threads.
#pragma once
#include <cerrno>
#include <ctime>

#include "../kspl_internal.h"

// Recursive mutex.
struct KSO_MUTEX_HANDLE {
    KsoHandleHeader Header;  // 'MUTX'; links unused
    pthread_mutex_t mutex;   // PTHREAD_MUTEX_RECURSIVE_NP
    // The holding thread, 0 when free (atomic). Written only by the holder,
    // so a thread that reads its own id holds the mutex.
    pthread_t owner;
};

// Non-recursive blocking lock; no busy-waiting despite the name.
struct KSO_SPINLOCK_HANDLE {
    KsoHandleHeader Header;    // 'SPIN'; links unused
    pthread_mutex_t spinLock;  // default kind
};

// Read-write lock that prefers writers; read locks are not recursive.
struct KSO_LOCK_HANDLE {
    KsoHandleHeader Header;  // 'LOCK'; links unused
    pthread_t threadId;      // last thread that acquired it (atomic store)
    pthread_rwlock_t rwLock;
};

// Event. `mutex` guards state (for signal and wait), multiWaitList and
// singleWaiters. Reset touches state without the mutex, so every access to
// state is atomic.
//
// Lock order: an event's mutex may be held while a private event's mutex
// (the one of a multiple wait) is taken, never the reverse.
struct KSO_EVENT_HANDLE {
    KsoHandleHeader Header;  // 'EVNT'; Link an empty list, Link2 unused
    UINT32 type;             // KsoSynchronizationEvent or KsoNotificationEvent
    UINT32 state;            // 0 clear, 1 set
    pthread_mutex_t mutex;   // default kind
    pthread_cond_t condition;  // single waiters sleep here (monotonic clock)
    LIST_ENTRY multiWaitList;  // registrations, linked through SingleEntry
    UINT32 singleWaiters;      // threads inside a single wait on this event
};
static_assert(offsetof(KSO_EVENT_HANDLE, type) == sizeof(KsoHandleHeader), "type follows header");

// One registration of a multiple wait on one event.
struct MY_EVENT_LIST_ENTRY {
    LIST_ENTRY MasterEntry;  // in the waiting call's private list
    LIST_ENTRY SingleEntry;  // in pSingleEvent->multiWaitList
    KSO_EVENT_HANDLE* pMasterEvent;
    KSO_EVENT_HANDLE* pSingleEvent;
};

// Takes one off an instance's resource counter; a counter that would drop
// below zero means a record was destroyed twice or never counted.
inline void KsplCountDown(UINT32* counter) {
    UINT32 before = __atomic_fetch_sub(counter, 1u, __ATOMIC_SEQ_CST);
    KS_DCHECK(before != 0);
    static_cast<void>(before);
}

// Whether `m` (a default-kind mutex) is locked. A locked default mutex
// refuses a try from every thread, its holder included; used only in
// invariant checks of functions that require the caller to hold it.
inline bool KsplMutexLocked(pthread_mutex_t* m) {
    int rc = pthread_mutex_trylock(m);
    if (rc == 0) pthread_mutex_unlock(m);
    return rc == EBUSY;
}

// Initialises a condition variable whose timed waits run on the monotonic
// clock, so a wall-clock step neither stretches nor cuts a timeout.
int KsplCondInit(pthread_cond_t* cond);

// Absolute deadline on the condition variables' clock for a relative
// timeout in microseconds (>= 0). A timeout of 0 yields a deadline already
// passed; a deadline beyond the range of time_t is clamped.
void KsplDeadline(INT64 timeoutUs, struct timespec* deadline);

// Waits on `cond` (with `mutex` held) until `deadline`, or without limit when
// deadline is null. Returns the primitive's answer.
inline int KsplCondWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                        const struct timespec* deadline) {
    return deadline == nullptr ? pthread_cond_wait(cond, mutex)
                               : pthread_cond_timedwait(cond, mutex, deadline);
}

KSSTATUS KsoAllocMutex(IKspl* pThis, UINT32 Level, HANDLE* pHandle);
KSSTATUS KsoAcquireMutex(IKspl* pThis, HANDLE Handle);
KSSTATUS KsoReleaseMutex(IKspl* pThis, HANDLE Handle);
KSSTATUS KsoDestroyMutex(IKspl* pThis, HANDLE Handle);
KSSTATUS KsoAllocSpinLock(IKspl* pThis, HANDLE* pHandle);
KSSTATUS KsoAcquireSpinLock(IKspl* pThis, HANDLE Handle, PKSSPIN_STATE pPrevState);
KSSTATUS KsoReleaseSpinLock(IKspl* pThis, HANDLE Handle, KSSPIN_STATE prevState);
KSSTATUS KsoDestroySpinLock(IKspl* pThis, HANDLE Handle);
KSSTATUS KsoAllocReadWriteLock(IKspl* pThis, HANDLE* pHandle);
KSSTATUS KsoAcquireLockForReadAccess(IKspl* pThis, HANDLE Handle, BOOLEAN bWait);
KSSTATUS KsoAcquireLockForWriteAccess(IKspl* pThis, HANDLE Handle, BOOLEAN bWait);
KSSTATUS KsoReleaseReadWriteLock(IKspl* pThis, HANDLE Handle);
KSSTATUS KsoDestroyReadWriteLock(IKspl* pThis, HANDLE Handle);
IRQ_LEVEL KsoGetCurrentIrql(IKspl* pThis);
UINT32 KsoInterlockedIncrement(IKspl* pThis, PUINT32 pValue);
UINT32 KsoInterlockedDecrement(IKspl* pThis, PUINT32 pValue);
UINT32 KsoInterlockedExchange(IKspl* pThis, PUINT32 pTarget, UINT32 Value);

KSSTATUS KsoAllocEvent(IKspl* pThis, KSO_EVENT_TYPE EventType, HANDLE* pHandle);
KSSTATUS KsoDestroyEvent(IKspl* pThis, HANDLE Handle);
KSSTATUS KsoSignalEvent(IKspl* pThis, HANDLE Handle, PBOOLEAN pPrevState);
KSSTATUS KsoResetEvent(IKspl* pThis, HANDLE Handle, PBOOLEAN pPrevState);
KSSTATUS KsoWaitForSingleEvent(IKspl* pThis, HANDLE Handle, INT64 Timeout);
KSSTATUS KsoWaitForMultipleEvents(IKspl* pThis, UINT32 Count, HANDLE* Handles, BOOLEAN bWaitAll,
                                  INT64 Timeout);
