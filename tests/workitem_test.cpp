// Work items: bad inputs, an item queued once and refused destruction while
// pending, start order, no lost wake-up of idle workers, a routine that
// re-arms and then destroys its item, and both pools (work items and timers)
// across fork and stop.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <vector>

#include "kspl_test.h"
#include "sched_test_util.h"
#include "schedule_int.h"

namespace {

constexpr KSSTATUS kBusy = 0xC7F11003u;

size_t QueuedItems() {
    KsMutexGuard guard(&g_KsplWorkItemQueue.mutex);
    size_t n = 0;
    PLIST_ENTRY head = &g_KsplWorkItemQueue.listHead;
    for (PLIST_ENTRY e = head->Flink; e != head; e = e->Flink) ++n;
    return n;
}

// Holds its worker until the test opens it.
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
    Counter c;
    StatusCapture statuses;
    HANDLE h = reinterpret_cast<HANDLE>(0x1);
    EXPECT_EQ(v->KsoAllocWorkItem(bad, CountRoutine, &c, &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocWorkItem(k, nullptr, &c, &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &c, nullptr), KsplErr(4));
    EXPECT_EQ(h, reinterpret_cast<HANDLE>(0x1));
    ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &c, &h), 0u);
    EXPECT_EQ(v->KsoScheduleWorkItem(nullptr, h, KSO_PRIORITY_NORMAL), KsplErr(3));
    EXPECT_EQ(v->KsoScheduleWorkItem(k, &timer, KSO_PRIORITY_NORMAL), KsplErr(3));
    EXPECT_EQ(v->KsoScheduleWorkItem(k, h, static_cast<KSO_PRIORITY>(3)), KsplErr(4));
    EXPECT_EQ(v->KsoDestroyWorkItem(bad, h), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyWorkItem(k, nullptr), KsplErr(3));
    EXPECT_EQ(QueuedItems(), 0u) << "refused schedules queue nothing";
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoScheduleWorkItem"));
    for (const auto& s : statuses.Built()) EXPECT_EQ(s.file, "schedule");
    EXPECT_EQ(v->KsoDestroyWorkItem(k, h), 0u);
    EXPECT_EQ(c.runs.load(), 0);
}

struct Ordered {
    std::atomic<int>* next;
    std::atomic<int> startedAs{-1};
};

// Seven workers are held and the eighth at first too, so that once it is
// let go it alone takes the items, in queue order.
TEST_F(WorkItems, PendingItemIsQueuedOnceAndItemsStartInOrder) {
    ASSERT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 8);
    Blocker seven, eighth;
    Occupy(&seven, 7);
    Occupy(&eighth, 1);
    Counter c;
    HANDLE once = nullptr;
    ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &c, &once), 0u);
    ASSERT_EQ(v->KsoScheduleWorkItem(k, once, KSO_PRIORITY_REALTIME), 0u);
    LogCapture log;
    EXPECT_EQ(v->KsoScheduleWorkItem(k, once, KSO_PRIORITY_IDLE), kBusy);
    EXPECT_EQ(v->KsoDestroyWorkItem(k, once), kBusy);
    EXPECT_EQ(log.Count("KsoDestroyWorkItem: Work Item pending"), 1u);
    std::atomic<int> next{0};
    std::vector<Ordered> ordered(60);
    std::vector<HANDLE> items(ordered.size());
    auto record = [](HANDLE, PVOID p) {
        auto* o = static_cast<Ordered*>(p);
        o->startedAs = o->next->fetch_add(1);
    };
    for (size_t i = 0; i < items.size(); ++i) {
        ordered[i].next = &next;
        ASSERT_EQ(v->KsoAllocWorkItem(k, record, &ordered[i], &items[i]), 0u);
        ASSERT_EQ(v->KsoScheduleWorkItem(k, items[i], static_cast<KSO_PRIORITY>(i % 3)), 0u);
    }
    EXPECT_EQ(QueuedItems(), items.size() + 1);
    Release(&eighth);
    for (size_t i = 0; i < items.size(); ++i) {
        ASSERT_TRUE(WaitFor([&] { return ordered[i].startedAs >= 0; }));
        EXPECT_EQ(ordered[i].startedAs, int(i));
        EXPECT_EQ(v->KsoDestroyWorkItem(k, items[i]), 0u);
    }
    EXPECT_EQ(c.runs.load(), 1) << "scheduled twice, run once";
    EXPECT_EQ(v->KsoDestroyWorkItem(k, once), 0u);
    Release(&seven);
}

// Each schedule races with the worker that has just finished the previous
// run and is going back to sleep; a lost wake-up leaves the item queued.
TEST_F(WorkItems, NoWakeUpIsLostWhenWorkersGoIdle) {
    Counter c;
    HANDLE item = nullptr;
    ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &c, &item), 0u);
    for (int round = 1; round <= 3000; ++round) {
        ASSERT_EQ(v->KsoScheduleWorkItem(k, item, KSO_PRIORITY_NORMAL), 0u);
        ASSERT_TRUE(WaitFor([&] { return c.runs == round; })) << "round " << round;
    }
    EXPECT_EQ(v->KsoDestroyWorkItem(k, item), 0u);
}

struct SelfCtx {
    IKspl* k;
    std::atomic<int> runs{0};
    std::atomic<bool> done{false};
};

TEST_F(WorkItems, RoutineReArmsAndThenDestroysItsItem) {
    SelfCtx ctx{k};
    HANDLE item = nullptr;
    auto routine = [](HANDLE h, PVOID p) {
        auto* c = static_cast<SelfCtx*>(p);
        IKspl* ck = c->k;
        // Running means no longer pending: it may queue or destroy its item.
        if (++c->runs < 25) {
            // From here on the next run may own the context.
            EXPECT_EQ(ck->lpVtbl->KsoScheduleWorkItem(ck, h, KSO_PRIORITY_NORMAL), 0u);
            return;
        }
        EXPECT_EQ(ck->lpVtbl->KsoDestroyWorkItem(ck, h), 0u);
        c->done = true;
    };
    ASSERT_EQ(v->KsoAllocWorkItem(k, routine, &ctx, &item), 0u);
    ASSERT_EQ(v->KsoScheduleWorkItem(k, item, KSO_PRIORITY_NORMAL), 0u);
    ASSERT_TRUE(WaitFor([&] { return ctx.done.load(); }));
    EXPECT_EQ(ctx.runs.load(), 25);
}

IKspl* g_child = nullptr;
HANDLE g_queuedItem = nullptr, g_pendingTimer = nullptr;
Counter g_itemRuns, g_timerRuns;

// Work queued and timers pending at a fork stay the parent's: in the child
// they are idle (destroyable) and never run, while the child's own work
// starts the pools there. Stopping them ends every thread once the running
// routines return.
TEST_F(WorkItems, ForkedChildKeepsNoneOfTheParentsWorkAndStopsCleanly) {
    g_child = k;
    // A child that never schedules stops without waiting for the parent's
    // threads (runs everywhere; what follows needs threads in the child).
    EXPECT_EQ(KsplRunInChild([] {
                  alarm(60);
                  DllStop();
                  EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 0);
              }),
              0);
    if (!ChildMayStartThreads()) GTEST_SKIP() << "a forked child cannot start threads here";
    Blocker busy;
    Occupy(&busy, 8);
    ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &g_itemRuns, &g_queuedItem), 0u);
    ASSERT_EQ(v->KsoScheduleWorkItem(k, g_queuedItem, KSO_PRIORITY_NORMAL), 0u);
    ASSERT_EQ(v->KsoAllocTimer(k, CountRoutine, &g_timerRuns, FALSE, &g_pendingTimer), 0u);
    ASSERT_EQ(v->KsoScheduleTimer(k, g_pendingTimer, 1000000), 0u);
    EXPECT_EQ(KsplRunInChild([] {
                  alarm(120);
                  const IKsplVtbl* cv = g_child->lpVtbl;
                  EXPECT_EQ(QueuedItems(), 0u);
                  static Blocker own;
                  HANDLE item = nullptr, timer = nullptr;
                  ASSERT_EQ(cv->KsoAllocWorkItem(g_child, Block, &own, &item), 0u);
                  ASSERT_EQ(cv->KsoAllocTimer(g_child, Block, &own, FALSE, &timer), 0u);
                  ASSERT_EQ(cv->KsoScheduleWorkItem(g_child, item, KSO_PRIORITY_NORMAL), 0u);
                  ASSERT_EQ(cv->KsoScheduleTimer(g_child, timer, 0), 0u);
                  ASSERT_TRUE(WaitFor([] { return own.started == 2; }));
                  std::this_thread::sleep_for(std::chrono::milliseconds(600));
                  EXPECT_EQ(g_itemRuns.runs + g_timerRuns.runs, 0);
                  EXPECT_EQ(cv->KsoDestroyWorkItem(g_child, g_queuedItem), 0u);
                  EXPECT_EQ(cv->KsoDestroyTimer(g_child, g_pendingTimer), 0u);
                  UnInitTimerInfrastructure();
                  UnInitWorkItemInfrastructure();
                  // The idle workers leave; the two busy threads stay in their routines.
                  EXPECT_TRUE(WaitFor([] { return KsAtomicLoad(&g_KsplNumWorkItemThreads) == 1; }));
                  std::this_thread::sleep_for(std::chrono::milliseconds(50));
                  EXPECT_EQ(KsAtomicLoad(&g_KsplNumTimerThreads), 1);
                  own.open = true;
                  EXPECT_TRUE(WaitFor([] {
                      return KsAtomicLoad(&g_KsplNumWorkItemThreads) +
                                 KsAtomicLoad(&g_KsplNumTimerThreads) ==
                             0;
                  }));
                  EXPECT_EQ(cv->KsoDestroyWorkItem(g_child, item), 0u);
                  EXPECT_EQ(cv->KsoDestroyTimer(g_child, timer), 0u);
              }),
              0);
    EXPECT_EQ(QueuedItems(), 1u);
    Release(&busy);
    EXPECT_TRUE(WaitFor([] { return g_itemRuns.runs == 1 && g_timerRuns.runs == 1; }));
    EXPECT_TRUE(WaitFor([&] { return v->KsoDestroyWorkItem(k, g_queuedItem) == 0; }));
    EXPECT_EQ(v->KsoDestroyTimer(k, g_pendingTimer), 0u);
}

}  // namespace
