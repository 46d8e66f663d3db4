// bench_support.h - obtaining an IKspl instance the way a component does.
#pragma once
#include <cstdlib>

#include "kspl_internal.h"

inline IKspl* BenchInstance() {
    static bool started = [] {
        setenv("KSPL_DO_NOT_OVERWRITE_OPENLOG", "1", 1);
        return DllStart() == 0;
    }();
    (void)started;
    ORLM_IClassFactory* factory = nullptr;
    GUID clsid = CLSID_ZorvikKspl;
    GUID iid = IID_IClassFactory;
    if (DllGetClassObject(&clsid, &iid, reinterpret_cast<PVOID*>(&factory)) != 0) std::abort();
    IKspl* k = nullptr;
    if (factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IZorvikKspl_1,
                                        reinterpret_cast<void**>(&k)) != 0) {
        std::abort();
    }
    factory->lpVtbl->Release(factory);
    return k;
}
