// Locks: recursion, destroy refused while held, the read-write lock's
// failed tries and refused stray releases (directly and through object
// stores), and the status of every bad input. (The fixture's teardown
// shows every counter back where it was.)

#include "factory_int.h"
#include "kspl_test.h"
#include "sched_test_util.h"
#include "sync_int.h"

namespace {

class Locks : public KsplTest {
protected:
    void SetUp() override {
        KsplTest::SetUp();
        ASSERT_EQ(v->KsoAllocMutex(k, 0, &mutex), 0u);
        ASSERT_EQ(v->KsoAllocSpinLock(k, &spin), 0u);
        ASSERT_EQ(v->KsoAllocReadWriteLock(k, &rw), 0u);
    }
    // Also shows that every lock was left free.
    void TearDown() override {
        EXPECT_EQ(v->KsoDestroyMutex(k, mutex), 0u);
        EXPECT_EQ(v->KsoDestroySpinLock(k, spin), 0u);
        EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), 0u);
        KsplTest::TearDown();
    }
    template <typename Fn>
    static KSSTATUS OnOtherThread(Fn fn) {
        KSSTATUS result = 0;
        std::thread([&] { result = fn(); }).join();
        return result;
    }
    HANDLE mutex = nullptr, spin = nullptr, rw = nullptr;
};

TEST_F(Locks, HeldLocksRefuseDestroyAndWriteHolderRetries) {
    ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
    ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
    // Refused at every depth, to the holder (whose own try would succeed by
    // recursion) and to others.
    for (int held = 2; held > 0; --held) {
        EXPECT_EQ(v->KsoDestroyMutex(k, mutex), kBusy) << held;
        EXPECT_EQ(OnOtherThread([&] { return v->KsoDestroyMutex(k, mutex); }), kBusy) << held;
        EXPECT_EQ(v->KsoReleaseMutex(k, mutex), 0u);
    }
    KSSPIN_STATE prev = 0;
    ASSERT_EQ(v->KsoAcquireSpinLock(k, spin, &prev), 0u);
    EXPECT_EQ(v->KsoDestroySpinLock(k, spin), kBusy);
    EXPECT_EQ(v->KsoReleaseSpinLock(k, spin, prev), 0u);
    ASSERT_EQ(v->KsoAcquireLockForReadAccess(k, rw, TRUE), 0u);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), kBusy);
    EXPECT_EQ(OnOtherThread([&] { return v->KsoAcquireLockForWriteAccess(k, rw, FALSE); }),
              KsplErr(0x1002));
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
    // The write holder asking again, in either mode, fails instead of blocking.
    ASSERT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, TRUE), 0u);
    EXPECT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, TRUE), KsplErr(0x1002));
    EXPECT_EQ(v->KsoAcquireLockForReadAccess(k, rw, TRUE), KsplErr(0x1002));
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), kBusy);
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
}

// A release by a thread that holds the read-write lock in neither mode is
// refused with code 4 and changes nothing: neither a free lock (which the
// primitive would break for good) nor another thread's hold (which it would
// drop).
TEST_F(Locks, StrayReadWriteReleasesAreRefusedAndChangeNothing) {
    const KSSTATUS busy = KsplErr(KSPL_CODE_LOCK_FAILED);
    const KSSTATUS stray = KsplErr(KSPL_CODE_INVALID_PARAM);
    StatusCapture statuses;
    // On a free lock, and released once too often in each mode.
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), stray);
    EXPECT_TRUE(statuses.WasBuilt(stray, "KsoReleaseReadWriteLock"));
    for (int mode = 0; mode < 2; ++mode) {
        ASSERT_EQ(mode == 0 ? v->KsoAcquireLockForReadAccess(k, rw, FALSE)
                            : v->KsoAcquireLockForWriteAccess(k, rw, FALSE),
                  0u);
        EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u) << mode;
        EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), stray) << mode;
        EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), stray) << mode;
    }
    // Two read holds need two releases, the third is stray.
    ASSERT_EQ(v->KsoAcquireLockForReadAccess(k, rw, FALSE), 0u);
    ASSERT_EQ(v->KsoAcquireLockForReadAccess(k, rw, FALSE), 0u);
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
    EXPECT_EQ(OnOtherThread([&] { return v->KsoAcquireLockForWriteAccess(k, rw, FALSE); }), busy);
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), stray);
    // A reader asking to write would wait for itself for ever: refused.
    ASSERT_EQ(v->KsoAcquireLockForReadAccess(k, rw, TRUE), 0u);
    EXPECT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, TRUE), busy);
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);

    // Another thread's hold survives this thread's stray release, in both
    // modes: the holder still excludes, and releases normally.
    for (int mode = 0; mode < 2; ++mode) {
        SCOPED_TRACE(mode);
        std::atomic<int> step{0};
        std::thread holder([&] {
            EXPECT_EQ(mode == 0 ? v->KsoAcquireLockForReadAccess(k, rw, TRUE)
                                : v->KsoAcquireLockForWriteAccess(k, rw, TRUE),
                      0u);
            step = 1;
            EXPECT_TRUE(WaitFor([&] { return step == 2; }));
            EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
            EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), stray);
        });
        ASSERT_TRUE(WaitFor([&] { return step == 1; }));
        EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), stray);
        EXPECT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, FALSE), busy);
        if (mode == 1) {
            EXPECT_EQ(v->KsoAcquireLockForReadAccess(k, rw, FALSE), busy);
        }
        EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), kBusy);
        step = 2;
        holder.join();
    }

    // Then the lock serves two threads as before: writers exclude each other.
    long shared = 0;
    auto work = [&] {
        for (int i = 0; i < 300; ++i) {
            const bool write = i % 3 != 0;
            ASSERT_EQ(write ? v->KsoAcquireLockForWriteAccess(k, rw, TRUE)
                            : v->KsoAcquireLockForReadAccess(k, rw, TRUE),
                      0u);
            if (write) {
                long seen = shared;
                std::this_thread::yield();
                shared = seen + 1;
            } else {
                EXPECT_GE(shared, 0);
            }
            ASSERT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(shared, 2 * 200);
}

// One thread holding more read-write locks at once than its inline table
// keeps: every hold is found again at release, none twice.
TEST_F(Locks, ManyReadWriteLocksHeldAtOnceReleaseExactlyOnce) {
    constexpr int kLocks = 40;
    std::vector<HANDLE> locks(kLocks);
    for (HANDLE& h : locks) ASSERT_EQ(v->KsoAllocReadWriteLock(k, &h), 0u);
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < kLocks; ++i) {
            ASSERT_EQ(i % 2 == round ? v->KsoAcquireLockForWriteAccess(k, locks[i], FALSE)
                                     : v->KsoAcquireLockForReadAccess(k, locks[i], FALSE),
                      0u);
        }
        // Released in an order unlike the acquisitions, which moves entries
        // about in the table.
        for (int i = 0; i < kLocks; ++i) {
            HANDLE h = locks[(i * 7) % kLocks];
            EXPECT_EQ(v->KsoDestroyReadWriteLock(k, h), kBusy);
            EXPECT_EQ(v->KsoReleaseReadWriteLock(k, h), 0u) << i;
            EXPECT_EQ(v->KsoReleaseReadWriteLock(k, h), KsplErr(KSPL_CODE_INVALID_PARAM)) << i;
        }
    }
    for (HANDLE h : locks) EXPECT_EQ(v->KsoDestroyReadWriteLock(k, h), 0u);
}

// Through an object store: AcquireObject with access 0 takes no lock on a
// read-write store, so the matching ReleaseObject is a stray release. It
// still answers 0, and the object's lock stays whole: two threads share and
// exclude on it, and the object can be deleted (which takes its lock).
TEST_F(Locks, StrayObjectReleasesLeaveTheObjectLockWhole) {
    for (UINT32 level : {0u, 3u}) {
        SCOPED_TRACE(level);
        auto* cf = reinterpret_cast<ORLM_IClassFactory*>(&IOmClassFactory);
        IOM* om = nullptr;
        ASSERT_EQ(cf->lpVtbl->CreateInstance(cf, nullptr, &IID_IObjectManager_1,
                                             reinterpret_cast<void**>(&om)),
                  0u);
        const IOMVtbl* t = om->lpVtbl;
        PKSO_OBJECT_ROUTINE none = [](PVOID) -> KSSTATUS { return 0; };
        ASSERT_EQ(t->Initialize(om, 16, 4, level, 1, none, none, nullptr, 0), 0u);
        PVOID user = nullptr;
        ASSERT_EQ(t->CreateObject(om, nullptr, [](PVOID, PVOID) -> KSSTATUS { return 0; }, nullptr,
                                  [](PVOID, PVOID) -> BOOLEAN { return FALSE; }, 0, 0, 0, &user,
                                  nullptr),
                  0u);
        EXPECT_EQ(t->AcquireObject(om, user, 0), 0u);
        EXPECT_EQ(t->ReleaseObject(om, user), 0u);
        EXPECT_EQ(t->ReleaseObject(om, user), 0u);
        if (level == 0) {
            // Shared by two threads at once, then excluded by a writer.
            std::atomic<int> step{0};
            ASSERT_EQ(t->AcquireObject(om, user, 2), 0u);
            std::thread reader([&] {
                EXPECT_EQ(t->AcquireObject(om, user, 2), 0u);
                step = 1;
                EXPECT_EQ(t->ReleaseObject(om, user), 0u);
            });
            EXPECT_TRUE(WaitFor([&] { return step == 1; })) << "a second reader was kept out";
            EXPECT_EQ(t->ReleaseObject(om, user), 0u);
            reader.join();
        }
        // Exclusive hand-over between two threads: a broken lock would let
        // the second in at once, or never.
        ASSERT_EQ(t->AcquireObject(om, user, 1), 0u);
        std::atomic<bool> entered{false};
        std::thread writer([&] {
            EXPECT_EQ(t->AcquireObject(om, user, 1), 0u);
            entered = true;
            EXPECT_EQ(t->ReleaseObject(om, user), 0u);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(entered);
        EXPECT_EQ(t->ReleaseObject(om, user), 0u);
        writer.join();
        EXPECT_TRUE(entered);
        EXPECT_EQ(t->ReleaseObject(om, user), 0u) << "stray once more";
        EXPECT_EQ(t->DeleteObject(om, user, 0), 0u);
        EXPECT_EQ(t->Release(om), 0u);
    }
}

TEST_F(Locks, BadInputsGetTheirStatus) {
    HANDLE event = nullptr;
    ASSERT_EQ(v->KsoAllocEvent(k, KsoNotificationEvent, &event), 0u);
    KSO_MUTEX_HANDLE cleared{};  // signature cleared, as a destroyed record's
    StatusCapture statuses;
    const KSSTATUS bad = KsplErr(3);
    KSSPIN_STATE s = 0;
    // Per kind: null, a lock of another kind, an event, a cleared record.
    HANDLE notMutex[] = {nullptr, spin, event, &cleared};
    HANDLE notSpin[] = {nullptr, rw, event, &cleared};
    HANDLE notRw[] = {nullptr, mutex, event, &cleared};
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(v->KsoAcquireMutex(k, notMutex[i]), bad);
        EXPECT_EQ(v->KsoReleaseMutex(k, notMutex[i]), bad);
        EXPECT_EQ(v->KsoDestroyMutex(k, notMutex[i]), bad);
        EXPECT_EQ(v->KsoAcquireSpinLock(k, notSpin[i], &s), bad);
        EXPECT_EQ(v->KsoReleaseSpinLock(k, notSpin[i], s), bad);
        EXPECT_EQ(v->KsoDestroySpinLock(k, notSpin[i]), bad);
        EXPECT_EQ(v->KsoAcquireLockForReadAccess(k, notRw[i], TRUE), bad);
        EXPECT_EQ(v->KsoAcquireLockForWriteAccess(k, notRw[i], FALSE), bad);
        EXPECT_EQ(v->KsoReleaseReadWriteLock(k, notRw[i]), bad);
        EXPECT_EQ(v->KsoDestroyReadWriteLock(k, notRw[i]), bad);
    }
    EXPECT_EQ(v->KsoDestroyMutex(nullptr, mutex), bad);
    EXPECT_EQ(v->KsoAcquireSpinLock(k, spin, nullptr), KsplErr(4));  // left free: see teardown
    HANDLE h = nullptr;
    EXPECT_EQ(v->KsoAllocMutex(nullptr, 0, &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocSpinLock(k, nullptr), KsplErr(4));
    EXPECT_EQ(v->KsoAllocReadWriteLock(nullptr, &h), KsplErr(4));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoAcquireSpinLock"));
    EXPECT_EQ(v->KsoDestroyEvent(k, event), 0u);
}

}  // namespace

// ---------------------------------------------------------------------------
// Mutual exclusion under contention: N threads (the parameter) start
// together and update plain, non-atomic state under each lock kind. A lock
// that lets two holders in loses increments or breaks the readers'
// invariant; under ThreadSanitizer it also shows as a data race.

#include <algorithm>
#include <barrier>

namespace {

constexpr int kRounds = 1000;  // per thread; enough to interleave, short under qemu-i386

class Contention : public KsplTest, public ::testing::WithParamInterface<int> {
protected:
    // Runs body(i) on GetParam() threads released at once.
    template <typename Body>
    void RunTogether(Body body) {
        const int n = GetParam();
        std::barrier start(n);
        std::vector<std::thread> threads;
        for (int i = 0; i < n; ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                body(i);
            });
        }
        for (auto& t : threads) t.join();
    }
};

// The read and the write of the counter are split by a yield now and then,
// so that a second holder inside the section would overwrite an update.
inline void SlowIncrement(UINT64* counter, int round) {
    UINT64 seen = *counter;
    if (round % 64 == 0) std::this_thread::yield();
    *counter = seen + 1;
}

TEST_P(Contention, EveryLockKindCountsEveryIncrement) {
    HANDLE mutex = nullptr, spin = nullptr, rw = nullptr;
    ASSERT_EQ(v->KsoAllocMutex(k, 0, &mutex), 0u);
    ASSERT_EQ(v->KsoAllocSpinLock(k, &spin), 0u);
    ASSERT_EQ(v->KsoAllocReadWriteLock(k, &rw), 0u);
    UINT64 byMutex = 0, bySpin = 0, byRw = 0;
    std::atomic<int> failures{0};
    RunTogether([&](int) {
        for (int r = 0; r < kRounds; ++r) {
            if (v->KsoAcquireMutex(k, mutex) != 0) ++failures;
            SlowIncrement(&byMutex, r);
            if (v->KsoReleaseMutex(k, mutex) != 0) ++failures;

            KSSPIN_STATE state = 0;
            if (v->KsoAcquireSpinLock(k, spin, &state) != 0) ++failures;
            SlowIncrement(&bySpin, r);
            if (v->KsoReleaseSpinLock(k, spin, state) != 0) ++failures;

            if (v->KsoAcquireLockForWriteAccess(k, rw, TRUE) != 0) ++failures;
            SlowIncrement(&byRw, r);
            if (v->KsoReleaseReadWriteLock(k, rw) != 0) ++failures;
        }
    });
    const UINT64 expected = static_cast<UINT64>(GetParam()) * kRounds;
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(byMutex, expected);
    EXPECT_EQ(bySpin, expected);
    EXPECT_EQ(byRw, expected);
    // Destroy succeeds only on a free lock: nobody was left holding one.
    EXPECT_EQ(v->KsoDestroyMutex(k, mutex), 0u);
    EXPECT_EQ(v->KsoDestroySpinLock(k, spin), 0u);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), 0u);
}

// Half the threads (at least one) write, the rest read. A writer keeps
// low == high but passes through a state where they differ; a reader that
// ever sees them differ was let in beside a writer. Readers also check that
// the state only moves forward, which a torn or reordered view would break.
TEST_P(Contention, ReadersNeverSeeAHalfWrittenPair) {
    HANDLE rw = nullptr;
    ASSERT_EQ(v->KsoAllocReadWriteLock(k, &rw), 0u);
    struct {
        UINT64 low = 0;
        UINT64 high = 0;
    } pair;
    const int writers = std::max(1, GetParam() / 2);
    std::atomic<int> failures{0}, torn{0}, backwards{0};
    std::atomic<long> reads{0};
    RunTogether([&](int i) {
        if (i < writers) {
            for (int r = 0; r < kRounds; ++r) {
                if (v->KsoAcquireLockForWriteAccess(k, rw, TRUE) != 0) ++failures;
                ++pair.low;
                if (r % 32 == 0) std::this_thread::yield();
                ++pair.high;
                if (v->KsoReleaseReadWriteLock(k, rw) != 0) ++failures;
            }
            return;
        }
        UINT64 last = 0;
        for (int r = 0; r < kRounds; ++r) {
            if (v->KsoAcquireLockForReadAccess(k, rw, TRUE) != 0) ++failures;
            const UINT64 low = pair.low, high = pair.high;
            if (v->KsoReleaseReadWriteLock(k, rw) != 0) ++failures;
            if (low != high) ++torn;
            if (low < last) ++backwards;
            last = low;
            ++reads;
        }
    });
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(backwards.load(), 0);
    EXPECT_EQ(reads.load(), static_cast<long>(GetParam() - writers) * kRounds);
    EXPECT_EQ(pair.low, static_cast<UINT64>(writers) * kRounds);
    EXPECT_EQ(pair.high, pair.low);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), 0u);
}

INSTANTIATE_TEST_SUITE_P(Threads, Contention, ::testing::Values(2, 4, 8),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::to_string(info.param);
                         });

}  // namespace
