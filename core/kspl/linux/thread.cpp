// thread.cpp - threads created for clients.
//
// Every client thread runs KsplSystemThreadRtn, detaches itself at once and
// is never joined: its end is reported only through its KSO_THREAD_HANDLE,
// which outlives it until destroyed. g_KsplCurrentThreads counts the client
// threads that have not ended; a creation that would bring it to
// g_KsplMaxThreads is refused.
//
// However a thread ends (its routine returns, it calls KsoExitThread, it is
// cancelled or calls pthread_exit itself), the end is recorded exactly once
// by MarkEnded: the count goes down first, then, under the record's mutex,
// the status is set, the routine pointer cleared and the waiters woken. So
// whoever sees a thread ended also sees it gone from the count.
#include <sched.h>

#include <cerrno>
#include <cstdint>

#include "memory_int.h"
#include "stdio_int.h"
#include "sync_int.h"
#include "thread_int.h"

KSPL_SOURCE_UNIT("thread");

INT32 g_KsplCurrentThreads = 0;

namespace {

inline bool IsThread(HANDLE h) {
    return h != nullptr && static_cast<KSO_THREAD_HANDLE*>(h)->Signature == kSigThread;
}

inline PKSO_THREAD_ROUTINE LoadRoutine(const KSO_THREAD_HANDLE* t) {
    return __atomic_load_n(&t->pCallerThreadRoutine, __ATOMIC_ACQUIRE);
}

// The running client thread's own record, reachable from KsoExitThread so
// that the unwinding cleanup does not record the end a second time (and
// does not touch a record the thread destroyed on its way out).
struct ThreadFrame {
    KSO_THREAD_HANDLE* record;  // null once the end is recorded
};
thread_local ThreadFrame* t_frame = nullptr;

// Records the end of the thread if it is still running; returns the status
// the thread ends with.
KSSTATUS MarkEnded(KSO_THREAD_HANDLE* t, bool setStatus, KSSTATUS status) {
    pthread_mutex_lock(&t->mutex);
    if (LoadRoutine(t) != nullptr) {
        const INT32 left = KsAtomicAdd(&g_KsplCurrentThreads, -1);
        KS_DCHECK(left >= 0);  // each thread leaves the count exactly once
        if (setStatus) t->status = status;
        __atomic_store_n(&t->pCallerThreadRoutine, nullptr, __ATOMIC_RELEASE);
        pthread_cond_broadcast(&t->condition);
    }
    KSSTATUS final = t->status;
    pthread_mutex_unlock(&t->mutex);
    return final;
}

// Cleanup of a client thread that unwinds out of its routine (cancelled,
// or ended with pthread_exit): the end is recorded with the status as it
// was.
void ThreadUnwound(void* arg) {
    auto* frame = static_cast<ThreadFrame*>(arg);
    if (frame->record != nullptr) MarkEnded(frame->record, false, 0);
    frame->record = nullptr;
    t_frame = nullptr;
}

// Tears down the primitives of a record and gives its memory back.
void FreeThreadRecord(IKspl* pThis, KSO_THREAD_HANDLE* t) {
    pthread_attr_destroy(&t->attr);
    pthread_cond_destroy(&t->condition);
    pthread_mutex_destroy(&t->mutex);
    KsoZeroMemory(pThis, t, sizeof(*t));
    KsoFreeMemory(pThis, t);
}

inline IKspl* OwnerOf(KSO_THREAD_HANDLE* t) {
    return reinterpret_cast<KSO_MEM_HANDLE*>(reinterpret_cast<unsigned char*>(t) - kMemHeaderSize)
        ->Owner;
}

// Round-robin with explicit scheduling (inheriting the creator's policy
// would make the request a no-op).
void RequestRealtime(pthread_attr_t* attr) {
    pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(attr, SCHED_RR);
    struct sched_param param = {};
    param.sched_priority = sched_get_priority_min(SCHED_RR);
    pthread_attr_setschedparam(attr, &param);
}

}  // namespace

void* KsplSystemThreadRtn(void* arg) {
    auto* t = static_cast<KSO_THREAD_HANDLE*>(arg);
    pthread_detach(pthread_self());
    // Until the creator is out of pthread_create (see KsoCreateThread).
    pthread_mutex_lock(&t->mutex);
    pthread_mutex_unlock(&t->mutex);
    ThreadFrame frame{t};
    t_frame = &frame;
    PKSO_THREAD_ROUTINE routine = LoadRoutine(t);
    PVOID context = t->pCallerThreadContext;
    pthread_cleanup_push(ThreadUnwound, &frame);
    routine(t, context);
    pthread_cleanup_pop(0);
    t_frame = nullptr;
    // The routine returned: the record is still there (a thread that
    // destroys its own record does so in KsoExitThread, which never
    // returns). After MarkEnded the record may be gone at any moment.
    KSSTATUS status = MarkEnded(t, false, 0);
    return reinterpret_cast<void*>(static_cast<uintptr_t>(status));
}

KSSTATUS KsoCreateThread(IKspl* pThis, KSO_PRIORITY Priority, PKSO_THREAD_ROUTINE pThreadRoutine,
                         PVOID pContext, HANDLE* pHandle) {
    if (!KsplValidInstance(pThis) || pThreadRoutine == nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    if (pHandle != nullptr) *pHandle = nullptr;
    if (Priority > KSO_PRIORITY_REALTIME) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);

    auto* t = static_cast<KSO_THREAD_HANDLE*>(KsoAllocPagedMemory(pThis, sizeof(KSO_THREAD_HANDLE)));
    if (t == nullptr) return KSPL_STATUS(KSPL_CODE_FAILURE);
    KsoZeroMemory(pThis, t, sizeof(*t));
    if (pthread_attr_init(&t->attr) != 0) {
        KsoFreeMemory(pThis, t);
        return KSPL_STATUS(KSPL_CODE_FAILURE);
    }
    bool realtime = Priority == KSO_PRIORITY_REALTIME;
    if (realtime) RequestRealtime(&t->attr);
    t->Signature = kSigThread;
    t->status = 0;
    t->pCallerThreadRoutine = pThreadRoutine;
    t->pCallerThreadContext = pContext;
    pthread_mutex_init(&t->mutex, nullptr);
    KsplCondInit(&t->condition);

    // The test is on the value after the increment, so concurrent creations
    // cannot overshoot; the limit itself is never reached.
    INT32 running = KsAtomicAdd(&g_KsplCurrentThreads, 1);
    if (static_cast<UINT32>(running) >= __atomic_load_n(&g_KsplMaxThreads, __ATOMIC_RELAXED)) {
        KsAtomicAdd(&g_KsplCurrentThreads, -1);
        FreeThreadRecord(pThis, t);
        return KSPL_STATUS(KSPL_CODE_NO_MEMORY);
    }
    // The new thread waits for the record's mutex until pthread_create has
    // returned here: pthread_create still reads the attributes and writes
    // the id after the thread has started, and a thread that ends at once
    // and destroys its own record would free them under it.
    pthread_mutex_lock(&t->mutex);
    int rc = pthread_create(&t->id, &t->attr, KsplSystemThreadRtn, t);
    if (realtime && (rc == EPERM || rc == EINVAL || rc == ENOTSUP)) {
        // Real-time scheduling refused (no privilege, or no real-time
        // budget): run the thread with the default scheduling instead.
        pthread_attr_destroy(&t->attr);
        pthread_attr_init(&t->attr);
        rc = pthread_create(&t->id, &t->attr, KsplSystemThreadRtn, t);
    }
    pthread_mutex_unlock(&t->mutex);
    if (rc != 0) {
        KsAtomicAdd(&g_KsplCurrentThreads, -1);
        FreeThreadRecord(pThis, t);
        return KSPL_STATUS(rc == EAGAIN ? KSPL_CODE_NO_MEMORY : KSPL_CODE_FAILURE);
    }
    if (pHandle != nullptr) *pHandle = t;
    return 0;
}

void KsoExitThread(IKspl* pThis, HANDLE Handle, KSSTATUS ExitStatus, BOOLEAN bDestroyThread) {
    if (!IsThread(Handle)) return;
    auto* t = static_cast<KSO_THREAD_HANDLE*>(Handle);
    ThreadFrame* frame = t_frame;
    if (frame != nullptr && frame->record == t) frame->record = nullptr;
    MarkEnded(t, true, ExitStatus);
    if (bDestroyThread) KsoDestroyThread(pThis, Handle);
    pthread_exit(reinterpret_cast<void*>(static_cast<uintptr_t>(ExitStatus)));
}

KSSTATUS KsoDestroyThread(IKspl* pThis, HANDLE Handle) {
    if (!KsplValidInstance(pThis) || !IsThread(Handle)) {
        return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    }
    auto* t = static_cast<KSO_THREAD_HANDLE*>(Handle);
    if (LoadRoutine(t) != nullptr) return KSPL_STATUS(KSPL_CODE_BUSY);
    // The record's memory belongs to the instance that created the thread;
    // through any other instance it could not be released, so nothing is
    // torn down.
    if (OwnerOf(t) != pThis) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    // The ending thread may still be inside its final critical section:
    // wait for it to leave before the mutex goes.
    pthread_mutex_lock(&t->mutex);
    pthread_mutex_unlock(&t->mutex);
    FreeThreadRecord(pThis, t);
    return 0;
}

KSSTATUS KsoGetThreadExitStatus(IKspl* /*pThis*/, HANDLE Handle) {
    if (!IsThread(Handle)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    auto* t = static_cast<KSO_THREAD_HANDLE*>(Handle);
    if (LoadRoutine(t) != nullptr) return KSPL_STATUS(KSPL_CODE_BUSY);
    return t->status;
}

KSSTATUS KsoSetThreadPriority(IKspl* /*pThis*/, HANDLE Handle, KSO_PRIORITY priority) {
    if (!IsThread(Handle)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    if (priority > KSO_PRIORITY_REALTIME) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    auto* t = static_cast<KSO_THREAD_HANDLE*>(Handle);
    int policy = priority == KSO_PRIORITY_REALTIME ? SCHED_RR : SCHED_OTHER;
    struct sched_param param = {};
    param.sched_priority = priority == KSO_PRIORITY_REALTIME ? sched_get_priority_min(SCHED_RR) : 0;
    // Under the mutex a running thread cannot finish, so its id is live.
    // The system's answer (for example no privilege) is deliberately ignored.
    pthread_mutex_lock(&t->mutex);
    if (LoadRoutine(t) != nullptr) pthread_setschedparam(t->id, policy, &param);
    pthread_mutex_unlock(&t->mutex);
    return 0;
}

namespace {
void UnlockOnCancel(void* mutex) { pthread_mutex_unlock(static_cast<pthread_mutex_t*>(mutex)); }
}  // namespace

KSSTATUS KsoWaitForThreadExit(IKspl* /*pThis*/, HANDLE Handle, INT64 TimeOut) {
    if (!IsThread(Handle)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    if (TimeOut < -1) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    auto* t = static_cast<KSO_THREAD_HANDLE*>(Handle);
    struct timespec deadline;
    const struct timespec* limit = nullptr;
    if (TimeOut != -1) {
        KsplDeadline(TimeOut, &deadline);
        limit = &deadline;
    }

    // 0 ended, else the code of the failure (built once the mutex is free).
    volatile UINT32 failure = 0;  // volatile: lives across the cleanup's setjmp
    int oldType;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &oldType);
    pthread_cleanup_push(UnlockOnCancel, &t->mutex);
    pthread_mutex_lock(&t->mutex);
    // Every wake-up looks at the flag again: only the end, or the deadline,
    // finishes the wait.
    while (LoadRoutine(t) != nullptr) {
        if (TimeOut == 0) {
            failure = KSPL_CODE_TIMEOUT;
            break;
        }
        int rc = KsplCondWait(&t->condition, &t->mutex, limit);
        if (rc == ETIMEDOUT) {
            if (LoadRoutine(t) == nullptr) break;
            failure = KSPL_CODE_TIMEOUT;
            break;
        }
        if (rc != 0 && rc != EINTR) {
            failure = KSPL_CODE_FAILURE;
            break;
        }
    }
    pthread_mutex_unlock(&t->mutex);
    pthread_cleanup_pop(0);
    pthread_setcanceltype(oldType, &oldType);
    return failure == 0 ? 0 : KSPL_STATUS(failure);
}

KSSTATUS KsoSystemRelThreadHandleObj(PVOID /*pThreadHandle*/) { return 0; }
