// object_fuzz.cpp - random operation sequences on an object store, checked
// after every step against a reference model of where every object sits
// (block, slot, generation: its handle), its references and marks, the
// chains, the preallocated list, the statistics, the block list and how
// often the delete and deallocate routines ran. The store's shape (objects
// per block, lock kind, chains, permanent blocks) comes from the input;
// deletion is immediate so that every run is deterministic.
#include <algorithm>
#include <deque>
#include <map>
#include <vector>

#include "factory_int.h"
#include "fuzz_support.h"
#include "object_int.h"

namespace {

struct Item {
    UINT32 key;
    UINT32 value;
    UINT64 serial;
};

constexpr UINT32 kDeallocMarker = 0xDEA110C8u;
constexpr UINT32 kFailingKey = 0xFFFFFFFFu;
constexpr KSSTATUS kInitFailure = 0xC0DE0042u;
constexpr UINT32 kKeys = 7;

int g_inits, g_deletes, g_deallocs;

KSSTATUS InitItem(PVOID user, PVOID init) {
    auto* item = static_cast<Item*>(user);
    const UINT32 key = static_cast<UINT32>(reinterpret_cast<uintptr_t>(init));
    if (key == kFailingKey) return kInitFailure;
    item->key = key;
    item->serial = static_cast<UINT64>(++g_inits);
    return 0;
}
BOOLEAN CompareItem(PVOID user, PVOID data) {
    return static_cast<Item*>(user)->key == static_cast<UINT32>(reinterpret_cast<uintptr_t>(data))
               ? TRUE
               : FALSE;
}
KSSTATUS DeleteItem(PVOID user) {
    static_cast<Item*>(user)->value = 0xDEADu;
    ++g_deletes;
    return 0;
}
KSSTATUS DeallocItem(PVOID user) {
    static_cast<Item*>(user)->value = kDeallocMarker;
    ++g_deallocs;
    return 0;
}
PVOID KeyArg(UINT32 key) { return reinterpret_cast<PVOID>(static_cast<uintptr_t>(key)); }

class Model {
public:
    enum class State { kChain, kPrealloc, kMarked };
    struct Obj {
        UINT32 block, slot, key, chain, count;
        State state;
        bool deleted, deallocated, countedInUse;
        UINT32 value;
    };
    struct Block {
        bool permanent;
        std::deque<UINT32> freeList;
        std::vector<UINT32> gen;
        std::vector<int> obj;  // -1: free
    };

    Model(UINT32 perBlock, UINT32 hashSize, UINT32 permBlocks) : perBlock(perBlock), chains(hashSize) {
        for (UINT32 id = 1; id <= permBlocks; ++id) MakeBlock(id, true);
    }
    void MakeBlock(UINT32 id, bool permanent) {
        Block b{permanent, {}, std::vector<UINT32>(perBlock, 1), std::vector<int>(perBlock, -1)};
        for (UINT32 i = 0; i < perBlock; ++i) b.freeList.push_back(i);
        blocks.emplace(id, std::move(b));
    }
    // Lowest block with a free slot, else a new block with the smallest unused id.
    std::pair<UINT32, UINT32> TakeSlot() {
        for (auto& [id, b] : blocks) {
            if (!b.freeList.empty()) {
                UINT32 slot = b.freeList.front();
                b.freeList.pop_front();
                return {id, slot};
            }
        }
        UINT32 id = 1;
        while (blocks.count(id) != 0) ++id;
        MakeBlock(id, false);
        Block& b = blocks.at(id);
        UINT32 slot = b.freeList.front();
        b.freeList.pop_front();
        return {id, slot};
    }
    int NewObject(UINT32 block, UINT32 slot, UINT32 key, UINT32 chain, State state) {
        int id = nextId++;
        objs[id] = Obj{block, slot, key, chain, 1, state, false, false, state == State::kChain, 0};
        blocks.at(block).obj[slot] = id;
        ++occupancies;
        return id;
    }
    UINT32 Handle(int id) const {
        const Obj& o = objs.at(id);
        return MakeHandle(o.block, blocks.at(o.block).gen[o.slot], o.slot + 1);
    }
    int Lookup(UINT32 chain, UINT32 key, bool compare) const {
        for (int id : chains[chain])
            if (!compare || objs.at(id).key == key) return id;
        return -1;
    }
    void Free(int id, bool released) {
        Obj& o = objs.at(id);
        Block& b = blocks.at(o.block);
        if (o.deallocated && !released) {
            // Back to the preallocated list under a new generation.
            ++deallocs;
            o.deallocated = false;
            o.state = State::kPrealloc;
            o.countedInUse = false;
            o.value = kDeallocMarker;
            b.gen[o.slot] = (b.gen[o.slot] + 1) & 0xFFu;
            allocated.push_back(id);
            return;
        }
        ++deletes;
        b.obj[o.slot] = -1;
        b.freeList.push_back(o.slot);
        const UINT32 block = o.block, slot = o.slot;
        objs.erase(id);
        if (b.freeList.size() == perBlock && (!b.permanent || released)) {
            blocks.erase(block);
            return;
        }
        b.gen[slot] = (b.gen[slot] + 1) & 0xFFu;
    }
    void Deref(int id, bool released = false) {
        Obj& o = objs.at(id);
        if (o.count != 0 && --o.count != 0) return;
        if (o.state == State::kMarked) Free(id, released);
    }
    void Mark(int id, bool dealloc) {
        Obj& o = objs.at(id);
        if (o.state == State::kMarked) return;
        if (o.state == State::kPrealloc) {
            allocated.erase(std::find(allocated.begin(), allocated.end(), id));
        } else {
            auto& c = chains[o.chain];
            c.erase(std::find(c.begin(), c.end(), id));
        }
        o.state = State::kMarked;
        (dealloc ? o.deallocated : o.deleted) = true;
    }
    UINT32 InUse() const {
        UINT32 n = 0;
        for (const auto& [id, o] : objs) n += o.countedInUse ? 1 : 0;
        return n;
    }

    UINT32 perBlock;
    std::map<UINT32, Block> blocks;
    std::map<int, Obj> objs;
    std::vector<std::vector<int>> chains;
    std::deque<int> allocated;
    int nextId = 0, deletes = 0, deallocs = 0, occupancies = 0;
};

IOM* NewStore() {
    ORLM_IClassFactory* factory = nullptr;
    GUID clsid = CLSID_ObjectManagerDataStore;
    GUID cf = IID_IClassFactory;
    if (DllGetClassObject(&clsid, &cf, reinterpret_cast<PVOID*>(&factory)) != 0) return nullptr;
    IOM* om = nullptr;
    UINT32 st = factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IObjectManager_1,
                                                reinterpret_cast<void**>(&om));
    factory->lpVtbl->Release(factory);
    return st == 0 ? om : nullptr;
}

struct Run {
    FuzzReader& in;
    IOM* om;
    Model m;
    UINT32 hashSize;
    std::map<int, PVOID> users;
    std::vector<int> held;  // one entry per reference held
    std::vector<UINT32> oldHandles;

    UINT32 Pick(UINT32 n) { return in.Pick(n); }

    UINT32 HandleOf(PVOID user) {
        HANDLE h = nullptr;
        FUZZ_CHECK(om->lpVtbl->GetObjectHandle(om, user, &h) == 0);
        return HandleFromPtr(h);
    }
    void See(int id, PVOID user) {
        auto it = users.find(id);
        if (it != users.end()) FUZZ_CHECK(it->second == user, "object moved");
        users[id] = user;
    }
    void Forget() {
        for (auto it = users.begin(); it != users.end();)
            it = m.objs.count(it->first) == 0 ? users.erase(it) : std::next(it);
    }
    void DropHeld(size_t i, bool released = false) {
        int id = held[i];
        held.erase(held.begin() + static_cast<long>(i));
        FUZZ_CHECK(om->lpVtbl->DereferenceObject(om, users.at(id), 0) == 0, "dereference");
        m.Deref(id, released);
    }

    void Check() {
        UINT32 a = 0, u = 0, p = 0;
        FUZZ_CHECK(om->lpVtbl->GetObjectStats(om, &a, &u, &p) == 0);
        FUZZ_CHECK(a == m.blocks.size() * m.perBlock, "objects allocated");
        FUZZ_CHECK(u == m.InUse(), "objects in use");
        FUZZ_CHECK(p == m.allocated.size(), "objects preallocated");
        FUZZ_CHECK(g_deletes == m.deletes, "delete routine runs");
        FUZZ_CHECK(g_deallocs == m.deallocs, "deallocate routine runs");
        ObjectInfo* oi = reinterpret_cast<ObjectInfo*>(om);
        std::vector<std::pair<UINT32, UINT32>> actual, expected;
        LockInstance(oi, kOmAccessExclusive);
        for (PLIST_ENTRY l = oi->blockList.Flink; l != &oi->blockList; l = l->Flink)
            actual.emplace_back(BlockFromLink(l)->blockId, BlockFromLink(l)->freeObjectCount);
        UnlockInstance(oi);
        for (const auto& [id, b] : m.blocks) expected.emplace_back(id, static_cast<UINT32>(b.freeList.size()));
        FUZZ_CHECK(actual == expected, "block ids and free counts");
        for (const auto& [id, o] : m.objs) {
            PVOID user = users.at(id);
            FUZZ_CHECK(HandleOf(user) == m.Handle(id), "handle");
            FUZZ_CHECK(ObCount(ObFromUser(user)) == o.count, "reference count");
            const UINT8 f = ObFlags(ObFromUser(user));
            FUZZ_CHECK((f & OBJECT_IN_USE) && !(f & OBJECT_FREE), "slot state");
            FUZZ_CHECK(((f & OBJECT_DELETED) != 0) == o.deleted, "deleted mark");
            FUZZ_CHECK(((f & OBJECT_DEALLOCATED) != 0) == o.deallocated, "deallocated mark");
            FUZZ_CHECK(((f & OBJECT_PREALLOCATED) != 0) == !o.countedInUse, "preallocated mark");
            FUZZ_CHECK(static_cast<Item*>(user)->value == o.value, "user area");
        }
    }

    void Step() {
        const IOMVtbl* v = om->lpVtbl;
        const UINT32 op = Pick(100);
        const UINT32 key = Pick(kKeys);
        const UINT32 chain = key % hashSize;
        PVOID user = nullptr;
        UINT32 mode = 0;
        if (op < 20) {  // create, by key or always new
            const bool compare = Pick(4) != 0;
            FUZZ_CHECK(v->CreateObject(om, KeyArg(key), InitItem, KeyArg(key), compare ? CompareItem : nullptr,
                                       chain, 0, 0, &user, &mode) == 0, "create");
            int id = compare ? m.Lookup(chain, key, true) : -1;
            if (id >= 0) {
                FUZZ_CHECK(mode == OM_OPENED_EXISTING, "create found it");
                ++m.objs.at(id).count;
            } else {
                FUZZ_CHECK(mode == OM_OPENED_CREATED, "create made it");
                auto [block, slot] = m.TakeSlot();
                id = m.NewObject(block, slot, key, chain, Model::State::kChain);
                m.chains[chain].push_back(id);
            }
            See(id, user);
            held.push_back(id);
        } else if (op < 23) {  // create whose init routine fails: the slot goes back
            FUZZ_CHECK(v->CreateObject(om, KeyArg(kFailingKey), InitItem, nullptr, nullptr, chain, 0, 0, &user,
                                       &mode) == kInitFailure, "init failure");
            auto [block, slot] = m.TakeSlot();
            m.blocks.at(block).freeList.push_back(slot);
        } else if (op < 33) {  // find
            const bool compare = Pick(3) != 0;
            const UINT32 access = Pick(3);
            KSSTATUS st = v->FindObject(om, KeyArg(key), compare ? CompareItem : nullptr, chain, access, &user);
            int id = m.Lookup(chain, key, compare);
            if (id < 0) {
                FUZZ_CHECK(st == 0xC7FA000Bu, "find of nothing");
            } else {
                FUZZ_CHECK(st == 0, "find");
                if (access != 0) v->ReleaseObject(om, user);
                ++m.objs.at(id).count;
                See(id, user);
                held.push_back(id);
            }
        } else if (op < 43) {  // reference by a live or an old handle
            UINT32 h;
            if (!m.objs.empty() && (oldHandles.empty() || Pick(3) != 0)) {
                auto it = std::next(m.objs.begin(), static_cast<long>(Pick(static_cast<UINT32>(m.objs.size()))));
                h = m.Handle(it->first);
            } else if (!oldHandles.empty()) {
                h = oldHandles[Pick(static_cast<UINT32>(oldHandles.size()))];
            } else {
                h = in.U32();  // any word at all
            }
            int match = -1;
            for (const auto& [oid, o] : m.objs)
                if (m.Handle(oid) == h && !o.deleted) match = oid;
            const UINT32 access = Pick(3);
            KSSTATUS st = v->ReferenceObjectByHandle(om, PtrFromHandle(h), access, &user);
            if (match < 0) {
                FUZZ_CHECK(st == 0xC7FA0003u, "stale handle");
            } else if (access != 0 && m.objs.at(match).deallocated) {
                FUZZ_CHECK(st == KS_MAKE_STATUS(3, KSPL_OM_FACILITY, 3), "marked object refused");
            } else {
                FUZZ_CHECK(st == 0, "reference by handle");
                if (access != 0) v->ReleaseObject(om, user);
                ++m.objs.at(match).count;
                See(match, user);
                held.push_back(match);
            }
        } else if (op < 60) {  // drop a reference
            if (held.empty()) return;
            DropHeld(Pick(static_cast<UINT32>(held.size())));
        } else if (op < 70) {  // delete or deallocate through a reference
            if (held.empty()) return;
            const size_t i = Pick(static_cast<UINT32>(held.size()));
            const int id = held[i];
            held.erase(held.begin() + static_cast<long>(i));
            const bool dealloc = Pick(3) == 0;
            oldHandles.push_back(m.Handle(id));
            PVOID u = users.at(id);
            FUZZ_CHECK((dealloc ? v->DeallocateObject(om, u, 0) : v->DeleteObject(om, u, 0)) == 0, "delete");
            m.Mark(id, dealloc);
            m.Deref(id);
        } else if (op < 76) {  // preallocate
            FUZZ_CHECK(v->AllocateObject(om, &user) == 0, "preallocate");
            auto [block, slot] = m.TakeSlot();
            int id = m.NewObject(block, slot, 0, 0, Model::State::kPrealloc);
            m.allocated.push_back(id);
            See(id, user);
            held.push_back(id);
        } else if (op < 84) {  // open: find, or take the oldest preallocated object
            const bool compare = Pick(2) != 0;
            KSSTATUS st = v->OpenObject(om, KeyArg(key), InitItem, KeyArg(key), compare ? CompareItem : nullptr,
                                        chain, 0, 0, &user, &mode);
            int id = compare ? m.Lookup(chain, key, true) : -1;
            if (id >= 0) {
                FUZZ_CHECK(st == 0 && mode == OM_OPENED_EXISTING, "open found it");
                ++m.objs.at(id).count;
            } else if (m.allocated.empty()) {
                FUZZ_CHECK(st == KS_MAKE_STATUS(3, KSPL_OM_FACILITY, 0x1003), "open without preallocated");
                return;
            } else {
                FUZZ_CHECK(st == 0 && mode == OM_OPENED_CREATED, "open took one");
                id = m.allocated.front();
                m.allocated.pop_front();
                Model::Obj& o = m.objs.at(id);
                o.state = Model::State::kChain;
                o.key = key;
                o.chain = chain;
                o.count = 1;
                o.countedInUse = true;
                m.chains[chain].push_back(id);
                held.erase(std::remove(held.begin(), held.end(), id), held.end());
            }
            See(id, user);
            held.push_back(id);
        } else if (op < 90) {  // a whole enumeration, maybe filtered by key
            const bool compare = Pick(2) != 0;
            std::vector<std::pair<int, UINT32>> expected;
            for (const auto& [bid, b] : m.blocks) {
                for (UINT32 s = 0; s < m.perBlock; ++s) {
                    const int id = b.obj[s];
                    if (id < 0 || m.objs.at(id).deleted) continue;
                    if (compare && m.objs.at(id).key != key) continue;
                    auto next = std::next(m.blocks.find(bid));
                    const UINT32 cursor = s + 1 < m.perBlock       ? MakeHandle(bid, 0, s + 2)
                                          : next != m.blocks.end() ? MakeHandle(next->first, 0, 1)
                                                                   : MakeHandle(bid + 1, 0, 1);
                    expected.emplace_back(id, cursor);
                }
            }
            HANDLE cursor = nullptr;
            size_t n = 0;
            const UINT32 access = Pick(3);
            while (v->EnumerateObjects(om, &cursor, KeyArg(key), compare ? CompareItem : nullptr, access, &user) ==
                   0) {
                if (access != 0) v->ReleaseObject(om, user);
                FUZZ_CHECK(n < expected.size(), "more objects than the model has");
                const int id = expected[n].first;
                FUZZ_CHECK(HandleFromPtr(cursor) == expected[n].second, "enumeration cursor");
                See(id, user);
                ++m.objs.at(id).count;
                held.push_back(id);
                ++n;
            }
            FUZZ_CHECK(n == expected.size(), "every object enumerated");
        } else if (op < 95) {  // an extra reference
            if (held.empty()) return;
            const int id = held[Pick(static_cast<UINT32>(held.size()))];
            FUZZ_CHECK(v->IncrementReference(om, users.at(id)) == 0, "increment");
            ++m.objs.at(id).count;
            held.push_back(id);
        } else if (hashSize == 1) {  // create at a chosen handle
            const UINT32 block = 1 + Pick(5);
            const UINT32 slot = Pick(m.perBlock);
            const UINT32 gen = 1 + Pick(4);
            const UINT32 h = MakeHandle(block, gen, slot + 1);
            FUZZ_CHECK(v->CreateObjectByHandle(om, PtrFromHandle(h), KeyArg(key), InitItem, 0, 0, &user, &mode) == 0,
                       "create by handle");
            if (m.blocks.count(block) == 0) m.MakeBlock(block, false);
            Model::Block& b = m.blocks.at(block);
            int id = b.obj[slot];
            if (id >= 0) {
                FUZZ_CHECK(mode == OM_OPENED_EXISTING, "create by handle found it");
                ++m.objs.at(id).count;
            } else {
                FUZZ_CHECK(mode == OM_OPENED_CREATED, "create by handle made it");
                b.freeList.erase(std::find(b.freeList.begin(), b.freeList.end(), slot));
                id = m.NewObject(block, slot, key, 0, Model::State::kChain);
                m.chains[0].push_back(id);
            }
            b.gen[slot] = gen;
            See(id, user);
            held.push_back(id);
        }
    }

    // Release with references still out: unreferenced objects go at once,
    // the rest as their references are dropped; every occupant is deleted.
    void Teardown() {
        FUZZ_CHECK(om->lpVtbl->Release(om) == 0, "last interface reference");
        std::vector<int> ids;
        for (const auto& [bid, b] : m.blocks)
            for (int id : b.obj)
                if (id >= 0 && !m.objs.at(id).deleted) ids.push_back(id);
        for (int id : ids) {
            Model::Obj& o = m.objs.at(id);
            if (o.state == Model::State::kPrealloc) continue;
            ++o.count;
            m.Mark(id, false);
            m.Deref(id, false);
        }
        std::deque<int> pre = m.allocated;
        m.allocated.clear();
        for (int id : pre) {
            m.objs.at(id).deleted = true;
            m.objs.at(id).state = Model::State::kMarked;
            m.Free(id, true);
        }
        while (!held.empty()) {
            if (m.objs.count(held.back()) == 0) {
                held.pop_back();
                continue;
            }
            DropHeld(held.size() - 1, true);
        }
        FUZZ_CHECK(g_deletes == m.occupancies, "every occupant deleted");
        FUZZ_CHECK(g_deallocs == m.deallocs, "deallocations");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInstance();
    FuzzReader in(data, size);
    static const UINT32 kLevels[] = {OM_LEVEL_RWLOCK, OM_LEVEL_RWLOCK_NONPAGED, OM_LEVEL_MUTEX};
    const UINT32 level = kLevels[in.Pick(3)];
    const UINT32 perBlock = 1 + in.Pick(4);
    const UINT32 hashSize = 1 + in.Pick(4);
    const UINT32 permBlocks = in.Pick(3);
    g_inits = g_deletes = g_deallocs = 0;

    IOM* om = NewStore();
    FUZZ_CHECK(om != nullptr, "store");
    FUZZ_CHECK(om->lpVtbl->Initialize(om, sizeof(Item), static_cast<UINT16>(perBlock), level, hashSize, DeleteItem,
                                      DeallocItem, nullptr, permBlocks) == 0,
               "initialize");
    Run r{in, om, Model(perBlock, hashSize, permBlocks), hashSize, {}, {}, {}};
    for (int step = 0; step < 200 && !in.empty(); ++step) {
        r.Step();
        r.Forget();
        r.Check();
    }
    r.Teardown();
    return 0;
}
