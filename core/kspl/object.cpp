// object.cpp - object storage (initialisation, blocks, the free-slot search,
// preallocation), the object and instance locks, and deferred deletion.
//
// Blocks are kept on blockList in ascending id order; a new block takes the
// smallest id not in use and is linked in front of the first block whose id
// breaks the dense sequence. All bookkeeping below runs with the instance
// lock held exclusively (see object_int.h for the lock order).
#include "object_int.h"

KSPL_SOURCE_UNIT("object");

// Objects queued for deferred deletion in all stores; kept for diagnostics.
UINT32 numScheduledDelObjects = 0;

namespace {

constexpr UINT32 kMaxObjectsPerBlock = 255;
constexpr UINT32 kMaxHashSize = 65535;

PVOID PoolAlloc(ObjectInfo* oi, UINT32 size) {
    return oi->poolType == NonPagedPool ? OM_KSO(oi, KsoAllocNonPagedMemory, size)
                                        : OM_KSO(oi, KsoAllocPagedMemory, size);
}

// Gives back everything a failed Initialize made, so that the record is
// zero-like again and a retry starts clean. No other thread can use the
// store: it was never initialised.
void UndoInitialize(ObjectInfo* oi) {
    while (!OmListEmpty(oi, &oi->blockList)) {
        PLIST_ENTRY link = oi->blockList.Flink;
        OmListRemove(oi, link);
        OM_KSO(oi, KsoFreeMemory, BlockFromLink(link));
    }
    oi->statsAllocated = 0;
    if (oi->pHashListArray != nullptr) {
        OM_KSO(oi, KsoFreeMemory, oi->pHashListArray);
        oi->pHashListArray = nullptr;
    }
    if (oi->objDeleteWorkHandle != nullptr) {
        OM_KSO(oi, KsoDestroyWorkItem, oi->objDeleteWorkHandle);
        oi->objDeleteWorkHandle = nullptr;
    }
    if (oi->protect.handle != nullptr) {
        if (oi->accessLevel == kOmLevelMutex) {
            OM_KSO(oi, KsoDestroyMutex, oi->protect.handle);
        } else {
            OM_KSO(oi, KsoDestroyReadWriteLock, oi->protect.handle);
        }
        oi->protect.handle = nullptr;
    }
    __atomic_store_n(&oi->flags, 0u, __ATOMIC_RELEASE);
}

}  // namespace

KSSTATUS ObjectInitialize(void* pThis, UINT32 objectSize, UINT16 objectsPerBlock,
                          UINT32 accessLevel, UINT32 hashSize, PKSO_OBJECT_ROUTINE pDeleteRoutine,
                          PKSO_OBJECT_ROUTINE pDeallocateRoutine,
                          PKSO_OBJECT_ROUTINE pDebugRoutine, UINT32 permBlocks) {
    if (pThis == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    POOL_TYPE poolType = (accessLevel & ~kOmDeferredMask) == 2 ? NonPagedPool : PagedPool;
    return InternalInitialize(OmInfo(pThis), objectSize, objectsPerBlock, poolType, accessLevel,
                              hashSize, pDeleteRoutine, pDeallocateRoutine, pDebugRoutine,
                              permBlocks);
}

KSSTATUS InternalInitialize(ObjectInfo* oi, UINT32 objectSize, UINT16 objectsPerBlock,
                            POOL_TYPE poolType, UINT32 accessLevel, UINT32 hashSize,
                            PKSO_OBJECT_ROUTINE pDeleteRoutine,
                            PKSO_OBJECT_ROUTINE pDeallocateRoutine,
                            PKSO_OBJECT_ROUTINE /*pDebugRoutine*/, UINT32 permBlocks) {
    if ((OiFlags(oi) & OI_INITIALIZED) != 0) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_REINITIALIZED);
    }
    oi->pIKspl = pIKspl;
    OmListInit(oi, &oi->blockList);
    OmListInit(oi, &oi->allocatedList);
    OmListInit(oi, &oi->objDeleteList);
    oi->pHashListArray = nullptr;
    oi->protect.handle = nullptr;
    oi->objDeleteWorkHandle = nullptr;
    oi->objDeleteActive = FALSE;
    oi->statsAllocated = oi->statsInUse = oi->statsPreallocated = 0;

    UINT32 flags = OI_INITIALIZED;
    if ((accessLevel & kOmDeferredMask) != 0) {
        flags |= OI_DEFERRED_DELETE;
        accessLevel &= ~kOmDeferredMask;
    }
    __atomic_store_n(&oi->flags, flags, __ATOMIC_RELEASE);

    // The slot stride keeps every user area 8-byte aligned; a slot must fit
    // in 32 bits.
    UINT64 userSize = (static_cast<UINT64>(objectSize) + 7u) & ~UINT64{7u};
    if ((accessLevel != 0 && accessLevel != 2 && accessLevel != 3) ||
        (poolType != NonPagedPool && poolType != PagedPool) || objectsPerBlock == 0 ||
        objectsPerBlock > kMaxObjectsPerBlock || hashSize > kMaxHashSize ||
        userSize + sizeof(Object) > UINT32_MAX) {
        __atomic_store_n(&oi->flags, 0u, __ATOMIC_RELEASE);
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }

    KSSTATUS lockStatus;
    if (accessLevel == 3) {
        oi->accessLevel = kOmLevelMutex;
        lockStatus = OM_KSO(oi, KsoAllocMutex, 1u, &oi->protect.handle);
    } else {
        if (accessLevel == 2) poolType = PagedPool;
        oi->accessLevel = kOmLevelRwLock;
        lockStatus = OM_KSO(oi, KsoAllocReadWriteLock, &oi->protect.handle);
        if (!KS_IS_ERROR(lockStatus) && (flags & OI_DEFERRED_DELETE) != 0) {
            lockStatus = OM_KSO(oi, KsoAllocWorkItem, ObjDeleteWorker, oi, &oi->objDeleteWorkHandle);
            if (KS_IS_ERROR(lockStatus)) oi->objDeleteWorkHandle = nullptr;
        }
    }
    if (KS_IS_ERROR(lockStatus)) {
        UndoInitialize(oi);
        return KSPL_OM_STATUS(KSPL_OM_CODE_NO_MEMORY);
    }

    oi->objectSize = static_cast<UINT32>(userSize + sizeof(Object));
    oi->objectsPerBlock = objectsPerBlock;
    oi->poolType = poolType;
    oi->hashSize = hashSize == 0 ? 1 : hashSize;
    oi->pfDelete = pDeleteRoutine;
    oi->pfDeallocate = pDeallocateRoutine;

    oi->pHashListArray =
        static_cast<PLIST_ENTRY>(PoolAlloc(oi, oi->hashSize * static_cast<UINT32>(sizeof(LIST_ENTRY))));
    if (oi->pHashListArray == nullptr) {
        UndoInitialize(oi);
        return KSPL_OM_STATUS(KSPL_OM_CODE_NO_MEMORY);
    }
    for (UINT32 i = 0; i < oi->hashSize; ++i) OmListInit(oi, &oi->pHashListArray[i]);

    // Permanent blocks take ids 1..permBlocks; the id counts in 16 bits, so
    // a request beyond 65535 ends at the wrap.
    UINT16 id = 1;
    for (UINT32 made = 0; made < permBlocks; ++made, ++id) {
        if (AllocBlock(oi, id, nullptr, OBJECT_PERMANENT | OBJECT_FREE) == nullptr) {
            UndoInitialize(oi);
            return KSPL_OM_STATUS(KSPL_OM_CODE_NO_MEMORY);
        }
    }
    return 0;
}

BlockHeader* AllocBlock(ObjectInfo* oi, UINT16 blockId, BlockHeader* bhBefore, UINT8 flags) {
    if (blockId == 0) return nullptr;
    UINT64 size = sizeof(BlockHeader) + static_cast<UINT64>(oi->objectsPerBlock) * oi->objectSize;
    if (size > UINT32_MAX) return nullptr;
    auto* bh = static_cast<BlockHeader*>(PoolAlloc(oi, static_cast<UINT32>(size)));
    if (bh == nullptr) return nullptr;

    oi->statsAllocated += oi->objectsPerBlock;
    OmListInit(oi, &bh->freeList);
    bh->blockId = blockId;
    bh->freeObjectCount = static_cast<UINT16>(oi->objectsPerBlock);
    bh->oi = oi;
    for (UINT32 k = 0; k < oi->objectsPerBlock; ++k) {
        Object* ob = ObSlot(oi, bh, k);
        OmListInsertTail(oi, &bh->freeList, &ob->objectLink);
        ObStoreHandle(ob, MakeHandle(blockId, 1, k + 1));
        ob->instanceCount = 0;
        ob->blockStart = bh;
        // A slot gets its lock when it is taken; FreeObject relies on a null
        // handle meaning "no lock".
        ob->protect.handle = nullptr;
        ob->protect.spinState = 0;
        ObStoreFlags(ob, flags);
    }
    if (bhBefore == nullptr) {
        OmListInsertTail(oi, &oi->blockList, &bh->blockLink);
    } else {
        OmListInsertBefore(oi, &oi->blockList, &bh->blockLink, &bhBefore->blockLink);
    }
    return bh;
}

BOOLEAN FreeBlock(ObjectInfo* oi, BlockHeader* bh) {
    oi->statsAllocated -= oi->objectsPerBlock;
    OmListRemove(oi, &bh->blockLink);
    OM_KSO(oi, KsoFreeMemory, bh);
    if (OmListEmpty(oi, &oi->blockList) && (OiFlags(oi) & OI_RELEASED) != 0) {
        InstanceDeallocate(oi);
        return TRUE;
    }
    return FALSE;
}

void InstanceDeallocate(ObjectInfo* oi) {
    IKspl* k = oi->pIKspl != nullptr ? oi->pIKspl : pIKspl;
    if (oi->pHashListArray != nullptr) {
        k->lpVtbl->KsoFreeMemory(k, oi->pHashListArray);
        oi->pHashListArray = nullptr;
    }
    OiSetFlags(oi, OI_DEALLOCATED);
    if (oi->protect.handle != nullptr) {
        UnlockInstance(oi);
        if (oi->accessLevel == kOmLevelMutex) {
            k->lpVtbl->KsoDestroyMutex(k, oi->protect.handle);
        } else {
            k->lpVtbl->KsoDestroyReadWriteLock(k, oi->protect.handle);
        }
        oi->protect.handle = nullptr;
    }
    if (oi->objDeleteWorkHandle != nullptr) {
        k->lpVtbl->KsoDestroyWorkItem(k, oi->objDeleteWorkHandle);
        oi->objDeleteWorkHandle = nullptr;
    }
    // The record came from the global instance's non-paged memory.
    pIKspl->lpVtbl->KsoFreeMemory(pIKspl, oi);
}

Object* FindFreeSlot(ObjectInfo* oi) {
    UINT16 expected = 1;
    BlockHeader* gap = nullptr;
    for (PLIST_ENTRY link = oi->blockList.Flink; link != &oi->blockList; link = link->Flink) {
        BlockHeader* bh = BlockFromLink(link);
        if (bh->blockId == expected) {
            ++expected;
        } else if (gap == nullptr) {
            gap = bh;
        }
        if (bh->freeObjectCount != 0 && !OmListEmpty(oi, &bh->freeList)) {
            Object* ob = ObFromLink(bh->freeList.Flink);
            if ((ObFlags(ob) & OBJECT_FREE) != 0) return ob;
        }
    }
    // Ids are dense from 1 up to the first gap: `expected` is the smallest
    // id not in use (0 once all 65535 are taken, which AllocBlock refuses).
    BlockHeader* bh = AllocBlock(oi, expected, gap, OBJECT_FREE);
    if (bh == nullptr) return nullptr;
    return ObFromLink(bh->freeList.Flink);
}

KSSTATUS AllocObjectLock(ObjectInfo* oi, Object* ob) {
    ob->protect.handle = nullptr;
    ob->protect.spinState = 0;
    if (oi->accessLevel == kOmLevelMutex) return OM_KSO(oi, KsoAllocMutex, 1u, &ob->protect.handle);
    return OM_KSO(oi, KsoAllocReadWriteLock, &ob->protect.handle);
}

void DestroyObjectLock(ObjectInfo* oi, Object* ob) {
    if (ob->protect.handle == nullptr) return;
    if (oi->accessLevel == kOmLevelMutex) {
        OM_KSO(oi, KsoDestroyMutex, ob->protect.handle);
    } else {
        OM_KSO(oi, KsoDestroyReadWriteLock, ob->protect.handle);
    }
    ob->protect.handle = nullptr;
}

bool TakeFreeSlot(ObjectInfo* oi, Object* ob) {
    OmListRemove(oi, &ob->objectLink);
    if (KS_IS_ERROR(AllocObjectLock(oi, ob))) {
        ob->protect.handle = nullptr;
        ReturnFreeSlot(oi, ob);
        return false;
    }
    return true;
}

void ReturnFreeSlot(ObjectInfo* oi, Object* ob) {
    OmListInsertTail(oi, &ob->blockStart->freeList, &ob->objectLink);
}

KSSTATUS ObjectAllocate(void* pThis, PVOID* ppUserData) {
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi) || ppUserData == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    *ppUserData = nullptr;
    LockInstance(oi, kOmAccessExclusive);
    Object* ob = FindFreeSlot(oi);
    if (ob == nullptr || !TakeFreeSlot(oi, ob)) {
        UnlockInstance(oi);
        return KSPL_OM_STATUS(KSPL_OM_CODE_NO_MEMORY);
    }
    OM_KSO(oi, KsoZeroMemory, ObUser(ob), oi->objectSize - static_cast<UINT32>(sizeof(Object)));
    --ob->blockStart->freeObjectCount;
    ObStoreFlags(ob, static_cast<UINT8>((ObFlags(ob) & ~OBJECT_FREE) | OBJECT_IN_USE |
                                        OBJECT_PREALLOCATED));
    OM_KSO(oi, KsoInterlockedExchange, &ob->instanceCount, 1u);
    OmListInsertTail(oi, &oi->allocatedList, &ob->objectLink);
    ++oi->statsPreallocated;
    *ppUserData = ObUser(ob);
    UnlockInstance(oi);
    return 0;
}

// --- locks -------------------------------------------------------------

BOOLEAN InternalAcquire(ObjectInfo* oi, UINT32 accessLevel, pProtectToken pProtect,
                        UINT32 accessType) {
    if (accessLevel == kOmLevelMutex) {
        return OM_KSO(oi, KsoAcquireMutex, pProtect->handle) == 0 ? TRUE : FALSE;
    }
    if (accessLevel == kOmLevelRwLock) {
        if (accessType == kOmAccessExclusive) {
            return OM_KSO(oi, KsoAcquireLockForWriteAccess, pProtect->handle, TRUE) == 0 ? TRUE
                                                                                         : FALSE;
        }
        if (accessType == kOmAccessShared) {
            return OM_KSO(oi, KsoAcquireLockForReadAccess, pProtect->handle, TRUE) == 0 ? TRUE
                                                                                        : FALSE;
        }
    }
    return FALSE;
}

void InternalRelease(ObjectInfo* oi, UINT32 accessLevel, pProtectToken pProtect) {
    if (accessLevel == kOmLevelMutex) {
        OM_KSO(oi, KsoReleaseMutex, pProtect->handle);
    } else if (accessLevel == kOmLevelRwLock) {
        OM_KSO(oi, KsoReleaseReadWriteLock, pProtect->handle);
    }
}

KSSTATUS ObjectAcquireAccess(void* pThis, PVOID pUserData, UINT32 accessType) {
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi) || pUserData == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    LockObject(oi, ObFromUser(pUserData), accessType);
    return 0;
}

KSSTATUS ObjectReleaseAccess(void* pThis, PVOID pUserData) {
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi) || pUserData == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    UnlockObject(oi, ObFromUser(pUserData));
    return 0;
}

void WaitObjectReady(ObjectInfo* oi, Object* ob) {
    // A preallocated object never gets a first-open report, so nobody would
    // ever mark it ready; a marked object will never be reported either.
    constexpr UINT8 kNoWait = OBJECT_READY | OBJECT_PREALLOCATED | OBJECT_DELETED | OBJECT_DEALLOCATED;
    while ((ObFlags(ob) & kNoWait) == 0) OM_KSO(oi, KsoSleep, UINT64{0});
}

// --- deferred deletion ---------------------------------------------------

void ScheduleObjForDeletion(ObjectInfo* oi, Object* ob) {
    OM_KSO(oi, KsoInterlockedIncrement, &numScheduledDelObjects);
    OmListInsertTail(oi, &oi->objDeleteList, &ob->objectLink);
    if (oi->objDeleteActive) return;
    oi->objDeleteActive = TRUE;
    HANDLE thread = nullptr;
    if (KS_IS_ERROR(OM_KSO(oi, KsoCreateThread, KSO_PRIORITY_NORMAL, ObjDeleteThread, oi, &thread))) {
        // The object stays queued; the next scheduling (or the store's
        // teardown) picks it up.
        oi->objDeleteActive = FALSE;
    }
}

void ObjDeleteThread(HANDLE threadHandle, PVOID context) {
    auto* oi = static_cast<ObjectInfo*>(context);
    // The record may be freed by this thread; the services stay reachable.
    IKspl* k = oi->pIKspl;
    LockInstance(oi, kOmAccessExclusive);
    while (!OmListEmpty(oi, &oi->objDeleteList)) {
        PLIST_ENTRY link = oi->objDeleteList.Flink;
        OmListRemove(oi, link);
        k->lpVtbl->KsoInterlockedDecrement(k, &numScheduledDelObjects);
        if (FreeObject(oi, ObFromLink(link), TRUE)) {
            k->lpVtbl->KsoExitThread(k, threadHandle, 0, TRUE);
            return;
        }
    }
    oi->objDeleteActive = FALSE;
    UnlockInstance(oi);
    k->lpVtbl->KsoExitThread(k, threadHandle, 0, TRUE);
}

void ObjDeleteWorker(HANDLE /*workHandle*/, PVOID context) {
    // Never queued by the store; kept so that the work item has a routine
    // that would start the deletion thread like ScheduleObjForDeletion.
    auto* oi = static_cast<ObjectInfo*>(context);
    LockInstance(oi, kOmAccessExclusive);
    if (!oi->objDeleteActive && !OmListEmpty(oi, &oi->objDeleteList)) {
        oi->objDeleteActive = TRUE;
        HANDLE thread = nullptr;
        if (KS_IS_ERROR(OM_KSO(oi, KsoCreateThread, KSO_PRIORITY_NORMAL, ObjDeleteThread, oi, &thread))) {
            oi->objDeleteActive = FALSE;
        }
    }
    UnlockInstance(oi);
}
