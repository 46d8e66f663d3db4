// Timers: bad inputs and the rules of one timer's life (tick rounding,
// pending timers refusing reschedule and destroy, cancel, re-arming from its
// own routine), the delta-list queue against a model, and cancels racing
// with firing. (Timers across fork and stop: with the work-item pool, in
// workitem_test.)
#include <algorithm>
#include <mutex>
#include <random>

#include "kspl_test.h"
#include "sched_test_util.h"
#include "schedule_int.h"

namespace {

KSO_TIMER_HANDLE* Rec(HANDLE h) { return static_cast<KSO_TIMER_HANDLE*>(h); }

// Counts its runs; while `reArm` is positive, schedules its own timer again.
struct Life {
    IKspl* k;
    std::atomic<int> runs{0};
    int reArm = 0;  // routines run one at a time, on the timer thread
};
void LifeRoutine(HANDLE h, PVOID p) {
    auto* life = static_cast<Life*>(p);
    if (life->reArm > 0) {
        --life->reArm;
        EXPECT_EQ(life->k->lpVtbl->KsoScheduleTimer(life->k, h, 10000), 0u);
        EXPECT_FALSE(life->k->lpVtbl->KsoCancelTimer(life->k, h)) << "its own timer is executing";
    }
    ++life->runs;
}

class Timers : public KsplTest {};

TEST_F(Timers, BadInputsAndTheLifeOfOneTimer) {
    KsplObjInfo foreign{};
    IKspl* bad = reinterpret_cast<IKspl*>(&foreign);
    KsoHandleHeader item{};
    item.Signature = kSigWorkItem;
    Life life{k};
    StatusCapture statuses;
    HANDLE t = nullptr;
    EXPECT_EQ(v->KsoAllocTimer(bad, LifeRoutine, &life, FALSE, &t), KsplErr(4));
    EXPECT_EQ(v->KsoAllocTimer(k, nullptr, &life, TRUE, &t), KsplErr(4));
    EXPECT_EQ(v->KsoAllocTimer(k, LifeRoutine, &life, TRUE, nullptr), KsplErr(4));
    ASSERT_EQ(v->KsoAllocTimer(k, LifeRoutine, &life, FALSE, &t), 0u);
    EXPECT_FALSE(v->KsoCancelTimer(k, &item));
    EXPECT_FALSE(v->KsoCancelTimer(k, t)) << "never scheduled";
    EXPECT_EQ(statuses.Built().size(), 3u) << "cancel reports nothing";
    EXPECT_EQ(v->KsoScheduleTimer(nullptr, t, 0), KsplErr(3));
    EXPECT_EQ(v->KsoScheduleTimer(k, &item, 0), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyTimer(bad, t), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyTimer(k, &item), KsplErr(3));

    // Delays are counted in 10 ms ticks: rounded down, at least one, clamped.
    const std::pair<UINT64, UINT32> rounding[] = {
        {0, 1}, {19999, 1}, {25000, 2}, {10000ull << 32, 0xFFFFFFFFu}, {~0ull, 0xFFFFFFFFu}};
    int fired = 0;
    for (const auto& r : rounding) {
        ASSERT_EQ(v->KsoScheduleTimer(k, t, r.first), 0u);
        EXPECT_EQ(Rec(t)->timeOutValue, r.second) << r.first;
        if (v->KsoCancelTimer(k, t)) continue;
        ++fired;
        ASSERT_TRUE(WaitFor([&] { return life.runs == fired; })) << r.first;
    }
    // A pending timer refuses reschedule and destroy, keeping its due time.
    ASSERT_EQ(v->KsoScheduleTimer(k, t, 300000), 0u);
    LogCapture log;
    EXPECT_EQ(v->KsoScheduleTimer(k, t, 20000), kBusy);
    EXPECT_EQ(Rec(t)->timeOutValue, 30u);
    EXPECT_EQ(v->KsoDestroyTimer(k, t), kBusy);
    EXPECT_EQ(log.Count("KsoScheduleTimer: Timer pending"), 1u);
    EXPECT_EQ(log.Count("KsoDestroyTimer: Timer in use"), 1u);
    EXPECT_TRUE(v->KsoCancelTimer(k, t));
    EXPECT_FALSE(v->KsoCancelTimer(k, t));
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(life.runs.load(), fired) << "a cancelled timer never fires";
    // Its routine re-arms it five times: six runs.
    life.reArm = 5;
    ASSERT_EQ(v->KsoScheduleTimer(k, t, 0), 0u);
    ASSERT_TRUE(WaitFor([&] { return life.runs == fired + 6; }));
    EXPECT_FALSE(v->KsoCancelTimer(k, t)) << "fired";
    EXPECT_EQ(v->KsoDestroyTimer(k, t), 0u);
}

// The queue operations, driven directly with the mutex held (the timer
// thread blocks meanwhile and finds the queues empty again), against a
// model: a timer goes after every queued timer due no later, and the timers
// of one merge are taken newest first.
TEST_F(Timers, DeltaListKeepsDueTimesThroughMergesAndRemovals) {
    KsMutexGuard guard(&g_KsplTimerQueueMutex);
    std::vector<KSO_TIMER_HANDLE*> model, idle, feeder;  // model: in firing order
    auto byDue = [](auto* a, auto* b) { return a->timeOutValue < b->timeOutValue; };
    std::vector<KSO_TIMER_HANDLE> pool(400);
    for (auto& x : pool) idle.push_back(&x);
    std::mt19937 rng(12345);
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        std::shuffle(idle.begin(), idle.end(), rng);
        for (int i = rng() % 20; i > 0 && !idle.empty(); --i) {
            feeder.push_back(idle.back());
            idle.pop_back();
            // What scheduling does: many equal due times, a few far ones.
            feeder.back()->timeOutValue = rng() % 8 == 0 ? 1000 + rng() % 5 : 1 + rng() % 30;
            __atomic_add_fetch(&g_KsplCurrentTimers, 1u, __ATOMIC_SEQ_CST);
            KsplAddToTimerFeederQue(feeder.back());
        }
        for (auto it = feeder.rbegin(); it != feeder.rend(); ++it) {
            model.insert(std::upper_bound(model.begin(), model.end(), *it, byDue), *it);
        }
        feeder.clear();
        KsplMergeTimerFeederQue();
        for (int i = 0; i < 4 && !model.empty(); ++i) {
            idle.push_back(model[rng() % model.size()]);
            KsplRemoveFromTimerQue(idle.back());
            model.erase(std::find(model.begin(), model.end(), idle.back()));
        }
        // Links, order and due times (sums of deltas) as the model says.
        KSO_TIMER_HANDLE* t = g_KsplTimerQueHeadPtr;
        UINT64 due = 0;
        for (size_t i = 0; i < model.size(); ++i, t = t->pNextTimerStruct) {
            ASSERT_EQ(t, model[i]) << "round " << round << " at " << i;
            EXPECT_EQ(t->pPrevTimerStruct, i == 0 ? nullptr : model[i - 1]);
            due += t->delta;
            EXPECT_EQ(due, t->timeOutValue) << "round " << round << " at " << i;
        }
        EXPECT_EQ(t, nullptr);
        EXPECT_EQ(g_KsplCurrentTimers, model.size());
    }
    for (KSO_TIMER_HANDLE* x : model) KsplRemoveFromTimerQue(x);
    EXPECT_EQ(g_KsplCurrentTimers, 0u);
}

// Time advances for the timers only while the timer thread sleeps. A
// routine that runs 300 ms schedules three timers 3, 6 and 9 ticks ahead
// and one that re-arms itself every tick: after it returns, they fire in
// order, once each, spaced by their ticks, and the re-arming one at most
// once per tick slept. Counting the routine's time would fire them all in
// a burst as soon as it returns.
struct SlowTick {
    using Clock = std::chrono::steady_clock;
    IKspl* k = nullptr;
    HANDLE later[3] = {};
    HANDLE every = nullptr;
    std::mutex mu;  // the routines run on the timer thread, the test reads
    Clock::time_point slowReturned;
    std::vector<std::pair<int, Clock::time_point>> fired;  // later[i]: i, every: 3
    std::atomic<bool> stopEvery{false};
    std::atomic<bool> slowDone{false};

    void Note(int which) {
        std::lock_guard<std::mutex> lock(mu);
        fired.emplace_back(which, Clock::now());
    }
    static void Slow(HANDLE, PVOID p) {
        auto* c = static_cast<SlowTick*>(p);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(c->k->lpVtbl->KsoScheduleTimer(c->k, c->later[i], 30000u * (i + 1)), 0u);
        }
        EXPECT_EQ(c->k->lpVtbl->KsoScheduleTimer(c->k, c->every, 0), 0u);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::lock_guard<std::mutex> lock(c->mu);
        c->slowReturned = Clock::now();
        c->slowDone = true;
    }
    static void Later(HANDLE h, PVOID p) {
        auto* c = static_cast<SlowTick*>(p);
        for (int i = 0; i < 3; ++i) {
            if (c->later[i] == h) c->Note(i);
        }
    }
    static void Every(HANDLE h, PVOID p) {
        auto* c = static_cast<SlowTick*>(p);
        c->Note(3);
        if (!c->stopEvery) {
            EXPECT_EQ(c->k->lpVtbl->KsoScheduleTimer(c->k, h, 0), 0u);
        }
    }
};

TEST_F(Timers, OnlySleepAdvancesTimersSoALongRoutineDelaysWithoutABurst) {
    using std::chrono::milliseconds;
    SlowTick c;
    c.k = k;
    HANDLE slow = nullptr;
    ASSERT_EQ(v->KsoAllocTimer(k, SlowTick::Slow, &c, FALSE, &slow), 0u);
    for (HANDLE& h : c.later) ASSERT_EQ(v->KsoAllocTimer(k, SlowTick::Later, &c, FALSE, &h), 0u);
    ASSERT_EQ(v->KsoAllocTimer(k, SlowTick::Every, &c, FALSE, &c.every), 0u);
    ASSERT_EQ(v->KsoScheduleTimer(k, slow, 0), 0u);
    ASSERT_TRUE(WaitFor([&] {
        std::lock_guard<std::mutex> lock(c.mu);
        return std::count_if(c.fired.begin(), c.fired.end(),
                             [](const auto& f) { return f.first == 2; }) != 0;
    }));
    // Let further ticks pass: a later timer firing twice would show here.
    std::this_thread::sleep_for(milliseconds(100));
    c.stopEvery = true;
    ASSERT_TRUE(WaitFor([&] {
        return __atomic_load_n(&Rec(c.every)->timerState, __ATOMIC_ACQUIRE) != kTimerStatePending &&
               __atomic_load_n(&g_KsplCurrentlyExecutingTimerPtr, __ATOMIC_ACQUIRE) != c.every;
    }));

    std::lock_guard<std::mutex> lock(c.mu);
    ASSERT_TRUE(c.slowDone);
    std::vector<std::pair<int, double>> after;  // ms after the slow routine returned
    for (const auto& f : c.fired) {
        after.emplace_back(f.first, std::chrono::duration<double, std::milli>(
                                        f.second - c.slowReturned).count());
    }
    int next = 0;
    int everyEarly = 0;  // re-arming runs in the first 100 ms
    for (const auto& [which, ms] : after) {
        EXPECT_GE(ms, 0.0) << "fired while the slow routine ran: " << which;
        if (which == 3) {
            everyEarly += ms < 100.0 ? 1 : 0;
            continue;
        }
        EXPECT_EQ(which, next++) << "once each, in order";
        // Due 3(i+1) ticks after the merge. Ticks counted before the
        // routine ran are serviced right after it (one, or two when that
        // sleep overshot on a loaded machine); every other tick needs a sleep.
        EXPECT_GE(ms, 10.0 * (3 * (which + 1) - 2) - 1.0) << which;
    }
    EXPECT_EQ(next, 3);
    // At most one run per 10 ms slept, plus ticks counted before the routine.
    EXPECT_LE(everyEarly, 13);
    for (HANDLE h : c.later) EXPECT_EQ(v->KsoDestroyTimer(k, h), 0u);
    EXPECT_EQ(v->KsoDestroyTimer(k, c.every), 0u);
    EXPECT_EQ(v->KsoDestroyTimer(k, slow), 0u);
}

// Timers cancelled and rescheduled while the timer thread fires them:
// every accepted schedule ends in exactly one run or one successful cancel.
TEST_F(Timers, CancelsRacingWithFiringAccountForEverySchedule) {
    struct T {
        HANDLE h = nullptr;
        Counter fired;
        int scheduled = 0, cancelled = 0;
    };
    std::vector<T> timers(20);
    for (T& x : timers) ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &x.fired, FALSE, &x.h), 0u);
    std::mt19937 rng(1);
    for (int op = 0; op < 5000; ++op) {
        T& x = timers[rng() % timers.size()];
        x.cancelled += v->KsoCancelTimer(k, x.h) ? 1 : 0;
        // A cancel answers FALSE while the timer's previous firing is still
        // executing, even if it has been scheduled again since: then it is
        // still pending and this schedule is refused as busy.
        const KSSTATUS st = v->KsoScheduleTimer(k, x.h, rng() % 30000);
        if (st == KsplErr(KSPL_CODE_BUSY)) continue;
        ASSERT_EQ(st, 0u);
        ++x.scheduled;
        if (op % 32 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (T& x : timers) {
        EXPECT_TRUE(WaitFor([&] { return x.fired.runs + x.cancelled == x.scheduled; }));
        EXPECT_EQ(v->KsoDestroyTimer(k, x.h), 0u);
    }
}

}  // namespace
