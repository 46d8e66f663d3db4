/*
 * kspl_om.h - object managers: IOM (version 1), IOM_2 (version 2) and the
 * security-context object managers ISCOM and ISCOM_2.
 *
 * A store holds fixed-size objects; clients hold pointers to an object's
 * user area and 32-bit handles (bits 0-15 block id, 16-23 generation, 24-31
 * slot index + 1) carried in a HANDLE. Access types: 0 no lock,
 * 1 exclusive, 2 shared. Opened mode: 1 created, 2 opened an existing one.
 *
 * Ownership: every object handed out by create, open, find, enumerate or
 * reference carries a reference (and the lock of its access type) that the
 * caller gives back with DereferenceObject (or DeleteObject). pInitRoutine,
 * pCompareRoutine and pOpenedMode may be null, ppUserData may not. Failures
 * are KSPL_OM_FACILITY statuses; the end of an enumeration, a failed find and
 * a stale handle are the constants of kspl_status.h. docs/reference.md
 * describes every slot of IOM, IOM_2, ISCOM and ISCOM_2 with its statuses.
 */
#ifndef KSPL_OM_H
#define KSPL_OM_H

#include "ks_types.h"
#include "orlm.h"

KS_EXTERN_C_BEGIN

typedef KSSTATUS (*PKSO_OBJECT_ROUTINE)(PVOID pUserData);
typedef KSSTATUS (*PKSO_OBJECT_INIT_ROUTINE)(PVOID pUserData, PVOID pInitData);
typedef BOOLEAN (*PKSO_OBJECT_COMPARE_ROUTINE)(PVOID pUserData, PVOID pCompareData);
typedef KSSTATUS (*PKSO_SC_CLEANUP_ROUTINE)(SCHANDLE hSC);

#define OM_ACCESS_NONE 0u
#define OM_ACCESS_EXCLUSIVE 1u
#define OM_ACCESS_SHARED 2u
#define OM_OPENED_CREATED 1u
#define OM_OPENED_EXISTING 2u

/* accessLevel of Initialize: lock kind in the low 28 bits, deferred deletion
 * requested by any of the top four bits. */
#define OM_LEVEL_RWLOCK 0u
#define OM_LEVEL_RWLOCK_NONPAGED 2u
#define OM_LEVEL_MUTEX 3u
#define OM_LEVEL_DEFERRED_DELETE 0x10000000u

typedef struct IOM IOM;
typedef struct IOM_2 IOM_2;

typedef struct IOMVtbl {
    KSSTATUS (*QueryInterface)(IOM* pThis, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(IOM* pThis);
    UINT32 (*Release)(IOM* pThis);
    KSSTATUS (*Initialize)(IOM* pThis, UINT32 objectSize, UINT16 objectsPerBlock,
                           UINT32 accessLevel, UINT32 hashSize, PKSO_OBJECT_ROUTINE pDeleteRoutine,
                           PKSO_OBJECT_ROUTINE pDeallocateRoutine, PKSO_OBJECT_ROUTINE pDebugRoutine,
                           UINT32 permBlocks);
    KSSTATUS (*CreateObject)(IOM* pThis, PVOID pInitData, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                             PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                             UINT32 CompareIndex, UINT32 createAccess, UINT32 openAccess,
                             PVOID* ppUserData, PUINT32 pOpenedMode);
    KSSTATUS (*DeleteObject)(IOM* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*ReferenceObjectByHandle)(IOM* pThis, HANDLE handle, UINT32 accessType,
                                        PVOID* ppUserData);
    KSSTATUS (*DereferenceObject)(IOM* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*EnumerateObjects)(IOM* pThis, PHANDLE pscanHandle, PVOID pCompareData,
                                 PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType,
                                 PVOID* ppUserData);
    KSSTATUS (*GetObjectHandle)(IOM* pThis, PVOID pUserData, PHANDLE phandle);
    KSSTATUS (*FindObject)(IOM* pThis, PVOID pCompareData,
                           PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                           UINT32 accessType, PVOID* ppUserData);
    KSSTATUS (*AcquireObject)(IOM* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*ReleaseObject)(IOM* pThis, PVOID pUserData);
    KSSTATUS (*IncrementReference)(IOM* pThis, PVOID pUserData);
    KSSTATUS (*DecrementReference)(IOM* pThis, PVOID pUserData);
    KSSTATUS (*CreateObjectByHandle)(IOM* pThis, HANDLE handle, PVOID pInitData,
                                     PKSO_OBJECT_INIT_ROUTINE pInitRoutine, UINT32 createAccess,
                                     UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode);
    KSSTATUS (*AllocateObject)(IOM* pThis, PVOID* ppUserData);
    KSSTATUS (*DeallocateObject)(IOM* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*OpenObject)(IOM* pThis, PVOID pInitData, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                           PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                           UINT32 CompareIndex, UINT32 allocAccess, UINT32 openAccess,
                           PVOID* ppUserData, PUINT32 pOpenedMode);
    KSSTATUS (*GetObjectStats)(IOM* pThis, PUINT32 pObjectsAllocated, PUINT32 pObjectsInUse,
                               PUINT32 pObjectsPreallocated);
} IOMVtbl;

struct IOM {
    const IOMVtbl* lpVtbl;
};

typedef struct IOM_2Vtbl {
    KSSTATUS (*QueryInterface)(IOM_2* pThis, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(IOM_2* pThis);
    UINT32 (*Release)(IOM_2* pThis);
    KSSTATUS (*Initialize)(IOM_2* pThis, UINT32 objectSize, UINT16 objectsPerBlock,
                           UINT32 accessLevel, UINT32 hashSize, PKSO_OBJECT_ROUTINE pDeleteRoutine,
                           PKSO_OBJECT_ROUTINE pDeallocateRoutine, PKSO_OBJECT_ROUTINE pDebugRoutine,
                           UINT32 permBlocks);
    KSSTATUS (*CreateObject)(IOM_2* pThis, PVOID pInitData, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                             PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                             UINT32 CompareIndex, UINT32 createAccess, UINT32 openAccess,
                             PVOID* ppUserData, PUINT32 pOpenedMode);
    KSSTATUS (*DeleteObject)(IOM_2* pThis, PVOID pUserData, UINT32 accessType);
    /* masked handle */
    KSSTATUS (*ReferenceObjectByHandle)(IOM_2* pThis, HANDLE handle, UINT32 accessType,
                                        PVOID* ppUserData);
    KSSTATUS (*DereferenceObject)(IOM_2* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*EnumerateObjects)(IOM_2* pThis, PHANDLE pscanHandle, PVOID pCompareData,
                                 PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType,
                                 PVOID* ppUserData);
    /* masked handle */
    KSSTATUS (*GetObjectHandle)(IOM_2* pThis, PVOID pUserData, PHANDLE phandle);
    /* raw handle */
    KSSTATUS (*GetRawObjectHandle)(IOM_2* pThis, PVOID pUserData, PHANDLE phandle);
    KSSTATUS (*FindObject)(IOM_2* pThis, PVOID pCompareData,
                           PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                           UINT32 accessType, PVOID* ppUserData);
    KSSTATUS (*AcquireObject)(IOM_2* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*ReleaseObject)(IOM_2* pThis, PVOID pUserData);
    KSSTATUS (*IncrementReference)(IOM_2* pThis, PVOID pUserData);
    KSSTATUS (*DecrementReference)(IOM_2* pThis, PVOID pUserData);
    KSSTATUS (*CreateObjectByHandle)(IOM_2* pThis, HANDLE handle, PVOID pInitData,
                                     PKSO_OBJECT_INIT_ROUTINE pInitRoutine, UINT32 createAccess,
                                     UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode);
    KSSTATUS (*AllocateObject)(IOM_2* pThis, PVOID* ppUserData);
    KSSTATUS (*DeallocateObject)(IOM_2* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*OpenObject)(IOM_2* pThis, PVOID pInitData, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                           PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                           UINT32 CompareIndex, UINT32 allocAccess, UINT32 openAccess,
                           PVOID* ppUserData, PUINT32 pOpenedMode);
    KSSTATUS (*GetObjectStats)(IOM_2* pThis, PUINT32 pObjectsAllocated, PUINT32 pObjectsInUse,
                               PUINT32 pObjectsPreallocated);
} IOM_2Vtbl;

struct IOM_2 {
    const IOM_2Vtbl* lpVtbl;
};

/* Cursor of a version-2 enumeration over all contexts; zero-filled starts
 * a new enumeration. */
typedef struct ScanData {
    SCHANDLE hEnumSCType;
    SCHANDLE hEnumSC;
    HANDLE hEnumObject;
    SCHANDLE hLastSC;
} ScanData;

typedef struct ISCOM ISCOM;
typedef struct ISCOM_2 ISCOM_2;

typedef struct ISCOMVtbl {
    KSSTATUS (*QueryInterface)(ISCOM* pThis, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(ISCOM* pThis);
    UINT32 (*Release)(ISCOM* pThis);
    KSSTATUS (*Initialize)(ISCOM* pThis, PGUID pComponentId, UINT32 objectSize,
                           UINT16 objectsPerBlock, UINT32 accessLevel, UINT32 hashSize,
                           PKSO_OBJECT_ROUTINE pDeleteRoutine,
                           PKSO_OBJECT_ROUTINE pDeallocateRoutine,
                           PKSO_SC_CLEANUP_ROUTINE pSCCleanupRoutine, UINT32 permBlocks);
    KSSTATUS (*CreateObject)(ISCOM* pThis, SCHANDLE hSC, PVOID pInitData,
                             PKSO_OBJECT_INIT_ROUTINE pInitRoutine, PVOID pCompareData,
                             PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                             UINT32 createAccess, UINT32 openAccess, PVOID* ppUserData,
                             PUINT32 pOpenedMode);
    KSSTATUS (*DeleteObject)(ISCOM* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*ReferenceObjectByHandle)(ISCOM* pThis, SCHANDLE hSC, HANDLE handle,
                                        UINT32 accessType, PVOID* ppUserData);
    KSSTATUS (*DereferenceObject)(ISCOM* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*EnumerateObjects)(ISCOM* pThis, SCHANDLE hSC, PHANDLE pscanHandle,
                                 PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                                 UINT32 accessType, PVOID* ppUserData);
    KSSTATUS (*GetObjectHandle)(ISCOM* pThis, PVOID pUserData, PHANDLE phandle);
    KSSTATUS (*FindObject)(ISCOM* pThis, SCHANDLE hSC, PVOID pCompareData,
                           PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                           UINT32 accessType, PVOID* ppUserData);
    KSSTATUS (*AcquireObject)(ISCOM* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*ReleaseObject)(ISCOM* pThis, PVOID pUserData);
    KSSTATUS (*IncrementReference)(ISCOM* pThis, PVOID pUserData);
    KSSTATUS (*DecrementReference)(ISCOM* pThis, PVOID pUserData);
    KSSTATUS (*GetObjectSecurityContext)(ISCOM* pThis, PVOID pUserData, PSCHANDLE phSC);
    KSSTATUS (*AllocateObject)(ISCOM* pThis, PVOID* ppUserData);
    KSSTATUS (*DeallocateObject)(ISCOM* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*OpenObject)(ISCOM* pThis, PVOID pInitData, PKSO_OBJECT_INIT_ROUTINE pInitRoutine,
                           PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                           UINT32 CompareIndex, UINT32 allocAccess, UINT32 openAccess,
                           PVOID* ppUserData, PUINT32 pOpenedMode);
    KSSTATUS (*GetObjectStats)(ISCOM* pThis, PUINT32 pObjectsAllocated, PUINT32 pObjectsInUse,
                               PUINT32 pObjectsPreallocated);
} ISCOMVtbl;

struct ISCOM {
    const ISCOMVtbl* lpVtbl;
};

typedef struct ISCOM_2Vtbl {
    KSSTATUS (*QueryInterface)(ISCOM_2* pThis, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(ISCOM_2* pThis);
    UINT32 (*Release)(ISCOM_2* pThis);
    KSSTATUS (*Initialize)(ISCOM_2* pThis, PGUID pComponentId, UINT32 objectSize,
                           UINT16 objectsPerBlock, UINT32 accessLevel, UINT32 hashSize,
                           PKSO_OBJECT_ROUTINE pDeleteRoutine,
                           PKSO_OBJECT_ROUTINE pDeallocateRoutine,
                           PKSO_SC_CLEANUP_ROUTINE pSCCleanupRoutine, UINT32 permBlocks);
    KSSTATUS (*CreateObject)(ISCOM_2* pThis, SCHANDLE hSC, PVOID pInitData,
                             PKSO_OBJECT_INIT_ROUTINE pInitRoutine, PVOID pCompareData,
                             PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                             UINT32 createAccess, UINT32 openAccess, PVOID* ppUserData,
                             PUINT32 pOpenedMode);
    KSSTATUS (*DeleteObject)(ISCOM_2* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*ReferenceObjectByHandle)(ISCOM_2* pThis, SCHANDLE hSC, HANDLE handle,
                                        UINT32 accessType, PVOID* ppUserData);
    KSSTATUS (*DereferenceObject)(ISCOM_2* pThis, PVOID pUserData, UINT32 accessType);
    /* hSC (-1, -1) enumerates every context. */
    KSSTATUS (*EnumerateObjects)(ISCOM_2* pThis, SCHANDLE hSC, ScanData* pScanData,
                                 PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                                 UINT32 accessType, PVOID* ppUserData);
    KSSTATUS (*GetObjectHandle)(ISCOM_2* pThis, PVOID pUserData, PHANDLE phandle);
    KSSTATUS (*FindObject)(ISCOM_2* pThis, SCHANDLE hSC, PVOID pCompareData,
                           PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                           UINT32 accessType, PVOID* ppUserData);
    KSSTATUS (*AcquireObject)(ISCOM_2* pThis, PVOID pUserData, UINT32 accessType);
    KSSTATUS (*ReleaseObject)(ISCOM_2* pThis, PVOID pUserData);
    KSSTATUS (*IncrementReference)(ISCOM_2* pThis, PVOID pUserData);
    KSSTATUS (*DecrementReference)(ISCOM_2* pThis, PVOID pUserData);
    KSSTATUS (*GetObjectSecurityContext)(ISCOM_2* pThis, PVOID pUserData, PSCHANDLE phSC);
    KSSTATUS (*GetObjectStats)(ISCOM_2* pThis, SCHANDLE hSC, PUINT32 pObjectsAllocated,
                               PUINT32 pObjectsInUse, PUINT32 pObjectsPreallocated);
} ISCOM_2Vtbl;

struct ISCOM_2 {
    const ISCOM_2Vtbl* lpVtbl;
};

KS_STATIC_ASSERT(sizeof(IOMVtbl) == 20 * sizeof(void*), "IOM has 20 slots");
KS_STATIC_ASSERT(sizeof(IOM_2Vtbl) == 21 * sizeof(void*), "IOM_2 has 21 slots");
KS_STATIC_ASSERT(sizeof(ISCOMVtbl) == 20 * sizeof(void*), "ISCOM has 20 slots");
KS_STATIC_ASSERT(sizeof(ISCOM_2Vtbl) == 17 * sizeof(void*), "ISCOM_2 has 17 slots");
KS_STATIC_ASSERT(offsetof(IOMVtbl, FindObject) == 10 * sizeof(void*), "IOM slot 10");
KS_STATIC_ASSERT(offsetof(IOM_2Vtbl, GetRawObjectHandle) == 10 * sizeof(void*), "IOM_2 slot 10");
KS_STATIC_ASSERT(offsetof(IOM_2Vtbl, GetObjectStats) == 20 * sizeof(void*), "IOM_2 slot 20");
KS_STATIC_ASSERT(offsetof(ISCOMVtbl, GetObjectSecurityContext) == 15 * sizeof(void*), "slot 15");
KS_STATIC_ASSERT(offsetof(ISCOM_2Vtbl, GetObjectStats) == 16 * sizeof(void*), "slot 16");
KS_STATIC_ASSERT(sizeof(ScanData) == 7 * sizeof(void*), "ScanData is seven handles");

KS_EXTERN_C_END

#endif /* KSPL_OM_H */
