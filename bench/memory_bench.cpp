// Tracked memory beside malloc/free of the same size, and two threads on one
// instance beside two threads on two instances.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "bench_support.h"

namespace {

IKspl* Shared() {
    static IKspl* k = BenchInstance();
    return k;
}

void BM_MallocFree(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* p = std::malloc(size);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}
BENCHMARK(BM_MallocFree)->Arg(16)->Arg(256)->Arg(4096);

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
