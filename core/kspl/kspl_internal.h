// kspl_internal.h - what every module of the library shares: the instance
// record, resource signatures, status building, atomics and lock guards.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "kspl.h"
#include "orlm.h"

// Invariants stated beside the code are also checked in every build but the
// release one (KSPL_DCHECKS): a broken invariant stops the process at once,
// where the damage is still visible, instead of corrupting a list later.
[[noreturn]] void KsDcheckFailed(const char* cond, const char* file, int line, const char* func);
#if defined(KSPL_DCHECKS) && KSPL_DCHECKS
#define KS_DCHECK(cond) \
    ((cond) ? static_cast<void>(0) : KsDcheckFailed(#cond, __FILE__, __LINE__, __func__))
#else
#define KS_DCHECK(cond) static_cast<void>(sizeof(static_cast<bool>(cond)))
#endif

// The record that embeds `member` at `ptr` (lists link records through an
// embedded LIST_ENTRY). Type must be standard-layout for offsetof.
#define KsContainerOf(ptr, Type, member) \
    reinterpret_cast<Type*>(reinterpret_cast<char*>(ptr) - offsetof(Type, member))

// Four ASCII characters read as a little-endian 32-bit value.
constexpr UINT32 KsSignature(const char (&s)[5]) {
    return static_cast<UINT32>(static_cast<unsigned char>(s[0])) |
           static_cast<UINT32>(static_cast<unsigned char>(s[1])) << 8 |
           static_cast<UINT32>(static_cast<unsigned char>(s[2])) << 16 |
           static_cast<UINT32>(static_cast<unsigned char>(s[3])) << 24;
}

constexpr UINT32 kSigInstance = KsSignature("KSPL");
constexpr UINT32 kSigKey = KsSignature("KEY ");
constexpr UINT32 kSigMemory = KsSignature("MEM ");
constexpr UINT32 kSigMemoryTrailer = KsSignature("MEME");
constexpr UINT32 kSigMutex = KsSignature("MUTX");
constexpr UINT32 kSigSpinLock = KsSignature("SPIN");
constexpr UINT32 kSigRwLock = KsSignature("LOCK");
constexpr UINT32 kSigEvent = KsSignature("EVNT");
constexpr UINT32 kSigThread = KsSignature("THRD");
constexpr UINT32 kSigTimer = KsSignature("TIMR");
constexpr UINT32 kSigWorkItem = KsSignature("WORK");
static_assert(kSigInstance == 0x4C50534Bu && kSigMemory == 0x204D454Du &&
              kSigMemoryTrailer == 0x454D454Du && kSigKey == 0x2059454Bu &&
              kSigMutex == 0x5854554Du && kSigSpinLock == 0x4E495053u &&
              kSigRwLock == 0x4B434F4Cu && kSigEvent == 0x544E5645u &&
              kSigThread == 0x44524854u && kSigTimer == 0x524D4954u &&
              kSigWorkItem == 0x4B524F57u,
              "resource signatures");

// Common header of every IKspl resource record except threads.
struct KsoHandleHeader {
    LIST_ENTRY Link;
    LIST_ENTRY Link2;
    UINT32 Signature;
};

// One IKspl instance. Field order is fixed; the first two fields are what an
// IKspl pointer shows to callers.
//
// ProtectionMutex guards MemoryPagedList and the paged counters;
// ProtectionSpinLock guards MemoryNonPagedList and the non-paged counters.
// The two are never held together. The InUse/Total counters are also read
// without a lock by the statistics, so every change to them is atomic.
struct KsplObjInfo {
    const IKsplVtbl* lpVtbl;
    UINT32 cReference;
    CHAR ModuleName[32];
    LIST_ENTRY Link;  // on InterfaceList, guarded by InterfaceMutex
    LIST_ENTRY Link2;
    UINT32 Signature;
    pthread_mutex_t ProtectionMutex;
    pthread_mutex_t ProtectionSpinLock;
    LIST_ENTRY EventList;
    LIST_ENTRY KeyList;
    LIST_ENTRY LockList;
    LIST_ENTRY MemoryNonPagedList;
    LIST_ENTRY MemoryPagedList;
    LIST_ENTRY MutexList;
    LIST_ENTRY SpinLockList;
    LIST_ENTRY TimerList;
    LIST_ENTRY WorkItemList;
    UINT32 EventInUse;
    UINT32 KeyInUse;
    UINT32 LockInUse;
    UINT32 MemoryNonPagedTotalAllocated;
    UINT32 MemoryNonPagedInUse;
    UINT32 MemoryPagedTotalAllocated;
    UINT32 MemoryPagedInUse;
    UINT32 MutexInUse;
    UINT32 SpinLockInUse;
    UINT32 ThreadInUse;
    UINT32 TimerInUse;
    UINT32 WorkItemInUse;
};
static_assert(offsetof(KsplObjInfo, cReference) == sizeof(void*), "count follows the table");

inline KsplObjInfo* KsplInfo(IKspl* p) { return reinterpret_cast<KsplObjInfo*>(p); }

// The instance check of every operation that validates its instance.
inline bool KsplValidInstance(IKspl* p) {
    return p != nullptr && KsplInfo(p)->Signature == kSigInstance;
}

// Signature check of a resource handle; the read is deliberately unlocked
// (the caller owns the handle).
inline bool KsplHandleIs(HANDLE h, UINT32 signature) {
    return h != nullptr && static_cast<KsoHandleHeader*>(h)->Signature == signature;
}

// Atomic read-modify-write on plain 32-bit fields of C records; every one
// is a full barrier.
inline UINT32 KsAtomicAdd(UINT32* p, UINT32 delta) {
    return __atomic_add_fetch(p, delta, __ATOMIC_SEQ_CST);
}
inline UINT32 KsAtomicSub(UINT32* p, UINT32 delta) {
    return __atomic_sub_fetch(p, delta, __ATOMIC_SEQ_CST);
}
inline INT32 KsAtomicAdd(INT32* p, INT32 delta) {
    return __atomic_add_fetch(p, delta, __ATOMIC_SEQ_CST);
}
// Update of a counter whose writers are serialised by a lock while readers
// read it without one: a plain (not locked) read-modify-write made of
// atomic accesses.
inline void KsCounterAdd(UINT32* p, UINT32 delta) {
    __atomic_store_n(p, __atomic_load_n(p, __ATOMIC_RELAXED) + delta, __ATOMIC_RELAXED);
}
// Reads of those counters take the same order as the writes (sequentially
// consistent): a count read after a change this thread saw is never older.
// On x86 this costs a plain load.
inline UINT32 KsAtomicLoad(const UINT32* p) { return __atomic_load_n(p, __ATOMIC_SEQ_CST); }
inline INT32 KsAtomicLoad(const INT32* p) { return __atomic_load_n(p, __ATOMIC_SEQ_CST); }

// Failures are built where they are detected. Each source file names its
// unit once with KSPL_SOURCE_UNIT; the reporting function is the enclosing
// function's own name unless given explicitly.
#define KSPL_SOURCE_UNIT(name) [[maybe_unused]] static constexpr char kKsplUnit[] = name
#define KSPL_STATUS_AS(facility, code, function)                                       \
    KsStatusBuild_log(3, static_cast<int>(facility), static_cast<int>(code),          \
                      const_cast<char*>(kKsplUnit), __LINE__, const_cast<char*>(function))
#define KSPL_STATUS(code) KSPL_STATUS_AS(KSPL_FACILITY, (code), __func__)
#define KSPL_OM_STATUS(code) KSPL_STATUS_AS(KSPL_OM_FACILITY, (code), __func__)

// Scoped pthread mutex ownership; not copyable. release() gives the mutex
// back early, for the path where what follows frees the record holding it.
class KsMutexGuard {
public:
    explicit KsMutexGuard(pthread_mutex_t* m) : m_(m) { pthread_mutex_lock(m_); }
    ~KsMutexGuard() {
        if (m_ != nullptr) pthread_mutex_unlock(m_);
    }
    void release() {
        KS_DCHECK(m_ != nullptr);
        pthread_mutex_unlock(m_);
        m_ = nullptr;
    }
    KsMutexGuard(const KsMutexGuard&) = delete;
    KsMutexGuard& operator=(const KsMutexGuard&) = delete;

private:
    pthread_mutex_t* m_;
};

// For KS_DCHECK of a "lock held" rule: true when the mutex is locked by some
// thread. Cannot tell which one, so it catches a caller that forgot the lock
// (the common fault), not one that relies on another thread's hold.
inline bool KsMutexIsLocked(pthread_mutex_t* m) {
    if (pthread_mutex_trylock(m) != 0) return true;
    pthread_mutex_unlock(m);
    return false;
}

// Counter decrement that must never pass below zero (a double release or a
// destroy of something never counted).
inline UINT32 KsAtomicSubChecked(UINT32* p, UINT32 delta) {
    UINT32 before = __atomic_fetch_sub(p, delta, __ATOMIC_SEQ_CST);
    KS_DCHECK(before >= delta);
    return before - delta;
}

// ---------------------------------------------------------------------------
// Shared by the instance code and the object-manager class factories.

// The static class-factory record of both class factories.
struct CFInstance {
    const ORLM_IClassFactoryVtbl* lpVtbl;
    UINT32 cReference;
    UINT32 cLock;
};

inline bool KsGuidEqual(const GUID* a, const GUID* b) {
    return a != nullptr && b != nullptr && __builtin_memcmp(a, b, sizeof(GUID)) == 0;
}

// The library's single path to the system log (dbg.cpp); every diagnostic
// of every module goes through these.
void KsplLog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void KsplLogV(int priority, const char* format, va_list args);
