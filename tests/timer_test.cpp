// Timers: bad inputs and the rules of one timer's life (tick rounding,
// pending timers refusing reschedule and destroy, cancel), the delta-list
// queue against a model, a routine that re-arms and then destroys its timer,
// and cancels racing with firing. (Timers across fork and stop: with the
// work-item pool, in workitem_test.)
#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "sched_test_util.h"
#include "schedule_int.h"

namespace {

constexpr KSSTATUS kBusy = 0xC7F11003u;

KSO_TIMER_HANDLE* Rec(HANDLE h) { return static_cast<KSO_TIMER_HANDLE*>(h); }

class Timers : public KsplTest {};

TEST_F(Timers, BadInputsAndTheLifeOfOneTimer) {
    KsplObjInfo foreign{};
    IKspl* bad = reinterpret_cast<IKspl*>(&foreign);
    KsoHandleHeader item{};
    item.Signature = kSigWorkItem;
    Counter c;
    StatusCapture statuses;
    HANDLE t = reinterpret_cast<HANDLE>(0x1);
    EXPECT_EQ(v->KsoAllocTimer(bad, CountRoutine, &c, FALSE, &t), KsplErr(4));
    EXPECT_EQ(v->KsoAllocTimer(k, nullptr, &c, TRUE, &t), KsplErr(4));
    EXPECT_EQ(v->KsoAllocTimer(k, CountRoutine, &c, TRUE, nullptr), KsplErr(4));
    EXPECT_EQ(t, reinterpret_cast<HANDLE>(0x1));
    ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &c, FALSE, &t), 0u);
    EXPECT_EQ(v->KsoScheduleTimer(nullptr, t, 0), KsplErr(3));
    EXPECT_EQ(v->KsoScheduleTimer(k, &item, 0), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyTimer(bad, t), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyTimer(k, &item), KsplErr(3));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(3), "KsoScheduleTimer"));
    for (const auto& s : statuses.Built()) EXPECT_EQ(s.file, "schedule");
    statuses.Clear();
    EXPECT_FALSE(v->KsoCancelTimer(bad, t));
    EXPECT_FALSE(v->KsoCancelTimer(k, &item));
    EXPECT_FALSE(v->KsoCancelTimer(k, t)) << "never scheduled";
    EXPECT_TRUE(statuses.Built().empty()) << "cancel reports nothing";

    // Delays are counted in 10 ms ticks: rounded down, at least one, clamped.
    const std::pair<UINT64, UINT32> rounding[] = {
        {0, 1}, {19999, 1}, {25000, 2}, {10000ull << 32, 0xFFFFFFFFu}, {~0ull, 0xFFFFFFFFu}};
    int fired = 0;
    for (const auto& r : rounding) {
        ASSERT_EQ(v->KsoScheduleTimer(k, t, r.first), 0u);
        EXPECT_EQ(Rec(t)->timeOutValue, r.second) << r.first;
        if (v->KsoCancelTimer(k, t)) continue;
        ++fired;
        ASSERT_TRUE(WaitFor([&] { return c.runs == fired; })) << r.first;
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
    EXPECT_EQ(c.runs.load(), fired) << "a cancelled timer never fires";
    ASSERT_EQ(v->KsoScheduleTimer(k, t, 0), 0u);
    ASSERT_TRUE(WaitFor([&] { return c.runs == fired + 1; }));
    EXPECT_FALSE(v->KsoCancelTimer(k, t)) << "fired";
    EXPECT_EQ(v->KsoDestroyTimer(k, t), 0u);
}

// The queue operations, driven directly with the mutex held (the timer
// thread blocks meanwhile and finds the queues empty again), against a
// model: a timer goes after every queued timer due no later, and the timers
// of one merge are taken newest first.
TEST_F(Timers, DeltaListKeepsDueTimesThroughMergesAndRemovals) {
    KsMutexGuard guard(&g_KsplTimerQueueMutex);
    ASSERT_EQ(g_KsplCurrentTimers, 0u);
    std::vector<std::pair<KSO_TIMER_HANDLE*, UINT32>> model;  // in firing order
    auto insert = [&](KSO_TIMER_HANDLE* t) {
        auto at = std::find_if(model.begin(), model.end(),
                               [&](const auto& e) { return e.second > t->timeOutValue; });
        model.insert(at, {t, t->timeOutValue});
    };
    auto remove = [&](KSO_TIMER_HANDLE* t) {
        KsplRemoveFromTimerQue(t);
        model.erase(std::find_if(model.begin(), model.end(),
                                 [&](const auto& e) { return e.first == t; }));
    };
    std::mt19937 rng(12345);
    std::vector<KSO_TIMER_HANDLE> pool(400);
    std::vector<KSO_TIMER_HANDLE*> idle, feeder;
    for (auto& x : pool) idle.push_back(&x);
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        std::shuffle(idle.begin(), idle.end(), rng);
        for (int i = rng() % 20; i > 0 && !idle.empty(); --i) {
            KSO_TIMER_HANDLE* x = idle.back();
            idle.pop_back();
            // What scheduling does: many equal due times, a few far ones.
            x->timeOutValue = rng() % 8 == 0 ? 1000 + rng() % 5 : 1 + rng() % 30;
            x->timerState = kTimerStatePending;
            __atomic_add_fetch(&g_KsplCurrentTimers, 1u, __ATOMIC_SEQ_CST);
            KsplAddToTimerFeederQue(x);
            feeder.push_back(x);
        }
        if (!feeder.empty() && round % 2 == 0) {  // cancelled before the merge
            KsplRemoveFromTimerQue(feeder.front());
            idle.push_back(feeder.front());
            feeder.erase(feeder.begin());
        }
        for (auto it = feeder.rbegin(); it != feeder.rend(); ++it) insert(*it);
        feeder.clear();
        KsplMergeTimerFeederQue();
        ASSERT_EQ(g_KsplTimerFeededQueHeadPtr, nullptr);
        for (int i = 0; i < 4 && !model.empty(); ++i) {
            KSO_TIMER_HANDLE* x = model[rng() % model.size()].first;
            remove(x);
            idle.push_back(x);
        }
        // Links, order and due times (sums of deltas) as the model says.
        KSO_TIMER_HANDLE* prev = nullptr;
        UINT64 due = 0;
        size_t i = 0;
        for (KSO_TIMER_HANDLE* t = g_KsplTimerQueHeadPtr; t != nullptr; t = t->pNextTimerStruct) {
            ASSERT_LT(i, model.size());
            EXPECT_EQ(t->pPrevTimerStruct, prev);
            due += t->delta;
            EXPECT_EQ(t, model[i].first) << "round " << round << " at " << i;
            EXPECT_EQ(due, model[i].second) << "round " << round << " at " << i;
            prev = t;
            ++i;
        }
        EXPECT_EQ(i, model.size());
        EXPECT_EQ(g_KsplCurrentTimers, model.size());
    }
    while (!model.empty()) remove(model.back().first);
    EXPECT_EQ(g_KsplTimerQueHeadPtr, nullptr);
    EXPECT_EQ(g_KsplCurrentTimers, 0u);
}

struct Periodic {
    IKspl* k;
    int runs = 0;  // routines run one at a time, on the timer thread
    std::atomic<bool> done{false};
};

TEST_F(Timers, RoutineReArmsAndThenDestroysItsTimer) {
    Periodic p{k};
    HANDLE t = nullptr;
    auto routine = [](HANDLE h, PVOID ctx) {
        auto* p = static_cast<Periodic*>(ctx);
        const IKsplVtbl* pv = p->k->lpVtbl;
        EXPECT_EQ(Rec(h)->timerState, kTimerStateFired);
        if (++p->runs < 10) {
            EXPECT_EQ(pv->KsoScheduleTimer(p->k, h, 10000), 0u);
            EXPECT_FALSE(pv->KsoCancelTimer(p->k, h)) << "its own timer is executing";
            return;
        }
        EXPECT_EQ(pv->KsoDestroyTimer(p->k, h), 0u);
        p->done = true;
    };
    ASSERT_EQ(v->KsoAllocTimer(k, routine, &p, FALSE, &t), 0u);
    ASSERT_EQ(v->KsoScheduleTimer(k, t, 10000), 0u);
    ASSERT_TRUE(WaitFor([&] { return p.done.load(); }));
    EXPECT_EQ(p.runs, 10);
}

// Two threads cancel and reschedule short timers while they fire: every
// accepted schedule ends in exactly one run or one successful cancel.
TEST_F(Timers, CancelsRacingWithFiringAccountForEverySchedule) {
    struct T {
        HANDLE h = nullptr;
        Counter fired;
        int scheduled = 0, cancelled = 0;
    };
    std::vector<T> timers(40);  // threads take the even and the odd ones
    for (T& x : timers) ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &x.fired, FALSE, &x.h), 0u);
    std::vector<std::thread> threads;
    for (int n = 0; n < 2; ++n) {
        threads.emplace_back([&, n] {
            std::mt19937 rng(n + 1);
            for (int op = 0; op < 3000; ++op) {
                T& x = timers[2 * (rng() % 20) + n];
                x.cancelled += v->KsoCancelTimer(k, x.h) ? 1 : 0;
                // Not pending now: cancelled, fired, or firing.
                ASSERT_EQ(v->KsoScheduleTimer(k, x.h, rng() % 30000), 0u);
                ++x.scheduled;
                if (op % 64 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    for (auto& th : threads) th.join();
    for (T& x : timers) {
        EXPECT_TRUE(WaitFor([&] { return x.fired.runs + x.cancelled == x.scheduled; }));
        EXPECT_EQ(v->KsoDestroyTimer(k, x.h), 0u);
    }
}

}  // namespace
