// objint.cpp - creation (by key and by handle), the first-open report,
// references by handle, handles, and the read side: enumeration, find,
// open from the preallocated list and the statistics.
//
// Lookups and insertions run under the instance lock; object locks are
// taken only after it has been released (lock order in object_int.h). The
// callers' init and compare routines run under the instance lock.
#include "object_int.h"

KSPL_SOURCE_UNIT("objint");

namespace {

enum class Report { kDone, kRetry, kStoreFreed };

// The first-open report: whichever caller takes the new object's lock first
// is told 1 and gets `createAccess`; every later one is told 2 and gets
// `openAccess`. Entered without the instance lock. kRetry: the object was
// deleted after it was found; its reference is dropped and the instance
// lock is held again for the caller's creation step.
Report FirstOpenReport(ObjectInfo* oi, Object* ob, UINT32 createAccess, UINT32 openAccess,
                       PUINT32 pOpenedMode) {
    LockObject(oi, ob, kOmAccessExclusive);
    if ((ObFlags(ob) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) != 0) {
        UnlockObject(oi, ob);
        LockInstance(oi, kOmAccessExclusive);
        if (InternalObjectDereference(oi, ob) ==
            KS_MAKE_STATUS(3, KSPL_OM_FACILITY, KSPL_OM_CODE_STORE_FREED)) {
            return Report::kStoreFreed;
        }
        return Report::kRetry;
    }
    UINT8 before = __atomic_fetch_or(&ob->flags, OBJECT_READY, __ATOMIC_ACQ_REL);
    UINT32 mode = (before & OBJECT_READY) != 0 ? OM_OPENED_EXISTING : OM_OPENED_CREATED;
    UINT32 access = mode == OM_OPENED_EXISTING ? openAccess : createAccess;
    if (pOpenedMode != nullptr) *pOpenedMode = mode;
    if (access == kOmAccessExclusive) return Report::kDone;
    UnlockObject(oi, ob);
    if (access == kOmAccessShared) LockObject(oi, ob, kOmAccessShared);
    return Report::kDone;
}

// REQUIRES: instance lock held (either mode).
Object* LookupChain(ObjectInfo* oi, UINT32 index, PVOID pCompareData,
                    PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine) {
    PLIST_ENTRY head = &oi->pHashListArray[index];
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        Object* ob = ObFromLink(link);
        if (pCompareRoutine == nullptr || pCompareRoutine(ObUser(ob), pCompareData) == 1) return ob;
    }
    return nullptr;
}

// REQUIRES: instance lock held. Null when no block with that id exists.
BlockHeader* BlockById(ObjectInfo* oi, UINT32 blockId) {
    for (PLIST_ENTRY link = oi->blockList.Flink; link != &oi->blockList; link = link->Flink) {
        BlockHeader* bh = BlockFromLink(link);
        if (bh->blockId == blockId) return bh;
        if (bh->blockId > blockId) break;
    }
    return nullptr;
}

inline UINT32 UserSize(const ObjectInfo* oi) {
    return oi->objectSize - static_cast<UINT32>(sizeof(Object));
}

inline void AddReference(ObjectInfo* oi, Object* ob) {
    OM_KSO(oi, KsoInterlockedIncrement, &ob->instanceCount);
}

// Drops the reference a lookup took, releasing the lock it took (when it
// took one). Entered without the instance lock.
void DropLookup(ObjectInfo* oi, Object* ob, BOOLEAN held, UINT32 accessType) {
    ObjectDereference(oi, ObUser(ob), held ? accessType : kOmAccessNone);
}

// kLookupLock: the mode the instance lock is taken in for the lookup; the
// store itself always uses shared (the exclusive form exists for the
// benchmark that measures what the shared lock gains).
template <UINT32 kLookupLock>
KSSTATUS ReferenceByHandleCore(ObjectInfo* oi, UINT32 handle, UINT32 accessType,
                               PVOID* ppUserData) {
    static constexpr char kFn[] = "ObjectReferenceByHandle";
    if (!OiInitialized(oi) || ppUserData == nullptr) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, kFn);
    }
    *ppUserData = nullptr;
    UINT32 indexByte = HandleIndexByte(handle);
    if (indexByte == 0 || indexByte > oi->objectsPerBlock) return KSPL_OM_STATUS_INVALID_HANDLE;

    LockInstance(oi, kLookupLock);
    BlockHeader* bh = BlockById(oi, HandleBlockId(handle));
    Object* ob = bh != nullptr ? ObSlot(oi, bh, indexByte - 1) : nullptr;
    // The full word must match (a freed slot has moved on to its next
    // generation); a free, deleted, or recycling slot is refused.
    if (ob == nullptr || ObHandle(ob) != handle ||
        (ObFlags(ob) & (OBJECT_FREE | OBJECT_DELETED)) != 0 || ObBeingFreed(ob)) {
        UnlockInstance(oi);
        return KSPL_OM_STATUS_INVALID_HANDLE;
    }
    AddReference(oi, ob);
    UnlockInstance(oi);

    if (accessType != kOmAccessNone) {
        BOOLEAN held = LockObject(oi, ob, accessType);
        if ((ObFlags(ob) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) != 0) {
            DropLookup(oi, ob, held, accessType);
            return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_HANDLE, kFn);
        }
    }
    *ppUserData = ObUser(ob);
    return 0;
}

// The key lookup of ObjectFind; kLookupLock as for ReferenceByHandleCore.
template <UINT32 kLookupLock>
KSSTATUS FindCore(ObjectInfo* oi, PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                  UINT32 CompareIndex, UINT32 accessType, PVOID* ppUserData) {
    static constexpr char kFn[] = "ObjectFind";
    if (!OiInitialized(oi) || ppUserData == nullptr || CompareIndex >= oi->hashSize) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, kFn);
    }
    *ppUserData = nullptr;
    LockInstance(oi, kLookupLock);
    Object* ob = LookupChain(oi, CompareIndex, pCompareData, pCompareRoutine);
    if (ob == nullptr) {
        UnlockInstance(oi);
        return KSPL_OM_STATUS_NOT_FOUND;
    }
    AddReference(oi, ob);
    UnlockInstance(oi);

    if (accessType != kOmAccessNone) {
        WaitObjectReady(oi, ob);
        BOOLEAN held = LockObject(oi, ob, accessType);
        if ((ObFlags(ob) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) != 0) {
            DropLookup(oi, ob, held, accessType);
            return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_NOT_FOUND, kFn);
        }
    }
    *ppUserData = ObUser(ob);
    return 0;
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
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi) || ppUserData == nullptr || CompareIndex >= oi->hashSize) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    *ppUserData = nullptr;
    LockInstance(oi, kOmAccessExclusive);
    Object* ob = nullptr;
    if (pCompareRoutine != nullptr) {
        ob = LookupChain(oi, CompareIndex, pCompareData, pCompareRoutine);
        if (ob != nullptr) AddReference(oi, ob);
    }
    for (;;) {
        if (ob == nullptr) {
            ob = FindFreeSlot(oi);
            if (ob == nullptr || !TakeFreeSlot(oi, ob)) {
                UnlockInstance(oi);
                return KSPL_OM_STATUS(KSPL_OM_CODE_NO_MEMORY);
            }
            OM_KSO(oi, KsoZeroMemory, ObUser(ob), UserSize(oi));
            if (pInitRoutine != nullptr) {
                KSSTATUS status = pInitRoutine(ObUser(ob), pInitData);
                if (KS_IS_ERROR(status)) {
                    DestroyObjectLock(oi, ob);
                    ReturnFreeSlot(oi, ob);
                    UnlockInstance(oi);
                    return status;
                }
            }
            OmListInsertTail(oi, &oi->pHashListArray[CompareIndex], &ob->objectLink);
            ++oi->statsInUse;
            --ob->blockStart->freeObjectCount;
            ObStoreFlags(ob, static_cast<UINT8>((ObFlags(ob) & ~(OBJECT_FREE | OBJECT_READY)) |
                                                OBJECT_IN_USE));
            OM_KSO(oi, KsoInterlockedExchange, &ob->instanceCount, 1u);
        }
        UnlockInstance(oi);
        switch (FirstOpenReport(oi, ob, createAccess, openAccess, pOpenedMode)) {
            case Report::kDone:
                *ppUserData = ObUser(ob);
                return 0;
            case Report::kStoreFreed:
                return KSPL_OM_STATUS(KSPL_OM_CODE_STORE_FREED);
            case Report::kRetry:
                ob = nullptr;  // the lookup is not repeated
                break;
        }
    }
}

KSSTATUS ObjectCreateByHandle(void* pThis, HANDLE handle, PVOID pInitData,
                              PKSO_OBJECT_INIT_ROUTINE pInitRoutine, UINT32 createAccess,
                              UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode) {
    ObjectInfo* oi = OmInfo(pThis);
    if (pOpenedMode != nullptr) *pOpenedMode = 0;
    if (!OiInitialized(oi) || oi->hashSize != 1 || ppUserData == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    *ppUserData = nullptr;
    UINT32 h = HandleFromPtr(handle);
    UINT32 indexByte = HandleIndexByte(h);
    if (indexByte == 0 || indexByte > oi->objectsPerBlock) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_HANDLE);
    }

    LockInstance(oi, kOmAccessExclusive);
    UINT32 blockId = HandleBlockId(h);
    BlockHeader* bh = nullptr;
    PLIST_ENTRY link = oi->blockList.Flink;
    for (; link != &oi->blockList; link = link->Flink) {
        BlockHeader* candidate = BlockFromLink(link);
        if (candidate->blockId == blockId) {
            bh = candidate;
            break;
        }
        if (candidate->blockId > blockId) break;
    }
    if (bh == nullptr) {
        BlockHeader* before = link != &oi->blockList ? BlockFromLink(link) : nullptr;
        bh = AllocBlock(oi, static_cast<UINT16>(blockId), before, OBJECT_FREE);
        if (bh == nullptr) {
            UnlockInstance(oi);
            return KSPL_OM_STATUS(KSPL_OM_CODE_NO_MEMORY);
        }
    }

    Object* ob = ObSlot(oi, bh, indexByte - 1);
    UINT32 mode;
    UINT32 access;
    if ((ObFlags(ob) & OBJECT_FREE) == 0) {
        // A slot whose object is on its way out (no reference left) cannot
        // be opened: its lock and user area are being given back.
        if (ObBeingFreed(ob)) {
            UnlockInstance(oi);
            return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_HANDLE);
        }
        AddReference(oi, ob);
        ObStoreHandle(ob, h);
        mode = OM_OPENED_EXISTING;
        access = openAccess;
    } else {
        if (!TakeFreeSlot(oi, ob)) {
            UnlockInstance(oi);
            return KSPL_OM_STATUS(KSPL_OM_CODE_NO_MEMORY);
        }
        OM_KSO(oi, KsoZeroMemory, ObUser(ob), UserSize(oi));
        if (pInitRoutine != nullptr) {
            KSSTATUS status = pInitRoutine(ObUser(ob), pInitData);
            if (KS_IS_ERROR(status)) {
                DestroyObjectLock(oi, ob);
                ReturnFreeSlot(oi, ob);
                UnlockInstance(oi);
                return status;
            }
        }
        OmListInsertTail(oi, &oi->pHashListArray[0], &ob->objectLink);
        ++oi->statsInUse;
        --bh->freeObjectCount;
        ObStoreFlags(ob, static_cast<UINT8>((ObFlags(ob) & ~(OBJECT_FREE | OBJECT_READY)) |
                                            OBJECT_IN_USE));
        OM_KSO(oi, KsoInterlockedExchange, &ob->instanceCount, 1u);
        ObStoreHandle(ob, h);
        mode = OM_OPENED_CREATED;
        access = createAccess;
    }
    UnlockInstance(oi);

    if (access != kOmAccessNone) LockObject(oi, ob, access);
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

KSSTATUS ObjectReferenceByHandleExclusive(void* pThis, HANDLE handle, UINT32 accessType,
                                          PVOID* ppUserData) {
    return ReferenceByHandleCore<kOmAccessExclusive>(OmInfo(pThis), HandleFromPtr(handle),
                                                     accessType, ppUserData);
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
    AddReference(oi, ObFromUser(pUserData));
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

    LockInstance(oi, kOmAccessShared);
    BlockHeader* found = nullptr;
    UINT32 slot = 0;
    for (PLIST_ENTRY link = oi->blockList.Flink; link != &oi->blockList && found == nullptr;
         link = link->Flink) {
        BlockHeader* bh = BlockFromLink(link);
        if (bh->blockId < blockId) continue;
        if (bh->blockId > blockId) {
            // The cursor's block is gone: continue with the next one.
            blockId = bh->blockId;
            index = 0;
        }
        for (UINT32 i = index; i < oi->objectsPerBlock; ++i) {
            Object* ob = ObSlot(oi, bh, i);
            UINT8 flags = ObFlags(ob);
            if ((flags & OBJECT_IN_USE) == 0 || (flags & OBJECT_DELETED) != 0 || ObBeingFreed(ob)) {
                continue;
            }
            if (pCompareRoutine != nullptr && pCompareRoutine(ObUser(ob), pCompareData) != 1) {
                continue;
            }
            found = bh;
            slot = i;
            break;
        }
        index = 0;
    }
    if (found == nullptr) {
        UnlockInstance(oi);
        return KSPL_OM_STATUS_NO_MORE_OBJECTS;
    }

    UINT32 next;
    if (slot + 1 < oi->objectsPerBlock) {
        next = MakeHandle(found->blockId, 0, slot + 2);
    } else if (found->blockLink.Flink != &oi->blockList) {
        next = MakeHandle(BlockFromLink(found->blockLink.Flink)->blockId, 0, 1);
    } else {
        next = MakeHandle(static_cast<UINT16>(found->blockId + 1), 0, 1);
    }
    Object* ob = ObSlot(oi, found, slot);
    AddReference(oi, ob);
    *pscanHandle = PtrFromHandle(next);
    *ppUserData = ObUser(ob);
    UnlockInstance(oi);

    if (accessType != kOmAccessNone) {
        WaitObjectReady(oi, ob);
        LockObject(oi, ob, accessType);
    }
    return 0;
}

KSSTATUS ObjectFind(void* pThis, PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                    UINT32 CompareIndex, UINT32 accessType, PVOID* ppUserData) {
    return FindCore<kOmAccessShared>(OmInfo(pThis), pCompareData, pCompareRoutine, CompareIndex,
                                     accessType, ppUserData);
}

KSSTATUS ObjectFindExclusive(void* pThis, PVOID pCompareData,
                             PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                             UINT32 accessType, PVOID* ppUserData) {
    return FindCore<kOmAccessExclusive>(OmInfo(pThis), pCompareData, pCompareRoutine,
                                        CompareIndex, accessType, ppUserData);
}

KSSTATUS ObjectOpen(void* pThis, PVOID pInitData, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                    PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                    UINT32 CompareIndex, UINT32 allocAccess, UINT32 openAccess,
                    PVOID* ppUserData, PUINT32 pOpenedMode) {
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi) || ppUserData == nullptr || CompareIndex >= oi->hashSize) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    *ppUserData = nullptr;
    LockInstance(oi, kOmAccessExclusive);
    Object* ob = nullptr;
    if (pCompareRoutine != nullptr) {
        ob = LookupChain(oi, CompareIndex, pCompareData, pCompareRoutine);
        if (ob != nullptr) AddReference(oi, ob);
    }
    for (;;) {
        if (ob == nullptr) {
            // The first preallocated object that no exclusive holder has
            // marked for deletion while waiting for the instance lock.
            PLIST_ENTRY link = oi->allocatedList.Flink;
            while (link != &oi->allocatedList &&
                   (ObFlags(ObFromLink(link)) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) != 0) {
                link = link->Flink;
            }
            if (link == &oi->allocatedList) {
                UnlockInstance(oi);
                return KSPL_OM_STATUS(KSPL_OM_CODE_NO_PREALLOCATED);
            }
            ob = ObFromLink(link);
            OmListRemove(oi, link);
            if (pInitRoutine != nullptr) {
                KSSTATUS status = pInitRoutine(ObUser(ob), pInitData);
                if (KS_IS_ERROR(status)) {
                    OmListInsertTail(oi, &oi->allocatedList, &ob->objectLink);
                    UnlockInstance(oi);
                    return status;
                }
            }
            OmListInsertTail(oi, &oi->pHashListArray[CompareIndex], &ob->objectLink);
            ++oi->statsInUse;
            --oi->statsPreallocated;
            ObStoreFlags(ob, static_cast<UINT8>((ObFlags(ob) & ~(OBJECT_FREE | OBJECT_PREALLOCATED |
                                                                 OBJECT_READY)) |
                                                OBJECT_IN_USE));
            OM_KSO(oi, KsoInterlockedExchange, &ob->instanceCount, 1u);
        }
        UnlockInstance(oi);
        switch (FirstOpenReport(oi, ob, allocAccess, openAccess, pOpenedMode)) {
            case Report::kDone:
                *ppUserData = ObUser(ob);
                return 0;
            case Report::kStoreFreed:
                return KSPL_OM_STATUS(KSPL_OM_CODE_STORE_FREED);
            case Report::kRetry:
                ob = nullptr;
                break;
        }
    }
}

KSSTATUS ObjectGetStats(void* pThis, PUINT32 pObjectsAllocated, PUINT32 pObjectsInUse,
                        PUINT32 pObjectsPreallocated) {
    ObjectInfo* oi = OmInfo(pThis);
    if (!OiInitialized(oi)) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    LockInstance(oi, kOmAccessShared);
    if (pObjectsAllocated != nullptr) *pObjectsAllocated = oi->statsAllocated;
    if (pObjectsInUse != nullptr) *pObjectsInUse = oi->statsInUse;
    if (pObjectsPreallocated != nullptr) *pObjectsPreallocated = oi->statsPreallocated;
    UnlockInstance(oi);
    return 0;
}
