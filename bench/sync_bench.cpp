// Locks, events and threads beside the raw pthread primitives (and GLib and
// APR where present), with the ratios printed after the run.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <syslog.h>

#include <atomic>
#include <thread>

#include "bench_support.h"

#ifdef KSPL_HAVE_GLIB
#include <glib.h>
#endif
#ifdef KSPL_HAVE_APR
#include <apr_general.h>
#include <apr_thread_cond.h>
#include <apr_thread_mutex.h>
#endif

namespace {

IKspl* Shared() {
    static IKspl* k = BenchInstance();
    return k;
}

// ---------------------------------------------------------------------------
// Uncontended mutex
// ---------------------------------------------------------------------------

void BM_KsoMutex(benchmark::State& state) {
    IKspl* k = Shared();
    const IKsplVtbl* v = k->lpVtbl;
    HANDLE m = nullptr;
    v->KsoAllocMutex(k, 0, &m);
    for (auto _ : state) {
        v->KsoAcquireMutex(k, m);
        v->KsoReleaseMutex(k, m);
    }
    v->KsoDestroyMutex(k, m);
}
BENCHMARK(BM_KsoMutex);

void BM_PthreadRecursiveMutex(benchmark::State& state) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_t m;
    pthread_mutex_init(&m, &attr);
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
        benchmark::ClobberMemory();
    }
    pthread_mutex_destroy(&m);
}
BENCHMARK(BM_PthreadRecursiveMutex);

void BM_KsoSpinLock(benchmark::State& state) {
    IKspl* k = Shared();
    const IKsplVtbl* v = k->lpVtbl;
    HANDLE s = nullptr;
    v->KsoAllocSpinLock(k, &s);
    for (auto _ : state) {
        KSSPIN_STATE prev;
        v->KsoAcquireSpinLock(k, s, &prev);
        v->KsoReleaseSpinLock(k, s, prev);
    }
    v->KsoDestroySpinLock(k, s);
}
BENCHMARK(BM_KsoSpinLock);

void BM_PthreadMutex(benchmark::State& state) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_PthreadMutex);

// ---------------------------------------------------------------------------
// Ping-pong between two threads: one round = one hand-over each way
// ---------------------------------------------------------------------------

void BM_KsoEventPingPong(benchmark::State& state) {
    IKspl* k = Shared();
    const IKsplVtbl* v = k->lpVtbl;
    HANDLE ping = nullptr, pong = nullptr;
    v->KsoAllocEvent(k, KsoSynchronizationEvent, &ping);
    v->KsoAllocEvent(k, KsoSynchronizationEvent, &pong);
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (;;) {
            v->KsoWaitForSingleEvent(k, ping, -1);
            if (stop.load(std::memory_order_relaxed)) break;
            v->KsoSignalEvent(k, pong, nullptr);
        }
    });
    for (auto _ : state) {
        v->KsoSignalEvent(k, ping, nullptr);
        v->KsoWaitForSingleEvent(k, pong, -1);
    }
    stop = true;
    v->KsoSignalEvent(k, ping, nullptr);
    partner.join();
    v->KsoDestroyEvent(k, ping);
    v->KsoDestroyEvent(k, pong);
}
BENCHMARK(BM_KsoEventPingPong)->UseRealTime();

// The same hand-over written directly: a flag per direction under one
// mutex, one condition variable per direction.
struct PthreadPingPong {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t pingCond = PTHREAD_COND_INITIALIZER;
    pthread_cond_t pongCond = PTHREAD_COND_INITIALIZER;
    bool ping = false, pong = false, stop = false;
};

void BM_PthreadCondPingPong(benchmark::State& state) {
    PthreadPingPong p;
    std::thread partner([&] {
        pthread_mutex_lock(&p.mutex);
        for (;;) {
            while (!p.ping) pthread_cond_wait(&p.pingCond, &p.mutex);
            p.ping = false;
            if (p.stop) break;
            p.pong = true;
            pthread_cond_signal(&p.pongCond);
        }
        pthread_mutex_unlock(&p.mutex);
    });
    for (auto _ : state) {
        pthread_mutex_lock(&p.mutex);
        p.ping = true;
        pthread_cond_signal(&p.pingCond);
        while (!p.pong) pthread_cond_wait(&p.pongCond, &p.mutex);
        p.pong = false;
        pthread_mutex_unlock(&p.mutex);
    }
    pthread_mutex_lock(&p.mutex);
    p.stop = p.ping = true;
    pthread_cond_signal(&p.pingCond);
    pthread_mutex_unlock(&p.mutex);
    partner.join();
}
BENCHMARK(BM_PthreadCondPingPong)->UseRealTime();

#ifdef KSPL_HAVE_GLIB
void BM_GlibCondPingPong(benchmark::State& state) {
    GMutex mutex;
    GCond pingCond, pongCond;
    g_mutex_init(&mutex);
    g_cond_init(&pingCond);
    g_cond_init(&pongCond);
    bool ping = false, pong = false, stop = false;
    std::thread partner([&] {
        g_mutex_lock(&mutex);
        for (;;) {
            while (!ping) g_cond_wait(&pingCond, &mutex);
            ping = false;
            if (stop) break;
            pong = true;
            g_cond_signal(&pongCond);
        }
        g_mutex_unlock(&mutex);
    });
    for (auto _ : state) {
        g_mutex_lock(&mutex);
        ping = true;
        g_cond_signal(&pingCond);
        while (!pong) g_cond_wait(&pongCond, &mutex);
        pong = false;
        g_mutex_unlock(&mutex);
    }
    g_mutex_lock(&mutex);
    stop = ping = true;
    g_cond_signal(&pingCond);
    g_mutex_unlock(&mutex);
    partner.join();
    g_cond_clear(&pingCond);
    g_cond_clear(&pongCond);
    g_mutex_clear(&mutex);
}
BENCHMARK(BM_GlibCondPingPong)->UseRealTime();
#endif

#ifdef KSPL_HAVE_APR
void BM_AprCondPingPong(benchmark::State& state) {
    static bool initialised = apr_initialize() == APR_SUCCESS;
    if (!initialised) {
        state.SkipWithError("apr_initialize failed");
        return;
    }
    apr_pool_t* pool = nullptr;
    apr_pool_create(&pool, nullptr);
    apr_thread_mutex_t* mutex = nullptr;
    apr_thread_cond_t *pingCond = nullptr, *pongCond = nullptr;
    apr_thread_mutex_create(&mutex, APR_THREAD_MUTEX_DEFAULT, pool);
    apr_thread_cond_create(&pingCond, pool);
    apr_thread_cond_create(&pongCond, pool);
    bool ping = false, pong = false, stop = false;
    std::thread partner([&] {
        apr_thread_mutex_lock(mutex);
        for (;;) {
            while (!ping) apr_thread_cond_wait(pingCond, mutex);
            ping = false;
            if (stop) break;
            pong = true;
            apr_thread_cond_signal(pongCond);
        }
        apr_thread_mutex_unlock(mutex);
    });
    for (auto _ : state) {
        apr_thread_mutex_lock(mutex);
        ping = true;
        apr_thread_cond_signal(pingCond);
        while (!pong) apr_thread_cond_wait(pongCond, mutex);
        pong = false;
        apr_thread_mutex_unlock(mutex);
    }
    apr_thread_mutex_lock(mutex);
    stop = ping = true;
    apr_thread_cond_signal(pingCond);
    apr_thread_mutex_unlock(mutex);
    partner.join();
    apr_pool_destroy(pool);
}
BENCHMARK(BM_AprCondPingPong)->UseRealTime();
#endif

// ---------------------------------------------------------------------------
// Wait-any over four events, one of them signalled per round
// ---------------------------------------------------------------------------

// Same thread: the signal lands before the wait, so the first scan finds it.
void BM_KsoWaitAnyFour(benchmark::State& state) {
    IKspl* k = Shared();
    const IKsplVtbl* v = k->lpVtbl;
    HANDLE events[4];
    for (auto& e : events) v->KsoAllocEvent(k, KsoSynchronizationEvent, &e);
    UINT32 round = 0;
    for (auto _ : state) {
        v->KsoSignalEvent(k, events[round % 4], nullptr);
        KSSTATUS index = v->KsoWaitForMultipleEvents(k, 4, events, FALSE, -1);
        benchmark::DoNotOptimize(index);
        ++round;
    }
    for (HANDLE e : events) v->KsoDestroyEvent(k, e);
}
BENCHMARK(BM_KsoWaitAnyFour);

// The same with the library's own log set-up (KSPL_DO_NOT_OVERWRITE_OPENLOG
// unset): every call still builds its code 1 status; with no log daemon
// neither set-up may turn that into system calls or console writes.
void BM_KsoWaitAnyFourLibraryLog(benchmark::State& state) {
    IKspl* k = Shared();
    unsetenv("KSPL_DO_NOT_OVERWRITE_OPENLOG");
    DllStart();
    BM_KsoWaitAnyFour(state);
    // Back to the host's (here glibc's default) settings for what follows.
    closelog();
    setenv("KSPL_DO_NOT_OVERWRITE_OPENLOG", "1", 1);
    (void)k;
}
BENCHMARK(BM_KsoWaitAnyFourLibraryLog);

// Hand-written: four flags under one mutex and one condition variable.
struct FourFlags {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    bool set[4] = {};
    void Signal(int i) {
        pthread_mutex_lock(&mutex);
        if (!set[i]) {
            set[i] = true;
            pthread_cond_broadcast(&cond);
        }
        pthread_mutex_unlock(&mutex);
    }
    int WaitAny() {
        pthread_mutex_lock(&mutex);
        int found = -1;
        for (;;) {
            for (int i = 0; i < 4 && found < 0; ++i) {
                if (set[i]) {
                    set[i] = false;
                    found = i;
                }
            }
            if (found >= 0) break;
            pthread_cond_wait(&cond, &mutex);
        }
        pthread_mutex_unlock(&mutex);
        return found;
    }
};

void BM_PthreadWaitAnyFour(benchmark::State& state) {
    FourFlags f;
    int round = 0;
    for (auto _ : state) {
        f.Signal(round % 4);
        int index = f.WaitAny();
        benchmark::DoNotOptimize(index);
        ++round;
    }
}
BENCHMARK(BM_PthreadWaitAnyFour);

// Across threads: the waiter sleeps (registrations on all four events), a
// partner signals one event per round and waits for an acknowledgement.
void BM_KsoWaitAnyFourAcrossThreads(benchmark::State& state) {
    IKspl* k = Shared();
    const IKsplVtbl* v = k->lpVtbl;
    HANDLE events[4], ack = nullptr;
    for (auto& e : events) v->KsoAllocEvent(k, KsoSynchronizationEvent, &e);
    v->KsoAllocEvent(k, KsoSynchronizationEvent, &ack);
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (UINT32 round = 0;; ++round) {
            v->KsoSignalEvent(k, events[round % 4], nullptr);
            v->KsoWaitForSingleEvent(k, ack, -1);
            if (stop.load(std::memory_order_relaxed)) break;
        }
    });
    for (auto _ : state) {
        KSSTATUS index = v->KsoWaitForMultipleEvents(k, 4, events, FALSE, -1);
        benchmark::DoNotOptimize(index);
        v->KsoSignalEvent(k, ack, nullptr);
    }
    // The partner has signalled once more; take it, then release the partner.
    v->KsoWaitForMultipleEvents(k, 4, events, FALSE, -1);
    stop = true;
    v->KsoSignalEvent(k, ack, nullptr);
    partner.join();
    for (HANDLE e : events) v->KsoDestroyEvent(k, e);
    v->KsoDestroyEvent(k, ack);
}
BENCHMARK(BM_KsoWaitAnyFourAcrossThreads)->UseRealTime();

void BM_PthreadWaitAnyFourAcrossThreads(benchmark::State& state) {
    FourFlags f;
    PthreadPingPong ackState;  // only `pong` (the acknowledgement) is used
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (int round = 0;; ++round) {
            f.Signal(round % 4);
            pthread_mutex_lock(&ackState.mutex);
            while (!ackState.pong) pthread_cond_wait(&ackState.pongCond, &ackState.mutex);
            ackState.pong = false;
            pthread_mutex_unlock(&ackState.mutex);
            if (stop.load(std::memory_order_relaxed)) break;
        }
    });
    auto acknowledge = [&] {
        pthread_mutex_lock(&ackState.mutex);
        ackState.pong = true;
        pthread_cond_signal(&ackState.pongCond);
        pthread_mutex_unlock(&ackState.mutex);
    };
    for (auto _ : state) {
        int index = f.WaitAny();
        benchmark::DoNotOptimize(index);
        acknowledge();
    }
    f.WaitAny();
    stop = true;
    acknowledge();
    partner.join();
}
BENCHMARK(BM_PthreadWaitAnyFourAcrossThreads)->UseRealTime();

// ---------------------------------------------------------------------------
// Thread life cycle
// ---------------------------------------------------------------------------

void NothingToDo(HANDLE, PVOID) {}

void BM_KsoThreadCreateWaitDestroy(benchmark::State& state) {
    IKspl* k = Shared();
    const IKsplVtbl* v = k->lpVtbl;
    for (auto _ : state) {
        HANDLE t = nullptr;
        if (v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, NothingToDo, nullptr, &t) != 0) {
            state.SkipWithError("KsoCreateThread failed");
            break;
        }
        v->KsoWaitForThreadExit(k, t, -1);
        v->KsoDestroyThread(k, t);
    }
}
BENCHMARK(BM_KsoThreadCreateWaitDestroy)->UseRealTime();

void* NothingToDoPthread(void*) { return nullptr; }

void BM_PthreadCreateJoin(benchmark::State& state) {
    for (auto _ : state) {
        pthread_t t;
        pthread_create(&t, nullptr, NothingToDoPthread, nullptr);
        pthread_join(t, nullptr);
    }
}
BENCHMARK(BM_PthreadCreateJoin)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    return BenchMain(argc, argv, "ratios kspl / reference:",
                     {{"BM_KsoMutex", "BM_PthreadRecursiveMutex"},
                      {"BM_KsoSpinLock", "BM_PthreadMutex"},
                      {"BM_KsoEventPingPong", "BM_PthreadCondPingPong"},
                      {"BM_KsoEventPingPong", "BM_GlibCondPingPong"},
                      {"BM_KsoEventPingPong", "BM_AprCondPingPong"},
                      {"BM_KsoWaitAnyFour", "BM_PthreadWaitAnyFour"},
                      {"BM_KsoWaitAnyFourLibraryLog", "BM_PthreadWaitAnyFour"},
                      {"BM_KsoWaitAnyFourAcrossThreads", "BM_PthreadWaitAnyFourAcrossThreads"},
                      {"BM_KsoThreadCreateWaitDestroy", "BM_PthreadCreateJoin"}});
}
