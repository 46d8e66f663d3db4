// Module start and stop: lazy initialisation once, its retry after a
// failure, and stopping.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "conv_test_util.h"
#include "convert_int.h"
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

// A child forked while another thread holds the registry lock or a memory
// list lock must find them free (fork waits for them), and a child forked
// while other threads open iconv descriptors must still convert. A lock
// inherited as held hangs the child: alarm() turns that into a failure.
IKspl* g_forkInstance = nullptr;

void UseInstancesInChild() {
    alarm(10);
    IKspl* fresh = KsplTestCreateInstance();
    ASSERT_NE(fresh, nullptr);
    for (IKspl* k : {fresh, g_forkInstance, pIKspl}) {
        void* paged = k->lpVtbl->KsoAllocPagedMemory(k, 64);
        void* nonPaged = k->lpVtbl->KsoAllocNonPagedMemory(k, 64);
        EXPECT_EQ(k->lpVtbl->KsoFreeMemory(k, paged), 0u);
        EXPECT_EQ(k->lpVtbl->KsoFreeMemory(k, nonPaged), 0u);
    }
    EXPECT_EQ(fresh->lpVtbl->Release(fresh), 0u);
}

void ConvertInChild() {
    alarm(5);
    char text[] = "child";
    WCHAR wide[8];
    UINT32 units = 8;
    EXPECT_EQ(pIKspl->lpVtbl->KsoMultiByteToWideChar(pIKspl, KSO_CP_OEM, text, -1, wide, &units), 0u);
    EXPECT_EQ(units, 5u);
}

class ForkedChild : public KsplTest {};

TEST_F(ForkedChild, FindsTheRegistryAndMemoryListsFree) {
    g_forkInstance = k;
    pthread_mutex_t* locks[] = {&InterfaceMutex, &KsplInfo(k)->ProtectionMutex,
                                &KsplInfo(k)->ProtectionSpinLock, &KsplInfo(pIKspl)->ProtectionSpinLock};
    for (pthread_mutex_t* lock : locks) {
        std::atomic<bool> held{false};
        std::thread holder([&] {
            pthread_mutex_lock(lock);
            held = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            pthread_mutex_unlock(lock);
        });
        while (!held) std::this_thread::yield();
        EXPECT_EQ(KsplRunInChild(UseInstancesInChild), 0);
        holder.join();
    }
}

TEST_F(ForkedChild, ConvertsWhileOtherThreadsOpenDescriptors) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "AddressSanitizer's allocator is not held across fork()";
#endif
    CodePageScope scope("EUC-JP", FALSE, "EUC-JP", FALSE);  // multi-byte: no tables
    std::atomic<bool> stop{false};
    std::vector<std::thread> converters;
    for (int t = 0; t < 2; ++t) {
        converters.emplace_back([&] {
            char text[] = "busy";  // the reference opens a descriptor per call
            WCHAR wide[8];
            while (!stop) {
                UINT32 units = 8;
                KsplRefMultiByteToWideChar(k, KSO_CP_OEM, text, -1, wide, &units);
            }
        });
    }
    int hung = 0;
    for (int i = 0; i < 12; ++i) hung += KsplRunInChild(ConvertInChild) != 0;
    stop = true;
    for (auto& t : converters) t.join();
    EXPECT_EQ(hung, 0);
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
