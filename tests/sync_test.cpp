// Locks and atomic counters: exclusion and recursion under contention,
// destroy refused while held, the read-write lock's failed tries, and the
// status of every bad input.
#include <atomic>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "sched_test_util.h"
#include "sync_int.h"

namespace {

constexpr KSSTATUS kBusy = 0xC7F11003u;      // destroy of a held lock
constexpr KSSTATUS kNotTaken = 0xC7F11002u;  // read-write lock not obtained

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

// Plain counters: an overlap of two holders loses increments (and is a data
// race under ThreadSanitizer); a reader must never see a half-written pair.
TEST_F(Locks, ExclusionAndRecursionUnderContention) {
    constexpr int kThreads = 4, kRounds = 4000;
    long viaMutex = 0, a = 0, b = 0;
    std::atomic<int> torn{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
                ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
                ASSERT_EQ(v->KsoReleaseMutex(k, mutex), 0u);
                ++viaMutex;  // still held after the inner release
                ASSERT_EQ(v->KsoReleaseMutex(k, mutex), 0u);
                if (t % 2 == 0) {
                    ASSERT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, TRUE), 0u);
                    ++a;
                    ++b;
                } else {
                    ASSERT_EQ(v->KsoAcquireLockForReadAccess(k, rw, TRUE), 0u);
                    if (a != b) ++torn;
                }
                ASSERT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(viaMutex, 1L * kThreads * kRounds);
    EXPECT_EQ(a, 1L * kThreads / 2 * kRounds);
    EXPECT_EQ(torn.load(), 0);
}

TEST_F(Locks, HeldLocksRefuseDestroyAndWriteHolderRetries) {
    const KsplCounters before = KsplReadCounters(k);
    StatusCapture statuses;
    ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
    ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
    // Refused at every depth, to the holder (whose own try would succeed by
    // recursion) and to others.
    for (int held = 2; held > 0; --held) {
        EXPECT_EQ(v->KsoDestroyMutex(k, mutex), kBusy) << held;
        EXPECT_EQ(OnOtherThread([&] { return v->KsoDestroyMutex(k, mutex); }), kBusy) << held;
        EXPECT_EQ(v->KsoReleaseMutex(k, mutex), 0u);
    }
    EXPECT_TRUE(statuses.WasBuilt(kBusy, "KsoDestroyMutex"));
    KSSPIN_STATE prev = 0;
    ASSERT_EQ(v->KsoAcquireSpinLock(k, spin, &prev), 0u);
    EXPECT_EQ(v->KsoDestroySpinLock(k, spin), kBusy);
    EXPECT_EQ(v->KsoReleaseSpinLock(k, spin, prev), 0u);
    ASSERT_EQ(v->KsoAcquireLockForReadAccess(k, rw, TRUE), 0u);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), kBusy);
    EXPECT_EQ(OnOtherThread([&] { return v->KsoAcquireLockForWriteAccess(k, rw, FALSE); }),
              kNotTaken);
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
    // The write holder asking again, in either mode, fails instead of blocking.
    ASSERT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, TRUE), 0u);
    EXPECT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, TRUE), kNotTaken);
    EXPECT_EQ(v->KsoAcquireLockForReadAccess(k, rw, TRUE), kNotTaken);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), kBusy);
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
    EXPECT_EQ(KsplReadCounters(k), before);
}

TEST_F(Locks, BadInputsGetTheirStatusAndChangeNothing) {
    HANDLE event = nullptr;
    ASSERT_EQ(v->KsoAllocEvent(k, KsoNotificationEvent, &event), 0u);
    KSO_MUTEX_HANDLE cleared{};  // signature cleared, as a destroyed record's
    KsplObjInfo foreign{};
    IKspl* notAnInstance = reinterpret_cast<IKspl*>(&foreign);
    const KsplCounters before = KsplReadCounters(k);
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
    EXPECT_EQ(v->KsoDestroySpinLock(notAnInstance, spin), bad);
    EXPECT_EQ(v->KsoAcquireSpinLock(k, spin, nullptr), KsplErr(4));  // left free: see teardown
    HANDLE untouched = reinterpret_cast<HANDLE>(0x1234);
    EXPECT_EQ(v->KsoAllocMutex(nullptr, 0, &untouched), KsplErr(4));
    EXPECT_EQ(v->KsoAllocSpinLock(notAnInstance, &untouched), KsplErr(4));
    EXPECT_EQ(v->KsoAllocReadWriteLock(k, nullptr), KsplErr(4));
    EXPECT_EQ(untouched, reinterpret_cast<HANDLE>(0x1234));
    EXPECT_TRUE(statuses.WasBuilt(bad, "KsoReleaseSpinLock"));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoAcquireSpinLock"));
    EXPECT_EQ(KsplReadCounters(k), before);
    EXPECT_EQ(v->KsoDestroyEvent(k, event), 0u);

    UINT32 value = 0;
    EXPECT_EQ(v->KsoInterlockedDecrement(nullptr, &value), 0xFFFFFFFFu);
    EXPECT_EQ(v->KsoInterlockedIncrement(nullptr, &value), 0u);
    EXPECT_EQ(v->KsoInterlockedExchange(k, &value, 5u), 0u);
    EXPECT_EQ(value, 5u);
}

}  // namespace
