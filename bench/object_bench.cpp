// The object store beside a std::unordered_map of the same objects under a
// std::shared_mutex: create + delete, reference by handle + dereference and
// find by key + dereference (one and two threads), with objects per second
// and the ratios printed after the run.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench_support.h"
#include "object_int.h"

namespace {

constexpr UINT32 kObjects = 1024;
constexpr UINT32 kChains = 1024;

struct Payload {
    UINT32 key;
    UINT32 value;
    UINT64 pad[2];
};

KSSTATUS InitPayload(PVOID user, PVOID init) {
    static_cast<Payload*>(user)->key = static_cast<UINT32>(reinterpret_cast<uintptr_t>(init));
    return 0;
}
BOOLEAN SameKey(PVOID user, PVOID key) {
    return static_cast<Payload*>(user)->key == static_cast<UINT32>(reinterpret_cast<uintptr_t>(key))
               ? TRUE
               : FALSE;
}
PVOID Key(UINT32 k) { return reinterpret_cast<PVOID>(static_cast<uintptr_t>(k)); }

IOM* NewStore(UINT32 permBlocks = 0) {
    (void)BenchInstance();  // starts the library
    ORLM_IClassFactory* factory = nullptr;
    GUID clsid = CLSID_ObjectManagerDataStore;
    GUID cf = IID_IClassFactory;
    if (DllGetClassObject(&clsid, &cf, reinterpret_cast<PVOID*>(&factory)) != 0) std::abort();
    IOM* om = nullptr;
    if (factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IObjectManager_1,
                                        reinterpret_cast<void**>(&om)) != 0) {
        std::abort();
    }
    factory->lpVtbl->Release(factory);
    if (om->lpVtbl->Initialize(om, sizeof(Payload), 64, OM_LEVEL_RWLOCK, kChains, nullptr, nullptr,
                               nullptr, permBlocks) != 0) {
        std::abort();
    }
    return om;
}

// A store holding kObjects objects (keys 0..kObjects-1), with their handles.
struct Populated {
    IOM* om = NewStore();
    std::vector<HANDLE> handles;
    Populated() {
        for (UINT32 k = 0; k < kObjects; ++k) {
            PVOID user = nullptr;
            om->lpVtbl->CreateObject(om, Key(k), InitPayload, Key(k), SameKey, k % kChains, 0, 0,
                                     &user, nullptr);
            HANDLE h = nullptr;
            om->lpVtbl->GetObjectHandle(om, user, &h);
            handles.push_back(h);
            om->lpVtbl->DereferenceObject(om, user, 0);
        }
    }
};
Populated& Shared() {
    static Populated p;
    return p;
}

// The reference: the same objects in a hash map keyed by handle (or key),
// reference-counted, guarded by a reader-writer mutex.
struct MapEntry {
    Payload payload{};
    std::atomic<UINT32> refs{0};
};
struct RefMap {
    std::shared_mutex mutex;
    std::unordered_map<UINT32, MapEntry> map;
    RefMap() {
        for (UINT32 k = 0; k < kObjects; ++k) map[k].payload.key = k;
    }
};
RefMap& SharedMap() {
    static RefMap m;
    return m;
}

// ---------------------------------------------------------------------------

// Steady state: the store keeps its block (a permanent one), so each round
// pays for the slot, the object's own lock and the chain, not for a block.
void BM_OmCreateDelete(benchmark::State& state) {
    IOM* om = NewStore(1);
    UINT32 k = 0;
    for (auto _ : state) {
        PVOID user = nullptr;
        om->lpVtbl->CreateObject(om, Key(k), InitPayload, Key(k), SameKey, k % kChains, 0, 0,
                                 &user, nullptr);
        om->lpVtbl->DeleteObject(om, user, 0);
        ++k;
    }
    state.SetItemsProcessed(state.iterations());
    om->lpVtbl->Release(om);
}
BENCHMARK(BM_OmCreateDelete);

void BM_MapInsertErase(benchmark::State& state) {
    std::shared_mutex mutex;
    std::unordered_map<UINT32, MapEntry> map;
    map.reserve(kChains);
    UINT32 k = 0;
    for (auto _ : state) {
        {
            std::unique_lock<std::shared_mutex> g(mutex);
            auto [it, inserted] = map.try_emplace(k);
            if (inserted) it->second.payload.key = k;
            it->second.refs.fetch_add(1);
        }
        {
            std::unique_lock<std::shared_mutex> g(mutex);
            auto it = map.find(k);
            if (it->second.refs.fetch_sub(1) == 1) map.erase(it);
        }
        ++k;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MapInsertErase);

void BM_OmReferenceByHandle(benchmark::State& state) {
    Populated& p = Shared();
    IOM* om = p.om;
    size_t i = static_cast<size_t>(state.thread_index()) * 97;
    for (auto _ : state) {
        PVOID user = nullptr;
        om->lpVtbl->ReferenceObjectByHandle(om, p.handles[i % kObjects], 0, &user);
        om->lpVtbl->DereferenceObject(om, user, 0);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OmReferenceByHandle)->Threads(1)->Threads(2)->UseRealTime();

void BM_MapReferenceByHandle(benchmark::State& state) {
    RefMap& m = SharedMap();
    UINT32 i = static_cast<UINT32>(state.thread_index()) * 97;
    for (auto _ : state) {
        MapEntry* e;
        {
            std::shared_lock<std::shared_mutex> g(m.mutex);
            e = &m.map.find(i % kObjects)->second;
            e->refs.fetch_add(1);
        }
        {
            std::shared_lock<std::shared_mutex> g(m.mutex);
            e->refs.fetch_sub(1);
        }
        benchmark::DoNotOptimize(e);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MapReferenceByHandle)->Threads(1)->Threads(2)->UseRealTime();

void BM_OmFindByKey(benchmark::State& state) {
    Populated& p = Shared();
    IOM* om = p.om;
    UINT32 k = static_cast<UINT32>(state.thread_index()) * 97;
    for (auto _ : state) {
        PVOID user = nullptr;
        UINT32 key = k % kObjects;
        om->lpVtbl->FindObject(om, Key(key), SameKey, key % kChains, 0, &user);
        om->lpVtbl->DereferenceObject(om, user, 0);
        ++k;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OmFindByKey)->Threads(1)->Threads(2)->UseRealTime();

void BM_MapFindByKey(benchmark::State& state) {
    RefMap& m = SharedMap();
    UINT32 k = static_cast<UINT32>(state.thread_index()) * 97;
    for (auto _ : state) {
        MapEntry* e;
        {
            std::shared_lock<std::shared_mutex> g(m.mutex);
            e = &m.map.find(k % kObjects)->second;
            e->refs.fetch_add(1);
        }
        {
            std::shared_lock<std::shared_mutex> g(m.mutex);
            e->refs.fetch_sub(1);
        }
        benchmark::DoNotOptimize(e);
        ++k;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MapFindByKey)->Threads(1)->Threads(2)->UseRealTime();

// ---------------------------------------------------------------------------
// Ratios
// ---------------------------------------------------------------------------

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.error_occurred) continue;
            Times& t = times_[r.run_name.str()];
            if (r.run_type == Run::RT_Aggregate) {
                if (r.aggregate_name != "median") continue;
                t = {r.GetAdjustedRealTime(), r.GetAdjustedCPUTime(), true};
            } else if (!t.median) {
                t = {r.GetAdjustedRealTime(), r.GetAdjustedCPUTime(), false};
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        static const char* const kPairs[][2] = {
            {"BM_OmCreateDelete", "BM_MapInsertErase"},
            {"BM_OmReferenceByHandle/real_time/threads:1",
             "BM_MapReferenceByHandle/real_time/threads:1"},
            {"BM_OmReferenceByHandle/real_time/threads:2",
             "BM_MapReferenceByHandle/real_time/threads:2"},
            {"BM_OmFindByKey/real_time/threads:1", "BM_MapFindByKey/real_time/threads:1"},
            {"BM_OmFindByKey/real_time/threads:2", "BM_MapFindByKey/real_time/threads:2"},
        };
        std::printf("\nratios kspl / reference (time per object):%40s %6s\n", "real", "cpu");
        for (const auto& pair : kPairs) {
            auto a = times_.find(pair[0]);
            auto b = times_.find(pair[1]);
            if (a == times_.end() || b == times_.end() || b->second.real <= 0 ||
                b->second.cpu <= 0) {
                continue;
            }
            std::string label = std::string(pair[0]) + " / " + pair[1];
            std::printf("  %-80s %5.2fx %5.2fx\n", label.c_str(), a->second.real / b->second.real,
                        a->second.cpu / b->second.cpu);
        }
    }

private:
    struct Times {
        double real = 0, cpu = 0;
        bool median = false;
    };
    std::map<std::string, Times> times_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
