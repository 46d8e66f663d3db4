// sync.cpp - recursive mutexes, spin locks, read-write locks, the atomic
// counter operations and the timing helpers of the waits.
//
// Lock records come from the system heap and are accounted only in the
// allocating instance's MutexInUse / SpinLockInUse / LockInUse counters.
// Acquire and release look at nothing but the record: no instance, no
// allocation, no instance-wide lock.
#include <cerrno>
#include <cstdlib>
#include <limits>

#include "../sysalloc_int.h"
#include "stdio_int.h"
#include "sync_int.h"

KSPL_SOURCE_UNIT("sync");

namespace {

// Allocation frame shared by the three lock kinds: instance and out-pointer
// checks are the caller's; this zero-fills a heap record.
template <typename Record>
Record* NewRecord() {
    return static_cast<Record*>(KsplSysCalloc(1, sizeof(Record)));
}

// Clears the record (and with it the signature) before its memory goes back,
// so that a stale handle fails the signature check rather than aliasing.
template <typename Record>
void FreeRecord(Record* record) {
    KsoZeroMemory(nullptr, record, sizeof(Record));
    KsplSysFree(record);
}

}  // namespace

// ----------------------------------------------------------------------------
// Timing helpers
// ----------------------------------------------------------------------------

int KsplCondInit(pthread_cond_t* cond) {
    pthread_condattr_t attr;
    int rc = pthread_condattr_init(&attr);
    if (rc != 0) return rc;
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    rc = pthread_cond_init(cond, &attr);
    pthread_condattr_destroy(&attr);
    return rc;
}

void KsplDeadline(INT64 timeoutUs, struct timespec* deadline) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    INT64 sec = static_cast<INT64>(now.tv_sec) + timeoutUs / 1000000;
    INT64 nsec = static_cast<INT64>(now.tv_nsec) +
                 static_cast<INT64>((static_cast<UINT64>(timeoutUs) * 1000u) % 1000000000u);
    if (nsec > 999999999) {
        nsec -= 1000000000;
        sec += 1;
    }
    // A 32-bit time_t cannot hold a deadline decades away: clamp rather than
    // wrap into the past.
    constexpr INT64 kMaxSec = static_cast<INT64>(std::numeric_limits<time_t>::max());
    if (sec > kMaxSec) {
        sec = kMaxSec;
        nsec = 999999999;
    }
    deadline->tv_sec = static_cast<time_t>(sec);
    deadline->tv_nsec = static_cast<long>(nsec);
}

// ----------------------------------------------------------------------------
// Recursive mutexes
// ----------------------------------------------------------------------------

KSSTATUS KsoAllocMutex(IKspl* pThis, UINT32 /*Level*/, HANDLE* pHandle) {
    if (!KsplValidInstance(pThis) || pHandle == nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    *pHandle = nullptr;
    auto* m = NewRecord<KSO_MUTEX_HANDLE>();
    if (m == nullptr) return KSPL_STATUS(KSPL_CODE_FAILURE);
    m->Header.Signature = kSigMutex;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE_NP);
    pthread_mutex_init(&m->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    KsAtomicAdd(&KsplInfo(pThis)->MutexInUse, 1u);
    *pHandle = m;
    return 0;
}

KSSTATUS KsoAcquireMutex(IKspl* /*pThis*/, HANDLE Handle) {
    if (!KsplHandleIs(Handle, kSigMutex)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    pthread_mutex_lock(&static_cast<KSO_MUTEX_HANDLE*>(Handle)->mutex);
    return 0;
}

KSSTATUS KsoReleaseMutex(IKspl* /*pThis*/, HANDLE Handle) {
    if (!KsplHandleIs(Handle, kSigMutex)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    // A release by a thread that does not own the mutex is refused by the
    // primitive and changes nothing.
    pthread_mutex_unlock(&static_cast<KSO_MUTEX_HANDLE*>(Handle)->mutex);
    return 0;
}

KSSTATUS KsoDestroyMutex(IKspl* pThis, HANDLE Handle) {
    if (!KsplValidInstance(pThis) || !KsplHandleIs(Handle, kSigMutex)) {
        return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    }
    auto* m = static_cast<KSO_MUTEX_HANDLE*>(Handle);
    // Held by another thread: the try fails. Held by the caller: the try
    // succeeds by recursion, and the mutex's recursion count (glibc keeps it
    // in the mutex itself) shows the earlier acquisition. Destroying a held
    // mutex is never left to the primitive.
    if (pthread_mutex_trylock(&m->mutex) != 0) return KSPL_STATUS(KSPL_CODE_BUSY);
    bool heldByCaller = m->mutex.__data.__count > 1;
    pthread_mutex_unlock(&m->mutex);
    if (heldByCaller || pthread_mutex_destroy(&m->mutex) != 0) {
        return KSPL_STATUS(KSPL_CODE_BUSY);
    }
    KsAtomicSub(&KsplInfo(pThis)->MutexInUse, 1u);
    FreeRecord(m);
    return 0;
}

// ----------------------------------------------------------------------------
// Spin locks
// ----------------------------------------------------------------------------

KSSTATUS KsoAllocSpinLock(IKspl* pThis, HANDLE* pHandle) {
    if (!KsplValidInstance(pThis) || pHandle == nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    *pHandle = nullptr;
    auto* s = NewRecord<KSO_SPINLOCK_HANDLE>();
    if (s == nullptr) return KSPL_STATUS(KSPL_CODE_FAILURE);
    s->Header.Signature = kSigSpinLock;
    pthread_mutex_init(&s->spinLock, nullptr);
    KsAtomicAdd(&KsplInfo(pThis)->SpinLockInUse, 1u);
    *pHandle = s;
    return 0;
}

KSSTATUS KsoAcquireSpinLock(IKspl* /*pThis*/, HANDLE Handle, PKSSPIN_STATE pPrevState) {
    if (!KsplHandleIs(Handle, kSigSpinLock)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    if (pPrevState == nullptr) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    auto* s = static_cast<KSO_SPINLOCK_HANDLE*>(Handle);
    // No asynchronous cancellation while the lock is held: it would leave
    // the lock taken for good.
    int previous = PTHREAD_CANCEL_DEFERRED;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &previous);
    *pPrevState = static_cast<KSSPIN_STATE>(previous);
    pthread_mutex_lock(&s->spinLock);
    return 0;
}

KSSTATUS KsoReleaseSpinLock(IKspl* /*pThis*/, HANDLE Handle, KSSPIN_STATE prevState) {
    if (!KsplHandleIs(Handle, kSigSpinLock)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    auto* s = static_cast<KSO_SPINLOCK_HANDLE*>(Handle);
    pthread_mutex_unlock(&s->spinLock);
    int ignored;
    pthread_setcanceltype(static_cast<int>(prevState), &ignored);
    return 0;
}

KSSTATUS KsoDestroySpinLock(IKspl* pThis, HANDLE Handle) {
    if (!KsplValidInstance(pThis) || !KsplHandleIs(Handle, kSigSpinLock)) {
        return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    }
    auto* s = static_cast<KSO_SPINLOCK_HANDLE*>(Handle);
    // A normal mutex refuses a try from every thread while held, its holder
    // included, so the try alone tells a held lock.
    if (pthread_mutex_trylock(&s->spinLock) != 0) return KSPL_STATUS(KSPL_CODE_BUSY);
    pthread_mutex_unlock(&s->spinLock);
    if (pthread_mutex_destroy(&s->spinLock) != 0) return KSPL_STATUS(KSPL_CODE_BUSY);
    KsAtomicSub(&KsplInfo(pThis)->SpinLockInUse, 1u);
    FreeRecord(s);
    return 0;
}

// ----------------------------------------------------------------------------
// Read-write locks
// ----------------------------------------------------------------------------

KSSTATUS KsoAllocReadWriteLock(IKspl* pThis, HANDLE* pHandle) {
    if (!KsplValidInstance(pThis) || pHandle == nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    *pHandle = nullptr;
    auto* l = NewRecord<KSO_LOCK_HANDLE>();
    if (l == nullptr) return KSPL_STATUS(KSPL_CODE_FAILURE);
    l->Header.Signature = kSigRwLock;
    pthread_rwlockattr_t attr;
    KsoZeroMemory(nullptr, &attr, sizeof(attr));
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&l->rwLock, &attr);
    KsAtomicAdd(&KsplInfo(pThis)->LockInUse, 1u);
    *pHandle = l;
    return 0;
}

KSSTATUS KsoAcquireLockForReadAccess(IKspl* /*pThis*/, HANDLE Handle, BOOLEAN bWait) {
    if (!KsplHandleIs(Handle, kSigRwLock)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    auto* l = static_cast<KSO_LOCK_HANDLE*>(Handle);
    int rc = bWait ? pthread_rwlock_rdlock(&l->rwLock) : pthread_rwlock_tryrdlock(&l->rwLock);
    if (rc != 0) return KSPL_STATUS(KSPL_CODE_LOCK_FAILED);
    __atomic_store_n(&l->threadId, pthread_self(), __ATOMIC_RELAXED);
    return 0;
}

KSSTATUS KsoAcquireLockForWriteAccess(IKspl* /*pThis*/, HANDLE Handle, BOOLEAN bWait) {
    if (!KsplHandleIs(Handle, kSigRwLock)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    auto* l = static_cast<KSO_LOCK_HANDLE*>(Handle);
    int rc = bWait ? pthread_rwlock_wrlock(&l->rwLock) : pthread_rwlock_trywrlock(&l->rwLock);
    if (rc != 0) return KSPL_STATUS(KSPL_CODE_LOCK_FAILED);
    __atomic_store_n(&l->threadId, pthread_self(), __ATOMIC_RELAXED);
    return 0;
}

KSSTATUS KsoReleaseReadWriteLock(IKspl* /*pThis*/, HANDLE Handle) {
    if (!KsplHandleIs(Handle, kSigRwLock)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    pthread_rwlock_unlock(&static_cast<KSO_LOCK_HANDLE*>(Handle)->rwLock);
    return 0;
}

KSSTATUS KsoDestroyReadWriteLock(IKspl* pThis, HANDLE Handle) {
    if (!KsplValidInstance(pThis) || !KsplHandleIs(Handle, kSigRwLock)) {
        return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    }
    auto* l = static_cast<KSO_LOCK_HANDLE*>(Handle);
    // The platform destroys a held read-write lock without a word. A write
    // try fails while any thread holds the lock in either mode (the caller
    // included), which is exactly the busy case.
    if (pthread_rwlock_trywrlock(&l->rwLock) != 0) return KSPL_STATUS(KSPL_CODE_BUSY);
    pthread_rwlock_unlock(&l->rwLock);
    pthread_rwlock_destroy(&l->rwLock);
    KsAtomicSub(&KsplInfo(pThis)->LockInUse, 1u);
    FreeRecord(l);
    return 0;
}

// ----------------------------------------------------------------------------
// Interrupt level and atomic counters
// ----------------------------------------------------------------------------

IRQ_LEVEL KsoGetCurrentIrql(IKspl* /*pThis*/) { return 0; }

UINT32 KsoInterlockedIncrement(IKspl* /*pThis*/, PUINT32 pValue) {
    return KsAtomicAdd(pValue, 1u);
}

UINT32 KsoInterlockedDecrement(IKspl* /*pThis*/, PUINT32 pValue) {
    return KsAtomicSub(pValue, 1u);
}

UINT32 KsoInterlockedExchange(IKspl* /*pThis*/, PUINT32 pTarget, UINT32 Value) {
    return __atomic_exchange_n(pTarget, Value, __ATOMIC_SEQ_CST);
}
