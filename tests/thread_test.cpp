// Client threads: exit status by KsoExitThread and by return, several
// waiters on one end, refusals while running, self-destroying threads, the
// thread limit (also under concurrent creation), bad arguments, and
// cancellation in and around the waits.
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "sync_int.h"
#include "thread_int.h"

namespace {

using std::chrono::steady_clock;

constexpr INT64 kLongWait = 30 * 1000 * 1000;

template <typename Pred>
bool Eventually(Pred pred) {
    auto until = steady_clock::now() + std::chrono::seconds(30);
    while (!pred()) {
        if (steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

INT32 Running() { return KsAtomicLoad(&g_KsplCurrentThreads); }

// What a routine does once `go` is set.
enum class Ending { kReturn, kExit, kExitAndDestroy, kPthreadExit };

struct Script {
    IKspl* k = nullptr;
    HANDLE go = nullptr;  // notification event; null = do not wait
    Ending ending = Ending::kReturn;
    KSSTATUS exitStatus = 0;
    std::atomic<int> started{0};
    std::atomic<int> pastExit{0};  // a thread that went on after ending itself
};

void Routine(HANDLE self, PVOID context) {
    auto* s = static_cast<Script*>(context);
    const IKsplVtbl* v = s->k->lpVtbl;
    ++s->started;
    if (s->go != nullptr) v->KsoWaitForSingleEvent(s->k, s->go, -1);
    switch (s->ending) {
        case Ending::kReturn:
            return;
        case Ending::kExit:
            v->KsoExitThread(s->k, self, s->exitStatus, FALSE);
            break;
        case Ending::kExitAndDestroy:
            v->KsoExitThread(s->k, self, s->exitStatus, TRUE);
            break;
        case Ending::kPthreadExit:
            pthread_exit(nullptr);
    }
    ++s->pastExit;
}

class Threads : public KsplTest {
protected:
    HANDLE NewGo() {
        HANDLE h = nullptr;
        EXPECT_EQ(v->KsoAllocEvent(k, KsoNotificationEvent, &h), 0u);
        return h;
    }
    void EndAndDestroy(HANDLE t) {
        EXPECT_EQ(v->KsoWaitForThreadExit(k, t, kLongWait), 0u);
        EXPECT_EQ(v->KsoDestroyThread(k, t), 0u);
    }
};

TEST_F(Threads, ExitStatusReachesEveryWaiter) {
    const INT32 before = Running();
    Script s;
    s.k = k;
    s.go = NewGo();
    s.ending = Ending::kExit;
    s.exitStatus = 0x2A2B2C2Du;
    HANDLE t = nullptr;
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &t), 0u);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(Running(), before + 1);

    // While it runs: destroy and status refused, a zero wait times out
    // (logged), and nothing changes.
    StatusCapture statuses;
    EXPECT_EQ(v->KsoDestroyThread(k, t), KsplErr(0x1003));
    EXPECT_EQ(v->KsoGetThreadExitStatus(k, t), KsplErr(0x1003));
    EXPECT_EQ(v->KsoWaitForThreadExit(k, t, 0), KsplErr(10));
    EXPECT_EQ(v->KsoWaitForThreadExit(k, t, 50000), KsplErr(10));
    EXPECT_EQ(v->KsoWaitForThreadExit(k, t, -3), KsplErr(4));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1003), "KsoDestroyThread"));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1003), "KsoGetThreadExitStatus"));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(10), "KsoWaitForThreadExit"));
    for (const auto& b : statuses.Built()) EXPECT_EQ(b.file, "thread");

    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] { EXPECT_EQ(v->KsoWaitForThreadExit(k, t, kLongWait), 0u); });
    }
    v->KsoSignalEvent(k, s.go, nullptr);
    for (auto& w : waiters) w.join();
    // Whoever sees the end also sees the thread gone from the count.
    EXPECT_EQ(Running(), before);
    EXPECT_EQ(v->KsoGetThreadExitStatus(k, t), 0x2A2B2C2Du);
    EXPECT_EQ(v->KsoWaitForThreadExit(k, t, 0), 0u) << "an ended thread needs no waiting";
    EXPECT_EQ(v->KsoDestroyThread(k, t), 0u);
    EXPECT_EQ(s.pastExit.load(), 0) << "KsoExitThread does not return";
    EXPECT_EQ(v->KsoDestroyEvent(k, s.go), 0u);
}

TEST_F(Threads, ReturnAndBarePthreadExitEndWithStatusZero) {
    for (Ending ending : {Ending::kReturn, Ending::kPthreadExit}) {
        Script s;
        s.k = k;
        s.ending = ending;
        HANDLE t = nullptr;
        ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_IDLE, Routine, &s, &t), 0u);
        EXPECT_EQ(v->KsoWaitForThreadExit(k, t, -1), 0u);
        EXPECT_EQ(v->KsoGetThreadExitStatus(k, t), 0u);
        EXPECT_EQ(v->KsoDestroyThread(k, t), 0u);
        EXPECT_EQ(s.pastExit.load(), 0);
    }
}

TEST_F(Threads, SelfDestroyingThreadLeavesNoRecord) {
    const INT32 before = Running();
    const UINT32 memoryBefore = KsplInfo(k)->MemoryPagedInUse;
    Script s;
    s.k = k;
    s.ending = Ending::kExitAndDestroy;
    s.exitStatus = 5;
    // No handle wanted: the routine still gets its own.
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, nullptr), 0u);
    ASSERT_TRUE(Eventually([&] {
        return Running() == before && KsAtomicLoad(&KsplInfo(k)->MemoryPagedInUse) == memoryBefore;
    }));
    // The counter drops inside the release, under the instance's pool lock;
    // pass through that lock so the thread is out of it before teardown
    // destroys the instance.
    { KsMutexGuard passThrough(&KsplInfo(k)->ProtectionMutex); }
    EXPECT_EQ(s.started.load(), 1);
    EXPECT_EQ(s.pastExit.load(), 0);
}

TEST_F(Threads, LimitRefusesTheCreationThatWouldReachIt) {
    const INT32 before = Running();
    const ULONG savedMax = g_KsplMaxThreads;
    const UINT32 memoryBefore = KsplInfo(k)->MemoryPagedInUse;
    g_KsplMaxThreads = static_cast<ULONG>(before) + 3;  // room for two more
    Script s;
    s.k = k;
    s.go = NewGo();
    HANDLE t[3] = {};
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &t[0]), 0u);
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &t[1]), 0u);
    EXPECT_EQ(Running(), before + 2);
    StatusCapture statuses;
    t[2] = reinterpret_cast<HANDLE>(0x1);
    EXPECT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &t[2]), KsplErr(5));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(5), "KsoCreateThread"));
    EXPECT_EQ(t[2], nullptr);
    EXPECT_EQ(Running(), before + 2) << "a refused creation leaves the count";
    v->KsoSignalEvent(k, s.go, nullptr);
    EndAndDestroy(t[0]);
    EndAndDestroy(t[1]);
    g_KsplMaxThreads = savedMax;
    EXPECT_EQ(KsplInfo(k)->MemoryPagedInUse, memoryBefore);
    EXPECT_EQ(v->KsoDestroyEvent(k, s.go), 0u);
}

TEST_F(Threads, ConcurrentCreatorsNeverOvershootTheLimit) {
    const INT32 before = Running();
    const ULONG savedMax = g_KsplMaxThreads;
    constexpr int kRoom = 5;  // threads that fit below the limit
    g_KsplMaxThreads = static_cast<ULONG>(before + kRoom + 1);
    Script s;
    s.k = k;
    s.go = NewGo();
    std::mutex made;
    std::vector<HANDLE> handles;
    std::atomic<int> refused{0};
    std::vector<std::thread> creators;
    for (int c = 0; c < 4; ++c) {
        creators.emplace_back([&] {
            for (int i = 0; i < 4; ++i) {
                HANDLE h = nullptr;
                KSSTATUS st = v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &h);
                if (st == 0) {
                    std::lock_guard<std::mutex> guard(made);
                    handles.push_back(h);
                } else {
                    EXPECT_EQ(st, KsplErr(5));
                    ++refused;
                }
                EXPECT_LE(Running(), before + kRoom);
            }
        });
    }
    for (auto& c : creators) c.join();
    EXPECT_EQ(handles.size(), static_cast<size_t>(kRoom));
    EXPECT_EQ(refused.load(), 16 - kRoom);
    v->KsoSignalEvent(k, s.go, nullptr);
    for (HANDLE h : handles) EndAndDestroy(h);
    g_KsplMaxThreads = savedMax;
    EXPECT_EQ(v->KsoDestroyEvent(k, s.go), 0u);
}

TEST_F(Threads, CreationArgumentsAndPriorities) {
    const INT32 before = Running();
    const KsplCounters counters = KsplReadCounters(k);
    Script s;
    s.k = k;
    s.go = NewGo();
    StatusCapture statuses;
    KsplObjInfo foreign{};
    HANDLE h = reinterpret_cast<HANDLE>(0x1);
    EXPECT_EQ(v->KsoCreateThread(nullptr, KSO_PRIORITY_NORMAL, Routine, &s, &h), KsplErr(4));
    EXPECT_EQ(v->KsoCreateThread(reinterpret_cast<IKspl*>(&foreign), 1, Routine, &s, &h),
              KsplErr(4));
    EXPECT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, nullptr, &s, &h), KsplErr(4));
    EXPECT_EQ(h, reinterpret_cast<HANDLE>(0x1)) << "argument faults leave *pHandle";
    EXPECT_EQ(v->KsoCreateThread(k, 3, Routine, &s, &h), KsplErr(4));
    EXPECT_EQ(h, nullptr);
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoCreateThread"));
    EXPECT_EQ(Running(), before);
    EXPECT_EQ(s.started.load(), 0);
    // The go event is the only new thing on the instance.
    KsplCounters now = KsplReadCounters(k);
    now[0] -= 1;
    EXPECT_EQ(now, counters);

    // Real-time is granted or falls back to default scheduling; the thread
    // runs either way.
    HANDLE rt = nullptr, normal = nullptr;
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_REALTIME, Routine, &s, &rt), 0u);
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &normal), 0u);
    EXPECT_EQ(v->KsoSetThreadPriority(k, normal, KSO_PRIORITY_REALTIME), 0u);
    EXPECT_EQ(v->KsoSetThreadPriority(k, rt, KSO_PRIORITY_IDLE), 0u);
    EXPECT_EQ(v->KsoSetThreadPriority(k, normal, KSO_PRIORITY_NORMAL), 0u);
    EXPECT_EQ(v->KsoSetThreadPriority(k, normal, 3), KsplErr(4));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoSetThreadPriority"));
    ASSERT_TRUE(Eventually([&] { return s.started == 2; }));
    v->KsoSignalEvent(k, s.go, nullptr);
    EndAndDestroy(rt);
    // A priority change on an ended thread touches nothing.
    EXPECT_EQ(v->KsoWaitForThreadExit(k, normal, kLongWait), 0u);
    EXPECT_EQ(v->KsoSetThreadPriority(k, normal, KSO_PRIORITY_REALTIME), 0u);
    EXPECT_EQ(v->KsoDestroyThread(k, normal), 0u);
    EXPECT_EQ(v->KsoDestroyEvent(k, s.go), 0u);
}

TEST_F(Threads, BadHandlesAreRefusedAndExitWithOneReturns) {
    HANDLE event = nullptr;
    ASSERT_EQ(v->KsoAllocEvent(k, KsoSynchronizationEvent, &event), 0u);
    KSO_THREAD_HANDLE cleared{};
    StatusCapture statuses;
    const KSSTATUS bad = KsplErr(3);
    for (HANDLE h : {HANDLE{nullptr}, event, HANDLE{&cleared}}) {
        EXPECT_EQ(v->KsoDestroyThread(k, h), bad);
        EXPECT_EQ(v->KsoGetThreadExitStatus(k, h), bad);
        EXPECT_EQ(v->KsoSetThreadPriority(k, h, KSO_PRIORITY_NORMAL), bad);
        EXPECT_EQ(v->KsoWaitForThreadExit(k, h, 0), bad);
        // Not a thread handle: the calling thread goes on.
        v->KsoExitThread(k, h, 1, TRUE);
    }
    EXPECT_TRUE(statuses.WasBuilt(bad, "KsoDestroyThread"));
    EXPECT_TRUE(statuses.WasBuilt(bad, "KsoWaitForThreadExit"));

    Script s;
    s.k = k;
    HANDLE t = nullptr;
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &t), 0u);
    ASSERT_EQ(v->KsoWaitForThreadExit(k, t, kLongWait), 0u);
    EXPECT_EQ(v->KsoDestroyThread(nullptr, t), bad);
    // Only the creating instance can give the record back.
    IKspl* other = KsplTestCreateInstance();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(v->KsoDestroyThread(other, t), bad);
    EXPECT_EQ(other->lpVtbl->Release(other), 0u);
    EXPECT_EQ(v->KsoDestroyThread(k, t), 0u);
    EXPECT_EQ(KsoSystemRelThreadHandleObj(t), 0u);
    EXPECT_EQ(v->KsoDestroyEvent(k, event), 0u);
}

struct ExitWatcher {
    IKspl* k;
    HANDLE target;
    HANDLE ready;
};

void WatchExit(HANDLE /*self*/, PVOID context) {
    auto* w = static_cast<ExitWatcher*>(context);
    w->k->lpVtbl->KsoSignalEvent(w->k, w->ready, nullptr);
    w->k->lpVtbl->KsoWaitForThreadExit(w->k, w->target, -1);
}

TEST_F(Threads, CancelledExitWaiterReleasesTheRecord) {
    Script s;
    s.k = k;
    s.go = NewGo();
    s.ending = Ending::kExit;
    s.exitStatus = 9;
    HANDLE target = nullptr, watcher = nullptr;
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &target), 0u);
    ExitWatcher w{k, target, NewGo()};
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, WatchExit, &w, &watcher), 0u);
    ASSERT_EQ(v->KsoWaitForSingleEvent(k, w.ready, kLongWait), 0u);
    // Cancelled in (or on its way into) the wait: the cancellation point is
    // the sleep on the target's condition.
    ASSERT_EQ(pthread_cancel(static_cast<KSO_THREAD_HANDLE*>(watcher)->id), 0);
    EXPECT_EQ(v->KsoWaitForThreadExit(k, watcher, kLongWait), 0u);
    EXPECT_EQ(v->KsoGetThreadExitStatus(k, watcher), 0u);
    EXPECT_EQ(v->KsoDestroyThread(k, watcher), 0u);

    // The target can still record its end: its mutex was released.
    v->KsoSignalEvent(k, s.go, nullptr);
    EXPECT_EQ(v->KsoWaitForThreadExit(k, target, kLongWait), 0u);
    EXPECT_EQ(v->KsoGetThreadExitStatus(k, target), 9u);
    EXPECT_EQ(v->KsoDestroyThread(k, target), 0u);
    EXPECT_EQ(v->KsoDestroyEvent(k, s.go), 0u);
    EXPECT_EQ(v->KsoDestroyEvent(k, w.ready), 0u);
}

}  // namespace
