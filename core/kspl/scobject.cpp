// scobject.cpp - the security-context object manager (ISCOM, ISCOM_2).
//
// Each security context gets its own inner store, made on the context's
// first CreateObject and kept as the context's attribute of this manager's
// kind with the security attribute manager; the attribute manager releases
// the store when the attribute goes (the context ends, or the manager's
// kind is deregistered at its last Release). Objects of a context store
// carry an SCHeader in front of the caller's data; callers only see the
// area behind it.
//
// The manager takes no lock of its own. An operation references the
// context's attribute (shared, or exclusive while it has just created it)
// for its own duration only. Object access is never held across the giving
// back of an attribute: it is released before and taken again after, so a
// thread waiting for an object's lock never holds an attribute another
// thread needs to finish with that object.
#include "scobject_int.h"

#include "object_int.h"

KSPL_SOURCE_UNIT("scobject");

namespace {

// Passed as init data to a context store's CreateObject.
struct HandleInitShim {
    PVOID pInitData;
    PKSO_OBJECT_INIT_ROUTINE pInitRoutine;
    SCHANDLE hSC;
    SCObjectInfo* soi;
};

// Passed as compare data to a context store's lookups.
struct HandleCompareShim {
    PVOID pCompareData;
    PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine;
};

// Passed as init data to SACreate.
struct InitAttr {
    SCObjectInfo* pSCOInfo;
    IOM* pIOM;
};

constexpr UINT32 kAttrExclusive = SA_ACCESS_EXCLUSIVE;
constexpr UINT32 kAttrShared = SA_ACCESS_SHARED;

inline SCObjectInfo* SCInfo(void* pThis) { return static_cast<SCObjectInfo*>(pThis); }
inline ISA* Sa(SCObjectInfo* soi) { return soi->pISA; }

inline PVOID UserFromObject(PVOID pObject) {
    return static_cast<unsigned char*>(pObject) + sizeof(SCHeader);
}
inline PVOID ObjectFromUser(PVOID pUserData) {
    return static_cast<unsigned char*>(pUserData) - sizeof(SCHeader);
}
inline SCHeader* HeaderOf(PVOID pObject) { return static_cast<SCHeader*>(pObject); }

inline IOM* StoreOf(PAttribute pAttribute) {
    return static_cast<SecurityAttribute*>(pAttribute->pData)->pSAOMI;
}

// The store that owns an object, reached through the store's own slot
// header in front of the object.
inline IOM* OwningStore(PVOID pObject) {
    return reinterpret_cast<IOM*>(ObFromUser(pObject)->blockStart->oi);
}

bool IsAllContexts(SCHANDLE hSC) {
    return hSC.hTypeId == reinterpret_cast<HANDLE>(~uintptr_t{0}) &&
           hSC.hId == reinterpret_cast<HANDLE>(~uintptr_t{0});
}

}  // namespace

// ------------------------------------------------------------------ helpers

static KSSTATUS _GetSessionAttribute(SCObjectInfo* soi, SCHANDLE hSC, PAttribute* ppAttribute) {
    if (Sa(soi) == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    return Sa(soi)->lpVtbl->SAReference(Sa(soi), hSC, soi->hAttribute, kAttrShared, ppAttribute);
}

// The context stores' delete routine: the caller's, on the caller's area.
static KSSTATUS _DeleteObjectShim(PVOID pObjectData) {
    SCHeader* header = HeaderOf(pObjectData);
    if (header->pfDelete == nullptr) return 0;
    return header->pfDelete(UserFromObject(pObjectData));
}

// Called by the attribute manager inside SACreate, once per new store.
static KSSTATUS _InitializeAttribute(PAttribute pAttribute, void* pInitData) {
    auto* init = static_cast<InitAttr*>(pInitData);
    SCObjectInfo* soi = init->pSCOInfo;
    static_cast<SecurityAttribute*>(pAttribute->pData)->pSAOMI = init->pIOM;
    return init->pIOM->lpVtbl->Initialize(init->pIOM, soi->objectSize, soi->objectsPerBlock,
                                          soi->accessLevel, soi->hashSize, _DeleteObjectShim,
                                          nullptr, nullptr, soi->permBlocks);
}

static KSSTATUS _CreateSessionAttribute(SCObjectInfo* soi, SCHANDLE hSC, IOM* pIOM,
                                        PAttribute* ppAttribute, PUINT32 pAccessMode) {
    if (Sa(soi) == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    InitAttr init{soi, pIOM};
    UINT32 openMode = 0;
    KSSTATUS status = Sa(soi)->lpVtbl->SACreate(Sa(soi), hSC, soi->hAttribute, &init,
                                                _InitializeAttribute, kAttrExclusive, kAttrShared,
                                                ppAttribute, &openMode);
    if (KS_IS_ERROR(status)) return status;
    if (openMode == SA_OPENED_EXISTING) {
        // Another thread made the context's store first; ours goes.
        pIOM->lpVtbl->Release(pIOM);
        *pAccessMode = kAttrShared;
    } else {
        *pAccessMode = kAttrExclusive;
    }
    return status;
}

static KSSTATUS _ReleaseSessionAttribute(SCObjectInfo* soi, PAttribute pAttribute,
                                         UINT32 accessMode) {
    return Sa(soi)->lpVtbl->SADereference(Sa(soi), accessMode, pAttribute);
}

// Called by the attribute manager when a context's attribute goes.
static void _ReleaseAttribute(PAttribute pAttribute) {
    IOM* store = StoreOf(pAttribute);
    if (store != nullptr) store->lpVtbl->Release(store);
}

static KSSTATUS _InitializeObjectShim(PVOID pObjectData, PVOID pInitData) {
    auto* shim = static_cast<HandleInitShim*>(pInitData);
    KSSTATUS status = 0;
    if (shim->pInitRoutine != nullptr) {
        status = shim->pInitRoutine(UserFromObject(pObjectData), shim->pInitData);
        if (KS_IS_ERROR(status)) return status;
    }
    SCHeader* header = HeaderOf(pObjectData);
    header->hSecurityContext = shim->hSC;
    header->pfDelete = shim->soi->pfDelete;
    return status;
}

// Used by create: without a compare routine nothing matches, so a create
// without one always makes a new object.
static BOOLEAN _CompareObjectDefaultNone(PVOID pObjectData, PVOID pCompareShim) {
    auto* shim = static_cast<HandleCompareShim*>(pCompareShim);
    if (shim->pCompareRoutine == nullptr) return FALSE;
    return shim->pCompareRoutine(UserFromObject(pObjectData), shim->pCompareData);
}

// Used by enumerate and find: without a compare routine everything matches.
static BOOLEAN _CompareObjectDefaultAny(PVOID pObjectData, PVOID pCompareShim) {
    auto* shim = static_cast<HandleCompareShim*>(pCompareShim);
    if (shim->pCompareRoutine == nullptr) return TRUE;
    return shim->pCompareRoutine(UserFromObject(pObjectData), shim->pCompareData);
}

// Gives the attribute back after a store operation returned pObject with
// `access` held: the object's access is released first and taken again
// afterwards.
static void HandOver(SCObjectInfo* soi, IOM* store, PVOID pObject, PAttribute pAttribute,
                     UINT32 attributeMode, UINT32 access) {
    if (access != 0) store->lpVtbl->ReleaseObject(store, pObject);
    _ReleaseSessionAttribute(soi, pAttribute, attributeMode);
    if (access != 0) store->lpVtbl->AcquireObject(store, pObject, access);
}

// ------------------------------------------------------- reference counting

UINT32 SCObjectAddRef(void* pThis) {
    SCObjectInfo* soi = SCInfo(pThis);
    pIKspl->lpVtbl->KsoInterlockedIncrement(pIKspl, &g_ulCount);
    return pIKspl->lpVtbl->KsoInterlockedIncrement(pIKspl, &soi->cReference);
}

UINT32 SCObjectRelease(void* pThis) {
    SCObjectInfo* soi = SCInfo(pThis);
    const UINT32 live = pIKspl->lpVtbl->KsoInterlockedDecrement(pIKspl, &g_ulCount);
    UINT32 remaining = pIKspl->lpVtbl->KsoInterlockedDecrement(pIKspl, &soi->cReference);
    // Neither count wraps: a release without its reference stops here.
    KS_DCHECK(live != ~0u && remaining != ~0u);
    if (remaining != 0) return remaining;
    if (soi->pISA != nullptr) {
        // Deregistering removes this manager's attribute from every context,
        // which releases every context store.
        soi->pISA->lpVtbl->SADeregisterAttribute(soi->pISA, soi->hAttribute);
        soi->pISA->lpVtbl->Release(soi->pISA);
        soi->pISA = nullptr;
    }
    pIKspl->lpVtbl->KsoFreeMemory(pIKspl, soi);
    return 0;
}

KSSTATUS SCObjectQueryInterface(void* pThis, const GUID* pIId, void** ppInterface) {
    if (pThis == nullptr || ppInterface == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    *ppInterface = nullptr;
    SCObjectInfo* soi = SCInfo(pThis);
    if (KsGuidEqual(pIId, &IID_ISCObjectManager_1)) {
        __atomic_store_n(&soi->lpVtbl, static_cast<const void*>(&vtSCObject), __ATOMIC_RELEASE);
    } else if (KsGuidEqual(pIId, &IID_ISCObjectManager_2)) {
        __atomic_store_n(&soi->lpVtbl, static_cast<const void*>(&vtSCObject_2), __ATOMIC_RELEASE);
    } else if (!KsGuidEqual(pIId, &IID_IUnknown)) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_NOT_SUPPORTED);
    }
    *ppInterface = pThis;
    // Both tables share the AddRef slot.
    SCObjectAddRef(pThis);
    return 0;
}

// ----------------------------------------------------------- initialisation

KSSTATUS SCObjectInitialize(void* pThis, PGUID pComponentId, UINT32 objectSize,
                            UINT16 objectsPerBlock, UINT32 accessLevel, UINT32 hashSize,
                            PKSO_OBJECT_ROUTINE pDeleteRoutine,
                            PKSO_OBJECT_ROUTINE /*pDeallocateRoutine*/,
                            PKSO_SC_CLEANUP_ROUTINE pSCCleanupRoutine, UINT32 permBlocks) {
    SCObjectInfo* soi = SCInfo(pThis);
    // A second Initialize would lose the first registration.
    if (soi == nullptr || pComponentId == nullptr || soi->pISA != nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    UINT32 level = accessLevel & 0x0FFFFFFFu;
    if ((level != 0 && level != 2 && level != 3) || objectsPerBlock >= 256) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    const GUID* iid =
        (accessLevel & 2u) != 0 ? &IID_IContextAttribute_1 : &IID_IPassiveContextAttribute_1;
    ISA* sa = nullptr;
    KSSTATUS status = OrlmCreateInstance(&CLSID_SecurityAttributeManager, nullptr, iid,
                                         reinterpret_cast<void**>(&sa));
    if (KS_IS_ERROR(status)) return status;
    HANDLE hAttribute = nullptr;
    status = sa->lpVtbl->SARegisterAttribute(sa, pComponentId, sizeof(SecurityAttribute),
                                             pSCCleanupRoutine, _ReleaseAttribute, &hAttribute);
    if (KS_IS_ERROR(status)) {
        sa->lpVtbl->Release(sa);
        return status;
    }
    soi->objectsPerBlock = objectsPerBlock;
    soi->accessLevel = accessLevel;
    soi->objectSize = objectSize + static_cast<UINT32>(sizeof(SCHeader));
    soi->hashSize = hashSize;
    soi->pfDelete = pDeleteRoutine;
    soi->permBlocks = permBlocks;
    soi->hAttribute = hAttribute;
    soi->pISA = sa;
    return status;
}

// ----------------------------------------------------- creation and lookups

KSSTATUS SCObjectCreate(void* pThis, SCHANDLE hSC, PVOID pInitData,
                        PKSO_OBJECT_INIT_ROUTINE pInitRoutine, PVOID pCompareData,
                        PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                        UINT32 createAccess, UINT32 openAccess, PVOID* ppUserData,
                        PUINT32 pOpenedMode) {
    SCObjectInfo* soi = SCInfo(pThis);
    if (ppUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    *ppUserData = nullptr;

    PAttribute pAttribute = nullptr;
    UINT32 attributeMode = kAttrShared;
    KSSTATUS status = _GetSessionAttribute(soi, hSC, &pAttribute);
    if (KS_IS_ERROR(status)) {
        if (KS_STATUS_CODE(status) != 3) return status;
        // The context has no store yet: make one and offer it as the
        // context's attribute; a concurrent creator may win.
        IOM* pIOM = nullptr;
        status = OrlmCreateInstance(&CLSID_ObjectManagerDataStore, nullptr, &IID_IObjectManager_1,
                                    reinterpret_cast<void**>(&pIOM));
        if (KS_IS_ERROR(status)) return status;
        status = _CreateSessionAttribute(soi, hSC, pIOM, &pAttribute, &attributeMode);
        if (KS_IS_ERROR(status)) {
            pIOM->lpVtbl->Release(pIOM);
            return status;
        }
    }

    IOM* store = StoreOf(pAttribute);
    HandleInitShim initShim{pInitData, pInitRoutine, hSC, soi};
    HandleCompareShim compareShim{pCompareData, pCompareRoutine};
    PVOID pObject = nullptr;
    UINT32 openedMode = 0;
    status = store->lpVtbl->CreateObject(store, &initShim, _InitializeObjectShim, &compareShim,
                                         _CompareObjectDefaultNone, CompareIndex, createAccess,
                                         openAccess, &pObject, &openedMode);
    if (!KS_IS_ERROR(status) && openedMode == OM_OPENED_CREATED) {
        HandOver(soi, store, pObject, pAttribute, attributeMode, createAccess);
    } else if (openedMode == OM_OPENED_EXISTING && openAccess != 0) {
        store->lpVtbl->ReleaseObject(store, pObject);
        _ReleaseSessionAttribute(soi, pAttribute, attributeMode);
        if (KS_IS_ERROR(status)) return status;
        store->lpVtbl->AcquireObject(store, pObject, openAccess);
    } else {
        _ReleaseSessionAttribute(soi, pAttribute, attributeMode);
        if (KS_IS_ERROR(status)) return status;
    }
    *ppUserData = UserFromObject(pObject);
    if (pOpenedMode != nullptr) *pOpenedMode = openedMode;
    return status;
}

KSSTATUS SCObjectReferenceByHandle(void* pThis, SCHANDLE hSC, HANDLE handle, UINT32 accessType,
                                   PVOID* ppUserData) {
    SCObjectInfo* soi = SCInfo(pThis);
    if (ppUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    *ppUserData = nullptr;
    PAttribute pAttribute = nullptr;
    KSSTATUS status = _GetSessionAttribute(soi, hSC, &pAttribute);
    if (KS_IS_ERROR(status)) return status;
    IOM* store = StoreOf(pAttribute);
    PVOID pObject = nullptr;
    status = store->lpVtbl->ReferenceObjectByHandle(store, handle, accessType, &pObject);
    if (KS_IS_ERROR(status)) {
        _ReleaseSessionAttribute(soi, pAttribute, kAttrShared);
        return status;
    }
    HandOver(soi, store, pObject, pAttribute, kAttrShared, accessType);
    *ppUserData = UserFromObject(pObject);
    return status;
}

// One context's objects through the store's own cursor.
static KSSTATUS EnumerateContext(SCObjectInfo* soi, SCHANDLE hSC, PHANDLE pscanHandle,
                                 PVOID pCompareData, PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                                 UINT32 accessType, PVOID* ppUserData, const char* function) {
    PAttribute pAttribute = nullptr;
    if (KS_IS_ERROR(_GetSessionAttribute(soi, hSC, &pAttribute))) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_NO_MORE, function);
    }
    IOM* store = StoreOf(pAttribute);
    HandleCompareShim compareShim{pCompareData, pCompareRoutine};
    PVOID pObject = nullptr;
    KSSTATUS status = store->lpVtbl->EnumerateObjects(store, pscanHandle, &compareShim,
                                                      _CompareObjectDefaultAny, accessType,
                                                      &pObject);
    if (KS_IS_ERROR(status)) {
        _ReleaseSessionAttribute(soi, pAttribute, kAttrShared);
        return status;
    }
    HandOver(soi, store, pObject, pAttribute, kAttrShared, accessType);
    *ppUserData = UserFromObject(pObject);
    return status;
}

KSSTATUS SCObjectEnumerate(void* pThis, SCHANDLE hSC, PHANDLE pscanHandle, PVOID pCompareData,
                           PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType,
                           PVOID* ppUserData) {
    if (ppUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    *ppUserData = nullptr;
    return EnumerateContext(SCInfo(pThis), hSC, pscanHandle, pCompareData, pCompareRoutine,
                            accessType, ppUserData, __func__);
}

KSSTATUS SCObjectEnumerate2(void* pThis, SCHANDLE hSC, ScanData* pScanData, PVOID pCompareData,
                            PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType,
                            PVOID* ppUserData) {
    SCObjectInfo* soi = SCInfo(pThis);
    if (ppUserData == nullptr || pScanData == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    *ppUserData = nullptr;
    if (!IsAllContexts(hSC)) {
        return EnumerateContext(soi, hSC, &pScanData->hEnumObject, pCompareData, pCompareRoutine,
                                accessType, ppUserData, __func__);
    }
    ISA* sa = Sa(soi);
    if (sa == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);

    auto nextContext = [&](PAttribute* ppAttribute) {
        return sa->lpVtbl->SAEnumerate(sa, nullptr, soi->hAttribute, &pScanData->hEnumSCType,
                                       &pScanData->hEnumSC, nullptr, nullptr, kAttrShared,
                                       ppAttribute);
    };
    PAttribute pAttribute = nullptr;
    KSSTATUS status;
    if (pScanData->hEnumObject != nullptr) {
        status = sa->lpVtbl->SAReference(sa, pScanData->hLastSC, soi->hAttribute, kAttrShared,
                                         &pAttribute);
        if (KS_IS_ERROR(status) && KS_STATUS_CODE(status) == 3) {
            // The context in progress ended meanwhile: go on with the next.
            pScanData->hEnumObject = nullptr;
            status = nextContext(&pAttribute);
        }
    } else {
        status = nextContext(&pAttribute);
    }
    HandleCompareShim compareShim{pCompareData, pCompareRoutine};
    PVOID pObject = nullptr;
    IOM* store = nullptr;
    for (;;) {
        // The attribute manager's end of contexts is the end of the scan.
        if (KS_IS_ERROR(status)) return status;
        pScanData->hLastSC = pAttribute->hSC;
        store = StoreOf(pAttribute);
        status = store->lpVtbl->EnumerateObjects(store, &pScanData->hEnumObject, &compareShim,
                                                 _CompareObjectDefaultAny, accessType, &pObject);
        if (!KS_IS_ERROR(status)) break;
        sa->lpVtbl->SADereference(sa, kAttrShared, pAttribute);
        if (KS_STATUS_CODE(status) != KSPL_OM_CODE_NO_MORE) return status;
        pScanData->hEnumObject = nullptr;
        status = nextContext(&pAttribute);
    }
    HandOver(soi, store, pObject, pAttribute, kAttrShared, accessType);
    *ppUserData = UserFromObject(pObject);
    return status;
}

KSSTATUS SCObjectFind(void* pThis, SCHANDLE hSC, PVOID pCompareData,
                      PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                      UINT32 accessType, PVOID* ppUserData) {
    SCObjectInfo* soi = SCInfo(pThis);
    if (ppUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    *ppUserData = nullptr;
    PAttribute pAttribute = nullptr;
    if (KS_IS_ERROR(_GetSessionAttribute(soi, hSC, &pAttribute))) {
        // A context without a store simply has nothing to find.
        return KSPL_OM_STATUS_NO_MORE_OBJECTS;
    }
    IOM* store = StoreOf(pAttribute);
    HandleCompareShim compareShim{pCompareData, pCompareRoutine};
    PVOID pObject = nullptr;
    KSSTATUS status = store->lpVtbl->FindObject(store, &compareShim, _CompareObjectDefaultAny,
                                                CompareIndex, accessType, &pObject);
    if (KS_IS_ERROR(status)) {
        _ReleaseSessionAttribute(soi, pAttribute, kAttrShared);
        return status;
    }
    HandOver(soi, store, pObject, pAttribute, kAttrShared, accessType);
    *ppUserData = UserFromObject(pObject);
    return status;
}

// ------------------------------------------------- operations on held objects
// These go straight to the store that owns the object; neither the manager
// nor the attribute is consulted.

KSSTATUS SCObjectDelete(void* /*pThis*/, PVOID pUserData, UINT32 accessType) {
    if (pUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    PVOID pObject = ObjectFromUser(pUserData);
    IOM* store = OwningStore(pObject);
    return store->lpVtbl->DeleteObject(store, pObject, accessType);
}

KSSTATUS SCObjectDereference(void* /*pThis*/, PVOID pUserData, UINT32 accessType) {
    if (pUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    PVOID pObject = ObjectFromUser(pUserData);
    IOM* store = OwningStore(pObject);
    return store->lpVtbl->DereferenceObject(store, pObject, accessType);
}

KSSTATUS SCObjectGetHandle(void* /*pThis*/, PVOID pUserData, PHANDLE phandle) {
    if (pUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    PVOID pObject = ObjectFromUser(pUserData);
    IOM* store = OwningStore(pObject);
    return store->lpVtbl->GetObjectHandle(store, pObject, phandle);
}

KSSTATUS SCObjectAcquireAccess(void* /*pThis*/, PVOID pUserData, UINT32 accessType) {
    if (pUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    PVOID pObject = ObjectFromUser(pUserData);
    IOM* store = OwningStore(pObject);
    return store->lpVtbl->AcquireObject(store, pObject, accessType);
}

KSSTATUS SCObjectReleaseAccess(void* /*pThis*/, PVOID pUserData) {
    if (pUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    PVOID pObject = ObjectFromUser(pUserData);
    IOM* store = OwningStore(pObject);
    return store->lpVtbl->ReleaseObject(store, pObject);
}

KSSTATUS SCObjectIncrement(void* /*pThis*/, PVOID pUserData) {
    if (pUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    PVOID pObject = ObjectFromUser(pUserData);
    IOM* store = OwningStore(pObject);
    return store->lpVtbl->IncrementReference(store, pObject);
}

KSSTATUS SCObjectDecrement(void* /*pThis*/, PVOID pUserData) {
    if (pUserData == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    PVOID pObject = ObjectFromUser(pUserData);
    IOM* store = OwningStore(pObject);
    return store->lpVtbl->DecrementReference(store, pObject);
}

KSSTATUS SCObjectGetSCHandle(void* /*pThis*/, PVOID pUserData, PSCHANDLE phSC) {
    if (pUserData == nullptr || phSC == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    *phSC = HeaderOf(ObjectFromUser(pUserData))->hSecurityContext;
    return 0;
}

// ---------------------------------------------------- statistics, unsupported

KSSTATUS SCObjectGetStats2(void* pThis, SCHANDLE hSC, PUINT32 pObjectsAllocated,
                           PUINT32 pObjectsInUse, PUINT32 pObjectsPreallocated) {
    SCObjectInfo* soi = SCInfo(pThis);
    PAttribute pAttribute = nullptr;
    if (KS_IS_ERROR(_GetSessionAttribute(soi, hSC, &pAttribute))) {
        if (pObjectsAllocated != nullptr) *pObjectsAllocated = 0;
        if (pObjectsInUse != nullptr) *pObjectsInUse = 0;
        if (pObjectsPreallocated != nullptr) *pObjectsPreallocated = 0;
        return 0;
    }
    // Read while the attribute still keeps the store alive.
    IOM* store = StoreOf(pAttribute);
    KSSTATUS status = store->lpVtbl->GetObjectStats(store, pObjectsAllocated, pObjectsInUse,
                                                    pObjectsPreallocated);
    _ReleaseSessionAttribute(soi, pAttribute, kAttrShared);
    return status;
}

KSSTATUS SCObjectGetStats(void* /*pThis*/, PUINT32, PUINT32, PUINT32) {
    return KSPL_OM_STATUS(KSPL_OM_CODE_NO_STATS);
}

KSSTATUS SCObjectAllocate(void* /*pThis*/, PVOID* /*ppUserData*/) {
    return KSPL_OM_STATUS(KSPL_OM_CODE_NOT_OFFERED);
}

KSSTATUS SCObjectDeallocate(void* /*pThis*/, PVOID /*pUserData*/, UINT32 /*accessType*/) {
    return KSPL_OM_STATUS(KSPL_OM_CODE_NOT_OFFERED);
}

KSSTATUS SCObjectOpen(void* /*pThis*/, PVOID, PKSO_OBJECT_INIT_ROUTINE, PVOID,
                      PKSO_OBJECT_COMPARE_ROUTINE, UINT32, UINT32, UINT32, PVOID*, PUINT32) {
    return KSPL_OM_STATUS(KSPL_OM_CODE_NOT_OFFERED);
}

// ------------------------------------------------------------------- tables

namespace {

// Adapts a routine taking the record as void* to the exact type of a table
// slot (ISCOM* or ISCOM_2* first), so that no call goes through a
// mismatched function type.
template <auto Fn, typename SlotType>
struct Slot;
template <auto Fn, typename R, typename I, typename... A>
struct Slot<Fn, R (*)(I*, A...)> {
    static R Call(I* pThis, A... args) { return Fn(static_cast<void*>(pThis), args...); }
};
#define SC_SLOT(Vtbl, member, fn) &Slot<fn, decltype(Vtbl::member)>::Call

}  // namespace

const UINT32 g_SCObjectInfoSize = sizeof(SCObjectInfo);

const ISCOMVtbl vtSCObject = {
    SC_SLOT(ISCOMVtbl, QueryInterface, SCObjectQueryInterface),
    SC_SLOT(ISCOMVtbl, AddRef, SCObjectAddRef),
    SC_SLOT(ISCOMVtbl, Release, SCObjectRelease),
    SC_SLOT(ISCOMVtbl, Initialize, SCObjectInitialize),
    SC_SLOT(ISCOMVtbl, CreateObject, SCObjectCreate),
    SC_SLOT(ISCOMVtbl, DeleteObject, SCObjectDelete),
    SC_SLOT(ISCOMVtbl, ReferenceObjectByHandle, SCObjectReferenceByHandle),
    SC_SLOT(ISCOMVtbl, DereferenceObject, SCObjectDereference),
    SC_SLOT(ISCOMVtbl, EnumerateObjects, SCObjectEnumerate),
    SC_SLOT(ISCOMVtbl, GetObjectHandle, SCObjectGetHandle),
    SC_SLOT(ISCOMVtbl, FindObject, SCObjectFind),
    SC_SLOT(ISCOMVtbl, AcquireObject, SCObjectAcquireAccess),
    SC_SLOT(ISCOMVtbl, ReleaseObject, SCObjectReleaseAccess),
    SC_SLOT(ISCOMVtbl, IncrementReference, SCObjectIncrement),
    SC_SLOT(ISCOMVtbl, DecrementReference, SCObjectDecrement),
    SC_SLOT(ISCOMVtbl, GetObjectSecurityContext, SCObjectGetSCHandle),
    SC_SLOT(ISCOMVtbl, AllocateObject, SCObjectAllocate),
    SC_SLOT(ISCOMVtbl, DeallocateObject, SCObjectDeallocate),
    SC_SLOT(ISCOMVtbl, OpenObject, SCObjectOpen),
    SC_SLOT(ISCOMVtbl, GetObjectStats, SCObjectGetStats),
};

const ISCOM_2Vtbl vtSCObject_2 = {
    SC_SLOT(ISCOM_2Vtbl, QueryInterface, SCObjectQueryInterface),
    SC_SLOT(ISCOM_2Vtbl, AddRef, SCObjectAddRef),
    SC_SLOT(ISCOM_2Vtbl, Release, SCObjectRelease),
    SC_SLOT(ISCOM_2Vtbl, Initialize, SCObjectInitialize),
    SC_SLOT(ISCOM_2Vtbl, CreateObject, SCObjectCreate),
    SC_SLOT(ISCOM_2Vtbl, DeleteObject, SCObjectDelete),
    SC_SLOT(ISCOM_2Vtbl, ReferenceObjectByHandle, SCObjectReferenceByHandle),
    SC_SLOT(ISCOM_2Vtbl, DereferenceObject, SCObjectDereference),
    SC_SLOT(ISCOM_2Vtbl, EnumerateObjects, SCObjectEnumerate2),
    SC_SLOT(ISCOM_2Vtbl, GetObjectHandle, SCObjectGetHandle),
    SC_SLOT(ISCOM_2Vtbl, FindObject, SCObjectFind),
    SC_SLOT(ISCOM_2Vtbl, AcquireObject, SCObjectAcquireAccess),
    SC_SLOT(ISCOM_2Vtbl, ReleaseObject, SCObjectReleaseAccess),
    SC_SLOT(ISCOM_2Vtbl, IncrementReference, SCObjectIncrement),
    SC_SLOT(ISCOM_2Vtbl, DecrementReference, SCObjectDecrement),
    SC_SLOT(ISCOM_2Vtbl, GetObjectSecurityContext, SCObjectGetSCHandle),
    SC_SLOT(ISCOM_2Vtbl, GetObjectStats, SCObjectGetStats2),
};
