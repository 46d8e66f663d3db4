/*
 * kspl_ikspl.h - the IKspl interface: its types, records and 90-slot table.
 *
 * Every operation takes the instance first. Handles of IKspl resources are
 * owned by the caller from allocation until they are destroyed through an
 * instance; memory blocks must be released through the instance that
 * allocated them. Records written into callers' buffers are laid out exactly
 * as declared here on both the 32-bit and the 64-bit target.
 *
 * Units: wait timeouts (KsoWaitForSingleEvent, KsoWaitForMultipleEvents,
 * KsoWaitForThreadExit) are INT64 microseconds, relative, -1 for no limit
 * and 0 to test without waiting; KsoSleep and KsoScheduleTimer take UINT64
 * microseconds (timers tick every 10 ms); KsoGetSystemTime gives
 * 100-nanosecond intervals since 1 January 1601 UTC. Lengths of counted
 * strings and of conversion buffers of narrow text are bytes, of 16-bit
 * text units. Failures are KSPL_FACILITY statuses (kspl_status.h);
 * docs/reference.md gives each slot's behaviour, nullable pointers and
 * statuses, in slot order within each service family.
 */
#ifndef KSPL_IKSPL_H
#define KSPL_IKSPL_H

#include "ks_types.h"

KS_EXTERN_C_BEGIN

typedef UINT8 IRQ_LEVEL;
typedef UINT32 KSSPIN_STATE;
typedef KSSPIN_STATE* PKSSPIN_STATE;

/* Thread and work-item priority. */
typedef UINT32 KSO_PRIORITY;
#define KSO_PRIORITY_IDLE 0u
#define KSO_PRIORITY_NORMAL 1u
#define KSO_PRIORITY_REALTIME 2u

/* Event kinds. */
typedef UINT32 KSO_EVENT_TYPE;
#define KsoSynchronizationEvent 0u
#define KsoNotificationEvent 1u

/* Configuration value types (the store uses the same numbers). */
typedef UINT32 KSO_REG_TYPE;
#define KSO_REG_BINARY 0u
#define KSO_REG_UINT32 1u
#define KSO_REG_SZ 2u
#define KSO_REG_MULTI_SZ 3u
#define KSO_REG_UINT64 4u

/* Configuration key access. */
typedef UINT32 KSO_KEY_ACCESS;
#define KSO_KEY_READ 0u
#define KSO_KEY_WRITE 1u
#define KSO_KEY_ALL_ACCESS 2u

/* Memory pools of tracked memory. */
typedef UINT32 POOL_TYPE;
#define NonPagedPool 0u
#define PagedPool 1u

/* Code page selectors of the conversion services. */
#define KSO_CP_ANSI 1u
#define KSO_CP_OEM 2u
#define KSO_CP_UTF8 3u

typedef void (*PKSO_THREAD_ROUTINE)(HANDLE hThread, PVOID pContext);
typedef void (*PKSO_WORK_ITEM_ROUTINE)(HANDLE hWorkItem, PVOID pContext);
typedef void (*PKSO_TIMER_ROUTINE)(HANDLE hTimer, PVOID pContext);

/* Counted strings: lengths in bytes, terminator not counted. */
typedef struct _STRING {
    UINT16 Length;
    UINT16 MaximumLength;
    PCHAR Buffer;
} STRING;
typedef STRING* PSTRING;

typedef struct _UNICODE_STRING {
    UINT16 Length;
    UINT16 MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING;
typedef UNICODE_STRING* PUNICODE_STRING;

/* ------------------------------------------------------------------ */
/* Records written into callers' buffers                               */
/* ------------------------------------------------------------------ */

/* One statistics entry per live instance (80 bytes). */
typedef struct _GEN_KSPL_STATS_INFO {
    CHAR ModuleName[32];
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
} GEN_KSPL_STATS_INFO;

/* Statistics buffer: a fixed part and InterfaceCount entries. */
typedef struct _GEN_KSPL_STATS_INFO_BUF {
    UINT32 InterfaceCount;
    UINT32 GenKsplStatsInfoSize; /* always 80 */
    GEN_KSPL_STATS_INFO GenKsplStatsInfo[1];
} GEN_KSPL_STATS_INFO_BUF;

#define KSPL_STATS_HEADER_SIZE 8u
#define KSPL_STATS_ENTRY_SIZE 80u

/* Written by KsoEnumerateKey. The declared size is 20 bytes on both
 * targets: the 64-bit time sits at offset 0 with 4-byte record alignment. */
#pragma pack(push, 4)
typedef struct _KSO_KEY_INFORMATION {
    UINT64 LastWriteTime;
    UINT32 Reserved;
    UINT32 KeyNameLength; /* bytes of KeyName including its 0 unit */
    WCHAR KeyName[1];
} KSO_KEY_INFORMATION;
#pragma pack(pop)

/* Written by KsoQueryValueKey and KsoEnumerateValueKey; the data follows at
 * ValueOffset = 24 + KeyValueNameLength. Declared size 24 bytes. */
typedef struct _KSO_KEY_VALUE_INFORMATION {
    UINT32 Reserved;
    UINT32 ValueType;
    UINT32 ValueOffset;
    UINT32 ValueLength;
    UINT32 KeyValueNameLength; /* bytes of KeyValueName including its 0 unit */
    WCHAR KeyValueName[1];
} KSO_KEY_VALUE_INFORMATION;

KS_STATIC_ASSERT(sizeof(GEN_KSPL_STATS_INFO) == 80, "statistics entry is 80 bytes");
KS_STATIC_ASSERT(offsetof(GEN_KSPL_STATS_INFO, EventInUse) == 32, "EventInUse offset");
KS_STATIC_ASSERT(offsetof(GEN_KSPL_STATS_INFO, MemoryNonPagedTotalAllocated) == 44, "offset");
KS_STATIC_ASSERT(offsetof(GEN_KSPL_STATS_INFO, MemoryPagedInUse) == 56, "offset");
KS_STATIC_ASSERT(offsetof(GEN_KSPL_STATS_INFO, WorkItemInUse) == 76, "WorkItemInUse offset");
KS_STATIC_ASSERT(offsetof(GEN_KSPL_STATS_INFO_BUF, GenKsplStatsInfoSize) == 4, "offset");
KS_STATIC_ASSERT(offsetof(GEN_KSPL_STATS_INFO_BUF, GenKsplStatsInfo) == 8, "entries at 8");
KS_STATIC_ASSERT(sizeof(KSO_KEY_INFORMATION) == 20, "key information is 20 bytes");
KS_STATIC_ASSERT(offsetof(KSO_KEY_INFORMATION, Reserved) == 8, "Reserved offset");
KS_STATIC_ASSERT(offsetof(KSO_KEY_INFORMATION, KeyNameLength) == 12, "KeyNameLength offset");
KS_STATIC_ASSERT(offsetof(KSO_KEY_INFORMATION, KeyName) == 16, "KeyName offset");
KS_STATIC_ASSERT(sizeof(KSO_KEY_VALUE_INFORMATION) == 24, "value information is 24 bytes");
KS_STATIC_ASSERT(offsetof(KSO_KEY_VALUE_INFORMATION, ValueType) == 4, "ValueType offset");
KS_STATIC_ASSERT(offsetof(KSO_KEY_VALUE_INFORMATION, ValueOffset) == 8, "ValueOffset offset");
KS_STATIC_ASSERT(offsetof(KSO_KEY_VALUE_INFORMATION, ValueLength) == 12, "ValueLength offset");
KS_STATIC_ASSERT(offsetof(KSO_KEY_VALUE_INFORMATION, KeyValueNameLength) == 16, "offset");
KS_STATIC_ASSERT(offsetof(KSO_KEY_VALUE_INFORMATION, KeyValueName) == 20, "offset");
KS_STATIC_ASSERT(sizeof(STRING) == 4 + sizeof(void*) + (sizeof(void*) == 8 ? 4 : 0), "STRING");
KS_STATIC_ASSERT(offsetof(UNICODE_STRING, Buffer) == (sizeof(void*) == 8 ? 8 : 4), "Buffer");

/* ------------------------------------------------------------------ */
/* The interface                                                       */
/* ------------------------------------------------------------------ */

typedef struct IKspl IKspl;

typedef struct IKsplVtbl {
    /* 0 */ KSSTATUS (*QueryInterface)(IKspl* pThis, const GUID* pIId, void** ppInterface);
    /* 1 */ UINT32 (*AddRef)(IKspl* pThis);
    /* 2 */ UINT32 (*Release)(IKspl* pThis);
    /* 3 */ KSSTATUS (*KsoCloseKey)(IKspl* pThis, HANDLE Handle);
    /* 4 */ KSSTATUS (*KsoCreateKey)(IKspl* pThis, PWCHAR pKeyNameW, UINT32 DesiredAccess,
                                     HANDLE* pHandle);
    /* 5 */ KSSTATUS (*KsoDeleteKey)(IKspl* pThis, HANDLE Handle);
    /* 6 */ KSSTATUS (*KsoEnumerateKey)(IKspl* pThis, HANDLE Handle, UINT32 Index,
                                        PVOID pKeyInformation, UINT32 Length,
                                        PUINT32 pResultLength);
    /* 7 */ KSSTATUS (*KsoEnumerateValueKey)(IKspl* pThis, HANDLE Handle, UINT32 Index,
                                             PVOID pKeyValueInformation, UINT32 Length,
                                             PUINT32 pResultLength);
    /* 8 */ KSSTATUS (*KsoOpenKey)(IKspl* pThis, PWCHAR pKeyNameW, UINT32 DesiredAccess,
                                   HANDLE* pHandle);
    /* 9 */ KSSTATUS (*KsoQueryValueKey)(IKspl* pThis, HANDLE Handle, PWCHAR pValueNameW,
                                         PVOID pKeyValueInfo, UINT32 Length,
                                         PUINT32 pResultLength);
    /* 10 */ KSSTATUS (*KsoSetValueKey)(IKspl* pThis, HANDLE Handle, PWCHAR pValueNameW,
                                        KSO_REG_TYPE DataType, PVOID pData, UINT32 DataLength);
    /* 11 */ void (*KsoDebugBreakPoint)(IKspl* pThis);
    /* 12 */ void (*KsoDebugPrintf)(IKspl* pThis, PCHAR pFormatStr, ...);
    /* 13 */ void (*KsoInitializeListHead)(IKspl* pThis, PLIST_ENTRY pListEntry);
    /* 14 */ void (*KsoInsertEntryAfter)(IKspl* pThis, PLIST_ENTRY pListHead,
                                         PLIST_ENTRY pListEntry, PLIST_ENTRY pAfterEntry);
    /* 15 */ void (*KsoInsertEntryBefore)(IKspl* pThis, PLIST_ENTRY pListHead,
                                          PLIST_ENTRY pListEntry, PLIST_ENTRY pBeforeEntry);
    /* 16 */ void (*KsoInsertHeadList)(IKspl* pThis, PLIST_ENTRY pListHead,
                                       PLIST_ENTRY pListEntry);
    /* 17 */ void (*KsoInsertTailList)(IKspl* pThis, PLIST_ENTRY pListHead,
                                       PLIST_ENTRY pListEntry);
    /* 18 */ BOOLEAN (*KsoIsListEmpty)(IKspl* pThis, PLIST_ENTRY pListHead);
    /* 19 */ void (*KsoRemoveEntryList)(IKspl* pThis, PLIST_ENTRY pListEntry);
    /* 20 */ PLIST_ENTRY (*KsoRemoveHeadList)(IKspl* pThis, PLIST_ENTRY pListHead);
    /* 21 */ PLIST_ENTRY (*KsoRemoveTailList)(IKspl* pThis, PLIST_ENTRY pListHead);
    /* 22 */ KSSTATUS (*KsoCharUpperBuff)(IKspl* pThis, UINT32 Length, PWCHAR pWideStr);
    /* 23 */ KSSTATUS (*KsoMultiByteToWideChar)(IKspl* pThis, UINT32 CodePage,
                                               PCHAR pMultiByteStr, INT32 MultiByteStrLen,
                                               PWCHAR pWideCharStr, PUINT32 pWideCharStrLen);
    /* 24 */ KSSTATUS (*KsoWideCharToMultiByte)(IKspl* pThis, UINT32 CodePage,
                                               PWCHAR pWideCharStr, INT32 WideCharStrLen,
                                               PCHAR pMultiByteStr, PUINT32 pMultiByteStrLen);
    /* 25 */ PVOID (*KsoAllocNonPagedMemory)(IKspl* pThis, UINT32 Size);
    /* 26 */ PVOID (*KsoAllocPagedMemory)(IKspl* pThis, UINT32 Size);
    /* 27 */ KSSTATUS (*KsoFreeMemory)(IKspl* pThis, PVOID pMemory);
    /* 28 */ KSSTATUS (*KsoAllocTimer)(IKspl* pThis, PKSO_TIMER_ROUTINE pTimerRoutine,
                                       PVOID pContext, BOOLEAN bDispatchLevel, PHANDLE pHandle);
    /* 29 */ KSSTATUS (*KsoAllocWorkItem)(IKspl* pThis, PKSO_WORK_ITEM_ROUTINE pWorkItemRoutine,
                                          PVOID pContext, HANDLE* pHandle);
    /* 30 */ BOOLEAN (*KsoCancelTimer)(IKspl* pThis, HANDLE hTimer);
    /* 31 */ KSSTATUS (*KsoDestroyTimer)(IKspl* pThis, HANDLE hTimer);
    /* 32 */ KSSTATUS (*KsoDestroyWorkItem)(IKspl* pThis, HANDLE hWork);
    /* 33 */ KSSTATUS (*KsoScheduleTimer)(IKspl* pThis, HANDLE hTimer, UINT64 Timeout);
    /* 34 */ KSSTATUS (*KsoScheduleWorkItem)(IKspl* pThis, HANDLE hWorkItem,
                                             KSO_PRIORITY Priority);
    /* 35 */ void (*KsoSleep)(IKspl* pThis, UINT64 Interval);
    /* 36 */ UINT32 (*KsoCompareMemory)(IKspl* pThis, PVOID pMemory1, PVOID pMemory2,
                                        UINT32 Length);
    /* 37 */ void (*KsoCopyMemory)(IKspl* pThis, PVOID pDest, PVOID pSrc, UINT32 Length);
    /* 38 */ void (*KsoFillMemory)(IKspl* pThis, PVOID pDest, UINT32 Length, UCHAR Fill);
    /* 39 */ void (*KsoMoveMemory)(IKspl* pThis, PVOID pDest, PVOID pSrc, UINT32 Length);
    /* 40 */ UINT32 (*KsoStrHash)(IKspl* pThis, PCHAR pString, UINT32 HashTableSize);
    /* 41 */ UINT32 (*KsoStrHashW)(IKspl* pThis, PWCHAR pStringW, UINT32 HashTableSize);
    /* 42 */ UINT32 (*KsoStrlen)(IKspl* pThis, PCHAR pString);
    /* 43 */ UINT32 (*KsoStrlenW)(IKspl* pThis, PWCHAR pStringW);
    /* 44 */ void (*KsoZeroMemory)(IKspl* pThis, PVOID pDest, UINT32 Length);
    /* 45 */ KSSTATUS (*KsoAppendUnicodeStringToString)(IKspl* pThis,
                                                       PUNICODE_STRING pDestStringU,
                                                       PUNICODE_STRING pSrcStringU);
    /* 46 */ KSSTATUS (*KsoAppendUnicodeToString)(IKspl* pThis, PUNICODE_STRING pDestStringU,
                                                 PWSTR pSrcStringW);
    /* 47 */ INT32 (*KsoCompareString)(IKspl* pThis, PSTRING pString1, PSTRING pString2,
                                       BOOLEAN CaseInsensitive);
    /* 48 */ INT32 (*KsoCompareUnicodeString)(IKspl* pThis, PUNICODE_STRING pString1,
                                              PUNICODE_STRING pString2, BOOLEAN CaseInsensitive);
    /* 49 */ void (*KsoCopyString)(IKspl* pThis, PSTRING pDestString, PSTRING pSrcString);
    /* 50 */ void (*KsoCopyUnicodeString)(IKspl* pThis, PUNICODE_STRING pDestStringU,
                                          PUNICODE_STRING pSrcStringU);
    /* 51 */ BOOLEAN (*KsoEqualString)(IKspl* pThis, PSTRING pString1, PSTRING pString2,
                                       BOOLEAN CaseInsensitive);
    /* 52 */ BOOLEAN (*KsoEqualUnicodeString)(IKspl* pThis, PUNICODE_STRING pString1,
                                              PUNICODE_STRING pString2, BOOLEAN CaseInsensitive);
    /* 53 */ void (*KsoInitString)(IKspl* pThis, PSTRING pDestString, PCHAR pSrcString);
    /* 54 */ void (*KsoInitUnicodeString)(IKspl* pThis, PUNICODE_STRING pDestStringU,
                                          PWCHAR pSrcStringW);
    /* 55 */ KSSTATUS (*KsoIntegerToUnicodeString)(IKspl* pThis, UINT32 Value, UINT32 Base,
                                                  PUNICODE_STRING pStringU);
    /* 56 */ KSSTATUS (*KsoUnicodeStringToInteger)(IKspl* pThis, PUNICODE_STRING pStringU,
                                                  UINT32 Base, PUINT32 pValue);
    /* 57 */ KSSTATUS (*KsoAcquireLockForReadAccess)(IKspl* pThis, HANDLE Handle, BOOLEAN bWait);
    /* 58 */ KSSTATUS (*KsoAcquireLockForWriteAccess)(IKspl* pThis, HANDLE Handle,
                                                     BOOLEAN bWait);
    /* 59 */ KSSTATUS (*KsoAcquireMutex)(IKspl* pThis, HANDLE Handle);
    /* 60 */ KSSTATUS (*KsoAcquireSpinLock)(IKspl* pThis, HANDLE Handle,
                                            PKSSPIN_STATE pPrevState);
    /* 61 */ KSSTATUS (*KsoAllocEvent)(IKspl* pThis, KSO_EVENT_TYPE EventType, HANDLE* pHandle);
    /* 62 */ KSSTATUS (*KsoAllocMutex)(IKspl* pThis, UINT32 Level, HANDLE* pHandle);
    /* 63 */ KSSTATUS (*KsoAllocReadWriteLock)(IKspl* pThis, HANDLE* pHandle);
    /* 64 */ KSSTATUS (*KsoAllocSpinLock)(IKspl* pThis, HANDLE* pHandle);
    /* 65 */ KSSTATUS (*KsoDestroyEvent)(IKspl* pThis, HANDLE Handle);
    /* 66 */ KSSTATUS (*KsoDestroyMutex)(IKspl* pThis, HANDLE Handle);
    /* 67 */ KSSTATUS (*KsoDestroyReadWriteLock)(IKspl* pThis, HANDLE Handle);
    /* 68 */ KSSTATUS (*KsoDestroySpinLock)(IKspl* pThis, HANDLE Handle);
    /* 69 */ IRQ_LEVEL (*KsoGetCurrentIrql)(IKspl* pThis);
    /* 70 */ UINT32 (*KsoInterlockedDecrement)(IKspl* pThis, PUINT32 pValue);
    /* 71 */ UINT32 (*KsoInterlockedExchange)(IKspl* pThis, PUINT32 pTarget, UINT32 Value);
    /* 72 */ UINT32 (*KsoInterlockedIncrement)(IKspl* pThis, PUINT32 pValue);
    /* 73 */ KSSTATUS (*KsoReleaseMutex)(IKspl* pThis, HANDLE Handle);
    /* 74 */ KSSTATUS (*KsoReleaseReadWriteLock)(IKspl* pThis, HANDLE Handle);
    /* 75 */ KSSTATUS (*KsoReleaseSpinLock)(IKspl* pThis, HANDLE Handle, KSSPIN_STATE prevState);
    /* 76 */ KSSTATUS (*KsoResetEvent)(IKspl* pThis, HANDLE Handle, PBOOLEAN pPrevState);
    /* 77 */ KSSTATUS (*KsoSignalEvent)(IKspl* pThis, HANDLE Handle, PBOOLEAN pPrevState);
    /* 78 */ KSSTATUS (*KsoWaitForMultipleEvents)(IKspl* pThis, UINT32 Count, HANDLE* Handles,
                                                 BOOLEAN bWaitAll, INT64 Timeout);
    /* 79 */ KSSTATUS (*KsoWaitForSingleEvent)(IKspl* pThis, HANDLE Handle, INT64 Timeout);
    /* 80 */ KSSTATUS (*KsoCreateThread)(IKspl* pThis, KSO_PRIORITY Priority,
                                         PKSO_THREAD_ROUTINE pThreadRoutine, PVOID pContext,
                                         HANDLE* pHandle);
    /* 81 */ KSSTATUS (*KsoDestroyThread)(IKspl* pThis, HANDLE Handle);
    /* 82 */ void (*KsoExitThread)(IKspl* pThis, HANDLE Handle, KSSTATUS ExitStatus,
                                   BOOLEAN bDestroyThread);
    /* 83 */ KSSTATUS (*KsoGetThreadExitStatus)(IKspl* pThis, HANDLE Handle);
    /* 84 */ KSSTATUS (*KsoSetThreadPriority)(IKspl* pThis, HANDLE Handle, KSO_PRIORITY priority);
    /* 85 */ KSSTATUS (*KsoWaitForThreadExit)(IKspl* pThis, HANDLE Handle, INT64 TimeOut);
    /* 86 */ void (*KsoGetSystemTime)(IKspl* pThis, PUINT64 pCurrentTime);
    /* 87 */ KSSTATUS (*KsoRegisterModuleName)(IKspl* pThis, PCHAR pModuleName);
    /* 88 */ KSSTATUS (*KsoGetGeneralKsplStatistics)(IKspl* pThis, PUINT32 pSize,
                                                     PVOID pStatBuf);
    /* 89 */ KSSTATUS (*KsoDeleteValue)(IKspl* pThis, HANDLE Handle, PWCHAR pValueNameW);
} IKsplVtbl;

/* An IKspl instance: the table pointer followed by the reference count. */
struct IKspl {
    const IKsplVtbl* lpVtbl;
};

#define KSPL_VTBL_SLOT(member) (offsetof(IKsplVtbl, member) / sizeof(void*))
KS_STATIC_ASSERT(sizeof(IKsplVtbl) == 90 * sizeof(void*), "IKspl has 90 slots");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoCloseKey) == 3, "slot 3");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoDebugPrintf) == 12, "slot 12");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoCharUpperBuff) == 22, "slot 22");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoAllocNonPagedMemory) == 25, "slot 25");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoSleep) == 35, "slot 35");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoZeroMemory) == 44, "slot 44");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoUnicodeStringToInteger) == 56, "slot 56");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoAcquireSpinLock) == 60, "slot 60");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoGetCurrentIrql) == 69, "slot 69");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoWaitForSingleEvent) == 79, "slot 79");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoCreateThread) == 80, "slot 80");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoGetSystemTime) == 86, "slot 86");
KS_STATIC_ASSERT(KSPL_VTBL_SLOT(KsoDeleteValue) == 89, "slot 89");

KS_EXTERN_C_END

#endif /* KSPL_IKSPL_H */
