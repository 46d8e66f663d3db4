// object_model_test.cpp - random sequences of store operations checked after
// every step against a small reference model: which objects exist, where
// they sit (block id, slot, generation, so the handle), their reference
// counts, the chains, the preallocated list, the statistics, the block
// list and how often the delete and deallocate routines ran.
#include <algorithm>
#include <cstdio>
#include <deque>
#include <map>
#include <random>

#include "object_test_util.h"

namespace {

struct Config {
    UINT32 level;
    UINT32 hashSize;
    UINT32 permBlocks;
    UINT32 seed;
};

std::ostream& operator<<(std::ostream& os, const Config& c) {
    return os << "level " << std::hex << c.level << std::dec << " chains " << c.hashSize
              << " perm " << c.permBlocks << " seed " << c.seed;
}

constexpr UINT32 kPerBlock = 3;
constexpr UINT32 kKeys = 9;

class Model {
public:
    enum class State { kChain, kPrealloc, kMarked };
    struct Obj {
        UINT32 block;
        UINT32 slot;
        UINT32 key;
        UINT32 chain;
        UINT32 count;
        State state;
        bool deleted = false;
        bool deallocated = false;
        bool countedInUse;
        UINT32 value;  // what the user area's value field must hold
    };
    struct Block {
        bool permanent;
        std::deque<UINT32> freeList;
        std::vector<UINT32> gen;
        std::vector<int> obj;  // -1: free
    };

    Model(UINT32 hashSize, UINT32 permBlocks) : chains(hashSize) {
        for (UINT32 id = 1; id <= permBlocks; ++id) MakeBlock(id, true);
    }

    void MakeBlock(UINT32 id, bool permanent) {
        Block b{permanent, {}, std::vector<UINT32>(kPerBlock, 1), std::vector<int>(kPerBlock, -1)};
        for (UINT32 i = 0; i < kPerBlock; ++i) b.freeList.push_back(i);
        blocks.emplace(id, std::move(b));
    }

    // The free-slot search: lowest block with a free slot, else a new block
    // with the smallest unused id. Returns (block, slot), taken off the list.
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

    // The first object of the chain whose key matches (any when !compare).
    int Lookup(UINT32 chain, UINT32 key, bool compare) const {
        for (int id : chains[chain]) {
            if (!compare || objs.at(id).key == key) return id;
        }
        return -1;
    }

    void Free(int id, bool released) {
        Obj& o = objs.at(id);
        Block& b = blocks.at(o.block);
        if (o.deallocated && !released) {
            ++deallocs;
            o.deallocated = false;
            o.state = State::kPrealloc;
            o.countedInUse = false;
            o.value = kDeallocMarker;
            ++b.gen[o.slot];
            b.gen[o.slot] &= 0xFFu;
            allocated.push_back(id);
            return;
        }
        ++deletes;
        b.obj[o.slot] = -1;
        b.freeList.push_back(o.slot);
        UINT32 block = o.block;
        UINT32 slot = o.slot;
        objs.erase(id);
        if (b.freeList.size() == kPerBlock && (!b.permanent || released)) {
            blocks.erase(block);
            return;
        }
        b.gen[slot] = (b.gen[slot] + 1) & 0xFFu;
    }

    // Drops one reference; frees a marked object whose last one went.
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

    std::map<UINT32, Block> blocks;
    std::map<int, Obj> objs;
    std::vector<std::vector<int>> chains;
    std::deque<int> allocated;
    int nextId = 0;
    int deletes = 0;
    int deallocs = 0;
    int occupancies = 0;
};

class OmModel : public OmTest, public ::testing::WithParamInterface<Config> {
protected:
    void Run();
    void Check();
    void Settle() {
        if (deferred_) {
            ASSERT_TRUE(WaitUntil([&] { return DeletionIdle(Info(om_)); }));
        }
    }
    UINT32 Handle(PVOID user) {
        HANDLE h = nullptr;
        EXPECT_EQ(om_->lpVtbl->GetObjectHandle(om_, user, &h), 0u);
        return HandleFromPtr(h);
    }
    // The user pointer of a model object, learnt when its slot is first
    // seen and checked on every later sighting.
    void See(int id, PVOID user) {
        const Model::Obj& o = model_->objs.at(id);
        auto key = std::make_pair(o.block, o.slot);
        auto it = slots_.find(key);
        if (it == slots_.end()) {
            slots_[key] = user;
        } else {
            EXPECT_EQ(it->second, user) << "object " << id << " is not where the model put it";
        }
        users_[id] = user;
    }
    void ForgetFreedBlocks() {
        for (auto it = slots_.begin(); it != slots_.end();) {
            it = model_->blocks.count(it->first.first) == 0 ? slots_.erase(it) : std::next(it);
        }
        for (auto it = users_.begin(); it != users_.end();) {
            it = model_->objs.count(it->first) == 0 ? users_.erase(it) : std::next(it);
        }
    }
    void DropHeld(size_t i, bool released = false) {
        int id = held_[i];
        held_.erase(held_.begin() + static_cast<long>(i));
        ASSERT_EQ(om_->lpVtbl->DereferenceObject(om_, users_.at(id), 0), 0u);
        model_->Deref(id, released);
    }

    IOM* om_ = nullptr;
    bool deferred_ = false;
    std::unique_ptr<Model> model_;
    std::map<std::pair<UINT32, UINT32>, PVOID> slots_;
    std::map<int, PVOID> users_;
    std::vector<int> held_;  // one entry per reference the test holds
    std::vector<UINT32> oldHandles_;
};

void OmModel::Check() {
    Settle();
    UINT32 a = 0, u = 0, p = 0;
    ASSERT_EQ(om_->lpVtbl->GetObjectStats(om_, &a, &u, &p), 0u);
    EXPECT_EQ(a, model_->blocks.size() * kPerBlock) << "allocated";
    EXPECT_EQ(u, model_->InUse()) << "in use";
    EXPECT_EQ(p, model_->allocated.size()) << "preallocated";
    EXPECT_EQ(g_routines.deletes.load(), model_->deletes);
    EXPECT_EQ(g_routines.deallocs.load(), model_->deallocs);

    // Block list: ids ascending as in the model, free counts matching.
    ObjectInfo* oi = Info(om_);
    std::vector<std::pair<UINT32, UINT32>> actual, expected;
    LockInstance(oi, kOmAccessExclusive);
    for (PLIST_ENTRY l = oi->blockList.Flink; l != &oi->blockList; l = l->Flink) {
        actual.emplace_back(BlockFromLink(l)->blockId, BlockFromLink(l)->freeObjectCount);
    }
    UnlockInstance(oi);
    for (const auto& [id, b] : model_->blocks) {
        expected.emplace_back(id, static_cast<UINT32>(b.freeList.size()));
    }
    EXPECT_EQ(actual, expected) << "block ids and free counts";

    for (const auto& [id, o] : model_->objs) {
        PVOID user = users_.at(id);
        EXPECT_EQ(Handle(user), model_->Handle(id)) << "object " << id;
        EXPECT_EQ(CountOf(user), o.count) << "object " << id;
        UINT8 f = FlagsOf(user);
        EXPECT_TRUE(f & OBJECT_IN_USE);
        EXPECT_FALSE(f & OBJECT_FREE);
        EXPECT_EQ((f & OBJECT_DELETED) != 0, o.deleted) << "object " << id;
        EXPECT_EQ((f & OBJECT_DEALLOCATED) != 0, o.deallocated) << "object " << id;
        EXPECT_EQ((f & OBJECT_PREALLOCATED) != 0, !o.countedInUse) << "object " << id;
        EXPECT_EQ(static_cast<Item*>(user)->value, o.value) << "object " << id;
    }
}

void OmModel::Run() {
    const Config c = GetParam();
    deferred_ = (c.level & 0xF0000000u) != 0;
    om_ = MakeStore(kPerBlock, c.level, c.hashSize, c.permBlocks);
    ASSERT_NE(om_, nullptr);
    model_ = std::make_unique<Model>(c.hashSize, c.permBlocks);
    Model& m = *model_;
    std::mt19937 rng(c.seed);
    auto pick = [&](UINT32 n) { return static_cast<UINT32>(rng() % n); };
    const IOMVtbl* v = om_->lpVtbl;

    for (int step = 0; step < 500; ++step) {
        UINT32 op = pick(100);
        UINT32 key = pick(kKeys);
        SCOPED_TRACE(::testing::Message() << "step " << step << " op " << op << " key " << key);
        if (getenv("OM_MODEL_TRACE")) fprintf(stderr, "step %d op %u key %u held %zu\n", step, op, key, held_.size());
        UINT32 chain = key % c.hashSize;
        PVOID user = nullptr;
        UINT32 mode = 0;
        if (op < 20) {  // create, by key or always new
            bool compare = pick(4) != 0;
            ASSERT_EQ(v->CreateObject(om_, KeyArg(key), InitItem, KeyArg(key),
                                      compare ? CompareItem : nullptr, chain, 0, 0, &user, &mode),
                      0u);
            int id = compare ? m.Lookup(chain, key, true) : -1;
            if (id >= 0) {
                EXPECT_EQ(mode, 2u);
                ++m.objs.at(id).count;
            } else {
                EXPECT_EQ(mode, 1u);
                auto [block, slot] = m.TakeSlot();
                id = m.NewObject(block, slot, key, chain, Model::State::kChain);
                m.chains[chain].push_back(id);
            }
            See(id, user);
            held_.push_back(id);
        } else if (op < 23) {  // create whose init routine fails
            KSSTATUS st = v->CreateObject(om_, KeyArg(0xFFFFFFFFu), InitItem, nullptr, nullptr,
                                          chain, 0, 0, &user, &mode);
            ASSERT_EQ(st, kInitFailure);
            auto [block, slot] = m.TakeSlot();
            m.blocks.at(block).freeList.push_back(slot);
        } else if (op < 33) {  // find, with or without a key, any access
            bool compare = pick(3) != 0;
            UINT32 access = pick(3);
            KSSTATUS st = v->FindObject(om_, KeyArg(key), compare ? CompareItem : nullptr, chain,
                                        access, &user);
            int id = m.Lookup(chain, key, compare);
            if (id < 0) {
                ASSERT_EQ(st, 0xC7FA000Bu);
            } else {
                ASSERT_EQ(st, 0u);
                if (access != 0) v->ReleaseObject(om_, user);
                ++m.objs.at(id).count;
                See(id, user);
                held_.push_back(id);
            }
        } else if (op < 43) {  // reference by a live or an old handle
            UINT32 h;
            int id = -1;
            if (!m.objs.empty() && (oldHandles_.empty() || pick(3) != 0)) {
                auto it = std::next(m.objs.begin(), static_cast<long>(pick(static_cast<UINT32>(m.objs.size()))));
                id = it->first;
                h = m.Handle(id);
            } else if (!oldHandles_.empty()) {
                h = oldHandles_[pick(static_cast<UINT32>(oldHandles_.size()))];
            } else {
                continue;
            }
            // The model's own opinion of the handle decides.
            int match = -1;
            for (const auto& [oid, o] : m.objs) {
                if (m.Handle(oid) == h && !o.deleted) match = oid;
            }
            UINT32 access = pick(3);
            KSSTATUS st = v->ReferenceObjectByHandle(om_, PtrFromHandle(h), access, &user);
            if (match < 0) {
                ASSERT_EQ(st, 0xC7FA0003u) << std::hex << h;
            } else if (access != 0 && m.objs.at(match).deallocated) {
                // Found, but marked when the lock was in hand: refused, and
                // the reference it took is dropped again.
                ASSERT_EQ(st, KsplOmErr(3)) << std::hex << h;
            } else {
                ASSERT_EQ(st, 0u) << std::hex << h;
                if (access != 0) v->ReleaseObject(om_, user);
                ++m.objs.at(match).count;
                See(match, user);
                held_.push_back(match);
            }
        } else if (op < 60) {  // drop a reference
            if (held_.empty()) continue;
            DropHeld(pick(static_cast<UINT32>(held_.size())));
        } else if (op < 70) {  // delete or deallocate through a reference
            if (held_.empty()) continue;
            size_t i = pick(static_cast<UINT32>(held_.size()));
            int id = held_[i];
            held_.erase(held_.begin() + static_cast<long>(i));
            bool dealloc = pick(3) == 0;
            oldHandles_.push_back(m.Handle(id));
            PVOID u = users_.at(id);
            ASSERT_EQ(dealloc ? v->DeallocateObject(om_, u, 0) : v->DeleteObject(om_, u, 0), 0u);
            m.Mark(id, dealloc);
            m.Deref(id);
        } else if (op < 76) {  // preallocate
            ASSERT_EQ(v->AllocateObject(om_, &user), 0u);
            auto [block, slot] = m.TakeSlot();
            int id = m.NewObject(block, slot, 0, 0, Model::State::kPrealloc);
            m.allocated.push_back(id);
            See(id, user);
            held_.push_back(id);
        } else if (op < 84) {  // open: find, or take the oldest preallocated object
            bool compare = pick(2) != 0;
            KSSTATUS st = v->OpenObject(om_, KeyArg(key), InitItem, KeyArg(key),
                                        compare ? CompareItem : nullptr, chain, 0, 0, &user, &mode);
            int id = compare ? m.Lookup(chain, key, true) : -1;
            if (id >= 0) {
                ASSERT_EQ(st, 0u);
                EXPECT_EQ(mode, 2u);
                ++m.objs.at(id).count;
            } else if (m.allocated.empty()) {
                ASSERT_EQ(st, KsplOmErr(0x1003));
                continue;
            } else {
                ASSERT_EQ(st, 0u);
                EXPECT_EQ(mode, 1u);
                id = m.allocated.front();
                m.allocated.pop_front();
                Model::Obj& o = m.objs.at(id);
                o.state = Model::State::kChain;
                o.key = key;
                o.chain = chain;
                o.count = 1;  // the open's reference replaces any other
                o.countedInUse = true;
                m.chains[chain].push_back(id);
                held_.erase(std::remove(held_.begin(), held_.end(), id), held_.end());
            }
            See(id, user);
            held_.push_back(id);
        } else if (op < 90) {  // a whole enumeration, maybe filtered by key
            bool compare = pick(2) != 0;
            std::vector<std::pair<int, UINT32>> expected;
            for (const auto& [bid, b] : m.blocks) {
                for (UINT32 s = 0; s < kPerBlock; ++s) {
                    int id = b.obj[s];
                    if (id < 0 || m.objs.at(id).deleted) continue;
                    if (compare && m.objs.at(id).key != key) continue;
                    auto next = std::next(m.blocks.find(bid));
                    UINT32 cursor = s + 1 < kPerBlock ? MakeHandle(bid, 0, s + 2)
                                    : next != m.blocks.end() ? MakeHandle(next->first, 0, 1)
                                                             : MakeHandle(bid + 1, 0, 1);
                    expected.emplace_back(id, cursor);
                }
            }
            HANDLE cursor = nullptr;
            size_t n = 0;
            UINT32 access = pick(3);
            while (v->EnumerateObjects(om_, &cursor, KeyArg(key), compare ? CompareItem : nullptr,
                                       access, &user) == 0) {
                if (access != 0) v->ReleaseObject(om_, user);
                ASSERT_LT(n, expected.size()) << "more objects than the model has";
                int id = expected[n].first;
                EXPECT_EQ(HandleFromPtr(cursor), expected[n].second);
                See(id, user);
                ++m.objs.at(id).count;
                held_.push_back(id);
                ++n;
            }
            EXPECT_EQ(n, expected.size());
        } else if (op < 95) {  // an extra reference on something held
            if (held_.empty()) continue;
            int id = held_[pick(static_cast<UINT32>(held_.size()))];
            ASSERT_EQ(v->IncrementReference(om_, users_.at(id)), 0u);
            ++m.objs.at(id).count;
            held_.push_back(id);
        } else if (c.hashSize == 1) {  // create at a chosen handle
            UINT32 block = 1 + pick(5);
            UINT32 slot = pick(kPerBlock);
            UINT32 gen = 1 + pick(4);
            UINT32 h = MakeHandle(block, gen, slot + 1);
            KSSTATUS st = v->CreateObjectByHandle(om_, PtrFromHandle(h), KeyArg(key), InitItem, 0,
                                                  0, &user, &mode);
            ASSERT_EQ(st, 0u);
            if (m.blocks.count(block) == 0) m.MakeBlock(block, false);
            Model::Block& b = m.blocks.at(block);
            int id = b.obj[slot];
            if (id >= 0) {
                EXPECT_EQ(mode, 2u);
                ++m.objs.at(id).count;
            } else {
                EXPECT_EQ(mode, 1u);
                b.freeList.erase(std::find(b.freeList.begin(), b.freeList.end(), slot));
                id = m.NewObject(block, slot, key, 0, Model::State::kChain);
                m.chains[0].push_back(id);
            }
            b.gen[slot] = gen;
            See(id, user);
            held_.push_back(id);
        }
        ForgetFreedBlocks();
        Check();
        if (HasFatalFailure() || HasFailure()) return;
    }

    // Teardown with references still out: every unreferenced object goes at
    // once, the rest as the references are dropped, and the last one takes
    // the store with it.
    ASSERT_EQ(om_->lpVtbl->Release(om_), 0u);
    {
        std::vector<int> ids;
        for (const auto& [bid, b] : m.blocks) {
            for (int id : b.obj) {
                if (id >= 0 && !m.objs.at(id).deleted) ids.push_back(id);
            }
        }
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
    }
    Settle();
    std::shuffle(held_.begin(), held_.end(), rng);
    while (!held_.empty()) {
        if (m.objs.count(held_.back()) == 0) {
            held_.pop_back();  // an open absorbed it, or it was freed at release
            continue;
        }
        DropHeld(held_.size() - 1, true);
    }
    ASSERT_TRUE(WaitUntil([&] { return g_routines.deletes.load() == m.occupancies; }))
        << g_routines.deletes.load() << " of " << m.occupancies << " objects destroyed";
    EXPECT_EQ(g_routines.deallocs.load(), m.deallocs);
}

TEST_P(OmModel, MatchesTheReferenceModel) { Run(); }

std::vector<Config> Configs() {
    std::vector<Config> out;
    for (UINT32 level : {0u, 3u, 0x10000000u, 0x40000003u}) {
        for (UINT32 hash : {1u, 3u}) {
            for (UINT32 perm : {0u, 2u}) {
                for (UINT32 seed : {11u, 23u, 57u}) out.push_back({level, hash, perm, seed});
            }
        }
    }
    return out;
}

INSTANTIATE_TEST_SUITE_P(Stores, OmModel, ::testing::ValuesIn(Configs()),
                         [](const ::testing::TestParamInfo<Config>& info) {
                             // Formatted in one go: GCC 12 at -O3 reports a false
                             // overlap (-Wrestrict) in a chain of string additions.
                             const Config& c = info.param;
                             char name[96];
                             std::snprintf(name, sizeof(name), "L%u%s_H%u_P%u_S%u",
                                           static_cast<unsigned>(c.level & 0xF),
                                           (c.level & 0xF0000000u) != 0 ? "Deferred" : "",
                                           static_cast<unsigned>(c.hashSize),
                                           static_cast<unsigned>(c.permBlocks),
                                           static_cast<unsigned>(c.seed));
                             return std::string(name);
                         });

}  // namespace
