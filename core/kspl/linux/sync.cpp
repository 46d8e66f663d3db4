// sync.cpp - placeholder of the module.
// Not built yet: every operation here fails with code 1 (or returns its
// neutral value) until the module lands.
#include "sync_int.h"

KSPL_SOURCE_UNIT("sync");

KSSTATUS KsoAllocMutex(IKspl* /*pThis*/, UINT32 /*Level*/, HANDLE* /*pHandle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoAcquireMutex(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoReleaseMutex(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoDestroyMutex(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoAllocSpinLock(IKspl* /*pThis*/, HANDLE* /*pHandle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoAcquireSpinLock(IKspl* /*pThis*/, HANDLE /*Handle*/, PKSSPIN_STATE /*pPrevState*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoReleaseSpinLock(IKspl* /*pThis*/, HANDLE /*Handle*/, KSSPIN_STATE /*prevState*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoDestroySpinLock(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoAllocReadWriteLock(IKspl* /*pThis*/, HANDLE* /*pHandle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoAcquireLockForReadAccess(IKspl* /*pThis*/, HANDLE /*Handle*/, BOOLEAN /*bWait*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoAcquireLockForWriteAccess(IKspl* /*pThis*/, HANDLE /*Handle*/, BOOLEAN /*bWait*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoReleaseReadWriteLock(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoDestroyReadWriteLock(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

IRQ_LEVEL KsoGetCurrentIrql(IKspl* /*pThis*/) {
    return 0;
}

UINT32 KsoInterlockedIncrement(IKspl* /*pThis*/, PUINT32 pValue) {
    return KsAtomicAdd(pValue, 1u);
}

UINT32 KsoInterlockedDecrement(IKspl* /*pThis*/, PUINT32 pValue) {
    return KsAtomicSub(pValue, 1u);
}

UINT32 KsoInterlockedExchange(IKspl* /*pThis*/, PUINT32 pTarget, UINT32 Value) {
    return __atomic_exchange_n(pTarget, Value, __ATOMIC_SEQ_CST);
}

KSSTATUS KsoAllocEvent(IKspl* /*pThis*/, KSO_EVENT_TYPE /*EventType*/, HANDLE* /*pHandle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoDestroyEvent(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoSignalEvent(IKspl* /*pThis*/, HANDLE /*Handle*/, PBOOLEAN /*pPrevState*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoResetEvent(IKspl* /*pThis*/, HANDLE /*Handle*/, PBOOLEAN /*pPrevState*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoWaitForSingleEvent(IKspl* /*pThis*/, HANDLE /*Handle*/, INT64 /*Timeout*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoWaitForMultipleEvents(IKspl* /*pThis*/, UINT32 /*Count*/, HANDLE* /*Handles*/, BOOLEAN /*bWaitAll*/, INT64 /*Timeout*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

