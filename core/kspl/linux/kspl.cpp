// kspl.cpp - IKspl instances, the IKspl class factory, the instance registry
// and the operation table.
//
// Lock order: InterfaceMutex is taken alone; no other lock is held while it
// is held, and it is never taken while an instance's protection locks are.
// The one exception is fork preparation, which holds InterfaceMutex and
// then every instance's ProtectionMutex and ProtectionSpinLock (in list
// order) across fork(): nothing else ever holds two of those.
#include <cstdlib>
#include <cstring>

#include "config_int.h"
#include "dbg_int.h"
#include "hash_int.h"
#include "instance_int.h"
#include "linklist_int.h"
#include "locale_int.h"
#include "memory_int.h"
#include "schedule_int.h"
#include "stats_int.h"
#include "stdio_int.h"
#include "string_int.h"
#include "sync_int.h"
#include "sysalloc_int.h"
#include "thread_int.h"
#include "time_int.h"

KSPL_SOURCE_UNIT("kspl");

// Layouts that casts rely on. A resource handle is read as a KsoHandleHeader
// (KsplHandleIs) whatever its kind, so every record starts with one; a
// tracked block's list link is the block header itself; an IKspl pointer is
// the instance record (the registry reaches it through KsContainerOf).
static_assert(offsetof(KsoHandleHeader, Link) == 0 && offsetof(KsoHandleHeader, Link2) ==
                                                          sizeof(LIST_ENTRY),
              "handle header: links first");
static_assert(offsetof(KSO_MUTEX_HANDLE, Header) == 0 && offsetof(KSO_SPINLOCK_HANDLE, Header) == 0 &&
                  offsetof(KSO_LOCK_HANDLE, Header) == 0 && offsetof(KSO_EVENT_HANDLE, Header) == 0 &&
                  offsetof(KSO_WORK_ITEM_HANDLE, Header) == 0 &&
                  offsetof(KSO_TIMER_HANDLE, Header) == 0,
              "every resource record begins with the handle header");
static_assert(offsetof(KSO_MEM_HANDLE, Link) == 0, "a block's list link is its header");
static_assert(offsetof(MY_EVENT_LIST_ENTRY, MasterEntry) == 0, "registration: master link first");
static_assert(offsetof(KsplObjInfo, lpVtbl) == 0, "instance record: table first");

// InterfaceMutex guards InterfaceList and InterfaceCount.
LIST_ENTRY InterfaceList = {&InterfaceList, &InterfaceList};
UINT32 InterfaceCount = 0;
pthread_mutex_t InterfaceMutex = PTHREAD_MUTEX_INITIALIZER;

const IKsplVtbl vtKspl = {
    KsplQueryInterface,
    KsplAddReference,
    KsplReleaseReference,
    KsoCloseKey,
    KsoCreateKey,
    KsoDeleteKey,
    KsoEnumerateKey,
    KsoEnumerateValueKey,
    KsoOpenKey,
    KsoQueryValueKey,
    KsoSetValueKey,
    KsoDebugBreakPoint,
    KsoDebugPrintf,
    KsoInitializeListHead,
    KsoInsertEntryAfter,
    KsoInsertEntryBefore,
    KsoInsertHeadList,
    KsoInsertTailList,
    KsoIsListEmpty,
    KsoRemoveEntryList,
    KsoRemoveHeadList,
    KsoRemoveTailList,
    KsoCharUpperBuff,
    KsoMultiByteToWideChar,
    KsoWideCharToMultiByte,
    KsoAllocNonPagedMemory,
    KsoAllocPagedMemory,
    KsoFreeMemory,
    KsoAllocTimer,
    KsoAllocWorkItem,
    KsoCancelTimer,
    KsoDestroyTimer,
    KsoDestroyWorkItem,
    KsoScheduleTimer,
    KsoScheduleWorkItem,
    KsoSleep,
    KsoCompareMemory,
    KsoCopyMemory,
    KsoFillMemory,
    KsoMoveMemory,
    KsoStrHash,
    KsoStrHashW,
    KsoStrlen,
    KsoStrlenW,
    KsoZeroMemory,
    KsoAppendUnicodeStringToString,
    KsoAppendUnicodeToString,
    KsoCompareString,
    KsoCompareUnicodeString,
    KsoCopyString,
    KsoCopyUnicodeString,
    KsoEqualString,
    KsoEqualUnicodeString,
    KsoInitString,
    KsoInitUnicodeString,
    KsoIntegerToUnicodeString,
    KsoUnicodeStringToInteger,
    KsoAcquireLockForReadAccess,
    KsoAcquireLockForWriteAccess,
    KsoAcquireMutex,
    KsoAcquireSpinLock,
    KsoAllocEvent,
    KsoAllocMutex,
    KsoAllocReadWriteLock,
    KsoAllocSpinLock,
    KsoDestroyEvent,
    KsoDestroyMutex,
    KsoDestroyReadWriteLock,
    KsoDestroySpinLock,
    KsoGetCurrentIrql,
    KsoInterlockedDecrement,
    KsoInterlockedExchange,
    KsoInterlockedIncrement,
    KsoReleaseMutex,
    KsoReleaseReadWriteLock,
    KsoReleaseSpinLock,
    KsoResetEvent,
    KsoSignalEvent,
    KsoWaitForMultipleEvents,
    KsoWaitForSingleEvent,
    KsoCreateThread,
    KsoDestroyThread,
    KsoExitThread,
    KsoGetThreadExitStatus,
    KsoSetThreadPriority,
    KsoWaitForThreadExit,
    KsoGetSystemTime,
    KsoRegisterModuleName,
    KsoGetGeneralKsplStatistics,
    KsoDeleteValue,
};

static const ORLM_IClassFactoryVtbl vtKsplCF = {
    KsplFactoryQueryInterface, KsplFactoryAddReference, KsplFactoryReleaseReference,
    KsplFactoryCreateInstance, KsplFactoryLockServer,
};

CFInstance IKsplClassFactory = {&vtKsplCF, 0, 0};

KSSTATUS KsplFactoryQueryInterface(void* /*This*/, const GUID* pIId, void** ppInterface) {
    if (ppInterface == nullptr) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    *ppInterface = nullptr;
    if (KsGuidEqual(pIId, &IID_IUnknown) || KsGuidEqual(pIId, &IID_IClassFactory)) {
        *ppInterface = &IKsplClassFactory;
        IKsplClassFactory.lpVtbl->AddRef(&IKsplClassFactory);
        return 0;
    }
    return KSPL_STATUS(KSPL_CODE_NOT_SUPPORTED);
}

UINT32 KsplFactoryAddReference(void* This) {
    return KsAtomicAdd(&static_cast<CFInstance*>(This)->cReference, 1u);
}

UINT32 KsplFactoryReleaseReference(void* This) {
    return KsAtomicSub(&static_cast<CFInstance*>(This)->cReference, 1u);
}

UINT32 KsplFactoryLockServer(void* This, BOOLEAN fLock) {
    auto* cf = static_cast<CFInstance*>(This);
    if (fLock == 1) {
        KsAtomicAdd(&cf->cLock, 1u);
    } else {
        KsAtomicSubChecked(&cf->cLock, 1u);
    }
    return 0;
}

UINT32 KsplFactoryCreateInstance(void* /*This*/, PORLM_IUnknown pUnkOuter, const GUID* pIId,
                                 void** ppInterface) {
    if (ppInterface == nullptr || pUnkOuter != nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    *ppInterface = nullptr;
    if (!KsGuidEqual(pIId, &IID_IZorvikKspl_1)) return KSPL_STATUS(KSPL_CODE_NOT_SUPPORTED);

    auto* info = static_cast<KsplObjInfo*>(KsplSysCalloc(1, sizeof(KsplObjInfo)));
    if (info == nullptr) return KSPL_STATUS(KSPL_CODE_NO_MEMORY);
    info->cReference = 1;
    info->Signature = kSigInstance;
    info->lpVtbl = &vtKspl;
    pthread_mutex_init(&info->ProtectionMutex, nullptr);
    pthread_mutex_init(&info->ProtectionSpinLock, nullptr);
    for (PLIST_ENTRY head : {&info->EventList, &info->KeyList, &info->LockList,
                             &info->MemoryNonPagedList, &info->MemoryPagedList, &info->MutexList,
                             &info->SpinLockList, &info->TimerList, &info->WorkItemList}) {
        KsListInit(head);
    }
    {
        KsMutexGuard guard(&InterfaceMutex);
        KsListInsertTail(&InterfaceList, &info->Link);
        ++InterfaceCount;
    }
    *ppInterface = info;
    return 0;
}

KSSTATUS KsplQueryInterface(IKspl* pThis, const GUID* pIId, void** ppInterface) {
    if (ppInterface == nullptr) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    *ppInterface = nullptr;
    if (KsGuidEqual(pIId, &IID_IUnknown) || KsGuidEqual(pIId, &IID_IZorvikKspl_1)) {
        *ppInterface = pThis;
        KsplAddReference(pThis);
        return 0;
    }
    return KSPL_STATUS(KSPL_CODE_NOT_SUPPORTED);
}

UINT32 KsplAddReference(IKspl* pThis) { return KsAtomicAdd(&KsplInfo(pThis)->cReference, 1u); }

UINT32 KsplReleaseReference(IKspl* pThis) {
    KsplObjInfo* info = KsplInfo(pThis);
    UINT32 remaining = KsAtomicSubChecked(&info->cReference, 1u);
    if (remaining != 0) return remaining;

    // Final release. Resources still counted on the instance stay alive; the
    // caller was required to release them first.
    {
        KsMutexGuard guard(&InterfaceMutex);
        KS_DCHECK(InterfaceCount > 0);
        KsListRemove(&info->Link);
        --InterfaceCount;
    }
    pthread_mutex_destroy(&info->ProtectionMutex);
    pthread_mutex_destroy(&info->ProtectionSpinLock);
    // Clear the signature so that a stale pointer fails the instance check
    // for as long as the allocator leaves the memory untouched.
    info->Signature = 0;
    KsplSysFree(info);
    return 0;
}

// fork(): a child must not inherit the registry or a memory list halfway
// through a change by another thread, nor a lock that thread held. The
// forking thread takes them all first and lets go on both sides.
void KsplInstancesForkPrepare(void) {
    pthread_mutex_lock(&InterfaceMutex);
    for (PLIST_ENTRY link = InterfaceList.Flink; link != &InterfaceList; link = link->Flink) {
        KsplObjInfo* info = KsContainerOf(link, KsplObjInfo, Link);
        pthread_mutex_lock(&info->ProtectionMutex);
        pthread_mutex_lock(&info->ProtectionSpinLock);
    }
}

void KsplInstancesForkRelease(void) {
    for (PLIST_ENTRY link = InterfaceList.Flink; link != &InterfaceList; link = link->Flink) {
        KsplObjInfo* info = KsContainerOf(link, KsplObjInfo, Link);
        pthread_mutex_unlock(&info->ProtectionSpinLock);
        pthread_mutex_unlock(&info->ProtectionMutex);
    }
    pthread_mutex_unlock(&InterfaceMutex);
}

KSSTATUS KsoRegisterModuleName(IKspl* pThis, PCHAR pModuleName) {
    if (pModuleName == nullptr) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    KsplObjInfo* info = KsplInfo(pThis);
    size_t n = std::strlen(pModuleName) + 1;
    // Byte 31 is only ever written with a terminator, so the name stays
    // terminated within its 32 bytes.
    std::memcpy(info->ModuleName, pModuleName, n <= sizeof(info->ModuleName) ? n : 31);
    return 0;
}
