// memory_int.h - tracked memory: guarded, accounted blocks of an instance.
#pragma once
#include "kspl_internal.h"

// Header in front of every tracked block; its size keeps the caller's
// address aligned as the system allocator's blocks are.
struct KSO_MEM_HANDLE {
    LIST_ENTRY Link;  // on the owner's MemoryNonPagedList or MemoryPagedList
    LIST_ENTRY Link2;
    UINT32 Signature;  // 'MEM ' while live
    UINT32 Size;       // caller's size in bytes
    UINT32 PoolType;   // NonPagedPool or PagedPool
    IKspl* Owner;
};
constexpr size_t kMemHeaderSize = (sizeof(KSO_MEM_HANDLE) + 15u) & ~size_t{15u};
static_assert(kMemHeaderSize % 8 == 0, "caller's bytes stay aligned");

PVOID KsoAllocNonPagedMemory(IKspl* pThis, UINT32 Size);
PVOID KsoAllocPagedMemory(IKspl* pThis, UINT32 Size);
KSSTATUS KsoFreeMemory(IKspl* pThis, PVOID pMemory);

// Takes and gives back the pool locks of an instance: once it returns, a
// release that another thread had under way on that instance (and whose
// counter change was seen) has left its critical section. For teardown of
// an instance whose last blocks other threads release.
void KsMemoryPoolPassThrough(IKspl* pThis);
