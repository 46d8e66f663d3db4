// Tracked memory beside malloc/free of the same size and beside malloc/free
// with a lock's work around it (a pthread mutex, and the one-word spin lock
// the pools use: the least the bookkeeping can cost), and two threads on
// one instance beside two threads on two instances.
#include <benchmark/benchmark.h>

#include <pthread.h>

#include <atomic>
#include <cstdlib>

#include "bench_support.h"
#include "linklist_int.h"

namespace {

IKspl* Shared() {
    static IKspl* k = BenchInstance();
    return k;
}

// The library is started first in every benchmark: its threads make the
// process multi-threaded, after which the C library's allocator and
// mutexes use locked instructions. Measured before that, malloc and a
// pthread mutex would look cheaper than they are beside tracked memory.
void BM_MallocFree(benchmark::State& state) {
    (void)Shared();
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* p = std::malloc(size);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}
BENCHMARK(BM_MallocFree)->Arg(16)->Arg(256)->Arg(4096);

// The least a tracked block can cost: malloc + free plus the pool lock taken
// once at allocation and once at release (the owner's list and counters are
// changed under it), with the same list work.
void BM_MallocFreeLocked(benchmark::State& state) {
    (void)Shared();
    const size_t size = static_cast<size_t>(state.range(0));
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    LIST_ENTRY list;
    KsListInit(&list);
    UINT32 inUse = 0;
    for (auto _ : state) {
        auto* p = static_cast<PLIST_ENTRY>(std::malloc(size + sizeof(LIST_ENTRY)));
        benchmark::DoNotOptimize(p);
        pthread_mutex_lock(&lock);
        KsListInsertTail(&list, p);
        inUse += static_cast<UINT32>(size);
        pthread_mutex_unlock(&lock);
        pthread_mutex_lock(&lock);
        KsListRemove(p);
        inUse -= static_cast<UINT32>(size);
        pthread_mutex_unlock(&lock);
        std::free(p);
    }
    benchmark::DoNotOptimize(inUse);
    pthread_mutex_destroy(&lock);
}
BENCHMARK(BM_MallocFreeLocked)->Arg(16)->Arg(256)->Arg(4096);

// The same with a one-word spin lock (an exchange to take it, a store to
// give it back): two locked instructions per block is the floor of any
// design that keeps one list per pool under a lock.
void BM_MallocFreeSpinLocked(benchmark::State& state) {
    (void)Shared();
    const size_t size = static_cast<size_t>(state.range(0));
    std::atomic<UINT32> lock{0};
    LIST_ENTRY list;
    KsListInit(&list);
    UINT32 inUse = 0;
    for (auto _ : state) {
        auto* p = static_cast<PLIST_ENTRY>(std::malloc(size + sizeof(LIST_ENTRY)));
        benchmark::DoNotOptimize(p);
        while (lock.exchange(1, std::memory_order_acquire) != 0) {
        }
        KsListInsertTail(&list, p);
        inUse += static_cast<UINT32>(size);
        lock.store(0, std::memory_order_release);
        while (lock.exchange(1, std::memory_order_acquire) != 0) {
        }
        KsListRemove(p);
        inUse -= static_cast<UINT32>(size);
        lock.store(0, std::memory_order_release);
        std::free(p);
    }
    benchmark::DoNotOptimize(inUse);
}
BENCHMARK(BM_MallocFreeSpinLocked)->Arg(16)->Arg(256)->Arg(4096);

void BM_TrackedPagedAllocFree(benchmark::State& state) {
    IKspl* k = Shared();
    const UINT32 size = static_cast<UINT32>(state.range(0));
    for (auto _ : state) {
        void* p = k->lpVtbl->KsoAllocPagedMemory(k, size);
        benchmark::DoNotOptimize(p);
        k->lpVtbl->KsoFreeMemory(k, p);
    }
}
BENCHMARK(BM_TrackedPagedAllocFree)->Arg(16)->Arg(256)->Arg(4096);

// Two threads on one instance contend for its pool lock.
void BM_TrackedTwoThreadsOneInstance(benchmark::State& state) {
    IKspl* k = Shared();
    for (auto _ : state) {
        void* p = k->lpVtbl->KsoAllocPagedMemory(k, 64);
        benchmark::DoNotOptimize(p);
        k->lpVtbl->KsoFreeMemory(k, p);
    }
}
BENCHMARK(BM_TrackedTwoThreadsOneInstance)->Threads(2)->UseRealTime();

// Two threads on two instances share nothing.
void BM_TrackedTwoThreadsTwoInstances(benchmark::State& state) {
    static IKspl* instances[2] = {BenchInstance(), BenchInstance()};
    IKspl* k = instances[state.thread_index() % 2];
    for (auto _ : state) {
        void* p = k->lpVtbl->KsoAllocPagedMemory(k, 64);
        benchmark::DoNotOptimize(p);
        k->lpVtbl->KsoFreeMemory(k, p);
    }
}
BENCHMARK(BM_TrackedTwoThreadsTwoInstances)->Threads(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
