/* A component built against an installed kspl: one class whose instances
 * offer a single operation, Run, carried out with the services of IKspl
 * (tracked memory, an event waited on with a time limit, a conversion). The
 * host finds it through the component runtime like any other component. */
#include <string.h>

/* Not kspl.h: its kspl_exports.h declares kspl.so's own entry points and
 * class table, which this library defines for itself. */
#include "ks_types.h"
#include "kspl_guids.h"
#include "kspl_ikspl.h"
#include "kspl_status.h"
#include "orlm.h"
#include "consumer.h"

#define EXPORT __attribute__((visibility("default")))

typedef struct {
    const ConsumerVtbl* lpVtbl;
    UINT32 refs;
    IKspl* kspl;
} Instance;

static const GUID kClass = CONSUMER_CLSID;
static const GUID kIid = CONSUMER_IID;

static KSSTATUS InstQuery(Consumer* This, const GUID* iid, void** out) {
    *out = NULL;
    if (memcmp(iid, &kIid, sizeof(GUID)) != 0) return KS_MAKE_STATUS(KS_SEVERITY_ERROR, ORLM_FACILITY, ORLM_E_NOINTERFACE);
    ((Instance*)This)->refs++;
    *out = This;
    return 0;
}
static UINT32 InstAddRef(Consumer* This) { return ++((Instance*)This)->refs; }
static UINT32 InstRelease(Consumer* This) {
    Instance* inst = (Instance*)This;
    UINT32 left = --inst->refs;
    if (left == 0) {
        IKspl* k = inst->kspl;
        k->lpVtbl->KsoFreeMemory(k, inst);
        k->lpVtbl->Release(k);
    }
    return left;
}

/* Converts pText to UTF-16 in tracked memory and reports its length in
 * units; an unsignalled event must time out, a signalled one must not. */
static KSSTATUS InstRun(Consumer* This, const char* pText, UINT32* pUnits) {
    IKspl* k = ((Instance*)This)->kspl;
    HANDLE ev = NULL;
    UINT32 units = 0;
    PWCHAR wide;
    KSSTATUS st = k->lpVtbl->KsoAllocEvent(k, KsoNotificationEvent, &ev);
    if (st != 0) return st;
    st = k->lpVtbl->KsoWaitForSingleEvent(k, ev, 1000); /* 1 ms */
    if (st != KSPL_STATUS_WAIT_TIMEOUT) {
        k->lpVtbl->KsoDestroyEvent(k, ev);
        return st == 0 ? KS_MAKE_STATUS(KS_SEVERITY_ERROR, KSPL_FACILITY, KSPL_CODE_FAILURE) : st;
    }
    k->lpVtbl->KsoSignalEvent(k, ev, NULL);
    st = k->lpVtbl->KsoWaitForSingleEvent(k, ev, -1);
    k->lpVtbl->KsoDestroyEvent(k, ev);
    if (st != 0) return st;

    wide = (PWCHAR)k->lpVtbl->KsoAllocPagedMemory(k, 2 * (UINT32)strlen(pText) + 2);
    if (wide == NULL) return KS_MAKE_STATUS(KS_SEVERITY_ERROR, KSPL_FACILITY, KSPL_CODE_NO_MEMORY);
    units = (UINT32)strlen(pText) + 1;
    st = k->lpVtbl->KsoMultiByteToWideChar(k, KSO_CP_UTF8, (PCHAR)pText, -1, wide, &units);
    if (st == 0) *pUnits = k->lpVtbl->KsoStrlenW(k, wide);
    k->lpVtbl->KsoFreeMemory(k, wide);
    return st;
}

static const ConsumerVtbl kVtbl = {InstQuery, InstAddRef, InstRelease, InstRun};

static KSSTATUS FactQuery(void* This, const GUID* iid, void** out) {
    (void)iid;
    *out = This;
    return 0;
}
static UINT32 FactRef(void* This) {
    (void)This;
    return 1;
}
static UINT32 FactCreate(void* This, PORLM_IUnknown outer, const GUID* iid, void** out) {
    static const GUID ksplClass = KSPL_GUID_CLSID_ZorvikKspl;
    static const GUID ksplIid = KSPL_GUID_IID_IZorvikKspl_1;
    IKspl* k = NULL;
    Instance* inst;
    KSSTATUS st;
    (void)This;
    *out = NULL;
    if (outer != NULL || memcmp(iid, &kIid, sizeof(GUID)) != 0) return KS_MAKE_STATUS(KS_SEVERITY_ERROR, ORLM_FACILITY, ORLM_E_NOINTERFACE);
    st = OrlmCreateInstance(&ksplClass, NULL, &ksplIid, (void**)&k);
    if (st != 0) return st;
    k->lpVtbl->KsoRegisterModuleName(k, "install-test-component");
    inst = (Instance*)k->lpVtbl->KsoAllocNonPagedMemory(k, sizeof(Instance));
    if (inst == NULL) {
        k->lpVtbl->Release(k);
        return KS_MAKE_STATUS(KS_SEVERITY_ERROR, KSPL_FACILITY, KSPL_CODE_NO_MEMORY);
    }
    inst->lpVtbl = &kVtbl;
    inst->refs = 1;
    inst->kspl = k;
    *out = inst;
    return 0;
}
static UINT32 FactLock(void* This, BOOLEAN lock) {
    (void)This;
    (void)lock;
    return 0;
}
static const ORLM_IClassFactoryVtbl kFactVtbl = {FactQuery, FactRef, FactRef, FactCreate,
                                                 FactLock};
static ORLM_IClassFactory factory = {&kFactVtbl};

EXPORT const GUID* ZLCOM_Table[2] = {&kClass, NULL};
EXPORT KSSTATUS DllStart(void) { return 0; }
EXPORT KSSTATUS DllStop(void) { return 0; }
EXPORT HRESULT DllGetClassObject(PGUID clsid, PGUID iid, PVOID* out) {
    (void)iid;
    *out = NULL;
    if (memcmp(clsid, &kClass, sizeof(GUID)) != 0) return KSPL_HRESULT_NOINTERFACE;
    *out = &factory;
    return 0;
}
