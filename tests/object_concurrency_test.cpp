// object_concurrency_test.cpp - several threads on one store: racing
// creators, churn of create / find / reference / delete on shared keys,
// bursts for the deletion thread, enumeration during churn, and teardown
// while other threads still hold objects. Outcomes are asserted (exactly one
// creator per object, every object destroyed exactly once, nothing leaked),
// never timings.
#include <latch>
#include <mutex>
#include <random>
#include <set>

#include "object_test_util.h"

namespace {

constexpr int kThreads = 4;

// Incarnations seen by the delete routine and the creators.
struct Ledger {
    std::mutex mutex;
    std::multiset<UINT64> destroyed;
    std::multiset<UINT64> toldCreator;
    void Clear() {
        std::lock_guard<std::mutex> g(mutex);
        destroyed.clear();
        toldCreator.clear();
    }
};
Ledger g_ledger;

KSSTATUS RecordDelete(PVOID user) {
    auto* item = static_cast<Item*>(user);
    {
        std::lock_guard<std::mutex> g(g_ledger.mutex);
        g_ledger.destroyed.insert(item->serial);
    }
    ++g_routines.deletes;
    return 0;
}

UINT32 HandleOf(IOM* om, PVOID user) {
    HANDLE h = nullptr;
    EXPECT_EQ(om->lpVtbl->GetObjectHandle(om, user, &h), 0u);
    return HandleFromPtr(h);
}

class OmConcurrency : public OmTest, public ::testing::WithParamInterface<UINT32> {
protected:
    void SetUp() override {
        OmTest::SetUp();
        g_ledger.Clear();
        om_ = NewStore();
        ASSERT_NE(om_, nullptr);
        ASSERT_EQ(om_->lpVtbl->Initialize(om_, sizeof(Item), 5, GetParam(), 8, RecordDelete,
                                          nullptr, nullptr, 1),
                  0u);
    }
    void Settle() {
        ASSERT_TRUE(WaitUntil([&] { return DeletionIdle(Info(om_)); }));
    }
    // Deletes whatever is left and checks that every incarnation the init
    // routine made was destroyed exactly once.
    void DrainAndCheck() {
        HANDLE cursor = nullptr;
        PVOID user = nullptr;
        while (om_->lpVtbl->EnumerateObjects(om_, &cursor, nullptr, nullptr, 0, &user) == 0) {
            EXPECT_EQ(om_->lpVtbl->DeleteObject(om_, user, 0), 0u);
        }
        Settle();
        UINT32 inUse = 1, prealloc = 1;
        EXPECT_EQ(om_->lpVtbl->GetObjectStats(om_, nullptr, &inUse, &prealloc), 0u);
        EXPECT_EQ(inUse, 0u);
        EXPECT_EQ(prealloc, 0u);
        std::lock_guard<std::mutex> g(g_ledger.mutex);
        EXPECT_EQ(static_cast<int>(g_ledger.destroyed.size()), g_routines.inits.load());
        std::set<UINT64> unique(g_ledger.destroyed.begin(), g_ledger.destroyed.end());
        EXPECT_EQ(unique.size(), g_ledger.destroyed.size()) << "an object was destroyed twice";
        std::set<UINT64> creators(g_ledger.toldCreator.begin(), g_ledger.toldCreator.end());
        EXPECT_EQ(creators.size(), g_ledger.toldCreator.size()) << "two creators for one object";
    }
    void TearDown() override {
        if (om_ != nullptr) {
            EXPECT_EQ(om_->lpVtbl->Release(om_), 0u);
        }
        OmTest::TearDown();
    }
    IOM* om_ = nullptr;
};

TEST_P(OmConcurrency, ExactlyOneCreatorAndItLocksFirst) {
    constexpr UINT32 kKeys = 64;
    std::atomic<int> toldOne[kKeys] = {};
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::vector<UINT32> keys(kKeys);
            for (UINT32 i = 0; i < kKeys; ++i) keys[i] = i;
            std::shuffle(keys.begin(), keys.end(), std::mt19937(t + 1));
            start.arrive_and_wait();
            for (UINT32 key : keys) {
                PVOID user = nullptr;
                UINT32 mode = 0;
                ASSERT_EQ(om_->lpVtbl->CreateObject(om_, KeyArg(key), InitItem, KeyArg(key),
                                                    CompareItem, key % 8, 1, 2, &user, &mode),
                          0u);
                auto* item = static_cast<Item*>(user);
                EXPECT_EQ(item->key, key);
                if (mode == 1) {
                    // Exclusive: no opener may have looked yet.
                    EXPECT_EQ(item->value, 0u);
                    item->value = key + 1;
                    ++toldOne[key];
                    std::lock_guard<std::mutex> g(g_ledger.mutex);
                    g_ledger.toldCreator.insert(item->serial);
                } else {
                    EXPECT_EQ(mode, 2u);
                    EXPECT_EQ(item->value, key + 1) << "an opener got the lock before the creator";
                }
                EXPECT_EQ(om_->lpVtbl->DereferenceObject(om_, user, mode == 1 ? 1 : 2), 0u);
            }
        });
    }
    for (auto& th : threads) th.join();
    for (UINT32 k = 0; k < kKeys; ++k) EXPECT_EQ(toldOne[k].load(), 1) << "key " << k;
    EXPECT_EQ(g_routines.inits.load(), static_cast<int>(kKeys));
    DrainAndCheck();
    EXPECT_EQ(g_routines.deletes.load(), static_cast<int>(kKeys));
}

TEST_P(OmConcurrency, ChurnOnSharedKeysDestroysEachObjectOnce) {
    constexpr UINT32 kKeys = 12;
    constexpr int kIterations = 3000;
    std::atomic<UINT32> handles[kKeys] = {};
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(100 + t);
            std::vector<PVOID> held;
            start.arrive_and_wait();
            for (int i = 0; i < kIterations; ++i) {
                UINT32 key = rng() % kKeys;
                UINT32 op = rng() % 10;
                PVOID user = nullptr;
                UINT32 mode = 0;
                if (op < 3) {
                    UINT32 access = rng() % 3;
                    ASSERT_EQ(om_->lpVtbl->CreateObject(om_, KeyArg(key), InitItem, KeyArg(key),
                                                        CompareItem, key % 8, access, access, &user,
                                                        &mode),
                              0u);
                    EXPECT_EQ(static_cast<Item*>(user)->key, key);
                    if (mode == 1) {
                        handles[key] = HandleOf(om_, user);
                        std::lock_guard<std::mutex> g(g_ledger.mutex);
                        g_ledger.toldCreator.insert(static_cast<Item*>(user)->serial);
                    }
                    if (access != 0) om_->lpVtbl->ReleaseObject(om_, user);
                    held.push_back(user);
                } else if (op < 5) {
                    UINT32 access = rng() % 3;
                    KSSTATUS st = om_->lpVtbl->FindObject(om_, KeyArg(key), CompareItem, key % 8,
                                                          access, &user);
                    if (st == 0) {
                        EXPECT_EQ(static_cast<Item*>(user)->key, key);
                        if (access != 0) om_->lpVtbl->ReleaseObject(om_, user);
                        held.push_back(user);
                    } else {
                        EXPECT_TRUE(st == 0xC7FA000Bu || st == KsplOmErr(11)) << std::hex << st;
                    }
                } else if (op < 7) {
                    UINT32 access = rng() % 3;
                    KSSTATUS st = om_->lpVtbl->ReferenceObjectByHandle(
                        om_, PtrFromHandle(handles[key].load()), access, &user);
                    if (st == 0) {
                        EXPECT_NE(static_cast<Item*>(user)->serial, 0u);
                        EXPECT_FALSE(FlagsOf(user) & OBJECT_FREE);
                        if (access != 0) om_->lpVtbl->ReleaseObject(om_, user);
                        held.push_back(user);
                    } else {
                        EXPECT_TRUE(st == 0xC7FA0003u || st == KsplOmErr(3)) << std::hex << st;
                    }
                } else if (!held.empty()) {
                    size_t j = rng() % held.size();
                    PVOID u = held[j];
                    held.erase(held.begin() + static_cast<long>(j));
                    if (op < 9) {
                        UINT32 access = rng() % 2;
                        if (access != 0) om_->lpVtbl->AcquireObject(om_, u, 1);
                        EXPECT_EQ(om_->lpVtbl->DeleteObject(om_, u, access), 0u);
                    } else {
                        EXPECT_EQ(om_->lpVtbl->DereferenceObject(om_, u, 0), 0u);
                    }
                }
            }
            for (PVOID u : held) EXPECT_EQ(om_->lpVtbl->DereferenceObject(om_, u, 0), 0u);
        });
    }
    for (auto& th : threads) th.join();
    DrainAndCheck();
}

TEST_P(OmConcurrency, EnumerationDuringChurnOnlySeesLiveObjects) {
    std::atomic<bool> stop{false};
    std::atomic<int> created{0};
    std::vector<std::thread> churn;
    for (int t = 0; t < 2; ++t) {
        churn.emplace_back([&, t] {
            std::mt19937 rng(7 + t);
            while (!stop.load()) {
                UINT32 key = rng() % 20;
                PVOID user = nullptr;
                UINT32 mode = 0;
                ASSERT_EQ(om_->lpVtbl->CreateObject(om_, KeyArg(key), InitItem, KeyArg(key),
                                                    CompareItem, key % 8, 0, 0, &user, &mode),
                          0u);
                created.fetch_add(1);
                if (rng() % 2 == 0) {
                    EXPECT_EQ(om_->lpVtbl->DeleteObject(om_, user, 0), 0u);
                } else {
                    EXPECT_EQ(om_->lpVtbl->DereferenceObject(om_, user, 0), 0u);
                }
            }
        });
    }
    // On a loaded machine the churn threads may start late: scan once they run.
    auto startBy = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (created.load() < 50 && std::chrono::steady_clock::now() < startBy) {
        std::this_thread::yield();
    }
    int scans = 0;
    int seen = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    while (scans < 20 || std::chrono::steady_clock::now() < deadline) {
        HANDLE cursor = nullptr;
        PVOID user = nullptr;
        UINT32 lastBlock = 0;
        UINT32 access = static_cast<UINT32>(scans % 3);
        while (om_->lpVtbl->EnumerateObjects(om_, &cursor, nullptr, nullptr, access, &user) == 0) {
            UINT8 f = FlagsOf(user);
            EXPECT_TRUE(f & OBJECT_IN_USE);
            EXPECT_FALSE(f & OBJECT_FREE);
            EXPECT_LT(static_cast<Item*>(user)->key, 20u);
            UINT32 block = HandleOf(om_, user) & 0xFFFFu;
            EXPECT_GE(block, lastBlock) << "the scan went backwards";
            lastBlock = block;
            ++seen;
            EXPECT_EQ(om_->lpVtbl->DereferenceObject(om_, user, access), 0u);
        }
        ++scans;
        if (scans > 100000) break;
    }
    stop = true;
    for (auto& th : churn) th.join();
    EXPECT_GT(seen, 0);
    DrainAndCheck();
}

TEST_P(OmConcurrency, DeletionBurstsFromManyThreads) {
    constexpr int kPerThread = 400;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            std::vector<PVOID> mine;
            for (int round = 0; round < 4; ++round) {
                for (int i = 0; i < kPerThread / 4; ++i) {
                    PVOID user = nullptr;
                    ASSERT_EQ(om_->lpVtbl->CreateObject(om_, KeyArg(1), InitItem, nullptr, nullptr,
                                                        static_cast<UINT32>(i % 8), 0, 0, &user,
                                                        nullptr),
                              0u);
                    mine.push_back(user);
                }
                for (PVOID u : mine) EXPECT_EQ(om_->lpVtbl->DeleteObject(om_, u, 0), 0u);
                mine.clear();
            }
        });
    }
    for (auto& th : threads) th.join();
    Settle();
    EXPECT_EQ(g_routines.deletes.load(), kThreads * kPerThread);
    UINT32 allocated = 0;
    EXPECT_EQ(om_->lpVtbl->GetObjectStats(om_, &allocated, nullptr, nullptr), 0u);
    EXPECT_EQ(allocated, 5u) << "only the permanent block is left";
    DrainAndCheck();
}

TEST_P(OmConcurrency, TeardownWhileOtherThreadsHoldObjects) {
    constexpr int kPerThread = 60;
    std::latch created(kThreads + 1);
    std::latch released(1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::vector<PVOID> mine;
            for (int i = 0; i < kPerThread; ++i) {
                PVOID user = nullptr;
                UINT32 key = static_cast<UINT32>(t * 1000 + i);
                EXPECT_EQ(om_->lpVtbl->CreateObject(om_, KeyArg(key), InitItem, KeyArg(key),
                                                    CompareItem, key % 8, 0, 0, &user, nullptr),
                          0u);
                mine.push_back(user);
            }
            IOM* om = om_;
            created.arrive_and_wait();
            released.wait();
            // The store is released; these objects keep it alive, and the
            // last of them frees it.
            for (size_t i = 0; i < mine.size(); ++i) {
                if (i % 3 == 0) {
                    om->lpVtbl->AcquireObject(om, mine[i], 1);
                    om->lpVtbl->DereferenceObject(om, mine[i], 1);
                } else {
                    om->lpVtbl->DereferenceObject(om, mine[i], 0);
                }
            }
        });
    }
    created.arrive_and_wait();
    EXPECT_EQ(om_->lpVtbl->Release(om_), 0u);
    om_ = nullptr;
    EXPECT_EQ(g_routines.deletes.load(), 0) << "every object was still referenced";
    released.count_down();
    for (auto& th : threads) th.join();
    ASSERT_TRUE(WaitUntil([&] { return g_routines.deletes.load() == kThreads * kPerThread; }));
    std::lock_guard<std::mutex> g(g_ledger.mutex);
    std::set<UINT64> unique(g_ledger.destroyed.begin(), g_ledger.destroyed.end());
    EXPECT_EQ(unique.size(), static_cast<size_t>(kThreads * kPerThread));
}

// Lock-step: a reader holds one or two references of an object while the
// creator deletes it; the deletion drops only the creator's reference. The
// reader's dereferences then take the count down to zero on a deleted
// object, which must free it exactly once, whichever path each dereference
// takes (with more than one reference left, with the last one, holding the
// object's lock or not).
TEST_P(OmConcurrency, LastReferenceOfADeletedObjectFreesIt) {
    constexpr int kRounds = 60;
    std::atomic<UINT32> handle{0};
    std::atomic<int> step{0};  // 1: published, 2: reader holds, 3: deleted, 4: reader done
    auto waitFor = [&](int value) {
        while (step.load() != value) std::this_thread::yield();
    };
    std::thread reader([&] {
        for (int r = 0; r < kRounds; ++r) {
            waitFor(1);
            const int holds = 1 + r % 2;
            const UINT32 access = static_cast<UINT32>(r / 2 % 3);
            PVOID user = nullptr;
            for (int i = 0; i < holds; ++i) {
                ASSERT_EQ(om_->lpVtbl->ReferenceObjectByHandle(om_, PtrFromHandle(handle.load()), 0,
                                                               &user),
                          0u);
            }
            step.store(2);
            waitFor(3);
            EXPECT_TRUE(FlagsOf(user) & OBJECT_DELETED);
            EXPECT_EQ(CountOf(user), static_cast<UINT32>(holds));
            EXPECT_EQ(g_routines.deletes.load(), r) << "freed while referenced";
            for (int i = 0; i < holds; ++i) {
                // The object's lock can still be taken: it goes with the last reference.
                if (access != 0) om_->lpVtbl->AcquireObject(om_, user, access);
                EXPECT_EQ(om_->lpVtbl->DereferenceObject(om_, user, access), 0u);
            }
            step.store(4);
        }
    });
    for (int r = 0; r < kRounds; ++r) {
        PVOID user = nullptr;
        const UINT32 key = static_cast<UINT32>(r);
        ASSERT_EQ(om_->lpVtbl->CreateObject(om_, KeyArg(key), InitItem, KeyArg(key), CompareItem,
                                            key % 8, 0, 0, &user, nullptr),
                  0u);
        handle.store(HandleOf(om_, user));
        step.store(1);
        waitFor(2);
        EXPECT_EQ(om_->lpVtbl->DeleteObject(om_, user, 0), 0u);
        step.store(3);
        waitFor(4);
        Settle();
        EXPECT_EQ(g_routines.deletes.load(), r + 1) << "round " << r;
        UINT32 inUse = 1;
        EXPECT_EQ(om_->lpVtbl->GetObjectStats(om_, nullptr, &inUse, nullptr), 0u);
        EXPECT_EQ(inUse, 0u) << "round " << r;
    }
    reader.join();
    DrainAndCheck();
}

INSTANTIATE_TEST_SUITE_P(LockKinds, OmConcurrency,
                         ::testing::Values(0u, 3u, 0x10000000u, 0x10000003u),
                         [](const ::testing::TestParamInfo<UINT32>& info) {
                             switch (info.param) {
                                 case 0u: return std::string("RwLock");
                                 case 3u: return std::string("Mutex");
                                 case 0x10000000u: return std::string("RwLockDeferred");
                                 default: return std::string("MutexDeferred");
                             }
                         });

}  // namespace
