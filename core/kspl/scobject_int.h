// scobject_int.h - the security-context object manager: an object store
// partitioned by security context, built from one inner store (IOM, version
// 1) per context, kept as that context's attribute with the security
// attribute manager (ISA).
//
// What the object-manager factory needs: g_SCObjectInfoSize (the size of
// the zeroed record it allocates) and SCObjectQueryInterface, which presents
// such a record as ISCOM or ISCOM_2 and takes its first reference. A failing
// query leaves the record to the factory to free.
#pragma once
#include "kspl_internal.h"

// The manager instance; also the ISCOM / ISCOM_2 interface pointer. Every
// field but the counts is written by Initialize only, before the manager
// is used for objects.
struct SCObjectInfo {
    const void* lpVtbl;  // &vtSCObject or &vtSCObject_2, the version last asked for
    UINT32 cReference;   // interface references, atomic
    ISA* pISA;           // null until Initialize succeeds
    HANDLE hAttribute;   // this manager's attribute kind
    UINT32 objectSize;   // caller's size + sizeof(SCHeader): the inner stores' size
    UINT16 objectsPerBlock;
    UINT32 accessLevel;  // as given, all 32 bits
    UINT32 hashSize;
    UINT32 permBlocks;
    PKSO_OBJECT_ROUTINE pfDelete;  // caller's delete routine, or null
};
static_assert(offsetof(SCObjectInfo, cReference) == sizeof(void*), "count follows the table");

// In front of every object of a context store; the caller's user area
// follows it. Aligned to 8 so that user areas keep the store's 8-byte
// alignment on i386 too.
struct alignas(8) SCHeader {
    SCHANDLE hSecurityContext;
    PKSO_OBJECT_ROUTINE pfDelete;
};

// The data area of a context's attribute: that context's store.
struct SecurityAttribute {
    IOM* pSAOMI;
};

extern const UINT32 g_SCObjectInfoSize;
extern const ISCOMVtbl vtSCObject;
extern const ISCOM_2Vtbl vtSCObject_2;

KSSTATUS SCObjectQueryInterface(void* pThis, const GUID* pIId, void** ppInterface);
