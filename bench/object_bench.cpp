// The object store beside a std::unordered_map of the same objects under a
// std::shared_mutex: create + delete, reference by handle + dereference and
// find by key + dereference (one and two threads). The lookups run twice:
// as the store does them (instance lock shared, dereference without the
// exclusive lock while it cannot free) and with every instance lock taken
// exclusively, so the gain of the shared lock is measured in the same run;
// the exclusive forms are instantiated here from the store's own templates
// and are not part of the library. Reference by handle and create + delete
// also run on stores of 1, 1,000 and 60,000 blocks (one object per block),
// beside a map of as many objects: their cost must not grow with the
// store. The ratios are printed after the run.
#include <benchmark/benchmark.h>

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "bench_support.h"
#include "object_int.h"

KSPL_SOURCE_UNIT("object_bench");

#include "objlookup_int.h"

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
    IOM* om = BenchCreate<IOM>(CLSID_ObjectManagerDataStore, IID_IObjectManager_1);
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

// The store's own table, or a copy whose lookups and dereference take the
// instance lock exclusively. Both are called the same way, through a table.
const IOMVtbl* LookupTable(const IOM* om, bool exclusive) {
    static const IOMVtbl kExclusive = [] {
        IOMVtbl t = vtObject;
        t.ReferenceObjectByHandle = [](IOM* pThis, HANDLE handle, UINT32 accessType,
                                       PVOID* ppUserData) {
            return ReferenceByHandleCore<kOmAccessExclusive>(OmInfo(pThis), HandleFromPtr(handle),
                                                             accessType, ppUserData);
        };
        t.FindObject = [](IOM* pThis, PVOID pCompareData,
                          PKSO_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                          UINT32 accessType, PVOID* ppUserData) {
            return FindCore<kOmAccessExclusive>(OmInfo(pThis), pCompareData, pCompareRoutine,
                                                CompareIndex, accessType, ppUserData);
        };
        t.DereferenceObject = [](IOM* pThis, PVOID pUserData, UINT32 accessType) {
            return DereferenceCore<false>(OmInfo(pThis), pUserData, accessType);
        };
        return t;
    }();
    return exclusive ? &kExclusive : om->lpVtbl;
}

// Reference by handle (or find by key) + dereference, the keys of each
// thread starting elsewhere.
template <bool kByKey>
void OmLookup(benchmark::State& state, bool exclusive) {
    Populated& p = Shared();
    IOM* om = p.om;
    const IOMVtbl* table = LookupTable(om, exclusive);
    UINT32 i = static_cast<UINT32>(state.thread_index()) * 97;
    for (auto _ : state) {
        PVOID user = nullptr;
        UINT32 n = i % kObjects;
        if constexpr (kByKey) {
            table->FindObject(om, Key(n), SameKey, n % kChains, 0, &user);
        } else {
            table->ReferenceObjectByHandle(om, p.handles[n], 0, &user);
        }
        table->DereferenceObject(om, user, 0);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}

// The map's lookup by handle and by key are the same operation: a hash
// lookup and a reference taken and dropped under the shared mutex.
void MapLookup(benchmark::State& state) {
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

// --- cost against the store's size -----------------------------------------

// A store of `blocks` objects, one per block (ids 1..blocks), with their
// handles; made once per size and kept for the run.
struct Sized {
    IOM* om;
    std::vector<HANDLE> handles;
    explicit Sized(UINT32 blocks) {
        (void)BenchInstance();
        om = BenchCreate<IOM>(CLSID_ObjectManagerDataStore, IID_IObjectManager_1);
        if (om->lpVtbl->Initialize(om, sizeof(Payload), 1, OM_LEVEL_RWLOCK, 1, nullptr, nullptr,
                                   nullptr, 0) != 0) {
            std::abort();
        }
        for (UINT32 k = 0; k < blocks; ++k) {
            PVOID user = nullptr;
            HANDLE h = nullptr;
            if (om->lpVtbl->CreateObject(om, Key(k), InitPayload, nullptr, nullptr, 0, 0, 0, &user,
                                         nullptr) != 0) {
                std::abort();
            }
            om->lpVtbl->GetObjectHandle(om, user, &h);
            handles.push_back(h);
            om->lpVtbl->DereferenceObject(om, user, 0);
        }
    }
};
Sized& SizedStore(UINT32 blocks) {
    static std::unordered_map<UINT32, Sized*> stores;  // main thread only
    Sized*& s = stores[blocks];
    if (s == nullptr) s = new Sized(blocks);
    return *s;
}

void BM_OmReferenceByHandleBlocks(benchmark::State& state) {
    Sized& s = SizedStore(static_cast<UINT32>(state.range(0)));
    const size_t n = s.handles.size();
    size_t i = 0;
    for (auto _ : state) {
        PVOID user = nullptr;
        s.om->lpVtbl->ReferenceObjectByHandle(s.om, s.handles[i], 0, &user);
        s.om->lpVtbl->DereferenceObject(s.om, user, 0);
        if (++i == n) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OmReferenceByHandleBlocks)->Arg(1)->Arg(1000)->Arg(60000);

// Each round makes the store's next block and gives it back.
void BM_OmCreateDeleteBlocks(benchmark::State& state) {
    Sized& s = SizedStore(static_cast<UINT32>(state.range(0)));
    for (auto _ : state) {
        PVOID user = nullptr;
        s.om->lpVtbl->CreateObject(s.om, Key(0), InitPayload, nullptr, nullptr, 0, 0, 0, &user,
                                   nullptr);
        s.om->lpVtbl->DeleteObject(s.om, user, 0);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OmCreateDeleteBlocks)->Arg(1)->Arg(1000)->Arg(60000);

struct SizedMap {
    std::shared_mutex mutex;
    std::unordered_map<UINT32, MapEntry> map;
    explicit SizedMap(UINT32 objects) {
        for (UINT32 k = 0; k < objects; ++k) map[k].payload.key = k;
    }
};
SizedMap& SizedRefMap(UINT32 objects) {
    static std::unordered_map<UINT32, SizedMap*> maps;
    SizedMap*& m = maps[objects];
    if (m == nullptr) m = new SizedMap(objects);
    return *m;
}

void BM_MapReferenceByHandleObjects(benchmark::State& state) {
    const UINT32 n = static_cast<UINT32>(state.range(0));
    SizedMap& m = SizedRefMap(n);
    UINT32 i = 0;
    for (auto _ : state) {
        MapEntry* e;
        {
            std::shared_lock<std::shared_mutex> g(m.mutex);
            e = &m.map.find(i)->second;
            e->refs.fetch_add(1);
        }
        {
            std::shared_lock<std::shared_mutex> g(m.mutex);
            e->refs.fetch_sub(1);
        }
        benchmark::DoNotOptimize(e);
        if (++i == n) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MapReferenceByHandleObjects)->Arg(1)->Arg(1000)->Arg(60000);

void BM_MapInsertEraseObjects(benchmark::State& state) {
    const UINT32 n = static_cast<UINT32>(state.range(0));
    SizedMap& m = SizedRefMap(n);
    for (auto _ : state) {
        {
            std::unique_lock<std::shared_mutex> g(m.mutex);
            auto [it, inserted] = m.map.try_emplace(n);
            if (inserted) it->second.payload.key = n;
            it->second.refs.fetch_add(1);
        }
        {
            std::unique_lock<std::shared_mutex> g(m.mutex);
            auto it = m.map.find(n);
            if (it->second.refs.fetch_sub(1) == 1) m.map.erase(it);
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MapInsertEraseObjects)->Arg(1)->Arg(1000)->Arg(60000);

const bool kRegistered = [] {
    auto lookup = [](benchmark::internal::Benchmark* b) {
        b->Threads(1)->Threads(2)->UseRealTime();
    };
    lookup(benchmark::RegisterBenchmark("BM_OmReferenceByHandle", OmLookup<false>, false));
    lookup(benchmark::RegisterBenchmark("BM_OmReferenceByHandleExclusive", OmLookup<false>,
                                        true));
    lookup(benchmark::RegisterBenchmark("BM_MapReferenceByHandle", MapLookup));
    lookup(benchmark::RegisterBenchmark("BM_OmFindByKey", OmLookup<true>, false));
    lookup(benchmark::RegisterBenchmark("BM_OmFindByKeyExclusive", OmLookup<true>, true));
    lookup(benchmark::RegisterBenchmark("BM_MapFindByKey", MapLookup));
    return true;
}();

}  // namespace

int main(int argc, char** argv) {
    return BenchMain(argc, argv, "ratios (time per object):",
                     {{"BM_OmCreateDelete", "BM_MapInsertErase"},
                      {"BM_OmReferenceByHandle", "BM_MapReferenceByHandle"},
                      {"BM_OmFindByKey", "BM_MapFindByKey"},
                      {"BM_OmReferenceByHandle", "BM_OmReferenceByHandleExclusive"},
                      {"BM_OmFindByKey", "BM_OmFindByKeyExclusive"},
                      {"BM_OmReferenceByHandleBlocks", "BM_MapReferenceByHandleObjects"},
                      {"BM_OmCreateDeleteBlocks", "BM_MapInsertEraseObjects"},
                      {"BM_OmReferenceByHandleBlocks/60000", "BM_OmReferenceByHandleBlocks/1"},
                      {"BM_OmCreateDeleteBlocks/60000", "BM_OmCreateDeleteBlocks/1"}});
}
