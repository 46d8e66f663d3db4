#include "fuzz_support.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdio>

#include "kspl.h"

namespace {

std::string g_storePath;

void RemoveStore() {
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        unlink((g_storePath + suffix).c_str());
    }
}

}  // namespace

IKspl* FuzzInstance() {
    static IKspl* instance = [] {
        setenv("KSPL_DO_NOT_OVERWRITE_OPENLOG", "1", 1);
        openlog("kspl-fuzz", 0, LOG_USER);
        // Failures are the point of fuzzing: keep them out of the log.
        setlogmask(LOG_MASK(LOG_EMERG));
        DllStart();
        ORLM_IClassFactory* factory = nullptr;
        GUID clsid = CLSID_ZorvikKspl;
        GUID iid = IID_IClassFactory;
        if (DllGetClassObject(&clsid, &iid, reinterpret_cast<PVOID*>(&factory)) != 0 ||
            factory == nullptr) {
            FuzzFail("no class object");
        }
        IKspl* k = nullptr;
        UINT32 st = factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IZorvikKspl_1,
                                                    reinterpret_cast<void**>(&k));
        factory->lpVtbl->Release(factory);
        if (st != 0 || k == nullptr) FuzzFail("no instance");
        return k;
    }();
    return instance;
}

void FuzzPrivateStore(const char* harness) {
    if (!g_storePath.empty()) return;
    g_storePath = std::string("/tmp/kspl-fuzz-") + harness + "-" + std::to_string(getpid()) + ".db";
    RemoveStore();
    setenv("ZLREG_DATABASE", g_storePath.c_str(), 1);
    std::atexit(RemoveStore);
}

void FuzzFail(const char* what, const char* detail) {
    std::fprintf(stderr, "fuzz invariant broken: %s %s\n", what, detail);
    std::fflush(stderr);
    std::abort();
}
