// Security attribute manager of the component runtime: kinds, attributes
// per context, access holds, enumeration, context end, and in-process
// component registration.
#include <atomic>
#include <barrier>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "kspl_test.h"

namespace {

const GUID kClsidSam = KSPL_GUID_CLSID_SecurityAttributeManager;
const GUID kIidContext = KSPL_GUID_IID_IContextAttribute_1;
const GUID kIidPassive = KSPL_GUID_IID_IPassiveContextAttribute_1;
const GUID kIidUnknown = KSPL_GUID_IID_IUnknown;
GUID g_component = {0x5A5A0001, 0x1, 0x2, {1, 2, 3, 4, 5, 6, 7, 8}};

KSSTATUS OrlmErr(UINT32 code) { return KS_MAKE_STATUS(3, ORLM_FACILITY, code); }

SCHANDLE Sc(uintptr_t type, uintptr_t id) {
    return {reinterpret_cast<HANDLE>(type), reinterpret_cast<HANDLE>(id)};
}
bool SameSc(SCHANDLE a, SCHANDLE b) { return a.hTypeId == b.hTypeId && a.hId == b.hId; }

// What the routines of a kind observed. Attributes are told apart by a
// serial their init routine stores (addresses are reused once freed).
struct Journal {
    std::mutex m;
    std::map<UINT32, int> released;  // release calls per serial (0: no init ran)
    std::vector<SCHANDLE> cleaned;
    std::atomic<int> inits{0};
};
Journal* g_journal = nullptr;

struct Data {
    Journal* journal;
    UINT32 value;
    UINT32 serial;
};
std::atomic<UINT32> g_serial{0};

void ReleaseRoutine(PAttribute a) {
    std::lock_guard<std::mutex> g(g_journal->m);
    ++g_journal->released[a->pData != nullptr ? static_cast<Data*>(a->pData)->serial : 0];
}
KSSTATUS CleanupRoutine(SCHANDLE hSC) {
    std::lock_guard<std::mutex> g(g_journal->m);
    g_journal->cleaned.push_back(hSC);
    return 0;
}
KSSTATUS InitRoutine(PAttribute a, void* init) {
    auto* d = static_cast<Data*>(a->pData);
    // The data area is zero-filled before the init routine sees it.
    if (d->journal != nullptr || d->value != 0) return OrlmErr(99);
    g_journal->inits.fetch_add(1);
    d->journal = g_journal;
    d->value = init != nullptr ? *static_cast<UINT32*>(init) : 0;
    d->serial = ++g_serial;
    return 0;
}
KSSTATUS FailingInit(PAttribute, void*) { return OrlmErr(42); }

class SamTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_journal = &journal;
        ASSERT_EQ(OrlmCreateInstance(&kClsidSam, nullptr, &kIidContext, reinterpret_cast<void**>(&sa)),
                  0u);
        ASSERT_EQ(sa->lpVtbl->SARegisterAttribute(sa, &g_component, sizeof(Data), CleanupRoutine,
                                                  ReleaseRoutine, &h),
                  0u);
        ASSERT_NE(h, nullptr);
        v = sa->lpVtbl;
    }
    void TearDown() override {
        if (sa != nullptr) {
            v->SADeregisterAttribute(sa, h);
            EXPECT_EQ(v->Release(sa), 0u);
        }
        std::lock_guard<std::mutex> g(journal.m);
        for (auto& [serial, n] : journal.released) {
            if (serial != 0) {
                EXPECT_EQ(n, 1) << "release routine ran " << n;
            }
        }
        g_journal = nullptr;
    }
    static UINT32 Id(PAttribute a) { return static_cast<Data*>(a->pData)->serial; }
    int Released(UINT32 serial) {
        std::lock_guard<std::mutex> g(journal.m);
        auto it = journal.released.find(serial);
        return it == journal.released.end() ? 0 : it->second;
    }
    size_t ReleasedTotal() {
        std::lock_guard<std::mutex> g(journal.m);
        size_t n = 0;
        for (auto& [a, c] : journal.released) n += static_cast<size_t>(c);
        return n;
    }
    PAttribute Create(SCHANDLE sc, UINT32* mode = nullptr, UINT32 access = SA_ACCESS_SHARED) {
        PAttribute a = nullptr;
        UINT32 m = 0;
        UINT32 value = 7;
        EXPECT_EQ(v->SACreate(sa, sc, h, &value, InitRoutine, access, access, &a, &m), 0u);
        if (mode != nullptr) *mode = m;
        return a;
    }

    Journal journal;
    ISA* sa = nullptr;
    const ISAVtbl* v = nullptr;
    HANDLE h = nullptr;
};

TEST(SamInstance, InterfacesAndReferenceCounts) {
    ISA* a = nullptr;
    ISA* b = nullptr;
    ASSERT_EQ(OrlmCreateInstance(&kClsidSam, nullptr, &kIidPassive, reinterpret_cast<void**>(&a)), 0u);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->lpVtbl->QueryInterface(a, &kIidContext, reinterpret_cast<void**>(&b)), 0u);
    EXPECT_EQ(b, a);
    EXPECT_EQ(a->lpVtbl->AddRef(a), 3u);
    EXPECT_EQ(a->lpVtbl->Release(a), 2u);

    void* out = &b;
    EXPECT_EQ(a->lpVtbl->QueryInterface(a, &g_component, &out), OrlmErr(2));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(a->lpVtbl->QueryInterface(a, &kIidUnknown, nullptr), OrlmErr(4));
    EXPECT_EQ(a->lpVtbl->Release(a), 1u);
    EXPECT_EQ(a->lpVtbl->Release(a), 0u);

    out = &b;
    EXPECT_EQ(OrlmCreateInstance(&kClsidSam, nullptr, &g_component, &out), OrlmErr(2));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(OrlmCreateInstance(&kClsidSam, reinterpret_cast<PORLM_IUnknown>(&b), &kIidContext,
                                 &out),
              OrlmErr(4));
    EXPECT_EQ(out, nullptr);
}

TEST_F(SamTest, CreateOpensOnceAndReferenceFindsIt) {
    StatusCapture built;
    UINT32 mode = 0;
    PAttribute a = Create(Sc(1, 10), &mode);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(mode, SA_OPENED_CREATED);
    EXPECT_TRUE(SameSc(a->hSC, Sc(1, 10)));
    EXPECT_EQ(static_cast<Data*>(a->pData)->value, 7u);

    PAttribute again = Create(Sc(1, 10), &mode);
    EXPECT_EQ(again, a);
    EXPECT_EQ(mode, SA_OPENED_EXISTING);
    EXPECT_EQ(journal.inits.load(), 1);

    PAttribute r = nullptr;
    EXPECT_EQ(v->SAReference(sa, Sc(1, 10), h, SA_ACCESS_SHARED, &r), 0u);
    EXPECT_EQ(r, a);
    SCHANDLE got{};
    EXPECT_EQ(v->SAGetSCHandle(sa, r, &got), 0u);
    EXPECT_TRUE(SameSc(got, Sc(1, 10)));

    // Same id, other type: another context. Its absence is a built code 3.
    r = reinterpret_cast<PAttribute>(&got);
    EXPECT_EQ(v->SAReference(sa, Sc(2, 10), h, SA_ACCESS_SHARED, &r), OrlmErr(3));
    EXPECT_EQ(r, nullptr);
    EXPECT_TRUE(built.WasBuilt(OrlmErr(3), "SamReference"));

    // A second kind does not see the first kind's attribute.
    HANDLE h2 = nullptr;
    ASSERT_EQ(v->SARegisterAttribute(sa, &g_component, 4, nullptr, nullptr, &h2), 0u);
    EXPECT_NE(h2, h);
    EXPECT_EQ(v->SAReference(sa, Sc(1, 10), h2, SA_ACCESS_SHARED, &r), OrlmErr(3));
    EXPECT_EQ(v->SADeregisterAttribute(sa, h2), 0u);
    EXPECT_EQ(v->SAReference(sa, Sc(1, 10), h2, SA_ACCESS_SHARED, &r), OrlmErr(4));

    for (int i = 0; i < 3; ++i) EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, a), 0u);
    // Nothing outstanding: a fourth give-back has no hold to drop.
    EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, a), OrlmErr(4));
    EXPECT_EQ(Released(Id(a)), 0) << "still attached to its context";
}

TEST_F(SamTest, ReleaseRoutineRunsOnceWhenTheLastReferenceGoes) {
    PAttribute a = Create(Sc(1, 1));
    const UINT32 ida = Id(a);
    PAttribute r = nullptr;
    ASSERT_EQ(v->SAReference(sa, Sc(1, 1), h, SA_ACCESS_SHARED, &r), 0u);
    ASSERT_EQ(v->SADelete(sa, SA_ACCESS_SHARED, a), 0u);
    EXPECT_EQ(Released(ida), 0) << "a reference is still outstanding";
    EXPECT_EQ(v->SAReference(sa, Sc(1, 1), h, SA_ACCESS_SHARED, &r), OrlmErr(3));
    EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, a), 0u);
    EXPECT_EQ(Released(ida), 1);
    // The pointer is stale now: refused, not dereferenced.
    EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, a), OrlmErr(4));

    // A new attribute for the same context starts from zero again.
    UINT32 mode = 0;
    PAttribute b = Create(Sc(1, 1), &mode);
    EXPECT_EQ(mode, SA_OPENED_CREATED);
    EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, b), 0u);
}

TEST_F(SamTest, FailedInitDiscardsWithoutRelease) {
    PAttribute a = reinterpret_cast<PAttribute>(this);
    UINT32 mode = 0;
    EXPECT_EQ(v->SACreate(sa, Sc(3, 3), h, nullptr, FailingInit, 1, 2, &a, &mode), OrlmErr(42));
    EXPECT_EQ(a, nullptr);
    EXPECT_EQ(ReleasedTotal(), 0u);
    EXPECT_EQ(v->SAReference(sa, Sc(3, 3), h, SA_ACCESS_SHARED, &a), OrlmErr(3));
    PAttribute b = Create(Sc(3, 3), &mode);
    EXPECT_EQ(mode, SA_OPENED_CREATED);
    EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, b), 0u);

    EXPECT_EQ(v->SACreate(sa, Sc(3, 4), h, nullptr, nullptr, 3, 2, &a, &mode), OrlmErr(4));
    EXPECT_EQ(v->SACreate(sa, Sc(3, 4), h, nullptr, nullptr, 1, 2, nullptr, &mode), OrlmErr(4));
    EXPECT_EQ(v->SACreate(sa, Sc(3, 4), reinterpret_cast<HANDLE>(0x7777), nullptr, nullptr, 1, 2,
                          &a, &mode),
              OrlmErr(4));
}

TEST_F(SamTest, ConcurrentCreatorsGetOneCreator) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 200;
    std::barrier sync(kThreads);
    std::vector<PAttribute> got(kThreads);
    std::vector<UINT32> modes(kThreads);
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                sync.arrive_and_wait();
                UINT32 value = 7;
                PAttribute a = nullptr;
                UINT32 mode = 0;
                if (v->SACreate(sa, Sc(4, static_cast<uintptr_t>(round)), h, &value, InitRoutine,
                                SA_ACCESS_EXCLUSIVE, SA_ACCESS_SHARED, &a, &mode) != 0) {
                    wrong.fetch_add(1);
                }
                // Whoever opens sees the creator's init complete.
                if (a == nullptr || static_cast<Data*>(a->pData)->value != 7) wrong.fetch_add(1);
                got[t] = a;
                modes[t] = mode;
                v->SADereference(sa, mode, a);
                sync.arrive_and_wait();
                if (t == 0) {
                    int created = 0;
                    for (int i = 0; i < kThreads; ++i) {
                        created += modes[i] == SA_OPENED_CREATED ? 1 : 0;
                        if (got[i] != got[0]) wrong.fetch_add(1);
                    }
                    if (created != 1) wrong.fetch_add(1);
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(journal.inits.load(), kRounds);
}

TEST_F(SamTest, ExclusiveAccessBlocksOthersSharedDoesNot) {
    PAttribute a = Create(Sc(5, 1), nullptr, SA_ACCESS_EXCLUSIVE);
    ASSERT_NE(a, nullptr);

    // The holder may reference again (nested) without waiting for itself.
    PAttribute nested = nullptr;
    ASSERT_EQ(v->SAReference(sa, Sc(5, 1), h, SA_ACCESS_SHARED, &nested), 0u);
    ASSERT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, nested), 0u);

    std::atomic<bool> started{false}, done{false};
    std::thread reader([&] {
        started = true;
        PAttribute r = nullptr;
        EXPECT_EQ(v->SAReference(sa, Sc(5, 1), h, SA_ACCESS_SHARED, &r), 0u);
        done = true;
        EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, r), 0u);
    });
    while (!started) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(done.load()) << "a shared reference got through an exclusive hold";
    ASSERT_EQ(v->SADereference(sa, SA_ACCESS_EXCLUSIVE, a), 0u);
    reader.join();
    EXPECT_TRUE(done.load());

    // Two shared holders at once: the second gets through while the first
    // still holds; an exclusive request waits for both.
    PAttribute s1 = nullptr;
    ASSERT_EQ(v->SAReference(sa, Sc(5, 1), h, SA_ACCESS_SHARED, &s1), 0u);
    std::thread second([&] {
        PAttribute s2 = nullptr;
        EXPECT_EQ(v->SAReference(sa, Sc(5, 1), h, SA_ACCESS_SHARED, &s2), 0u);
        EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, s2), 0u);
    });
    second.join();
    done = false;
    std::thread writer([&] {
        PAttribute w = nullptr;
        EXPECT_EQ(v->SAReference(sa, Sc(5, 1), h, SA_ACCESS_EXCLUSIVE, &w), 0u);
        done = true;
        EXPECT_EQ(v->SADereference(sa, SA_ACCESS_EXCLUSIVE, w), 0u);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(done.load()) << "an exclusive reference got through a shared hold";
    ASSERT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, s1), 0u);
    writer.join();
    EXPECT_TRUE(done.load());

    // SAAcquire / SARelease pair on a referenced attribute.
    ASSERT_EQ(v->SAReference(sa, Sc(5, 1), h, SA_ACCESS_SHARED, &s1), 0u);
    EXPECT_EQ(v->SAAcquire(sa, SA_ACCESS_SHARED, s1), 0u);
    EXPECT_EQ(v->SARelease(sa, s1), 0u);
    EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, s1), 0u);
    EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, s1), OrlmErr(4));
}

// Collects an enumeration's contexts.
std::vector<SCHANDLE> EnumerateAll(ISA* sa, HANDLE h, BOOLEAN (*cmp)(PAttribute, void*) = nullptr,
                                   void* data = nullptr) {
    std::vector<SCHANDLE> seen;
    SCHANDLE c1{}, c2{};
    PAttribute a = nullptr;
    KSSTATUS st;
    while ((st = sa->lpVtbl->SAEnumerate(sa, nullptr, h, &c1, &c2, data, cmp, SA_ACCESS_SHARED,
                                         &a)) == 0) {
        seen.push_back(a->hSC);
        sa->lpVtbl->SADereference(sa, SA_ACCESS_SHARED, a);
    }
    EXPECT_EQ(st, OrlmErr(9));
    EXPECT_EQ(a, nullptr);
    // Finished stays finished.
    EXPECT_EQ(sa->lpVtbl->SAEnumerate(sa, nullptr, h, &c1, &c2, data, cmp, SA_ACCESS_SHARED, &a),
              OrlmErr(9));
    return seen;
}

BOOLEAN OddIds(PAttribute a, void* data) {
    return (reinterpret_cast<uintptr_t>(a->hSC.hId) & 1) != 0 && data == &g_component;
}

TEST_F(SamTest, EnumerateVisitsEveryContextOfTheKindOnce) {
    EXPECT_TRUE(EnumerateAll(sa, h).empty());
    // Context (0, 0) is a context like any other, also for a zero cursor.
    std::vector<SCHANDLE> made = {Sc(0, 0), Sc(0, 5), Sc(1, 1), Sc(1, 2), Sc(9, 0)};
    for (SCHANDLE sc : made) v->SADereference(sa, SA_ACCESS_SHARED, Create(sc));
    // Another kind in other contexts is not visited.
    HANDLE other = nullptr;
    ASSERT_EQ(v->SARegisterAttribute(sa, &g_component, 0, nullptr, nullptr, &other), 0u);
    PAttribute o = nullptr;
    UINT32 mode = 0;
    ASSERT_EQ(v->SACreate(sa, Sc(7, 7), other, nullptr, nullptr, 2, 2, &o, &mode), 0u);
    EXPECT_EQ(o->pData, nullptr);
    v->SADereference(sa, SA_ACCESS_SHARED, o);

    std::vector<SCHANDLE> seen = EnumerateAll(sa, h);
    ASSERT_EQ(seen.size(), made.size());
    for (size_t i = 0; i < made.size(); ++i) EXPECT_TRUE(SameSc(seen[i], made[i])) << i;

    seen = EnumerateAll(sa, h, OddIds, &g_component);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_TRUE(SameSc(seen[0], Sc(0, 5)));
    EXPECT_TRUE(SameSc(seen[1], Sc(1, 1)));

    // By component id when no handle is given: the first kind of that id.
    SCHANDLE c1{}, c2{};
    PAttribute a = nullptr;
    ASSERT_EQ(v->SAEnumerate(sa, &g_component, nullptr, &c1, &c2, nullptr, nullptr, 2, &a), 0u);
    EXPECT_TRUE(SameSc(a->hSC, Sc(0, 0)));
    v->SADereference(sa, SA_ACCESS_SHARED, a);
    EXPECT_EQ(v->SAEnumerate(sa, nullptr, nullptr, &c1, &c2, nullptr, nullptr, 2, &a), OrlmErr(4));
    EXPECT_EQ(v->SADeregisterAttribute(sa, other), 0u);
}

TEST_F(SamTest, EnumerateSurvivesContextsComingAndGoing) {
    // Contexts 0..99 with even ids stay; the scan runs while another thread
    // ends odd contexts and creates new ones. Every stable context must be
    // seen exactly once, in order.
    for (uintptr_t i = 0; i < 100; ++i) v->SADereference(sa, SA_ACCESS_SHARED, Create(Sc(6, i)));
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        uintptr_t n = 0;
        while (!stop) {
            uintptr_t odd = 2 * (n % 50) + 1;
            OrlmEndSecurityContext(Sc(6, odd));
            v->SADereference(sa, SA_ACCESS_SHARED, Create(Sc(6, odd)));
            v->SADereference(sa, SA_ACCESS_SHARED, Create(Sc(6, 1000 + n)));
            ++n;
        }
    });
    for (int pass = 0; pass < 20; ++pass) {
        std::vector<SCHANDLE> seen = EnumerateAll(sa, h);
        std::map<uintptr_t, int> count;
        uintptr_t previous = 0;
        bool ordered = true;
        for (size_t i = 0; i < seen.size(); ++i) {
            uintptr_t id = reinterpret_cast<uintptr_t>(seen[i].hId);
            if (i > 0 && id <= previous) ordered = false;
            previous = id;
            ++count[id];
        }
        EXPECT_TRUE(ordered);
        for (uintptr_t even = 0; even < 100; even += 2) EXPECT_EQ(count[even], 1) << even;
    }
    stop = true;
    churn.join();
}

TEST_F(SamTest, EndingAContextRemovesItsAttributesAndCleansUp) {
    HANDLE h2 = nullptr;
    ASSERT_EQ(v->SARegisterAttribute(sa, &g_component, sizeof(Data), CleanupRoutine, ReleaseRoutine,
                                     &h2),
              0u);
    PAttribute a = Create(Sc(8, 1));
    PAttribute b = nullptr;
    UINT32 mode = 0;
    ASSERT_EQ(v->SACreate(sa, Sc(8, 1), h2, nullptr, InitRoutine, 2, 2, &b, &mode), 0u);
    const UINT32 ida = Id(a), idb = Id(b);
    PAttribute keep = Create(Sc(8, 2));
    v->SADereference(sa, SA_ACCESS_SHARED, keep);
    ASSERT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, a), 0u);
    // b stays referenced across the end.

    EXPECT_EQ(OrlmEndSecurityContext(Sc(8, 1)), 0u);
    EXPECT_EQ(Released(ida), 1);
    EXPECT_EQ(Released(idb), 0) << "still referenced";
    {
        std::lock_guard<std::mutex> g(journal.m);
        ASSERT_EQ(journal.cleaned.size(), 2u) << "one clean-up per kind present";
        EXPECT_TRUE(SameSc(journal.cleaned[0], Sc(8, 1)));
        EXPECT_TRUE(SameSc(journal.cleaned[1], Sc(8, 1)));
    }
    PAttribute r = nullptr;
    EXPECT_EQ(v->SAReference(sa, Sc(8, 1), h, SA_ACCESS_SHARED, &r), OrlmErr(3));
    EXPECT_EQ(v->SAReference(sa, Sc(8, 1), h2, SA_ACCESS_SHARED, &r), OrlmErr(3));
    EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, b), 0u);
    EXPECT_EQ(Released(idb), 1);

    // Another context is untouched; ending an empty one does nothing.
    EXPECT_EQ(v->SAReference(sa, Sc(8, 2), h, SA_ACCESS_SHARED, &r), 0u);
    EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, r), 0u);
    EXPECT_EQ(OrlmEndSecurityContext(Sc(8, 1)), 0u);
    EXPECT_EQ(OrlmEndSecurityContext(Sc(8, 99)), 0u);
    {
        std::lock_guard<std::mutex> g(journal.m);
        EXPECT_EQ(journal.cleaned.size(), 2u);
    }
    EXPECT_EQ(v->SADeregisterAttribute(sa, h2), 0u);
}

TEST_F(SamTest, DeregisterAndFinalReleaseRemoveEveryAttribute) {
    std::vector<UINT32> made;
    for (uintptr_t i = 0; i < 5; ++i) {
        PAttribute a = Create(Sc(10, i));
        made.push_back(Id(a));
        v->SADereference(sa, SA_ACCESS_SHARED, a);
    }
    PAttribute held = nullptr;
    ASSERT_EQ(v->SAReference(sa, Sc(10, 4), h, SA_ACCESS_SHARED, &held), 0u);
    ASSERT_EQ(v->SADeregisterAttribute(sa, h), 0u);
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(Released(made[i]), 1) << i;
    EXPECT_EQ(made[4], Id(held));
    EXPECT_EQ(Released(made[4]), 0);
    EXPECT_EQ(v->SADeregisterAttribute(sa, h), OrlmErr(4));
    // The release routine of a deregistered kind still runs for the last one.
    EXPECT_EQ(v->SADereference(sa, SA_ACCESS_SHARED, held), 0u);
    EXPECT_EQ(Released(made[4]), 1);
    {
        std::lock_guard<std::mutex> g(journal.m);
        EXPECT_TRUE(journal.cleaned.empty()) << "no context ended";
    }

    // An instance's last Release deregisters what it registered.
    ISA* other = nullptr;
    ASSERT_EQ(OrlmCreateInstance(&kClsidSam, nullptr, &kIidPassive, reinterpret_cast<void**>(&other)),
              0u);
    HANDLE h2 = nullptr;
    ASSERT_EQ(other->lpVtbl->SARegisterAttribute(other, &g_component, sizeof(Data), nullptr,
                                                 ReleaseRoutine, &h2),
              0u);
    PAttribute a = nullptr;
    UINT32 mode = 0;
    ASSERT_EQ(other->lpVtbl->SACreate(other, Sc(10, 0), h2, nullptr, InitRoutine, 2, 2, &a, &mode),
              0u);
    const UINT32 ida = Id(a);
    other->lpVtbl->SADereference(other, SA_ACCESS_SHARED, a);
    EXPECT_EQ(Released(ida), 0);
    EXPECT_EQ(other->lpVtbl->Release(other), 0u);
    EXPECT_EQ(Released(ida), 1);
    // The registry is shared: this instance no longer finds that kind.
    EXPECT_EQ(v->SAReference(sa, Sc(10, 0), h2, SA_ACCESS_SHARED, &a), OrlmErr(4));
    h = nullptr;
    v->Release(sa);
    sa = nullptr;
}

// In-process registration with the runtime.
int g_getClassObjectCalls = 0;
struct FakeFactory {
    const ORLM_IClassFactoryVtbl* lpVtbl;
};
KSSTATUS FakeQi(void*, const GUID*, void**) { return 0; }
UINT32 FakeRef(void*) { return 1; }
UINT32 FakeCreate(void*, PORLM_IUnknown, const GUID*, void** pp) {
    static int instance;
    *pp = &instance;
    return 0;
}
UINT32 FakeLock(void*, BOOLEAN) { return 0; }
const ORLM_IClassFactoryVtbl kFakeVtbl = {FakeQi, FakeRef, FakeRef, FakeCreate, FakeLock};
FakeFactory g_fakeFactory = {&kFakeVtbl};
HRESULT FakeGetClassObject(PGUID, PGUID, PVOID* pp) {
    ++g_getClassObjectCalls;
    *pp = &g_fakeFactory;
    return 0;
}
const GUID kFakeClass = {0x5A5A0002, 0x3, 0x4, {8, 7, 6, 5, 4, 3, 2, 1}};
const GUID* const kFakeTable[] = {&kFakeClass, nullptr};

TEST(OrlmRegisterComponent, MakesInProcessClassesCreatable) {
    void* p = nullptr;
    EXPECT_EQ(OrlmCreateInstance(&kFakeClass, nullptr, &kIidUnknown, &p), OrlmErr(3));
    EXPECT_EQ(OrlmRegisterComponent("fake", FakeGetClassObject, nullptr, kFakeTable), 0u);
    EXPECT_EQ(OrlmRegisterComponent("fake", FakeGetClassObject, nullptr, kFakeTable), 0u);
    EXPECT_EQ(OrlmCreateInstance(&kFakeClass, nullptr, &kIidUnknown, &p), 0u);
    EXPECT_NE(p, nullptr);
    EXPECT_EQ(g_getClassObjectCalls, 1);
    EXPECT_EQ(OrlmRegisterComponent(nullptr, FakeGetClassObject, nullptr, kFakeTable), OrlmErr(4));
    EXPECT_EQ(OrlmRegisterComponent("x", nullptr, nullptr, kFakeTable), OrlmErr(4));
    EXPECT_EQ(OrlmRegisterComponent("x", FakeGetClassObject, nullptr, nullptr), OrlmErr(4));
}

}  // namespace
