// schedule_bench - work items beside GLib's GThreadPool and a plain mutex +
// condition queue (8 threads each); timers beside timerfd.
//
//   WorkItems/<producers>      schedule-to-completion of kItems no-op items
//   *Latency                   schedule-to-start of one item on an idle pool
//   TimerSchedule/<pending>    KsoScheduleTimer + KsoCancelTimer with N pending
//   TimerLateness              1,000 timers of 10-500 ms: fire time - due time
#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "schedule_int.h"

#if defined(KSPL_HAVE_GLIB)
#include <glib.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kItems = 200000;
constexpr int kPoolThreads = 8;

std::atomic<int> g_done{0};
void NoOpItem(HANDLE, PVOID) { g_done.fetch_add(1, std::memory_order_relaxed); }

void WaitDone(int n) {
    while (g_done.load(std::memory_order_acquire) < n) std::this_thread::yield();
}

// Runs `body(producer)` on `producers` threads (the caller's thread is one).
template <class F>
void Produce(int producers, F body) {
    std::vector<std::thread> others;
    for (int p = 1; p < producers; ++p) others.emplace_back(body, p);
    body(0);
    for (auto& t : others) t.join();
}

// Percentile of samples in microseconds.
double Percentile(std::vector<double>& v, double q) {
    std::sort(v.begin(), v.end());
    return v[static_cast<size_t>(q * static_cast<double>(v.size() - 1))];
}

// ---------------------------------------------------------------------------
// Throughput.

void BM_KsplWorkItems(benchmark::State& state) {
    IKspl* k = BenchInstance();
    const int producers = static_cast<int>(state.range(0));
    std::vector<HANDLE> items(kItems);
    for (HANDLE& h : items) k->lpVtbl->KsoAllocWorkItem(k, NoOpItem, nullptr, &h);
    for (auto _ : state) {
        g_done.store(0);
        Produce(producers, [&](int p) {
            for (int i = p; i < kItems; i += producers) k->lpVtbl->KsoScheduleWorkItem(k, items[i], 1);
        });
        WaitDone(kItems);
    }
    for (HANDLE h : items) k->lpVtbl->KsoDestroyWorkItem(k, h);
    k->lpVtbl->Release(k);
    state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_KsplWorkItems)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// A plain FIFO: one mutex, one condition, eight threads; a push signals
// only when a thread waits.
class PlainQueue {
public:
    struct Node {
        Node* next;
        void (*fn)(Node*);
    };
    PlainQueue() {
        for (int i = 0; i < kPoolThreads; ++i) threads_.emplace_back([this] { Run(); });
    }
    ~PlainQueue() {
        {
            std::lock_guard<std::mutex> g(m_);
            stop_ = true;
        }
        cv_.notify_all();
        for (auto& t : threads_) t.join();
    }
    void Push(Node* n) {
        n->next = nullptr;
        bool wake;
        {
            std::lock_guard<std::mutex> g(m_);
            if (tail_ != nullptr) {
                tail_->next = n;
            } else {
                head_ = n;
            }
            tail_ = n;
            wake = idle_ > 0;
        }
        if (wake) cv_.notify_one();
    }

private:
    void Run() {
        std::unique_lock<std::mutex> lock(m_);
        for (;;) {
            while (head_ == nullptr && !stop_) {
                ++idle_;
                cv_.wait(lock);
                --idle_;
            }
            if (stop_) return;
            Node* n = head_;
            head_ = n->next;
            if (head_ == nullptr) tail_ = nullptr;
            lock.unlock();
            n->fn(n);
            lock.lock();
        }
    }
    std::mutex m_;
    std::condition_variable cv_;
    Node* head_ = nullptr;
    Node* tail_ = nullptr;
    int idle_ = 0;
    bool stop_ = false;
    std::vector<std::thread> threads_;
};

void BM_PlainQueue(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    PlainQueue q;
    std::vector<PlainQueue::Node> nodes(kItems);
    for (auto& n : nodes) n.fn = [](PlainQueue::Node*) { g_done.fetch_add(1, std::memory_order_relaxed); };
    for (auto _ : state) {
        g_done.store(0);
        Produce(producers, [&](int p) {
            for (int i = p; i < kItems; i += producers) q.Push(&nodes[i]);
        });
        WaitDone(kItems);
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_PlainQueue)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

#if defined(KSPL_HAVE_GLIB)
void GlibNoOp(gpointer, gpointer) { g_done.fetch_add(1, std::memory_order_relaxed); }

void BM_GThreadPool(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    GThreadPool* pool = g_thread_pool_new(GlibNoOp, nullptr, kPoolThreads, TRUE, nullptr);
    static int token;
    for (auto _ : state) {
        g_done.store(0);
        Produce(producers, [&](int p) {
            for (int i = p; i < kItems; i += producers) g_thread_pool_push(pool, &token, nullptr);
        });
        WaitDone(kItems);
    }
    g_thread_pool_free(pool, FALSE, TRUE);
    state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_GThreadPool)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

// ---------------------------------------------------------------------------
// Dispatch latency: one item at a time on an idle pool; the routine notes
// when it starts.

constexpr int kLatencySamples = 20000;
std::atomic<int64_t> g_startedNs{0};
int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

template <class Dispatch>
void MeasureLatency(benchmark::State& state, Dispatch dispatch) {
    std::vector<double> us;
    us.reserve(kLatencySamples);
    for (auto _ : state) {
        for (int i = 0; i < kLatencySamples; ++i) {
            g_startedNs.store(0);
            int64_t t0 = NowNs();
            dispatch();
            int64_t t1;
            while ((t1 = g_startedNs.load(std::memory_order_acquire)) == 0) {
            }
            us.push_back(static_cast<double>(t1 - t0) / 1000.0);
            // Let the worker go back to sleep: every sample includes a wake-up.
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }
    state.counters["median_us"] = Percentile(us, 0.5);
    state.counters["p99_us"] = Percentile(us, 0.99);
}

void BM_KsplWorkItemLatency(benchmark::State& state) {
    IKspl* k = BenchInstance();
    HANDLE h = nullptr;
    k->lpVtbl->KsoAllocWorkItem(
        k, [](HANDLE, PVOID) { g_startedNs.store(NowNs(), std::memory_order_release); }, nullptr, &h);
    MeasureLatency(state, [&] { k->lpVtbl->KsoScheduleWorkItem(k, h, 1); });
    while (__atomic_load_n(&static_cast<KSO_WORK_ITEM_HANDLE*>(h)->pending, __ATOMIC_ACQUIRE)) {
    }
    k->lpVtbl->KsoDestroyWorkItem(k, h);
    k->lpVtbl->Release(k);
}
BENCHMARK(BM_KsplWorkItemLatency)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_PlainQueueLatency(benchmark::State& state) {
    PlainQueue q;
    PlainQueue::Node n{nullptr, [](PlainQueue::Node*) { g_startedNs.store(NowNs(), std::memory_order_release); }};
    MeasureLatency(state, [&] { q.Push(&n); });
}
BENCHMARK(BM_PlainQueueLatency)->Iterations(1)->Unit(benchmark::kMillisecond);

#if defined(KSPL_HAVE_GLIB)
void BM_GThreadPoolLatency(benchmark::State& state) {
    GThreadPool* pool = g_thread_pool_new(
        [](gpointer, gpointer) { g_startedNs.store(NowNs(), std::memory_order_release); }, nullptr,
        kPoolThreads, TRUE, nullptr);
    static int token;
    MeasureLatency(state, [&] { g_thread_pool_push(pool, &token, nullptr); });
    g_thread_pool_free(pool, FALSE, TRUE);
}
BENCHMARK(BM_GThreadPoolLatency)->Iterations(1)->Unit(benchmark::kMillisecond);
#endif

// ---------------------------------------------------------------------------
// Timers: scheduling cost with N timers pending. Each iteration schedules
// and cancels one timer due before all pending ones.

void NoOpTimer(HANDLE, PVOID) {}

void BM_KsoScheduleTimer(benchmark::State& state) {
    IKspl* k = BenchInstance();
    const int pending = static_cast<int>(state.range(0));
    std::vector<HANDLE> timers(pending);
    std::mt19937 rng(1);
    for (HANDLE& h : timers) {
        k->lpVtbl->KsoAllocTimer(k, NoOpTimer, nullptr, FALSE, &h);
        k->lpVtbl->KsoScheduleTimer(k, h, 500000000ull + rng() % 500000000ull);  // 500-1000 s
    }
    // Let the timer thread merge them into the main queue.
    for (;;) {
        bool merged;
        {
            KsMutexGuard guard(&g_KsplTimerQueueMutex);
            merged = g_KsplTimerFeededQueHeadPtr == nullptr;
        }
        if (merged) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    HANDLE t = nullptr;
    k->lpVtbl->KsoAllocTimer(k, NoOpTimer, nullptr, FALSE, &t);
    for (auto _ : state) {
        k->lpVtbl->KsoScheduleTimer(k, t, 100000000ull);  // 100 s
        benchmark::DoNotOptimize(k->lpVtbl->KsoCancelTimer(k, t));
    }
    k->lpVtbl->KsoDestroyTimer(k, t);
    for (HANDLE h : timers) {
        k->lpVtbl->KsoCancelTimer(k, h);
        k->lpVtbl->KsoDestroyTimer(k, h);
    }
    k->lpVtbl->Release(k);
}
BENCHMARK(BM_KsoScheduleTimer)->Arg(1)->Arg(1000)->Arg(100000);

void BM_TimerfdArmDisarm(benchmark::State& state) {
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    struct itimerspec arm = {{0, 0}, {100, 0}};
    struct itimerspec disarm = {{0, 0}, {0, 0}};
    for (auto _ : state) {
        timerfd_settime(fd, 0, &arm, nullptr);
        timerfd_settime(fd, 0, &disarm, nullptr);
    }
    close(fd);
}
BENCHMARK(BM_TimerfdArmDisarm);

// ---------------------------------------------------------------------------
// Lateness: 1,000 timers of random delays 10-500 ms, all scheduled at once.
// Lateness = fire time - (schedule time + delay); negative is early (the
// delay is rounded down to whole 10 ms ticks).

constexpr int kLateTimers = 1000;

struct LateTimer {
    int64_t dueNs;
    int64_t firedNs;
};

void ReportLateness(benchmark::State& state, std::vector<LateTimer>& t) {
    std::vector<double> ms;
    for (const LateTimer& x : t) ms.push_back(static_cast<double>(x.firedNs - x.dueNs) / 1e6);
    state.counters["median_ms"] = Percentile(ms, 0.5);
    state.counters["p99_ms"] = Percentile(ms, 0.99);
    std::vector<double> abs;
    for (double m : ms) abs.push_back(m < 0 ? -m : m);
    state.counters["p99_abs_ms"] = Percentile(abs, 0.99);
}

void BM_KsplTimerLateness(benchmark::State& state) {
    IKspl* k = BenchInstance();
    std::vector<LateTimer> late(kLateTimers);
    std::vector<HANDLE> timers(kLateTimers);
    std::atomic<int> fired{0};
    struct Ctx {
        LateTimer* t;
        std::atomic<int>* fired;
    };
    std::vector<Ctx> ctx(kLateTimers);
    for (int i = 0; i < kLateTimers; ++i) {
        ctx[i] = {&late[i], &fired};
        k->lpVtbl->KsoAllocTimer(
            k,
            [](HANDLE, PVOID p) {
                auto* c = static_cast<Ctx*>(p);
                c->t->firedNs = NowNs();
                c->fired->fetch_add(1, std::memory_order_release);
            },
            &ctx[i], FALSE, &timers[i]);
    }
    std::mt19937 rng(3);
    for (auto _ : state) {
        fired.store(0);
        for (int i = 0; i < kLateTimers; ++i) {
            UINT64 us = 10000 + rng() % 490001;
            late[i].dueNs = NowNs() + static_cast<int64_t>(us) * 1000;
            k->lpVtbl->KsoScheduleTimer(k, timers[i], us);
        }
        while (fired.load(std::memory_order_acquire) < kLateTimers) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ReportLateness(state, late);
    for (HANDLE h : timers) k->lpVtbl->KsoDestroyTimer(k, h);
    k->lpVtbl->Release(k);
}
BENCHMARK(BM_KsplTimerLateness)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TimerfdLateness(benchmark::State& state) {
    std::vector<LateTimer> late(kLateTimers);
    std::vector<int> fds(kLateTimers);
    int ep = epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i < kLateTimers; ++i) {
        fds[i] = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
        struct epoll_event ev {};
        ev.events = EPOLLIN;
        ev.data.u32 = static_cast<uint32_t>(i);
        epoll_ctl(ep, EPOLL_CTL_ADD, fds[i], &ev);
    }
    std::mt19937 rng(3);
    for (auto _ : state) {
        for (int i = 0; i < kLateTimers; ++i) {
            UINT64 us = 10000 + rng() % 490001;
            late[i].dueNs = NowNs() + static_cast<int64_t>(us) * 1000;
            struct itimerspec arm = {{0, 0},
                                     {static_cast<time_t>(us / 1000000),
                                      static_cast<long>(us % 1000000) * 1000}};
            timerfd_settime(fds[i], 0, &arm, nullptr);
        }
        int fired = 0;
        struct epoll_event evs[64];
        while (fired < kLateTimers) {
            int n = epoll_wait(ep, evs, 64, -1);
            int64_t now = NowNs();
            for (int j = 0; j < n; ++j) {
                uint64_t expirations;
                if (read(fds[evs[j].data.u32], &expirations, sizeof(expirations)) > 0) {
                    late[evs[j].data.u32].firedNs = now;
                    ++fired;
                }
            }
        }
    }
    ReportLateness(state, late);
    for (int fd : fds) close(fd);
    close(ep);
}
BENCHMARK(BM_TimerfdLateness)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Refused schedules: a timer that is already pending, and a work item that is
// still queued, are refused as busy. The refusal builds a status (and used to
// send its log line, with nobody listening, through glibc's socket attempts
// and console fallback); it should cost no more than a few microseconds.
void BM_KsoScheduleTimerRefusedPending(benchmark::State& state) {
    IKspl* k = BenchInstance();
    HANDLE t = nullptr;
    k->lpVtbl->KsoAllocTimer(k, NoOpTimer, nullptr, FALSE, &t);
    k->lpVtbl->KsoScheduleTimer(k, t, 1000000000ull);  // 1000 s: pending throughout
    for (auto _ : state) {
        benchmark::DoNotOptimize(k->lpVtbl->KsoScheduleTimer(k, t, 1000000000ull));
    }
    k->lpVtbl->KsoCancelTimer(k, t);
    k->lpVtbl->KsoDestroyTimer(k, t);
    k->lpVtbl->Release(k);
}
BENCHMARK(BM_KsoScheduleTimerRefusedPending);

// Occupies every work-item thread until released, so that an item queued
// meanwhile stays queued.
struct WorkerBlocker {
    std::mutex mutex;
    std::condition_variable cv;
    int started = 0;
    bool release = false;
    static void Routine(HANDLE, PVOID context) {
        auto* self = static_cast<WorkerBlocker*>(context);
        std::unique_lock<std::mutex> lock(self->mutex);
        ++self->started;
        self->cv.notify_all();
        self->cv.wait(lock, [self] { return self->release; });
    }
};

void NoOpWork(HANDLE, PVOID) {}

void BM_KsoScheduleWorkItemRefusedQueued(benchmark::State& state) {
    IKspl* k = BenchInstance();
    WorkerBlocker blocker;
    const int workers = g_KsplMaxWorkItemThreads;
    std::vector<HANDLE> blockers(workers);
    for (HANDLE& h : blockers) {
        k->lpVtbl->KsoAllocWorkItem(k, WorkerBlocker::Routine, &blocker, &h);
        k->lpVtbl->KsoScheduleWorkItem(k, h, KSO_PRIORITY_NORMAL);
    }
    {
        std::unique_lock<std::mutex> lock(blocker.mutex);
        blocker.cv.wait(lock, [&] { return blocker.started == workers; });
    }
    HANDLE item = nullptr;
    k->lpVtbl->KsoAllocWorkItem(k, NoOpWork, nullptr, &item);
    k->lpVtbl->KsoScheduleWorkItem(k, item, KSO_PRIORITY_NORMAL);
    for (auto _ : state) {
        benchmark::DoNotOptimize(k->lpVtbl->KsoScheduleWorkItem(k, item, KSO_PRIORITY_NORMAL));
    }
    {
        std::lock_guard<std::mutex> lock(blocker.mutex);
        blocker.release = true;
    }
    blocker.cv.notify_all();
    // Destruction is refused while an item is queued or running.
    for (HANDLE h : blockers) {
        while (k->lpVtbl->KsoDestroyWorkItem(k, h) != 0) std::this_thread::yield();
    }
    while (k->lpVtbl->KsoDestroyWorkItem(k, item) != 0) std::this_thread::yield();
    k->lpVtbl->Release(k);
}
BENCHMARK(BM_KsoScheduleWorkItemRefusedQueued)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
