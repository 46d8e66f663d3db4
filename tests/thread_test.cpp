// Client threads: how each way of ending reaches the waiters, refusals while
// running, the thread limit under concurrent creation, bad inputs, and an
// exit waiter cancelled in its wait.
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "sched_test_util.h"
#include "sync_int.h"
#include "thread_int.h"

namespace {

constexpr INT64 kLongWait = 30 * 1000 * 1000;  // only a lost wake-up reaches it
constexpr KSSTATUS kExitStatus = 0x2A2B2C2Du;

INT32 Running() { return KsAtomicLoad(&g_KsplCurrentThreads); }

enum class Ending { kReturn, kExit, kExitAndDestroy };

// Every routine waits for the test's `go` event, then ends as told.
struct Script {
    IKspl* k = nullptr;
    HANDLE go = nullptr;
    Ending ending = Ending::kReturn;
    std::atomic<int> started{0};
    std::atomic<int> pastExit{0};  // a thread that went on after ending itself
};

void Routine(HANDLE self, PVOID context) {
    auto* s = static_cast<Script*>(context);
    ++s->started;
    s->k->lpVtbl->KsoWaitForSingleEvent(s->k, s->go, -1);
    if (s->ending == Ending::kReturn) return;
    s->k->lpVtbl->KsoExitThread(s->k, self, kExitStatus, s->ending == Ending::kExitAndDestroy);
    ++s->pastExit;
}

class Threads : public KsplTest {
protected:
    void SetUp() override {
        KsplTest::SetUp();
        s.k = k;
        ASSERT_EQ(v->KsoAllocEvent(k, KsoNotificationEvent, &s.go), 0u);
    }
    void TearDown() override {
        EXPECT_EQ(s.pastExit.load(), 0) << "KsoExitThread returned";
        EXPECT_EQ(v->KsoDestroyEvent(k, s.go), 0u);
        KsplTest::TearDown();
    }
    Script s;
};

TEST_F(Threads, EveryEndingReachesTheWaitersAndTheCount) {
    const INT32 before = Running();
    const UINT32 memory = KsplInfo(k)->MemoryPagedInUse;
    for (Ending ending : {Ending::kReturn, Ending::kExit, Ending::kExitAndDestroy}) {
        SCOPED_TRACE(static_cast<int>(ending));
        s.ending = ending;
        v->KsoResetEvent(k, s.go, nullptr);
        if (ending == Ending::kExitAndDestroy) {
            // No handle wanted: the routine still gets its own, and its
            // record goes with it.
            ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_IDLE, Routine, &s, nullptr), 0u);
            v->KsoSignalEvent(k, s.go, nullptr);
            EXPECT_TRUE(WaitFor([&] {
                return Running() == before && KsAtomicLoad(&KsplInfo(k)->MemoryPagedInUse) == memory;
            }));
            // The count drops inside the release, under the instance's pool
            // lock: let the thread out of it before teardown.
            KsMutexGuard passThrough(&KsplInfo(k)->ProtectionMutex);
            continue;
        }
        HANDLE t = nullptr;
        ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &t), 0u);
        EXPECT_EQ(Running(), before + 1);
        StatusCapture statuses;
        EXPECT_EQ(v->KsoDestroyThread(k, t), KsplErr(0x1003));
        EXPECT_EQ(v->KsoGetThreadExitStatus(k, t), KsplErr(0x1003));
        EXPECT_EQ(v->KsoWaitForThreadExit(k, t, 0), KsplErr(10));
        EXPECT_EQ(v->KsoWaitForThreadExit(k, t, 50000), KsplErr(10));
        EXPECT_TRUE(statuses.WasBuilt(KsplErr(10), "KsoWaitForThreadExit"));
        std::vector<std::thread> waiters;
        for (int i = 0; i < 3; ++i) {
            waiters.emplace_back([&] { EXPECT_EQ(v->KsoWaitForThreadExit(k, t, kLongWait), 0u); });
        }
        v->KsoSignalEvent(k, s.go, nullptr);
        for (auto& w : waiters) w.join();
        EXPECT_EQ(Running(), before) << "whoever sees the end sees the count down";
        EXPECT_EQ(v->KsoGetThreadExitStatus(k, t), ending == Ending::kExit ? kExitStatus : 0u);
        EXPECT_EQ(v->KsoWaitForThreadExit(k, t, 0), 0u);
        EXPECT_EQ(v->KsoDestroyThread(k, t), 0u);
    }
}

TEST_F(Threads, ConcurrentCreatorsStopBelowTheLimit) {
    const INT32 before = Running();
    const ULONG savedMax = g_KsplMaxThreads;
    constexpr int kRoom = 5;  // the limit itself is never reached
    g_KsplMaxThreads = static_cast<ULONG>(before + kRoom + 1);
    std::mutex made;
    std::vector<HANDLE> handles;
    std::vector<std::thread> creators;
    for (int c = 0; c < 4; ++c) {
        creators.emplace_back([&, c] {
            for (int i = 0; i < 4; ++i) {
                HANDLE h = reinterpret_cast<HANDLE>(0x1);
                auto priority = static_cast<KSO_PRIORITY>(c % 3);
                KSSTATUS st = v->KsoCreateThread(k, priority, Routine, &s, &h);
                EXPECT_LE(Running(), before + kRoom);
                if (st != 0) {
                    EXPECT_EQ(st, KsplErr(5));
                    EXPECT_EQ(h, nullptr);
                    continue;
                }
                std::lock_guard<std::mutex> guard(made);
                handles.push_back(h);
            }
        });
    }
    for (auto& c : creators) c.join();
    EXPECT_EQ(handles.size(), static_cast<size_t>(kRoom));
    EXPECT_EQ(Running(), before + kRoom);
    g_KsplMaxThreads = savedMax;
    v->KsoSignalEvent(k, s.go, nullptr);
    for (HANDLE h : handles) {
        EXPECT_EQ(v->KsoWaitForThreadExit(k, h, kLongWait), 0u);
        EXPECT_EQ(v->KsoDestroyThread(k, h), 0u);
    }
}

TEST_F(Threads, BadInputsGetTheirStatus) {
    KSO_THREAD_HANDLE cleared{};
    KsplObjInfo foreign{};
    StatusCapture statuses;
    HANDLE h = reinterpret_cast<HANDLE>(0x1);
    EXPECT_EQ(v->KsoCreateThread(nullptr, KSO_PRIORITY_NORMAL, Routine, &s, &h), KsplErr(4));
    EXPECT_EQ(v->KsoCreateThread(reinterpret_cast<IKspl*>(&foreign), 1, Routine, &s, &h),
              KsplErr(4));
    EXPECT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, nullptr, &s, &h), KsplErr(4));
    EXPECT_EQ(v->KsoCreateThread(k, 3, Routine, &s, &h), KsplErr(4));
    EXPECT_EQ(s.started.load(), 0);
    for (HANDLE bad : {HANDLE{nullptr}, s.go, HANDLE{&cleared}}) {
        EXPECT_EQ(v->KsoDestroyThread(k, bad), KsplErr(3));
        EXPECT_EQ(v->KsoGetThreadExitStatus(k, bad), KsplErr(3));
        EXPECT_EQ(v->KsoSetThreadPriority(k, bad, KSO_PRIORITY_NORMAL), KsplErr(3));
        EXPECT_EQ(v->KsoWaitForThreadExit(k, bad, 0), KsplErr(3));
        v->KsoExitThread(k, bad, 1, TRUE);  // not a thread: the caller goes on
    }
    HANDLE t = nullptr;
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &t), 0u);
    EXPECT_EQ(v->KsoSetThreadPriority(k, t, 3), KsplErr(4));
    EXPECT_EQ(v->KsoSetThreadPriority(k, t, KSO_PRIORITY_REALTIME), 0u);
    v->KsoSignalEvent(k, s.go, nullptr);
    EXPECT_EQ(v->KsoWaitForThreadExit(k, t, kLongWait), 0u);
    EXPECT_EQ(v->KsoDestroyThread(nullptr, t), KsplErr(3));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoCreateThread"));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(3), "KsoWaitForThreadExit"));
    for (const auto& b : statuses.Built()) EXPECT_EQ(b.file, "thread");
    EXPECT_EQ(v->KsoDestroyThread(k, t), 0u);
}

struct ExitWatcher {
    IKspl* k;
    HANDLE target;
    HANDLE ready;
};

void WatchExit(HANDLE, PVOID context) {
    auto* w = static_cast<ExitWatcher*>(context);
    w->k->lpVtbl->KsoSignalEvent(w->k, w->ready, nullptr);
    w->k->lpVtbl->KsoWaitForThreadExit(w->k, w->target, -1);
}

// A waiter cancelled in its wait must not keep the target's mutex: the
// target could then never record its end.
TEST_F(Threads, CancelledExitWaiterReleasesTheRecord) {
    s.ending = Ending::kExit;
    HANDLE target = nullptr, watcher = nullptr;
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &target), 0u);
    ExitWatcher w{k, target, nullptr};
    ASSERT_EQ(v->KsoAllocEvent(k, KsoNotificationEvent, &w.ready), 0u);
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, WatchExit, &w, &watcher), 0u);
    ASSERT_EQ(v->KsoWaitForSingleEvent(k, w.ready, kLongWait), 0u);
    ASSERT_EQ(pthread_cancel(static_cast<KSO_THREAD_HANDLE*>(watcher)->id), 0);
    EXPECT_EQ(v->KsoWaitForThreadExit(k, watcher, kLongWait), 0u);
    EXPECT_EQ(v->KsoDestroyThread(k, watcher), 0u);
    v->KsoSignalEvent(k, s.go, nullptr);
    EXPECT_EQ(v->KsoWaitForThreadExit(k, target, kLongWait), 0u);
    EXPECT_EQ(v->KsoGetThreadExitStatus(k, target), kExitStatus);
    EXPECT_EQ(v->KsoDestroyThread(k, target), 0u);
    EXPECT_EQ(v->KsoDestroyEvent(k, w.ready), 0u);
}

}  // namespace
