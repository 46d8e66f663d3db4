// Timers: validation, tick rounding, the delta-list queue against a model,
// firing order, cancel and destroy rules, periodic and self-destroying
// routines, races between cancel and firing, shutdown and use after fork.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "sched_test_util.h"
#include "schedule_int.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Counter {
    std::atomic<int> runs{0};
};
void CountRoutine(HANDLE, PVOID ctx) { static_cast<Counter*>(ctx)->runs.fetch_add(1); }

KSO_TIMER_HANDLE* Rec(HANDLE h) { return static_cast<KSO_TIMER_HANDLE*>(h); }

class TimerTest : public KsplTest {};

TEST_F(TimerTest, RejectsBadArgumentsWithTheirStatus) {
    StatusCapture statuses;
    KsplObjInfo foreign{};
    IKspl* bad = reinterpret_cast<IKspl*>(&foreign);
    Counter c;
    HANDLE h = reinterpret_cast<HANDLE>(0x1);
    EXPECT_EQ(v->KsoAllocTimer(nullptr, CountRoutine, &c, FALSE, &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocTimer(bad, CountRoutine, &c, FALSE, &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocTimer(k, nullptr, &c, TRUE, &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocTimer(k, CountRoutine, &c, TRUE, nullptr), KsplErr(4));
    EXPECT_EQ(h, reinterpret_cast<HANDLE>(0x1));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoAllocTimer"));

    HANDLE t = nullptr;
    ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &c, TRUE, &t), 0u);
    EXPECT_EQ(KsplInfo(k)->TimerInUse, 1u);
    EXPECT_EQ(Rec(t)->timerState, 0u);
    KsoHandleHeader workItem{};
    workItem.Signature = kSigWorkItem;

    statuses.Clear();
    EXPECT_EQ(v->KsoScheduleTimer(nullptr, t, 1000), KsplErr(3));
    EXPECT_EQ(v->KsoScheduleTimer(k, nullptr, 1000), KsplErr(3));
    EXPECT_EQ(v->KsoScheduleTimer(k, &workItem, 1000), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyTimer(nullptr, t), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyTimer(bad, t), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyTimer(k, nullptr), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyTimer(k, &workItem), KsplErr(3));
    ASSERT_EQ(statuses.Built().size(), 7u);
    for (const BuiltStatus& b : statuses.Built()) EXPECT_EQ(b.file, "schedule");
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(3), "KsoScheduleTimer"));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(3), "KsoDestroyTimer"));

    statuses.Clear();
    EXPECT_FALSE(v->KsoCancelTimer(nullptr, t));
    EXPECT_FALSE(v->KsoCancelTimer(bad, t));
    EXPECT_FALSE(v->KsoCancelTimer(k, nullptr));
    EXPECT_FALSE(v->KsoCancelTimer(k, &workItem));
    EXPECT_FALSE(v->KsoCancelTimer(k, t)) << "a timer never scheduled is not cancelled";
    EXPECT_TRUE(statuses.Built().empty()) << "cancel reports nothing";

    EXPECT_EQ(Rec(t)->timerState, 0u);
    EXPECT_EQ(KsplInfo(k)->TimerInUse, 1u);
    // Destroyed through another instance, the record still goes back to
    // (and is counted off) the instance that allocated it.
    IKspl* other = KsplTestCreateInstance();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(v->KsoDestroyTimer(other, t), 0u);
    EXPECT_EQ(KsplInfo(k)->TimerInUse, 0u);
    EXPECT_EQ(KsplInfo(k)->MemoryPagedInUse, 0u);
    EXPECT_EQ(KsplInfo(other)->TimerInUse, 0u);
    EXPECT_EQ(other->lpVtbl->Release(other), 0u);
    EXPECT_EQ(c.runs.load(), 0);
}

TEST_F(TimerTest, DelayIsRoundedDownToTicksWithAtLeastOneAndClamped) {
    struct Case {
        UINT64 timeout;
        UINT32 ticks;
    };
    const Case cases[] = {
        {0, 1},
        {9999, 1},
        {10000, 1},
        {19999, 1},
        {20000, 2},
        {25000, 2},
        {10000ull * 0xFFFFFFFFull + 9999, 0xFFFFFFFFu},
        {10000ull << 32, 0xFFFFFFFFu},  // 2^32 ticks: clamped, not wrapped to 0
        {(10000ull << 32) + 10000ull * 7, 0xFFFFFFFFu},
        {~0ull, 0xFFFFFFFFu},
    };
    for (const Case& tc : cases) {
        Counter c;
        HANDLE t = nullptr;
        ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &c, FALSE, &t), 0u);
        ASSERT_EQ(v->KsoScheduleTimer(k, t, tc.timeout), 0u);
        // Only scheduling writes timeOutValue.
        EXPECT_EQ(Rec(t)->timeOutValue, tc.ticks) << tc.timeout;
        if (!v->KsoCancelTimer(k, t)) {
            EXPECT_LE(tc.ticks, 2u) << "only a short timer can have fired already";
            EXPECT_TRUE(WaitFor([&] { return c.runs.load() == 1; }));
        }
        EXPECT_EQ(v->KsoDestroyTimer(k, t), 0u);
    }
}

// ---------------------------------------------------------------------------
// The queue operations, driven directly with the mutex held. The timer
// thread blocks on the mutex meanwhile and finds the queues empty again.

class QueueModel {
public:
    struct Entry {
        KSO_TIMER_HANDLE* t;
        UINT64 due;
    };
    // Insertion of one timer: after every timer due no later.
    void Insert(KSO_TIMER_HANDLE* t) {
        auto it = std::find_if(q_.begin(), q_.end(), [&](const Entry& e) { return e.due > t->timeOutValue; });
        q_.insert(it, {t, t->timeOutValue});
    }
    void Remove(KSO_TIMER_HANDLE* t) {
        q_.erase(std::find_if(q_.begin(), q_.end(), [&](const Entry& e) { return e.t == t; }));
    }
    const std::vector<Entry>& entries() const { return q_; }

private:
    std::vector<Entry> q_;
};

// Checks the main queue's links and due times against the model.
void ExpectQueueMatches(const QueueModel& model) {
    const auto& want = model.entries();
    KSO_TIMER_HANDLE* prev = nullptr;
    UINT64 due = 0;
    size_t i = 0;
    for (KSO_TIMER_HANDLE* t = g_KsplTimerQueHeadPtr; t != nullptr; t = t->pNextTimerStruct, ++i) {
        ASSERT_LT(i, want.size()) << "queue longer than the model";
        EXPECT_EQ(t->pPrevTimerStruct, prev) << "back link at " << i;
        due += t->delta;
        EXPECT_EQ(t, want[i].t) << "order at " << i;
        EXPECT_EQ(due, want[i].due) << "due time at " << i;
        prev = t;
    }
    EXPECT_EQ(i, want.size()) << "queue shorter than the model";
}

// What scheduling does, minus the lock it takes and the list it picks.
void PrepareLocked(KSO_TIMER_HANDLE* t, UINT32 ticks) {
    t->Header.Signature = kSigTimer;
    __atomic_store_n(&t->timerState, kTimerStatePending, __ATOMIC_SEQ_CST);
    t->timeOutValue = ticks;
    __atomic_add_fetch(&g_KsplCurrentTimers, 1u, __ATOMIC_SEQ_CST);
}
void FeedLocked(KSO_TIMER_HANDLE* t, UINT32 ticks) {
    PrepareLocked(t, ticks);
    KsplAddToTimerFeederQue(t);
}

TEST_F(TimerTest, DeltaListKeepsDueTimesThroughMergesAndRemovals) {
    KsMutexGuard guard(&g_KsplTimerQueueMutex);
    ASSERT_EQ(g_KsplTimerQueHeadPtr, nullptr);
    ASSERT_EQ(g_KsplTimerFeededQueHeadPtr, nullptr);
    ASSERT_EQ(g_KsplCurrentTimers, 0u);

    // A hand-checked case first: equal delays in one merge, newest first;
    // the same due time merged later goes behind.
    KSO_TIMER_HANDLE a{}, b{}, c{}, d{}, e{};
    FeedLocked(&a, 5);
    FeedLocked(&b, 5);
    FeedLocked(&c, 3);
    EXPECT_EQ(g_KsplTimerFeededQueHeadPtr, &c);
    KsplMergeTimerFeederQue();
    EXPECT_EQ(g_KsplTimerFeededQueHeadPtr, nullptr);
    FeedLocked(&d, 5);
    FeedLocked(&e, 4);
    KsplMergeTimerFeederQue();
    KSO_TIMER_HANDLE* expectOrder[] = {&c, &e, &b, &a, &d};
    UINT32 expectDelta[] = {3, 1, 1, 0, 0};
    KSO_TIMER_HANDLE* t = g_KsplTimerQueHeadPtr;
    for (int i = 0; i < 5; ++i, t = t->pNextTimerStruct) {
        ASSERT_EQ(t, expectOrder[i]) << i;
        EXPECT_EQ(t->delta, expectDelta[i]) << i;
    }
    EXPECT_EQ(t, nullptr);
    // Removing from the middle hands the delta on: d and a stay due at 5.
    KsplRemoveFromTimerQue(&e);
    EXPECT_EQ(e.pNextTimerStruct, nullptr);
    EXPECT_EQ(e.pPrevTimerStruct, nullptr);
    EXPECT_EQ(b.delta, 2u);
    KsplRemoveFromTimerQue(&c);  // the head
    EXPECT_EQ(g_KsplTimerQueHeadPtr, &b);
    EXPECT_EQ(b.delta, 5u);
    KsplRemoveFromTimerQue(&d);  // the tail; a later append must see a as last
    KSO_TIMER_HANDLE f{};
    PrepareLocked(&f, 9);
    KsplAddToTimerQue(&f);
    EXPECT_EQ(a.pNextTimerStruct, &f);
    EXPECT_EQ(f.delta, 4u);
    for (KSO_TIMER_HANDLE* x : {&b, &a, &f}) KsplRemoveFromTimerQue(x);
    EXPECT_EQ(g_KsplTimerQueHeadPtr, nullptr);
    EXPECT_EQ(g_KsplCurrentTimers, 0u);

    // Then random merges, single insertions and removals (from both lists)
    // against the model.
    std::mt19937 rng(12345);
    std::vector<KSO_TIMER_HANDLE> pool(600);
    std::vector<KSO_TIMER_HANDLE*> idle, feeder;
    for (auto& x : pool) idle.push_back(&x);
    QueueModel model;
    for (int round = 0; round < 60; ++round) {
        std::shuffle(idle.begin(), idle.end(), rng);
        int batch = static_cast<int>(rng() % 20);
        for (int i = 0; i < batch && !idle.empty(); ++i) {
            KSO_TIMER_HANDLE* x = idle.back();
            idle.pop_back();
            // Small delays make many equal due times; a few far ones append.
            UINT32 ticks = rng() % 8 == 0 ? 1000 + rng() % 5 : 1 + rng() % 30;
            FeedLocked(x, ticks);
            feeder.push_back(x);
        }
        // Cancel a few from the feeder list before the merge.
        for (int i = 0; i < 2 && !feeder.empty(); ++i) {
            size_t j = rng() % feeder.size();
            KsplRemoveFromTimerQue(feeder[j]);
            idle.push_back(feeder[j]);
            feeder.erase(feeder.begin() + static_cast<long>(j));
        }
        // Newest first, as the merge takes them.
        for (auto it = feeder.rbegin(); it != feeder.rend(); ++it) model.Insert(*it);
        feeder.clear();
        KsplMergeTimerFeederQue();
        ASSERT_EQ(g_KsplTimerFeededQueHeadPtr, nullptr);
        ExpectQueueMatches(model);
        if (HasFailure()) break;

        if (!idle.empty() && round % 3 == 0) {
            KSO_TIMER_HANDLE* x = idle.back();
            idle.pop_back();
            PrepareLocked(x, 1 + rng() % 1005);
            KsplAddToTimerQue(x);
            model.Insert(x);
        }
        // Remove a few from anywhere in the main queue.
        for (int i = 0; i < 4 && !model.entries().empty(); ++i) {
            KSO_TIMER_HANDLE* x = model.entries()[rng() % model.entries().size()].t;
            KsplRemoveFromTimerQue(x);
            model.Remove(x);
            idle.push_back(x);
        }
        ExpectQueueMatches(model);
        EXPECT_EQ(g_KsplCurrentTimers, model.entries().size());
        if (HasFailure()) break;
    }
    while (g_KsplTimerQueHeadPtr != nullptr) KsplRemoveFromTimerQue(g_KsplTimerQueHeadPtr);
    while (g_KsplTimerFeededQueHeadPtr != nullptr) KsplRemoveFromTimerQue(g_KsplTimerFeededQueHeadPtr);
    EXPECT_EQ(g_KsplCurrentTimers, 0u);
}

// ---------------------------------------------------------------------------
// With the timer thread.

struct OrderLog {
    std::mutex m;
    std::vector<int> order;
};
struct OrderCtx {
    OrderLog* log;
    int id;
};
void RecordRoutine(HANDLE, PVOID p) {
    auto* c = static_cast<OrderCtx*>(p);
    std::lock_guard<std::mutex> guard(c->log->m);
    c->log->order.push_back(c->id);
}

TEST_F(TimerTest, EqualDueTimesFireNewestOfAMergeFirstAndLaterMergesAfter) {
    OrderLog log;
    OrderCtx ctx[4] = {{&log, 1}, {&log, 2}, {&log, 3}, {&log, 4}};
    HANDLE h[4];
    for (int i = 0; i < 4; ++i) ASSERT_EQ(v->KsoAllocTimer(k, RecordRoutine, &ctx[i], FALSE, &h[i]), 0u);
    {
        // Three timers scheduled within one tick (the thread cannot merge
        // while the mutex is held).
        KsMutexGuard guard(&g_KsplTimerQueueMutex);
        for (int i = 0; i < 3; ++i) FeedLocked(Rec(h[i]), 20);
    }
    ASSERT_TRUE(WaitFor([] {
        KsMutexGuard guard(&g_KsplTimerQueueMutex);
        return g_KsplTimerFeededQueHeadPtr == nullptr;
    }));
    {
        // A fourth one merged later, due exactly when they are.
        KsMutexGuard guard(&g_KsplTimerQueueMutex);
        UINT32 due = 0;
        for (KSO_TIMER_HANDLE* t = g_KsplTimerQueHeadPtr; t != nullptr; t = t->pNextTimerStruct) due += t->delta;
        ASSERT_GT(due, 0u) << "the first three fired too early";
        PrepareLocked(Rec(h[3]), due);
        KsplAddToTimerQue(Rec(h[3]));
    }
    ASSERT_TRUE(WaitFor([&] {
        std::lock_guard<std::mutex> guard(log.m);
        return log.order.size() == 4;
    }));
    EXPECT_EQ(log.order, (std::vector<int>{3, 2, 1, 4}));
    for (HANDLE t : h) {
        EXPECT_EQ(Rec(t)->timerState, kTimerStateFired);
        EXPECT_EQ(v->KsoDestroyTimer(k, t), 0u);
    }
}

TEST_F(TimerTest, PendingTimerRefusesRescheduleAndDestroyAndCancelsOnce) {
    Counter c;
    HANDLE t = nullptr;
    ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &c, FALSE, &t), 0u);
    ASSERT_EQ(v->KsoScheduleTimer(k, t, 300000), 0u);
    EXPECT_EQ(Rec(t)->timerState, kTimerStatePending);
    {
        LogCapture log;
        StatusCapture statuses;
        EXPECT_EQ(v->KsoScheduleTimer(k, t, 20000), KsplErr(0x1003));
        EXPECT_EQ(Rec(t)->timeOutValue, 30u) << "a refused schedule keeps the due time";
        EXPECT_EQ(log.Count("KsoScheduleTimer: Timer pending"), 1u);
        EXPECT_EQ(v->KsoDestroyTimer(k, t), KsplErr(0x1003));
        EXPECT_EQ(log.Count("KsoDestroyTimer: Timer in use"), 1u);
        EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1003), "KsoScheduleTimer"));
        EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1003), "KsoDestroyTimer"));
        EXPECT_EQ(KsplInfo(k)->TimerInUse, 1u);
    }
    EXPECT_TRUE(v->KsoCancelTimer(k, t));
    EXPECT_EQ(Rec(t)->timerState, kTimerStateCancelled);
    EXPECT_FALSE(v->KsoCancelTimer(k, t));

    // A cancelled timer can be scheduled again, cancelled and destroyed.
    ASSERT_EQ(v->KsoScheduleTimer(k, t, 1000000), 0u);
    EXPECT_TRUE(v->KsoCancelTimer(k, t));
    // Neither schedule ever fires.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(c.runs.load(), 0);

    // A fired timer: cancel says FALSE, destroy succeeds.
    ASSERT_EQ(v->KsoScheduleTimer(k, t, 25000), 0u);
    ASSERT_TRUE(WaitFor([&] { return c.runs.load() == 1; }));
    EXPECT_EQ(Rec(t)->timerState, kTimerStateFired);
    EXPECT_FALSE(v->KsoCancelTimer(k, t));
    EXPECT_EQ(v->KsoDestroyTimer(k, t), 0u);
}

struct PeriodicCtx {
    IKspl* k;
    int runs = 0;
    int wanted = 0;
    int failures = 0;
    int cancelledWhileRunning = 0;
    Clock::time_point first, last;
    std::atomic<bool> done{false};
};

TEST_F(TimerTest, RoutineReschedulesItselfPeriodicallyThenDestroysItself) {
    PeriodicCtx ctx;
    ctx.k = k;
    ctx.wanted = 20;
    HANDLE t = nullptr;
    // Routines run one at a time on the timer thread: no lock needed for
    // the context until `done` hands it back.
    ASSERT_EQ(v->KsoAllocTimer(
                  k,
                  [](HANDLE h, PVOID p) {
                      auto* c = static_cast<PeriodicCtx*>(p);
                      const IKsplVtbl* vt = c->k->lpVtbl;
                      c->last = Clock::now();
                      if (c->runs++ == 0) c->first = c->last;
                      if (Rec(h)->timerState != kTimerStateFired) c->failures++;
                      if (c->runs < c->wanted) {
                          if (vt->KsoScheduleTimer(c->k, h, 10000) != 0) c->failures++;
                          // Its own timer is the one executing: not cancellable.
                          if (vt->KsoCancelTimer(c->k, h)) c->cancelledWhileRunning++;
                      } else {
                          if (vt->KsoDestroyTimer(c->k, h) != 0) c->failures++;
                          c->done.store(true);
                      }
                  },
                  &ctx, FALSE, &t),
              0u);
    ASSERT_EQ(v->KsoScheduleTimer(k, t, 10000), 0u);
    ASSERT_TRUE(WaitFor([&] { return ctx.done.load(); }));
    EXPECT_EQ(ctx.runs, 20);
    EXPECT_EQ(ctx.failures, 0);
    EXPECT_EQ(ctx.cancelledWhileRunning, 0);
    // Every run is in its own tick: 19 periods of 10 ms (loosely).
    EXPECT_GE(ctx.last - ctx.first, std::chrono::milliseconds(95));
    EXPECT_EQ(KsplInfo(k)->TimerInUse, 0u);
}

TEST_F(TimerTest, ThousandsOfTimersFireExactlyOnceEach) {
    constexpr int kTimers = 3000;
    std::vector<Counter> counters(kTimers);
    std::vector<HANDLE> timers(kTimers);
    std::mt19937 rng(7);
    for (int i = 0; i < kTimers; ++i) {
        ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &counters[i], FALSE, &timers[i]), 0u);
    }
    for (int i = 0; i < kTimers; ++i) {
        ASSERT_EQ(v->KsoScheduleTimer(k, timers[i], rng() % 300000), 0u);
    }
    ASSERT_TRUE(WaitFor([] { return __atomic_load_n(&g_KsplCurrentTimers, __ATOMIC_SEQ_CST) == 0; }, 60));
    for (int i = 0; i < kTimers; ++i) {
        EXPECT_TRUE(WaitFor([&] { return counters[i].runs.load() == 1; })) << i;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (int i = 0; i < kTimers; ++i) {
        EXPECT_EQ(counters[i].runs.load(), 1) << i;
        EXPECT_EQ(v->KsoDestroyTimer(k, timers[i]), 0u);
    }
    KsMutexGuard guard(&g_KsplTimerQueueMutex);
    EXPECT_EQ(g_KsplTimerQueHeadPtr, nullptr);
    EXPECT_EQ(g_KsplTimerFeededQueHeadPtr, nullptr);
}

// Two threads cancel and reschedule short timers while they fire: every
// accepted schedule ends either in one run or in one successful cancel.
TEST_F(TimerTest, CancelRacingWithFiringAccountsForEverySchedule) {
    constexpr int kThreads = 2;
    constexpr int kTimersPerThread = 40;
    constexpr int kOps = 3000;
    struct T {
        HANDLE h = nullptr;
        std::atomic<int> fired{0};
        int scheduled = 0;
        int cancelled = 0;
    };
    std::vector<std::vector<T>> all(kThreads);
    for (auto& list : all) {
        list = std::vector<T>(kTimersPerThread);
        for (T& x : list) {
            ASSERT_EQ(v->KsoAllocTimer(
                          k, [](HANDLE, PVOID p) { static_cast<T*>(p)->fired.fetch_add(1); }, &x,
                          FALSE, &x.h),
                      0u);
        }
    }
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < kThreads; ++n) {
        threads.emplace_back([&, n] {
            std::mt19937 rng(static_cast<unsigned>(n) + 1);
            for (int op = 0; op < kOps; ++op) {
                T& x = all[n][rng() % kTimersPerThread];
                if (v->KsoCancelTimer(k, x.h)) x.cancelled++;
                // Not pending now: cancelled, fired, or never scheduled.
                if (v->KsoScheduleTimer(k, x.h, rng() % 30000) != 0) {
                    refused.fetch_add(1);
                    return;
                }
                x.scheduled++;
                if (op % 64 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(refused.load(), 0);
    ASSERT_TRUE(WaitFor([] { return __atomic_load_n(&g_KsplCurrentTimers, __ATOMIC_SEQ_CST) == 0; }));
    for (auto& list : all) {
        for (T& x : list) {
            EXPECT_TRUE(WaitFor([&] { return x.fired.load() + x.cancelled == x.scheduled; }))
                << x.fired.load() << " + " << x.cancelled << " != " << x.scheduled;
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (auto& list : all) {
        for (T& x : list) {
            EXPECT_EQ(x.fired.load() + x.cancelled, x.scheduled);
            EXPECT_EQ(v->KsoDestroyTimer(k, x.h), 0u);
        }
    }
}

// ---------------------------------------------------------------------------
// Shutdown and fork, in forked children so that the test process keeps its
// timer thread.

IKspl* g_childInstance = nullptr;

TEST_F(TimerTest, StopRequestEndsTheTimerThreadOnceItsRoutineReturns) {
    KSPL_SKIP_UNLESS_CHILD_MAY_START_THREADS();
    g_childInstance = k;
    int rc = KsplRunInChild([] {
        alarm(120);
        IKspl* ck = g_childInstance;
        static Gate gate;
        static std::atomic<int> entered{0};
        HANDLE t = nullptr;
        ASSERT_EQ(ck->lpVtbl->KsoAllocTimer(
                      ck,
                      [](HANDLE, PVOID) {
                          entered.fetch_add(1);
                          gate.Wait();
                      },
                      nullptr, FALSE, &t),
                  0u);
        ASSERT_EQ(ck->lpVtbl->KsoScheduleTimer(ck, t, 0), 0u);
        ASSERT_TRUE(WaitFor([] { return entered.load() == 1; }));
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumTimerThreads), 1);
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 8);

        UnInitTimerInfrastructure();
        UnInitWorkItemInfrastructure();
        EXPECT_TRUE(WaitFor([] { return KsAtomicLoad(&g_KsplNumWorkItemThreads) == 0; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumTimerThreads), 1) << "its routine is still running";
        gate.Open();
        EXPECT_TRUE(WaitFor([] { return KsAtomicLoad(&g_KsplNumTimerThreads) == 0; }));
        EXPECT_EQ(ck->lpVtbl->KsoDestroyTimer(ck, t), 0u);
    });
    EXPECT_EQ(rc, 0);
}

// A timer pending at a fork fires only in the parent; in the child it is
// cancelled, free to be destroyed or scheduled again.
HANDLE g_pendingAtFork = nullptr;
Counter g_pendingRuns;

TEST_F(TimerTest, TimersPendingAtForkFireOnlyInTheParent) {
    KSPL_SKIP_UNLESS_CHILD_MAY_START_THREADS();
    g_childInstance = k;
    g_pendingRuns.runs = 0;
    ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &g_pendingRuns, FALSE, &g_pendingAtFork), 0u);
    ASSERT_EQ(v->KsoScheduleTimer(k, g_pendingAtFork, 300000), 0u);
    int rc = KsplRunInChild([] {
        alarm(60);
        IKspl* ck = g_childInstance;
        EXPECT_EQ(KsAtomicLoad(&g_KsplCurrentTimers), 0u);
        EXPECT_EQ(Rec(g_pendingAtFork)->timerState, kTimerStateCancelled);
        // The child's own timer starts its timer thread; the inherited one
        // stays quiet past its due time.
        static Counter own;
        HANDLE mine = nullptr;
        ASSERT_EQ(ck->lpVtbl->KsoAllocTimer(ck, CountRoutine, &own, FALSE, &mine), 0u);
        ASSERT_EQ(ck->lpVtbl->KsoScheduleTimer(ck, mine, 0), 0u);
        EXPECT_TRUE(WaitFor([] { return own.runs.load() == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        EXPECT_EQ(g_pendingRuns.runs.load(), 0);
        EXPECT_EQ(ck->lpVtbl->KsoCancelTimer(ck, g_pendingAtFork), FALSE);
        EXPECT_EQ(ck->lpVtbl->KsoDestroyTimer(ck, g_pendingAtFork), 0u);
        EXPECT_EQ(ck->lpVtbl->KsoDestroyTimer(ck, mine), 0u);
    });
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(WaitFor([] { return g_pendingRuns.runs.load() == 1; }));
    EXPECT_EQ(v->KsoDestroyTimer(k, g_pendingAtFork), 0u);
}

TEST_F(TimerTest, ForkedChildFiresTimersAndWorkItemsAndStops) {
    KSPL_SKIP_UNLESS_CHILD_MAY_START_THREADS();
    g_childInstance = k;
    int rc = KsplRunInChild([] {
        alarm(120);
        IKspl* ck = g_childInstance;
        static Counter timerRuns, itemRuns;
        HANDLE t = nullptr, w = nullptr;
        ASSERT_EQ(ck->lpVtbl->KsoAllocTimer(ck, CountRoutine, &timerRuns, FALSE, &t), 0u);
        ASSERT_EQ(ck->lpVtbl->KsoAllocWorkItem(ck, CountRoutine, &itemRuns, &w), 0u);
        ASSERT_EQ(ck->lpVtbl->KsoScheduleTimer(ck, t, 30000), 0u);
        ASSERT_EQ(ck->lpVtbl->KsoScheduleWorkItem(ck, w, 1), 0u);
        EXPECT_TRUE(WaitFor([] { return timerRuns.runs.load() == 1 && itemRuns.runs.load() == 1; }));
        EXPECT_EQ(ck->lpVtbl->KsoDestroyTimer(ck, t), 0u);
        EXPECT_EQ(ck->lpVtbl->KsoDestroyWorkItem(ck, w), 0u);
        DllStop();
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumTimerThreads), 0);
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 0);
    });
    EXPECT_EQ(rc, 0);

    // The parent's timer thread still fires.
    Counter c;
    HANDLE t = nullptr;
    ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &c, FALSE, &t), 0u);
    ASSERT_EQ(v->KsoScheduleTimer(k, t, 0), 0u);
    EXPECT_TRUE(WaitFor([&] { return c.runs.load() == 1; }));
    EXPECT_EQ(v->KsoDestroyTimer(k, t), 0u);
}

}  // namespace
