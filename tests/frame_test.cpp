// Module start and stop: lazy initialisation once, its retry after a
// failure, and stopping.
#include <atomic>
#include <thread>

#include "init_int.h"
#include "instance_int.h"
#include "kspl_test.h"

namespace {

// Each test runs in its own process under ctest; tests that need a library
// that has not initialised yet skip themselves in a shared run.
bool FreshModule() { return !__atomic_load_n(&g_bKsplInitialized, __ATOMIC_ACQUIRE); }

ORLM_IClassFactory* GetFactory(HRESULT* hr = nullptr) {
    GUID clsid = CLSID_ZorvikKspl;
    GUID iid = IID_IClassFactory;
    ORLM_IClassFactory* factory = nullptr;
    HRESULT r = DllGetClassObject(&clsid, &iid, reinterpret_cast<PVOID*>(&factory));
    if (hr != nullptr) *hr = r;
    return factory;
}

// Racing first requests initialise once and all get the factory; one
// global instance exists afterwards.
TEST(ModuleStart, ConcurrentFirstRequestsInitialiseExactlyOnce) {
    if (!FreshModule()) GTEST_SKIP() << "needs a process of its own";
    std::atomic<int> ready{0};
    std::vector<ORLM_IClassFactory*> factories(16, nullptr);
    std::vector<std::thread> threads;
    for (ORLM_IClassFactory*& f : factories) {
        threads.emplace_back([&] {
            for (ready.fetch_add(1); ready.load() < 16;) {
            }
            f = GetFactory();
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(g_ksplInitHooks.runs.load(), 1);
    for (ORLM_IClassFactory* f : factories) {
        ASSERT_EQ(f, reinterpret_cast<ORLM_IClassFactory*>(&IKsplClassFactory));
        f->lpVtbl->Release(f);
    }
    EXPECT_EQ(InterfaceCount, 1u);
}

// Every step's failure is reported and logged, leaves the module
// uninitialised and at most one global instance; the next request retries.
TEST(ModuleStart, FailedInitialisationIsRetriedByTheNextRequest) {
    if (!FreshModule()) GTEST_SKIP() << "needs a process of its own";
    LogCapture log;
    const std::pair<KsplInitStep, const char*> steps[] = {
        {KsplInitStep::CharConv, "CharConv init failed 0"},
        {KsplInitStep::GlobalInstance, "KsplFactoryCreateInstance failed c7f10005"},
        {KsplInitStep::Timer, "TimerMutex init failed 0"},
        {KsplInitStep::WorkItem, "WorkItemMutex init failed 0"},
    };
    for (const auto& [step, message] : steps) {
        g_ksplInitHooks.failStep = static_cast<int>(step);
        HRESULT hr = 0;
        EXPECT_EQ(GetFactory(&hr), nullptr);
        EXPECT_EQ(hr, KSPL_HRESULT_FAILURE) << message;
        EXPECT_FALSE(g_bKsplInitialized);
        EXPECT_TRUE(log.Contains(message));
    }
    EXPECT_EQ(InterfaceCount, 1u);
    g_ksplInitHooks.failStep = 0;
    ORLM_IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    factory->lpVtbl->Release(factory);
    EXPECT_EQ(g_ksplInitHooks.runs.load(), 5);
    EXPECT_EQ(InterfaceCount, 1u);
}

// Last: stopping returns once the library's threads have ended.
TEST(ModuleStop, ReturnsOnlyOnceEveryThreadHasEnded) {
    if (!FreshModule()) GTEST_SKIP() << "needs a process of its own";
    ORLM_IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    factory->lpVtbl->Release(factory);
    EXPECT_GT(KsAtomicLoad(&g_KsplNumWorkItemThreads) * KsAtomicLoad(&g_KsplNumTimerThreads), 0);
    EXPECT_EQ(DllStop(), 0u);
    EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads) + KsAtomicLoad(&g_KsplNumTimerThreads), 0);
}

}  // namespace
