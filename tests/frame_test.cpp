// Module start and stop, lazy initialisation, class objects, instances and
// the class factory.
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

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

TEST(ModuleStart, ConcurrentFirstRequestsInitialiseExactlyOnce) {
    if (!FreshModule()) GTEST_SKIP() << "needs a process of its own";
    constexpr int kThreads = 16;
    std::atomic<int> ready{0};
    std::vector<ORLM_IClassFactory*> factories(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) {
            }
            factories[i] = GetFactory();
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(g_ksplInitHooks.runs.load(), 1);
    for (ORLM_IClassFactory* f : factories) {
        ASSERT_EQ(f, reinterpret_cast<ORLM_IClassFactory*>(&IKsplClassFactory));
        f->lpVtbl->Release(f);
    }
    EXPECT_EQ(InterfaceCount, 1u) << "one global instance, nothing else";
}

// Every step's failure is reported and logged, leaves the module
// uninitialised and at most one global instance; the next request retries.
TEST(ModuleStart, FailedInitialisationIsRetriedByTheNextRequest) {
    if (!FreshModule()) GTEST_SKIP() << "needs a process of its own";
    LogCapture log;
    for (KsplInitStep step : {KsplInitStep::CharConv, KsplInitStep::GlobalInstance,
                              KsplInitStep::Timer, KsplInitStep::WorkItem}) {
        g_ksplInitHooks.failStep = static_cast<int>(step);
        HRESULT hr = 0;
        EXPECT_EQ(GetFactory(&hr), nullptr);
        EXPECT_EQ(hr, KSPL_HRESULT_FAILURE) << static_cast<int>(step);
        EXPECT_FALSE(g_bKsplInitialized);
    }
    for (const char* text : {"CharConv init failed 0", "KsplFactoryCreateInstance failed c7f10005",
                             "TimerMutex init failed 0", "WorkItemMutex init failed 0"})
        EXPECT_TRUE(log.Contains(text)) << text;
    EXPECT_EQ(InterfaceCount, 1u);
    g_ksplInitHooks.failStep = 0;
    ORLM_IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    factory->lpVtbl->Release(factory);
    EXPECT_EQ(g_ksplInitHooks.runs.load(), 5);
    EXPECT_EQ(InterfaceCount, 1u);
}

TEST(ModuleStart, UnknownClassLeavesTheOutPointerAloneEvenOnTheFirstRequest) {
    GUID unknown = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    GUID iid = IID_IClassFactory;
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(DllGetClassObject(&unknown, &iid, &out), KSPL_HRESULT_NOINTERFACE);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
    EXPECT_TRUE(g_bKsplInitialized);
}

// Allowances from lowered soft limits, in a child; a tiny process limit
// must not wrap below the library's own nine threads.
TEST(ModuleStart, ThreadAndFileAllowancesFollowTheSoftLimits) {
    EXPECT_EQ(KsplRunInChild([] {
                  struct rlimit rl;
                  for (int res : {RLIMIT_NPROC, RLIMIT_NOFILE}) {
                      getrlimit(res, &rl);
                      rl.rlim_cur = res == RLIMIT_NPROC ? 1024 : 100;
                      ASSERT_EQ(setrlimit(res, &rl), 0);
                  }
                  DllStart();
                  EXPECT_EQ(g_KsplMaxThreads, 995u);
                  EXPECT_EQ(g_KsplMaxFiles, 98);
                  getrlimit(RLIMIT_NPROC, &rl);
                  rl.rlim_cur = 5;
                  ASSERT_EQ(setrlimit(RLIMIT_NPROC, &rl), 0);
                  DllStart();
                  EXPECT_EQ(g_KsplMaxThreads, 0u);
              }),
              0);
}

TEST(ClassFactory, StatusesAndLocks) {
    StatusCapture statuses;
    ORLM_IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    const ORLM_IClassFactoryVtbl* f = factory->lpVtbl;
    void* out = reinterpret_cast<void*>(1);
    EXPECT_EQ(f->QueryInterface(factory, &IID_IZorvikKspl_1, &out), KsplErr(2));
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(2), "KsplFactoryQueryInterface"));
    EXPECT_EQ(f->CreateInstance(factory, nullptr, &IID_IUnknown, &out), KsplErr(2));
    ORLM_IUnknown outer{};
    out = reinterpret_cast<void*>(1);
    EXPECT_EQ(f->CreateInstance(factory, &outer, &IID_IZorvikKspl_1, &out), KsplErr(4));
    EXPECT_EQ(out, reinterpret_cast<void*>(1)) << "argument faults change nothing";
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsplFactoryCreateInstance"));
    UINT32 locks = IKsplClassFactory.cLock;
    EXPECT_EQ(f->LockServer(factory, 1), 0u);
    EXPECT_EQ(f->LockServer(factory, 2), 0u) << "anything but exactly 1 unlocks";
    EXPECT_EQ(IKsplClassFactory.cLock, locks);
    f->Release(factory);
}

TEST(Instances, ConcurrentCreateAndReleaseKeepTheRegistryConsistent) {
    ORLM_IClassFactory* factory = GetFactory();  // initialises the module
    ASSERT_NE(factory, nullptr);
    factory->lpVtbl->Release(factory);
    const UINT32 before = InterfaceCount;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 300; ++i) {
                IKspl* k = KsplTestCreateInstance();
                ASSERT_NE(k, nullptr);
                ASSERT_EQ(k->lpVtbl->Release(k), 0u);
            }
        });
    }
    for (auto& t : threads) t.join();
    KsMutexGuard guard(&InterfaceMutex);
    UINT32 walked = 0;
    for (PLIST_ENTRY l = InterfaceList.Flink; l != &InterfaceList; l = l->Flink) {
        ASSERT_EQ(l->Flink->Blink, l);
        ++walked;
    }
    EXPECT_EQ(walked, before);
    EXPECT_EQ(InterfaceCount, before);
}

// A child forked while another thread held the registry lock or an
// instance's memory lock must find them free.
IKspl* g_forkInstance = nullptr;

TEST(Instances, ForkedChildFindsTheLocksFree) {
    IKspl* k = KsplTestCreateInstance();
    ASSERT_NE(k, nullptr);
    g_forkInstance = k;
    for (pthread_mutex_t* lock : {&InterfaceMutex, &KsplInfo(k)->ProtectionMutex,
                                  &KsplInfo(k)->ProtectionSpinLock}) {
        std::atomic<bool> held{false};
        std::thread holder([&] {
            pthread_mutex_lock(lock);
            held = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            pthread_mutex_unlock(lock);
        });
        while (!held) std::this_thread::yield();
        EXPECT_EQ(KsplRunInChild([] {
                      alarm(10);  // a lock inherited as held would hang the child
                      IKspl* fresh = KsplTestCreateInstance();
                      ASSERT_NE(fresh, nullptr);
                      void* p = g_forkInstance->lpVtbl->KsoAllocPagedMemory(g_forkInstance, 64);
                      EXPECT_EQ(g_forkInstance->lpVtbl->KsoFreeMemory(g_forkInstance, p), 0u);
                      EXPECT_EQ(fresh->lpVtbl->Release(fresh), 0u);
                  }),
                  0);
        holder.join();
    }
    EXPECT_EQ(k->lpVtbl->Release(k), 0u);
}

class ModuleName : public KsplTest {};

TEST_F(ModuleName, KeepsAtMostThirtyOneCharacters) {
    std::string name40 = "0123456789012345678901234567890123456789";
    EXPECT_EQ(v->KsoRegisterModuleName(k, name40.data()), 0u);
    EXPECT_EQ(std::string(KsplInfo(k)->ModuleName), name40.substr(0, 31));
    EXPECT_EQ(v->KsoRegisterModuleName(k, nullptr), KsplErr(4));
    EXPECT_EQ(std::string(KsplInfo(k)->ModuleName), name40.substr(0, 31)) << "kept on refusal";
}

// Last: stopping ends the library's threads for this process.
TEST(ModuleStop, ReturnsOnlyOnceEveryThreadHasEnded) {
    if (!FreshModule()) GTEST_SKIP() << "needs a process of its own";
    ORLM_IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    factory->lpVtbl->Release(factory);
    EXPECT_GT(KsAtomicLoad(&g_KsplNumWorkItemThreads), 0);
    EXPECT_GT(KsAtomicLoad(&g_KsplNumTimerThreads), 0);
    EXPECT_EQ(DllStop(), 0u);
    EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 0);
    EXPECT_EQ(KsAtomicLoad(&g_KsplNumTimerThreads), 0);
}

}  // namespace
