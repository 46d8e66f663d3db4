/* A minimal component for the runtime's tests: one class whose instances are
 * reference-counted records. Built twice with different names and class
 * ids; a third build leaves out DllStop. Start and stop are reported to the
 * host through TestComponentEvent, which the test program exports. */
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#include "orlm.h"

#ifndef COMPONENT_NAME
#error COMPONENT_NAME must be defined
#endif

#define EXPORT __attribute__((visibility("default")))

typedef void (*EventFn)(const char* component, const char* event);

static void report(const char* event) {
    EventFn fn = (EventFn)dlsym(RTLD_DEFAULT, "TestComponentEvent");
    if (fn != NULL) fn(COMPONENT_NAME, event);
}

typedef struct {
    const ORLM_IUnknownVtbl* lpVtbl;
    UINT32 refs;
} Object;

static KSSTATUS ObjQuery(void* This, const GUID* iid, void** out) {
    (void)iid;
    *out = This;
    ((Object*)This)->refs++;
    return 0;
}
static UINT32 ObjAddRef(void* This) { return ++((Object*)This)->refs; }
static UINT32 ObjRelease(void* This) {
    Object* o = (Object*)This;
    UINT32 r = --o->refs;
    if (r == 0) free(o);
    return r;
}
static const ORLM_IUnknownVtbl objVtbl = {ObjQuery, ObjAddRef, ObjRelease};

static const GUID kClass = COMPONENT_CLSID;
static const GUID kIid = {0xABCDEF01, 0x0001, 0x0002, {1, 2, 3, 4, 5, 6, 7, 8}};

static KSSTATUS CfQuery(void* This, const GUID* iid, void** out) {
    (void)iid;
    *out = This;
    return 0;
}
static UINT32 CfAddRef(void* This) {
    (void)This;
    return 1;
}
static UINT32 CfRelease(void* This) {
    (void)This;
    return 1;
}
static UINT32 CfCreate(void* This, PORLM_IUnknown outer, const GUID* iid, void** out) {
    Object* o;
    (void)This;
    *out = NULL;
    if (outer != NULL) return 0xC7F00004u;
    if (memcmp(iid, &kIid, sizeof(GUID)) != 0) return 0xC7F00002u;
    o = (Object*)malloc(sizeof(Object));
    if (o == NULL) return 0xC7F00005u;
    o->lpVtbl = &objVtbl;
    o->refs = 1;
    *out = o;
    report("create");
    return 0;
}
static UINT32 CfLock(void* This, BOOLEAN lock) {
    (void)This;
    (void)lock;
    return 0;
}
static const ORLM_IClassFactoryVtbl cfVtbl = {CfQuery, CfAddRef, CfRelease, CfCreate, CfLock};
static ORLM_IClassFactory factory = {&cfVtbl};

EXPORT const GUID* ZLCOM_Table[2] = {&kClass, NULL};

EXPORT KSSTATUS DllStart(void) {
    report("start");
    return 0;
}

#ifndef COMPONENT_WITHOUT_STOP
EXPORT KSSTATUS DllStop(void) {
    report("stop");
    return 0;
}
#endif

EXPORT HRESULT DllGetClassObject(PGUID clsid, PGUID iid, PVOID* out) {
    (void)iid;
    if (memcmp(clsid, &kClass, sizeof(GUID)) != 0) return (HRESULT)0x80004002u;
    *out = &factory;
    return 0;
}
