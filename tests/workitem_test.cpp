// Work items: validation, FIFO start order, exactly-once execution under
// contention, no lost wake-up, self-rescheduling and self-destroying
// routines, the plain delay, shutdown of the pool and use after fork.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
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

// Blocks its worker until the gate opens; counts how many are blocked.
struct Blocker {
    Gate gate;
    std::atomic<int> started{0};
    std::atomic<int> finished{0};
};
void BlockRoutine(HANDLE, PVOID ctx) {
    auto* b = static_cast<Blocker*>(ctx);
    b->started.fetch_add(1);
    b->gate.Wait();
    b->finished.fetch_add(1);  // the last access to the blocker
}

size_t QueuedItems() {
    KsMutexGuard guard(&g_KsplWorkItemQueue.mutex);
    size_t n = 0;
    for (PLIST_ENTRY e = g_KsplWorkItemQueue.listHead.Flink; e != &g_KsplWorkItemQueue.listHead;
         e = e->Flink) {
        ++n;
    }
    return n;
}

class WorkItemTest : public KsplTest {
protected:
    // Occupies `n` workers with items that wait on the blocker's gate.
    std::vector<HANDLE> Occupy(Blocker* b, int n) {
        std::vector<HANDLE> items(n);
        for (auto& h : items) {
            EXPECT_EQ(v->KsoAllocWorkItem(k, BlockRoutine, b, &h), 0u);
            EXPECT_EQ(v->KsoScheduleWorkItem(k, h, KSO_PRIORITY_NORMAL), 0u);
        }
        EXPECT_TRUE(WaitFor([&] { return b->started.load() == n; }));
        return items;
    }
    void Release(Blocker* b, std::vector<HANDLE>& items) {
        b->gate.Open();
        for (HANDLE h : items) {
            // The routine may still be inside Gate::Wait's return path: the
            // item is no longer pending, which is all destroy needs.
            EXPECT_EQ(v->KsoDestroyWorkItem(k, h), 0u);
        }
        items.clear();
        EXPECT_TRUE(WaitFor([&] { return b->finished.load() == b->started.load(); }));
    }
};

TEST_F(WorkItemTest, RejectsBadArgumentsWithTheirStatusAndChangesNothing) {
    StatusCapture statuses;
    KsplObjInfo foreign{};  // no 'KSPL' signature
    IKspl* bad = reinterpret_cast<IKspl*>(&foreign);
    HANDLE h = reinterpret_cast<HANDLE>(0x1);
    Counter c;

    EXPECT_EQ(v->KsoAllocWorkItem(nullptr, CountRoutine, &c, &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocWorkItem(bad, CountRoutine, &c, &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocWorkItem(k, nullptr, &c, &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &c, nullptr), KsplErr(4));
    EXPECT_EQ(h, reinterpret_cast<HANDLE>(0x1)) << "a refused allocation must not touch *pHandle";
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoAllocWorkItem"));

    HANDLE item = nullptr;
    ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &c, &item), 0u);
    EXPECT_EQ(KsplInfo(k)->WorkItemInUse, 1u);
    KsoHandleHeader notAnItem{};
    notAnItem.Signature = kSigTimer;

    statuses.Clear();
    EXPECT_EQ(v->KsoScheduleWorkItem(nullptr, item, 1), KsplErr(3));
    EXPECT_EQ(v->KsoScheduleWorkItem(k, nullptr, 1), KsplErr(3));
    EXPECT_EQ(v->KsoScheduleWorkItem(k, &notAnItem, 1), KsplErr(3));
    EXPECT_EQ(v->KsoScheduleWorkItem(k, item, 3), KsplErr(4));
    EXPECT_FALSE(static_cast<KSO_WORK_ITEM_HANDLE*>(item)->pending);
    EXPECT_EQ(QueuedItems(), 0u);
    for (const BuiltStatus& b : statuses.Built()) {
        EXPECT_EQ(b.function, "KsoScheduleWorkItem");
        EXPECT_EQ(b.file, "schedule");
    }
    EXPECT_EQ(statuses.Built().size(), 4u);

    statuses.Clear();
    EXPECT_EQ(v->KsoDestroyWorkItem(nullptr, item), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyWorkItem(bad, item), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyWorkItem(k, nullptr), KsplErr(3));
    EXPECT_EQ(v->KsoDestroyWorkItem(k, &notAnItem), KsplErr(3));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(3), "KsoDestroyWorkItem"));
    EXPECT_EQ(KsplInfo(k)->WorkItemInUse, 1u);

    // The item refused at priority 3 was never queued: it runs only when
    // scheduled properly, and then once.
    EXPECT_EQ(v->KsoScheduleWorkItem(k, item, KSO_PRIORITY_IDLE), 0u);
    EXPECT_TRUE(WaitFor([&] { return c.runs.load() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(c.runs.load(), 1);
    // Destroyed through another instance, the record still goes back to
    // (and is counted off) the instance that allocated it.
    IKspl* other = KsplTestCreateInstance();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(v->KsoDestroyWorkItem(other, item), 0u);
    EXPECT_EQ(KsplInfo(k)->WorkItemInUse, 0u);
    EXPECT_EQ(KsplInfo(k)->MemoryPagedInUse, 0u);
    EXPECT_EQ(KsplInfo(other)->WorkItemInUse, 0u);
    EXPECT_EQ(other->lpVtbl->Release(other), 0u);
}

TEST_F(WorkItemTest, PendingItemIsQueuedOnceAndRefusesDestruction) {
    ASSERT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 8);
    Blocker b;
    std::vector<HANDLE> blockers = Occupy(&b, 8);

    Counter c;
    HANDLE item = nullptr;
    ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &c, &item), 0u);
    LogCapture log;
    StatusCapture statuses;
    EXPECT_EQ(v->KsoScheduleWorkItem(k, item, KSO_PRIORITY_REALTIME), 0u);
    EXPECT_EQ(v->KsoScheduleWorkItem(k, item, KSO_PRIORITY_NORMAL), KsplErr(0x1003));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1003), "KsoScheduleWorkItem"));
    EXPECT_EQ(QueuedItems(), 1u);

    EXPECT_EQ(v->KsoDestroyWorkItem(k, item), KsplErr(0x1003));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1003), "KsoDestroyWorkItem"));
    EXPECT_EQ(log.Count("KsoDestroyWorkItem: Work Item pending"), 1u);
    EXPECT_EQ(KsplInfo(k)->WorkItemInUse, 9u);  // eight blockers and the item

    Release(&b, blockers);
    EXPECT_TRUE(WaitFor([&] { return c.runs.load() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(c.runs.load(), 1) << "an item scheduled twice must run once";
    auto* rec = static_cast<KSO_WORK_ITEM_HANDLE*>(item);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(rec->schedQueue.Flink), KS_LIST_REMOVED_MARKER);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(rec->schedQueue.Blink), KS_LIST_REMOVED_MARKER);
    EXPECT_EQ(v->KsoDestroyWorkItem(k, item), 0u);
}

// Seven workers are held, so one worker takes every item: start order is
// then exactly dequeue order.
TEST_F(WorkItemTest, ItemsFromOneProducerStartInScheduleOrder) {
    Blocker b;
    std::vector<HANDLE> blockers = Occupy(&b, 7);

    constexpr int kItems = 200;
    struct Ctx {
        int index;
        std::mutex* m;
        std::vector<int>* order;
    };
    std::mutex m;
    std::vector<int> order;
    std::vector<Ctx> ctx(kItems);
    std::vector<HANDLE> items(kItems);
    auto record = [](HANDLE, PVOID p) {
        auto* c = static_cast<Ctx*>(p);
        std::lock_guard<std::mutex> guard(*c->m);
        c->order->push_back(c->index);
    };
    for (int i = 0; i < kItems; ++i) {
        ctx[i] = {i, &m, &order};
        ASSERT_EQ(v->KsoAllocWorkItem(k, record, &ctx[i], &items[i]), 0u);
    }
    for (int i = 0; i < kItems; ++i) ASSERT_EQ(v->KsoScheduleWorkItem(k, items[i], i % 3), 0u);
    ASSERT_TRUE(WaitFor([&] {
        std::lock_guard<std::mutex> guard(m);
        return order.size() == kItems;
    }));
    for (int i = 0; i < kItems; ++i) EXPECT_EQ(order[i], i);
    Release(&b, blockers);
    for (HANDLE h : items) EXPECT_EQ(v->KsoDestroyWorkItem(k, h), 0u);
}

TEST_F(WorkItemTest, NothingIsLostWhileEveryWorkerIsBusy) {
    Blocker b;
    std::vector<HANDLE> blockers = Occupy(&b, 8);
    constexpr int kItems = 300;
    std::vector<Counter> counters(kItems);
    std::vector<HANDLE> items(kItems);
    for (int i = 0; i < kItems; ++i) {
        ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &counters[i], &items[i]), 0u);
        ASSERT_EQ(v->KsoScheduleWorkItem(k, items[i], KSO_PRIORITY_NORMAL), 0u);
    }
    EXPECT_EQ(QueuedItems(), static_cast<size_t>(kItems));
    Release(&b, blockers);
    ASSERT_TRUE(WaitFor([&] { return QueuedItems() == 0; }));
    for (int i = 0; i < kItems; ++i) {
        EXPECT_TRUE(WaitFor([&] { return counters[i].runs.load() == 1; })) << i;
    }
    for (HANDLE h : items) EXPECT_EQ(v->KsoDestroyWorkItem(k, h), 0u);
    for (int i = 0; i < kItems; ++i) EXPECT_EQ(counters[i].runs.load(), 1) << i;
}

// Ping-pong: each schedule races with the worker that has just finished and
// is going back to sleep. A lost wake-up leaves an item queued for good.
TEST_F(WorkItemTest, NoWakeUpIsLostWhenWorkersGoIdle) {
    struct Ctx {
        std::mutex m;
        std::condition_variable cv;
        int done = 0;
    } ctx;
    HANDLE item = nullptr;
    ASSERT_EQ(v->KsoAllocWorkItem(
                  k,
                  [](HANDLE, PVOID p) {
                      auto* c = static_cast<Ctx*>(p);
                      std::lock_guard<std::mutex> guard(c->m);
                      ++c->done;
                      c->cv.notify_one();
                  },
                  &ctx, &item),
              0u);
    for (int round = 1; round <= 3000; ++round) {
        // The previous run has signalled, so the item is no longer pending.
        ASSERT_EQ(v->KsoScheduleWorkItem(k, item, KSO_PRIORITY_NORMAL), 0u);
        std::unique_lock<std::mutex> lock(ctx.m);
        ASSERT_TRUE(ctx.cv.wait_for(lock, std::chrono::seconds(30), [&] { return ctx.done == round; }))
            << "round " << round << " never ran";
    }
    EXPECT_EQ(v->KsoDestroyWorkItem(k, item), 0u);
}

// Each producer reschedules its own items as soon as their previous run has
// started; every schedule must be accepted and every accepted schedule must
// run exactly once.
TEST_F(WorkItemTest, ManyProducersEveryScheduleRunsExactlyOnce) {
    constexpr int kProducers = 4;
    constexpr int kItemsPerProducer = 16;
    constexpr int kSchedulesPerProducer = 4000;
    struct Item {
        HANDLE h = nullptr;
        std::atomic<int> runs{0};
        int scheduled = 0;
    };
    std::vector<std::vector<Item>> items(kProducers);
    for (auto& list : items) {
        list = std::vector<Item>(kItemsPerProducer);
        for (Item& it : list) {
            ASSERT_EQ(v->KsoAllocWorkItem(
                          k, [](HANDLE, PVOID p) { static_cast<Item*>(p)->runs.fetch_add(1); }, &it,
                          &it.h),
                      0u);
        }
    }
    std::atomic<int> refused{0};
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            int done = 0;
            size_t i = 0;
            while (done < kSchedulesPerProducer) {
                Item& it = items[p][i++ % kItemsPerProducer];
                if (it.runs.load() != it.scheduled) continue;  // previous run not started
                if (v->KsoScheduleWorkItem(k, it.h, static_cast<KSO_PRIORITY>(done % 3)) != 0) {
                    refused.fetch_add(1);
                    return;
                }
                ++it.scheduled;
                ++done;
            }
        });
    }
    for (auto& t : producers) t.join();
    EXPECT_EQ(refused.load(), 0);
    for (auto& list : items) {
        for (Item& it : list) {
            EXPECT_TRUE(WaitFor([&] { return it.runs.load() >= it.scheduled; }));
        }
    }
    ASSERT_TRUE(WaitFor([] { return QueuedItems() == 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    int total = 0;
    for (auto& list : items) {
        for (Item& it : list) {
            EXPECT_EQ(it.runs.load(), it.scheduled);
            total += it.runs.load();
            EXPECT_EQ(v->KsoDestroyWorkItem(k, it.h), 0u);
        }
    }
    EXPECT_EQ(total, kProducers * kSchedulesPerProducer);
}

struct SelfCtx {
    IKspl* k;
    std::atomic<int> runs{0};
    int wanted;
    std::atomic<bool> destroyed{false};
    std::atomic<int> failures{0};
};

TEST_F(WorkItemTest, RoutineMayRescheduleAndThenDestroyItsOwnItem) {
    SelfCtx ctx;
    ctx.k = k;
    ctx.wanted = 25;
    HANDLE item = nullptr;
    ASSERT_EQ(v->KsoAllocWorkItem(
                  k,
                  [](HANDLE h, PVOID p) {
                      auto* c = static_cast<SelfCtx*>(p);
                      int n = c->runs.fetch_add(1) + 1;
                      IKspl* ck = c->k;
                      if (n < c->wanted) {
                          // Running means no longer pending: rescheduling is
                          // allowed. Once it is accepted the next run may
                          // already own the context.
                          if (ck->lpVtbl->KsoScheduleWorkItem(ck, h, 1) != 0) c->failures++;
                      } else {
                          if (ck->lpVtbl->KsoDestroyWorkItem(ck, h) != 0) c->failures++;
                          c->destroyed.store(true);
                      }
                  },
                  &ctx, &item),
              0u);
    ASSERT_EQ(v->KsoScheduleWorkItem(k, item, 1), 0u);
    ASSERT_TRUE(WaitFor([&] { return ctx.destroyed.load(); }));
    EXPECT_EQ(ctx.runs.load(), 25);
    EXPECT_EQ(ctx.failures.load(), 0);
    EXPECT_EQ(KsplInfo(k)->WorkItemInUse, 0u);  // the record went with it
    EXPECT_EQ(KsplInfo(k)->MemoryPagedInUse, 0u);
}

TEST(KsoSleepTest, SleepsTheWholeIntervalEvenWhenInterrupted) {
    struct sigaction sa {};
    sa.sa_handler = [](int) {};
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no restart: the sleep really is interrupted
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);

    std::atomic<bool> asleep{false};
    std::chrono::nanoseconds slept{};
    std::thread sleeper([&] {
        asleep.store(true);
        auto t0 = Clock::now();
        KsoSleep(nullptr, 400000);
        slept = Clock::now() - t0;
    });
    ASSERT_TRUE(WaitFor([&] { return asleep.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    pthread_kill(sleeper.native_handle(), SIGUSR1);
    sleeper.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_GE(slept, std::chrono::milliseconds(400));

    auto t0 = Clock::now();
    KsoSleep(nullptr, 2500000);
    auto elapsed = Clock::now() - t0;
    EXPECT_GE(elapsed, std::chrono::microseconds(2500000));
    EXPECT_LT(elapsed, std::chrono::seconds(10));
}

// ---------------------------------------------------------------------------
// Shutdown and fork. These run in a forked child so that the test process
// keeps its pools.

IKspl* g_childInstance = nullptr;

TEST_F(WorkItemTest, StopRequestEndsEveryWorkerOnceRunningRoutinesReturn) {
    KSPL_SKIP_UNLESS_CHILD_MAY_START_THREADS();
    g_childInstance = k;
    int rc = KsplRunInChild([] {
        IKspl* ck = g_childInstance;
        // The child has none of the parent's threads until it schedules.
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 0);
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumTimerThreads), 0);
        static Blocker b;
        HANDLE item = nullptr;
        ASSERT_EQ(ck->lpVtbl->KsoAllocWorkItem(ck, BlockRoutine, &b, &item), 0u);
        ASSERT_EQ(ck->lpVtbl->KsoScheduleWorkItem(ck, item, 1), 0u);
        ASSERT_TRUE(WaitFor([] { return b.started.load() == 1; }));
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 8);
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumTimerThreads), 1);

        // Queued behind the stop request: must not run.
        static Counter late;
        HANDLE lateItem = nullptr;
        ASSERT_EQ(ck->lpVtbl->KsoAllocWorkItem(ck, CountRoutine, &late, &lateItem), 0u);

        UnInitTimerInfrastructure();
        UnInitWorkItemInfrastructure();
        EXPECT_TRUE(WaitFor([] { return KsAtomicLoad(&g_KsplNumTimerThreads) == 0; }));
        // The seven idle workers leave; the busy one stays in its routine.
        EXPECT_TRUE(WaitFor([] { return KsAtomicLoad(&g_KsplNumWorkItemThreads) == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 1);
        b.gate.Open();
        EXPECT_TRUE(WaitFor([] { return KsAtomicLoad(&g_KsplNumWorkItemThreads) == 0; }));

        // After the stop, scheduling no longer starts a pool.
        EXPECT_EQ(ck->lpVtbl->KsoScheduleWorkItem(ck, lateItem, 1), 0u);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(late.runs.load(), 0);
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 0);
        EXPECT_EQ(ck->lpVtbl->KsoDestroyWorkItem(ck, item), 0u);
    });
    EXPECT_EQ(rc, 0);
}

// An item still queued at a fork is the parent's work: the child's pool
// never runs it there, and in the child it is idle (destroyable).
HANDLE g_queuedAtFork = nullptr;
Counter g_queuedRuns;

TEST_F(WorkItemTest, ItemsQueuedAtForkRunOnlyInTheParent) {
    KSPL_SKIP_UNLESS_CHILD_MAY_START_THREADS();
    g_childInstance = k;
    Blocker b;
    std::vector<HANDLE> busy = Occupy(&b, 8);  // every worker: the item stays queued
    g_queuedRuns.runs = 0;
    ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &g_queuedRuns, &g_queuedAtFork), 0u);
    ASSERT_EQ(v->KsoScheduleWorkItem(k, g_queuedAtFork, KSO_PRIORITY_NORMAL), 0u);
    int rc = KsplRunInChild([] {
        alarm(60);
        IKspl* ck = g_childInstance;
        EXPECT_EQ(QueuedItems(), 0u);
        static Counter own;
        HANDLE mine = nullptr;
        ASSERT_EQ(ck->lpVtbl->KsoAllocWorkItem(ck, CountRoutine, &own, &mine), 0u);
        ASSERT_EQ(ck->lpVtbl->KsoScheduleWorkItem(ck, mine, KSO_PRIORITY_NORMAL), 0u);
        EXPECT_TRUE(WaitFor([] { return own.runs.load() == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(g_queuedRuns.runs.load(), 0);
        EXPECT_EQ(ck->lpVtbl->KsoDestroyWorkItem(ck, g_queuedAtFork), 0u);
        EXPECT_EQ(ck->lpVtbl->KsoDestroyWorkItem(ck, mine), 0u);
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(QueuedItems(), 1u);
    Release(&b, busy);
    EXPECT_TRUE(WaitFor([] { return g_queuedRuns.runs.load() == 1; }));
    EXPECT_TRUE(WaitFor([&] { return v->KsoDestroyWorkItem(k, g_queuedAtFork) == 0; }));
}

TEST_F(WorkItemTest, ForkedChildRunsItemsAndStops) {
    g_childInstance = k;
    // A child that never schedules: stopping must not wait for the parent's
    // threads.
    int rc = KsplRunInChild([] {
        alarm(60);
        DllStop();
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 0);
    });
    EXPECT_EQ(rc, 0);
    KSPL_SKIP_UNLESS_CHILD_MAY_START_THREADS();

    rc = KsplRunInChild([] {
        alarm(120);
        IKspl* ck = g_childInstance;
        static Counter c;
        std::vector<HANDLE> items(50);
        for (HANDLE& h : items) {
            ASSERT_EQ(ck->lpVtbl->KsoAllocWorkItem(ck, CountRoutine, &c, &h), 0u);
            ASSERT_EQ(ck->lpVtbl->KsoScheduleWorkItem(ck, h, 1), 0u);
        }
        EXPECT_TRUE(WaitFor([] { return c.runs.load() == 50; }));
        for (HANDLE h : items) EXPECT_EQ(ck->lpVtbl->KsoDestroyWorkItem(ck, h), 0u);
        DllStop();
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 0);
        EXPECT_EQ(KsAtomicLoad(&g_KsplNumTimerThreads), 0);
    });
    EXPECT_EQ(rc, 0);

    // The parent's pool is untouched by its children.
    EXPECT_EQ(KsAtomicLoad(&g_KsplNumWorkItemThreads), 8);
    Counter c;
    HANDLE h = nullptr;
    ASSERT_EQ(v->KsoAllocWorkItem(k, CountRoutine, &c, &h), 0u);
    ASSERT_EQ(v->KsoScheduleWorkItem(k, h, 1), 0u);
    EXPECT_TRUE(WaitFor([&] { return c.runs.load() == 1; }));
    EXPECT_EQ(v->KsoDestroyWorkItem(k, h), 0u);
}

}  // namespace
