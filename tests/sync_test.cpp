// Locks: recursion, destroy refused while held, the read-write lock's
// failed tries, and the status of every bad input. (The fixture's teardown
// shows every counter back where it was.)

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
