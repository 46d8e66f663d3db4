// orlm.cpp - the component runtime: component loading and instance creation
// by class id. The status builder and its recorder are in recorder.cpp.
//
// Lock order: g_loadMutex, then g_registryMutex. g_loadMutex serialises
// loading so that a component is started once even when several threads load
// it at once; it is recursive because a component's DllStart may load
// others. g_registryMutex is a leaf lock, never held while a component's code
// runs (DllStart, DllGetClassObject, factories, DllStop).
#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "kspl_guids.h"
#include "orlm.h"
#include "orlm_internal.h"

namespace {

constexpr char kUnit[] = "orlm";

// A loaded library, or (handle null) a component registered in-process.
struct Component {
    std::string path;
    void* handle;
    ORLM_DLLSTOP stop;  // null for an in-process component without one
    ORLM_DLLGETCLASSOBJECT getClassObject;
    std::vector<GUID> classes;
};

std::recursive_mutex g_loadMutex;
std::mutex g_registryMutex;  // guards g_components
std::vector<Component> g_components;
std::once_flag g_envOnce;

bool GuidEqual(const GUID* a, const GUID* b) { return std::memcmp(a, b, sizeof(GUID)) == 0; }

KSSTATUS Fail(unsigned code, int line, const char* function) {
    return KsStatusBuild_log(3, ORLM_FACILITY, static_cast<int>(code), const_cast<char*>(kUnit),
                             line, const_cast<char*>(function));
}
#define ORLM_FAIL(code) Fail((code), __LINE__, __func__)

}  // namespace

extern "C" {

KSSTATUS OrlmLoadComponent(const char* pPath) {
    if (pPath == nullptr || *pPath == '\0') return ORLM_FAIL(ORLM_E_INVALIDARG);
    std::lock_guard<std::recursive_mutex> loading(g_loadMutex);
    {
        std::lock_guard<std::mutex> guard(g_registryMutex);
        for (const Component& c : g_components) {
            if (c.path == pPath) return 0;
        }
    }
    void* handle = dlopen(pPath, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* why = dlerror();
        return OrlmBuildFailure(ORLM_E_LOAD_FAILED, __func__, __LINE__, "cannot load %s: %s", pPath,
                                why != nullptr ? why : "?");
    }
    auto start = reinterpret_cast<ORLM_DLLSTART>(dlsym(handle, "DllStart"));
    auto stop = reinterpret_cast<ORLM_DLLSTOP>(dlsym(handle, "DllStop"));
    auto getClassObject = reinterpret_cast<ORLM_DLLGETCLASSOBJECT>(dlsym(handle, "DllGetClassObject"));
    auto table = static_cast<const GUID* const*>(dlsym(handle, "ZLCOM_Table"));
    const char* missing = start == nullptr            ? "DllStart"
                          : stop == nullptr           ? "DllStop"
                          : getClassObject == nullptr ? "DllGetClassObject"
                          : table == nullptr          ? "ZLCOM_Table"
                                                      : nullptr;
    if (missing != nullptr) {
        dlclose(handle);
        return OrlmBuildFailure(ORLM_E_NO_ENTRY, __func__, __LINE__, "cannot load %s: no entry point %s",
                                pPath, missing);
    }
    KSSTATUS started = start();
    if (KS_IS_ERROR(started)) {
        dlclose(handle);
        return OrlmBuildFailure(ORLM_E_START_FAILED, __func__, __LINE__,
                                "cannot load %s: DllStart failed %08X", pPath, started);
    }
    Component component{pPath, handle, stop, getClassObject, {}};
    for (const GUID* const* p = table; *p != nullptr; ++p) component.classes.push_back(**p);

    std::lock_guard<std::mutex> guard(g_registryMutex);
    g_components.push_back(std::move(component));
    return 0;
}

KSSTATUS OrlmRegisterComponent(const char* pName, ORLM_DLLGETCLASSOBJECT pGetClassObject,
                               ORLM_DLLSTOP pStop, const GUID* const* pTable) {
    if (pName == nullptr || *pName == '\0' || pGetClassObject == nullptr || pTable == nullptr) {
        return ORLM_FAIL(ORLM_E_INVALIDARG);
    }
    Component component{pName, nullptr, pStop, pGetClassObject, {}};
    for (const GUID* const* p = pTable; *p != nullptr; ++p) component.classes.push_back(**p);
    std::lock_guard<std::mutex> guard(g_registryMutex);
    for (const Component& c : g_components) {
        if (c.path == pName) return 0;
    }
    g_components.push_back(std::move(component));
    return 0;
}

KSSTATUS OrlmLoadFromEnvironment(void) {
    const char* list = std::getenv("ORLM_COMPONENTS");
    if (list == nullptr) return 0;
    KSSTATUS result = 0;
    std::string all(list);
    size_t begin = 0;
    while (begin <= all.size()) {
        size_t end = all.find(':', begin);
        if (end == std::string::npos) end = all.size();
        std::string path = all.substr(begin, end - begin);
        if (!path.empty()) {
            KSSTATUS status = OrlmLoadComponent(path.c_str());
            if (status != 0 && result == 0) result = status;
        }
        begin = end + 1;
    }
    return result;
}

KSSTATUS OrlmCreateInstance(const GUID* pClsid, PORLM_IUnknown pUnkOuter, const GUID* pIId,
                            void** ppInterface) {
    if (ppInterface == nullptr || pClsid == nullptr || pIId == nullptr) {
        return ORLM_FAIL(ORLM_E_INVALIDARG);
    }
    *ppInterface = nullptr;
    if (OrlmIsSecurityAttributeManagerClass(pClsid)) {
        return OrlmCreateSecurityAttributeManager(pUnkOuter, pIId, ppInterface);
    }
    std::call_once(g_envOnce, [] { OrlmLoadFromEnvironment(); });

    ORLM_DLLGETCLASSOBJECT getClassObject = nullptr;
    {
        std::lock_guard<std::mutex> guard(g_registryMutex);
        for (const Component& c : g_components) {
            for (const GUID& g : c.classes) {
                if (GuidEqual(&g, pClsid)) {
                    getClassObject = c.getClassObject;
                    break;
                }
            }
            if (getClassObject != nullptr) break;
        }
    }
    if (getClassObject == nullptr) return ORLM_FAIL(ORLM_E_NOT_FOUND);

    void* factoryPtr = nullptr;
    GUID clsid = *pClsid;
    GUID iidFactory = KSPL_GUID_IID_IClassFactory;
    HRESULT hr = getClassObject(&clsid, &iidFactory, &factoryPtr);
    if (hr != 0 || factoryPtr == nullptr) {
        return ORLM_FAIL(static_cast<UINT32>(hr) == 0x80004002u ? ORLM_E_NOINTERFACE
                                                                 : ORLM_E_NOT_FOUND);
    }
    auto* factory = static_cast<ORLM_IClassFactory*>(factoryPtr);
    KSSTATUS status = factory->lpVtbl->CreateInstance(factory, pUnkOuter, pIId, ppInterface);
    factory->lpVtbl->Release(factory);
    return status;
}

void OrlmUnloadAll(void) {
    std::vector<Component> components;
    {
        std::lock_guard<std::mutex> guard(g_registryMutex);
        components.swap(g_components);
    }
    for (auto it = components.rbegin(); it != components.rend(); ++it) {
        if (it->stop != nullptr) it->stop();
        if (it->handle != nullptr) dlclose(it->handle);
    }
}

}  // extern "C"
