// object_test.cpp - the object manager through its interface: factory and
// versions, initialisation, blocks and ids, creation and handles, deletion,
// preallocation, enumeration cursors, find, locks and teardown.
#include <future>

#include "object_test_util.h"

namespace {

constexpr KSSTATUS kBadHandle = 0xC7FA0003u;
constexpr KSSTATUS kNoMore = 0xC7FA0009u;
constexpr KSSTATUS kNotFound = 0xC7FA000Bu;

using OmFactory = OmTest;
using OmInit = OmTest;
using OmObjects = OmTest;
using OmEnum = OmTest;
using OmLocks = OmTest;
using OmTeardown = OmTest;

PVOID Create(IOM* om, UINT32 key, PUINT32 mode = nullptr, bool compare = true,
             UINT32 index = 0, UINT32 createAccess = 0, UINT32 openAccess = 0) {
    PVOID user = nullptr;
    KSSTATUS st = om->lpVtbl->CreateObject(om, KeyArg(key), InitItem, KeyArg(key),
                                           compare ? CompareItem : nullptr, index, createAccess,
                                           openAccess, &user, mode);
    EXPECT_EQ(st, 0u);
    return user;
}

UINT32 HandleOf(IOM* om, PVOID user) {
    HANDLE h = nullptr;
    EXPECT_EQ(om->lpVtbl->GetObjectHandle(om, user, &h), 0u);
    return HandleFromPtr(h);
}

// Gives back the references the test holds.
void Drop(IOM* om, std::initializer_list<PVOID> users) {
    for (PVOID u : users) EXPECT_EQ(om->lpVtbl->DereferenceObject(om, u, 0), 0u);
}

struct Stats {
    UINT32 allocated = 0, inUse = 0, prealloc = 0;
    bool operator==(const Stats&) const = default;
};
Stats StatsOf(IOM* om) {
    Stats s;
    EXPECT_EQ(om->lpVtbl->GetObjectStats(om, &s.allocated, &s.inUse, &s.prealloc), 0u);
    return s;
}
std::ostream& operator<<(std::ostream& os, const Stats& s) {
    return os << "{" << s.allocated << "," << s.inUse << "," << s.prealloc << "}";
}

// --- factory and interface versions ---------------------------------------

TEST_F(OmFactory, ClassObjectAndCreateInstanceChecks) {
    GUID clsid = CLSID_ObjectManagerDataStore;
    GUID iid = IID_IUnknown;
    ORLM_IClassFactory* cf = nullptr;
    ASSERT_EQ(DllGetClassObject(&clsid, &iid, reinterpret_cast<PVOID*>(&cf)), 0);
    ASSERT_EQ(cf, reinterpret_cast<ORLM_IClassFactory*>(&IOmClassFactory));
    GUID bogus = IID_IObjectManager_1;
    void* out = &out;
    EXPECT_EQ(DllGetClassObject(&clsid, &bogus, &out), static_cast<HRESULT>(0x80004002u));
    EXPECT_EQ(out, nullptr);

    StatusCapture sc;
    KsplCounters before = KsplInUseCounters(pIKspl);
    out = &out;
    EXPECT_EQ(cf->lpVtbl->CreateInstance(cf, nullptr, &IID_IUnknown, &out), KsplOmErr(2));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(cf->lpVtbl->CreateInstance(cf, nullptr, &IID_IClassFactory, &out), KsplOmErr(2));
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(2), "OMFactoryCreateInstance"));
    EXPECT_EQ(cf->lpVtbl->CreateInstance(cf, reinterpret_cast<PORLM_IUnknown>(cf),
                                         &IID_IObjectManager_1, &out),
              KsplOmErr(4));
    EXPECT_EQ(cf->lpVtbl->CreateInstance(cf, nullptr, &IID_IObjectManager_1, nullptr),
              KsplOmErr(4));
    EXPECT_EQ(KsplInUseCounters(pIKspl), before) << "a refused request allocated something";
    EXPECT_EQ(cf->lpVtbl->LockServer(cf, 1), 0u);
    EXPECT_EQ(cf->lpVtbl->LockServer(cf, 0), 0u);
    EXPECT_EQ(OMFactoryQueryInterface(nullptr, &IID_IClassFactory, nullptr), KsplOmErr(4));
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(4), "OMFactoryQueryInterface"));
    cf->lpVtbl->Release(cf);
}

TEST_F(OmFactory, InstancesAreDistinctZeroedAndSwitchVersions) {
    IOM* a = NewStore();
    IOM* b = NewStore();
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_NE(a, b);
    EXPECT_EQ(Info(a)->cReference, 1u);
    EXPECT_EQ(Info(a)->flags, 0u);
    EXPECT_EQ(a->lpVtbl, &vtObject);
    // Not initialised: every object operation refuses.
    UINT32 n = 0;
    EXPECT_EQ(a->lpVtbl->GetObjectStats(a, &n, nullptr, nullptr), KsplOmErr(4));

    UINT32 ul = KsAtomicLoad(&g_ulCount);
    IOM_2* a2 = nullptr;
    ASSERT_EQ(a->lpVtbl->QueryInterface(a, &IID_IObjectManager_2, reinterpret_cast<void**>(&a2)),
              0u);
    EXPECT_EQ(static_cast<void*>(a2), static_cast<void*>(a));
    EXPECT_EQ(a2->lpVtbl, &vtObject_2);
    EXPECT_EQ(Info(a)->cReference, 2u);
    EXPECT_EQ(KsAtomicLoad(&g_ulCount), ul + 1);
    // Two holders now: switching back would change what the other one sees.
    void* back = &back;
    StatusCapture sc;
    EXPECT_EQ(a2->lpVtbl->QueryInterface(a2, &IID_IObjectManager_1, &back), KsplOmErr(2));
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(2), "ObjectQueryInterface"));
    EXPECT_EQ(back, nullptr);
    EXPECT_EQ(a2->lpVtbl, &vtObject_2);
    void* unk = nullptr;
    EXPECT_EQ(a2->lpVtbl->QueryInterface(a2, &IID_IUnknown, &unk), 0u);
    EXPECT_EQ(unk, static_cast<void*>(a));
    EXPECT_EQ(a2->lpVtbl->QueryInterface(a2, &IID_IClassFactory, &back), KsplOmErr(2));
    EXPECT_EQ(a2->lpVtbl->QueryInterface(a2, &IID_IObjectManager_2, nullptr), KsplOmErr(4));
    EXPECT_EQ(a2->lpVtbl->Release(a2), 2u);
    EXPECT_EQ(a2->lpVtbl->Release(a2), 1u);
    EXPECT_EQ(KsAtomicLoad(&g_ulCount), ul) << "AddRef/Release pairs leave it where it was";
    EXPECT_EQ(a2->lpVtbl->Release(a2), 0u);
    EXPECT_EQ(b->lpVtbl->Release(b), 0u);
}

TEST_F(OmFactory, VersionTwoHandlesAreMaskedWithTheGlobalInstance) {
    IOM_2* om = reinterpret_cast<IOM_2*>(NewStore(IID_IObjectManager_2));
    ASSERT_NE(om, nullptr);
    ASSERT_EQ(om->lpVtbl->Initialize(om, sizeof(Item), 4, 0, 1, DeleteItem, nullptr, nullptr, 0),
              0u);
    PVOID user = nullptr;
    ASSERT_EQ(om->lpVtbl->CreateObject(om, KeyArg(7), InitItem, nullptr, nullptr, 0, 0, 0, &user,
                                       nullptr),
              0u);
    HANDLE masked = nullptr, raw = nullptr;
    ASSERT_EQ(om->lpVtbl->GetObjectHandle(om, user, &masked), 0u);
    ASSERT_EQ(om->lpVtbl->GetRawObjectHandle(om, user, &raw), 0u);
    EXPECT_EQ(HandleFromPtr(raw), 0x01010001u);
    EXPECT_EQ(HandleFromPtr(masked) ^ HandleFromPtr(raw),
              static_cast<UINT32>(reinterpret_cast<uintptr_t>(pIKspl)));

    PVOID again = nullptr;
    ASSERT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, masked, 0, &again), 0u);
    EXPECT_EQ(again, user);
    EXPECT_EQ(CountOf(user), 2u);
    StatusCapture sc;
    // The raw form is unmasked into some other value, which names nothing.
    EXPECT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, raw, 0, &again), kBadHandle);
    EXPECT_EQ(again, nullptr);
    EXPECT_TRUE(sc.Built().empty());
    EXPECT_EQ(om->lpVtbl->GetObjectHandle(om, nullptr, &masked), KsplOmErr(4));
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(4), "ObjectGetHandle2"));
    EXPECT_EQ(om->lpVtbl->DereferenceObject(om, user, 0), 0u);
    EXPECT_EQ(om->lpVtbl->DeleteObject(om, user, 0), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 1);
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

// --- initialisation ---------------------------------------------------------

TEST_F(OmInit, RejectsBadArgumentsAndCanBeRetried) {
    IOM* om = NewStore();
    ASSERT_NE(om, nullptr);
    StatusCapture sc;
    EXPECT_EQ(om->lpVtbl->Initialize(om, 16, 4, 1, 1, nullptr, nullptr, nullptr, 0), KsplOmErr(4));
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(4), "InternalInitialize"));
    PVOID user = nullptr;
    EXPECT_EQ(om->lpVtbl->CreateObject(om, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &user,
                                       nullptr),
              KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->Initialize(om, 16, 0, 0, 1, nullptr, nullptr, nullptr, 0), KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->Initialize(om, 16, 256, 0, 1, nullptr, nullptr, nullptr, 0),
              KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->Initialize(om, 16, 4, 0, 65536, nullptr, nullptr, nullptr, 0),
              KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->Initialize(om, 16, 4, 7, 1, nullptr, nullptr, nullptr, 0), KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->Initialize(om, 0xFFFFFFF0u, 4, 0, 1, nullptr, nullptr, nullptr, 0),
              KsplOmErr(4));
    // Nothing of the failed attempts is left behind, and a valid call works.
    EXPECT_EQ(om->lpVtbl->Initialize(om, 16, 255, 0, 0, nullptr, nullptr, nullptr, 0), 0u);
    EXPECT_EQ(Info(om)->hashSize, 1u) << "hashSize 0 gives one chain";
    EXPECT_EQ(om->lpVtbl->Initialize(om, 16, 4, 0, 1, nullptr, nullptr, nullptr, 0),
              KsplOmErr(0x1001));
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(0x1001), "InternalInitialize"));
    EXPECT_EQ(om->lpVtbl->CreateObject(om, nullptr, nullptr, nullptr, nullptr, 1, 0, 0, &user,
                                       nullptr),
              KsplOmErr(4))
        << "chain index beyond the chains";
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

TEST_F(OmInit, LevelsChooseLockKindPoolAndDeferredDeletion) {
    struct Case {
        UINT32 level;
        UINT32 storedLevel;
        bool deferred;
    };
    for (Case c : {Case{0, 0, false}, Case{2, 0, false}, Case{3, 3, false},
                   Case{0x10000002u, 0, true}, Case{0x80000000u, 0, true},
                   Case{0x20000003u, 3, true}}) {
        SCOPED_TRACE(c.level);
        KsplCounters before = KsplReadCounters(pIKspl);
        IOM* om = MakeStore(4, c.level, 2);
        ASSERT_NE(om, nullptr);
        ObjectInfo* oi = Info(om);
        EXPECT_EQ(oi->accessLevel, c.storedLevel);
        EXPECT_EQ(oi->poolType, PagedPool);
        EXPECT_EQ((oi->flags & OI_DEFERRED_DELETE) != 0, c.deferred);
        KsplCounters during = KsplReadCounters(pIKspl);
        EXPECT_EQ(during[11] - before[11], c.deferred && c.storedLevel == 0 ? 1u : 0u)
            << "work item of a deferred read-write store";
        EXPECT_EQ(during[2] - before[2], c.storedLevel == 0 ? 1u : 0u) << "read-write locks";
        EXPECT_EQ(during[7] - before[7], c.storedLevel == 3 ? 1u : 0u) << "mutexes";
        UINT32 pagedBefore = during[6];
        PVOID user = Create(om, 1);
        EXPECT_GT(KsplReadCounters(pIKspl)[6], pagedBefore) << "blocks come from paged memory";
        EXPECT_EQ(om->lpVtbl->DeleteObject(om, user, 0), 0u);
        ASSERT_TRUE(WaitUntil([&] { return DeletionIdle(oi); }));
        EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    }
}

TEST_F(OmInit, PermanentBlocksStayAndIdsWrapIntoFailure) {
    IOM* om = MakeStore(2, 0, 1, 3);
    ASSERT_NE(om, nullptr);
    EXPECT_EQ(StatsOf(om), (Stats{6, 0, 0}));
    std::vector<PVOID> users;
    for (UINT32 i = 0; i < 7; ++i) users.push_back(Create(om, i, nullptr, false));
    EXPECT_EQ(StatsOf(om), (Stats{8, 7, 0}));
    EXPECT_EQ(HandleOf(om, users[6]) & 0xFFFFu, 4u);
    for (PVOID u : users) EXPECT_EQ(om->lpVtbl->DeleteObject(om, u, 0), 0u);
    EXPECT_EQ(StatsOf(om), (Stats{6, 0, 0})) << "only the ordinary block went";
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);

    // 65536 permanent blocks cannot exist: the id wraps to 0, the call
    // fails with code 5 and gives every block back.
    KsplCounters before = KsplInUseCounters(pIKspl);
    IOM* big = NewStore();
    ASSERT_NE(big, nullptr);
    EXPECT_EQ(big->lpVtbl->Initialize(big, 8, 1, 0, 1, nullptr, nullptr, nullptr, 65536),
              KsplOmErr(5));
    KsplCounters after = KsplInUseCounters(pIKspl);
    EXPECT_EQ(after[6], before[6]) << "blocks of the failed Initialize were not given back";
    EXPECT_EQ(after[2], before[2]) << "lock of the failed Initialize was not given back";
    EXPECT_EQ(big->lpVtbl->Initialize(big, 8, 1, 0, 1, nullptr, nullptr, nullptr, 65535), 0u);
    UINT32 allocated = 0;
    EXPECT_EQ(big->lpVtbl->GetObjectStats(big, &allocated, nullptr, nullptr), 0u);
    EXPECT_EQ(allocated, 65535u);
    PVOID user = nullptr;
    EXPECT_EQ(big->lpVtbl->CreateObject(big, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &user,
                                        nullptr),
              0u);
    Drop(big, {user});
    EXPECT_EQ(big->lpVtbl->AllocateObject(big, &user), 0u);
    EXPECT_EQ(big->lpVtbl->Release(big), 0u);
}

// --- blocks, creation, handles ------------------------------------------------

TEST_F(OmObjects, NewBlocksTakeTheSmallestFreeIdInOrder) {
    IOM* om = MakeStore(1, 0, 1);
    ASSERT_NE(om, nullptr);
    std::vector<PVOID> u;
    for (UINT32 i = 0; i < 5; ++i) u.push_back(Create(om, i, nullptr, false));
    for (UINT32 i = 0; i < 5; ++i) EXPECT_EQ(HandleOf(om, u[i]), 0x01010000u | (i + 1));
    EXPECT_EQ(StatsOf(om), (Stats{5, 5, 0}));
    // Free blocks 3 and 1: each goes at once, and new blocks fill the gaps
    // lowest first.
    EXPECT_EQ(om->lpVtbl->DeleteObject(om, u[2], 0), 0u);
    EXPECT_EQ(om->lpVtbl->DeleteObject(om, u[0], 0), 0u);
    EXPECT_EQ(StatsOf(om), (Stats{3, 3, 0}));
    PVOID a = Create(om, 10, nullptr, false);
    PVOID b = Create(om, 11, nullptr, false);
    PVOID c = Create(om, 12, nullptr, false);
    EXPECT_EQ(HandleOf(om, a), 0x01010001u) << "a new block starts at generation 1";
    EXPECT_EQ(HandleOf(om, b), 0x01010003u);
    EXPECT_EQ(HandleOf(om, c), 0x01010006u);
    // The block list stays sorted: an enumeration meets ids in order.
    HANDLE cursor = nullptr;
    PVOID seen = nullptr;
    std::vector<UINT32> ids;
    while (om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &seen) == 0) {
        ids.push_back(HandleOf(om, seen) & 0xFFFFu);
        om->lpVtbl->DereferenceObject(om, seen, 0);
    }
    EXPECT_EQ(ids, (std::vector<UINT32>{1, 2, 3, 4, 5, 6}));
    Drop(om, {a, b, c, u[1], u[3], u[4]});
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 8);
}

TEST_F(OmObjects, CreateByKeyReportsOnceAndInitFailureLeavesNoTrace) {
    IOM* om = MakeStore(4, 0, 4);
    ASSERT_NE(om, nullptr);
    UINT32 m1 = 0, m2 = 0;
    PVOID a = Create(om, 5, &m1, true, 1);
    PVOID b = Create(om, 5, &m2, true, 1);
    EXPECT_EQ(a, b);
    EXPECT_EQ(m1, 1u);
    EXPECT_EQ(m2, 2u);
    EXPECT_EQ(CountOf(a), 2u);
    EXPECT_EQ(g_routines.inits.load(), 1);
    // The same key in another chain is another object; no compare routine
    // always creates.
    PVOID other = Create(om, 5, &m1, true, 2);
    PVOID dup = Create(om, 5, &m2, false, 1);
    EXPECT_NE(other, a);
    EXPECT_NE(dup, a);
    EXPECT_EQ(m1, 1u);
    EXPECT_EQ(m2, 1u);
    EXPECT_EQ(StatsOf(om), (Stats{4, 3, 0}));
    EXPECT_EQ(static_cast<Item*>(dup)->value, 0u) << "user area is zeroed before init";

    // A failing init routine: its own status, nothing logged by the store,
    // opened mode untouched, no object left.
    StatusCapture sc;
    UINT32 mode = 77;
    PVOID user = &user;
    EXPECT_EQ(om->lpVtbl->CreateObject(om, KeyArg(0xFFFFFFFFu), InitItem, nullptr, nullptr, 0, 0,
                                       0, &user, &mode),
              kInitFailure);
    EXPECT_EQ(mode, 77u);
    EXPECT_EQ(user, nullptr);
    EXPECT_TRUE(sc.Built().empty());
    EXPECT_EQ(StatsOf(om), (Stats{4, 3, 0}));
    PVOID next = Create(om, 9, nullptr, false, 3);
    EXPECT_EQ(HandleOf(om, next), 0x04010001u) << "the failed slot went back to the free list";
    EXPECT_EQ(om->lpVtbl->CreateObject(om, nullptr, nullptr, nullptr, nullptr, 4, 0, 0, &user,
                                       nullptr),
              KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->CreateObject(om, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, nullptr,
                                       nullptr),
              KsplOmErr(4));
    Drop(om, {a, b, other, dup, next});
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 4);
}

TEST_F(OmObjects, StaleAndMalformedHandlesAreRefusedWithoutALogRecord) {
    IOM* om = MakeStore(3, 3, 1);
    ASSERT_NE(om, nullptr);
    PVOID keep = Create(om, 1);  // keeps block 1 alive
    PVOID a = Create(om, 2);
    PVOID keep2 = Create(om, 3);
    UINT32 ha = HandleOf(om, a);
    EXPECT_EQ(HandleOf(om, keep), 0x01010001u);
    EXPECT_EQ(ha, 0x02010001u);
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, a, 0), 0u);
    PVOID reused = Create(om, 4);
    EXPECT_EQ(reused, a) << "the freed slot is taken again";
    EXPECT_EQ(HandleOf(om, reused), 0x02020001u) << "with the next generation";

    StatusCapture sc;
    PVOID out = &out;
    for (UINT32 h : {ha, 0u, 0x00010001u, 0x04010001u, 0xFF010001u, 0x01010002u, 0x01020001u}) {
        SCOPED_TRACE(h);
        EXPECT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, PtrFromHandle(h), 1, &out), kBadHandle);
        EXPECT_EQ(out, nullptr);
    }
    EXPECT_TRUE(sc.Built().empty()) << "the constant status must not be built";
    EXPECT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, PtrFromHandle(0x02020001u), 0, nullptr),
              KsplOmErr(4));
    ASSERT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, PtrFromHandle(0x02020001u), 0, &out), 0u);
    EXPECT_EQ(out, reused);
    EXPECT_EQ(CountOf(reused), 2u);
    // Deleted but still referenced: refused by handle, not found by key.
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, reused, 0), 0u);
    EXPECT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, PtrFromHandle(0x02020001u), 0, &out),
              kBadHandle);
    EXPECT_EQ(om->lpVtbl->FindObject(om, KeyArg(4), CompareItem, 0, 0, &out), kNotFound);
    EXPECT_EQ(g_routines.deletes.load(), 1);
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, reused, 0), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 2);
    Drop(om, {keep, keep2});
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

TEST_F(OmObjects, CreateByHandleMakesTheNamedSlot) {
    IOM* om = MakeStore(4, 0, 1);
    ASSERT_NE(om, nullptr);
    PVOID user = nullptr;
    UINT32 mode = 9;
    ASSERT_EQ(om->lpVtbl->CreateObjectByHandle(om, PtrFromHandle(0x03020005u), KeyArg(1), InitItem,
                                               1, 2, &user, &mode),
              0u);
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(HandleOf(om, user), 0x03020005u);
    EXPECT_TRUE(FlagsOf(user) & OBJECT_READY);
    EXPECT_EQ(om->lpVtbl->ReleaseObject(om, user), 0u);
    PVOID same = nullptr;
    ASSERT_EQ(om->lpVtbl->CreateObjectByHandle(om, PtrFromHandle(0x03020005u), KeyArg(1), InitItem,
                                               1, 0, &same, &mode),
              0u);
    EXPECT_EQ(same, user);
    EXPECT_EQ(mode, 2u);
    EXPECT_EQ(CountOf(user), 2u);
    // Blocks made by handle keep the list sorted; the free-slot search
    // fills the lowest block first and then makes the smallest free id.
    PVOID low = nullptr;
    ASSERT_EQ(om->lpVtbl->CreateObjectByHandle(om, PtrFromHandle(0x01010002u), nullptr, nullptr, 0,
                                               0, &low, nullptr),
              0u);
    std::vector<PVOID> plain;
    for (UINT32 expected : {0x02010002u, 0x03010002u, 0x04010002u, 0x01010005u, 0x02010005u,
                            0x04010005u, 0x01010001u}) {
        plain.push_back(Create(om, 2, nullptr, false));
        EXPECT_EQ(HandleOf(om, plain.back()), expected);
    }
    EXPECT_EQ(StatsOf(om), (Stats{12, 9, 0}));
    HANDLE cursor = nullptr;
    PVOID seen = nullptr;
    ASSERT_EQ(om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &seen), 0u);
    EXPECT_EQ(seen, plain.back()) << "block 1 was linked in front";
    plain.push_back(seen);

    StatusCapture sc;
    for (UINT32 bad : {0x00010001u, 0x05010001u}) {
        mode = 9;
        EXPECT_EQ(om->lpVtbl->CreateObjectByHandle(om, PtrFromHandle(bad), nullptr, nullptr, 0, 0,
                                                   &user, &mode),
                  KsplOmErr(3));
        EXPECT_EQ(mode, 0u);
    }
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(3), "ObjectCreateByHandle"));
    EXPECT_EQ(om->lpVtbl->CreateObjectByHandle(om, PtrFromHandle(0x01010000u), nullptr, nullptr, 0,
                                               0, &user, &mode),
              KsplOmErr(5))
        << "block id 0 cannot be made";
    Drop(om, {same, same, low});
    for (PVOID p : plain) Drop(om, {p});
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);

    IOM* chains = MakeStore(4, 0, 4);
    ASSERT_NE(chains, nullptr);
    mode = 9;
    EXPECT_EQ(chains->lpVtbl->CreateObjectByHandle(chains, PtrFromHandle(0x01010001u), nullptr,
                                                   nullptr, 0, 0, &user, &mode),
              KsplOmErr(4));
    EXPECT_EQ(mode, 0u);
    EXPECT_EQ(chains->lpVtbl->Release(chains), 0u);
}

// --- deletion and references ------------------------------------------------

TEST_F(OmObjects, DeletionWaitsForTheLastReference) {
    IOM* om = MakeStore(4, 0, 2);
    ASSERT_NE(om, nullptr);
    PVOID a = Create(om, 1);
    UINT32 ha = HandleOf(om, a);
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, a, 0), 0u);
    EXPECT_EQ(CountOf(a), 0u);
    PVOID found = nullptr;
    ASSERT_EQ(om->lpVtbl->FindObject(om, KeyArg(1), CompareItem, 0, 0, &found), 0u);
    EXPECT_EQ(found, a);
    ASSERT_EQ(om->lpVtbl->DecrementReference(om, a), 0u);
    ASSERT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, PtrFromHandle(ha), 0, &found), 0u);
    ASSERT_EQ(om->lpVtbl->DecrementReference(om, a), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 0) << "no references is not deleted";
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, a, 0), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 1);

    // Creator and finder: the creator's delete unlinks, the finder's
    // dereference frees.
    PVOID b = Create(om, 2);
    ASSERT_EQ(om->lpVtbl->FindObject(om, KeyArg(2), CompareItem, 0, 0, &found), 0u);
    ASSERT_EQ(om->lpVtbl->IncrementReference(om, b), 0u);
    EXPECT_EQ(CountOf(b), 3u);
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, b, 0), 0u);
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, b, 0), 0u) << "a second delete drops its reference";
    EXPECT_EQ(g_routines.deletes.load(), 1);
    EXPECT_EQ(om->lpVtbl->FindObject(om, KeyArg(2), CompareItem, 0, 0, &found), kNotFound);
    EXPECT_EQ(StatsOf(om).inUse, 1u) << "deleted but referenced still counts";
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, b, 0), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 2);
    EXPECT_EQ(StatsOf(om), (Stats{0, 0, 0})) << "the last free released the block";

    StatusCapture sc;
    EXPECT_EQ(om->lpVtbl->DeleteObject(om, nullptr, 0), KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->DeallocateObject(om, nullptr, 0), KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->DereferenceObject(om, nullptr, 0), KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->DecrementReference(om, nullptr), KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->IncrementReference(om, nullptr), KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->AcquireObject(om, nullptr, 1), KsplOmErr(4));
    EXPECT_EQ(om->lpVtbl->ReleaseObject(om, nullptr), KsplOmErr(4));
    for (const char* fn : {"ObjectDelete", "ObjectDeallocate", "ObjectDereference",
                           "ObjectIncrement", "ObjectAcquireAccess", "ObjectReleaseAccess"}) {
        EXPECT_TRUE(sc.WasBuilt(KsplOmErr(4), fn)) << fn;
    }
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

TEST_F(OmObjects, PreallocatedObjectsCycleThroughOpenAndDeallocate) {
    IOM* om = MakeStore(4, 0, 2);
    ASSERT_NE(om, nullptr);
    PVOID user = nullptr;
    UINT32 mode = 0;
    StatusCapture sc;
    EXPECT_EQ(om->lpVtbl->OpenObject(om, KeyArg(1), InitItem, KeyArg(1), CompareItem, 0, 0, 0,
                                     &user, &mode),
              KsplOmErr(0x1003));
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(0x1003), "ObjectOpen"));

    PVOID pre = nullptr;
    ASSERT_EQ(om->lpVtbl->AllocateObject(om, &pre), 0u);
    EXPECT_EQ(StatsOf(om), (Stats{4, 0, 1}));
    EXPECT_EQ(static_cast<Item*>(pre)->value, 0u);
    static_cast<Item*>(pre)->value = 1234;  // the caller prepares it
    UINT32 h1 = HandleOf(om, pre);
    PVOID out = nullptr;
    EXPECT_EQ(om->lpVtbl->FindObject(om, nullptr, nullptr, 0, 0, &out), kNotFound)
        << "a preallocated object is in no chain";

    ASSERT_EQ(om->lpVtbl->OpenObject(om, KeyArg(1), InitItem, KeyArg(1), CompareItem, 0, 1, 2,
                                     &user, &mode),
              0u);
    EXPECT_EQ(user, pre);
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(static_cast<Item*>(user)->value, 1234u) << "open does not clear the user area";
    EXPECT_EQ(om->lpVtbl->ReleaseObject(om, user), 0u);
    EXPECT_EQ(StatsOf(om), (Stats{4, 1, 0}));
    ASSERT_EQ(om->lpVtbl->OpenObject(om, KeyArg(1), InitItem, KeyArg(1), CompareItem, 0, 1, 0,
                                     &out, &mode),
              0u);
    EXPECT_EQ(out, pre);
    EXPECT_EQ(mode, 2u);
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, out, 0), 0u);

    ASSERT_EQ(om->lpVtbl->DeallocateObject(om, user, 0), 0u);
    EXPECT_EQ(g_routines.deallocs.load(), 1);
    EXPECT_EQ(g_routines.deletes.load(), 0);
    EXPECT_EQ(StatsOf(om), (Stats{4, 0, 1}));
    EXPECT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, PtrFromHandle(h1), 0, &out), kBadHandle);
    ASSERT_EQ(om->lpVtbl->OpenObject(om, KeyArg(2), InitItem, KeyArg(2), CompareItem, 1, 0, 0,
                                     &out, &mode),
              0u);
    EXPECT_EQ(out, pre) << "the same slot comes back";
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(static_cast<Item*>(out)->value, kDeallocMarker) << "as the routine left it";
    EXPECT_EQ(HandleOf(om, out), h1 + 0x00010000u) << "with the next generation";

    // Deleting a preallocated object takes it off the list for good.
    PVOID spare = nullptr;
    ASSERT_EQ(om->lpVtbl->AllocateObject(om, &spare), 0u);
    EXPECT_EQ(StatsOf(om), (Stats{4, 1, 1}));
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, spare, 0), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 1);
    EXPECT_EQ(StatsOf(om), (Stats{4, 1, 0}));
    EXPECT_EQ(om->lpVtbl->OpenObject(om, KeyArg(3), InitItem, nullptr, nullptr, 0, 0, 0, &user,
                                     nullptr),
              KsplOmErr(0x1003));
    // Deallocating one keeps it preallocated (it moves to the tail).
    ASSERT_EQ(om->lpVtbl->AllocateObject(om, &spare), 0u);
    ASSERT_EQ(om->lpVtbl->DeallocateObject(om, spare, 0), 0u);
    EXPECT_EQ(g_routines.deallocs.load(), 2);
    EXPECT_EQ(StatsOf(om), (Stats{4, 1, 1}));
    // An open whose init fails puts the object back.
    EXPECT_EQ(om->lpVtbl->OpenObject(om, KeyArg(0xFFFFFFFFu), InitItem, nullptr, nullptr, 0, 0, 0,
                                     &user, nullptr),
              kInitFailure);
    EXPECT_EQ(StatsOf(om), (Stats{4, 1, 1}));
    EXPECT_EQ(om->lpVtbl->AllocateObject(om, nullptr), KsplOmErr(4));
    Drop(om, {out});
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 3) << "teardown destroys the rest";
}

// --- enumeration and find ------------------------------------------------------

TEST_F(OmEnum, CursorValuesFollowSlotsAndBlocks) {
    IOM* om = MakeStore(4, 0, 1);
    ASSERT_NE(om, nullptr);
    HANDLE cursor = nullptr;
    PVOID user = &user;
    StatusCapture sc;
    EXPECT_EQ(om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user), kNoMore);
    EXPECT_EQ(HandleFromPtr(cursor), 0x01010001u);
    EXPECT_EQ(user, nullptr);

    std::vector<PVOID> u;
    for (UINT32 i = 0; i < 5; ++i) u.push_back(Create(om, i, nullptr, false));
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, u[1], 0), 0u);
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, u[2], 0), 0u);
    cursor = nullptr;
    std::vector<std::pair<PVOID, UINT32>> seen;
    while (om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user) == 0) {
        seen.emplace_back(user, HandleFromPtr(cursor));
        EXPECT_EQ(om->lpVtbl->DereferenceObject(om, user, 0), 0u);
    }
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0], std::make_pair(u[0], 0x02000001u));
    EXPECT_EQ(seen[1], std::make_pair(u[3], 0x01000002u));
    EXPECT_EQ(seen[2], std::make_pair(u[4], 0x02000002u));
    EXPECT_TRUE(sc.Built().empty()) << "the end of an enumeration is not logged";

    // Cursors the store never writes.
    PVOID out = nullptr;
    for (UINT32 bad : {0x00000001u, 0x05000001u, 0xFF000002u}) {
        cursor = PtrFromHandle(bad);
        EXPECT_EQ(om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &out),
                  KsplOmErr(4));
        EXPECT_EQ(HandleFromPtr(cursor), bad);
    }
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(4), "ObjectEnumerate"));
    EXPECT_EQ(om->lpVtbl->EnumerateObjects(om, nullptr, nullptr, nullptr, 0, &out), KsplOmErr(4));
    Drop(om, {u[0], u[3], u[4]});
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

TEST_F(OmEnum, ScanSurvivesDeletionAndBlockRelease) {
    IOM* om = MakeStore(2, 0, 1);
    ASSERT_NE(om, nullptr);
    std::vector<PVOID> u;
    for (UINT32 i = 0; i < 6; ++i) u.push_back(Create(om, i, nullptr, false));  // blocks 1..3
    HANDLE cursor = nullptr;
    PVOID user = nullptr;
    ASSERT_EQ(om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user), 0u);
    EXPECT_EQ(user, u[0]);
    // Deleting the returned object does not disturb the scan.
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, user, 0), 0u);
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, u[0], 0), 0u);
    ASSERT_EQ(om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user), 0u);
    EXPECT_EQ(user, u[1]);
    EXPECT_EQ(HandleFromPtr(cursor), 0x01000002u);
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, user, 0), 0u);
    // The cursor's block goes away entirely: the scan goes on at block 3.
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, u[2], 0), 0u);
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, u[3], 0), 0u);
    EXPECT_EQ(StatsOf(om).allocated, 4u);
    ASSERT_EQ(om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user), 0u);
    EXPECT_EQ(user, u[4]);
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, user, 0), 0u);
    // A compare routine filters; an object created behind the cursor is
    // not seen.
    PVOID late = Create(om, 9, nullptr, false);
    EXPECT_EQ(HandleOf(om, late) & 0xFFFFu, 1u);
    ASSERT_EQ(om->lpVtbl->EnumerateObjects(om, &cursor, KeyArg(5), CompareItem, 2, &user), 0u);
    EXPECT_EQ(user, u[5]);
    EXPECT_EQ(HandleFromPtr(cursor), 0x01000004u) << "last slot of the last block";
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, user, 2), 0u);
    EXPECT_EQ(om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user), kNoMore);
    Drop(om, {u[1], u[4], u[5], late});
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 7);
}

TEST_F(OmEnum, LastBlockIdEndsTheScan) {
    IOM* om = MakeStore(1, 0, 1);
    ASSERT_NE(om, nullptr);
    PVOID user = nullptr;
    ASSERT_EQ(om->lpVtbl->CreateObjectByHandle(om, PtrFromHandle(0x0101FFFFu), nullptr, nullptr, 0,
                                               0, &user, nullptr),
              0u);
    HANDLE cursor = nullptr;
    PVOID out = nullptr;
    ASSERT_EQ(om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &out), 0u);
    EXPECT_EQ(out, user);
    EXPECT_EQ(HandleFromPtr(cursor), 0x01000000u);
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, out, 0), 0u);
    EXPECT_EQ(om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &out), kNoMore)
        << "the scan must not start again at the first block";
    Drop(om, {user});
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

TEST_F(OmEnum, FindTakesTheOldestOrTheFirstMatch) {
    IOM* om = MakeStore(4, 3, 3);
    ASSERT_NE(om, nullptr);
    PVOID a = Create(om, 1, nullptr, false, 2);
    PVOID b = Create(om, 2, nullptr, false, 2);
    PVOID c = Create(om, 2, nullptr, false, 2);
    PVOID out = nullptr;
    StatusCapture sc;
    EXPECT_EQ(om->lpVtbl->FindObject(om, nullptr, nullptr, 0, 0, &out), kNotFound);
    EXPECT_EQ(om->lpVtbl->FindObject(om, KeyArg(3), CompareItem, 2, 0, &out), kNotFound);
    EXPECT_TRUE(sc.Built().empty());
    EXPECT_EQ(om->lpVtbl->FindObject(om, nullptr, nullptr, 3, 0, &out), KsplOmErr(4));
    ASSERT_EQ(om->lpVtbl->FindObject(om, nullptr, nullptr, 2, 1, &out), 0u);
    EXPECT_EQ(out, a);
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, out, 1), 0u);
    ASSERT_EQ(om->lpVtbl->FindObject(om, KeyArg(2), CompareItem, 2, 2, &out), 0u);
    EXPECT_EQ(out, b);
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, out, 2), 0u);
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, b, 0), 0u);
    ASSERT_EQ(om->lpVtbl->FindObject(om, KeyArg(2), CompareItem, 2, 0, &out), 0u);
    EXPECT_EQ(out, c);
    ASSERT_EQ(om->lpVtbl->DereferenceObject(om, out, 0), 0u);
    UINT32 inUse = 0;
    EXPECT_EQ(om->lpVtbl->GetObjectStats(om, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(om->lpVtbl->GetObjectStats(om, nullptr, &inUse, nullptr), 0u);
    EXPECT_EQ(inUse, 2u);
    Drop(om, {a, c});
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

// --- locks -----------------------------------------------------------------

// Runs `blocked` on another thread and checks that it does not finish until
// `release` has run.
template <typename Blocked, typename Release>
void ExpectBlocksUntil(Blocked blocked, Release release) {
    std::atomic<bool> done{false};
    std::thread t([&] {
        blocked();
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(done.load()) << "the second party did not wait";
    release();
    t.join();
    EXPECT_TRUE(done.load());
}

TEST_F(OmLocks, AccessTypesByLockKind) {
    IOM* mx = MakeStore(4, 3, 1);
    IOM* rw = MakeStore(4, 0, 1);
    ASSERT_NE(mx, nullptr);
    ASSERT_NE(rw, nullptr);
    PVOID m = Create(mx, 1);
    PVOID r = Create(rw, 1);
    // A mutex store locks even for access type 0, recursively.
    ASSERT_EQ(mx->lpVtbl->AcquireObject(mx, m, 0), 0u);
    ASSERT_EQ(mx->lpVtbl->AcquireObject(mx, m, 2), 0u);
    ASSERT_EQ(mx->lpVtbl->ReleaseObject(mx, m), 0u);
    ExpectBlocksUntil([&] { mx->lpVtbl->AcquireObject(mx, m, 1); mx->lpVtbl->ReleaseObject(mx, m); },
                      [&] { mx->lpVtbl->ReleaseObject(mx, m); });
    // A read-write store takes nothing for 0; two readers share.
    ASSERT_EQ(rw->lpVtbl->AcquireObject(rw, r, 0), 0u);
    ASSERT_EQ(rw->lpVtbl->AcquireObject(rw, r, 2), 0u);
    std::thread([&] {
        EXPECT_EQ(rw->lpVtbl->AcquireObject(rw, r, 2), 0u);
        EXPECT_EQ(rw->lpVtbl->ReleaseObject(rw, r), 0u);
    }).join();
    ExpectBlocksUntil([&] { rw->lpVtbl->AcquireObject(rw, r, 1); rw->lpVtbl->ReleaseObject(rw, r); },
                      [&] { rw->lpVtbl->ReleaseObject(rw, r); });
    // An access type the lock kind does not know leaves the object unlocked,
    // and dropping the reference with it releases nothing.
    PVOID out = nullptr;
    ASSERT_EQ(rw->lpVtbl->FindObject(rw, nullptr, nullptr, 0, 3, &out), 0u);
    ASSERT_EQ(rw->lpVtbl->DereferenceObject(rw, out, 3), 0u);
    ASSERT_EQ(rw->lpVtbl->AcquireObject(rw, r, 1), 0u);
    ASSERT_EQ(rw->lpVtbl->ReleaseObject(rw, r), 0u);
    Drop(mx, {m});
    Drop(rw, {r});
    EXPECT_EQ(mx->lpVtbl->Release(mx), 0u);
    EXPECT_EQ(rw->lpVtbl->Release(rw), 0u);
}

TEST_F(OmLocks, CreatorHoldsTheObjectBeforeAFinder) {
    for (UINT32 level : {0u, 3u}) {
        SCOPED_TRACE(level);
        IOM* om = MakeStore(4, level, 1);
        ASSERT_NE(om, nullptr);
        UINT32 mode = 0;
        PVOID a = Create(om, 1, &mode, true, 0, 1, 2);
        ASSERT_EQ(mode, 1u);
        ExpectBlocksUntil(
            [&] {
                PVOID out = nullptr;
                EXPECT_EQ(om->lpVtbl->FindObject(om, KeyArg(1), CompareItem, 0, 2, &out), 0u);
                EXPECT_EQ(static_cast<Item*>(out)->value, 42u);
                EXPECT_EQ(om->lpVtbl->DereferenceObject(om, out, 2), 0u);
            },
            [&] {
                static_cast<Item*>(a)->value = 42;
                om->lpVtbl->ReleaseObject(om, a);
            });
        // A delete by the exclusive holder marks at once: a finder waiting
        // for the lock is told the object is gone.
        ASSERT_EQ(om->lpVtbl->AcquireObject(om, a, 1), 0u);
        StatusCapture sc;
        ExpectBlocksUntil(
            [&] {
                PVOID out = nullptr;
                EXPECT_EQ(om->lpVtbl->FindObject(om, KeyArg(1), CompareItem, 0, 1, &out),
                          KsplOmErr(11));
                EXPECT_EQ(out, nullptr);
            },
            [&] { EXPECT_EQ(om->lpVtbl->DeleteObject(om, a, 1), 0u); });
        EXPECT_TRUE(sc.WasBuilt(KsplOmErr(11), "ObjectFind"));
        EXPECT_EQ(g_routines.deletes.load(), level == 0 ? 1 : 2);
        EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    }
}

TEST_F(OmLocks, ReferenceByHandleWaitingOnADeletedObjectFails) {
    IOM* om = MakeStore(4, 0, 1);
    ASSERT_NE(om, nullptr);
    PVOID a = Create(om, 1, nullptr, true, 0, 1);
    UINT32 h = HandleOf(om, a);
    StatusCapture sc;
    ExpectBlocksUntil(
        [&] {
            PVOID out = nullptr;
            EXPECT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, PtrFromHandle(h), 2, &out),
                      KsplOmErr(3));
        },
        [&] { EXPECT_EQ(om->lpVtbl->DeleteObject(om, a, 1), 0u); });
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(3), "ObjectReferenceByHandle"));
    EXPECT_EQ(g_routines.deletes.load(), 1);
    EXPECT_EQ(StatsOf(om), (Stats{0, 0, 0}));
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

// --- deferred deletion and teardown -----------------------------------------

struct GatedDelete {
    static inline std::atomic<int> slot{0};
    static inline std::atomic<int> entered{0};
    static inline std::atomic<bool> open{false};
    static inline std::thread::id ids[64];
    static KSSTATUS Routine(PVOID) {
        int n = slot++;
        if (n < 64) ids[n] = std::this_thread::get_id();
        ++entered;
        while (!open.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ++g_routines.deletes;
        return 0;
    }
};

TEST_F(OmTeardown, DeferredDeletionRunsOnOneThreadPerBurst) {
    GatedDelete::slot = 0;
    GatedDelete::entered = 0;
    GatedDelete::open = false;
    IOM* om = NewStore();
    ASSERT_NE(om, nullptr);
    ASSERT_EQ(om->lpVtbl->Initialize(om, sizeof(Item), 4, 0x10000000u, 1, GatedDelete::Routine,
                                     nullptr, nullptr, 0),
              0u);
    std::vector<PVOID> u;
    for (UINT32 i = 0; i < 40; ++i) u.push_back(Create(om, i, nullptr, false));
    // The first delete returns while its routine is still held open.
    ASSERT_EQ(om->lpVtbl->DeleteObject(om, u[0], 0), 0u);
    ASSERT_TRUE(WaitUntil([] { return GatedDelete::entered.load() == 1; }));
    EXPECT_NE(GatedDelete::ids[0], std::this_thread::get_id());
    for (size_t i = 1; i < u.size(); ++i) ASSERT_EQ(om->lpVtbl->DeleteObject(om, u[i], 0), 0u);
    EXPECT_EQ(StatsOf(om).inUse, 40u) << "nothing is freed before its routine ran";
    GatedDelete::open = true;
    ASSERT_TRUE(WaitUntil([&] { return DeletionIdle(Info(om)); }));
    EXPECT_EQ(g_routines.deletes.load(), 40);
    for (int i = 1; i < 40; ++i) EXPECT_EQ(GatedDelete::ids[i], GatedDelete::ids[0]) << i;
    EXPECT_EQ(StatsOf(om), (Stats{0, 0, 0}));
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
}

TEST_F(OmTeardown, StoreOutlivesItsLastReleaseWhileObjectsAreHeld) {
    for (UINT32 level : {0u, 3u, 0x10000000u}) {
        SCOPED_TRACE(level);
        g_routines.deletes = 0;
        IOM* om = MakeStore(2, level, 2, 1);
        ASSERT_NE(om, nullptr);
        PVOID held = Create(om, 1);
        PVOID found = nullptr;
        ASSERT_EQ(om->lpVtbl->FindObject(om, KeyArg(1), CompareItem, 0, 0, &found), 0u);
        PVOID loose = Create(om, 2, nullptr, true, 1);
        ASSERT_EQ(om->lpVtbl->DereferenceObject(om, loose, 0), 0u);
        for (UINT32 i = 3; i < 7; ++i) Drop(om, {Create(om, i, nullptr, false, 1)});  // blocks 2, 3
        PVOID pre = nullptr;
        ASSERT_EQ(om->lpVtbl->AllocateObject(om, &pre), 0u);
        KsplCounters during = KsplInUseCounters(pIKspl);
        ASSERT_EQ(om->lpVtbl->Release(om), 0u);
        // Everything unreferenced is gone (4 of 5 in chains plus the
        // preallocated one); `held` survives with its two references.
        ASSERT_TRUE(WaitUntil([&] { return g_routines.deletes.load() == 6; }));
        ASSERT_TRUE(WaitUntil([&] { return DeletionIdle(Info(om)); }));
        EXPECT_EQ(FlagsOf(held) & OBJECT_DELETED, OBJECT_DELETED);
        EXPECT_EQ(Info(om)->flags & OI_RELEASED, OI_RELEASED);
        EXPECT_EQ(Info(om)->statsAllocated, 2u) << "only the held object's block is left";
        EXPECT_LT(KsplInUseCounters(pIKspl)[6], during[6]);
        EXPECT_EQ(om->lpVtbl->DereferenceObject(om, found, 0), 0u);
        EXPECT_EQ(g_routines.deletes.load(), 6);
        // The last reference frees the object, its block and the record;
        // the call still reports success.
        EXPECT_EQ(om->lpVtbl->DereferenceObject(om, held, 0), 0u);
        ASSERT_TRUE(WaitUntil([&] { return g_routines.deletes.load() == 7; }));
        ASSERT_TRUE(WaitUntil([&] { return KsplInUseCounters(pIKspl) == globalAtStart_; }));
    }
}

TEST_F(OmTeardown, StoreFreedStatusReachesDeleteButNotDereference) {
    IOM* om = MakeStore(4, 0, 1);
    ASSERT_NE(om, nullptr);
    PVOID a = Create(om, 1);
    PVOID b = Create(om, 2);
    ASSERT_EQ(om->lpVtbl->Release(om), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 0);
    EXPECT_EQ(om->lpVtbl->DereferenceObject(om, a, 0), 0u);
    EXPECT_EQ(g_routines.deletes.load(), 1);
    StatusCapture sc;
    // b is deleted already (teardown marked it); this delete drops the last
    // reference, and the store goes with it.
    EXPECT_EQ(om->lpVtbl->DeleteObject(om, b, 0), KsplOmErr(0x1004));
    EXPECT_TRUE(sc.WasBuilt(KsplOmErr(0x1004), "ObjectDelete"));
    EXPECT_EQ(g_routines.deletes.load(), 2);
}

}  // namespace
