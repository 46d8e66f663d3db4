// memory.cpp - tracked memory. Each block is [KSO_MEM_HANDLE][caller's
// bytes]['MEME'], linked on its owner's list for its pool and counted in the
// owner's counters.
//
// Locks: each pool's list and counters are guarded by a pool lock, a
// one-word spin lock from a fixed table of stripes chosen by the pool's list
// head (an instance's two pools never share one). The lock is a leaf: its
// holder takes no other lock and calls nothing that could, so the order
// against the instance's protection mutexes and the registry does not
// matter. fork() takes every stripe first (handler below) and lets go on both
// sides, so a child never inherits a list halfway through a change.
//
// Why a spin lock and not the instance's pthread mutexes: a critical section
// here is a list splice and two counter stores, a few nanoseconds, while a
// pthread mutex round trip costs two locked instructions and two calls into
// the C library. The spin lock costs one exchange to take and a plain store
// to give back. The stripes live outside the instance so that the giving
// back never touches a record that the caller may free the moment its
// counters show the block gone.
#include "memory_int.h"

#include <pthread.h>
#include <sched.h>
#include <syslog.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "linklist_int.h"
#include "sysalloc_int.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define KSPL_HAVE_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#define KSPL_HAVE_ASAN 1
#endif
#endif

KSPL_SOURCE_UNIT("memory");

namespace {

// One pool lock on its own cache line: 0 free, 1 held.
struct alignas(64) PoolLock {
    std::atomic<UINT32> held{0};
};
constexpr unsigned kPoolLockStripes = 64;
PoolLock g_poolLocks[kPoolLockStripes];

void LockPool(PoolLock* lock) {
    for (unsigned spins = 0;; ++spins) {
        if (lock->held.exchange(1, std::memory_order_acquire) == 0) return;
        // Wait on a plain load so the line is not bounced while held; a
        // holder that was preempted gets the processor after a short while.
        while (lock->held.load(std::memory_order_relaxed) != 0) {
            if (++spins < 128) {
#if defined(__i386__) || defined(__x86_64__)
                __builtin_ia32_pause();
#endif
            } else {
                sched_yield();
            }
        }
    }
}

void UnlockPool(PoolLock* lock) {
    KS_DCHECK(lock->held.load(std::memory_order_relaxed) == 1);
    lock->held.store(0, std::memory_order_release);
}

class PoolGuard {
public:
    explicit PoolGuard(PoolLock* lock) : lock_(lock) { LockPool(lock_); }
    ~PoolGuard() { UnlockPool(lock_); }
    PoolGuard(const PoolGuard&) = delete;
    PoolGuard& operator=(const PoolGuard&) = delete;

private:
    PoolLock* lock_;
};

// The stripe of a pool, from its list head's address. The two heads of an
// instance are adjacent LIST_ENTRYs, so consecutive head slots map to
// consecutive stripes and never collide with each other.
PoolLock* StripeOf(const LIST_ENTRY* head) {
    auto slot = reinterpret_cast<uintptr_t>(head) / sizeof(LIST_ENTRY);
    auto mixed = static_cast<UINT32>((slot >> 1) * 0x9E3779B1u);
    return &g_poolLocks[((mixed >> 26) * 2 + (slot & 1)) % kPoolLockStripes];
}

// fork(): the forking thread holds every stripe, in table order, from
// prepare until both processes are past the fork.
void ForkPrepare() {
    for (PoolLock& lock : g_poolLocks) LockPool(&lock);
}
void ForkRelease() {
    for (unsigned i = kPoolLockStripes; i-- > 0;) UnlockPool(&g_poolLocks[i]);
}
struct ForkHandlers {
    ForkHandlers() { pthread_atfork(ForkPrepare, ForkRelease, ForkRelease); }
} g_forkHandlers;

struct PoolView {
    PoolLock* lock;
    PLIST_ENTRY list;
    UINT32* inUse;
    UINT32* total;
};

PoolView PoolOf(KsplObjInfo* info, UINT32 poolType) {
    if (poolType == NonPagedPool) {
        return {StripeOf(&info->MemoryNonPagedList), &info->MemoryNonPagedList,
                &info->MemoryNonPagedInUse, &info->MemoryNonPagedTotalAllocated};
    }
    return {StripeOf(&info->MemoryPagedList), &info->MemoryPagedList, &info->MemoryPagedInUse,
            &info->MemoryPagedTotalAllocated};
}

// Below this no block can start: the header of a caller's pointer under it
// would wrap or lie in the never-mapped first page.
constexpr uintptr_t kLowestBlock = 4096 + kMemHeaderSize;
// A block's caller address keeps the allocator's alignment; the header is
// read only at an address where that holds.
constexpr uintptr_t kBlockAlignment = 8;
static_assert(kMemHeaderSize % kBlockAlignment == 0 && alignof(KSO_MEM_HANDLE) <= kBlockAlignment,
              "an aligned caller address has an aligned header");

// Can the header in front of `pMemory` be read at all? A pointer that was
// never handed out (the middle of a block, a stack or malloc address) must
// be refused without a misaligned or out-of-bounds read.
bool HeaderReadable(PVOID pMemory) {
    auto address = reinterpret_cast<uintptr_t>(pMemory);
    if (address < kLowestBlock || address % kBlockAlignment != 0) return false;
#if defined(KSPL_HAVE_ASAN)
    // Where the sanitizer tracks the heap it knows which bytes belong to a
    // live allocation: a header that lies in a redzone or in freed memory is
    // not one of ours.
    if (__asan_region_is_poisoned(reinterpret_cast<unsigned char*>(pMemory) - kMemHeaderSize,
                                  kMemHeaderSize) != nullptr)
        return false;
#endif
    return true;
}

inline KSO_MEM_HANDLE* HeaderOf(PVOID pMemory) {
    return reinterpret_cast<KSO_MEM_HANDLE*>(static_cast<unsigned char*>(pMemory) - kMemHeaderSize);
}

PVOID AllocTracked(IKspl* pThis, UINT32 Size, UINT32 poolType) {
    if (!KsplValidInstance(pThis) || Size == 0) return nullptr;
    // The block size is computed in 32 bits by the block's users; a request
    // whose header + size + trailer does not fit is refused, never wrapped.
    if (Size > UINT32_MAX - kMemHeaderSize - sizeof(UINT32)) return nullptr;
    auto* block = static_cast<unsigned char*>(KsplSysAlloc(kMemHeaderSize + Size + sizeof(UINT32)));
    if (block == nullptr) return nullptr;
    KS_DCHECK(reinterpret_cast<uintptr_t>(block) % kBlockAlignment == 0);

    auto* header = reinterpret_cast<KSO_MEM_HANDLE*>(block);
    header->Size = Size;
    header->Owner = pThis;
    header->Signature = kSigMemory;
    header->PoolType = poolType;
    header->Link2.Flink = header->Link2.Blink = nullptr;
    unsigned char* user = block + kMemHeaderSize;
    std::memcpy(user + Size, &kSigMemoryTrailer, sizeof(UINT32));

    PoolView pool = PoolOf(KsplInfo(pThis), poolType);
    {
        PoolGuard guard(pool.lock);
        KS_DCHECK(pool.list->Blink->Flink == pool.list);
        KsListInsertTail(pool.list, &header->Link);
        KsCounterAdd(pool.inUse, Size);
        KsCounterAdd(pool.total, Size);
    }
    return user;
}

}  // namespace

PVOID KsoAllocNonPagedMemory(IKspl* pThis, UINT32 Size) {
    return AllocTracked(pThis, Size, NonPagedPool);
}

PVOID KsoAllocPagedMemory(IKspl* pThis, UINT32 Size) { return AllocTracked(pThis, Size, PagedPool); }

KSSTATUS KsoFreeMemory(IKspl* pThis, PVOID pMemory) {
    if (!KsplValidInstance(pThis) || pMemory == nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    // The checks read the block without a lock; the caller owns it. Only the
    // first failing check is reported, and a failing block is left as it is.
    if (!HeaderReadable(pMemory) || HeaderOf(pMemory)->Signature != kSigMemory) {
        KsplLog(LOG_USER | LOG_DEBUG, "KSPL -KsoFreeMemory- Called with invalid memory pointer\n");
        return KSPL_STATUS(KSPL_CODE_BAD_BLOCK);
    }
    KSO_MEM_HANDLE* header = HeaderOf(pMemory);
    UINT32 trailer;
    std::memcpy(&trailer, static_cast<unsigned char*>(pMemory) + header->Size, sizeof(trailer));
    if (trailer != kSigMemoryTrailer) {
        KsplLog(LOG_USER | LOG_DEBUG, "KSPL -KsoFreeMemory- Buffer memory has been overrun\n");
        return KSPL_STATUS(KSPL_CODE_BAD_BLOCK);
    }
    if (header->Owner != pThis) {
        KsplLog(LOG_USER | LOG_DEBUG, "KSPL -KsoFreeMemory- Releasing unowned buffer\n");
        return KSPL_STATUS(KSPL_CODE_BAD_BLOCK);
    }

    PoolView pool = PoolOf(KsplInfo(pThis), header->PoolType == NonPagedPool ? NonPagedPool : PagedPool);
    {
        PoolGuard guard(pool.lock);
        // A live block sits between neighbours that point back at it; one
        // that does not was unlinked already or had its links overwritten.
        KS_DCHECK(header->Link.Flink->Blink == &header->Link);
        KS_DCHECK(header->Link.Blink->Flink == &header->Link);
        KsListRemove(&header->Link);
        KsCounterAdd(pool.inUse, 0u - header->Size);
    }
    // The block is unreachable now: clear the header so that a second
    // release of the same pointer no longer finds 'MEM '.
    std::memset(header, 0, sizeof(*header));
    KsplSysFree(header);
    return 0;
}

void KsMemoryPoolPassThrough(IKspl* pThis) {
    KsplObjInfo* info = KsplInfo(pThis);
    for (PLIST_ENTRY head : {&info->MemoryNonPagedList, &info->MemoryPagedList}) {
        PoolGuard guard(StripeOf(head));
    }
}
