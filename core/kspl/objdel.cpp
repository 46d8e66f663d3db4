// objdel.cpp - dropping references, delete and deallocate, freeing an
// object (FreeObject) and the teardown of a store.
//
// An object is freed when it carries a deletion mark (OBJECT_DELETED or
// OBJECT_DEALLOCATED) and its last reference goes; the decision is always
// taken under the instance lock held exclusively. FreeObject releases the
// instance lock while it calls the caller's routine and destroys the
// object's lock: the object is unreachable by then (off every lookup list,
// marked, no reference), so nothing else touches it.
//
// A preallocated object (OBJECT_PREALLOCATED) sits on allocatedList exactly
// while it carries no deletion mark. Marking one takes it off the list at
// once, so a slot is never on two lists; it keeps OBJECT_PREALLOCATED, which
// tells FreeObject that it never counted in statsInUse.
#include "object_int.h"

KSPL_SOURCE_UNIT("objdel");

#include "objlookup_int.h"  // after the unit: its statuses carry it

namespace {

// Sets `mark` unless the object already carries a deletion mark; TRUE when
// this call set it.
bool MarkOnce(Object* ob, UINT8 mark) {
    UINT8 flags = ObFlags(ob);
    while ((flags & (OBJECT_DELETED | OBJECT_DEALLOCATED)) == 0) {
        if (__atomic_compare_exchange_n(&ob->flags, &flags, static_cast<UINT8>(flags | mark), false,
                                        __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
            return true;
        }
    }
    return false;
}

// Delete and deallocate differ only in the mark and the reporting name.
KSSTATUS DeleteCommon(ObjectInfo* oi, PVOID pUserData, UINT32 accessType, UINT8 mark,
                      const char* function) {
    if (!OiInitialized(oi) || pUserData == nullptr) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, function);
    }
    Object* ob = ObFromUser(pUserData);
    bool markedHere = false;
    if (accessType == kOmAccessExclusive) {
        // The caller holds the object exclusively: mark it now, so that no
        // one who gets the lock after the caller lets go sees it unmarked.
        markedHere = MarkOnce(ob, mark);
    }
    ReleaseCallerLock(oi, ob, accessType);
    InstanceGuard instance(oi, kOmAccessExclusive);
    {
        ObjectGuard object(oi, ob, kOmAccessExclusive);
        if (markedHere || (ObFlags(ob) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) == 0) {
            // Off allocatedList or its lookup chain: no lookup by key finds
            // it from here on.
            OmListRemove(oi, &ob->objectLink);
            if ((ObFlags(ob) & OBJECT_PREALLOCATED) != 0) {
                KS_DCHECK(oi->statsPreallocated != 0);
                --oi->statsPreallocated;
            }
            ObSetFlags(ob, mark);
        }
    }

    if (ObCount(ob) != 0 && OM_KSO(oi, KsoInterlockedDecrement, &ob->instanceCount) != 0) return 0;
    if (FreeObject(oi, ob, FALSE)) {
        instance.release();
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_STORE_FREED, function);
    }
    return 0;
}

}  // namespace

// Drops a reference without the instance lock held exclusively when that
// cannot be the decision to free; false, with nothing changed, when the
// caller must take the locked path (a marked object losing its last
// reference, or no reference to drop).
//
// - From two or more references: no lock. The count stays above zero, and
//   lookups under the shared lock never depend on a decrement being
//   locked: they refuse only an object with a mark and no reference.
// - From one reference on an object without a mark: under the instance
//   lock held shared, which keeps out every marking step taken under the
//   exclusive lock. A caller that marks under the object lock alone holds
//   a reference of its own until its decrement, which needs the exclusive
//   lock, so it cannot be at work while the count is one and ours. Lookups
//   running alongside may add a reference again; the object just stays,
//   findable, as after a locked dereference.
bool DropReferenceUnlocked(ObjectInfo* oi, Object* ob) {
    constexpr UINT8 kMarks = OBJECT_DELETED | OBJECT_DEALLOCATED;
    UINT32 count = ObCount(ob);
    while (count >= 2) {
        if (__atomic_compare_exchange_n(&ob->instanceCount, &count, count - 1, false,
                                        __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
            return true;
        }
    }
    if (count == 0 || (ObFlags(ob) & kMarks) != 0) return false;
    InstanceGuard instance(oi, kOmAccessShared);
    count = ObCount(ob);
    while (count != 0 && (ObFlags(ob) & kMarks) == 0) {
        if (__atomic_compare_exchange_n(&ob->instanceCount, &count, count - 1, false,
                                        __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
            return true;
        }
    }
    return false;
}

KSSTATUS ObjectDelete(void* pThis, PVOID pUserData, UINT32 accessType) {
    return DeleteCommon(OmInfo(pThis), pUserData, accessType, OBJECT_DELETED, "ObjectDelete");
}

KSSTATUS ObjectDeallocate(void* pThis, PVOID pUserData, UINT32 accessType) {
    return DeleteCommon(OmInfo(pThis), pUserData, accessType, OBJECT_DEALLOCATED,
                        "ObjectDeallocate");
}

KSSTATUS ObjectDereference(void* pThis, PVOID pUserData, UINT32 accessType) {
    return DereferenceCore<true>(OmInfo(pThis), pUserData, accessType);
}

KSSTATUS ObjectDecrement(void* pThis, PVOID pUserData) {
    return ObjectDereference(pThis, pUserData, kOmAccessNone);
}

KSSTATUS InternalObjectDereference(ObjectInfo* oi, Object* ob) {
    KS_DCHECK(OmHeldExclusive(oi));
    if (ObCount(ob) != 0 && OM_KSO(oi, KsoInterlockedDecrement, &ob->instanceCount) != 0) {
        return 0;
    }
    if ((ObFlags(ob) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) == 0) return 0;
    if (FreeObject(oi, ob, FALSE)) return KSPL_OM_STATUS(KSPL_OM_CODE_STORE_FREED);
    return 0;
}

BOOLEAN FreeObject(ObjectInfo* oi, Object* ob, BOOLEAN ignoreAccessLevel) {
    KS_DCHECK(OmHeldExclusive(oi));
    KS_DCHECK(ObOffLists(&ob->objectLink));
    const UINT8 flags = ObFlags(ob);
    const bool released = (OiFlags(oi) & OI_RELEASED) != 0;
    const bool countedInUse = (flags & OBJECT_PREALLOCATED) == 0;
    // A deallocated object goes back to allocatedList, unless the store is
    // being torn down: then nobody could open it again and it is destroyed.
    const bool recycle = (flags & OBJECT_DEALLOCATED) != 0 && !released;

    PKSO_OBJECT_ROUTINE routine = nullptr;
    if ((flags & OBJECT_IN_USE) != 0) {
        if (recycle) {
            routine = oi->pfDeallocate;
        } else if ((flags & OBJECT_DELETED) != 0) {
            routine = oi->pfDelete;
        } else if ((flags & OBJECT_DEALLOCATED) != 0) {
            routine = oi->pfDelete;  // deallocated after teardown: destroyed
        }
    }
    if (routine != nullptr && (OiFlags(oi) & OI_DEFERRED_DELETE) != 0 && !ignoreAccessLevel) {
        ScheduleObjForDeletion(oi, ob);
        return FALSE;
    }

    // The caller's routine runs, and the lock is destroyed, with no store
    // lock held.
    UnlockInstance(oi);
    if (routine != nullptr) routine(ObUser(ob));
    if (!recycle) DestroyObjectLock(oi, ob);
    LockInstance(oi, kOmAccessExclusive);

    if (countedInUse) {
        KS_DCHECK(oi->statsInUse != 0);
        --oi->statsInUse;
    }
    BlockHeader* bh = ob->blockStart;
    if (!recycle) {
        BlockSlotReturned(oi, bh);
        if (bh->freeObjectCount == oi->objectsPerBlock &&
            ((flags & OBJECT_PERMANENT) == 0 || (OiFlags(oi) & OI_RELEASED) != 0)) {
            return FreeBlock(oi, bh);
        }
    }
    UINT32 h = ObHandle(ob);
    ObStoreHandle(ob, MakeHandle(HandleBlockId(h), HandleGeneration(h) + 1, HandleIndexByte(h)));
    if (recycle) {
        ObStoreFlags(ob, static_cast<UINT8>((flags & ~(OBJECT_DELETED | OBJECT_DEALLOCATED)) |
                                            OBJECT_PREALLOCATED));
        OmListInsertSlot(oi, &oi->allocatedList, &ob->objectLink);
        ++oi->statsPreallocated;
        return FALSE;
    }
    ObStoreFlags(ob, static_cast<UINT8>((flags & ~(OBJECT_DELETED | OBJECT_DEALLOCATED |
                                                   OBJECT_IN_USE | OBJECT_PREALLOCATED)) |
                                        OBJECT_FREE));
    OmListInsertSlot(oi, &bh->freeList, &ob->objectLink);
    return FALSE;
}

void InstanceRelease(ObjectInfo* oi) {
    if ((OiFlags(oi) & OI_INITIALIZED) == 0) {
        // Never initialised (or a failed Initialize gave everything back).
        pIKspl->lpVtbl->KsoFreeMemory(pIKspl, oi);
        return;
    }
    if (oi->pHashListArray != nullptr) {
        // Every object gets a delete; the enumeration's reference is the one
        // the delete consumes, so objects still held by clients survive,
        // deleted, until those references go. Preallocated objects only
        // drop that reference here: they are destroyed below.
        HANDLE cursor = nullptr;
        PVOID user = nullptr;
        while (!KS_IS_ERROR(ObjectEnumerate(oi, &cursor, nullptr, nullptr, kOmAccessNone, &user))) {
            if ((ObFlags(ObFromUser(user)) & OBJECT_PREALLOCATED) != 0) {
                ObjectDereference(oi, user, kOmAccessNone);
            } else {
                ObjectDelete(oi, user, kOmAccessNone);
            }
        }
    }

    InstanceGuard instance(oi, kOmAccessExclusive);
    OiSetFlags(oi, OI_RELEASED);

    // Objects queued while no deletion thread could be started.
    if (!oi->objDeleteActive) {
        while (!OmListEmpty(oi, &oi->objDeleteList)) {
            PLIST_ENTRY link = oi->objDeleteList.Flink;
            OmListRemove(oi, link);
            OM_KSO(oi, KsoInterlockedDecrement, &numScheduledDelObjects);
            if (FreeObject(oi, ObFromLink(link), TRUE)) {
                instance.release();
                return;
            }
        }
    }

    while (!OmListEmpty(oi, &oi->allocatedList)) {
        PLIST_ENTRY link = oi->allocatedList.Flink;
        OmListRemove(oi, link);
        KS_DCHECK(oi->statsPreallocated != 0);
        --oi->statsPreallocated;
        Object* ob = ObFromLink(link);
        ObSetFlags(ob, OBJECT_DELETED);
        if (FreeObject(oi, ob, TRUE)) {
            instance.release();
            return;
        }
    }

    PLIST_ENTRY link = oi->blockList.Flink;
    while (link != &oi->blockList) {
        BlockHeader* bh = BlockFromLink(link);
        if (bh->freeObjectCount == oi->objectsPerBlock) {
            if (FreeBlock(oi, bh)) {
                instance.release();
                return;
            }
            link = oi->blockList.Flink;
        } else {
            link = link->Flink;
        }
    }

    // Blocks with live or queued objects remain: the release of the last of
    // them frees the record.
    if (oi->statsAllocated != 0) return;
    instance.release();  // InstanceDeallocate lets go of the lock and destroys it
    InstanceDeallocate(oi);
}
