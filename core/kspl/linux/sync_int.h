// sync_int.h - mutexes, spin locks, read-write locks, atomic counters and
// events.
#pragma once
#include "../kspl_internal.h"

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
