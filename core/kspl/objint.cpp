// objint.cpp - creation (by key and by handle), the first-open report,
// references by handle, handles, and the read side: enumeration, find,
// open from the preallocated list and the statistics.
//
// Lookups and insertions run under the instance lock; object locks are
// taken only after it has been released (lock order in object_int.h). The
// callers' init and compare routines run under the instance lock.
#include "object_int.h"

KSPL_SOURCE_UNIT("objint");

#include "objlookup_int.h"  // after the unit: its statuses carry it

namespace {

enum class Report { kDone, kRetry, kStoreFreed };

// The first-open report: whichever caller takes the new object's lock first
// is told 1 and gets `createAccess`; every later one is told 2 and gets
// `openAccess`. Entered without the instance lock. kRetry: the object was
// deleted after it was found; its reference is dropped and the instance
// lock is held again for the caller's creation step. kStoreFreed: dropping
// that reference freed the store, lock and all.
Report FirstOpenReport(ObjectInfo* oi, InstanceGuard& instance, Object* ob, UINT32 createAccess,
                       UINT32 openAccess, PUINT32 pOpenedMode) {
    ObjectGuard object(oi, ob, kOmAccessExclusive);
    if ((ObFlags(ob) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) != 0) {
        object.unlock();
        instance.lock(kOmAccessExclusive);
        if (InternalObjectDereference(oi, ob) == kOmStoreFreedStatus) {
            instance.release();
            return Report::kStoreFreed;
        }
        return Report::kRetry;
    }
    UINT8 before = __atomic_fetch_or(&ob->flags, OBJECT_READY, __ATOMIC_ACQ_REL);
    UINT32 mode = (before & OBJECT_READY) != 0 ? OM_OPENED_EXISTING : OM_OPENED_CREATED;
    UINT32 access = mode == OM_OPENED_EXISTING ? openAccess : createAccess;
    if (pOpenedMode != nullptr) *pOpenedMode = mode;
    if (access == kOmAccessExclusive) {
        object.release();  // the caller's now
        return Report::kDone;
    }
    object.unlock();
    if (access == kOmAccessShared) LockObject(oi, ob, kOmAccessShared);  // the caller's
    return Report::kDone;
}

// The last step of every creation and open: the new object goes on chain
// `chain` with the creator's reference, counted in use and not yet
// reported. Its slot comes from a block's free list (that block counts one
// free slot less) or from allocatedList. REQUIRES: instance lock held
// exclusively.
void Publish(ObjectInfo* oi, Object* ob, UINT32 chain) {
    KS_DCHECK(OmHeldExclusive(oi));
    KS_DCHECK(chain < oi->hashSize);
    const UINT8 flags = ObFlags(ob);
    if ((flags & OBJECT_PREALLOCATED) != 0) {
        KS_DCHECK(oi->statsPreallocated != 0);
        --oi->statsPreallocated;
    } else {
        BlockSlotTaken(oi, ob->blockStart);
    }
    OmListInsertSlot(oi, &oi->pHashListArray[chain], &ob->objectLink);
    ++oi->statsInUse;
    ObStoreFlags(ob,
                 static_cast<UINT8>((flags & ~(OBJECT_FREE | OBJECT_PREALLOCATED | OBJECT_READY)) |
                                    OBJECT_IN_USE));
    OM_KSO(oi, KsoInterlockedExchange, &ob->instanceCount, 1u);
}

// The tail CreateObject and OpenObject share. `ob` is the object the lookup
// found (referenced), or null, in which case `make(&ob)` makes one under
// the instance lock (0, or the failure to return). Then the first-open
// report; when it finds the object deleted meanwhile, another one is made:
// the lookup is not repeated. Entered with the instance lock held
// exclusively.
template <typename Make>
KSSTATUS CreateOrOpen(ObjectInfo* oi, InstanceGuard& instance, Object* ob, Make make,
                      UINT32 createAccess, UINT32 openAccess, PVOID* ppUserData,
                      PUINT32 pOpenedMode, const char* function) {
    for (;;) {
        if (ob == nullptr) {
            KSSTATUS status = make(&ob);
            if (status != 0) return status;
        }
        instance.unlock();
        switch (FirstOpenReport(oi, instance, ob, createAccess, openAccess, pOpenedMode)) {
            case Report::kDone:
                *ppUserData = ObUser(ob);
                return 0;
            case Report::kStoreFreed:
                return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_STORE_FREED, function);
            case Report::kRetry:
                ob = nullptr;
                break;
        }
    }
}

// The first slot of `bh` at or after `from` that an enumeration returns
// (objectsPerBlock when none). REQUIRES: instance lock held.
UINT32 ScanBlock(ObjectInfo* oi, BlockHeader* bh, UINT32 from, PVOID pCompareData,
                 PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine) {
    for (UINT32 i = from; i < oi->objectsPerBlock; ++i) {
        Object* ob = ObSlot(oi, bh, i);
        UINT8 flags = ObFlags(ob);
        if ((flags & OBJECT_IN_USE) == 0 || (flags & OBJECT_DELETED) != 0 || ObBeingFreed(ob)) {
            continue;
        }
        if (pCompareRoutine == nullptr || pCompareRoutine(ObUser(ob), pCompareData) == 1) return i;
    }
    return oi->objectsPerBlock;
}

KSSTATUS GetHandleCore(ObjectInfo* oi, PVOID pUserData, PHANDLE phandle, UINT32 mask,
                       const char* function) {
    if (!OiInitialized(oi) || pUserData == nullptr || phandle == nullptr) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, function);
    }
    *phandle = PtrFromHandle(ObHandle(ObFromUser(pUserData)) ^ mask);
    return 0;
}

}  // namespace

KSSTATUS ObjectCreate(void* pThis, PVOID pInitData, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                      PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                      UINT32 CompareIndex, UINT32 createAccess, UINT32 openAccess,
                      PVOID* ppUserData, PUINT32 pOpenedMode) {
    static constexpr char kFn[] = "ObjectCreate";
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi) || ppUserData == nullptr || CompareIndex >= oi->hashSize) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, kFn);
    }
    *ppUserData = nullptr;
    InstanceGuard instance(oi, kOmAccessExclusive);
    Object* found = nullptr;
    if (pCompareRoutine != nullptr) {
        found = LookupChain(oi, CompareIndex, pCompareData, pCompareRoutine);
        if (found != nullptr) OmAddReference(oi, found);
    }
    auto make = [&](Object** made) -> KSSTATUS {
        Object* ob = FindFreeSlot(oi);
        if (ob == nullptr) return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_NO_MEMORY, kFn);
        KSSTATUS status = MakeObject(oi, ob, pInitRoutine, pInitData, kFn);
        if (status != 0) return status;
        Publish(oi, ob, CompareIndex);
        *made = ob;
        return 0;
    };
    return CreateOrOpen(oi, instance, found, make, createAccess, openAccess, ppUserData,
                        pOpenedMode, kFn);
}

KSSTATUS ObjectCreateByHandle(void* pThis, HANDLE handle, PVOID pInitData,
                              PKSO_OBJECT_INIT_ROUTINE pInitRoutine, UINT32 createAccess,
                              UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode) {
    static constexpr char kFn[] = "ObjectCreateByHandle";
    ObjectInfo* oi = OmInfo(pThis);
    if (pOpenedMode != nullptr) *pOpenedMode = 0;
    if (!OiInitialized(oi) || oi->hashSize != 1 || ppUserData == nullptr) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, kFn);
    }
    *ppUserData = nullptr;
    const UINT32 h = HandleFromPtr(handle);
    const UINT32 indexByte = HandleIndexByte(h);
    if (indexByte == 0 || indexByte > oi->objectsPerBlock) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_HANDLE, kFn);
    }

    Object* ob;
    UINT32 mode;
    UINT32 access;
    {
        InstanceGuard instance(oi, kOmAccessExclusive);
        const UINT32 blockId = HandleBlockId(h);
        BlockHeader* bh = BlockById(oi, blockId);
        if (bh == nullptr) {
            // Linked in front of the first block with a larger id (id 0 is
            // refused by AllocBlock).
            bh = AllocBlock(oi, static_cast<UINT16>(blockId), BlockAtOrAfter(oi, blockId),
                            OBJECT_FREE);
            if (bh == nullptr) return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_NO_MEMORY, kFn);
        }
        ob = ObSlot(oi, bh, indexByte - 1);
        if ((ObFlags(ob) & OBJECT_FREE) == 0) {
            // A slot whose object is on its way out (no reference left)
            // cannot be opened: its lock and user area are being given back.
            if (ObBeingFreed(ob)) {
                return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_HANDLE, kFn);
            }
            OmAddReference(oi, ob);
            mode = OM_OPENED_EXISTING;
            access = openAccess;
        } else {
            KSSTATUS status = MakeObject(oi, ob, pInitRoutine, pInitData, kFn);
            if (status != 0) return status;
            Publish(oi, ob, 0);
            mode = OM_OPENED_CREATED;
            access = createAccess;
        }
        ObStoreHandle(ob, h);
    }

    if (access != kOmAccessNone) LockObject(oi, ob, access);  // the caller's
    // The creator holds its lock before finders stop waiting for readiness.
    if (mode == OM_OPENED_CREATED) ObSetFlags(ob, OBJECT_READY);
    *ppUserData = ObUser(ob);
    if (pOpenedMode != nullptr) *pOpenedMode = mode;
    return 0;
}

KSSTATUS ObjectReferenceByHandle(void* pThis, HANDLE handle, UINT32 accessType,
                                 PVOID* ppUserData) {
    return ReferenceByHandleCore<kOmAccessShared>(OmInfo(pThis), HandleFromPtr(handle), accessType,
                                                  ppUserData);
}

KSSTATUS ObjectReferenceByHandle2(void* pThis, HANDLE handle, UINT32 accessType,
                                  PVOID* ppUserData) {
    ObjectInfo* oi = OmInfo(pThis);
    UINT32 mask = OiInitialized(oi) ? HandleMask(oi) : 0;
    return ReferenceByHandleCore<kOmAccessShared>(oi, HandleFromPtr(handle) ^ mask, accessType,
                                                  ppUserData);
}

KSSTATUS ObjectGetHandle(void* pThis, PVOID pUserData, PHANDLE phandle) {
    return GetHandleCore(OmInfo(pThis), pUserData, phandle, 0, "ObjectGetHandle");
}

KSSTATUS ObjectGetHandle2(void* pThis, PVOID pUserData, PHANDLE phandle) {
    ObjectInfo* oi = OmInfo(pThis);
    UINT32 mask = OiInitialized(oi) ? HandleMask(oi) : 0;
    return GetHandleCore(oi, pUserData, phandle, mask, "ObjectGetHandle2");
}

KSSTATUS ObjectIncrement(void* pThis, PVOID pUserData) {
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi) || pUserData == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    OmAddReference(oi, ObFromUser(pUserData));
    return 0;
}

KSSTATUS ObjectEnumerate(void* pThis, PHANDLE pscanHandle, PVOID pCompareData,
                         PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType,
                         PVOID* ppUserData) {
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi) || pscanHandle == nullptr || ppUserData == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    *ppUserData = nullptr;
    UINT32 cursor = HandleFromPtr(*pscanHandle);
    UINT32 blockId = 1;
    UINT32 index = 0;
    if (cursor == 0) {
        *pscanHandle = PtrFromHandle(MakeHandle(1, 1, 1));
    } else {
        // Only cursors the store wrote are accepted: index byte 1..opb.
        UINT32 indexByte = HandleIndexByte(cursor);
        if (indexByte == 0 || indexByte > oi->objectsPerBlock) {
            return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
        }
        blockId = HandleBlockId(cursor);
        index = indexByte - 1;
        // Block id 0 in a written cursor is the step past block 65535: the
        // scan is over, it does not start again.
        if (blockId == 0) return KSPL_OM_STATUS_NO_MORE_OBJECTS;
    }

    Object* ob = nullptr;
    {
        InstanceGuard instance(oi, kOmAccessShared);
        // The cursor's block, or, when it is gone, the next one from index 0.
        BlockHeader* bh = BlockAtOrAfter(oi, blockId);
        if (bh != nullptr && bh->blockId != blockId) index = 0;
        UINT32 slot = 0;
        for (; bh != nullptr; bh = NextBlock(oi, bh), index = 0) {
            slot = ScanBlock(oi, bh, index, pCompareData, pCompareRoutine);
            if (slot < oi->objectsPerBlock) {
                ob = ObSlot(oi, bh, slot);
                break;
            }
        }
        if (ob == nullptr) return KSPL_OM_STATUS_NO_MORE_OBJECTS;

        UINT32 next;
        if (slot + 1 < oi->objectsPerBlock) {
            next = MakeHandle(bh->blockId, 0, slot + 2);
        } else if (BlockHeader* after = NextBlock(oi, bh); after != nullptr) {
            next = MakeHandle(after->blockId, 0, 1);
        } else {
            next = MakeHandle(static_cast<UINT16>(bh->blockId + 1), 0, 1);
        }
        OmAddReference(oi, ob);
        *pscanHandle = PtrFromHandle(next);
        *ppUserData = ObUser(ob);
    }

    if (accessType != kOmAccessNone) {
        WaitObjectReady(oi, ob);
        LockObject(oi, ob, accessType);  // the caller's
    }
    return 0;
}

KSSTATUS ObjectFind(void* pThis, PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                    UINT32 CompareIndex, UINT32 accessType, PVOID* ppUserData) {
    return FindCore<kOmAccessShared>(OmInfo(pThis), pCompareData, pCompareRoutine, CompareIndex,
                                     accessType, ppUserData);
}

KSSTATUS ObjectOpen(void* pThis, PVOID pInitData, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                    PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                    UINT32 CompareIndex, UINT32 allocAccess, UINT32 openAccess,
                    PVOID* ppUserData, PUINT32 pOpenedMode) {
    static constexpr char kFn[] = "ObjectOpen";
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi) || ppUserData == nullptr || CompareIndex >= oi->hashSize) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, kFn);
    }
    *ppUserData = nullptr;
    InstanceGuard instance(oi, kOmAccessExclusive);
    Object* found = nullptr;
    if (pCompareRoutine != nullptr) {
        found = LookupChain(oi, CompareIndex, pCompareData, pCompareRoutine);
        if (found != nullptr) OmAddReference(oi, found);
    }
    auto make = [&](Object** made) -> KSSTATUS {
        // The first preallocated object that no exclusive holder has marked
        // for deletion while waiting for the instance lock.
        PLIST_ENTRY link = oi->allocatedList.Flink;
        while (link != &oi->allocatedList &&
               (ObFlags(ObFromLink(link)) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) != 0) {
            link = link->Flink;
        }
        if (link == &oi->allocatedList) {
            return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_NO_PREALLOCATED, kFn);
        }
        Object* ob = ObFromLink(link);
        KS_DCHECK((ObFlags(ob) & OBJECT_PREALLOCATED) != 0);
        OmListRemove(oi, link);
        if (pInitRoutine != nullptr) {
            KSSTATUS status = pInitRoutine(ObUser(ob), pInitData);
            if (KS_IS_ERROR(status)) {
                OmListInsertSlot(oi, &oi->allocatedList, &ob->objectLink);
                return status;
            }
        }
        Publish(oi, ob, CompareIndex);
        *made = ob;
        return 0;
    };
    return CreateOrOpen(oi, instance, found, make, allocAccess, openAccess, ppUserData, pOpenedMode,
                        kFn);
}

KSSTATUS ObjectGetStats(void* pThis, PUINT32 pObjectsAllocated, PUINT32 pObjectsInUse,
                        PUINT32 pObjectsPreallocated) {
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi)) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    InstanceGuard instance(oi, kOmAccessShared);
    if (pObjectsAllocated != nullptr) *pObjectsAllocated = oi->statsAllocated;
    if (pObjectsInUse != nullptr) *pObjectsInUse = oi->statsInUse;
    if (pObjectsPreallocated != nullptr) *pObjectsPreallocated = oi->statsPreallocated;
    return 0;
}
