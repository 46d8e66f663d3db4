// object_test_util.h - what the object-manager suites share: stores obtained
// as a component obtains them, the test object and its routines, and a
// fixture that waits for deletion threads before the leak checks run.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "factory_int.h"
#include "object_int.h"

// The user area of every test store.
struct Item {
    UINT32 key;
    UINT32 value;
    UINT64 serial;  // incarnation number, set by the init routine
    UINT64 pad;
};

// Counters of the routines; reset by the fixture.
struct RoutineCounters {
    std::atomic<int> inits{0};
    std::atomic<int> deletes{0};
    std::atomic<int> deallocs{0};
    std::atomic<UINT64> serial{0};
};
inline RoutineCounters g_routines;

constexpr UINT32 kDeallocMarker = 0xDEA110C8u;
constexpr KSSTATUS kInitFailure = 0xC0DE0042u;  // severity 3, foreign facility

inline KSSTATUS InitItem(PVOID user, PVOID init) {
    auto* item = static_cast<Item*>(user);
    UINT32 key = static_cast<UINT32>(reinterpret_cast<uintptr_t>(init));
    if (key == 0xFFFFFFFFu) return kInitFailure;
    item->key = key;
    item->serial = ++g_routines.serial;
    ++g_routines.inits;
    return 0;
}
inline BOOLEAN CompareItem(PVOID user, PVOID data) {
    return static_cast<Item*>(user)->key == static_cast<UINT32>(reinterpret_cast<uintptr_t>(data))
               ? TRUE
               : FALSE;
}
inline KSSTATUS DeleteItem(PVOID user) {
    static_cast<Item*>(user)->value = 0xDEADu;
    ++g_routines.deletes;
    return 0;
}
inline KSSTATUS DeallocItem(PVOID user) {
    static_cast<Item*>(user)->value = kDeallocMarker;
    ++g_routines.deallocs;
    return 0;
}
inline PVOID KeyArg(UINT32 key) { return reinterpret_cast<PVOID>(static_cast<uintptr_t>(key)); }

inline UINT32 CountOf(PVOID user) { return ObCount(ObFromUser(user)); }
inline UINT8 FlagsOf(PVOID user) { return ObFlags(ObFromUser(user)); }

template <typename Pred>
bool WaitUntil(Pred pred, std::chrono::milliseconds limit = std::chrono::milliseconds(20000)) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// True once no deletion thread of the store has work left.
inline bool DeletionIdle(ObjectInfo* oi) {
    LockInstance(oi, kOmAccessExclusive);
    bool idle = !oi->objDeleteActive && OmListEmpty(oi, &oi->objDeleteList);
    UnlockInstance(oi);
    return idle;
}

class OmTest : public KsplTest {
protected:
    void SetUp() override {
        KsplTest::SetUp();
        g_routines.inits = 0;
        g_routines.deletes = 0;
        g_routines.deallocs = 0;
        globalAtStart_ = KsplInUseCounters(pIKspl);
        threadsAtStart_ = KsAtomicLoad(&g_KsplCurrentThreads);
        ulCountAtStart_ = KsAtomicLoad(&g_ulCount);
    }
    void TearDown() override {
        // Deletion threads end on their own; their records go back to the
        // global instance just after they leave the thread count.
        EXPECT_TRUE(WaitUntil([&] {
            return KsAtomicLoad(&g_KsplCurrentThreads) == threadsAtStart_ &&
                   KsplInUseCounters(pIKspl) == globalAtStart_;
        }, std::chrono::milliseconds(HasFailure() ? 500 : 20000))) << "the store left memory, locks or threads behind";
        EXPECT_EQ(KsAtomicLoad(&g_ulCount), ulCountAtStart_) << "interface references leaked";
        KsplTest::TearDown();
    }

    static IOM* NewStore(const GUID& iid = IID_IObjectManager_1) {
        ORLM_IClassFactory* factory = nullptr;
        GUID clsid = CLSID_ObjectManagerDataStore;
        GUID cf = IID_IClassFactory;
        if (DllGetClassObject(&clsid, &cf, reinterpret_cast<PVOID*>(&factory)) != 0) return nullptr;
        IOM* om = nullptr;
        UINT32 st = factory->lpVtbl->CreateInstance(factory, nullptr, &iid,
                                                    reinterpret_cast<void**>(&om));
        factory->lpVtbl->Release(factory);
        return st == 0 ? om : nullptr;
    }
    // An initialised version-1 store of Items.
    static IOM* MakeStore(UINT16 perBlock, UINT32 level, UINT32 hashSize, UINT32 permBlocks = 0,
                          bool routines = true) {
        IOM* om = NewStore();
        if (om == nullptr) return nullptr;
        KSSTATUS st = om->lpVtbl->Initialize(om, sizeof(Item), perBlock, level, hashSize,
                                             routines ? DeleteItem : nullptr,
                                             routines ? DeallocItem : nullptr, nullptr, permBlocks);
        if (st != 0) {
            om->lpVtbl->Release(om);
            return nullptr;
        }
        return om;
    }
    static ObjectInfo* Info(IOM* om) { return reinterpret_cast<ObjectInfo*>(om); }

    KsplCounters globalAtStart_{};
    INT32 threadsAtStart_ = 0;
    UINT32 ulCountAtStart_ = 0;
};
