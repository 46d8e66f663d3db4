// sam.cpp - the security attribute manager: attributes of registered kinds
// attached to security contexts, shared by every instance of the process.
//
// Locking: one registry mutex (Registry::mutex) guards every kind, context
// and attribute record below, including the reference counts and access
// holds; Registry::changed is signalled whenever a hold is dropped or an
// attribute becomes ready or is removed. The mutex is a leaf lock and is
// never held while a client routine (init, release, clean-up, compare)
// runs: routines that must run are collected under the lock and called
// after it is dropped.
#include <pthread.h>

#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <unordered_set>
#include <utility>
#include <vector>

#include "kspl_guids.h"
#include "orlm_internal.h"

namespace {

constexpr char kUnit[] = "sam";

const GUID kClsidSecurityAttributeManager = KSPL_GUID_CLSID_SecurityAttributeManager;
const GUID kIidContextAttribute = KSPL_GUID_IID_IContextAttribute_1;
const GUID kIidPassiveContextAttribute = KSPL_GUID_IID_IPassiveContextAttribute_1;
const GUID kIidUnknown = KSPL_GUID_IID_IUnknown;

KSSTATUS Fail(unsigned code, int line, const char* function) {
    return KsStatusBuild_log(3, ORLM_FACILITY, static_cast<int>(code), const_cast<char*>(kUnit),
                             line, const_cast<char*>(function));
}
#define SAM_FAIL(code) Fail((code), __LINE__, __func__)

bool GuidEqual(const GUID* a, const GUID* b) { return std::memcmp(a, b, sizeof(GUID)) == 0; }

struct SamInstance {
    const ISAVtbl* lpVtbl;
    UINT32 cReference;
};

struct Kind {
    uintptr_t id;  // the registration handle's value; never reused
    GUID component;
    UINT32 dataSize;
    PSA_CONTEXT_CLEANUP_ROUTINE cleanup;
    PSA_ATTRIBUTE_RELEASE_ROUTINE release;
    SamInstance* owner;  // instance that registered it
    bool registered;
    UINT32 live;  // records of this kind not destroyed yet; the kind outlives them
};

// One attribute. `pub` comes first so that the PAttribute handed out is the
// record's address.
struct AttrRec {
    Attribute pub;
    Kind* kind;
    UINT32 refs;       // references handed out and not given back
    bool linked;       // attached to its context: findable
    bool ready;        // the creator's init routine succeeded
    bool initFailed;   // discarded without the release routine
    bool exclusive;    // exclusive access is held by `owner`...
    pthread_t owner;
    UINT32 ownerHolds;  // ...this many times (its nested references)
    UINT32 shared;      // shared holds of other threads
};
static_assert(offsetof(AttrRec, pub) == 0, "PAttribute is the record's address");

using Key = std::pair<uintptr_t, uintptr_t>;
Key KeyOf(SCHANDLE h) {
    return {reinterpret_cast<uintptr_t>(h.hTypeId), reinterpret_cast<uintptr_t>(h.hId)};
}
SCHANDLE HandleOf(const Key& k) {
    return {reinterpret_cast<HANDLE>(k.first), reinterpret_cast<HANDLE>(k.second)};
}

struct Registry {
    std::mutex mutex;
    std::condition_variable changed;
    // mutex protects the following state.
    std::map<uintptr_t, Kind*> kinds;              // registered kinds by handle value
    std::map<Key, std::vector<AttrRec*>> contexts;  // attached attributes, ordered for cursors
    std::unordered_set<AttrRec*> records;          // every record not destroyed yet
    uintptr_t nextKind = 1;
};

// Never destroyed: components may call in while the process exits.
Registry& R() {
    static Registry* registry = new Registry;
    return *registry;
}

// A destroyed record whose release routine (if any) still has to run.
struct Doomed {
    AttrRec* rec;
    PSA_ATTRIBUTE_RELEASE_ROUTINE release;
};
using Reaped = std::vector<Doomed>;

// Runs outside the lock.
void RunReaped(Reaped& reaped) {
    for (const Doomed& d : reaped) {
        if (d.release != nullptr) d.release(&d.rec->pub);
        ::operator delete(d.rec);
    }
    reaped.clear();
}

// REQUIRES: R().mutex is held.
Kind* FindKind(HANDLE h) {
    auto it = R().kinds.find(reinterpret_cast<uintptr_t>(h));
    return it == R().kinds.end() ? nullptr : it->second;
}

// REQUIRES: R().mutex is held.
AttrRec* FindRecord(PAttribute p) {
    auto* rec = reinterpret_cast<AttrRec*>(p);
    return p != nullptr && R().records.count(rec) != 0 ? rec : nullptr;
}

// REQUIRES: R().mutex is held.
AttrRec* FindAttached(const Key& key, const Kind* kind) {
    auto it = R().contexts.find(key);
    if (it == R().contexts.end()) return nullptr;
    for (AttrRec* a : it->second) {
        if (a->kind == kind) return a;
    }
    return nullptr;
}

// REQUIRES: R().mutex is held.
bool Grantable(const AttrRec* a, UINT32 access, pthread_t self) {
    if (access == SA_ACCESS_NONE) return true;
    if (a->exclusive) return pthread_equal(a->owner, self) != 0;
    return access == SA_ACCESS_SHARED || a->shared == 0;
}

// REQUIRES: R().mutex is held and Grantable(a, access, self).
void Take(AttrRec* a, UINT32 access, pthread_t self) {
    if (access == SA_ACCESS_NONE) return;
    if (a->exclusive) {
        ++a->ownerHolds;
    } else if (access == SA_ACCESS_EXCLUSIVE) {
        a->exclusive = true;
        a->owner = self;
        a->ownerHolds = 1;
    } else {
        ++a->shared;
    }
}

// Drops one hold of `access`; false when no such hold exists.
// REQUIRES: R().mutex is held.
bool Drop(AttrRec* a, UINT32 access, pthread_t self) {
    switch (access) {
        case SA_ACCESS_NONE:
            return true;
        case SA_ACCESS_EXCLUSIVE:
            // Exclusive access may be given back by another thread than the
            // one that took it (a hand-over).
            if (!a->exclusive) return false;
            break;
        case SA_ACCESS_SHARED:
            if (!a->exclusive || pthread_equal(a->owner, self) == 0) {
                if (a->shared == 0) return false;
                --a->shared;
                return true;
            }
            break;
        default:
            return false;
    }
    if (--a->ownerHolds == 0) a->exclusive = false;
    return true;
}

// REQUIRES: R().mutex is held and a->refs == 0 && !a->linked.
void Destroy(AttrRec* a, Reaped& reaped) {
    R().records.erase(a);
    Kind* kind = a->kind;
    reaped.push_back({a, a->initFailed ? nullptr : kind->release});
    if (--kind->live == 0 && !kind->registered) delete kind;
}

// REQUIRES: R().mutex is held.
void Unref(AttrRec* a, Reaped& reaped) {
    if (--a->refs == 0 && !a->linked) Destroy(a, reaped);
}

// Detaches `a` from its context (a context without attributes goes).
// REQUIRES: R().mutex is held and a->linked.
void Unlink(AttrRec* a, Reaped& reaped) {
    auto it = R().contexts.find(KeyOf(a->pub.hSC));
    std::vector<AttrRec*>& list = it->second;
    for (size_t i = 0; i < list.size(); ++i) {
        if (list[i] == a) {
            list.erase(list.begin() + static_cast<std::ptrdiff_t>(i));
            break;
        }
    }
    if (list.empty()) R().contexts.erase(it);
    a->linked = false;
    if (a->refs == 0) Destroy(a, reaped);
}

// Waits until `a` is ready or detached; true when ready and attached.
// REQUIRES: lock holds R().mutex and the caller holds a reference to `a`.
bool WaitReady(std::unique_lock<std::mutex>& lock, AttrRec* a) {
    R().changed.wait(lock, [a] { return a->ready || !a->linked; });
    return a->ready && a->linked;
}

// Waits for and takes `access` on `a`.
// REQUIRES: lock holds R().mutex and the caller holds a reference to `a`.
void WaitTake(std::unique_lock<std::mutex>& lock, AttrRec* a, UINT32 access, pthread_t self) {
    R().changed.wait(lock, [&] { return Grantable(a, access, self); });
    Take(a, access, self);
}

bool ValidAccess(UINT32 access) { return access <= SA_ACCESS_SHARED; }

// ---------------------------------------------------------------- ISA slots

KSSTATUS SamQueryInterface(ISA* This, const GUID* pIId, void** ppInterface);

UINT32 SamAddRef(ISA* This) {
    auto* self = reinterpret_cast<SamInstance*>(This);
    return __atomic_add_fetch(&self->cReference, 1u, __ATOMIC_SEQ_CST);
}

// REQUIRES: R().mutex is held.
void SamDeregisterKind(Kind* kind, Reaped& reaped) {
    kind->registered = false;
    R().kinds.erase(kind->id);
    // Destroying the kind's last record may free the kind; hold it alive
    // until the scan is done.
    ++kind->live;
    for (auto it = R().contexts.begin(); it != R().contexts.end();) {
        AttrRec* found = nullptr;
        for (AttrRec* a : it->second) {
            if (a->kind == kind) found = a;
        }
        ++it;  // Unlink may erase the context just passed
        if (found != nullptr) Unlink(found, reaped);
    }
    if (--kind->live == 0) delete kind;
}

UINT32 SamRelease(ISA* This) {
    auto* self = reinterpret_cast<SamInstance*>(This);
    UINT32 left = __atomic_sub_fetch(&self->cReference, 1u, __ATOMIC_SEQ_CST);
    if (left != 0) return left;
    Reaped reaped;
    {
        std::lock_guard<std::mutex> guard(R().mutex);
        std::vector<Kind*> owned;
        for (auto& [id, kind] : R().kinds) {
            if (kind->owner == self) owned.push_back(kind);
        }
        for (Kind* kind : owned) SamDeregisterKind(kind, reaped);
    }
    R().changed.notify_all();
    RunReaped(reaped);
    delete self;
    return 0;
}

KSSTATUS SamRegisterAttribute(ISA* This, PGUID pComponentId, UINT32 dataSize,
                              PSA_CONTEXT_CLEANUP_ROUTINE pCleanup,
                              PSA_ATTRIBUTE_RELEASE_ROUTINE pRelease, PHANDLE phAttribute) {
    if (phAttribute == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    *phAttribute = nullptr;
    if (This == nullptr || pComponentId == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    auto* kind = new (std::nothrow) Kind{0, *pComponentId, dataSize, pCleanup, pRelease,
                                         reinterpret_cast<SamInstance*>(This), true, 0};
    if (kind == nullptr) return SAM_FAIL(ORLM_E_OUTOFMEMORY);
    std::lock_guard<std::mutex> guard(R().mutex);
    kind->id = R().nextKind++;
    R().kinds.emplace(kind->id, kind);
    *phAttribute = reinterpret_cast<HANDLE>(kind->id);
    return 0;
}

KSSTATUS SamDeregisterAttribute(ISA* /*This*/, HANDLE hAttribute) {
    Reaped reaped;
    {
        std::lock_guard<std::mutex> guard(R().mutex);
        Kind* kind = FindKind(hAttribute);
        if (kind == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
        SamDeregisterKind(kind, reaped);
    }
    R().changed.notify_all();
    RunReaped(reaped);
    return 0;
}

KSSTATUS SamCreate(ISA* /*This*/, SCHANDLE hSC, HANDLE hAttribute, void* pInitData,
                   PSA_ATTRIBUTE_INIT_ROUTINE pInit, UINT32 createAccess, UINT32 openAccess,
                   PAttribute* ppAttribute, PUINT32 pOpenedMode) {
    if (ppAttribute == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    *ppAttribute = nullptr;
    if (!ValidAccess(createAccess) || !ValidAccess(openAccess)) {
        return SAM_FAIL(ORLM_E_INVALIDARG);
    }
    const pthread_t self = pthread_self();
    const Key key = KeyOf(hSC);
    Reaped reaped;
    std::unique_lock<std::mutex> lock(R().mutex);
    for (;;) {
        Kind* kind = FindKind(hAttribute);
        if (kind == nullptr) {
            lock.unlock();
            RunReaped(reaped);
            return SAM_FAIL(ORLM_E_INVALIDARG);
        }
        AttrRec* a = FindAttached(key, kind);
        if (a != nullptr) {
            ++a->refs;
            if (WaitReady(lock, a)) {
                WaitTake(lock, a, openAccess, self);
                if (a->linked) {
                    lock.unlock();
                    RunReaped(reaped);
                    *ppAttribute = &a->pub;
                    if (pOpenedMode != nullptr) *pOpenedMode = SA_OPENED_EXISTING;
                    return 0;
                }
                Drop(a, openAccess, self);
                R().changed.notify_all();
            }
            // Removed or failed while we waited: start over.
            Unref(a, reaped);
            continue;
        }

        // Create: the data area follows the record, aligned for any type.
        constexpr size_t kDataOffset =
            (sizeof(AttrRec) + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
        void* memory = ::operator new(kDataOffset + kind->dataSize, std::nothrow);
        if (memory == nullptr) {
            lock.unlock();
            RunReaped(reaped);
            return SAM_FAIL(ORLM_E_OUTOFMEMORY);
        }
        std::memset(memory, 0, kDataOffset + kind->dataSize);
        a = new (memory) AttrRec{};
        a->pub.hSC = hSC;
        a->pub.pData = kind->dataSize != 0 ? static_cast<char*>(memory) + kDataOffset : nullptr;
        a->kind = kind;
        a->refs = 1;
        a->linked = true;
        ++kind->live;
        R().records.insert(a);
        R().contexts[key].push_back(a);
        Take(a, createAccess, self);
        lock.unlock();

        KSSTATUS status = pInit != nullptr ? pInit(&a->pub, pInitData) : 0;

        lock.lock();
        if (KS_IS_ERROR(status)) {
            a->initFailed = true;
            Drop(a, createAccess, self);
            if (a->linked) Unlink(a, reaped);
            Unref(a, reaped);
        } else {
            a->ready = true;
        }
        lock.unlock();
        R().changed.notify_all();
        RunReaped(reaped);
        if (KS_IS_ERROR(status)) return status;
        *ppAttribute = &a->pub;
        if (pOpenedMode != nullptr) *pOpenedMode = SA_OPENED_CREATED;
        return status;
    }
}

KSSTATUS SamDelete(ISA* /*This*/, UINT32 access, PAttribute pAttribute) {
    Reaped reaped;
    {
        std::lock_guard<std::mutex> guard(R().mutex);
        AttrRec* a = FindRecord(pAttribute);
        if (a == nullptr || !Drop(a, access, pthread_self())) return SAM_FAIL(ORLM_E_INVALIDARG);
        if (a->linked) Unlink(a, reaped);
        Unref(a, reaped);
    }
    R().changed.notify_all();
    RunReaped(reaped);
    return 0;
}

KSSTATUS SamReference(ISA* /*This*/, SCHANDLE hSC, HANDLE hAttribute, UINT32 access,
                      PAttribute* ppAttribute) {
    if (ppAttribute == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    *ppAttribute = nullptr;
    if (!ValidAccess(access)) return SAM_FAIL(ORLM_E_INVALIDARG);
    const pthread_t self = pthread_self();
    Reaped reaped;
    std::unique_lock<std::mutex> lock(R().mutex);
    Kind* kind = FindKind(hAttribute);
    if (kind == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    AttrRec* a = FindAttached(KeyOf(hSC), kind);
    if (a == nullptr) return SAM_FAIL(ORLM_E_NOT_FOUND);
    ++a->refs;
    if (WaitReady(lock, a)) {
        WaitTake(lock, a, access, self);
        if (a->linked) {
            *ppAttribute = &a->pub;
            return 0;
        }
        Drop(a, access, self);
    }
    Unref(a, reaped);
    lock.unlock();
    R().changed.notify_all();
    RunReaped(reaped);
    return SAM_FAIL(ORLM_E_NOT_FOUND);
}

KSSTATUS SamDereference(ISA* /*This*/, UINT32 access, PAttribute pAttribute) {
    Reaped reaped;
    {
        std::lock_guard<std::mutex> guard(R().mutex);
        AttrRec* a = FindRecord(pAttribute);
        if (a == nullptr || !Drop(a, access, pthread_self())) return SAM_FAIL(ORLM_E_INVALIDARG);
        Unref(a, reaped);
    }
    R().changed.notify_all();
    RunReaped(reaped);
    return 0;
}

KSSTATUS SamGetSCHandle(ISA* /*This*/, PAttribute pAttribute, PSCHANDLE phSC) {
    if (phSC == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    std::lock_guard<std::mutex> guard(R().mutex);
    AttrRec* a = FindRecord(pAttribute);
    if (a == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    *phSC = a->pub.hSC;
    return 0;
}

// Cursor states kept in phEnum1->hTypeId; phEnum2 holds the last context.
constexpr uintptr_t kCursorFresh = 0;
constexpr uintptr_t kCursorRunning = 1;
constexpr uintptr_t kCursorDone = 2;

KSSTATUS SamEnumerate(ISA* /*This*/, PGUID pComponentId, HANDLE hAttribute, PSCHANDLE phEnum1,
                      PSCHANDLE phEnum2, void* pCompareData, PSA_ATTRIBUTE_COMPARE_ROUTINE pCompare,
                      UINT32 access, PAttribute* ppAttribute) {
    if (ppAttribute == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    *ppAttribute = nullptr;
    if (phEnum1 == nullptr || phEnum2 == nullptr || !ValidAccess(access)) {
        return SAM_FAIL(ORLM_E_INVALIDARG);
    }
    const uintptr_t state = reinterpret_cast<uintptr_t>(phEnum1->hTypeId);
    if (state == kCursorDone) return SAM_FAIL(ORLM_E_NO_MORE_ITEMS);
    if (state != kCursorFresh && state != kCursorRunning) return SAM_FAIL(ORLM_E_INVALIDARG);

    const pthread_t self = pthread_self();
    Reaped reaped;
    std::unique_lock<std::mutex> lock(R().mutex);
    Kind* kind = nullptr;
    if (hAttribute != nullptr) {
        kind = FindKind(hAttribute);
        if (kind != nullptr && pComponentId != nullptr && !GuidEqual(&kind->component, pComponentId)) {
            kind = nullptr;
        }
    } else if (pComponentId != nullptr) {
        for (auto& [id, k] : R().kinds) {
            if (GuidEqual(&k->component, pComponentId)) {
                kind = k;
                break;
            }
        }
    }
    if (kind == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);

    bool fresh = state == kCursorFresh;
    Key last = KeyOf(*phEnum2);
    AttrRec* found = nullptr;
    for (;;) {
        auto& contexts = R().contexts;
        auto it = fresh ? contexts.begin() : contexts.upper_bound(last);
        AttrRec* a = nullptr;
        for (; it != contexts.end() && a == nullptr; ++it) {
            for (AttrRec* candidate : it->second) {
                // One still being initialised counts as added behind the cursor.
                if (candidate->kind == kind && candidate->ready) a = candidate;
            }
            last = it->first;
        }
        if (a == nullptr) break;
        fresh = false;
        ++a->refs;
        if (pCompare != nullptr) {
            lock.unlock();
            BOOLEAN match = pCompare(&a->pub, pCompareData);
            lock.lock();
            if (!match) {
                Unref(a, reaped);
                continue;
            }
        }
        WaitTake(lock, a, access, self);
        if (a->linked) {
            found = a;
            break;
        }
        Drop(a, access, self);
        Unref(a, reaped);
    }
    lock.unlock();
    R().changed.notify_all();
    RunReaped(reaped);
    if (found == nullptr) {
        phEnum1->hTypeId = reinterpret_cast<HANDLE>(kCursorDone);
        return SAM_FAIL(ORLM_E_NO_MORE_ITEMS);
    }
    phEnum1->hTypeId = reinterpret_cast<HANDLE>(kCursorRunning);
    phEnum1->hId = nullptr;
    *phEnum2 = HandleOf(last);
    *ppAttribute = &found->pub;
    return 0;
}

KSSTATUS SamAcquire(ISA* /*This*/, UINT32 access, PAttribute pAttribute) {
    if (!ValidAccess(access)) return SAM_FAIL(ORLM_E_INVALIDARG);
    std::unique_lock<std::mutex> lock(R().mutex);
    AttrRec* a = FindRecord(pAttribute);
    if (a == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    ++a->refs;
    WaitTake(lock, a, access, pthread_self());
    return 0;
}

KSSTATUS SamReleaseAccess(ISA* /*This*/, PAttribute pAttribute) {
    const pthread_t self = pthread_self();
    Reaped reaped;
    {
        std::lock_guard<std::mutex> guard(R().mutex);
        AttrRec* a = FindRecord(pAttribute);
        if (a == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
        if (a->exclusive && pthread_equal(a->owner, self) != 0) {
            Drop(a, SA_ACCESS_EXCLUSIVE, self);
        } else if (a->shared != 0) {
            Drop(a, SA_ACCESS_SHARED, self);
        }
        Unref(a, reaped);
    }
    R().changed.notify_all();
    RunReaped(reaped);
    return 0;
}

const ISAVtbl kSamVtbl = {
    SamQueryInterface, SamAddRef,      SamRelease,     SamRegisterAttribute, SamDeregisterAttribute,
    SamCreate,         SamDelete,      SamReference,   SamDereference,       SamGetSCHandle,
    SamEnumerate,      SamAcquire,     SamReleaseAccess,
};

bool OfferedInterface(const GUID* pIId) {
    return GuidEqual(pIId, &kIidUnknown) || GuidEqual(pIId, &kIidContextAttribute) ||
           GuidEqual(pIId, &kIidPassiveContextAttribute);
}

KSSTATUS SamQueryInterface(ISA* This, const GUID* pIId, void** ppInterface) {
    if (ppInterface == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    *ppInterface = nullptr;
    if (This == nullptr || pIId == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    if (!OfferedInterface(pIId)) return SAM_FAIL(ORLM_E_NOINTERFACE);
    This->lpVtbl->AddRef(This);
    *ppInterface = This;
    return 0;
}

}  // namespace

bool OrlmIsSecurityAttributeManagerClass(const GUID* pClsid) {
    return GuidEqual(pClsid, &kClsidSecurityAttributeManager);
}

KSSTATUS OrlmCreateSecurityAttributeManager(PORLM_IUnknown pUnkOuter, const GUID* pIId,
                                            void** ppInterface) {
    if (ppInterface == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    *ppInterface = nullptr;
    if (pUnkOuter != nullptr || pIId == nullptr) return SAM_FAIL(ORLM_E_INVALIDARG);
    if (!OfferedInterface(pIId)) return SAM_FAIL(ORLM_E_NOINTERFACE);
    auto* instance = new (std::nothrow) SamInstance{&kSamVtbl, 0};
    if (instance == nullptr) return SAM_FAIL(ORLM_E_OUTOFMEMORY);
    return SamQueryInterface(reinterpret_cast<ISA*>(instance), pIId, ppInterface);
}

extern "C" KSSTATUS OrlmEndSecurityContext(SCHANDLE hSC) {
    std::vector<PSA_CONTEXT_CLEANUP_ROUTINE> cleanups;
    Reaped reaped;
    {
        std::lock_guard<std::mutex> guard(R().mutex);
        auto it = R().contexts.find(KeyOf(hSC));
        if (it == R().contexts.end()) return 0;
        std::vector<AttrRec*> attached = it->second;
        for (AttrRec* a : attached) {
            if (a->kind->cleanup != nullptr) cleanups.push_back(a->kind->cleanup);
            Unlink(a, reaped);  // the last one erases the context
        }
    }
    R().changed.notify_all();
    RunReaped(reaped);
    for (PSA_CONTEXT_CLEANUP_ROUTINE cleanup : cleanups) cleanup(hSC);
    return 0;
}
