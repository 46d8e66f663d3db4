// Module start, lazy initialisation, class objects, instances and the
// class factory.
#include <sys/resource.h>
#include <unistd.h>
#include <syslog.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "init_int.h"
#include "instance_int.h"
#include "conv_test_util.h"
#include "convert_int.h"
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

TEST(StatusMapping, OnlyTheCodeDecides) {
    EXPECT_EQ(KsplMapStatusToHresult(0), 0);
    EXPECT_EQ(KsplMapStatusToHresult(0xC7F10002u), KSPL_HRESULT_NOINTERFACE);
    EXPECT_EQ(KsplMapStatusToHresult(0xC7FA0002u), KSPL_HRESULT_NOINTERFACE);
    EXPECT_EQ(KsplMapStatusToHresult(0xC7F10005u), KSPL_HRESULT_FAILURE);
    EXPECT_EQ(KsplMapStatusToHresult(0xC7F10000u), 0);
    EXPECT_EQ(KsplMapStatusToHresult(0x47F10001u), KSPL_HRESULT_FAILURE);
    EXPECT_FALSE(KS_IS_ERROR(0x47F10001u));
    EXPECT_FALSE(KS_IS_ERROR(0x87F10001u));
    EXPECT_TRUE(KS_IS_ERROR(0xC7F10001u));
}

TEST(ModuleStart, ConcurrentFirstRequestsInitialiseExactlyOnce) {
    if (!FreshModule()) GTEST_SKIP() << "needs a process of its own";
    constexpr int kThreads = 16;
    std::atomic<int> ready{0};
    std::vector<ORLM_IClassFactory*> factories(kThreads, nullptr);
    std::vector<HRESULT> results(kThreads, -1);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) {
            }
            factories[i] = GetFactory(&results[i]);
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(g_ksplInitHooks.runs.load(), 1);
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(results[i], 0);
        EXPECT_EQ(factories[i], reinterpret_cast<ORLM_IClassFactory*>(&IKsplClassFactory));
        factories[i]->lpVtbl->Release(factories[i]);
    }
    // One global instance, nothing else.
    EXPECT_NE(pIKspl, nullptr);
    EXPECT_EQ(InterfaceCount, 1u);
}

TEST(ModuleStart, FailedInitialisationIsRetriedByTheNextRequest) {
    if (!FreshModule()) GTEST_SKIP() << "needs a process of its own";
    LogCapture log;
    for (KsplInitStep step : {KsplInitStep::CharConv, KsplInitStep::GlobalInstance,
                              KsplInitStep::Timer, KsplInitStep::WorkItem}) {
        g_ksplInitHooks.failStep = static_cast<int>(step);
        HRESULT hr = 0;
        ORLM_IClassFactory* factory = GetFactory(&hr);
        EXPECT_EQ(hr, KSPL_HRESULT_FAILURE) << static_cast<int>(step);
        EXPECT_EQ(factory, nullptr);
        EXPECT_FALSE(g_bKsplInitialized);
    }
    EXPECT_TRUE(log.Contains("CharConv init failed 0"));
    EXPECT_TRUE(log.Contains("KsplFactoryCreateInstance failed c7f10005"));
    EXPECT_TRUE(log.Contains("TimerMutex init failed 0"));
    EXPECT_TRUE(log.Contains("WorkItemMutex init failed 0"));
    // The failed attempts left one global instance at most: a retry reuses it.
    EXPECT_EQ(InterfaceCount, 1u);

    g_ksplInitHooks.failStep = 0;
    HRESULT hr = -1;
    ORLM_IClassFactory* factory = GetFactory(&hr);
    ASSERT_EQ(hr, 0);
    ASSERT_NE(factory, nullptr);
    factory->lpVtbl->Release(factory);
    EXPECT_TRUE(g_bKsplInitialized);
    EXPECT_EQ(g_ksplInitHooks.runs.load(), 5);
    EXPECT_EQ(InterfaceCount, 1u);
}

TEST(ModuleStart, UnknownClassLeavesTheOutPointerAloneEvenOnTheFirstRequest) {
    GUID unknown = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    GUID iid = IID_IClassFactory;
    void* sentinel = reinterpret_cast<void*>(0x1234);
    void* out = sentinel;
    EXPECT_EQ(DllGetClassObject(&unknown, &iid, &out), KSPL_HRESULT_NOINTERFACE);
    EXPECT_EQ(out, sentinel);
    EXPECT_TRUE(g_bKsplInitialized);
    EXPECT_EQ(DllGetClassObject(&unknown, &iid, &out), KSPL_HRESULT_NOINTERFACE);
    EXPECT_EQ(out, sentinel);
}

TEST(ModuleStart, ClassTableNamesBothClasses) {
    EXPECT_EQ(ZLCOM_Table[0], &CLSID_ZorvikKspl);
    EXPECT_EQ(ZLCOM_Table[1], &CLSID_ObjectManagerDataStore);
    EXPECT_EQ(ZLCOM_Table[2], nullptr);
    // Byte image of one identifier: Data1..3 little-endian, Data4 as written.
    const unsigned char expected[16] = {0xE1, 0xB2, 0x74, 0x90, 0x73, 0xB5, 0xD2, 0x11,
                                        0x82, 0xE6, 0x00, 0x08, 0xC7, 0x29, 0x94, 0x64};
    EXPECT_EQ(std::memcmp(&CLSID_ZorvikKspl, expected, 16), 0);
}

// Thread and file allowances, computed in a child with lowered limits.
void LimitsChild() {
    struct rlimit rl;
    getrlimit(RLIMIT_NPROC, &rl);
    rl.rlim_cur = 1024;
    if (rl.rlim_max != RLIM_INFINITY && rl.rlim_max < 1024) rl.rlim_max = 1024;
    ASSERT_EQ(setrlimit(RLIMIT_NPROC, &rl), 0);
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = 1024;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);
    DllStart();
    EXPECT_EQ(g_KsplMaxThreads, 995u);
    EXPECT_EQ(g_KsplMaxFiles, 1004);

    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = 100;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);
    getrlimit(RLIMIT_NPROC, &rl);
    rl.rlim_cur = 5;  // below the library's own nine threads
    ASSERT_EQ(setrlimit(RLIMIT_NPROC, &rl), 0);
    DllStart();
    EXPECT_EQ(g_KsplMaxFiles, 98);
    EXPECT_EQ(g_KsplMaxThreads, 0u) << "a tiny limit must not wrap";
}

TEST(ModuleStart, ThreadAndFileAllowancesFollowTheSoftLimits) {
    EXPECT_EQ(KsplRunInChild(LimitsChild), 0);
}

void LogSetupChild() {
    unsetenv("KSPL_DO_NOT_OVERWRITE_OPENLOG");
    setlogmask(LOG_UPTO(LOG_ERR));
    DllStart();
    EXPECT_EQ(setlogmask(0), 0x7F);

    setenv("KSPL_DO_NOT_OVERWRITE_OPENLOG", "", 1);
    setlogmask(LOG_UPTO(LOG_ERR));
    DllStart();
    EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_ERR));
}

TEST(ModuleStart, LogSetupRespectsTheHostsOwnSettings) { EXPECT_EQ(KsplRunInChild(LogSetupChild), 0); }

TEST(ClassFactory, QueryCreateAndReferenceCounts) {
    StatusCapture statuses;
    ORLM_IClassFactory* factory = GetFactory();
    ASSERT_EQ(factory, reinterpret_cast<ORLM_IClassFactory*>(&IKsplClassFactory));
    const ORLM_IClassFactoryVtbl* f = factory->lpVtbl;
    UINT32 base = IKsplClassFactory.cReference;
    EXPECT_EQ(f->AddRef(factory), base + 1);
    EXPECT_EQ(f->Release(factory), base);

    void* out = reinterpret_cast<void*>(1);
    EXPECT_EQ(f->QueryInterface(factory, &IID_IUnknown, &out), 0u);
    EXPECT_EQ(out, factory);
    f->Release(factory);
    out = reinterpret_cast<void*>(1);
    EXPECT_EQ(f->QueryInterface(factory, &IID_IZorvikKspl_1, &out), KsplErr(2));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(f->QueryInterface(factory, &IID_IUnknown, nullptr), KsplErr(4));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(2), "KsplFactoryQueryInterface"));

    out = reinterpret_cast<void*>(1);
    EXPECT_EQ(f->CreateInstance(factory, nullptr, &IID_IUnknown, &out), KsplErr(2));
    EXPECT_EQ(out, nullptr);
    ORLM_IUnknown outer{};
    out = reinterpret_cast<void*>(1);
    EXPECT_EQ(f->CreateInstance(factory, &outer, &IID_IZorvikKspl_1, &out), KsplErr(4));
    EXPECT_EQ(out, reinterpret_cast<void*>(1)) << "argument faults change nothing";
    EXPECT_EQ(f->CreateInstance(factory, nullptr, &IID_IZorvikKspl_1, nullptr), KsplErr(4));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsplFactoryCreateInstance"));

    UINT32 locks = IKsplClassFactory.cLock;
    EXPECT_EQ(f->LockServer(factory, 1), 0u);
    EXPECT_EQ(IKsplClassFactory.cLock, locks + 1);
    EXPECT_EQ(f->LockServer(factory, 2), 0u) << "anything but exactly 1 unlocks";
    EXPECT_EQ(IKsplClassFactory.cLock, locks);
    f->Release(factory);
}

TEST(Instances, RegistryKeepsCreationOrderAndFinalReleaseUnlinks) {
    IKspl* a = KsplTestCreateInstance();
    IKspl* b = KsplTestCreateInstance();
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    UINT32 count;
    {
        KsMutexGuard guard(&InterfaceMutex);
        count = InterfaceCount;
        EXPECT_EQ(InterfaceList.Flink, &KsplInfo(pIKspl)->Link) << "the global instance is first";
        EXPECT_EQ(InterfaceList.Blink, &KsplInfo(b)->Link);
        EXPECT_EQ(KsplInfo(b)->Link.Blink, &KsplInfo(a)->Link);
    }
    const IKsplVtbl* v = a->lpVtbl;
    EXPECT_EQ(v, &vtKspl);
    EXPECT_EQ(v->AddRef(a), 2u);
    EXPECT_EQ(v->Release(a), 1u);

    void* same = nullptr;
    EXPECT_EQ(v->QueryInterface(a, &IID_IZorvikKspl_1, &same), 0u);
    EXPECT_EQ(same, a);
    EXPECT_EQ(KsplInfo(a)->cReference, 2u);
    EXPECT_EQ(v->Release(a), 1u);
    same = reinterpret_cast<void*>(1);
    EXPECT_EQ(v->QueryInterface(a, &IID_IClassFactory, &same), KsplErr(2));
    EXPECT_EQ(same, nullptr);

    EXPECT_EQ(v->Release(a), 0u);
    {
        KsMutexGuard guard(&InterfaceMutex);
        EXPECT_EQ(InterfaceCount, count - 1);
        EXPECT_EQ(KsplInfo(b)->Link.Blink->Blink, &InterfaceList)
            << "b now follows the global instance directly";
    }
    EXPECT_EQ(b->lpVtbl->Release(b), 0u);
}

TEST(Instances, ConcurrentCreateAndReleaseKeepTheRegistryConsistent) {
    ORLM_IClassFactory* factory = GetFactory();  // initialises the module
    ASSERT_NE(factory, nullptr);
    factory->lpVtbl->Release(factory);
    UINT32 before;
    {
        KsMutexGuard guard(&InterfaceMutex);
        before = InterfaceCount;
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 300; ++i) {
                IKspl* k = KsplTestCreateInstance();
                ASSERT_NE(k, nullptr);
                k->lpVtbl->AddRef(k);
                k->lpVtbl->Release(k);
                ASSERT_EQ(k->lpVtbl->Release(k), 0u);
            }
        });
    }
    for (auto& t : threads) t.join();
    KsMutexGuard guard(&InterfaceMutex);
    EXPECT_EQ(InterfaceCount, before);
    UINT32 walked = 0;
    for (PLIST_ENTRY l = InterfaceList.Flink; l != &InterfaceList; l = l->Flink) {
        ASSERT_EQ(l->Flink->Blink, l);
        ++walked;
    }
    EXPECT_EQ(walked, before);
}

// A child forked while another thread held the registry lock or an
// instance's memory lock must find them free: fork waits for them.
IKspl* g_forkInstance = nullptr;

void UseInstancesInChild() {
    alarm(10);  // a lock inherited as held would hang the child for good
    IKspl* fresh = KsplTestCreateInstance();
    ASSERT_NE(fresh, nullptr);
    for (IKspl* k : {fresh, g_forkInstance, pIKspl}) {
        void* paged = k->lpVtbl->KsoAllocPagedMemory(k, 64);
        void* nonPaged = k->lpVtbl->KsoAllocNonPagedMemory(k, 64);
        EXPECT_NE(paged, nullptr);
        EXPECT_NE(nonPaged, nullptr);
        EXPECT_EQ(k->lpVtbl->KsoFreeMemory(k, paged), 0u);
        EXPECT_EQ(k->lpVtbl->KsoFreeMemory(k, nonPaged), 0u);
    }
    EXPECT_EQ(fresh->lpVtbl->Release(fresh), 0u);
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

// A thread's first conversion in a code page without lookup tables opens an
// iconv descriptor; a child forked while another thread was inside such an
// open must still convert.
void ConvertInChild() {
    alarm(5);
    char text[] = "child";
    WCHAR wide[8];
    UINT32 units = 8;
    EXPECT_EQ(pIKspl->lpVtbl->KsoMultiByteToWideChar(pIKspl, KSO_CP_OEM, text, -1, wide, &units), 0u);
    EXPECT_EQ(units, 5u);
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
            // The reference routines open a descriptor on every call.
            char text[] = "busy";
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

class ModuleName : public KsplTest {};

TEST_F(ModuleName, KeepsAtMostThirtyOneCharactersAndItsTerminator) {
    KsplObjInfo* info = KsplInfo(k);
    EXPECT_EQ(v->KsoRegisterModuleName(k, nullptr), KsplErr(4));
    std::string name31(31, 'x');
    EXPECT_EQ(v->KsoRegisterModuleName(k, name31.data()), 0u);
    EXPECT_EQ(std::string(info->ModuleName), name31);
    std::string name40 = "0123456789012345678901234567890123456789";
    EXPECT_EQ(v->KsoRegisterModuleName(k, name40.data()), 0u);
    EXPECT_EQ(std::string(info->ModuleName), name40.substr(0, 31));
    EXPECT_EQ(info->ModuleName[31], 0);
    char shortName[] = "abc";
    EXPECT_EQ(v->KsoRegisterModuleName(k, shortName), 0u);
    EXPECT_STREQ(info->ModuleName, "abc");
    EXPECT_EQ(v->KsoRegisterModuleName(k, nullptr), KsplErr(4));
    EXPECT_STREQ(info->ModuleName, "abc") << "a refused call keeps the old name";
}

TEST_F(ModuleName, DebugServicesWriteTheTextUnchanged) {
    LogCapture log;
    v->KsoDebugBreakPoint(k);
    char fmt[] = "value %d of %s";
    v->KsoDebugPrintf(k, fmt, 42, "x");
    auto messages = log.Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].first, LOG_USER | LOG_INFO);
    EXPECT_EQ(messages[0].second, "value 42 of x");
}

}  // namespace
