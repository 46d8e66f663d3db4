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
 * Statuses per function: docs/reference.md ("The component runtime").
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

/* Registers a component that is already part of the process (linked in, or
 * loaded by other means) under pName, as if OrlmLoadComponent had loaded it:
 * OrlmCreateInstance then finds the classes of pTable (null-terminated) and
 * asks pGetClassObject for their factories. DllStart is not called (the
 * caller has started the component); pStop, which may be null, is called by
 * OrlmUnloadAll. A name that is already registered or loaded succeeds
 * without a second entry. Null pName, pGetClassObject or pTable: code 4. */
ORLM_API KSSTATUS OrlmRegisterComponent(const char* pName, ORLM_DLLGETCLASSOBJECT pGetClassObject,
                                        ORLM_DLLSTOP pStop, const GUID* const* pTable);

/* ------------------------------------------------------------------ */
/* Security attribute manager                                          */
/* ------------------------------------------------------------------ */

/*
 * Class CLSID_SecurityAttributeManager, interfaces IContextAttribute_1 and
 * IPassiveContextAttribute_1 (both present the ISA table below and behave
 * alike). Every instance of a process works on one shared registry.
 *
 * A security context is named by an SCHANDLE. A component registers an
 * attribute kind (SARegisterAttribute) and may then attach one attribute of
 * that kind to each context: a data area of the registered size, zero-filled
 * and set up by the creator's init routine. Each registration is a kind of
 * its own, even for a component id registered before, so two registrants
 * never share attributes.
 *
 * References and access. SACreate, SAReference, SAEnumerate and SAAcquire
 * hand out a reference that carries an access hold until it is given back
 * (SADereference, SADelete, SARelease): access 1 is exclusive, 2 shared,
 * 0 none. A request that conflicts with the holds of other threads waits.
 * The thread that holds exclusive access may reference the attribute again
 * in either mode (each such reference is given back on its own); a thread
 * that holds shared access and asks for exclusive waits for itself, so it
 * must not.
 *
 * Lifetime. An attribute stays attached to its context until SADelete, the
 * end of the context (OrlmEndSecurityContext) or the deregistration of its
 * kind removes it; removed, it is no longer found, and its release routine
 * runs exactly once, when the last reference to it is given back (at once
 * when none is outstanding). The release routine receives the attribute and
 * must not call the attribute manager for it. A context exists while it has
 * attributes. Ending it (OrlmEndSecurityContext) removes all of them at once
 * and calls the context clean-up routine of every kind that had one there;
 * removing them one by one calls no clean-up routine.
 *
 * No client routine (init, release, clean-up, compare) runs with the
 * registry locked; an init routine must not reference the attribute it is
 * initialising.
 *
 * Failures are built with KsStatusBuild_log, facility ORLM_FACILITY: code 4
 * for a null or malformed argument, an unknown registration handle or an
 * attribute pointer this manager did not hand out (or already took back);
 * code 3 when a context has no attribute of the kind; code 9 at the end of
 * an enumeration; code 2 for an interface id not offered.
 */

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
#define SA_ACCESS_NONE 0u
#define SA_ACCESS_EXCLUSIVE 1u
#define SA_ACCESS_SHARED 2u
/* Opened mode reported by SACreate. */
#define SA_OPENED_CREATED 1u
#define SA_OPENED_EXISTING 2u

/* The context clean-up routine's result is not looked at; it returns a
 * status so that a component's KSSTATUS (*)(SCHANDLE) routine can be
 * registered as it is. */
typedef KSSTATUS (*PSA_CONTEXT_CLEANUP_ROUTINE)(SCHANDLE hSC);
typedef void (*PSA_ATTRIBUTE_RELEASE_ROUTINE)(PAttribute pAttribute);
typedef KSSTATUS (*PSA_ATTRIBUTE_INIT_ROUTINE)(PAttribute pAttribute, void* pInitData);
typedef BOOLEAN (*PSA_ATTRIBUTE_COMPARE_ROUTINE)(PAttribute pAttribute, void* pCompareData);

typedef struct ISA ISA;

typedef struct ISAVtbl {
    KSSTATUS (*QueryInterface)(ISA* This, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(ISA* This);
    /* The last Release deregisters the kinds this instance registered and
     * has not deregistered. */
    UINT32 (*Release)(ISA* This);
    /* Registers a kind: pComponentId (required) names the component,
     * dataSize the size of each attribute's data area (0 allowed), pCleanup
     * and pRelease may be null. *phAttribute receives the registration
     * handle, never null. */
    KSSTATUS (*SARegisterAttribute)(ISA* This, PGUID pComponentId, UINT32 dataSize,
                                    PSA_CONTEXT_CLEANUP_ROUTINE pCleanup,
                                    PSA_ATTRIBUTE_RELEASE_ROUTINE pRelease, PHANDLE phAttribute);
    /* Removes the kind from every context (release routines as described
     * above); the handle is invalid afterwards. */
    KSSTATUS (*SADeregisterAttribute)(ISA* This, HANDLE hAttribute);
    /* Opens the context's attribute of the kind with openAccess
     * (*pOpenedMode = 2), or creates it: zero-filled data, pInit (may be
     * null) called once with pInitData, access createAccess, *pOpenedMode = 1.
     * Of several threads creating at once exactly one creates; the others
     * wait for its init routine and open. When pInit fails its status is
     * returned and the attribute is discarded without its release routine.
     * pOpenedMode may be null. */
    KSSTATUS (*SACreate)(ISA* This, SCHANDLE hSC, HANDLE hAttribute, void* pInitData,
                         PSA_ATTRIBUTE_INIT_ROUTINE pInit, UINT32 createAccess, UINT32 openAccess,
                         PAttribute* ppAttribute, PUINT32 pOpenedMode);
    /* Gives back a reference taken with `access` and removes the attribute
     * from its context. */
    KSSTATUS (*SADelete)(ISA* This, UINT32 access, PAttribute pAttribute);
    /* Finds the context's attribute of the kind and references it with
     * `access`; code 3 when there is none. An attribute still being
     * initialised is waited for. */
    KSSTATUS (*SAReference)(ISA* This, SCHANDLE hSC, HANDLE hAttribute, UINT32 access,
                            PAttribute* ppAttribute);
    /* Gives back a reference taken with `access`. */
    KSSTATUS (*SADereference)(ISA* This, UINT32 access, PAttribute pAttribute);
    KSSTATUS (*SAGetSCHandle)(ISA* This, PAttribute pAttribute, PSCHANDLE phSC);
    /* Visits, in ascending (hTypeId, hId) order, the contexts that have an
     * attribute of the kind (hAttribute, or when it is null the first kind
     * registered for pComponentId) and for which pCompare (may be null)
     * returns TRUE; each call references the next one with `access`.
     * phEnum1 and phEnum2 are the caller's cursor, zero-filled to start;
     * the end is reported with code 9 (and again on every later call). A
     * context added behind the cursor is not visited; one removed before it
     * is reached is not visited; every other context is visited once. */
    KSSTATUS (*SAEnumerate)(ISA* This, PGUID pComponentId, HANDLE hAttribute,
                            PSCHANDLE phEnum1, PSCHANDLE phEnum2, void* pCompareData,
                            PSA_ATTRIBUTE_COMPARE_ROUTINE pCompare, UINT32 access,
                            PAttribute* ppAttribute);
    /* Takes one more reference, with `access`, on an attribute the caller
     * already references. */
    KSSTATUS (*SAAcquire)(ISA* This, UINT32 access, PAttribute pAttribute);
    /* Gives back a reference taken with SAAcquire: the calling thread's
     * exclusive hold if it has one, otherwise a shared one. */
    KSSTATUS (*SARelease)(ISA* This, PAttribute pAttribute);
} ISAVtbl;

struct ISA {
    const ISAVtbl* lpVtbl;
};

/* Ends a security context: removes every attribute it has, of every kind
 * (each release routine runs once, when the last reference to its
 * attribute is given back), then calls the context clean-up routine of each
 * kind that had an attribute in it. This is how a context, and whatever a
 * component keeps in its attributes (for example a security-context object
 * manager's per-context store), goes away. A context without attributes is
 * ended at no cost; the call returns 0. A later SACreate for the same
 * SCHANDLE starts a new context. */
ORLM_API KSSTATUS OrlmEndSecurityContext(SCHANDLE hSC);

KS_STATIC_ASSERT(sizeof(ISAVtbl) == 13 * sizeof(void*), "ISA has 13 slots");
KS_STATIC_ASSERT(sizeof(ORLM_IClassFactoryVtbl) == 5 * sizeof(void*), "class factory has 5 slots");
KS_STATIC_ASSERT(sizeof(SCHANDLE) == 2 * sizeof(void*), "SCHANDLE is two handles");

/* ------------------------------------------------------------------ */
/* Status recorder and decoder                                         */
/* ------------------------------------------------------------------ */

/*
 * KsStatusBuild_log records every status it builds, and the runtime records
 * its own failures (a component that cannot be loaded, with the path and the
 * loader's reason; a missing entry point), in a fixed-size ring of the
 * process: lock-free, no system call, no allocation. The ring keeps the
 * latest ORLM_RECORDER_CAPACITY records; older ones are overwritten.
 *
 * Forwarding, chosen by the environment variable "ORLM_LOG" when the first
 * record is made (or by OrlmSetLogMode):
 *   "syslog" (default)  to the system log: built statuses at debug
 *                       priority, at most one per call site and second,
 *                       with the count of those suppressed on the next line
 *                       that goes out; the runtime's failures at error
 *                       priority. Nothing is sent while no system log is
 *                       listening (looked up again every few seconds).
 *   "stderr"            one readable line per record on standard error,
 *                       the status decoded.
 *   "off"               the ring only.
 * An unknown value selects the default and says so on standard error once.
 */

#define ORLM_RECORDER_CAPACITY 256u
#define ORLM_RECORD_UNIT_SIZE 32u
#define ORLM_RECORD_FUNCTION_SIZE 64u
#define ORLM_RECORD_TEXT_SIZE 128u

/* One record. Strings are copied (truncated when longer) and always
 * zero-terminated, so a record stays readable after the library that made it
 * is unloaded. */
typedef struct ORLM_STATUS_RECORD {
    UINT64 Sequence;    /* 1 for the process's first record, then +1 each */
    UINT64 MonotonicNs; /* CLOCK_MONOTONIC_COARSE time of the record, in
                         * nanoseconds (to the kernel tick: a few ms) */
    KSSTATUS Status;    /* the status built; 0 for a message without one */
    INT32 Line;         /* source line, 0 when unknown */
    UINT32 ThreadId;    /* kernel thread id of the recording thread */
    INT32 Priority;     /* system-log level: 7 debug (built statuses), 3 error
                         * (the runtime's failures), or a message's own level */
    CHAR Unit[ORLM_RECORD_UNIT_SIZE];         /* source unit ("orlm", "event"...) */
    CHAR Function[ORLM_RECORD_FUNCTION_SIZE]; /* reporting function */
    CHAR Text[ORLM_RECORD_TEXT_SIZE];         /* the reason, or empty */
} ORLM_STATUS_RECORD;
typedef ORLM_STATUS_RECORD* PORLM_STATUS_RECORD;

/* Not an error: OrlmGetRecentStatuses had more records than the buffer
 * holds and copied the newest. */
#define ORLM_I_MORE_RECORDS 11u
#define ORLM_STATUS_MORE_RECORDS KS_MAKE_STATUS(1u, ORLM_FACILITY, ORLM_I_MORE_RECORDS)

/* Copies the latest records into pRecords (capacity entries), oldest first,
 * newest last, and sets *pCount to the number copied. A record being written
 * at the time of the call is left out, never copied half made. pRecords null
 * with capacity 0 asks how many records the ring holds (*pCount, status 0).
 * More records than capacity: the newest capacity are copied and
 * ORLM_STATUS_MORE_RECORDS is returned. Null pCount, or null pRecords with a
 * non-zero capacity: code 4 (ORLM_E_INVALIDARG), nothing written. */
ORLM_API KSSTATUS OrlmGetRecentStatuses(PORLM_STATUS_RECORD pRecords, UINT32 capacity,
                                        PUINT32 pCount);

/* Records a message of another library of the process (for example one it
 * could not send to the system log) with its level (0..7) and source unit,
 * and forwards it as ORLM_LOG says. pText may not be null. */
ORLM_API void OrlmRecordMessage(int priority, const char* pUnit, const char* pText);

/* Chooses the forwarding: "syslog", "stderr" or "off"; null reads
 * "ORLM_LOG" again. An unknown name selects "syslog" and returns code 4. */
ORLM_API KSSTATUS OrlmSetLogMode(const char* pMode);

/* A constant description of a status: the facility's name and the meaning of
 * the code ("platform services: invalid handle ..."), for the platform
 * services, the object managers, this runtime and the configuration store.
 * 0 is "success". Null for a status the runtime does not know. */
ORLM_API const char* OrlmStatusText(KSSTATUS status);

KS_STATIC_ASSERT(sizeof(ORLM_STATUS_RECORD) == 256, "status record is 256 bytes");
KS_STATIC_ASSERT(offsetof(ORLM_STATUS_RECORD, MonotonicNs) == 8, "record layout");
KS_STATIC_ASSERT(offsetof(ORLM_STATUS_RECORD, Status) == 16, "record layout");
KS_STATIC_ASSERT(offsetof(ORLM_STATUS_RECORD, ThreadId) == 24, "record layout");
KS_STATIC_ASSERT(offsetof(ORLM_STATUS_RECORD, Unit) == 32, "record layout");
KS_STATIC_ASSERT(offsetof(ORLM_STATUS_RECORD, Function) == 64, "record layout");
KS_STATIC_ASSERT(offsetof(ORLM_STATUS_RECORD, Text) == 128, "record layout");

KS_EXTERN_C_END

#endif /* ORLM_H */
