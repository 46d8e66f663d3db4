// Work items: bad inputs, an item queued once and refused destruction while
// pending, start order, no lost wake-up of idle workers, a routine that
// re-arms and then destroys its item, and both pools (work items and timers)
// across fork and stop.
#include <unistd.h>

#include "kspl_test.h"
#include "memory_int.h"
#include "sched_test_util.h"
#include "schedule_int.h"

namespace {

// Holds the workers (or the timer thread) running it until opened.
struct Blocker {
    std::atomic<bool> open{false};
    std::atomic<int> started{0}, finished{0};
    std::vector<HANDLE> items;
};
void Block(HANDLE, PVOID p) {
    auto* b = static_cast<Blocker*>(p);
    ++b->started;
    while (!b->open) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ++b->finished;  // the last access to the blocker
}

class WorkItems : public KsplTest {
protected:
    void Occupy(Blocker* b, int n) {
        b->items.resize(n);
        for (HANDLE& h : b->items) {
            ASSERT_EQ(v->KsoAllocWorkItem(k, Block, b, &h), 0u);
            ASSERT_EQ(v->KsoScheduleWorkItem(k, h, KSO_PRIORITY_NORMAL), 0u);
        }
        ASSERT_TRUE(WaitFor([&] { return b->started == n; }));
    }
    void Release(Blocker* b) {
        b->open = true;
        for (HANDLE h : b->items) EXPECT_EQ(v->KsoDestroyWorkItem(k, h), 0u);
        EXPECT_TRUE(WaitFor([&] { return b->finished == b->started; }));
    }
};

TEST_F(WorkItems, BadInputsGetTheirStatus) {
    KsplObjInfo foreign{};
    IKspl* bad = reinterpret_cast<IKspl*>(&foreign);
    KsoHandleHeader timer{};
    timer.Signature = kSigTimer;
    HANDLE h = nullptr;
    EXPECT_EQ(v->KsoAllocWorkItem(bad, CountRoutine, nullptr, &h), KsplErr(KSPL_CODE_INVALID_PARAM));
    EXPECT_EQ(v->KsoAllocWorkItem(k, nullptr, nullptr, &h), KsplErr(KSPL_CODE_INVALID_PARAM));
    EXPECT_EQ(v->KsoAllocWorkItem(k, CountRoutine, nullptr, nullptr), KsplErr(KSPL_CODE_INVALID_PARAM));
    ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, nullptr, &h), 0u);
    EXPECT_EQ(v->KsoScheduleWorkItem(nullptr, h, KSO_PRIORITY_NORMAL), KsplErr(KSPL_CODE_INVALID_HANDLE));
    EXPECT_EQ(v->KsoScheduleWorkItem(k, &timer, KSO_PRIORITY_NORMAL), KsplErr(KSPL_CODE_INVALID_HANDLE));
    EXPECT_EQ(v->KsoScheduleWorkItem(k, h, static_cast<KSO_PRIORITY>(3)), KsplErr(KSPL_CODE_INVALID_PARAM));
    EXPECT_EQ(v->KsoDestroyWorkItem(bad, h), KsplErr(KSPL_CODE_INVALID_HANDLE));
    EXPECT_EQ(v->KsoDestroyWorkItem(k, nullptr), KsplErr(KSPL_CODE_INVALID_HANDLE));
    EXPECT_EQ(v->KsoDestroyWorkItem(k, h), 0u) << "refused schedules queue nothing";
}

std::atomic<int> g_started{0};
void RecordStart(HANDLE, PVOID slot) { static_cast<std::atomic<int>*>(slot)->store(++g_started); }

// Seven workers are held and the eighth at first too; let go, it alone
// takes the queued items, in queue order.
TEST_F(WorkItems, PendingItemIsQueuedOnceAndItemsStartInOrder) {
    Blocker seven, eighth;
    Occupy(&seven, 7);
    Occupy(&eighth, 1);
    std::vector<std::atomic<int>> startedAs(60);
    std::vector<HANDLE> items(startedAs.size());
    for (size_t i = 0; i < items.size(); ++i) {
        ASSERT_EQ(v->KsoAllocWorkItem(k, RecordStart, &startedAs[i], &items[i]), 0u);
        ASSERT_EQ(v->KsoScheduleWorkItem(k, items[i], static_cast<KSO_PRIORITY>(i % 3)), 0u);
    }
    LogCapture log;
    EXPECT_EQ(v->KsoScheduleWorkItem(k, items[0], KSO_PRIORITY_NORMAL), kBusy);
    EXPECT_EQ(v->KsoDestroyWorkItem(k, items[0]), kBusy);
    EXPECT_EQ(log.Count("KsoDestroyWorkItem: Work Item pending"), 1u);
    Release(&eighth);
    for (size_t i = 0; i < items.size(); ++i) {
        ASSERT_TRUE(WaitFor([&] { return startedAs[i] != 0; }));
        EXPECT_EQ(startedAs[i], int(i + 1));
        EXPECT_EQ(v->KsoDestroyWorkItem(k, items[i]), 0u);
    }
    EXPECT_EQ(g_started.load(), int(items.size())) << "each item ran once";
    Release(&seven);
}

// Counts its runs; once `selfRuns` is set, it re-arms its own item up to
// that many runs and then destroys it.
struct SelfCtx {
    IKspl* k;
    std::atomic<int> runs{0}, selfRuns{0};
};
void SelfRoutine(HANDLE h, PVOID p) {
    auto* c = static_cast<SelfCtx*>(p);
    IKspl* k = c->k;
    int limit = c->selfRuns;
    int n = ++c->runs;  // from here on the context may be gone or the next run's
    if (limit == 0) return;
    // Running means no longer pending: it may queue or destroy its item.
    const IKsplVtbl* v = k->lpVtbl;
    KSSTATUS st = n < limit ? v->KsoScheduleWorkItem(k, h, KSO_PRIORITY_NORMAL)
                            : v->KsoDestroyWorkItem(k, h);
    EXPECT_EQ(st, 0u) << "run " << n;
}

TEST_F(WorkItems, NoWakeUpIsLostAndARoutineReArmsItsItem) {
    SelfCtx ctx{k};
    HANDLE item = nullptr;
    ASSERT_EQ(v->KsoAllocWorkItem(k, SelfRoutine, &ctx, &item), 0u);
    // Each schedule races with the worker that has just finished the
    // previous run and is going back to sleep; a lost wake-up leaves the
    // item queued.
    for (int round = 1; round <= 3000; ++round) {
        ASSERT_EQ(v->KsoScheduleWorkItem(k, item, KSO_PRIORITY_NORMAL), 0u);
        ASSERT_TRUE(WaitFor([&] { return ctx.runs == round; })) << "round " << round;
    }
    ctx.selfRuns = 3025;
    ASSERT_EQ(v->KsoScheduleWorkItem(k, item, KSO_PRIORITY_NORMAL), 0u);
    EXPECT_TRUE(WaitFor([&] { return KsAtomicLoad(&KsplInfo(k)->MemoryPagedInUse) == 0; }));
    EXPECT_EQ(ctx.runs.load(), 3025);
    // Its record is released under the instance's pool lock: let the routine
    // out of it before teardown.
    KsMemoryPoolPassThrough(k);
}

IKspl* g_k = nullptr;
HANDLE g_item = nullptr, g_timer = nullptr;  // queued and pending at the fork
Counter g_itemRuns, g_timerRuns;

void ChildUsesAndStopsThePools() {
    alarm(120);
    const IKsplVtbl* v = g_k->lpVtbl;
    static Blocker own;
    HANDLE item = nullptr, timer = nullptr;
    ASSERT_EQ(v->KsoAllocWorkItem(g_k, Block, &own, &item), 0u);
    ASSERT_EQ(v->KsoAllocTimer(g_k, Block, &own, FALSE, &timer), 0u);
    ASSERT_EQ(v->KsoScheduleWorkItem(g_k, item, KSO_PRIORITY_NORMAL), 0u);
    ASSERT_EQ(v->KsoScheduleTimer(g_k, timer, 0), 0u);
    ASSERT_TRUE(WaitFor([] { return own.started == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));  // past the timer's due time
    EXPECT_EQ(g_itemRuns.runs + g_timerRuns.runs, 0);
    EXPECT_EQ(v->KsoDestroyWorkItem(g_k, g_item), 0u) << "idle here";
    EXPECT_EQ(v->KsoDestroyTimer(g_k, g_timer), 0u);
    // Stopped, the idle workers leave; the two busy threads stay in their
    // routines until these return.
    UnInitTimerInfrastructure();
    UnInitWorkItemInfrastructure();
    EXPECT_TRUE(WaitFor([] { return KsAtomicLoad(&g_KsplNumWorkItemThreads) == 1; }));
    EXPECT_EQ(KsAtomicLoad(&g_KsplNumTimerThreads), 1);
    own.open = true;
    EXPECT_TRUE(WaitFor([] {
        return KsAtomicLoad(&g_KsplNumWorkItemThreads) + KsAtomicLoad(&g_KsplNumTimerThreads) == 0;
    }));
    EXPECT_EQ(v->KsoDestroyWorkItem(g_k, item), 0u);
    EXPECT_EQ(v->KsoDestroyTimer(g_k, timer), 0u);
}

// Work queued and timers pending at a fork stay the parent's: in the child
// they are idle and never run, while the child's own work starts its pools.
TEST_F(WorkItems, ForkedChildKeepsNoneOfTheParentsWorkAndStopsCleanly) {
    if (!ChildMayStartThreads()) GTEST_SKIP() << "a forked child cannot start threads here";
    g_k = k;
    Blocker busy;
    Occupy(&busy, 8);
    ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &g_itemRuns, &g_item), 0u);
    ASSERT_EQ(v->KsoScheduleWorkItem(k, g_item, KSO_PRIORITY_NORMAL), 0u);
    ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &g_timerRuns, FALSE, &g_timer), 0u);
    ASSERT_EQ(v->KsoScheduleTimer(k, g_timer, 1000000), 0u);
    EXPECT_EQ(KsplRunInChild(ChildUsesAndStopsThePools), 0);
    Release(&busy);
    EXPECT_TRUE(WaitFor([] { return g_itemRuns.runs == 1 && g_timerRuns.runs == 1; }));
    EXPECT_TRUE(WaitFor([&] { return v->KsoDestroyWorkItem(k, g_item) == 0; }));
    EXPECT_EQ(v->KsoDestroyTimer(k, g_timer), 0u);
}

}  // namespace
