// objlookup_int.h - the lookups of a store (by handle, by key) and the
// dropping of a reference, as templates over the way they take the
// instance lock.
//
// The store instantiates the shared forms (objint.cpp, objdel.cpp). The
// object benchmark instantiates the exclusive forms as well, to measure in
// one run what the shared lock gains; they are built into the benchmark
// alone, never into the library.
//
// The includer defines its source unit (KSPL_SOURCE_UNIT) before it
// includes this header: statuses built here carry it.
#pragma once

#include "object_int.h"

constexpr KSSTATUS kOmStoreFreedStatus =
    KS_MAKE_STATUS(3, KSPL_OM_FACILITY, KSPL_OM_CODE_STORE_FREED);

inline void OmAddReference(ObjectInfo* oi, Object* ob) {
    OM_KSO(oi, KsoInterlockedIncrement, &ob->instanceCount);
}

// Releases the lock a caller says it holds. A read-write lock is only ever
// taken for access types 1 and 2; a mutex for any non-zero type.
inline void ReleaseCallerLock(ObjectInfo* oi, Object* ob, UINT32 accessType) {
    if (accessType == kOmAccessNone) return;
    if (oi->accessLevel == kOmLevelMutex || accessType == kOmAccessExclusive ||
        accessType == kOmAccessShared) {
        UnlockObject(oi, ob);
    }
}

// The first object of chain `index` that the compare routine accepts (any
// object without one). REQUIRES: instance lock held (either mode).
inline Object* LookupChain(ObjectInfo* oi, UINT32 index, PVOID pCompareData,
                           PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine) {
    KS_DCHECK(index < oi->hashSize);
    PLIST_ENTRY head = &oi->pHashListArray[index];
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        Object* ob = ObFromLink(link);
        if (pCompareRoutine == nullptr || pCompareRoutine(ObUser(ob), pCompareData) == 1) return ob;
    }
    return nullptr;
}

// kUnlockedDrop: whether a reference that cannot be the last one of a
// marked object is dropped without the exclusive instance lock (the store
// always does; the locked-only form is the benchmark's comparison).
template <bool kUnlockedDrop>
KSSTATUS DereferenceCore(ObjectInfo* oi, PVOID pUserData, UINT32 accessType) {
    static constexpr char kFn[] = "ObjectDereference";
    if (!OiInitialized(oi) || pUserData == nullptr) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, kFn);
    }
    Object* ob = ObFromUser(pUserData);
    ReleaseCallerLock(oi, ob, accessType);
    if (kUnlockedDrop && DropReferenceUnlocked(oi, ob)) return 0;
    InstanceGuard instance(oi, kOmAccessExclusive);
    // On kOmStoreFreedStatus the record and its lock are gone.
    if (InternalObjectDereference(oi, ob) == kOmStoreFreedStatus) instance.release();
    return 0;
}

// Drops the reference a lookup took, with the object lock it took (when it
// took one). Entered without the instance lock.
template <bool kUnlockedDrop>
void DropLookup(ObjectInfo* oi, Object* ob, BOOLEAN held, UINT32 accessType) {
    DereferenceCore<kUnlockedDrop>(oi, ObUser(ob), held ? accessType : kOmAccessNone);
}

// kLookupLock: the mode the instance lock is taken in for the lookup.
template <UINT32 kLookupLock>
KSSTATUS ReferenceByHandleCore(ObjectInfo* oi, UINT32 handle, UINT32 accessType,
                               PVOID* ppUserData) {
    static constexpr char kFn[] = "ObjectReferenceByHandle";
    constexpr bool kUnlockedDrop = kLookupLock == kOmAccessShared;
    if (!OiInitialized(oi) || ppUserData == nullptr) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, kFn);
    }
    *ppUserData = nullptr;
    const UINT32 indexByte = HandleIndexByte(handle);
    if (indexByte == 0 || indexByte > oi->objectsPerBlock) return KSPL_OM_STATUS_INVALID_HANDLE;

    Object* ob;
    {
        InstanceGuard instance(oi, kLookupLock);
        BlockHeader* bh = BlockById(oi, HandleBlockId(handle));
        ob = bh != nullptr ? ObSlot(oi, bh, indexByte - 1) : nullptr;
        // The full word must match (a freed slot has moved on to its next
        // generation); a free, deleted, or recycling slot is refused.
        if (ob == nullptr || ObHandle(ob) != handle ||
            (ObFlags(ob) & (OBJECT_FREE | OBJECT_DELETED)) != 0 || ObBeingFreed(ob)) {
            return KSPL_OM_STATUS_INVALID_HANDLE;
        }
        OmAddReference(oi, ob);
    }
    if (accessType != kOmAccessNone) {
        // On success the object's lock stays with the caller.
        BOOLEAN held = LockObject(oi, ob, accessType);
        if ((ObFlags(ob) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) != 0) {
            DropLookup<kUnlockedDrop>(oi, ob, held, accessType);
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
    constexpr bool kUnlockedDrop = kLookupLock == kOmAccessShared;
    if (!OiInitialized(oi) || ppUserData == nullptr || CompareIndex >= oi->hashSize) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, kFn);
    }
    *ppUserData = nullptr;
    Object* ob;
    {
        InstanceGuard instance(oi, kLookupLock);
        ob = LookupChain(oi, CompareIndex, pCompareData, pCompareRoutine);
        if (ob == nullptr) return KSPL_OM_STATUS_NOT_FOUND;
        OmAddReference(oi, ob);
    }
    if (accessType != kOmAccessNone) {
        WaitObjectReady(oi, ob);
        BOOLEAN held = LockObject(oi, ob, accessType);
        if ((ObFlags(ob) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) != 0) {
            DropLookup<kUnlockedDrop>(oi, ob, held, accessType);
            return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_NOT_FOUND, kFn);
        }
    }
    *ppUserData = ObUser(ob);
    return 0;
}
