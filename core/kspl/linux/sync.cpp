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
    auto* m = static_cast<KSO_MUTEX_HANDLE*>(Handle);
    pthread_mutex_lock(&m->mutex);
    __atomic_store_n(&m->owner, pthread_self(), __ATOMIC_RELAXED);
    return 0;
}

KSSTATUS KsoReleaseMutex(IKspl* /*pThis*/, HANDLE Handle) {
    if (!KsplHandleIs(Handle, kSigMutex)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    auto* m = static_cast<KSO_MUTEX_HANDLE*>(Handle);
    // A release by a thread that does not own the mutex changes nothing and
    // still answers 0. It is not handed to the primitive, which would refuse
    // it too, but only after tools that watch lock use have flagged it.
    if (!pthread_equal(__atomic_load_n(&m->owner, __ATOMIC_RELAXED), pthread_self())) return 0;
    // glibc keeps the recursion depth in the mutex: the last release frees it.
    KS_DCHECK(m->mutex.__data.__count >= 1);
    if (m->mutex.__data.__count == 1) __atomic_store_n(&m->owner, pthread_t{}, __ATOMIC_RELAXED);
    pthread_mutex_unlock(&m->mutex);
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
    KsplCountDown(&KsplInfo(pThis)->MutexInUse);
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
    KsplCountDown(&KsplInfo(pThis)->SpinLockInUse);
    FreeRecord(s);
    return 0;
}

// ----------------------------------------------------------------------------
// Read-write locks
// ----------------------------------------------------------------------------

namespace {

// The read-write locks the calling thread holds, and in which mode. The
// primitive cannot tell a stray unlock from a real one: on a free lock it
// breaks the lock for good, on a lock others read it drops one of their
// holds. So a release is honoured only for a lock found here.
//
// Only the owning thread touches its table, so it needs no lock. An entry
// lives from the first hold to the last release; a lock cannot be destroyed
// while an entry names it (the destroy's write try fails), so no entry ever
// outlives its lock. Eight locks at once cover every pattern of the object
// stores (instance lock and one object lock); more spill into a heap array
// freed when the thread ends.
struct RwHold {
    KSO_LOCK_HANDLE* lock;
    UINT32 reads;  // read holds (a reader may try again while no writer waits)
    UINT32 write;  // 1 while held for writing
};

constexpr UINT32 kInlineHolds = 8;

struct RwHoldTable {
    UINT32 used;
    UINT32 spillCapacity;
    RwHold* spill;  // entries kInlineHolds.. when more locks are held at once
    RwHold inlineHolds[kInlineHolds];
};

// Zero-initialised and trivially destructible: no per-thread constructor
// runs on the acquire path. The spill array is freed through a thread key.
thread_local RwHoldTable t_rwHolds;

pthread_key_t g_spillKey;
pthread_once_t g_spillKeyOnce = PTHREAD_ONCE_INIT;
// Runs in the ending thread. Destructors of other keys may still take and
// release locks after it: they find an inline table again.
void FreeSpill(void* spill) {
    RwHoldTable& t = t_rwHolds;
    if (t.spill == spill) {
        t.spill = nullptr;
        t.spillCapacity = 0;
        if (t.used > kInlineHolds) t.used = kInlineHolds;
    }
    KsplSysFree(spill);
}
void CreateSpillKey() { pthread_key_create(&g_spillKey, FreeSpill); }

inline RwHold& HoldAt(RwHoldTable& t, UINT32 i) {
    return i < kInlineHolds ? t.inlineHolds[i] : t.spill[i - kInlineHolds];
}

RwHold* FindHold(KSO_LOCK_HANDLE* lock) {
    RwHoldTable& t = t_rwHolds;
    for (UINT32 i = 0; i < t.used; ++i) {
        RwHold& h = HoldAt(t, i);
        if (h.lock == lock) return &h;
    }
    return nullptr;
}

// A new entry with no holds yet, or null when the spill array cannot grow.
RwHold* AddHold(KSO_LOCK_HANDLE* lock) {
    RwHoldTable& t = t_rwHolds;
    if (t.used >= kInlineHolds && t.used - kInlineHolds == t.spillCapacity) {
        pthread_once(&g_spillKeyOnce, CreateSpillKey);
        UINT32 capacity = t.spillCapacity != 0 ? 2 * t.spillCapacity : kInlineHolds;
        auto* grown = static_cast<RwHold*>(KsplSysCalloc(capacity, sizeof(RwHold)));
        if (grown == nullptr) return nullptr;
        for (UINT32 i = 0; i < t.spillCapacity; ++i) grown[i] = t.spill[i];
        KsplSysFree(t.spill);
        t.spill = grown;
        t.spillCapacity = capacity;
        pthread_setspecific(g_spillKey, grown);
    }
    RwHold& h = HoldAt(t, t.used++);
    h = RwHold{lock, 0, 0};
    return &h;
}

// Removes an entry whose holds are all released (the last entry takes its
// place: the table is unordered).
void DropHold(RwHold* h) {
    RwHoldTable& t = t_rwHolds;
    KS_DCHECK(t.used != 0);
    KS_DCHECK(h->reads == 0 && h->write == 0);
    RwHold& last = HoldAt(t, t.used - 1);
    if (h != &last) *h = last;
    last = RwHold{nullptr, 0, 0};
    --t.used;
}

// The entry for `lock`, made if the thread holds nothing on it yet
// (`*added` tells, so that a failed acquire can take it back).
RwHold* HoldFor(KSO_LOCK_HANDLE* lock, bool* added) {
    RwHold* h = FindHold(lock);
    *added = h == nullptr;
    return h != nullptr ? h : AddHold(lock);
}

}  // namespace

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
    bool added;
    RwHold* h = HoldFor(l, &added);
    if (h == nullptr) return KSPL_STATUS(KSPL_CODE_LOCK_FAILED);
    // The write holder asking again gets the primitive's deadlock answer.
    int rc = bWait ? pthread_rwlock_rdlock(&l->rwLock) : pthread_rwlock_tryrdlock(&l->rwLock);
    if (rc != 0) {
        if (added) DropHold(h);
        return KSPL_STATUS(KSPL_CODE_LOCK_FAILED);
    }
    KS_DCHECK(h->write == 0);
    ++h->reads;
    __atomic_store_n(&l->threadId, pthread_self(), __ATOMIC_RELAXED);
    return 0;
}

KSSTATUS KsoAcquireLockForWriteAccess(IKspl* /*pThis*/, HANDLE Handle, BOOLEAN bWait) {
    if (!KsplHandleIs(Handle, kSigRwLock)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    auto* l = static_cast<KSO_LOCK_HANDLE*>(Handle);
    bool added;
    RwHold* h = HoldFor(l, &added);
    if (h == nullptr) return KSPL_STATUS(KSPL_CODE_LOCK_FAILED);
    // A reader asking to write would wait for its own read hold for ever
    // (the primitive does not see it); it is refused like the write holder
    // asking again, which the primitive itself answers with deadlock.
    if (h->reads != 0) return KSPL_STATUS(KSPL_CODE_LOCK_FAILED);
    int rc = bWait ? pthread_rwlock_wrlock(&l->rwLock) : pthread_rwlock_trywrlock(&l->rwLock);
    if (rc != 0) {
        if (added) DropHold(h);
        return KSPL_STATUS(KSPL_CODE_LOCK_FAILED);
    }
    KS_DCHECK(h->write == 0 && h->reads == 0);
    h->write = 1;
    __atomic_store_n(&l->threadId, pthread_self(), __ATOMIC_RELAXED);
    return 0;
}

KSSTATUS KsoReleaseReadWriteLock(IKspl* /*pThis*/, HANDLE Handle) {
    if (!KsplHandleIs(Handle, kSigRwLock)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    auto* l = static_cast<KSO_LOCK_HANDLE*>(Handle);
    // A thread that holds the lock in neither mode is refused and nothing
    // changes: the lock stays usable by those who do hold it.
    RwHold* h = FindHold(l);
    if (h == nullptr) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    if (h->write != 0) {
        h->write = 0;
    } else {
        KS_DCHECK(h->reads != 0);
        --h->reads;
    }
    if (h->reads == 0 && h->write == 0) DropHold(h);
    pthread_rwlock_unlock(&l->rwLock);
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
    KS_DCHECK(FindHold(l) == nullptr);
    pthread_rwlock_unlock(&l->rwLock);
    pthread_rwlock_destroy(&l->rwLock);
    KsplCountDown(&KsplInfo(pThis)->LockInUse);
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
