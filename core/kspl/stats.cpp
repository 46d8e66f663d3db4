// stats.cpp - the statistics snapshot of every live instance.
//
// Lock order: takes InterfaceMutex alone; counters are read without the
// instances' own locks (each a single atomic 32-bit read).
#include <cstring>

#include "linklist_int.h"
#include "stats_int.h"

KSPL_SOURCE_UNIT("stats");

KSSTATUS KsoGetGeneralKsplStatistics(IKspl* pThis, PUINT32 pSize, PVOID pStatBuf) {
    if (pThis == nullptr || pSize == nullptr || (*pSize == 0 && pStatBuf != nullptr) ||
        (*pSize != 0 && pStatBuf == nullptr)) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }

    KsMutexGuard guard(&InterfaceMutex);
    if (KsListEmpty(&InterfaceList)) {
        *pSize = 0;
        return 0;
    }
    const UINT32 n = InterfaceCount;
    const UINT32 suggested = KSPL_STATS_ENTRY_SIZE * n + 508;  // required size + 500 of slack
    if (*pSize < KSPL_STATS_HEADER_SIZE + KSPL_STATS_ENTRY_SIZE * n) {
        *pSize = suggested;
        return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    }

    auto* buf = static_cast<unsigned char*>(pStatBuf);
    const UINT32 entrySize = KSPL_STATS_ENTRY_SIZE;
    std::memcpy(buf, &n, sizeof(n));
    std::memcpy(buf + 4, &entrySize, sizeof(entrySize));

    UINT32 written = 0;
    for (PLIST_ENTRY link = InterfaceList.Flink; link != nullptr && link != &InterfaceList;
         link = link->Flink) {
        if (static_cast<INT32>(*pSize) - static_cast<INT32>(KSPL_STATS_HEADER_SIZE) -
                static_cast<INT32>(KSPL_STATS_ENTRY_SIZE * written) <
            static_cast<INT32>(KSPL_STATS_ENTRY_SIZE)) {
            *pSize = suggested;
            return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
        }
        auto* info = reinterpret_cast<KsplObjInfo*>(reinterpret_cast<unsigned char*>(link) -
                                                    offsetof(KsplObjInfo, Link));
        GEN_KSPL_STATS_INFO entry;
        std::memcpy(entry.ModuleName, info->ModuleName, sizeof(entry.ModuleName));
        entry.EventInUse = KsAtomicLoad(&info->EventInUse);
        entry.KeyInUse = KsAtomicLoad(&info->KeyInUse);
        entry.LockInUse = KsAtomicLoad(&info->LockInUse);
        entry.MemoryNonPagedTotalAllocated = KsAtomicLoad(&info->MemoryNonPagedTotalAllocated);
        entry.MemoryNonPagedInUse = KsAtomicLoad(&info->MemoryNonPagedInUse);
        entry.MemoryPagedTotalAllocated = KsAtomicLoad(&info->MemoryPagedTotalAllocated);
        entry.MemoryPagedInUse = KsAtomicLoad(&info->MemoryPagedInUse);
        entry.MutexInUse = KsAtomicLoad(&info->MutexInUse);
        entry.SpinLockInUse = KsAtomicLoad(&info->SpinLockInUse);
        entry.ThreadInUse = KsAtomicLoad(&info->ThreadInUse);
        entry.TimerInUse = KsAtomicLoad(&info->TimerInUse);
        entry.WorkItemInUse = KsAtomicLoad(&info->WorkItemInUse);
        std::memcpy(buf + KSPL_STATS_HEADER_SIZE + KSPL_STATS_ENTRY_SIZE * written, &entry,
                    sizeof(entry));
        ++written;
    }
    *pSize = KSPL_STATS_HEADER_SIZE + KSPL_STATS_ENTRY_SIZE * written;
    return 0;
}
