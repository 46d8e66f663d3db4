// factory.cpp - the object-manager class factory, the IOM and IOM_2 tables,
// and the reference counting of store instances.
//
// The factory is one static record that lives as long as the module. The
// interface tables are static constants, complete before any instance can
// be handed out. One record serves both interface versions through its
// single table pointer; a holder may switch it only while it is the sole
// holder, since the switch changes what every holder sees.
#include "factory_int.h"

#include "object_int.h"
#include "scobject_int.h"

KSPL_SOURCE_UNIT("factory");

namespace {

// Counter updates go through the global instance; before the library has
// made it (a direct call ahead of the first class-object request) the same
// atomic operation is done in place.
UINT32 GlobalIncrement(UINT32* counter) {
    IKspl* k = pIKspl;
    return k != nullptr ? k->lpVtbl->KsoInterlockedIncrement(k, counter) : KsAtomicAdd(counter, 1u);
}
UINT32 GlobalDecrement(UINT32* counter) {
    IKspl* k = pIKspl;
    return k != nullptr ? k->lpVtbl->KsoInterlockedDecrement(k, counter)
                        : KsAtomicSubChecked(counter, 1u);
}

UINT32 OMFactoryAddRef(void* pThis) {
    return GlobalIncrement(&static_cast<CFInstance*>(pThis)->cReference);
}

UINT32 OMFactoryRelease(void* pThis) {
    return GlobalDecrement(&static_cast<CFInstance*>(pThis)->cReference);
}

UINT32 OMFactoryLockServer(void* pThis, BOOLEAN fLock) {
    auto* cf = static_cast<CFInstance*>(pThis);
    if (fLock == 1) {
        GlobalIncrement(&cf->cLock);
    } else {
        GlobalDecrement(&cf->cLock);
    }
    return 0;
}

// Allocates a zeroed record of `size` bytes and lets `query` present it; a
// failed query gives the record back.
KSSTATUS CreateRecord(UINT32 size, KSSTATUS (*query)(void*, const GUID*, void**),
                      const GUID* pIId, void** ppInterface) {
    static constexpr char kFn[] = "OMFactoryCreateInstance";
    void* record = pIKspl != nullptr ? pIKspl->lpVtbl->KsoAllocNonPagedMemory(pIKspl, size)
                                     : nullptr;
    if (record == nullptr) return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_NO_MEMORY, kFn);
    pIKspl->lpVtbl->KsoZeroMemory(pIKspl, record, size);
    KSSTATUS status = query(record, pIId, ppInterface);
    if (KS_IS_ERROR(status)) {
        pIKspl->lpVtbl->KsoFreeMemory(pIKspl, record);
        *ppInterface = nullptr;
    }
    return status;
}

UINT32 OMFactoryCreateInstance(void* /*pThis*/, PORLM_IUnknown pUnkOuter, const GUID* pIId,
                               void** ppInterface) {
    static constexpr char kFn[] = "OMFactoryCreateInstance";
    if (ppInterface == nullptr || pUnkOuter != nullptr) {
        return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_INVALID_PARAM, kFn);
    }
    *ppInterface = nullptr;
    if (KsGuidEqual(pIId, &IID_IObjectManager_1) || KsGuidEqual(pIId, &IID_IObjectManager_2)) {
        return CreateRecord(sizeof(ObjectInfo), ObjectQueryInterface, pIId, ppInterface);
    }
    if (KsGuidEqual(pIId, &IID_ISCObjectManager_1) || KsGuidEqual(pIId, &IID_ISCObjectManager_2)) {
        return CreateRecord(g_SCObjectInfoSize, SCObjectQueryInterface, pIId, ppInterface);
    }
    return KSPL_STATUS_AS(KSPL_OM_FACILITY, KSPL_OM_CODE_NOT_SUPPORTED, kFn);
}

const ORLM_IClassFactoryVtbl vtOmCF = {
    OMFactoryQueryInterface, OMFactoryAddRef, OMFactoryRelease, OMFactoryCreateInstance,
    OMFactoryLockServer,
};

// Adapts an internal routine taking the record as void* to the exact type
// of a table slot (IOM* or IOM_2* first), so that no call goes through a
// mismatched function type.
template <auto Fn, typename SlotType>
struct Slot;
template <auto Fn, typename R, typename I, typename... A>
struct Slot<Fn, R (*)(I*, A...)> {
    static R Call(I* pThis, A... args) { return Fn(static_cast<void*>(pThis), args...); }
};
#define OM_SLOT(Vtbl, member, fn) &Slot<fn, decltype(Vtbl::member)>::Call

}  // namespace

CFInstance IOmClassFactory = {&vtOmCF, 0, 0};

const IOMVtbl vtObject = {
    OM_SLOT(IOMVtbl, QueryInterface, ObjectQueryInterface),
    OM_SLOT(IOMVtbl, AddRef, ObjectAddRef),
    OM_SLOT(IOMVtbl, Release, ObjectRelease),
    OM_SLOT(IOMVtbl, Initialize, ObjectInitialize),
    OM_SLOT(IOMVtbl, CreateObject, ObjectCreate),
    OM_SLOT(IOMVtbl, DeleteObject, ObjectDelete),
    OM_SLOT(IOMVtbl, ReferenceObjectByHandle, ObjectReferenceByHandle),
    OM_SLOT(IOMVtbl, DereferenceObject, ObjectDereference),
    OM_SLOT(IOMVtbl, EnumerateObjects, ObjectEnumerate),
    OM_SLOT(IOMVtbl, GetObjectHandle, ObjectGetHandle),
    OM_SLOT(IOMVtbl, FindObject, ObjectFind),
    OM_SLOT(IOMVtbl, AcquireObject, ObjectAcquireAccess),
    OM_SLOT(IOMVtbl, ReleaseObject, ObjectReleaseAccess),
    OM_SLOT(IOMVtbl, IncrementReference, ObjectIncrement),
    OM_SLOT(IOMVtbl, DecrementReference, ObjectDecrement),
    OM_SLOT(IOMVtbl, CreateObjectByHandle, ObjectCreateByHandle),
    OM_SLOT(IOMVtbl, AllocateObject, ObjectAllocate),
    OM_SLOT(IOMVtbl, DeallocateObject, ObjectDeallocate),
    OM_SLOT(IOMVtbl, OpenObject, ObjectOpen),
    OM_SLOT(IOMVtbl, GetObjectStats, ObjectGetStats),
};

const IOM_2Vtbl vtObject_2 = {
    OM_SLOT(IOM_2Vtbl, QueryInterface, ObjectQueryInterface),
    OM_SLOT(IOM_2Vtbl, AddRef, ObjectAddRef),
    OM_SLOT(IOM_2Vtbl, Release, ObjectRelease),
    OM_SLOT(IOM_2Vtbl, Initialize, ObjectInitialize),
    OM_SLOT(IOM_2Vtbl, CreateObject, ObjectCreate),
    OM_SLOT(IOM_2Vtbl, DeleteObject, ObjectDelete),
    OM_SLOT(IOM_2Vtbl, ReferenceObjectByHandle, ObjectReferenceByHandle2),
    OM_SLOT(IOM_2Vtbl, DereferenceObject, ObjectDereference),
    OM_SLOT(IOM_2Vtbl, EnumerateObjects, ObjectEnumerate),
    OM_SLOT(IOM_2Vtbl, GetObjectHandle, ObjectGetHandle2),
    OM_SLOT(IOM_2Vtbl, GetRawObjectHandle, ObjectGetHandle),
    OM_SLOT(IOM_2Vtbl, FindObject, ObjectFind),
    OM_SLOT(IOM_2Vtbl, AcquireObject, ObjectAcquireAccess),
    OM_SLOT(IOM_2Vtbl, ReleaseObject, ObjectReleaseAccess),
    OM_SLOT(IOM_2Vtbl, IncrementReference, ObjectIncrement),
    OM_SLOT(IOM_2Vtbl, DecrementReference, ObjectDecrement),
    OM_SLOT(IOM_2Vtbl, CreateObjectByHandle, ObjectCreateByHandle),
    OM_SLOT(IOM_2Vtbl, AllocateObject, ObjectAllocate),
    OM_SLOT(IOM_2Vtbl, DeallocateObject, ObjectDeallocate),
    OM_SLOT(IOM_2Vtbl, OpenObject, ObjectOpen),
    OM_SLOT(IOM_2Vtbl, GetObjectStats, ObjectGetStats),
};

KSSTATUS OMFactoryQueryInterface(void* pThis, const GUID* pIId, void** ppInterface) {
    if (ppInterface == nullptr) return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    *ppInterface = nullptr;
    CFInstance* answer;
    if (KsGuidEqual(pIId, &IID_IUnknown)) {
        answer = pThis != nullptr ? static_cast<CFInstance*>(pThis) : &IOmClassFactory;
    } else if (KsGuidEqual(pIId, &IID_IClassFactory)) {
        answer = &IOmClassFactory;
    } else {
        return KSPL_OM_STATUS(KSPL_OM_CODE_NOT_SUPPORTED);
    }
    *ppInterface = answer;
    answer->lpVtbl->AddRef(answer);
    return 0;
}

KSSTATUS ObjectQueryInterface(void* pThis, const GUID* pIId, void** ppInterface) {
    if (pThis == nullptr || ppInterface == nullptr) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_INVALID_PARAM);
    }
    *ppInterface = nullptr;
    ObjectInfo* oi = OmInfo(pThis);
    const void* table = __atomic_load_n(&oi->lpVtbl, __ATOMIC_ACQUIRE);
    if (KsGuidEqual(pIId, &IID_IObjectManager_1) || KsGuidEqual(pIId, &IID_IObjectManager_2)) {
        const void* wanted =
            KsGuidEqual(pIId, &IID_IObjectManager_1) ? static_cast<const void*>(&vtObject)
                                                     : static_cast<const void*>(&vtObject_2);
        if (table != wanted) {
            // Switching changes the slots every holder sees; only a sole
            // holder (or the factory, before anyone holds it) may do it.
            if (KsAtomicLoad(&oi->cReference) > 1) {
                return KSPL_OM_STATUS(KSPL_OM_CODE_NOT_SUPPORTED);
            }
            __atomic_store_n(&oi->lpVtbl, wanted, __ATOMIC_RELEASE);
        }
    } else if (!KsGuidEqual(pIId, &IID_IUnknown)) {
        return KSPL_OM_STATUS(KSPL_OM_CODE_NOT_SUPPORTED);
    }
    *ppInterface = pThis;
    // Both tables share the AddRef slot.
    ObjectAddRef(pThis);
    return 0;
}

UINT32 ObjectAddRef(void* pThis) {
    ObjectInfo* oi = OmInfo(pThis);
    GlobalIncrement(&g_ulCount);
    return GlobalIncrement(&oi->cReference);
}

UINT32 ObjectRelease(void* pThis) {
    ObjectInfo* oi = OmInfo(pThis);
    GlobalDecrement(&g_ulCount);
    UINT32 remaining = GlobalDecrement(&oi->cReference);
    if (remaining != 0) return remaining;
    // The record may outlive this call until its last object is freed; the
    // caller must not use the pointer again either way.
    InstanceRelease(oi);
    return 0;
}
