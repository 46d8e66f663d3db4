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
