// object_model.h - a reference model of one object store and a driver that
// runs operations chosen by a source of choices on a real store and checks
// it against the model after every step: the statistics, the block list
// (ids and free counts), every object's handle (block, slot, generation),
// references and marks, the runs of the delete and deallocate
// routines, and the cursor of an enumeration that stays open across steps.
// Shared by the unit test (choices from a seeded generator) and the fuzz
// harness (choices from the input); it uses no test framework.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "factory_int.h"
#include "object_int.h"
#include "support/wait_for.h"

// The user area of every test store.
struct Item {
    UINT32 key;
    UINT32 value;
    UINT64 serial;  // incarnation number, set by the init routine
};

// Runs of the routines below.
struct RoutineCounters {
    std::atomic<int> inits{0};
    std::atomic<int> deletes{0};
    std::atomic<int> deallocs{0};
    std::atomic<UINT64> serial{0};
};
inline RoutineCounters g_routines;

constexpr UINT32 kFailingKey = 0xFFFFFFFFu;
constexpr KSSTATUS kInitFailure = 0xC0DE0042u;  // severity 3, foreign facility
constexpr KSSTATUS kBadHandle = KSPL_OM_STATUS_INVALID_HANDLE;
constexpr KSSTATUS kNoMore = KSPL_OM_STATUS_NO_MORE_OBJECTS;
constexpr KSSTATUS kNotFound = KSPL_OM_STATUS_NOT_FOUND;

inline PVOID KeyArg(UINT32 key) { return reinterpret_cast<PVOID>(static_cast<uintptr_t>(key)); }
inline UINT32 KeyOf(PVOID arg) { return static_cast<UINT32>(reinterpret_cast<uintptr_t>(arg)); }

inline KSSTATUS InitItem(PVOID user, PVOID init) {
    if (KeyOf(init) == kFailingKey) return kInitFailure;
    static_cast<Item*>(user)->key = KeyOf(init);
    static_cast<Item*>(user)->serial = ++g_routines.serial;
    ++g_routines.inits;
    return 0;
}
inline BOOLEAN CompareItem(PVOID user, PVOID data) {
    return static_cast<Item*>(user)->key == KeyOf(data) ? TRUE : FALSE;
}
inline KSSTATUS DeleteItem(PVOID) {
    ++g_routines.deletes;
    return 0;
}
inline KSSTATUS DeallocItem(PVOID) {
    ++g_routines.deallocs;
    return 0;
}

// A new store from the library's object-manager class factory.
inline IOM* NewStore(const GUID& iid = IID_IObjectManager_1) {
    auto* cf = reinterpret_cast<ORLM_IClassFactory*>(&IOmClassFactory);
    IOM* om = nullptr;
    const UINT32 st = cf->lpVtbl->CreateInstance(cf, nullptr, &iid, reinterpret_cast<void**>(&om));
    return st == 0 ? om : nullptr;
}

// True once no deletion thread of the store has work left.
inline bool DeletionIdle(ObjectInfo* oi) {
    LockInstance(oi, kOmAccessExclusive);
    bool idle = !oi->objDeleteActive && OmListEmpty(oi, &oi->objDeleteList);
    UnlockInstance(oi);
    return idle;
}

class StoreModel {
public:
    // pick(n) is a choice below n, pick(0) any 32-bit word. fail reports a
    // disagreement and does not return.
    using Pick = std::function<UINT32(UINT32)>;
    using Fail = void (*)(const char* what);

    StoreModel(IOM* om, UINT32 perBlock, UINT32 hashSize, UINT32 permBlocks, Pick pick,
               Fail fail)
        : om_(om), perBlock_(perBlock), chains_(hashSize), pick_(std::move(pick)), fail_(fail) {
        for (UINT32 id = 1; id <= permBlocks; ++id) MakeBlock(id, true);
    }

    // Failures the store built (and logged) so far; every other failure it
    // returned is one of its constant statuses.
    size_t built = 0;

    // One operation, then the comparison.
    void Step() {
        const IOMVtbl* v = om_->lpVtbl;
        const UINT32 op = pick_(100);
        const UINT32 key = pick_(7);
        const UINT32 chain = key % static_cast<UINT32>(chains_.size());
        const UINT32 access = pick_(3);
        const bool compare = pick_(4) != 0;
        const PKSO_OBJECT_COMPARE_ROUTINE cmp = compare ? CompareItem : nullptr;
        PVOID user = nullptr;
        UINT32 mode = 77;
        if (op < 20) {  // create, by key or always new
            Expect(v->CreateObject(om_, KeyArg(key), InitItem, KeyArg(key), cmp, chain, access,
                                   access, &user, &mode) == 0,
                   "create");
            int id = compare ? Lookup(chain, key, true) : -1;
            Expect(mode == (id < 0 ? OM_OPENED_CREATED : OM_OPENED_EXISTING), "create's mode");
            if (id < 0) id = NewObject(key, chain, TakeSlot(), State::kChain);
            Took(id, user, access);
        } else if (op < 23) {  // create whose init routine fails: the slot goes back
            Expect(v->CreateObject(om_, KeyArg(kFailingKey), InitItem, nullptr, nullptr, chain, 0,
                                   0, &user, &mode) == kInitFailure,
                   "failing init");
            Expect(mode == 77 && user == nullptr, "a failed create reports nothing");
            auto [block, slot] = TakeSlot();
            blocks_.at(block).freeList.push_back(slot);
        } else if (op < 33) {  // find, by key or the oldest of the chain
            const KSSTATUS st = v->FindObject(om_, KeyArg(key), cmp, chain, access, &user);
            const int id = Lookup(chain, key, compare);
            Expect(st == (id < 0 ? kNotFound : 0u), "find");
            if (id >= 0) Took(id, user, access);
        } else if (op < 43) {  // reference by a live, an old or any handle
            std::vector<UINT32> live = old_;
            for (const auto& [id, o] : objs_) live.push_back(Handle(id));
            const UINT32 h = live.empty() || key == 0 ? pick_(0) : live[pick_(live.size())];
            int match = -1;
            for (const auto& [id, o] : objs_) {
                if (Handle(id) == h && !o.deleted) match = id;
            }
            const KSSTATUS st = v->ReferenceObjectByHandle(om_, PtrFromHandle(h), access, &user);
            // A deallocated object found is refused once its lock is in
            // hand; the refusal is logged.
            const bool refused = match >= 0 && access != 0 && objs_.at(match).deallocated;
            Expect(st == (match < 0 || refused ? kBadHandle : 0u), "reference by handle");
            built += refused ? 1 : 0;
            if (match >= 0 && !refused) Took(match, user, access);
        } else if (op < 60) {  // drop references, more of them the more are held
            for (size_t n = 1 + held_.size() / 8; n > 0 && !held_.empty(); --n) {
                Drop(pick_(static_cast<UINT32>(held_.size())));
            }
        } else if (op < 70 && !held_.empty()) {  // delete or deallocate, maybe holding the lock
            const size_t i = pick_(static_cast<UINT32>(held_.size()));
            const int id = held_[i];
            const UINT32 locked = access & 1;
            held_.erase(held_.begin() + static_cast<long>(i));
            old_.push_back(Handle(id));
            if (locked != 0) v->AcquireObject(om_, users_.at(id), locked);
            auto remove = compare ? v->DeleteObject : v->DeallocateObject;
            Expect(remove(om_, users_.at(id), locked) == 0, "delete");
            Mark(id, !compare);
            Deref(id);
        } else if (op < 76) {  // preallocate
            Expect(v->AllocateObject(om_, &user) == 0, "preallocate");
            Took(NewObject(0, 0, TakeSlot(), State::kPrealloc), user, 0);
        } else if (op < 84) {  // open: find, or take the oldest preallocated object
            const UINT32 init = key == 0 ? kFailingKey : key;
            const KSSTATUS st = v->OpenObject(om_, KeyArg(init), InitItem, KeyArg(key), cmp, chain,
                                              0, 0, &user, &mode);
            int id = compare ? Lookup(chain, key, true) : -1;
            if (id < 0 && allocated_.empty()) {
                Expect(st == KS_MAKE_STATUS(3, KSPL_OM_FACILITY, 0x1003), "open without spares");
                ++built;
            } else if (id < 0 && init == kFailingKey) {
                Expect(st == kInitFailure, "open whose init fails");
                allocated_.push_back(allocated_.front());  // back to the tail
                allocated_.pop_front();
            } else {
                Expect(st == 0 && mode == (id < 0 ? OM_OPENED_CREATED : OM_OPENED_EXISTING),
                       "open");
                if (id < 0) {
                    id = allocated_.front();
                    allocated_.pop_front();
                    Obj& o = objs_.at(id);
                    o = Obj{o.block, o.slot, key, chain, 0, State::kChain, false, false, true};
                    chains_[chain].push_back(id);
                    // The open's reference replaces every other.
                    std::erase(held_, id);
                }
                Took(id, user, 0);
            }
        } else {  // a few more results of the enumeration in progress
            for (UINT32 n = 1 + pick_(4); n > 0; --n) {
                UINT32 next = 0;
                const int id = NextInScan(compare, key, &next);
                HANDLE cursor = PtrFromHandle(cursor_);
                const KSSTATUS st =
                    v->EnumerateObjects(om_, &cursor, KeyArg(key), cmp, access, &user);
                // The end leaves the cursor as it was (a zero one at its start).
                const UINT32 want = id >= 0 ? next : cursor_ == 0 ? 0x01010001u : cursor_;
                Expect(st == (id < 0 ? kNoMore : 0u) && HandleFromPtr(cursor) == want, "scan");
                cursor_ = id >= 0 ? next : 0;
                if (id < 0) break;
                Took(id, user, access);
            }
        }
        Check();
    }

    // The last interface reference goes with references still out: every
    // unreferenced object is destroyed at once, preallocated ones too (their
    // references go with them); the rest as the references are dropped, and
    // the last one takes the store with it. No routine deallocates any more.
    void Teardown() {
        Expect(om_->lpVtbl->Release(om_) == 0, "last interface reference");
        std::erase_if(held_, [&](int id) { return objs_.at(id).state == State::kPrealloc; });
        const int kept = static_cast<int>(std::set<int>(held_.begin(), held_.end()).size());
        Expect(WaitFor([&] { return g_routines.deletes.load() == occupants_ - kept; }),
               "unreferenced objects destroyed with the store");
        for (int id : held_) {
            Expect(om_->lpVtbl->DereferenceObject(om_, users_.at(id), 0) == 0, "dereference");
        }
        Expect(WaitFor([&] { return g_routines.deletes.load() == occupants_; }),
               "every occupant destroyed once");
        Expect(g_routines.deallocs.load() == deallocs_, "deallocate routine runs");
    }

private:
    enum class State { kChain, kPrealloc, kMarked };
    struct Obj {
        UINT32 block, slot, key, chain, count;
        State state;
        bool deleted, deallocated, countedInUse;
    };
    struct Block {
        bool permanent;
        std::deque<UINT32> freeList;
        std::vector<UINT32> gen;
        std::vector<int> obj;  // -1: free
    };

    void Expect(bool ok, const char* what) const {
        if (!ok) fail_(what);
    }
    // A reference the driver now holds, and the lock `access` taken with
    // it given back; an object never moves.
    void Took(int id, PVOID user, UINT32 access) {
        if (access != 0) om_->lpVtbl->ReleaseObject(om_, user);
        ++objs_.at(id).count;
        held_.push_back(id);
        Expect(users_.emplace(id, user).first->second == user, "object moved");
    }
    void Drop(size_t i) {
        const int id = held_[i];
        held_.erase(held_.begin() + static_cast<long>(i));
        Expect(om_->lpVtbl->DereferenceObject(om_, users_.at(id), 0) == 0, "dereference");
        Deref(id);
    }

    void MakeBlock(UINT32 id, bool permanent) {
        Block b{permanent, {}, std::vector<UINT32>(perBlock_, 1), std::vector<int>(perBlock_, -1)};
        for (UINT32 i = 0; i < perBlock_; ++i) b.freeList.push_back(i);
        blocks_.emplace(id, std::move(b));
    }
    // The free-slot search: the lowest block with a free slot, else a new
    // block with the smallest unused id.
    std::pair<UINT32, UINT32> TakeSlot() {
        auto it = std::find_if(blocks_.begin(), blocks_.end(),
                               [](const auto& b) { return !b.second.freeList.empty(); });
        if (it == blocks_.end()) {
            UINT32 id = 1;
            while (blocks_.count(id) != 0) ++id;
            MakeBlock(id, false);
            it = blocks_.find(id);
        }
        const UINT32 slot = it->second.freeList.front();
        it->second.freeList.pop_front();
        return {it->first, slot};
    }
    int NewObject(UINT32 key, UINT32 chain, std::pair<UINT32, UINT32> at, State state) {
        const int id = nextId_++;
        objs_[id] = Obj{at.first, at.second, key, chain, 0, state, false, false,
                        state == State::kChain};
        blocks_.at(at.first).obj[at.second] = id;
        (state == State::kChain ? chains_[chain] : allocated_).push_back(id);
        ++occupants_;
        return id;
    }
    UINT32 Handle(int id) const {
        const Obj& o = objs_.at(id);
        return MakeHandle(o.block, blocks_.at(o.block).gen[o.slot], o.slot + 1);
    }
    // The first object of the chain whose key matches (the first at all
    // without a key).
    int Lookup(UINT32 chain, UINT32 key, bool compare) const {
        for (int id : chains_[chain]) {
            if (!compare || objs_.at(id).key == key) return id;
        }
        return -1;
    }
    // The object the enumeration returns next from cursor_, and the cursor
    // it leaves; -1 at the end.
    int NextInScan(bool compare, UINT32 key, UINT32* next) const {
        const UINT32 bid = cursor_ == 0 ? 1 : HandleBlockId(cursor_);
        const UINT32 from = cursor_ == 0 ? 0 : HandleIndexByte(cursor_) - 1;
        for (auto it = blocks_.lower_bound(bid); it != blocks_.end(); ++it) {
            for (UINT32 s = it->first == bid ? from : 0; s < perBlock_; ++s) {
                const int id = it->second.obj[s];
                if (id < 0 || objs_.at(id).deleted || (compare && objs_.at(id).key != key)) {
                    continue;
                }
                const auto after = std::next(it);
                *next = s + 1 < perBlock_        ? MakeHandle(it->first, 0, s + 2)
                        : after != blocks_.end() ? MakeHandle(after->first, 0, 1)
                                                 : MakeHandle(it->first + 1, 0, 1);
                return id;
            }
        }
        return -1;
    }
    void Free(int id) {
        Obj& o = objs_.at(id);
        Block& b = blocks_.at(o.block);
        b.gen[o.slot] = (b.gen[o.slot] + 1) & 0xFFu;
        if (o.deallocated) {  // back to the preallocated list
            ++deallocs_;
            o = Obj{o.block, o.slot, o.key, 0, 0, State::kPrealloc, false, false, false};
            allocated_.push_back(id);
            return;
        }
        b.obj[o.slot] = -1;
        b.freeList.push_back(o.slot);
        if (b.freeList.size() == perBlock_ && !b.permanent) blocks_.erase(o.block);
        objs_.erase(id);
    }
    // Drops one reference; frees a marked object whose last one went.
    void Deref(int id) {
        Obj& o = objs_.at(id);
        if (o.count != 0 && --o.count != 0) return;
        if (o.state == State::kMarked) Free(id);
    }
    void Mark(int id, bool dealloc) {
        Obj& o = objs_.at(id);
        if (o.state == State::kMarked) return;
        auto& list = o.state == State::kPrealloc ? allocated_ : chains_[o.chain];
        list.erase(std::find(list.begin(), list.end(), id));
        o.state = State::kMarked;
        (dealloc ? o.deallocated : o.deleted) = true;
    }

    void Check() {
        ObjectInfo* oi = reinterpret_cast<ObjectInfo*>(om_);
        WaitFor([&] { return (oi->flags & OI_DEFERRED_DELETE) == 0 || DeletionIdle(oi); });
        UINT32 a = 0, u = 0, p = 0;
        const auto inUse = std::count_if(objs_.begin(), objs_.end(),
                                         [](const auto& o) { return o.second.countedInUse; });
        Expect(om_->lpVtbl->GetObjectStats(om_, &a, &u, &p) == 0 &&
                   a == blocks_.size() * perBlock_ && u == static_cast<UINT32>(inUse) &&
                   p == allocated_.size(),
               "statistics");
        Expect(g_routines.deletes.load() == occupants_ - static_cast<int>(objs_.size()) &&
                   g_routines.deallocs.load() == deallocs_,
               "runs of the delete and deallocate routines");
        std::vector<std::pair<UINT32, size_t>> actual, expected;
        LockInstance(oi, kOmAccessExclusive);
        for (PLIST_ENTRY l = oi->blockList.Flink; l != &oi->blockList; l = l->Flink) {
            actual.emplace_back(BlockFromLink(l)->blockId, BlockFromLink(l)->freeObjectCount);
        }
        UnlockInstance(oi);
        for (const auto& [id, b] : blocks_) expected.emplace_back(id, b.freeList.size());
        Expect(actual == expected, "block ids and free counts");
        for (const auto& [id, o] : objs_) {
            const Object* ob = ObFromUser(users_.at(id));
            const UINT8 marks = OBJECT_IN_USE | (o.deleted ? OBJECT_DELETED : 0) |
                                (o.deallocated ? OBJECT_DEALLOCATED : 0) |
                                (o.countedInUse ? 0 : OBJECT_PREALLOCATED);
            Expect(ObHandle(ob) == Handle(id), "handle");
            Expect(ObCount(ob) == o.count, "references");
            Expect((ObFlags(ob) & ~(OBJECT_READY | OBJECT_PERMANENT)) == marks, "marks");
        }
    }

    IOM* om_;
    UINT32 perBlock_;
    std::vector<std::deque<int>> chains_;
    Pick pick_;
    Fail fail_;
    std::map<UINT32, Block> blocks_;
    std::map<int, Obj> objs_;
    std::deque<int> allocated_;
    std::map<int, PVOID> users_;
    std::vector<int> held_;  // one entry per reference the driver holds
    std::vector<UINT32> old_;  // handles of deleted objects
    UINT32 cursor_ = 0;
    int nextId_ = 0;
    int occupants_ = 0;  // objects ever made (allocated or created)
    int deallocs_ = 0;
};
