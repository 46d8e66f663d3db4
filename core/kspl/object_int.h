// object_int.h - the object manager's records and internal routines.
//
// A store (ObjectInfo) keeps fixed-size objects in blocks of slots. Every
// slot starts with an Object header; the caller's user area follows it. A
// client only ever holds user-area pointers; the header sits directly in
// front of them, and through blockStart and the block's oi the owning store
// is reachable from any user pointer.
//
// Lock order: the instance lock (ObjectInfo.protect) before any object lock
// (Object.protect). No routine takes the instance lock while it holds an
// object lock; callers that may hold one (delete, deallocate, dereference
// with an access type) release it first.
//
// The instance lock guards blockList and the block index, every free list,
// the lookup chains, allocatedList, objDeleteList, objDeleteActive and the
// statistics. Changes take it exclusively; lookups (by key, by handle,
// enumeration) and reads of the statistics take it shared. Routines take
// it, and object locks, through InstanceGuard and ObjectGuard; the few
// manual pairs left are FreeObject's (it lets go around the caller's
// routine) and InstanceDeallocate's (the lock dies with the record).
// instanceCount changes only atomically. A decrement that could be the
// decision to free (the last reference of a marked object) only ever
// happens under the instance lock held exclusively, so no holder of the
// lock in either mode sees the count of a marked object drop to zero.
// DereferenceObject drops other references with the lock held shared, or
// without it while more than one remains (objdel.cpp). Increments happen
// under the lock in either mode, or without it by a caller that already
// holds a reference. The flag bytes are changed
// with atomic read-modify-write operations, because the first-open report
// and a delete by an exclusive holder change them under the object lock
// alone.
#pragma once

#include "kspl_internal.h"

// A set of 256 members (block ids of one group, or groups), as four words,
// with the scans the block index needs.
struct IdBits {
    UINT64 w[4];
    void Set(UINT32 i) { w[i >> 6] |= UINT64{1} << (i & 63); }
    void Clear(UINT32 i) { w[i >> 6] &= ~(UINT64{1} << (i & 63)); }
    bool Test(UINT32 i) const { return (w[i >> 6] >> (i & 63) & 1) != 0; }
    bool Any() const { return (w[0] | w[1] | w[2] | w[3]) != 0; }
    // The first member at or above `from`, or 256 when there is none.
    UINT32 FirstFrom(UINT32 from) const { return Scan(from, 0); }
    // The first non-member at or above `from`, or 256.
    UINT32 FirstAbsentFrom(UINT32 from) const { return Scan(from, ~UINT64{0}); }

private:
    UINT32 Scan(UINT32 from, UINT64 flip) const {
        for (UINT32 k = from >> 6; k < 4; ++k) {
            UINT64 word = w[k] ^ flip;
            if (k == from >> 6) word &= ~UINT64{0} << (from & 63);
            if (word != 0) return k * 64 + static_cast<UINT32>(__builtin_ctzll(word));
        }
        return 256;
    }
};

struct BlockHeader;

// The blocks of ids g*256 .. g*256+255 (group g).
struct BlockIndexLeaf {
    BlockHeader* block[256];  // by the id's low byte; null when absent
    IdBits present;           // ids with a block
    IdBits hasFree;           // blocks whose freeObjectCount is not zero
    UINT32 count;             // blocks in the group
};

// Block id -> block in two levels, kept with blockList. With the bitmaps
// the free-slot search (lowest block with a free slot, else the smallest
// unused id), lookups by handle and the enumeration cursor cost a few word
// scans whatever the number of blocks, instead of a walk of blockList.
// Group 0 (ids 1..255) is part of the record, so a store of fewer than 256
// blocks makes no allocation for its index; other groups are allocated from
// the store's pool with their first block and freed with their last.
// Guarded like blockList: changed under the instance lock held exclusively,
// read under it in either mode.
struct BlockIndex {
    BlockIndexLeaf* leaf[256];  // leaf[0] == &first once initialised
    IdBits nonEmpty;            // groups holding a block
    IdBits full;                // groups with every id in use (1..255 for group 0)
    IdBits hasFree;             // groups holding a block with a free slot
    BlockIndexLeaf first;
};

// The pair an object-manager lock is kept in: the lock handle (null when
// none) and the state a spin-lock acquire would hand to its release.
struct ProtectToken {
    HANDLE handle;
    KSSPIN_STATE spinState;
};
using pProtectToken = ProtectToken*;

// Instance record; it is also the IOM / IOM_2 interface pointer.
struct ObjectInfo {
    const void* lpVtbl;  // &vtObject or &vtObject_2
    UINT32 cReference;   // interface references, atomic
    IKspl* pIKspl;       // the library's global instance, set by Initialize
    UINT32 objectSize;   // slot stride: header + caller's size (rounded up)
    UINT32 objectsPerBlock;
    POOL_TYPE poolType;
    UINT32 accessLevel;  // kOmLevelRwLock or kOmLevelMutex once initialised
    UINT32 hashSize;
    PKSO_OBJECT_ROUTINE pfDelete;
    PKSO_OBJECT_ROUTINE pfDeallocate;
    LIST_ENTRY blockList;  // ascending blockId
    PLIST_ENTRY pHashListArray;
    LIST_ENTRY allocatedList;  // preallocated objects
    UINT32 flags;              // OI_*, read and written atomically
    UINT32 statsAllocated;
    UINT32 statsInUse;
    UINT32 statsPreallocated;
    ProtectToken protect;  // the instance lock
    BOOLEAN objDeleteActive;
    LIST_ENTRY objDeleteList;
    HANDLE objDeleteWorkHandle;
    // Fields of this implementation, after the ones every store shares.
    // The thread that holds the instance lock exclusively (checked builds
    // only; null otherwise): lets the bookkeeping assert its lock.
    const void* exclusiveOwner;
    BlockIndex index;
};

struct BlockHeader {
    LIST_ENTRY blockLink;  // on ObjectInfo.blockList
    LIST_ENTRY freeList;   // free slots of this block
    UINT16 freeObjectCount;
    UINT16 blockId;  // 1..65535, the low half of every handle of the block
    ObjectInfo* oi;
};

// Slot header. handleId, handleInstance and handleIndex form the object's
// 32-bit handle (little-endian), read and written as one word.
struct Object {
    LIST_ENTRY objectLink;  // on at most one list at a time
    union {
        struct {
            UINT16 handleId;
            UINT8 handleInstance;  // generation of the slot
            UINT8 handleIndex;     // slot index + 1
        };
        UINT32 handle;
    };
    BlockHeader* blockStart;
    ProtectToken protect;  // the object's own lock
    UINT8 flags;           // OBJECT_*, atomic
    UINT32 instanceCount;  // references, atomic
};

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "handle word layout");
static_assert(offsetof(Object, handle) == offsetof(Object, handleId) &&
                  offsetof(Object, handleInstance) == offsetof(Object, handleId) + 2 &&
                  offsetof(Object, handleIndex) == offsetof(Object, handleId) + 3,
              "handle fields form one word");
static_assert(offsetof(Object, handle) % 4 == 0, "the handle word is aligned");
static_assert(sizeof(Object) % 8 == 0 && sizeof(BlockHeader) % 8 == 0,
              "user areas stay 8-byte aligned");
static_assert(offsetof(ObjectInfo, cReference) == sizeof(void*), "count follows the table");

// Instance flags.
constexpr UINT32 OI_INITIALIZED = 0x00000001u;
constexpr UINT32 OI_RELEASED = 0x00000002u;
constexpr UINT32 OI_DEFERRED_DELETE = 0x00000004u;
constexpr UINT32 OI_DEALLOCATED = 0x80000000u;

// Object flags.
constexpr UINT8 OBJECT_IN_USE = 0x01;
constexpr UINT8 OBJECT_FREE = 0x02;
constexpr UINT8 OBJECT_DELETED = 0x04;
constexpr UINT8 OBJECT_PREALLOCATED = 0x08;
constexpr UINT8 OBJECT_DEALLOCATED = 0x10;
constexpr UINT8 OBJECT_READY = 0x40;
constexpr UINT8 OBJECT_PERMANENT = 0x80;

// Stored access levels (lock kinds).
constexpr UINT32 kOmLevelRwLock = 0;
constexpr UINT32 kOmLevelMutex = 3;
constexpr UINT32 kOmDeferredMask = 0xF0000000u;

// Access types.
constexpr UINT32 kOmAccessNone = 0;
constexpr UINT32 kOmAccessExclusive = 1;
constexpr UINT32 kOmAccessShared = 2;

// Calls a service of the store's IKspl instance.
#define OM_KSO(oi, fn, ...) ((oi)->pIKspl->lpVtbl->fn((oi)->pIKspl __VA_OPT__(, ) __VA_ARGS__))

// List operations of the store's IKspl instance.
inline void OmListInit(ObjectInfo* oi, PLIST_ENTRY head) { OM_KSO(oi, KsoInitializeListHead, head); }
inline bool OmListEmpty(ObjectInfo* oi, PLIST_ENTRY head) {
    return OM_KSO(oi, KsoIsListEmpty, head) != FALSE;
}
inline void OmListRemove(ObjectInfo* oi, PLIST_ENTRY entry) { OM_KSO(oi, KsoRemoveEntryList, entry); }
inline void OmListInsertTail(ObjectInfo* oi, PLIST_ENTRY head, PLIST_ENTRY entry) {
    OM_KSO(oi, KsoInsertTailList, head, entry);
}
inline void OmListInsertBefore(ObjectInfo* oi, PLIST_ENTRY head, PLIST_ENTRY entry,
                               PLIST_ENTRY before) {
    OM_KSO(oi, KsoInsertEntryBefore, head, entry, before);
}

// --- small accessors ---------------------------------------------------

// A slot is on at most one list at a time: every list removal leaves the
// marker in its links, and every insertion of a slot checks for it.
inline bool ObOffLists(const LIST_ENTRY* link) {
    return link->Flink == reinterpret_cast<PLIST_ENTRY>(KS_LIST_REMOVED_MARKER) &&
           link->Blink == reinterpret_cast<PLIST_ENTRY>(KS_LIST_REMOVED_MARKER);
}
inline void OmListInsertSlot(ObjectInfo* oi, PLIST_ENTRY head, PLIST_ENTRY slotLink) {
    KS_DCHECK(ObOffLists(slotLink));
    OmListInsertTail(oi, head, slotLink);
}

inline ObjectInfo* OmInfo(void* pThis) { return static_cast<ObjectInfo*>(pThis); }
inline UINT32 OiFlags(const ObjectInfo* oi) { return __atomic_load_n(&oi->flags, __ATOMIC_ACQUIRE); }
inline void OiSetFlags(ObjectInfo* oi, UINT32 bits) {
    __atomic_or_fetch(&oi->flags, bits, __ATOMIC_ACQ_REL);
}
inline void OiClearFlags(ObjectInfo* oi, UINT32 bits) {
    __atomic_and_fetch(&oi->flags, ~bits, __ATOMIC_ACQ_REL);
}
inline bool OiInitialized(const ObjectInfo* oi) {
    return oi != nullptr && (OiFlags(oi) & OI_INITIALIZED) != 0;
}

inline Object* ObFromUser(PVOID pUserData) {
    return reinterpret_cast<Object*>(static_cast<unsigned char*>(pUserData) - sizeof(Object));
}
inline PVOID ObUser(Object* ob) { return reinterpret_cast<unsigned char*>(ob) + sizeof(Object); }
inline Object* ObFromLink(PLIST_ENTRY link) { return reinterpret_cast<Object*>(link); }
inline BlockHeader* BlockFromLink(PLIST_ENTRY link) { return reinterpret_cast<BlockHeader*>(link); }
inline Object* ObSlot(const ObjectInfo* oi, BlockHeader* bh, UINT32 k) {
    return reinterpret_cast<Object*>(reinterpret_cast<unsigned char*>(bh) + sizeof(BlockHeader) +
                                     static_cast<size_t>(k) * oi->objectSize);
}

inline UINT8 ObFlags(const Object* ob) { return __atomic_load_n(&ob->flags, __ATOMIC_ACQUIRE); }
inline void ObSetFlags(Object* ob, UINT8 bits) { __atomic_or_fetch(&ob->flags, bits, __ATOMIC_ACQ_REL); }
inline void ObClearFlags(Object* ob, UINT8 bits) {
    __atomic_and_fetch(&ob->flags, static_cast<UINT8>(~bits), __ATOMIC_ACQ_REL);
}
inline void ObStoreFlags(Object* ob, UINT8 value) { __atomic_store_n(&ob->flags, value, __ATOMIC_RELEASE); }
inline UINT32 ObHandle(const Object* ob) { return __atomic_load_n(&ob->handle, __ATOMIC_ACQUIRE); }
inline void ObStoreHandle(Object* ob, UINT32 h) { __atomic_store_n(&ob->handle, h, __ATOMIC_RELEASE); }
inline UINT32 ObCount(const Object* ob) {
    return __atomic_load_n(&ob->instanceCount, __ATOMIC_ACQUIRE);
}

// An object whose last reference is gone while it carries a deletion mark is
// being freed (or waits on objDeleteList): no lookup may hand it out again.
// REQUIRES: the instance lock is held (either mode).
inline bool ObBeingFreed(const Object* ob) {
    return (ObFlags(ob) & (OBJECT_DELETED | OBJECT_DEALLOCATED)) != 0 && ObCount(ob) == 0;
}

constexpr UINT32 HandleBlockId(UINT32 h) { return h & 0xFFFFu; }
constexpr UINT32 HandleGeneration(UINT32 h) { return (h >> 16) & 0xFFu; }
constexpr UINT32 HandleIndexByte(UINT32 h) { return h >> 24; }
constexpr UINT32 MakeHandle(UINT32 blockId, UINT32 generation, UINT32 indexByte) {
    return (blockId & 0xFFFFu) | (generation & 0xFFu) << 16 | (indexByte & 0xFFu) << 24;
}
inline UINT32 HandleFromPtr(HANDLE h) { return static_cast<UINT32>(reinterpret_cast<uintptr_t>(h)); }
inline HANDLE PtrFromHandle(UINT32 h) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(h)); }
// Mask of version-2 handles: the store's IKspl pointer taken as a UINT32.
inline UINT32 HandleMask(const ObjectInfo* oi) {
    return static_cast<UINT32>(reinterpret_cast<uintptr_t>(oi->pIKspl));
}

// --- interface tables and reference counting (factory.cpp) -------------

extern const IOMVtbl vtObject;
extern const IOM_2Vtbl vtObject_2;

KSSTATUS ObjectQueryInterface(void* pThis, const GUID* pIId, void** ppInterface);
UINT32 ObjectAddRef(void* pThis);
UINT32 ObjectRelease(void* pThis);

// --- storage, locks and deferred deletion (object.cpp) -----------------

KSSTATUS ObjectInitialize(void* pThis, UINT32 objectSize, UINT16 objectsPerBlock,
                          UINT32 accessLevel, UINT32 hashSize, PKSO_OBJECT_ROUTINE pDeleteRoutine,
                          PKSO_OBJECT_ROUTINE pDeallocateRoutine,
                          PKSO_OBJECT_ROUTINE pDebugRoutine, UINT32 permBlocks);
KSSTATUS InternalInitialize(ObjectInfo* oi, UINT32 objectSize, UINT16 objectsPerBlock,
                            POOL_TYPE poolType, UINT32 accessLevel, UINT32 hashSize,
                            PKSO_OBJECT_ROUTINE pDeleteRoutine,
                            PKSO_OBJECT_ROUTINE pDeallocateRoutine,
                            PKSO_OBJECT_ROUTINE pDebugRoutine, UINT32 permBlocks);
KSSTATUS ObjectAllocate(void* pThis, PVOID* ppUserData);

BlockHeader* AllocBlock(ObjectInfo* oi, UINT16 blockId, BlockHeader* bhBefore, UINT8 flags);
// REQUIRES: instance lock held exclusively. TRUE when the record was freed
// (the lock went with it).
BOOLEAN FreeBlock(ObjectInfo* oi, BlockHeader* bh);

// --- the block index (object.cpp); REQUIRES: instance lock held ----------

// Null for id 0 and for ids without a block.
inline BlockHeader* BlockById(const ObjectInfo* oi, UINT32 blockId) {
    if (blockId == 0 || blockId > 0xFFFFu) return nullptr;
    const BlockIndexLeaf* leaf = oi->index.leaf[blockId >> 8];
    return leaf != nullptr ? leaf->block[blockId & 0xFFu] : nullptr;
}
// The block with the smallest id at or above `blockId`; null when none.
BlockHeader* BlockAtOrAfter(const ObjectInfo* oi, UINT32 blockId);
// The next block on blockList, null after the last.
inline BlockHeader* NextBlock(const ObjectInfo* oi, BlockHeader* bh) {
    return bh->blockLink.Flink != &oi->blockList
               ? reinterpret_cast<BlockHeader*>(bh->blockLink.Flink)
               : nullptr;
}
// A slot of `bh` was taken off its free list for good (created, opened by
// handle, preallocated) or came back to it. REQUIRES: exclusive.
void BlockSlotTaken(ObjectInfo* oi, BlockHeader* bh);
void BlockSlotReturned(ObjectInfo* oi, BlockHeader* bh);
// REQUIRES: instance lock held exclusively (or no lock made); frees the record.
void InstanceDeallocate(ObjectInfo* oi);
// Free-slot search. REQUIRES: instance lock held exclusively. Null when no
// block can be made.
Object* FindFreeSlot(ObjectInfo* oi);
// Takes a free slot off its free list and gives it a lock. REQUIRES:
// instance lock held exclusively. FALSE (slot back on the free list) when no
// lock could be made.
bool TakeFreeSlot(ObjectInfo* oi, Object* ob);
// Gives a taken slot back to its block's free list without freeing it.
void ReturnFreeSlot(ObjectInfo* oi, Object* ob);
// Makes a new object in free slot `ob`: takes it off its free list with a
// lock of its own, zeroes the user area and runs the init routine (when
// given). On failure (code 5 built for `function`, or the init routine's
// status) the slot is back on its free list as it was. REQUIRES: instance
// lock held exclusively.
KSSTATUS MakeObject(ObjectInfo* oi, Object* ob, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                    PVOID pInitData, const char* function);
KSSTATUS AllocObjectLock(ObjectInfo* oi, Object* ob);
void DestroyObjectLock(ObjectInfo* oi, Object* ob);

BOOLEAN InternalAcquire(ObjectInfo* oi, UINT32 accessLevel, pProtectToken pProtect,
                        UINT32 accessType);
void InternalRelease(ObjectInfo* oi, UINT32 accessLevel, pProtectToken pProtect);

// An address unique to the calling thread, for the owner checks.
inline const void* OmThreadTag() {
    static thread_local char tag;
    return &tag;
}
inline bool OmExclusive(const ObjectInfo* oi, UINT32 accessType) {
    return oi->accessLevel == kOmLevelMutex || accessType == kOmAccessExclusive;
}
// True when the calling thread holds the instance lock exclusively (always
// true in builds without checks, where the owner is not recorded).
inline bool OmHeldExclusive(const ObjectInfo* oi) {
#if defined(KSPL_DCHECKS) && KSPL_DCHECKS
    return __atomic_load_n(&oi->exclusiveOwner, __ATOMIC_RELAXED) == OmThreadTag();
#else
    (void)oi;
    return true;
#endif
}

inline void LockInstance(ObjectInfo* oi, UINT32 accessType) {
    InternalAcquire(oi, oi->accessLevel, &oi->protect, accessType);
#if defined(KSPL_DCHECKS) && KSPL_DCHECKS
    if (OmExclusive(oi, accessType)) {
        KS_DCHECK(__atomic_load_n(&oi->exclusiveOwner, __ATOMIC_RELAXED) == nullptr);
        __atomic_store_n(&oi->exclusiveOwner, OmThreadTag(), __ATOMIC_RELAXED);
    }
#endif
}
inline void UnlockInstance(ObjectInfo* oi) {
#if defined(KSPL_DCHECKS) && KSPL_DCHECKS
    if (__atomic_load_n(&oi->exclusiveOwner, __ATOMIC_RELAXED) == OmThreadTag()) {
        __atomic_store_n(&oi->exclusiveOwner, static_cast<const void*>(nullptr), __ATOMIC_RELAXED);
    }
#endif
    InternalRelease(oi, oi->accessLevel, &oi->protect);
}
inline BOOLEAN LockObject(ObjectInfo* oi, Object* ob, UINT32 accessType) {
    return InternalAcquire(oi, oi->accessLevel, &ob->protect, accessType);
}
inline void UnlockObject(ObjectInfo* oi, Object* ob) {
    InternalRelease(oi, oi->accessLevel, &ob->protect);
}

// The instance lock for a scope. unlock() and lock() let a routine drop it
// around a step that must run without it (a caller's routine, an object
// lock) and take it again; release() forgets it without unlocking, for the
// path on which freeing the last block freed the record and its lock.
class InstanceGuard {
public:
    InstanceGuard(ObjectInfo* oi, UINT32 accessType) : oi_(oi) { lock(accessType); }
    ~InstanceGuard() {
        if (held_) UnlockInstance(oi_);
    }
    InstanceGuard(const InstanceGuard&) = delete;
    InstanceGuard& operator=(const InstanceGuard&) = delete;

    void lock(UINT32 accessType) {
        KS_DCHECK(!held_);
        LockInstance(oi_, accessType);
        held_ = true;
    }
    void unlock() {
        KS_DCHECK(held_);
        held_ = false;
        UnlockInstance(oi_);
    }
    void release() {
        KS_DCHECK(held_);
        held_ = false;
    }

private:
    ObjectInfo* oi_;
    bool held_ = false;
};

// An object's lock for a scope, when the access type took one (level 0
// takes none for access type 0). release() hands it to the caller: the
// routine returns holding it.
class ObjectGuard {
public:
    ObjectGuard(ObjectInfo* oi, Object* ob, UINT32 accessType)
        : oi_(oi), ob_(ob), held_(LockObject(oi, ob, accessType) != FALSE) {}
    ~ObjectGuard() {
        if (held_) UnlockObject(oi_, ob_);
    }
    ObjectGuard(const ObjectGuard&) = delete;
    ObjectGuard& operator=(const ObjectGuard&) = delete;

    bool held() const { return held_; }
    void unlock() {
        if (held_) UnlockObject(oi_, ob_);
        held_ = false;
    }
    void release() { held_ = false; }

private:
    ObjectInfo* oi_;
    Object* ob_;
    bool held_;
};
KSSTATUS ObjectAcquireAccess(void* pThis, PVOID pUserData, UINT32 accessType);
KSSTATUS ObjectReleaseAccess(void* pThis, PVOID pUserData);

// Waits (yielding) until the object is ready for a lock request of a finder,
// or has been marked for deletion, in which case the caller finds the mark
// once it holds the lock.
void WaitObjectReady(ObjectInfo* oi, Object* ob);

// REQUIRES: instance lock held exclusively.
void ScheduleObjForDeletion(ObjectInfo* oi, Object* ob);
void ObjDeleteThread(HANDLE threadHandle, PVOID context);
void ObjDeleteWorker(HANDLE workHandle, PVOID context);

// Process-wide count of objects queued for deferred deletion.
extern UINT32 numScheduledDelObjects;

// --- creation, references, lookups (objint.cpp) ------------------------

KSSTATUS ObjectCreate(void* pThis, PVOID pInitData, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                      PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                      UINT32 CompareIndex, UINT32 createAccess, UINT32 openAccess,
                      PVOID* ppUserData, PUINT32 pOpenedMode);
KSSTATUS ObjectCreateByHandle(void* pThis, HANDLE handle, PVOID pInitData,
                              PKSO_OBJECT_INIT_ROUTINE pInitRoutine, UINT32 createAccess,
                              UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode);
KSSTATUS ObjectReferenceByHandle(void* pThis, HANDLE handle, UINT32 accessType,
                                 PVOID* ppUserData);
KSSTATUS ObjectReferenceByHandle2(void* pThis, HANDLE handle, UINT32 accessType,
                                  PVOID* ppUserData);
KSSTATUS ObjectGetHandle(void* pThis, PVOID pUserData, PHANDLE phandle);
KSSTATUS ObjectGetHandle2(void* pThis, PVOID pUserData, PHANDLE phandle);
KSSTATUS ObjectIncrement(void* pThis, PVOID pUserData);
KSSTATUS ObjectEnumerate(void* pThis, PHANDLE pscanHandle, PVOID pCompareData,
                         PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType,
                         PVOID* ppUserData);
KSSTATUS ObjectFind(void* pThis, PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                    UINT32 CompareIndex, UINT32 accessType, PVOID* ppUserData);
KSSTATUS ObjectOpen(void* pThis, PVOID pInitData, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                    PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                    UINT32 CompareIndex, UINT32 allocAccess, UINT32 openAccess,
                    PVOID* ppUserData, PUINT32 pOpenedMode);
KSSTATUS ObjectGetStats(void* pThis, PUINT32 pObjectsAllocated, PUINT32 pObjectsInUse,
                        PUINT32 pObjectsPreallocated);

// --- deletion, freeing, teardown (objdel.cpp) ---------------------------

KSSTATUS ObjectDelete(void* pThis, PVOID pUserData, UINT32 accessType);
KSSTATUS ObjectDeallocate(void* pThis, PVOID pUserData, UINT32 accessType);
KSSTATUS ObjectDereference(void* pThis, PVOID pUserData, UINT32 accessType);
KSSTATUS ObjectDecrement(void* pThis, PVOID pUserData);
// Drops a reference without the instance lock held exclusively when that
// cannot be the decision to free; false, with nothing changed, when the
// caller must take the locked path (objdel.cpp explains why it is safe).
bool DropReferenceUnlocked(ObjectInfo* oi, Object* ob);
// REQUIRES: instance lock held exclusively. Returns 4100 (built) when the
// record was freed, after which the lock is gone too.
KSSTATUS InternalObjectDereference(ObjectInfo* oi, Object* ob);
// REQUIRES: instance lock held exclusively; on FALSE it is held again on
// return, on TRUE the record (and lock) are gone.
BOOLEAN FreeObject(ObjectInfo* oi, Object* ob, BOOLEAN ignoreAccessLevel);
void InstanceRelease(ObjectInfo* oi);
