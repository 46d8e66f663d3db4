// object_test.cpp - the object manager: random operation sequences checked
// against the reference model (object_model.h), refused calls and their
// statuses, version-2 handles, waiters for an object's lock, deferred
// deletion, and several threads on one store (lookups under the shared
// instance lock racing deletion and dereference, then the store's release
// while objects are held), meaningful under ThreadSanitizer.
#include <latch>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>

#include "om_fixture.h"
#include "sysalloc_int.h"

namespace {

// --- the reference model -----------------------------------------------------

// Lock kind (with or without deferred deletion) by chain count; stores with
// three chains also start with two permanent blocks.
class OmModel : public OmTest, public ::testing::WithParamInterface<std::tuple<UINT32, UINT32>> {};

TEST_P(OmModel, RandomSequencesMatchTheModel) {
    const auto [level, chains] = GetParam();
    IOM* om = MakeStore(3, level, chains, chains - 1);
    ASSERT_NE(om, nullptr);
    std::mt19937 rng(level ^ chains);
    StoreModel model(
        om, 3, chains, chains - 1,
        [&rng](UINT32 n) { return static_cast<UINT32>(n == 0 ? rng() : rng() % n); },
        [](const char* what) { throw std::runtime_error(what); });
    StatusCapture sc;
    for (int step = 0; step < 2000; ++step) ASSERT_NO_THROW(model.Step()) << "step " << step;
    EXPECT_EQ(sc.Built().size(), model.built) << "a constant status was built and logged";
    ASSERT_NO_THROW(model.Teardown());
}

INSTANTIATE_TEST_SUITE_P(Stores, OmModel,
                         ::testing::Combine(::testing::Values(0u, 3u, 0x10000000u, 0x40000003u),
                                            ::testing::Values(1u, 3u)));

// --- single-threaded rules the model does not cover ----------------------------

// A version-2 query turns the same record into IOM_2, whose handles are
// the raw ones masked with the global instance's address.
TEST_F(OmTest, VersionTwoHandlesAreMasked) {
    IOM* one = MakeStore(4, 0, 1);
    ASSERT_NE(one, nullptr);
    PVOID user = Create(one, 7);
    IOM_2* om = nullptr;
    void** out = reinterpret_cast<void**>(&om);
    ASSERT_EQ(one->lpVtbl->QueryInterface(one, &IID_IObjectManager_2, out), 0u);
    EXPECT_EQ(om->lpVtbl->Release(om), 1u);
    HANDLE masked = nullptr;
    HANDLE raw = nullptr;
    ASSERT_EQ(om->lpVtbl->GetObjectHandle(om, user, &masked), 0u);
    ASSERT_EQ(om->lpVtbl->GetRawObjectHandle(om, user, &raw), 0u);
    EXPECT_EQ(HandleFromPtr(raw), 0x01010001u);
    EXPECT_EQ(HandleFromPtr(masked) ^ 0x01010001u,
              static_cast<UINT32>(reinterpret_cast<uintptr_t>(pIKspl)));
    // The raw form is unmasked into a value that names nothing.
    PVOID again = nullptr;
    EXPECT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, raw, 0, &again), kBadHandle);
    EXPECT_EQ(om->lpVtbl->DeleteObject(om, user, 0), 0u);
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

// Refused calls return their exact code, built and logged under their own
// name (the constant statuses are the model test's).
TEST_F(OmTest, RefusedCallsBuildTheirCodeUnderTheirName) {
    IOM* om = NewStore();
    ASSERT_NE(om, nullptr);
    const IOMVtbl* t = om->lpVtbl;
    StatusCapture sc;
    auto refused = [&](KSSTATUS st, UINT32 code, const char* fn) {
        EXPECT_EQ(st, KsplOmErr(code)) << fn;
        EXPECT_TRUE(sc.WasBuilt(KsplOmErr(code), fn)) << fn;
        sc.Clear();
    };
    // Bad shapes (the last one fails after making 65535 blocks, which it
    // must give back) leave an instance that refuses objects.
    const UINT32 shapes[][5] = {{16, 4, 1, 1, 0},     {16, 0, 0, 1, 0},
                                {16, 256, 0, 1, 0},   {16, 4, 0, 65536, 0},
                                {0xFFFFFFF0u, 4, 0, 1, 0}, {8, 1, 0, 1, 65536}};
    PVOID user = nullptr;
    for (const auto& s : shapes) {
        refused(t->Initialize(om, s[0], static_cast<UINT16>(s[1]), s[2], s[3], nullptr, nullptr,
                              nullptr, s[4]),
                s[4] != 0 ? KSPL_OM_CODE_NO_MEMORY : KSPL_OM_CODE_INVALID_PARAM,
                "InternalInitialize");
        refused(t->CreateObject(om, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &user, nullptr),
                KSPL_OM_CODE_INVALID_PARAM, "ObjectCreate");
    }
    ASSERT_EQ(t->Initialize(om, sizeof(Item), 2, 0, 0, DeleteItem, nullptr, nullptr, 0), 0u);
    refused(t->Initialize(om, 16, 4, 0, 1, nullptr, nullptr, nullptr, 0),
            KSPL_OM_CODE_REINITIALIZED, "InternalInitialize");
    // hashSize 0 made one chain.
    refused(t->CreateObject(om, nullptr, nullptr, nullptr, nullptr, 1, 0, 0, &user, nullptr),
            KSPL_OM_CODE_INVALID_PARAM, "ObjectCreate");
    refused(t->FindObject(om, nullptr, nullptr, 1, 0, &user), KSPL_OM_CODE_INVALID_PARAM,
            "ObjectFind");
    for (UINT32 bad : {0x00000001u, 0x03000001u}) {  // index byte 0, beyond the block
        HANDLE cursor = PtrFromHandle(bad);
        refused(t->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user),
                KSPL_OM_CODE_INVALID_PARAM, "ObjectEnumerate");
        EXPECT_EQ(HandleFromPtr(cursor), bad);
        UINT32 mode = 9;
        refused(t->CreateObjectByHandle(om, cursor, nullptr, nullptr, 0, 0, &user, &mode),
                KSPL_OM_CODE_INVALID_HANDLE, "ObjectCreateByHandle");
        EXPECT_EQ(mode, 0u);
    }
    refused(t->ReferenceObjectByHandle(om, PtrFromHandle(0x01010001u), 0, nullptr),
            KSPL_OM_CODE_INVALID_PARAM, "ObjectReferenceByHandle");
    refused(t->DeleteObject(om, nullptr, 0), KSPL_OM_CODE_INVALID_PARAM, "ObjectDelete");

    EXPECT_EQ(t->Release(om), 0u);
}

// --- the block index: stores of more than one group of 256 block ids ----------

std::vector<UINT32> BlockIds(IOM* om) {
    auto* oi = reinterpret_cast<ObjectInfo*>(om);
    std::vector<UINT32> ids;
    LockInstance(oi, kOmAccessExclusive);
    for (PLIST_ENTRY l = oi->blockList.Flink; l != &oi->blockList; l = l->Flink) {
        ids.push_back(BlockFromLink(l)->blockId);
    }
    UnlockInstance(oi);
    return ids;
}

PVOID CreateAt(IOM* om, UINT32 blockId, UINT32 index = 1) {
    PVOID user = nullptr;
    UINT32 mode = 0;
    EXPECT_EQ(om->lpVtbl->CreateObjectByHandle(om, PtrFromHandle(MakeHandle(blockId, 1, index)),
                                               KeyArg(blockId), InitItem, 0, 0, &user, &mode),
              0u);
    EXPECT_EQ(mode, static_cast<UINT32>(OM_OPENED_CREATED));
    return user;
}

UINT32 BlockOf(PVOID user) { return HandleBlockId(ObHandle(ObFromUser(user))); }

// Blocks scattered over several groups: the list stays sorted, new blocks
// take the smallest unused id wherever the gaps are, lookups by handle and
// the enumeration cursor find blocks in any group (and the next one when
// the cursor's block is gone), and emptied groups give their memory back.
TEST_F(OmTest, BlocksInManyGroupsKeepTheirOrderAndIds) {
    IOM* om = MakeStore(1, 0, 1);
    ASSERT_NE(om, nullptr);
    const IOMVtbl* t = om->lpVtbl;
    std::map<UINT32, PVOID> objects;
    for (UINT32 id : {300u, 256u, 255u, 65535u, 512u, 1u}) objects[id] = CreateAt(om, id);
    EXPECT_EQ(BlockIds(om), (std::vector<UINT32>{1, 255, 256, 300, 512, 65535}));

    // Ids 2..254, then 257 (255 and 256 are taken), then 258.
    for (UINT32 expected = 2; expected <= 258; ++expected) {
        if (expected == 255 || expected == 256) continue;
        PVOID user = Create(om, expected);
        ASSERT_EQ(BlockOf(user), expected);
        objects[expected] = user;
    }
    UINT32 allocated = 0;
    ASSERT_EQ(t->GetObjectStats(om, &allocated, nullptr, nullptr), 0u);
    EXPECT_EQ(allocated, objects.size());

    for (const auto& [id, user] : objects) {
        PVOID found = nullptr;
        HANDLE h = nullptr;
        ASSERT_EQ(t->GetObjectHandle(om, user, &h), 0u);
        ASSERT_EQ(t->ReferenceObjectByHandle(om, h, 0, &found), 0u) << id;
        EXPECT_EQ(found, user);
        EXPECT_EQ(t->DereferenceObject(om, found, 0), 0u);
    }
    PVOID none = nullptr;
    for (UINT32 id : {259u, 299u, 301u, 511u, 700u, 65534u}) {
        EXPECT_EQ(t->ReferenceObjectByHandle(om, PtrFromHandle(MakeHandle(id, 1, 1)), 0, &none),
                  KSPL_OM_STATUS_INVALID_HANDLE)
            << id;
    }

    // A whole walk returns every object in block order.
    std::vector<UINT32> walked;
    HANDLE cursor = nullptr;
    PVOID user = nullptr;
    while (t->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user) == 0) {
        walked.push_back(BlockOf(user));
        EXPECT_EQ(t->DereferenceObject(om, user, 0), 0u);
    }
    std::vector<UINT32> ids;
    for (const auto& entry : objects) ids.push_back(entry.first);
    EXPECT_EQ(walked, ids);

    // The cursor's block (300) goes: the scan goes on with block 512, and
    // past the last block (65535) it ends instead of starting again.
    EXPECT_EQ(t->DeleteObject(om, objects[300], 0), 0u);
    objects.erase(300);
    cursor = PtrFromHandle(MakeHandle(300, 0, 1));
    ASSERT_EQ(t->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user), 0u);
    EXPECT_EQ(BlockOf(user), 512u);
    EXPECT_EQ(HandleFromPtr(cursor), MakeHandle(65535, 0, 1));
    EXPECT_EQ(t->DereferenceObject(om, user, 0), 0u);
    ASSERT_EQ(t->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user), 0u);
    EXPECT_EQ(BlockOf(user), 65535u);
    EXPECT_EQ(t->DereferenceObject(om, user, 0), 0u);
    EXPECT_EQ(t->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user),
              KSPL_OM_STATUS_NO_MORE_OBJECTS);

    // Emptying group 1 (ids 256..511) frees its part of the index; the next
    // blocks take 256 and then 259 again, in order.
    for (UINT32 id : {256u, 257u, 258u}) {
        EXPECT_EQ(t->DeleteObject(om, objects[id], 0), 0u);
        objects.erase(id);
    }
    EXPECT_EQ(Info(om)->index.leaf[1], nullptr);
    objects[256] = Create(om, 1000);
    EXPECT_EQ(BlockOf(objects[256]), 256u);
    objects[257] = Create(om, 1001);
    EXPECT_EQ(BlockOf(objects[257]), 257u);
    std::vector<UINT32> now;
    for (const auto& entry : objects) now.push_back(BlockOf(entry.second));
    EXPECT_EQ(BlockIds(om), now);

    for (const auto& entry : objects) EXPECT_EQ(t->DeleteObject(om, entry.second, 0), 0u);
    EXPECT_TRUE(BlockIds(om).empty());
    EXPECT_EQ(t->Release(om), 0u);
}

// A free slot is taken from the lowest block that has one, whatever group
// it is in, before a new block is made.
TEST_F(OmTest, FreeSlotsAreTakenLowestBlockFirstAcrossGroups) {
    IOM* om = MakeStore(2, 3, 1);
    ASSERT_NE(om, nullptr);
    PVOID a = CreateAt(om, 600, 2);
    PVOID b = CreateAt(om, 1, 2);
    PVOID c = CreateAt(om, 70000 & 0xFFFF, 1);  // id 4464, group 17
    std::vector<std::pair<UINT32, UINT32>> got;
    std::vector<PVOID> made;
    for (int i = 0; i < 5; ++i) {
        made.push_back(Create(om, 50 + i));
        const UINT32 h = ObHandle(ObFromUser(made.back()));
        got.emplace_back(HandleBlockId(h), HandleIndexByte(h));
    }
    EXPECT_EQ(
        got, (std::vector<std::pair<UINT32, UINT32>>{{1, 1}, {600, 1}, {4464, 2}, {2, 1}, {2, 2}}));
    for (PVOID u : made) EXPECT_EQ(om->lpVtbl->DeleteObject(om, u, 0), 0u);
    for (PVOID u : {a, b, c}) EXPECT_EQ(om->lpVtbl->DeleteObject(om, u, 0), 0u);
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

// A block in a new group needs the group's index first: when either
// allocation fails the call reports no memory and leaves nothing behind
// (the fixture checks the global instance's memory at teardown too).
TEST_F(OmTest, NoMemoryForANewGroupLeavesNothingBehind) {
    IOM* om = MakeStore(1, 0, 1);
    ASSERT_NE(om, nullptr);
    PVOID first = CreateAt(om, 5);
    const KsplCounters before = KsplInUseCounters(pIKspl);
    for (unsigned n : {1u, 2u}) {
        SCOPED_TRACE(n);
        StatusCapture sc;
        PVOID user = nullptr;
        KsplAllocFailArm(n);
        const KSSTATUS st = om->lpVtbl->CreateObjectByHandle(
            om, PtrFromHandle(MakeHandle(777, 1, 1)), nullptr, nullptr, 0, 0, &user, nullptr);
        EXPECT_TRUE(KsplAllocFailDisarm());
        EXPECT_EQ(st, KsplOmErr(KSPL_OM_CODE_NO_MEMORY));
        EXPECT_TRUE(sc.WasBuilt(KsplOmErr(KSPL_OM_CODE_NO_MEMORY), "ObjectCreateByHandle"));
        EXPECT_EQ(BlockIds(om), std::vector<UINT32>{5});
        EXPECT_EQ(Info(om)->index.leaf[3], nullptr);
        EXPECT_EQ(KsplInUseCounters(pIKspl), before);
    }
    PVOID user = CreateAt(om, 777);
    EXPECT_EQ(BlockIds(om), (std::vector<UINT32>{5, 777}));
    EXPECT_EQ(om->lpVtbl->DeleteObject(om, user, 0), 0u);
    EXPECT_EQ(om->lpVtbl->DeleteObject(om, first, 0), 0u);
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

TEST_F(OmTest, WaitersForTheLockSeeTheHoldersDelete) {
    for (UINT32 level : {0u, 3u}) {
        SCOPED_TRACE(level);
        IOM* om = MakeStore(4, level, 1);
        ASSERT_NE(om, nullptr);
        const IOMVtbl* t = om->lpVtbl;
        PVOID a = Create(om, 1, 0, 1);
        // Waiting for the lock of an object that its holder then deletes: a
        // find is told 11, a reference by handle 3, both built and logged.
        const HANDLE h = PtrFromHandle(ObHandle(ObFromUser(a)));
        StatusCapture sc;
        std::thread finder([&] {
            PVOID out = nullptr;
            EXPECT_EQ(t->FindObject(om, KeyArg(1), CompareItem, 0, 1, &out),
                      KsplOmErr(KSPL_OM_CODE_NOT_FOUND));
        });
        std::thread referrer([&] {
            PVOID out = nullptr;
            EXPECT_EQ(t->ReferenceObjectByHandle(om, h, 2, &out),
                      KsplOmErr(KSPL_OM_CODE_INVALID_HANDLE));
        });
        // A waiter that got through the holder's lock would not see the delete.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_EQ(t->DeleteObject(om, a, 1), 0u);
        finder.join();
        referrer.join();
        EXPECT_TRUE(sc.WasBuilt(KsplOmErr(KSPL_OM_CODE_NOT_FOUND), "ObjectFind"));
        EXPECT_TRUE(sc.WasBuilt(KsplOmErr(KSPL_OM_CODE_INVALID_HANDLE), "ObjectReferenceByHandle"));
        EXPECT_EQ(t->Release(om), 0u);
    }
}

// A delete routine that notes the threads it ran on and, except on the
// test's own, waits at a gate.
struct Gate {
    static inline std::atomic<bool> open{false};
    static inline std::atomic<int> entered{0};
    static inline std::thread::id caller;
    static inline std::thread::id ids[40];
    static KSSTATUS Routine(PVOID user) {
        ids[entered++] = std::this_thread::get_id();
        while (!open.load() && std::this_thread::get_id() != caller) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return DeleteItem(user);
    }
};

TEST_F(OmTest, DeferredDeletionRunsABurstOnOneOtherThread) {
    for (UINT32 level : {0x10000000u, 0x20000003u}) {
        SCOPED_TRACE(level);
        Gate::open = false;
        Gate::entered = 0;
        Gate::caller = std::this_thread::get_id();
        g_routines.deletes = 0;
        IOM* om = MakeStore(4, level, 1, 0, Gate::Routine);
        ASSERT_NE(om, nullptr);
        std::vector<PVOID> users;
        for (UINT32 i = 0; i < 40; ++i) users.push_back(Create(om, i));
        for (PVOID u : users) ASSERT_EQ(om->lpVtbl->DeleteObject(om, u, 0), 0u);
        ASSERT_TRUE(WaitFor([] { return Gate::entered.load() != 0; }));
        UINT32 inUse = 0;
        EXPECT_EQ(om->lpVtbl->GetObjectStats(om, nullptr, &inUse, nullptr), 0u);
        EXPECT_EQ(inUse, 40u) << "nothing is freed before its routine ran";
        Gate::open = true;
        ASSERT_TRUE(WaitFor([&] { return DeletionIdle(reinterpret_cast<ObjectInfo*>(om)); }));
        EXPECT_EQ(g_routines.deletes.load(), 40);
        EXPECT_NE(Gate::ids[0], Gate::caller);
        for (const auto& id : Gate::ids) EXPECT_EQ(id, Gate::ids[0]) << "one thread per burst";
        EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    }
}

// --- several threads on one store ------------------------------------------------

std::mutex g_ledgerMutex;
std::multiset<UINT64> g_creators;  // incarnations whose caller was told it created them

class OmThreads : public OmTest, public ::testing::WithParamInterface<UINT32> {};

// Creators race for shared keys while others find them by key, by handle
// and by a running enumeration, delete them (holding their lock or not) and
// drop references; then the store is released while the threads still hold
// objects, and the last of them frees it. At most one caller is told it
// created an incarnation (none when it was deleted before its creator
// reported), and that one locks it before any opener; each incarnation is
// destroyed exactly once (as many deletes as inits).
TEST_P(OmThreads, LookupsRaceDeletionAndTheStoreOutlivesItsRelease) {
    IOM* om = MakeStore(5, GetParam(), 8, 1);
    ASSERT_NE(om, nullptr);
    const IOMVtbl* t = om->lpVtbl;
    constexpr int kThreads = 4;
    std::atomic<UINT32> handles[12] = {};
    std::latch start(kThreads);
    std::latch churned(kThreads + 1);
    std::latch released(1);
    std::vector<std::thread> threads;
    for (int n = 0; n < kThreads; ++n) {
        threads.emplace_back([&, n] {
            std::mt19937 rng(100 + n);
            std::vector<PVOID> held;
            HANDLE cursor = nullptr;
            start.arrive_and_wait();
            for (int i = 0; i < 10000; ++i) {
                const UINT32 key = rng() % 12;
                const UINT32 op = rng() % 10;
                const UINT32 access = rng() % 3;
                PVOID user = nullptr;
                UINT32 mode = 0;
                KSSTATUS st = 0;
                if (op < 3) {
                    st = t->CreateObject(om, KeyArg(key), InitItem, KeyArg(key), CompareItem,
                                          key % 8, 1, 2, &user, &mode);
                    EXPECT_EQ(st, 0u);
                    auto* item = static_cast<Item*>(user);
                    // The caller told it created the object holds it before any opener.
                    EXPECT_TRUE(st != 0 || item->value == (mode == 1 ? 0 : key + 1)) << mode;
                    if (st == 0 && mode == 1) {
                        item->value = key + 1;
                        handles[key] = ObHandle(ObFromUser(user));
                        std::lock_guard<std::mutex> g(g_ledgerMutex);
                        g_creators.insert(item->serial);
                    }
                } else if (op < 5) {
                    st = t->FindObject(om, KeyArg(key), CompareItem, key % 8, access, &user);
                    EXPECT_TRUE(st == 0 || st == kNotFound) << std::hex << st;
                } else if (op < 7) {
                    st = t->ReferenceObjectByHandle(om, PtrFromHandle(handles[key]), access,
                                                     &user);
                    EXPECT_TRUE(st == 0 || st == kBadHandle) << std::hex << st;
                } else if (op < 8) {
                    st = t->EnumerateObjects(om, &cursor, nullptr, nullptr, access, &user);
                    EXPECT_TRUE(st == 0 || st == kNoMore) << std::hex << st;
                    cursor = st == 0 ? cursor : nullptr;
                } else if (!held.empty()) {
                    const size_t j = rng() % held.size();
                    PVOID u = held[j];
                    held.erase(held.begin() + static_cast<long>(j));
                    const UINT32 locked = op == 8 ? access & 1 : 0;
                    if (locked != 0) t->AcquireObject(om, u, locked);
                    auto drop = op == 8 ? t->DeleteObject : t->DereferenceObject;
                    EXPECT_EQ(drop(om, u, locked), 0u);
                }
                if (op >= 8 || st != 0) continue;
                EXPECT_FALSE(ObFlags(ObFromUser(user)) & OBJECT_FREE) << "a free slot handed out";
                if (op < 3 || access != 0) t->ReleaseObject(om, user);
                held.push_back(user);
            }
            churned.arrive_and_wait();
            released.wait();
            for (PVOID u : held) EXPECT_EQ(t->DereferenceObject(om, u, 0), 0u);
        });
    }
    churned.arrive_and_wait();
    EXPECT_EQ(t->Release(om), 0u);
    released.count_down();
    for (auto& th : threads) th.join();
    EXPECT_TRUE(WaitFor([] { return g_routines.deletes.load() == g_routines.inits.load(); }));
    EXPECT_EQ(std::set<UINT64>(g_creators.begin(), g_creators.end()).size(), g_creators.size())
        << "two callers were told they created one object";
}

INSTANTIATE_TEST_SUITE_P(LockKinds, OmThreads,
                         ::testing::Values(0u, 3u, 0x10000000u, 0x10000003u));

}  // namespace
