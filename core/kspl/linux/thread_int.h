// thread_int.h - threads created for clients.
#pragma once
#include "kspl_internal.h"

// Describes one client thread and outlives it. Unlike the other resource
// records it has no list links: the signature comes first.
//
// mutex protects status and pCallerThreadRoutine (and the broadcast of
// condition when the thread ends). pCallerThreadRoutine doubles as the
// "still running" flag and is also read without the mutex, so it is
// written with release and read with acquire semantics.
struct KSO_THREAD_HANDLE {
    UINT32 Signature;  // 'THRD'
    pthread_t id;
    pthread_attr_t attr;  // kept until the record is destroyed
    pthread_mutex_t mutex;
    pthread_cond_t condition;  // waiters for the end (monotonic clock)
    KSSTATUS status;           // exit status; 0 until the thread ends
    PKSO_THREAD_ROUTINE pCallerThreadRoutine;  // null once the thread ended
    PVOID pCallerThreadContext;
};
static_assert(offsetof(KSO_THREAD_HANDLE, Signature) == 0, "signature first");

KSSTATUS KsoCreateThread(IKspl* pThis, KSO_PRIORITY Priority, PKSO_THREAD_ROUTINE pThreadRoutine,
                         PVOID pContext, HANDLE* pHandle);
KSSTATUS KsoDestroyThread(IKspl* pThis, HANDLE Handle);
void KsoExitThread(IKspl* pThis, HANDLE Handle, KSSTATUS ExitStatus, BOOLEAN bDestroyThread);
KSSTATUS KsoGetThreadExitStatus(IKspl* pThis, HANDLE Handle);
KSSTATUS KsoSetThreadPriority(IKspl* pThis, HANDLE Handle, KSO_PRIORITY priority);
KSSTATUS KsoWaitForThreadExit(IKspl* pThis, HANDLE Handle, INT64 TimeOut);

// Start routine of every client thread (arg: its KSO_THREAD_HANDLE).
void* KsplSystemThreadRtn(void* arg);
