// Security-context object manager: contexts kept apart, the header in front
// of each object, the access hand-over, one store per context under
// concurrent first creates, cross-context enumeration, and context end.
//
// The managers are obtained as a component obtains them: the runtime
// creates them by class id. The library is linked in statically here, so
// its class table is registered with the runtime in-process first.
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "object_int.h"
#include "scobject_int.h"

namespace {

GUID g_component = {0x5C0B0001, 0x1, 0x2, {9, 8, 7, 6, 5, 4, 3, 2}};

SCHANDLE Sc(uintptr_t type, uintptr_t id) {
    return {reinterpret_cast<HANDLE>(type), reinterpret_cast<HANDLE>(id)};
}
bool SameSc(SCHANDLE a, SCHANDLE b) { return a.hTypeId == b.hTypeId && a.hId == b.hId; }
const SCHANDLE kAll = Sc(~uintptr_t{0}, ~uintptr_t{0});

// The caller's object: a key, a serial set by the init routine, and a
// marker the delete routine checks.
struct Item {
    UINT32 key;
    UINT32 serial;
    UINT32 marker;
};
constexpr UINT32 kMarker = 0x1DEA5EED;

std::atomic<UINT32> g_serial{0};
std::mutex g_deletedMutex;
std::map<UINT32, int> g_deleted;  // delete calls per serial
std::set<PVOID> g_deletedAt;      // the pointers the delete routine received
std::atomic<int> g_badDelete{0};
std::mutex g_cleanedMutex;
std::vector<SCHANDLE> g_cleaned;

KSSTATUS InitItem(PVOID p, PVOID init) {
    auto* item = static_cast<Item*>(p);
    // The store zeroes the area before the routine sees it.
    if (item->key != 0 || item->serial != 0 || item->marker != 0) return KsplOmErr(77);
    item->key = init != nullptr ? *static_cast<UINT32*>(init) : 0;
    item->serial = ++g_serial;
    item->marker = kMarker;
    return 0;
}
KSSTATUS FailInit(PVOID, PVOID) { return KsplOmErr(78); }
BOOLEAN SameKey(PVOID p, PVOID key) { return static_cast<Item*>(p)->key == *static_cast<UINT32*>(key); }
KSSTATUS DeleteItem(PVOID p) {
    auto* item = static_cast<Item*>(p);
    if (item->marker != kMarker) g_badDelete.fetch_add(1);  // handed the header, not the area
    std::lock_guard<std::mutex> g(g_deletedMutex);
    ++g_deleted[item->serial];
    g_deletedAt.insert(p);
    return 0;
}
KSSTATUS CleanupContext(SCHANDLE hSC) {
    std::lock_guard<std::mutex> g(g_cleanedMutex);
    g_cleaned.push_back(hSC);
    return 0;
}
int DeletedCount(UINT32 serial) {
    std::lock_guard<std::mutex> g(g_deletedMutex);
    auto it = g_deleted.find(serial);
    return it == g_deleted.end() ? 0 : it->second;
}

class SCObjectTest : public KsplTest {
protected:
    void SetUp() override {
        KsplTest::SetUp();
        ASSERT_EQ(OrlmRegisterComponent("kspl (linked in)", DllGetClassObject, nullptr, ZLCOM_Table),
                  0u);
        {
            std::lock_guard<std::mutex> g(g_deletedMutex);
            g_deleted.clear();
            g_deletedAt.clear();
        }
        {
            std::lock_guard<std::mutex> g(g_cleanedMutex);
            g_cleaned.clear();
        }
        g_badDelete = 0;
        countAtStart_ = KsAtomicLoad(&g_ulCount);
        m = New2();
        ASSERT_NE(m, nullptr);
        v = m->lpVtbl;
        ASSERT_EQ(v->Initialize(m, &g_component, sizeof(Item), 4, 0, 4, DeleteItem, nullptr,
                                CleanupContext, 0),
                  0u);
    }
    void TearDown() override {
        if (m != nullptr) {
            EXPECT_EQ(v->Release(m), 0u);
        }
        EXPECT_EQ(g_badDelete.load(), 0) << "a delete routine saw something else than the item";
        {
            std::lock_guard<std::mutex> g(g_deletedMutex);
            for (auto& [serial, n] : g_deleted) EXPECT_EQ(n, 1) << "item " << serial;
        }
        EXPECT_EQ(KsAtomicLoad(&g_ulCount), countAtStart_) << "interface references leaked";
        KsplTest::TearDown();
    }

    static ISCOM_2* New2() {
        ISCOM_2* p = nullptr;
        GUID clsid = CLSID_ObjectManagerDataStore;
        EXPECT_EQ(OrlmCreateInstance(&clsid, nullptr, &IID_ISCObjectManager_2,
                                     reinterpret_cast<void**>(&p)),
                  0u);
        return p;
    }

    // Creates an item with `key` in `sc`, compared by key, and drops the
    // creator's reference (the item stays, findable).
    Item* Make(SCHANDLE sc, UINT32 key, UINT32* mode = nullptr) {
        PVOID p = nullptr;
        UINT32 opened = 0;
        EXPECT_EQ(v->CreateObject(m, sc, &key, InitItem, &key, SameKey, key % 4, 0, 0, &p, &opened),
                  0u);
        if (mode != nullptr) *mode = opened;
        if (p != nullptr) {
            EXPECT_EQ(v->DereferenceObject(m, p, 0), 0u);
        }
        return static_cast<Item*>(p);
    }
    // Finds the item with `key` in `sc` and deletes it.
    void Remove(SCHANDLE sc, UINT32 key) {
        PVOID p = nullptr;
        ASSERT_EQ(v->FindObject(m, sc, &key, SameKey, key % 4, 0, &p), 0u);
        ASSERT_EQ(v->DeleteObject(m, p, 0), 0u);
    }
    std::vector<Item*> ScanAll(int* errors) {
        ScanData scan{};
        std::vector<Item*> seen;
        PVOID p = nullptr;
        KSSTATUS st;
        while ((st = v->EnumerateObjects(m, kAll, &scan, nullptr, nullptr, 0, &p)) == 0) {
            seen.push_back(static_cast<Item*>(p));
            if (v->DereferenceObject(m, p, 0) != 0) ++*errors;
        }
        if (KS_STATUS_CODE(st) != 9) ++*errors;
        return seen;
    }

    ISCOM_2* m = nullptr;
    const ISCOM_2Vtbl* v = nullptr;

private:
    UINT32 countAtStart_ = 0;
};

TEST_F(SCObjectTest, InitializeChecksAndUnofferedSlots) {
    StatusCapture built;
    ISCOM_2* fresh = New2();
    ASSERT_NE(fresh, nullptr);
    const ISCOM_2Vtbl* fv = fresh->lpVtbl;
    EXPECT_EQ(fv->Initialize(fresh, &g_component, 8, 4, 1, 4, nullptr, nullptr, nullptr, 0),
              KsplOmErr(4));
    EXPECT_EQ(fv->Initialize(fresh, &g_component, 8, 256, 0, 4, nullptr, nullptr, nullptr, 0),
              KsplOmErr(4));
    EXPECT_EQ(fv->Initialize(fresh, nullptr, 8, 4, 0, 4, nullptr, nullptr, nullptr, 0),
              KsplOmErr(4));

    // Not initialised: create refuses, lookups have nothing.
    PVOID p = &p;
    UINT32 mode = 0;
    EXPECT_EQ(fv->CreateObject(fresh, Sc(1, 1), nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &p,
                               &mode),
              KsplOmErr(4));
    EXPECT_EQ(p, nullptr);
    EXPECT_TRUE(built.WasBuilt(KsplOmErr(4), "_GetSessionAttribute"));
    EXPECT_EQ(fv->CreateObject(fresh, Sc(1, 1), nullptr, nullptr, nullptr, nullptr, 0, 0, 0,
                               nullptr, &mode),
              KsplOmErr(4));

    // The deferred-deletion bits ride along; the lock kind is what counts.
    EXPECT_EQ(fv->Initialize(fresh, &g_component, 8, 255, 0x10000003u, 4, nullptr, nullptr,
                             nullptr, 0),
              0u);
    EXPECT_EQ(fv->Initialize(fresh, &g_component, 8, 4, 0, 4, nullptr, nullptr, nullptr, 0),
              KsplOmErr(4))
        << "a second Initialize would lose the first registration";

    // Version 1 has its own table on the same record; 2 switches back.
    ISCOM* one = nullptr;
    ASSERT_EQ(fv->QueryInterface(fresh, &IID_ISCObjectManager_1, reinterpret_cast<void**>(&one)),
              0u);
    EXPECT_EQ(static_cast<void*>(one), static_cast<void*>(fresh));
    EXPECT_EQ(one->lpVtbl, &vtSCObject);
    built.Clear();
    EXPECT_EQ(one->lpVtbl->AllocateObject(one, &p), KsplOmErr(13));
    EXPECT_EQ(one->lpVtbl->DeallocateObject(one, &p, 0), KsplOmErr(13));
    EXPECT_EQ(one->lpVtbl->OpenObject(one, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &p, &mode),
              KsplOmErr(13));
    UINT32 a = 1, b = 1, c = 1;
    EXPECT_EQ(one->lpVtbl->GetObjectStats(one, &a, &b, &c), KsplOmErr(16));
    EXPECT_TRUE(built.WasBuilt(KsplOmErr(13), "SCObjectOpen"));
    EXPECT_TRUE(built.WasBuilt(KsplOmErr(16), "SCObjectGetStats"));
    void* q = &q;
    EXPECT_EQ(one->lpVtbl->QueryInterface(one, &IID_IObjectManager_1, &q), KsplOmErr(2));
    EXPECT_EQ(q, nullptr);
    EXPECT_EQ(one->lpVtbl->Release(one), 1u);
    ASSERT_EQ(fv->QueryInterface(fresh, &IID_ISCObjectManager_2, &q), 0u);
    EXPECT_EQ(fresh->lpVtbl, &vtSCObject_2);
    EXPECT_EQ(fv->Release(fresh), 1u);
    EXPECT_EQ(fv->Release(fresh), 0u);
}

TEST_F(SCObjectTest, ContextsKeepObjectsOfTheSameKeyApart) {
    UINT32 mode = 0;
    Item* a = Make(Sc(1, 100), 5, &mode);
    EXPECT_EQ(mode, OM_OPENED_CREATED);
    Item* b = Make(Sc(2, 100), 5, &mode);
    EXPECT_EQ(mode, OM_OPENED_CREATED) << "same key, other context: a new object";
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_NE(a, b);
    EXPECT_EQ(Make(Sc(1, 100), 5, &mode), a);
    EXPECT_EQ(mode, OM_OPENED_EXISTING);

    SCHANDLE got{};
    EXPECT_EQ(v->GetObjectSecurityContext(m, a, &got), 0u);
    EXPECT_TRUE(SameSc(got, Sc(1, 100)));
    EXPECT_EQ(v->GetObjectSecurityContext(m, b, &got), 0u);
    EXPECT_TRUE(SameSc(got, Sc(2, 100)));
    EXPECT_EQ(v->GetObjectSecurityContext(m, b, nullptr), KsplOmErr(4));
    EXPECT_EQ(v->GetObjectSecurityContext(m, nullptr, &got), KsplOmErr(4));

    UINT32 key = 5;
    PVOID p = nullptr;
    ASSERT_EQ(v->FindObject(m, Sc(2, 100), &key, SameKey, 1, 0, &p), 0u);
    EXPECT_EQ(p, b);
    EXPECT_EQ(v->DereferenceObject(m, p, 0), 0u);

    // Handles are per store: both first objects may have the same value,
    // and each context resolves it to its own object.
    HANDLE ha = nullptr, hb = nullptr;
    ASSERT_EQ(v->GetObjectHandle(m, a, &ha), 0u);
    ASSERT_EQ(v->GetObjectHandle(m, b, &hb), 0u);
    EXPECT_EQ(v->ReferenceObjectByHandle(m, Sc(1, 100), ha, 2, &p), 0u);
    EXPECT_EQ(p, a);
    EXPECT_EQ(v->ReleaseObject(m, p), 0u);
    EXPECT_EQ(v->DereferenceObject(m, p, 0), 0u);
    EXPECT_EQ(v->ReferenceObjectByHandle(m, Sc(2, 100), hb, 0, &p), 0u);
    EXPECT_EQ(p, b);
    EXPECT_EQ(v->DereferenceObject(m, p, 0), 0u);
    p = &p;
    EXPECT_EQ(KS_STATUS_CODE(v->ReferenceObjectByHandle(m, Sc(3, 100), ha, 0, &p)), 3u);
    EXPECT_EQ(p, nullptr);

    // A create without a compare routine always makes a new object.
    PVOID n1 = nullptr, n2 = nullptr;
    ASSERT_EQ(v->CreateObject(m, Sc(1, 100), &key, InitItem, nullptr, nullptr, 1, 0, 0, &n1, &mode),
              0u);
    ASSERT_EQ(v->CreateObject(m, Sc(1, 100), &key, InitItem, nullptr, nullptr, 1, 0, 0, &n2, &mode),
              0u);
    EXPECT_NE(n1, n2);
    EXPECT_NE(n1, a);
    UINT32 alloc = 0, inUse = 0, pre = 9;
    EXPECT_EQ(v->GetObjectStats(m, Sc(1, 100), &alloc, &inUse, &pre), 0u);
    EXPECT_EQ(inUse, 3u);
    EXPECT_EQ(pre, 0u);
    EXPECT_GE(alloc, 3u);
    EXPECT_EQ(v->GetObjectStats(m, Sc(2, 100), &alloc, &inUse, &pre), 0u);
    EXPECT_EQ(inUse, 1u);
    EXPECT_EQ(v->DeleteObject(m, n1, 0), 0u);
    EXPECT_EQ(v->DeleteObject(m, n2, 0), 0u);

    // A failing init routine: its status, nothing made.
    EXPECT_EQ(v->CreateObject(m, Sc(1, 100), nullptr, FailInit, nullptr, nullptr, 0, 0, 0, &p,
                              &mode),
              KsplOmErr(78));
    EXPECT_EQ(v->GetObjectStats(m, Sc(1, 100), &alloc, &inUse, &pre), 0u);
    EXPECT_EQ(inUse, 1u);
}

TEST_F(SCObjectTest, DeleteRoutineSeesTheCallersArea) {
    Item* a = Make(Sc(4, 1), 9);
    ASSERT_NE(a, nullptr);
    const UINT32 serial = a->serial;
    // Hold a reference across the delete: the routine waits for it.
    ASSERT_EQ(v->IncrementReference(m, a), 0u);
    Remove(Sc(4, 1), 9);
    EXPECT_EQ(DeletedCount(serial), 0);
    EXPECT_EQ(v->DecrementReference(m, a), 0u);
    EXPECT_EQ(DeletedCount(serial), 1);
    std::lock_guard<std::mutex> g(g_deletedMutex);
    EXPECT_EQ(g_deletedAt.count(a), 1u) << "the routine got another pointer than the caller's";
}

TEST_F(SCObjectTest, LookupsInAContextWithoutObjects) {
    StatusCapture built;
    PVOID p = &p;
    EXPECT_EQ(v->FindObject(m, Sc(5, 5), nullptr, nullptr, 0, 0, &p), KsplOmErr(9));
    EXPECT_EQ(p, nullptr);
    EXPECT_FALSE(built.WasBuilt(KsplOmErr(9))) << "an empty find is a constant status";
    ScanData scan{};
    EXPECT_EQ(v->EnumerateObjects(m, Sc(5, 5), &scan, nullptr, nullptr, 0, &p), KsplOmErr(9));
    EXPECT_TRUE(built.WasBuilt(KsplOmErr(9), "SCObjectEnumerate2"));
    EXPECT_EQ(v->FindObject(m, Sc(5, 5), nullptr, nullptr, 0, 0, nullptr), KsplOmErr(4));
    EXPECT_EQ(v->EnumerateObjects(m, Sc(5, 5), &scan, nullptr, nullptr, 0, nullptr), KsplOmErr(4));

    // Version 1 enumeration, same answer.
    ISCOM* one = nullptr;
    ASSERT_EQ(v->QueryInterface(m, &IID_ISCObjectManager_1, reinterpret_cast<void**>(&one)), 0u);
    HANDLE cursor = nullptr;
    EXPECT_EQ(one->lpVtbl->EnumerateObjects(one, Sc(5, 5), &cursor, nullptr, nullptr, 0, &p),
              KsplOmErr(9));
    // ...and in a context with objects it walks them to the store's end.
    Make(Sc(5, 6), 1);
    Make(Sc(5, 6), 2);
    int n = 0;
    while (one->lpVtbl->EnumerateObjects(one, Sc(5, 6), &cursor, nullptr, nullptr, 2, &p) == 0) {
        ++n;
        EXPECT_EQ(one->lpVtbl->DereferenceObject(one, p, 2), 0u);
    }
    EXPECT_EQ(n, 2);
    ASSERT_EQ(one->lpVtbl->QueryInterface(one, &IID_ISCObjectManager_2, &p), 0u);
    EXPECT_EQ(v->Release(m), 2u);
    EXPECT_EQ(v->Release(m), 1u);

    UINT32 alloc = 7, inUse = 7, pre = 7;
    EXPECT_EQ(v->GetObjectStats(m, Sc(5, 5), &alloc, &inUse, &pre), 0u);
    EXPECT_EQ(alloc + inUse + pre, 0u);
    EXPECT_EQ(v->GetObjectStats(m, Sc(5, 5), nullptr, nullptr, nullptr), 0u);
}

TEST_F(SCObjectTest, AccessIsHandedOverNotHeld) {
    // The creator holds its new object exclusively; the context itself must
    // stay usable by others meanwhile.
    UINT32 key = 1, mode = 0;
    PVOID held = nullptr;
    ASSERT_EQ(v->CreateObject(m, Sc(6, 1), &key, InitItem, &key, SameKey, 1, 1, 2, &held, &mode),
              0u);
    EXPECT_EQ(mode, OM_OPENED_CREATED);
    std::atomic<bool> found{false};
    std::thread other([&] {
        Make(Sc(6, 1), 2);  // same context, other object: must not wait
        PVOID p = nullptr;
        UINT32 k = 1;
        EXPECT_EQ(v->FindObject(m, Sc(6, 1), &k, SameKey, 1, 2, &p), 0u);  // waits for `held`
        found = true;
        EXPECT_EQ(v->DereferenceObject(m, p, 2), 0u);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(found.load()) << "a shared find got through the creator's exclusive hold";
    EXPECT_EQ(v->DereferenceObject(m, held, 1), 0u);
    other.join();
    EXPECT_TRUE(found.load());

    // Opening an existing object takes openAccess.
    PVOID again = nullptr;
    ASSERT_EQ(v->CreateObject(m, Sc(6, 1), &key, InitItem, &key, SameKey, 1, 1, 2, &again, &mode),
              0u);
    EXPECT_EQ(mode, OM_OPENED_EXISTING);
    EXPECT_EQ(again, held);
    EXPECT_EQ(v->ReleaseObject(m, again), 0u);
    EXPECT_EQ(v->AcquireObject(m, again, 1), 0u);
    EXPECT_EQ(v->DeleteObject(m, again, 1), 0u);
}

TEST_F(SCObjectTest, ConcurrentFirstCreatesMakeOneStore) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 40;
    std::barrier sync(kThreads);
    std::vector<PVOID> made(kThreads);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                SCHANDLE sc = Sc(7, static_cast<uintptr_t>(round));
                UINT32 key = static_cast<UINT32>(t), mode = 0;
                sync.arrive_and_wait();
                PVOID p = nullptr;
                if (v->CreateObject(m, sc, &key, InitItem, nullptr, nullptr, 0, 0, 0, &p, &mode) != 0 ||
                    mode != OM_OPENED_CREATED) {
                    wrong.fetch_add(1);
                }
                made[t] = p;
                sync.arrive_and_wait();
                if (t == 0) {
                    std::set<ObjectInfo*> stores;
                    for (PVOID q : made) {
                        if (q == nullptr) continue;
                        stores.insert(ObFromUser(static_cast<unsigned char*>(q) - sizeof(SCHeader))
                                          ->blockStart->oi);
                    }
                    if (stores.size() != 1) wrong.fetch_add(1);
                    UINT32 alloc = 0, inUse = 0, pre = 0;
                    v->GetObjectStats(m, sc, &alloc, &inUse, &pre);
                    if (inUse != kThreads) wrong.fetch_add(1);
                }
                sync.arrive_and_wait();
                if (v->DeleteObject(m, p, 0) != 0) wrong.fetch_add(1);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
    // Losing stores were released; the teardown checks the memory.
}

TEST_F(SCObjectTest, CrossContextEnumerationVisitsEachObjectOnce) {
    std::map<Item*, int> expected;
    for (uintptr_t c = 0; c < 6; ++c) {
        for (UINT32 k = 0; k < 1 + c; ++k) expected[Make(Sc(8, c), k)] = 0;
    }
    // An enumeration with access: each object comes held, shared.
    ScanData scan{};
    PVOID p = nullptr;
    KSSTATUS st;
    while ((st = v->EnumerateObjects(m, kAll, &scan, nullptr, nullptr, 2, &p)) == 0) {
        ASSERT_EQ(expected.count(static_cast<Item*>(p)), 1u);
        ++expected[static_cast<Item*>(p)];
        SCHANDLE sc{};
        v->GetObjectSecurityContext(m, p, &sc);
        EXPECT_TRUE(SameSc(sc, scan.hLastSC));
        EXPECT_EQ(v->DereferenceObject(m, p, 2), 0u);
    }
    EXPECT_EQ(KS_STATUS_CODE(st), 9u);
    EXPECT_TRUE(KS_IS_ERROR(st));
    for (auto& [item, n] : expected) EXPECT_EQ(n, 1);

    // With a compare routine: only the matching keys, still across contexts.
    UINT32 key = 2;
    std::memset(&scan, 0, sizeof scan);
    int matches = 0;
    while (v->EnumerateObjects(m, kAll, &scan, &key, SameKey, 0, &p) == 0) {
        EXPECT_EQ(static_cast<Item*>(p)->key, 2u);
        ++matches;
        v->DereferenceObject(m, p, 0);
    }
    EXPECT_EQ(matches, 4);  // contexts 2..5 have a key 2
}

TEST_F(SCObjectTest, CrossContextEnumerationMovesOnWhenTheCurrentContextEnds) {
    Make(Sc(12, 1), 0);
    Make(Sc(12, 1), 1);
    Make(Sc(12, 1), 2);
    std::set<Item*> later = {Make(Sc(12, 2), 0), Make(Sc(12, 2), 1), Make(Sc(12, 3), 0)};
    ScanData scan{};
    PVOID p = nullptr;
    ASSERT_EQ(v->EnumerateObjects(m, kAll, &scan, nullptr, nullptr, 0, &p), 0u);
    EXPECT_TRUE(SameSc(scan.hLastSC, Sc(12, 1)));
    EXPECT_EQ(v->DereferenceObject(m, p, 0), 0u);
    // The context in progress ends (its store with it) and one ahead is
    // made: the scan goes on with the contexts that remain.
    ASSERT_EQ(OrlmEndSecurityContext(Sc(12, 1)), 0u);
    later.insert(Make(Sc(12, 4), 0));
    std::set<Item*> seen;
    KSSTATUS st;
    while ((st = v->EnumerateObjects(m, kAll, &scan, nullptr, nullptr, 0, &p)) == 0) {
        EXPECT_TRUE(seen.insert(static_cast<Item*>(p)).second) << "visited twice";
        EXPECT_EQ(v->DereferenceObject(m, p, 0), 0u);
    }
    EXPECT_EQ(KS_STATUS_CODE(st), 9u);
    EXPECT_EQ(seen, later);
}

TEST_F(SCObjectTest, CrossContextEnumerationWhileContextsComeAndGo) {
    // Stable objects: keys 0..3 in contexts 0, 2, 4, ... 18. Meanwhile a
    // churn thread adds and deletes objects (keys 100+) in the stable
    // contexts, and makes and ends contexts of their own (odd ids).
    std::set<Item*> stable;
    for (uintptr_t c = 0; c < 20; c += 2) {
        for (UINT32 k = 0; k < 4; ++k) stable.insert(Make(Sc(9, c), k));
    }
    std::atomic<bool> stop{false};
    std::atomic<uintptr_t> progress{0};
    std::thread churn([&] {
        uintptr_t n = 0;
        while (!stop) {
            progress.store(n);
            SCHANDLE busy = Sc(9, 2 * (n % 10));
            SCHANDLE passing = Sc(9, 2 * (n % 10) + 1);
            UINT32 key = 100 + static_cast<UINT32>(n % 7);
            Make(busy, key);
            Make(passing, key);
            Remove(busy, key);
            if (n % 3 == 0) OrlmEndSecurityContext(passing);
            ++n;
        }
    });
    for (int pass = 0; pass < 100; ++pass) {
        // Let the churn move on between passes so that every pass overlaps it.
        uintptr_t at = progress.load();
        while (progress.load() < at + 3) std::this_thread::yield();
        int errors = 0;
        std::vector<Item*> seen = ScanAll(&errors);
        EXPECT_EQ(errors, 0);
        std::map<Item*, int> count;
        for (Item* item : seen) {
            if (stable.count(item) != 0) ++count[item];
        }
        EXPECT_EQ(count.size(), stable.size()) << "pass " << pass;
        for (auto& [item, n] : count) EXPECT_EQ(n, 1) << "pass " << pass;
    }
    stop = true;
    churn.join();
    for (uintptr_t c = 1; c < 20; c += 2) OrlmEndSecurityContext(Sc(9, c));
}

TEST_F(SCObjectTest, EndingAContextReleasesItsStore) {
    const KsplCounters before = KsplInUseCounters(pIKspl);
    std::vector<UINT32> serials;
    for (UINT32 k = 0; k < 10; ++k) serials.push_back(Make(Sc(10, 1), k)->serial);
    Item* other = Make(Sc(10, 2), 0);
    PVOID held = nullptr;
    UINT32 key = 3;
    ASSERT_EQ(v->FindObject(m, Sc(10, 1), &key, SameKey, 3, 0, &held), 0u);
    EXPECT_NE(KsplInUseCounters(pIKspl), before);

    EXPECT_EQ(OrlmEndSecurityContext(Sc(10, 1)), 0u);
    for (UINT32 k = 0; k < 10; ++k) {
        EXPECT_EQ(DeletedCount(serials[k]), k == 3 ? 0 : 1) << k;
    }
    {
        std::lock_guard<std::mutex> g(g_cleanedMutex);
        ASSERT_EQ(g_cleaned.size(), 1u);
        EXPECT_TRUE(SameSc(g_cleaned[0], Sc(10, 1)));
    }
    PVOID p = nullptr;
    EXPECT_EQ(v->FindObject(m, Sc(10, 1), &key, SameKey, 3, 0, &p), KsplOmErr(9));
    // The held object outlives its context until its holder lets go; it
    // still knows where it came from.
    SCHANDLE sc{};
    EXPECT_EQ(v->GetObjectSecurityContext(m, held, &sc), 0u);
    EXPECT_TRUE(SameSc(sc, Sc(10, 1)));
    EXPECT_EQ(v->DereferenceObject(m, held, 0), 0u);
    EXPECT_EQ(DeletedCount(serials[3]), 1);

    // The other context is untouched; a new store comes with a new object.
    EXPECT_EQ(v->FindObject(m, Sc(10, 2), &key, SameKey, 0, 0, &p), KsplOmErr(11));
    key = 0;
    ASSERT_EQ(v->FindObject(m, Sc(10, 2), &key, SameKey, 0, 0, &p), 0u);
    EXPECT_EQ(p, other);
    v->DereferenceObject(m, p, 0);
    EXPECT_EQ(OrlmEndSecurityContext(Sc(10, 2)), 0u);
    EXPECT_EQ(KsplInUseCounters(pIKspl), before) << "a store outlived its context";
}

TEST_F(SCObjectTest, ReleasingTheManagerReleasesEveryStore) {
    ISCOM_2* second = New2();
    ASSERT_NE(second, nullptr);
    ASSERT_EQ(second->lpVtbl->Initialize(second, &g_component, sizeof(Item), 2, 3, 1, DeleteItem,
                                         nullptr, nullptr, 1),
              0u);
    std::vector<UINT32> serials;
    for (uintptr_t c = 0; c < 5; ++c) {
        for (UINT32 k = 0; k < 3; ++k) {
            PVOID p = nullptr;
            UINT32 mode = 0;
            ASSERT_EQ(second->lpVtbl->CreateObject(second, Sc(11, c), &k, InitItem, nullptr, nullptr,
                                                   0, 0, 0, &p, &mode),
                      0u);
            serials.push_back(static_cast<Item*>(p)->serial);
            second->lpVtbl->DereferenceObject(second, p, 0);
        }
    }
    // The same contexts in this fixture's manager are other stores.
    Item* mine = Make(Sc(11, 0), 0);
    EXPECT_EQ(second->lpVtbl->Release(second), 0u);
    for (UINT32 s : serials) EXPECT_EQ(DeletedCount(s), 1);
    EXPECT_EQ(DeletedCount(mine->serial), 0);
    UINT32 alloc = 0, inUse = 0, pre = 0;
    EXPECT_EQ(v->GetObjectStats(m, Sc(11, 0), &alloc, &inUse, &pre), 0u);
    EXPECT_EQ(inUse, 1u);
}

}  // namespace
