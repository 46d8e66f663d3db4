// Locks and atomic counters: mutual exclusion under contention, recursion,
// writer preference, destroy refused while held (and the lock still usable
// afterwards), handle checks, and which failures are built and logged.
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "sync_int.h"

namespace {

using std::chrono::steady_clock;

// Polls `pred` (a handshake with another thread) for up to 30 s.
template <typename Pred>
bool Eventually(Pred pred) {
    auto until = steady_clock::now() + std::chrono::seconds(30);
    while (!pred()) {
        if (steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

class Locks : public KsplTest {
protected:
    HANDLE NewMutex() {
        HANDLE h = nullptr;
        EXPECT_EQ(v->KsoAllocMutex(k, 0, &h), 0u);
        return h;
    }
    HANDLE NewSpinLock() {
        HANDLE h = nullptr;
        EXPECT_EQ(v->KsoAllocSpinLock(k, &h), 0u);
        return h;
    }
    HANDLE NewRwLock() {
        HANDLE h = nullptr;
        EXPECT_EQ(v->KsoAllocReadWriteLock(k, &h), 0u);
        return h;
    }
    // Runs `fn` on another thread and returns its result.
    template <typename Fn>
    static KSSTATUS OnOtherThread(Fn fn) {
        KSSTATUS result = 0;
        std::thread t([&] { result = fn(); });
        t.join();
        return result;
    }
};

constexpr int kThreads = 4;
constexpr int kRounds = 5000;

TEST_F(Locks, EachKindExcludesConcurrentHolders) {
    HANDLE mutex = NewMutex();
    HANDLE spin = NewSpinLock();
    HANDLE rw = NewRwLock();
    // Plain counters: any overlap of two holders loses increments (and is a
    // data race under ThreadSanitizer).
    long viaMutex = 0, viaSpin = 0, viaRw = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
                ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);  // recursion
                ++viaMutex;
                ASSERT_EQ(v->KsoReleaseMutex(k, mutex), 0u);
                ++viaMutex;  // still held after the inner release
                ASSERT_EQ(v->KsoReleaseMutex(k, mutex), 0u);

                KSSPIN_STATE prev = 0;
                ASSERT_EQ(v->KsoAcquireSpinLock(k, spin, &prev), 0u);
                ++viaSpin;
                ASSERT_EQ(v->KsoReleaseSpinLock(k, spin, prev), 0u);

                ASSERT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, TRUE), 0u);
                ++viaRw;
                ASSERT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(viaMutex, 2L * kThreads * kRounds);
    EXPECT_EQ(viaSpin, 1L * kThreads * kRounds);
    EXPECT_EQ(viaRw, 1L * kThreads * kRounds);
    EXPECT_EQ(v->KsoDestroyMutex(k, mutex), 0u);
    EXPECT_EQ(v->KsoDestroySpinLock(k, spin), 0u);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), 0u);
}

TEST_F(Locks, ReadersShareWritersSeeConsistentPairs) {
    HANDLE rw = NewRwLock();
    long a = 0, b = 0;  // written together under the write lock
    std::atomic<int> torn{0};
    std::atomic<int> reads{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                ASSERT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, TRUE), 0u);
                ++a;
                ++b;
                ASSERT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
            }
        });
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                ASSERT_EQ(v->KsoAcquireLockForReadAccess(k, rw, TRUE), 0u);
                if (a != b) ++torn;
                ++reads;
                ASSERT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(a, 2L * kRounds);
    EXPECT_EQ(reads.load(), 2 * kRounds);

    // Two readers at once: a read try succeeds while another thread reads.
    ASSERT_EQ(v->KsoAcquireLockForReadAccess(k, rw, FALSE), 0u);
    EXPECT_EQ(OnOtherThread([&] {
                  KSSTATUS st = v->KsoAcquireLockForReadAccess(k, rw, FALSE);
                  if (st == 0) v->KsoReleaseReadWriteLock(k, rw);
                  return st;
              }),
              0u);
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), 0u);
}

TEST_F(Locks, MutexRecursionDepthDecidesWhenOthersMayDestroy) {
    HANDLE mutex = NewMutex();
    StatusCapture statuses;
    ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
    ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
    ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
    // The holder itself cannot destroy it either (its own try would succeed
    // by recursion).
    EXPECT_EQ(v->KsoDestroyMutex(k, mutex), KsplErr(0x1003));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1003), "KsoDestroyMutex"));
    for (int held = 3; held > 0; --held) {
        EXPECT_EQ(OnOtherThread([&] { return v->KsoDestroyMutex(k, mutex); }), KsplErr(0x1003))
            << "held " << held << " times";
        EXPECT_EQ(v->KsoReleaseMutex(k, mutex), 0u);
    }
    EXPECT_EQ(KsplInfo(k)->MutexInUse, 1u) << "refusals change nothing";
#if !defined(__SANITIZE_THREAD__)
    // A release by a thread that does not own it is answered with 0 and
    // does not disturb the owner's count. (ThreadSanitizer reports such a
    // release as the misuse it is.)
    ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
    EXPECT_EQ(OnOtherThread([&] { return v->KsoReleaseMutex(k, mutex); }), 0u);
    EXPECT_EQ(OnOtherThread([&] { return v->KsoDestroyMutex(k, mutex); }), KsplErr(0x1003));
    EXPECT_EQ(v->KsoReleaseMutex(k, mutex), 0u);
#endif
    EXPECT_EQ(OnOtherThread([&] { return v->KsoDestroyMutex(k, mutex); }), 0u);
    EXPECT_EQ(KsplInfo(k)->MutexInUse, 0u);
}

TEST_F(Locks, SpinLockDestroyRefusedWhileHeldAndCancelTypeRestored) {
    HANDLE spin = NewSpinLock();
    int original = -1;
    ASSERT_EQ(pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &original), 0);
    KSSPIN_STATE prev = 12345;
    ASSERT_EQ(v->KsoAcquireSpinLock(k, spin, &prev), 0u);
    EXPECT_EQ(prev, static_cast<KSSPIN_STATE>(PTHREAD_CANCEL_ASYNCHRONOUS));
    int inside = -1;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &inside);
    EXPECT_EQ(inside, PTHREAD_CANCEL_DEFERRED) << "no asynchronous cancellation while held";
    pthread_setcanceltype(inside, &inside);

    EXPECT_EQ(v->KsoDestroySpinLock(k, spin), KsplErr(0x1003)) << "held by the caller";
    EXPECT_EQ(OnOtherThread([&] { return v->KsoDestroySpinLock(k, spin); }), KsplErr(0x1003));
    EXPECT_EQ(v->KsoReleaseSpinLock(k, spin, prev), 0u);
    int after = -1;
    pthread_setcanceltype(original, &after);
    EXPECT_EQ(after, PTHREAD_CANCEL_ASYNCHRONOUS) << "release restores the caller's type";

    // A null state is refused before anything is taken: the lock stays free.
    StatusCapture statuses;
    EXPECT_EQ(v->KsoAcquireSpinLock(k, spin, nullptr), KsplErr(4));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoAcquireSpinLock"));
    EXPECT_EQ(OnOtherThread([&] {
                  KSSPIN_STATE s;
                  KSSTATUS st = v->KsoAcquireSpinLock(k, spin, &s);
                  v->KsoReleaseSpinLock(k, spin, s);
                  return st;
              }),
              0u);
    EXPECT_EQ(v->KsoDestroySpinLock(k, spin), 0u);
}

TEST_F(Locks, WaitingWriterHoldsOffNewReaders) {
    HANDLE rw = NewRwLock();
    ASSERT_EQ(v->KsoAcquireLockForReadAccess(k, rw, TRUE), 0u);  // reader R1 (this thread)

    std::atomic<int> writerState{0};  // 1 asking, 2 holds, 3 released
    std::atomic<bool> mayRelease{false};
    std::atomic<KSSTATUS> readTryWhileWriting{0};
    std::thread writer([&] {
        writerState = 1;
        KSSTATUS st = v->KsoAcquireLockForWriteAccess(k, rw, TRUE);
        ASSERT_EQ(st, 0u);
        writerState = 2;
        while (!mayRelease) std::this_thread::yield();
        ASSERT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
        writerState = 3;
    });
    ASSERT_TRUE(Eventually([&] { return writerState == 1; }));
    // A write try from another thread fails at once while R1 reads.
    EXPECT_EQ(OnOtherThread([&] { return v->KsoAcquireLockForWriteAccess(k, rw, FALSE); }),
              KsplErr(0x1002));
    // Once the writer queues, a second reader's try fails although only
    // readers hold the lock. Until then the try succeeds; give it back.
    bool heldOff = Eventually([&] {
        KSSTATUS st = OnOtherThread([&] {
            KSSTATUS s = v->KsoAcquireLockForReadAccess(k, rw, FALSE);
            if (s == 0) v->KsoReleaseReadWriteLock(k, rw);
            return s;
        });
        return st == KsplErr(0x1002);
    });
    EXPECT_TRUE(heldOff);
    EXPECT_EQ(writerState.load(), 1) << "the writer waits for the reader";
    ASSERT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
    ASSERT_TRUE(Eventually([&] { return writerState == 2; }));
    readTryWhileWriting = v->KsoAcquireLockForReadAccess(k, rw, FALSE);
    EXPECT_EQ(readTryWhileWriting.load(), KsplErr(0x1002));
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), KsplErr(0x1003)) << "held for writing";
    mayRelease = true;
    writer.join();
    EXPECT_EQ(v->KsoAcquireLockForReadAccess(k, rw, FALSE), 0u);
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), 0u);
}

TEST_F(Locks, WriteHolderAskingAgainFailsInsteadOfBlocking) {
    HANDLE rw = NewRwLock();
    StatusCapture statuses;
    ASSERT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, TRUE), 0u);
    EXPECT_EQ(reinterpret_cast<KSO_LOCK_HANDLE*>(rw)->threadId, pthread_self());
    EXPECT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, TRUE), KsplErr(0x1002));
    EXPECT_EQ(v->KsoAcquireLockForReadAccess(k, rw, TRUE), KsplErr(0x1002));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1002), "KsoAcquireLockForWriteAccess"));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1002), "KsoAcquireLockForReadAccess"));
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);

    // Destroy while another thread reads: refused, and the lock still works.
    std::atomic<int> step{0};
    std::thread reader([&] {
        ASSERT_EQ(v->KsoAcquireLockForReadAccess(k, rw, TRUE), 0u);
        step = 1;
        while (step != 2) std::this_thread::yield();
        ASSERT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
    });
    ASSERT_TRUE(Eventually([&] { return step == 1; }));
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), KsplErr(0x1003));
    EXPECT_EQ(KsplInfo(k)->LockInUse, 1u);
    step = 2;
    reader.join();
    EXPECT_EQ(v->KsoAcquireLockForWriteAccess(k, rw, FALSE), 0u);
    EXPECT_EQ(v->KsoReleaseReadWriteLock(k, rw), 0u);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), 0u);
}

TEST_F(Locks, BadHandlesAndArgumentsChangeNothing) {
    HANDLE mutex = NewMutex();
    HANDLE spin = NewSpinLock();
    HANDLE rw = NewRwLock();
    HANDLE event = nullptr;
    ASSERT_EQ(v->KsoAllocEvent(k, KsoNotificationEvent, &event), 0u);
    // A record whose signature was cleared, as a destroyed one is.
    KSO_MUTEX_HANDLE cleared{};
    KsplCounters before = KsplReadCounters(k);
    StatusCapture statuses;
    const KSSTATUS bad = KsplErr(3);
    KSSPIN_STATE s = 0;

    for (HANDLE h : {HANDLE{nullptr}, spin, rw, event, HANDLE{&cleared}}) {
        EXPECT_EQ(v->KsoAcquireMutex(k, h), bad);
        EXPECT_EQ(v->KsoReleaseMutex(k, h), bad);
        EXPECT_EQ(v->KsoDestroyMutex(k, h), bad);
    }
    for (HANDLE h : {HANDLE{nullptr}, mutex, rw, event}) {
        EXPECT_EQ(v->KsoAcquireSpinLock(k, h, &s), bad);
        EXPECT_EQ(v->KsoReleaseSpinLock(k, h, s), bad);
        EXPECT_EQ(v->KsoDestroySpinLock(k, h), bad);
    }
    for (HANDLE h : {HANDLE{nullptr}, mutex, spin, event}) {
        EXPECT_EQ(v->KsoAcquireLockForReadAccess(k, h, TRUE), bad);
        EXPECT_EQ(v->KsoAcquireLockForWriteAccess(k, h, FALSE), bad);
        EXPECT_EQ(v->KsoReleaseReadWriteLock(k, h), bad);
        EXPECT_EQ(v->KsoDestroyReadWriteLock(k, h), bad);
    }
    EXPECT_TRUE(statuses.WasBuilt(bad, "KsoAcquireMutex"));
    EXPECT_TRUE(statuses.WasBuilt(bad, "KsoReleaseSpinLock"));
    EXPECT_TRUE(statuses.WasBuilt(bad, "KsoDestroyReadWriteLock"));
    for (const auto& b : statuses.Built()) EXPECT_EQ(b.file, "sync");

    // Destroy checks the instance with the same code as the handle.
    KsplObjInfo foreign{};
    IKspl* notAnInstance = reinterpret_cast<IKspl*>(&foreign);
    EXPECT_EQ(v->KsoDestroyMutex(nullptr, mutex), bad);
    EXPECT_EQ(v->KsoDestroySpinLock(notAnInstance, spin), bad);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(nullptr, rw), bad);

    // Allocation: instance and out-pointer give code 4 and leave *pHandle.
    HANDLE untouched = reinterpret_cast<HANDLE>(0x1234);
    EXPECT_EQ(v->KsoAllocMutex(nullptr, 0, &untouched), KsplErr(4));
    EXPECT_EQ(v->KsoAllocSpinLock(notAnInstance, &untouched), KsplErr(4));
    EXPECT_EQ(v->KsoAllocReadWriteLock(nullptr, &untouched), KsplErr(4));
    EXPECT_EQ(untouched, reinterpret_cast<HANDLE>(0x1234));
    EXPECT_EQ(v->KsoAllocMutex(k, 0, nullptr), KsplErr(4));
    EXPECT_EQ(v->KsoAllocSpinLock(k, nullptr), KsplErr(4));
    EXPECT_EQ(v->KsoAllocReadWriteLock(k, nullptr), KsplErr(4));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoAllocReadWriteLock"));
    EXPECT_EQ(KsplReadCounters(k), before);

    // Everything still works after the refusals.
    ASSERT_EQ(v->KsoAcquireMutex(k, mutex), 0u);
    EXPECT_EQ(v->KsoReleaseMutex(k, mutex), 0u);
    EXPECT_EQ(v->KsoDestroyMutex(k, mutex), 0u);
    EXPECT_EQ(v->KsoDestroySpinLock(k, spin), 0u);
    EXPECT_EQ(v->KsoDestroyReadWriteLock(k, rw), 0u);
    EXPECT_EQ(v->KsoDestroyEvent(k, event), 0u);
}

TEST_F(Locks, HandlesWorkThroughAnyInstanceAndAreCountedOnTheAllocator) {
    IKspl* other = KsplTestCreateInstance();
    ASSERT_NE(other, nullptr);
    HANDLE mutex = NewMutex();
    EXPECT_EQ(KsplInfo(k)->MutexInUse, 1u);
    EXPECT_EQ(KsplInfo(other)->MutexInUse, 0u);
    EXPECT_EQ(v->KsoAcquireMutex(other, mutex), 0u);
    EXPECT_EQ(v->KsoReleaseMutex(nullptr, mutex), 0u) << "use operations ignore the instance";
    EXPECT_EQ(v->KsoDestroyMutex(k, mutex), 0u);
    EXPECT_EQ(KsplInfo(k)->MutexInUse, 0u);
    EXPECT_EQ(other->lpVtbl->Release(other), 0u);
}

TEST_F(Locks, InterlockedOperationsAreAtomicAndWrap) {
    UINT32 value = 0;
    EXPECT_EQ(v->KsoInterlockedDecrement(nullptr, &value), 0xFFFFFFFFu);
    EXPECT_EQ(v->KsoInterlockedIncrement(nullptr, &value), 0u);
    EXPECT_EQ(v->KsoInterlockedExchange(nullptr, &value, 77u), 0u);
    EXPECT_EQ(v->KsoInterlockedExchange(k, &value, 5u), 77u);
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(v->KsoGetCurrentIrql(k), 0u);

    UINT32 shared = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                if (t % 2 == 0) {
                    v->KsoInterlockedIncrement(nullptr, &shared);
                    v->KsoInterlockedIncrement(nullptr, &shared);
                } else {
                    v->KsoInterlockedDecrement(nullptr, &shared);
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(shared, static_cast<UINT32>(kThreads / 2 * kRounds));
}

}  // namespace
