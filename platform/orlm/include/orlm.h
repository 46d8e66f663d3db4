/*
 * orlm.h - the component runtime (liborlm.so).
 *
 * The runtime loads component libraries, starts and stops them, and creates
 * class instances by class id. It also owns the status builder that every
 * component of the family uses to report failures, and serves the security
 * attribute manager class without any component library being loaded.
 *
 * Ownership: an interface pointer returned through an out-parameter carries
 * one reference that the caller gives back with Release. Out-pointers are set
 * to null first and filled only on success. Every function is thread-safe.
 */
#ifndef ORLM_H
#define ORLM_H

#include "ks_types.h"

KS_EXTERN_C_BEGIN

#if defined(__GNUC__)
#define ORLM_API __attribute__((visibility("default")))
#else
#define ORLM_API
#endif

/* Facility of the statuses that the runtime and its security attribute
 * manager build themselves. */
#define ORLM_FACILITY 0x7F0u

/* Codes of facility ORLM_FACILITY. */
#define ORLM_E_NOT_FOUND 3u       /* no such class, component or attribute */
#define ORLM_E_INVALIDARG 4u      /* null or malformed argument */
#define ORLM_E_OUTOFMEMORY 5u     /* allocation failed */
#define ORLM_E_LOAD_FAILED 6u     /* dlopen failed */
#define ORLM_E_NO_ENTRY 7u        /* a required entry point or table is missing */
#define ORLM_E_START_FAILED 8u    /* DllStart reported an error */
#define ORLM_E_NO_MORE_ITEMS 9u   /* end of an enumeration */
#define ORLM_E_NOINTERFACE 2u     /* interface id not offered */
#define ORLM_E_BUSY 10u           /* attribute held in a conflicting mode */

/* ------------------------------------------------------------------ */
/* Status builder                                                      */
/* ------------------------------------------------------------------ */

/* Returns severity << 30 | facility << 16 | code and records the failure
 * (file, line, function) in the system log at debug priority. */
ORLM_API KSSTATUS KsStatusBuild_log(int severity, int facility, int code, char* pFile, int line,
                                    char* pFunction);

/* Observer of built statuses, called synchronously by KsStatusBuild_log on
 * the building thread after the status is composed. Tests use it to tell a
 * built (logged) failure from a constant status returned without a record.
 * Pass null to remove. The observer must not call KsStatusBuild_log. */
typedef void (*ORLM_STATUS_OBSERVER)(void* pContext, KSSTATUS status, const char* pFile, int line,
                                     const char* pFunction);
ORLM_API void KsStatusSetObserver(ORLM_STATUS_OBSERVER pObserver, void* pContext);

/* ------------------------------------------------------------------ */
/* Component model                                                     */
/* ------------------------------------------------------------------ */

typedef struct ORLM_IUnknown ORLM_IUnknown;
typedef ORLM_IUnknown* PORLM_IUnknown;

typedef struct ORLM_IUnknownVtbl {
    KSSTATUS (*QueryInterface)(void* This, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(void* This);
    UINT32 (*Release)(void* This);
} ORLM_IUnknownVtbl;

struct ORLM_IUnknown {
    const ORLM_IUnknownVtbl* lpVtbl;
};

typedef struct ORLM_IClassFactoryVtbl {
    KSSTATUS (*QueryInterface)(void* This, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(void* This);
    UINT32 (*Release)(void* This);
    UINT32 (*CreateInstance)(void* This, PORLM_IUnknown pUnkOuter, const GUID* pIId,
                             void** ppInterface);
    UINT32 (*LockServer)(void* This, BOOLEAN fLock);
} ORLM_IClassFactoryVtbl;

typedef struct ORLM_IClassFactory {
    const ORLM_IClassFactoryVtbl* lpVtbl;
} ORLM_IClassFactory;

/* Entry points a component library exports. */
typedef KSSTATUS (*ORLM_DLLSTART)(void);
typedef KSSTATUS (*ORLM_DLLSTOP)(void);
typedef HRESULT (*ORLM_DLLGETCLASSOBJECT)(PGUID pClassID, PGUID pIID, PVOID* ppInterface);
/* ZLCOM_Table: a null-terminated array of pointers to the class ids that the
 * component offers. */

/* Loads a component library: dlopen, DllStart once, read ZLCOM_Table.
 * Loading a path that is already loaded succeeds without a second start.
 * Failures are logged with the path and the reason. */
ORLM_API KSSTATUS OrlmLoadComponent(const char* pPath);

/* Loads every library named in the colon-separated environment variable
 * "ORLM_COMPONENTS" that is not loaded yet. OrlmCreateInstance does this
 * by itself on its first call. */
ORLM_API KSSTATUS OrlmLoadFromEnvironment(void);

/* Finds the component offering pClsid, obtains its class factory through
 * DllGetClassObject and creates the instance with pIId. The security
 * attribute manager class is served by the runtime itself. */
ORLM_API KSSTATUS OrlmCreateInstance(const GUID* pClsid, PORLM_IUnknown pUnkOuter,
                                     const GUID* pIId, void** ppInterface);

/* Calls DllStop of every loaded component and unloads them, in the reverse
 * order of loading. */
ORLM_API void OrlmUnloadAll(void);

/* ------------------------------------------------------------------ */
/* Security attribute manager                                          */
/* ------------------------------------------------------------------ */

/* A security context. (-1, -1) names all contexts where an operation says so. */
typedef struct SCHANDLE {
    HANDLE hTypeId;
    HANDLE hId;
} SCHANDLE;
typedef SCHANDLE* PSCHANDLE;

/* What the attribute manager hands out: the context and the attribute's
 * data area (of the size registered with SARegisterAttribute). */
typedef struct Attribute {
    SCHANDLE hSC;
    PVOID pData;
} Attribute;
typedef Attribute* PAttribute;

/* Access to an attribute while it is referenced. */
#define SA_ACCESS_EXCLUSIVE 1u
#define SA_ACCESS_SHARED 2u
/* Opened mode reported by SACreate. */
#define SA_OPENED_CREATED 1u
#define SA_OPENED_EXISTING 2u

typedef void (*PSA_CONTEXT_CLEANUP_ROUTINE)(SCHANDLE hSC);
typedef void (*PSA_ATTRIBUTE_RELEASE_ROUTINE)(PAttribute pAttribute);
typedef KSSTATUS (*PSA_ATTRIBUTE_INIT_ROUTINE)(PAttribute pAttribute, void* pInitData);
typedef BOOLEAN (*PSA_ATTRIBUTE_COMPARE_ROUTINE)(PAttribute pAttribute, void* pCompareData);

typedef struct ISA ISA;

typedef struct ISAVtbl {
    KSSTATUS (*QueryInterface)(ISA* This, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(ISA* This);
    UINT32 (*Release)(ISA* This);
    KSSTATUS (*SARegisterAttribute)(ISA* This, PGUID pComponentId, UINT32 dataSize,
                                    PSA_CONTEXT_CLEANUP_ROUTINE pCleanup,
                                    PSA_ATTRIBUTE_RELEASE_ROUTINE pRelease, PHANDLE phAttribute);
    KSSTATUS (*SADeregisterAttribute)(ISA* This, HANDLE hAttribute);
    KSSTATUS (*SACreate)(ISA* This, SCHANDLE hSC, HANDLE hAttribute, void* pInitData,
                         PSA_ATTRIBUTE_INIT_ROUTINE pInit, UINT32 createAccess, UINT32 openAccess,
                         PAttribute* ppAttribute, PUINT32 pOpenedMode);
    KSSTATUS (*SADelete)(ISA* This, UINT32 access, PAttribute pAttribute);
    KSSTATUS (*SAReference)(ISA* This, SCHANDLE hSC, HANDLE hAttribute, UINT32 access,
                            PAttribute* ppAttribute);
    KSSTATUS (*SADereference)(ISA* This, UINT32 access, PAttribute pAttribute);
    KSSTATUS (*SAGetSCHandle)(ISA* This, PAttribute pAttribute, PSCHANDLE phSC);
    KSSTATUS (*SAEnumerate)(ISA* This, PGUID pComponentId, HANDLE hAttribute,
                            PSCHANDLE phEnum1, PSCHANDLE phEnum2, void* pCompareData,
                            PSA_ATTRIBUTE_COMPARE_ROUTINE pCompare, UINT32 access,
                            PAttribute* ppAttribute);
    KSSTATUS (*SAAcquire)(ISA* This, UINT32 access, PAttribute pAttribute);
    KSSTATUS (*SARelease)(ISA* This, PAttribute pAttribute);
} ISAVtbl;

struct ISA {
    const ISAVtbl* lpVtbl;
};

KS_STATIC_ASSERT(sizeof(ISAVtbl) == 13 * sizeof(void*), "ISA has 13 slots");
KS_STATIC_ASSERT(sizeof(ORLM_IClassFactoryVtbl) == 5 * sizeof(void*), "class factory has 5 slots");
KS_STATIC_ASSERT(sizeof(SCHANDLE) == 2 * sizeof(void*), "SCHANDLE is two handles");

KS_EXTERN_C_END

#endif /* ORLM_H */
