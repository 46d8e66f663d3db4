// object.cpp - object storage (initialisation, blocks, the free-slot search,
// preallocation), the object and instance locks, and deferred deletion.
//
// Blocks are kept on blockList in ascending id order; a new block takes the
// smallest id not in use and is linked in front of the first block whose id
// breaks the dense sequence. The block index (object_int.h) mirrors the list
// so that none of this walks it: AllocBlock and FreeBlock keep both, and
// every change of a block's free count goes through BlockSlotTaken or
// BlockSlotReturned. All bookkeeping below runs with the instance lock held
// exclusively (see object_int.h for the lock order).
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

// --- the block index -----------------------------------------------------

constexpr UINT32 kGroupOf(UINT32 blockId) { return blockId >> 8; }
constexpr UINT32 kLowOf(UINT32 blockId) { return blockId & 0xFFu; }
// Ids a group can hold: group 0 has no id 0.
constexpr UINT32 kGroupCapacity(UINT32 group) { return group == 0 ? 255u : 256u; }

void IndexReset(ObjectInfo* oi) {
    OM_KSO(oi, KsoZeroMemory, &oi->index, static_cast<UINT32>(sizeof(oi->index)));
    oi->index.leaf[0] = &oi->index.first;
}

// The leaf of `blockId`'s group, made when missing; null when no memory.
BlockIndexLeaf* IndexLeafFor(ObjectInfo* oi, UINT32 blockId) {
    BlockIndexLeaf*& leaf = oi->index.leaf[kGroupOf(blockId)];
    if (leaf == nullptr) {
        constexpr UINT32 kSize = static_cast<UINT32>(sizeof(BlockIndexLeaf));
        leaf = static_cast<BlockIndexLeaf*>(PoolAlloc(oi, kSize));
        if (leaf != nullptr) OM_KSO(oi, KsoZeroMemory, leaf, kSize);
    }
    return leaf;
}

// Gives back the leaf of `group` once it holds no block (group 0 lives in
// the record and stays).
void IndexDropLeafIfEmpty(ObjectInfo* oi, UINT32 group) {
    BlockIndexLeaf*& leaf = oi->index.leaf[group];
    if (group == 0 || leaf == nullptr || leaf->count != 0) return;
    KS_DCHECK(!leaf->present.Any() && !leaf->hasFree.Any());
    OM_KSO(oi, KsoFreeMemory, leaf);
    leaf = nullptr;
}

// Mirrors the block's free count into both levels' hasFree sets.
void IndexNoteFree(ObjectInfo* oi, BlockHeader* bh) {
    const UINT32 group = kGroupOf(bh->blockId);
    BlockIndexLeaf* leaf = oi->index.leaf[group];
    KS_DCHECK(leaf != nullptr && leaf->block[kLowOf(bh->blockId)] == bh);
    if (bh->freeObjectCount != 0) {
        leaf->hasFree.Set(kLowOf(bh->blockId));
        oi->index.hasFree.Set(group);
    } else {
        leaf->hasFree.Clear(kLowOf(bh->blockId));
        if (!leaf->hasFree.Any()) oi->index.hasFree.Clear(group);
    }
}

void IndexInsert(ObjectInfo* oi, BlockIndexLeaf* leaf, BlockHeader* bh) {
    const UINT32 group = kGroupOf(bh->blockId);
    const UINT32 low = kLowOf(bh->blockId);
    KS_DCHECK(oi->index.leaf[group] == leaf && leaf->block[low] == nullptr);
    leaf->block[low] = bh;
    leaf->present.Set(low);
    ++leaf->count;
    oi->index.nonEmpty.Set(group);
    if (leaf->count == kGroupCapacity(group)) oi->index.full.Set(group);
    IndexNoteFree(oi, bh);
}

void IndexRemove(ObjectInfo* oi, BlockHeader* bh) {
    const UINT32 group = kGroupOf(bh->blockId);
    const UINT32 low = kLowOf(bh->blockId);
    BlockIndexLeaf* leaf = oi->index.leaf[group];
    KS_DCHECK(leaf != nullptr && leaf->block[low] == bh && leaf->count != 0);
    leaf->block[low] = nullptr;
    leaf->present.Clear(low);
    leaf->hasFree.Clear(low);
    --leaf->count;
    oi->index.full.Clear(group);
    if (!leaf->hasFree.Any()) oi->index.hasFree.Clear(group);
    if (leaf->count == 0) oi->index.nonEmpty.Clear(group);
    IndexDropLeafIfEmpty(oi, group);
}

// The smallest id no block has (ids are dense below it), 0 when all 65535
// are in use.
UINT32 SmallestUnusedId(const ObjectInfo* oi) {
    const UINT32 group = oi->index.full.FirstAbsentFrom(0);
    if (group == 256) return 0;
    const BlockIndexLeaf* leaf = oi->index.leaf[group];
    const UINT32 from = group == 0 ? 1 : 0;
    const UINT32 low = leaf != nullptr ? leaf->present.FirstAbsentFrom(from) : from;
    KS_DCHECK(low < 256);
    return group << 8 | low;
}

// The lowest block with a free slot, null when none has one.
BlockHeader* LowestBlockWithFree(const ObjectInfo* oi) {
    const UINT32 group = oi->index.hasFree.FirstFrom(0);
    if (group == 256) return nullptr;
    const BlockIndexLeaf* leaf = oi->index.leaf[group];
    const UINT32 low = leaf->hasFree.FirstFrom(0);
    KS_DCHECK(low < 256 && leaf->block[low] != nullptr);
    return leaf->block[low];
}

// Gives back everything a failed Initialize made, so that the record is
// zero-like again and a retry starts clean. No other thread can use the
// store: it was never initialised.
void UndoInitialize(ObjectInfo* oi) {
    while (!OmListEmpty(oi, &oi->blockList)) {
        PLIST_ENTRY link = oi->blockList.Flink;
        OmListRemove(oi, link);
        IndexRemove(oi, BlockFromLink(link));
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
    oi->exclusiveOwner = nullptr;
    IndexReset(oi);

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
    KS_DCHECK(BlockById(oi, blockId) == nullptr);
    KS_DCHECK(bhBefore == nullptr || bhBefore->blockId > blockId);
    KS_DCHECK(bhBefore == BlockAtOrAfter(oi, blockId));
    UINT64 size = sizeof(BlockHeader) + static_cast<UINT64>(oi->objectsPerBlock) * oi->objectSize;
    if (size > UINT32_MAX) return nullptr;
    BlockIndexLeaf* leaf = IndexLeafFor(oi, blockId);
    if (leaf == nullptr) return nullptr;
    auto* bh = static_cast<BlockHeader*>(PoolAlloc(oi, static_cast<UINT32>(size)));
    if (bh == nullptr) {
        IndexDropLeafIfEmpty(oi, kGroupOf(blockId));
        return nullptr;
    }

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
    IndexInsert(oi, leaf, bh);
    return bh;
}

BOOLEAN FreeBlock(ObjectInfo* oi, BlockHeader* bh) {
    KS_DCHECK(OmHeldExclusive(oi));
    KS_DCHECK(bh->freeObjectCount == oi->objectsPerBlock);
    KS_DCHECK(oi->statsAllocated >= oi->objectsPerBlock);
    oi->statsAllocated -= oi->objectsPerBlock;
    OmListRemove(oi, &bh->blockLink);
    IndexRemove(oi, bh);
    OM_KSO(oi, KsoFreeMemory, bh);
    if (OmListEmpty(oi, &oi->blockList) && (OiFlags(oi) & OI_RELEASED) != 0) {
        InstanceDeallocate(oi);
        return TRUE;
    }
    return FALSE;
}

BlockHeader* BlockAtOrAfter(const ObjectInfo* oi, UINT32 blockId) {
    if (blockId == 0) blockId = 1;
    if (blockId > 0xFFFFu) return nullptr;
    UINT32 group = kGroupOf(blockId);
    if (const BlockIndexLeaf* leaf = oi->index.leaf[group]; leaf != nullptr) {
        UINT32 low = leaf->present.FirstFrom(kLowOf(blockId));
        if (low < 256) return leaf->block[low];
    }
    if (group == 255) return nullptr;
    group = oi->index.nonEmpty.FirstFrom(group + 1);
    if (group == 256) return nullptr;
    const BlockIndexLeaf* leaf = oi->index.leaf[group];
    return leaf->block[leaf->present.FirstFrom(0)];
}

void BlockSlotTaken(ObjectInfo* oi, BlockHeader* bh) {
    KS_DCHECK(OmHeldExclusive(oi));
    KS_DCHECK(bh->freeObjectCount != 0);
    if (--bh->freeObjectCount == 0) IndexNoteFree(oi, bh);
}

void BlockSlotReturned(ObjectInfo* oi, BlockHeader* bh) {
    KS_DCHECK(OmHeldExclusive(oi));
    KS_DCHECK(bh->freeObjectCount < oi->objectsPerBlock);
    if (++bh->freeObjectCount == 1) IndexNoteFree(oi, bh);
}

void InstanceDeallocate(ObjectInfo* oi) {
    IKspl* k = oi->pIKspl != nullptr ? oi->pIKspl : pIKspl;
    KS_DCHECK(oi->protect.handle == nullptr || OmHeldExclusive(oi));
    KS_DCHECK(oi->statsAllocated == 0 && !oi->index.nonEmpty.Any());
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
    KS_DCHECK(OmHeldExclusive(oi));
    if (BlockHeader* bh = LowestBlockWithFree(oi); bh != nullptr) {
        // A non-zero free count means a slot on the free list, and a slot
        // on a free list is marked free.
        KS_DCHECK(!OmListEmpty(oi, &bh->freeList));
        KS_DCHECK((ObFlags(ObFromLink(bh->freeList.Flink)) & OBJECT_FREE) != 0);
        return ObFromLink(bh->freeList.Flink);
    }
    // Ids are dense below the smallest unused one, so the block it makes
    // goes in front of the first block with a larger id (at the tail when
    // there is none), which keeps blockList sorted.
    const UINT32 id = SmallestUnusedId(oi);
    BlockHeader* bh = AllocBlock(oi, static_cast<UINT16>(id),
                                 id != 0 ? BlockAtOrAfter(oi, id) : nullptr, OBJECT_FREE);
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
    KS_DCHECK((ObFlags(ob) & OBJECT_FREE) != 0);
    OmListInsertSlot(oi, &ob->blockStart->freeList, &ob->objectLink);
}

KSSTATUS MakeObject(ObjectInfo* oi, Object* ob, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                    PVOID pInitData, const char* function) {
    KS_DCHECK(OmHeldExclusive(oi));
    if (!TakeFreeSlot(oi, ob)) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_NO_MEMORY, function);
    }
    OM_KSO(oi, KsoZeroMemory, ObUser(ob), oi->objectSize - static_cast<UINT32>(sizeof(Object)));
    if (pInitRoutine != nullptr) {
        KSSTATUS status = pInitRoutine(ObUser(ob), pInitData);
        if (KS_IS_ERROR(status)) {
            DestroyObjectLock(oi, ob);
            ReturnFreeSlot(oi, ob);
            return status;
        }
    }
    return 0;
}

KSSTATUS ObjectAllocate(void* pThis, PVOID* ppUserData) {
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi) || ppUserData == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    *ppUserData = nullptr;
    InstanceGuard instance(oi, kOmAccessExclusive);
    Object* ob = FindFreeSlot(oi);
    if (ob == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_NO_MEMORY);
    KSSTATUS status = MakeObject(oi, ob, nullptr, nullptr, "ObjectAllocate");
    if (status != 0) return status;
    BlockSlotTaken(oi, ob->blockStart);
    ObStoreFlags(ob, static_cast<UINT8>((ObFlags(ob) & ~OBJECT_FREE) | OBJECT_IN_USE |
                                        OBJECT_PREALLOCATED));
    OM_KSO(oi, KsoInterlockedExchange, &ob->instanceCount, 1u);
    OmListInsertSlot(oi, &oi->allocatedList, &ob->objectLink);
    ++oi->statsPreallocated;
    *ppUserData = ObUser(ob);
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
    KS_DCHECK(OmHeldExclusive(oi));
    KS_DCHECK((ObFlags(ob) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) != 0 && ObCount(ob) == 0);
    OM_KSO(oi, KsoInterlockedIncrement, &numScheduledDelObjects);
    OmListInsertSlot(oi, &oi->objDeleteList, &ob->objectLink);
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
    {
        InstanceGuard instance(oi, kOmAccessExclusive);
        bool storeFreed = false;
        while (!storeFreed && !OmListEmpty(oi, &oi->objDeleteList)) {
            PLIST_ENTRY link = oi->objDeleteList.Flink;
            OmListRemove(oi, link);
            k->lpVtbl->KsoInterlockedDecrement(k, &numScheduledDelObjects);
            storeFreed = FreeObject(oi, ObFromLink(link), TRUE) != FALSE;
        }
        if (storeFreed) {
            instance.release();
        } else {
            oi->objDeleteActive = FALSE;
        }
    }
    k->lpVtbl->KsoExitThread(k, threadHandle, 0, TRUE);
}

void ObjDeleteWorker(HANDLE /*workHandle*/, PVOID context) {
    // Never queued by the store; kept so that the work item has a routine
    // that would start the deletion thread like ScheduleObjForDeletion.
    auto* oi = static_cast<ObjectInfo*>(context);
    InstanceGuard instance(oi, kOmAccessExclusive);
    if (!oi->objDeleteActive && !OmListEmpty(oi, &oi->objDeleteList)) {
        oi->objDeleteActive = TRUE;
        HANDLE thread = nullptr;
        if (KS_IS_ERROR(OM_KSO(oi, KsoCreateThread, KSO_PRIORITY_NORMAL, ObjDeleteThread, oi, &thread))) {
            oi->objDeleteActive = FALSE;
        }
    }
}
