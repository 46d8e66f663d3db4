// memory.cpp - tracked memory. Each block is [KSO_MEM_HANDLE][caller's
// bytes]['MEME'], linked on its owner's list for its pool and counted in the
// owner's counters.
//
// Locks: the non-paged pool's list and counters are guarded by the owner's
// ProtectionSpinLock, the paged pool's by its ProtectionMutex; the two are
// never held together.
#include <syslog.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "linklist_int.h"
#include "memory_int.h"
#include "sysalloc_int.h"

KSPL_SOURCE_UNIT("memory");

namespace {

struct PoolView {
    pthread_mutex_t* lock;
    PLIST_ENTRY list;
    UINT32* inUse;
    UINT32* total;
};

PoolView PoolOf(KsplObjInfo* info, UINT32 poolType) {
    if (poolType == NonPagedPool) {
        return {&info->ProtectionSpinLock, &info->MemoryNonPagedList, &info->MemoryNonPagedInUse,
                &info->MemoryNonPagedTotalAllocated};
    }
    return {&info->ProtectionMutex, &info->MemoryPagedList, &info->MemoryPagedInUse,
            &info->MemoryPagedTotalAllocated};
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
        KsMutexGuard guard(pool.lock);
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
    KSO_MEM_HANDLE* header = HeaderOf(pMemory);
    if (header->Signature != kSigMemory) {
        KsplLog(LOG_USER | LOG_DEBUG, "KSPL -KsoFreeMemory- Called with invalid memory pointer\n");
        return KSPL_STATUS(KSPL_CODE_BAD_BLOCK);
    }
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
        KsMutexGuard guard(pool.lock);
        KsListRemove(&header->Link);
        KsCounterAdd(pool.inUse, 0u - header->Size);
    }
    // The block is unreachable now: clear the header so that a second
    // release of the same pointer no longer finds 'MEM '.
    std::memset(header, 0, sizeof(*header));
    KsplSysFree(header);
    return 0;
}
