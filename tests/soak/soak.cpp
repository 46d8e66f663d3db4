// soak.cpp - a bounded soak of the whole library: several threads mix every
// service over a few long-lived instances and stores and many short-lived
// ones, with random timeouts, waits cancelled while blocked, forked children
// that use the library briefly, and stores released while their objects are
// still held (by this thread or handed to another one).
//
// At the end every instance's in-use counters must be zero, the global
// instance's counters, the interface count, g_ulCount and the client thread
// count must be back where they started, every object's init routine must be
// matched by exactly one delete routine, and the lock-protected counters
// must hold the sum of the increments. Exit status 0 and a one-line summary
// on success; 1 and the first failures on stderr otherwise.
//
// Usage: kspl_soak [--seconds N] [--threads N] [--seed N] [--only OP,...] [--fork-interval MS]
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kspl.h"
#include "kspl_internal.h"
#include "sched_test_util.h"
#include "zlreg.h"

namespace {

using Clock = std::chrono::steady_clock;

// ---------------------------------------------------------------------------
// Failures and statistics.

std::atomic<int> g_failures{0};
bool g_childMayStartThreads = false;  // set once before the workers start
std::mutex g_reportMutex;

void Fail(int line, const char* what, unsigned long long got) {
    if (g_failures.fetch_add(1) < 20) {
        std::lock_guard<std::mutex> g(g_reportMutex);
        std::fprintf(stderr, "kspl_soak: line %d: %s (got 0x%llx)\n", line, what, got);
    }
}
#define CHECK(cond, got)                                                         \
    do {                                                                         \
        if (!(cond)) Fail(__LINE__, #cond, static_cast<unsigned long long>(got)); \
    } while (0)
#define CHECK_OK(expr)                        \
    do {                                      \
        KSSTATUS st_ = (expr);                \
        CHECK(st_ == 0, st_);                 \
    } while (0)

constexpr KSSTATUS Err(UINT32 code) { return KS_MAKE_STATUS(3, KSPL_FACILITY, code); }
constexpr KSSTATUS OmErr(UINT32 code) { return KS_MAKE_STATUS(3, KSPL_OM_FACILITY, code); }

enum Op {
    kMemory, kLocks, kLockLife, kEvents, kCancel, kThreads, kWorkItems, kTimers, kConvert,
    kConfig, kObjects, kStoreRelease, kOrphans, kSecurity, kInstances, kFork, kOpCount
};
const char* const kOpNames[kOpCount] = {
    "memory", "locks", "lock-life", "events", "cancel", "threads", "work", "timers", "convert",
    "config", "objects", "store-release", "orphans", "sc", "instances", "fork"};
std::atomic<unsigned long> g_ops[kOpCount];

struct Rng {
    uint64_t s;
    uint32_t Next() {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return static_cast<uint32_t>(s >> 16);
    }
    uint32_t Below(uint32_t n) { return n == 0 ? 0 : Next() % n; }
    bool Chance(uint32_t percent) { return Below(100) < percent; }
};

// ---------------------------------------------------------------------------
// Instances.

IKspl* NewInstance() {
    ORLM_IClassFactory* factory = nullptr;
    GUID clsid = CLSID_ZorvikKspl;
    GUID iid = IID_IClassFactory;
    if (DllGetClassObject(&clsid, &iid, reinterpret_cast<PVOID*>(&factory)) != 0) return nullptr;
    IKspl* k = nullptr;
    UINT32 st = factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IZorvikKspl_1,
                                                reinterpret_cast<void**>(&k));
    factory->lpVtbl->Release(factory);
    return st == 0 ? k : nullptr;
}

// The in-use counters (the two TotalAllocated ones never go down).
std::vector<UINT32> InUse(IKspl* k) {
    KsplObjInfo* i = KsplInfo(k);
    return {KsAtomicLoad(&i->EventInUse),        KsAtomicLoad(&i->KeyInUse),
            KsAtomicLoad(&i->LockInUse),         KsAtomicLoad(&i->MemoryNonPagedInUse),
            KsAtomicLoad(&i->MemoryPagedInUse),  KsAtomicLoad(&i->MutexInUse),
            KsAtomicLoad(&i->SpinLockInUse),     KsAtomicLoad(&i->ThreadInUse),
            KsAtomicLoad(&i->TimerInUse),        KsAtomicLoad(&i->WorkItemInUse)};
}
bool AllZero(const std::vector<UINT32>& c) {
    for (UINT32 v : c) {
        if (v != 0) return false;
    }
    return true;
}

void ReleaseInstance(IKspl* k) {
    CHECK(AllZero(InUse(k)), 0);
    CHECK(k->lpVtbl->Release(k) == 0, 1);
}

// ---------------------------------------------------------------------------
// Long-lived state shared by all threads.

constexpr int kShared = 4;
constexpr int kSharedEvents = 6;
constexpr int kStores = 3;
constexpr UINT32 kKeys = 48;
constexpr UINT32 kChains = 8;

struct Shared {
    IKspl* inst[kShared] = {};
    HANDLE mutex = nullptr, spin = nullptr, rw = nullptr;
    UINT32 mutexCount = 0, spinCount = 0, rwCount = 0;  // guarded by the three locks
    HANDLE events[kSharedEvents] = {};
    IOM_2* stores[kStores] = {};
    ISCOM_2* sc = nullptr;
    std::atomic<unsigned long> mutexAdds{0}, spinAdds{0}, rwAdds{0};
};
Shared g;

std::atomic<long> g_inits{0};
std::atomic<long> g_deletes{0};

struct Obj {
    UINT32 key;
    UINT32 magic;
    UINT64 touched;
};
constexpr UINT32 kMagic = 0x50A4C0DE;

KSSTATUS InitObj(PVOID user, PVOID init) {
    auto* o = static_cast<Obj*>(user);
    o->key = static_cast<UINT32>(reinterpret_cast<uintptr_t>(init));
    o->magic = kMagic;
    o->touched = 0;
    g_inits.fetch_add(1, std::memory_order_relaxed);
    return 0;
}
BOOLEAN SameKey(PVOID user, PVOID data) {
    return static_cast<Obj*>(user)->key == static_cast<UINT32>(reinterpret_cast<uintptr_t>(data));
}
KSSTATUS DeleteObj(PVOID user) {
    auto* o = static_cast<Obj*>(user);
    CHECK(o->magic == kMagic, o->magic);
    o->magic = 0;
    g_deletes.fetch_add(1, std::memory_order_relaxed);
    return 0;
}
PVOID KeyArg(UINT32 key) { return reinterpret_cast<PVOID>(static_cast<uintptr_t>(key)); }

IOM_2* NewStore(UINT32 level, UINT16 perBlock, UINT32 permBlocks) {
    ORLM_IClassFactory* factory = nullptr;
    GUID clsid = CLSID_ObjectManagerDataStore;
    GUID cf = IID_IClassFactory;
    if (DllGetClassObject(&clsid, &cf, reinterpret_cast<PVOID*>(&factory)) != 0) return nullptr;
    IOM_2* om = nullptr;
    UINT32 st = factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IObjectManager_2,
                                                reinterpret_cast<void**>(&om));
    factory->lpVtbl->Release(factory);
    if (st != 0) return nullptr;
    st = om->lpVtbl->Initialize(om, sizeof(Obj), perBlock, level, kChains, DeleteObj, nullptr,
                                nullptr, permBlocks);
    CHECK(st == 0, st);
    return om;
}

// Objects whose store was released while they were held; any thread drops
// them later.
struct Orphan {
    IOM_2* store;
    PVOID user;
};
std::mutex g_orphanMutex;
std::deque<Orphan> g_orphans;

// ---------------------------------------------------------------------------
// Operations. Each picks its own instance: a shared one or a fresh one.

struct Worker {
    int id;
    Rng rng;
    IKspl* Pick() { return g.inst[rng.Below(kShared)]; }
    INT64 Timeout() {
        static const INT64 kChoices[] = {0, 1, 50, 500, 2000, 10000};
        return kChoices[rng.Below(6)];
    }
};

void OpMemory(Worker& w) {
    IKspl* k = w.rng.Chance(20) ? NewInstance() : w.Pick();
    CHECK(k != nullptr, 0);
    if (k == nullptr) return;
    PVOID blocks[8];
    UINT32 sizes[8];
    int n = 1 + static_cast<int>(w.rng.Below(8));
    for (int i = 0; i < n; ++i) {
        sizes[i] = 1 + w.rng.Below(w.rng.Chance(10) ? 70000 : 300);
        blocks[i] = w.rng.Chance(50) ? k->lpVtbl->KsoAllocPagedMemory(k, sizes[i])
                                     : k->lpVtbl->KsoAllocNonPagedMemory(k, sizes[i]);
        CHECK(blocks[i] != nullptr, sizes[i]);
        if (blocks[i] != nullptr) k->lpVtbl->KsoFillMemory(k, blocks[i], sizes[i], static_cast<UCHAR>(i));
    }
    for (int i = n; i-- > 0;) {
        if (blocks[i] == nullptr) continue;
        auto* bytes = static_cast<unsigned char*>(blocks[i]);
        CHECK(bytes[0] == static_cast<unsigned char>(i) && bytes[sizes[i] - 1] == static_cast<unsigned char>(i), i);
        CHECK_OK(k->lpVtbl->KsoFreeMemory(k, blocks[i]));
    }
    bool own = true;
    for (IKspl* s : g.inst) own = own && s != k;
    if (own) ReleaseInstance(k);
}

void OpLocks(Worker& w) {
    IKspl* k = w.Pick();  // use operations do not care which instance
    for (int i = 0; i < 20; ++i) {
        switch (w.rng.Below(4)) {
            case 0:
                CHECK_OK(k->lpVtbl->KsoAcquireMutex(k, g.mutex));
                CHECK_OK(k->lpVtbl->KsoAcquireMutex(k, g.mutex));  // recursive
                ++g.mutexCount;
                CHECK_OK(k->lpVtbl->KsoReleaseMutex(k, g.mutex));
                CHECK_OK(k->lpVtbl->KsoReleaseMutex(k, g.mutex));
                g.mutexAdds.fetch_add(1, std::memory_order_relaxed);
                break;
            case 1: {
                KSSPIN_STATE prev;
                CHECK_OK(k->lpVtbl->KsoAcquireSpinLock(k, g.spin, &prev));
                ++g.spinCount;
                CHECK_OK(k->lpVtbl->KsoReleaseSpinLock(k, g.spin, prev));
                g.spinAdds.fetch_add(1, std::memory_order_relaxed);
                break;
            }
            case 2: {
                BOOLEAN wait = w.rng.Chance(70) ? TRUE : FALSE;
                KSSTATUS st = k->lpVtbl->KsoAcquireLockForWriteAccess(k, g.rw, wait);
                if (st == 0) {
                    ++g.rwCount;
                    CHECK_OK(k->lpVtbl->KsoReleaseReadWriteLock(k, g.rw));
                    g.rwAdds.fetch_add(1, std::memory_order_relaxed);
                } else {
                    CHECK(!wait && st == Err(4098), st);
                }
                break;
            }
            default: {
                KSSTATUS st = k->lpVtbl->KsoAcquireLockForReadAccess(k, g.rw, w.rng.Chance(50));
                if (st == 0) {
                    volatile UINT32 seen = g.rwCount;
                    (void)seen;
                    CHECK_OK(k->lpVtbl->KsoReleaseReadWriteLock(k, g.rw));
                } else {
                    CHECK(st == Err(4098), st);
                }
                break;
            }
        }
    }
}

void OpLockLife(Worker& w) {
    IKspl* k = w.Pick();
    HANDLE m = nullptr, s = nullptr, l = nullptr, e = nullptr;
    CHECK_OK(k->lpVtbl->KsoAllocMutex(k, 0, &m));
    CHECK_OK(k->lpVtbl->KsoAllocSpinLock(k, &s));
    CHECK_OK(k->lpVtbl->KsoAllocReadWriteLock(k, &l));
    CHECK_OK(k->lpVtbl->KsoAllocEvent(k, KsoNotificationEvent, &e));
    if (m == nullptr || s == nullptr || l == nullptr || e == nullptr) return;
    // Held locks refuse destruction and stay usable.
    CHECK_OK(k->lpVtbl->KsoAcquireMutex(k, m));
    CHECK(k->lpVtbl->KsoDestroyMutex(k, m) == Err(4099), 0);
    CHECK_OK(k->lpVtbl->KsoReleaseMutex(k, m));
    KSSPIN_STATE prev;
    CHECK_OK(k->lpVtbl->KsoAcquireSpinLock(k, s, &prev));
    CHECK(k->lpVtbl->KsoDestroySpinLock(k, s) == Err(4099), 0);
    CHECK_OK(k->lpVtbl->KsoReleaseSpinLock(k, s, prev));
    CHECK_OK(k->lpVtbl->KsoAcquireLockForReadAccess(k, l, TRUE));
    CHECK(k->lpVtbl->KsoDestroyReadWriteLock(k, l) == Err(4099), 0);
    CHECK_OK(k->lpVtbl->KsoReleaseReadWriteLock(k, l));
    CHECK_OK(k->lpVtbl->KsoSignalEvent(k, e, nullptr));
    CHECK_OK(k->lpVtbl->KsoWaitForSingleEvent(k, e, 0));
    CHECK_OK(k->lpVtbl->KsoDestroyMutex(k, m));
    CHECK_OK(k->lpVtbl->KsoDestroySpinLock(k, s));
    CHECK_OK(k->lpVtbl->KsoDestroyReadWriteLock(k, l));
    CHECK_OK(k->lpVtbl->KsoDestroyEvent(k, e));
}

void OpEvents(Worker& w) {
    IKspl* k = w.Pick();
    for (int i = 0; i < 4; ++i) {
        UINT32 a = w.rng.Below(kSharedEvents);
        switch (w.rng.Below(5)) {
            case 0:
            case 1:
                CHECK_OK(k->lpVtbl->KsoSignalEvent(k, g.events[a], nullptr));
                break;
            case 2:
                CHECK_OK(k->lpVtbl->KsoResetEvent(k, g.events[a], nullptr));
                break;
            case 3: {
                KSSTATUS st = k->lpVtbl->KsoWaitForSingleEvent(k, g.events[a], w.Timeout());
                CHECK(st == 0 || st == Err(10), st);
                break;
            }
            default: {
                HANDLE set[3];
                UINT32 n = 2 + w.rng.Below(2);
                for (UINT32 j = 0; j < n; ++j) set[j] = g.events[(a + j) % kSharedEvents];
                BOOLEAN all = w.rng.Chance(30) ? TRUE : FALSE;
                INT64 timeout = w.Timeout();
                KSSTATUS st = k->lpVtbl->KsoWaitForMultipleEvents(k, n, set, all, timeout);
                bool ok = all ? st == 0 : st < n;
                CHECK(ok || st == Err(10) || (timeout == 0 && st == Err(1)), st);
                break;
            }
        }
    }
}

// A thread blocked in a wait without limit, cancelled from outside. Plain
// pthreads: a cancelled std::thread would end the process.
struct Blocked {
    IKspl* k;
    int kind;  // 0 single wait, 1 multiple wait (any), 2 multiple wait (all), 3 thread exit
    HANDLE events[3];
    HANDLE thread;
    std::atomic<bool> entered{false};
    KSSTATUS result = 0;
};

void* BlockedMain(void* arg) {
    auto* b = static_cast<Blocked*>(arg);
    b->entered.store(true);
    IKspl* k = b->k;
    switch (b->kind) {
        case 0:
            b->result = k->lpVtbl->KsoWaitForSingleEvent(k, b->events[0], -1);
            break;
        case 1:
        case 2:
            b->result = k->lpVtbl->KsoWaitForMultipleEvents(k, 3, b->events, b->kind == 2, -1);
            break;
        default:
            b->result = k->lpVtbl->KsoWaitForThreadExit(k, b->thread, -1);
            break;
    }
    return nullptr;
}

void WaitOnEvent(HANDLE, PVOID context) {
    auto* b = static_cast<Blocked*>(context);
    b->k->lpVtbl->KsoWaitForSingleEvent(b->k, b->events[2], -1);
}

void OpCancel(Worker& w) {
    IKspl* k = w.Pick();
    Blocked b;
    b.k = k;
    b.kind = static_cast<int>(w.rng.Below(4));
    for (HANDLE& e : b.events) CHECK_OK(k->lpVtbl->KsoAllocEvent(k, KsoSynchronizationEvent, &e));
    b.thread = nullptr;
    if (b.kind == 3) {
        KSSTATUS st = k->lpVtbl->KsoCreateThread(k, KSO_PRIORITY_NORMAL, WaitOnEvent, &b, &b.thread);
        CHECK(st == 0, st);
        if (st != 0) b.kind = 0;
    }
    // A signal of the first event may or may not come before the cancel.
    bool signal = w.rng.Chance(25);
    pthread_t t;
    if (pthread_create(&t, nullptr, BlockedMain, &b) != 0) {
        CHECK(false, 0);
    } else {
        while (!b.entered.load()) std::this_thread::yield();
        if (w.rng.Chance(70)) std::this_thread::sleep_for(std::chrono::microseconds(w.rng.Below(3000)));
        if (signal) CHECK_OK(k->lpVtbl->KsoSignalEvent(k, b.events[0], nullptr));
        pthread_cancel(t);
        void* res = nullptr;
        pthread_join(t, &res);
        CHECK(res == PTHREAD_CANCELED || signal, 0);
    }
    if (b.thread != nullptr) {
        CHECK_OK(k->lpVtbl->KsoSignalEvent(k, b.events[2], nullptr));
        CHECK_OK(k->lpVtbl->KsoWaitForThreadExit(k, b.thread, -1));
        CHECK_OK(k->lpVtbl->KsoDestroyThread(k, b.thread));
    }
    // Nothing of the cancelled wait stays on the events.
    for (HANDLE e : b.events) CHECK_OK(k->lpVtbl->KsoDestroyEvent(k, e));
}

struct ThreadArg {
    IKspl* k;
    UINT32 sleepUs;
    bool exitEarly;
};
void ClientThread(HANDLE self, PVOID context) {
    auto* a = static_cast<ThreadArg*>(context);
    a->k->lpVtbl->KsoSleep(a->k, a->sleepUs);
    if (a->exitEarly) a->k->lpVtbl->KsoExitThread(a->k, self, 0x1234, FALSE);
}

void OpThreads(Worker& w) {
    IKspl* k = w.Pick();
    ThreadArg arg{k, w.rng.Below(3000), w.rng.Chance(40)};
    HANDLE t = nullptr;
    KSSTATUS st = k->lpVtbl->KsoCreateThread(k, static_cast<KSO_PRIORITY>(w.rng.Below(3)),
                                             ClientThread, &arg, &t);
    CHECK(st == 0, st);
    if (st != 0) return;
    st = k->lpVtbl->KsoWaitForThreadExit(k, t, w.Timeout());
    CHECK(st == 0 || st == Err(10), st);
    CHECK_OK(k->lpVtbl->KsoWaitForThreadExit(k, t, -1));
    CHECK(k->lpVtbl->KsoGetThreadExitStatus(k, t) == (arg.exitEarly ? 0x1234u : 0u), 0);
    CHECK_OK(k->lpVtbl->KsoDestroyThread(k, t));
}

// Context of a work item or timer routine. `finished` is the routine's last
// touch of the context, so once it reaches the number of runs due, the
// context, its event and the item may go.
struct Signal {
    IKspl* k;
    HANDLE done;
    std::atomic<int> runs{0};
    std::atomic<int> finished{0};
};
void SignalRoutine(HANDLE, PVOID context) {
    auto* s = static_cast<Signal*>(context);
    s->runs.fetch_add(1);
    s->k->lpVtbl->KsoSignalEvent(s->k, s->done, nullptr);
    s->finished.fetch_add(1);
}

// Waits (bounded) until `due` runs of the routine have finished.
void AwaitRuns(IKspl* k, Signal& s, int due) {
    for (int i = 0; i < 200000 && s.finished.load() < due; ++i) k->lpVtbl->KsoSleep(k, 100);
    CHECK(s.finished.load() == due && s.runs.load() == due, s.runs.load());
}

void OpWorkItems(Worker& w) {
    IKspl* k = w.Pick();
    Signal s;
    s.k = k;
    CHECK_OK(k->lpVtbl->KsoAllocEvent(k, KsoNotificationEvent, &s.done));
    HANDLE item = nullptr;
    CHECK_OK(k->lpVtbl->KsoAllocWorkItem(k, SignalRoutine, &s, &item));
    if (item == nullptr || s.done == nullptr) return;
    int due = 0;
    for (int round = 0; round < 3; ++round) {
        CHECK_OK(k->lpVtbl->KsoResetEvent(k, s.done, nullptr));
        // Queued at most once: a schedule is refused while the item is
        // pending (from the round before, too) and accepted, for one more
        // run, once a worker has taken it.
        for (int i = 0; i < 2; ++i) {
            KSSTATUS st = k->lpVtbl->KsoScheduleWorkItem(
                k, item, static_cast<KSO_PRIORITY>(w.rng.Below(3)));
            CHECK(st == 0 || st == Err(4099), st);
            if (st == 0) ++due;
        }
        if (due == 0) continue;
        CHECK_OK(k->lpVtbl->KsoWaitForSingleEvent(k, s.done, 20000000));
        if (w.rng.Chance(50)) AwaitRuns(k, s, due);
    }
    AwaitRuns(k, s, due);
    CHECK_OK(k->lpVtbl->KsoDestroyWorkItem(k, item));
    CHECK_OK(k->lpVtbl->KsoDestroyEvent(k, s.done));
}

void OpTimers(Worker& w) {
    IKspl* k = w.Pick();
    Signal s;
    s.k = k;
    CHECK_OK(k->lpVtbl->KsoAllocEvent(k, KsoNotificationEvent, &s.done));
    HANDLE timer = nullptr;
    CHECK_OK(k->lpVtbl->KsoAllocTimer(k, SignalRoutine, &s, FALSE, &timer));
    if (timer == nullptr || s.done == nullptr) return;
    CHECK_OK(k->lpVtbl->KsoScheduleTimer(k, timer, w.rng.Below(40000)));
    int due = 1;
    KSSTATUS again = k->lpVtbl->KsoScheduleTimer(k, timer, 1000);
    CHECK(again == 0 || again == Err(4099), again);
    if (again == 0) ++due;  // it had fired already
    if (w.rng.Chance(40) && k->lpVtbl->KsoCancelTimer(k, timer)) --due;
    AwaitRuns(k, s, due);
    CHECK(k->lpVtbl->KsoDestroyTimer(k, timer) == 0, due);
    CHECK_OK(k->lpVtbl->KsoDestroyEvent(k, s.done));
}

void OpConvert(Worker& w) {
    IKspl* k = w.Pick();
    UINT32 len = 1 + w.rng.Below(w.rng.Chance(20) ? 900 : 60);
    std::string text(len, 'a');
    for (char& c : text) c = static_cast<char>('a' + w.rng.Below(26));
    UINT32 cp = 1 + w.rng.Below(5);
    std::vector<WCHAR> wide(len + 1);
    UINT32 units = len + 1;
    CHECK_OK(k->lpVtbl->KsoMultiByteToWideChar(k, cp, text.data(), -1, wide.data(), &units));
    CHECK(units == len, units);
    std::vector<char> back(len + 1);
    UINT32 bytes = len + 1;
    CHECK_OK(k->lpVtbl->KsoWideCharToMultiByte(k, cp, wide.data(), -1, back.data(), &bytes));
    CHECK(bytes == len && std::memcmp(back.data(), text.data(), len) == 0, bytes);
    // Length only, through the work buffers.
    UINT32 need = 0;
    CHECK_OK(k->lpVtbl->KsoWideCharToMultiByte(k, cp, wide.data(), -1, nullptr, &need));
    CHECK(need == len + 1, need);
    CHECK_OK(k->lpVtbl->KsoCharUpperBuff(k, units, wide.data()));
    UNICODE_STRING a = {static_cast<UINT16>(units * 2), static_cast<UINT16>(units * 2 + 2), wide.data()};
    CHECK(k->lpVtbl->KsoStrHashW(k, wide.data(), 97) < 97, 0);
    CHECK(k->lpVtbl->KsoEqualUnicodeString(k, &a, &a, TRUE) == TRUE, 0);
}

void OpConfig(Worker& w) {
    IKspl* k = w.Pick();
    std::u16string path = u"Soak\\T" + std::u16string(1, static_cast<char16_t>(u'A' + w.id));
    std::vector<WCHAR> name(path.begin(), path.end());
    name.push_back(0);
    HANDLE key = nullptr;
    KSSTATUS st = k->lpVtbl->KsoCreateKey(k, name.data(), KSO_KEY_ALL_ACCESS, &key);
    CHECK(st == 0, st);
    if (st != 0) return;
    WCHAR valueName[] = {'v', static_cast<WCHAR>('0' + w.rng.Below(8)), 0};
    UINT32 number = w.rng.Next();
    CHECK_OK(k->lpVtbl->KsoSetValueKey(k, key, valueName, KSO_REG_UINT32, &number, 4));
    UINT8 info[512];
    UINT32 result = 0;
    CHECK_OK(k->lpVtbl->KsoQueryValueKey(k, key, valueName, info, sizeof info, &result));
    UINT32 offset, stored;
    std::memcpy(&offset, info + offsetof(KSO_KEY_VALUE_INFORMATION, ValueOffset), 4);
    std::memcpy(&stored, info + (offset < sizeof info - 4 ? offset : 0), 4);
    CHECK(stored == number, stored);
    st = k->lpVtbl->KsoEnumerateValueKey(k, key, w.rng.Below(4), info, sizeof info, &result);
    CHECK(st == 0 || KS_IS_ERROR(st), st);
    if (w.rng.Chance(30)) CHECK_OK(k->lpVtbl->KsoDeleteValue(k, key, valueName));
    CHECK_OK(k->lpVtbl->KsoCloseKey(k, key));
}

void OpObjects(Worker& w) {
    IOM_2* om = g.stores[w.rng.Below(kStores)];
    for (int i = 0; i < 6; ++i) {
        UINT32 key = w.rng.Below(kKeys);
        PVOID user = nullptr;
        UINT32 mode = 0;
        UINT32 access = w.rng.Below(3);
        KSSTATUS st = om->lpVtbl->CreateObject(om, KeyArg(key), InitObj, KeyArg(key), SameKey,
                                               key % kChains, access, access, &user, &mode);
        CHECK(st == 0, st);
        if (st != 0) continue;
        auto* o = static_cast<Obj*>(user);
        CHECK(o->key == key && o->magic == kMagic, o->key);
        if (access == 1) ++o->touched;
        HANDLE h = nullptr;
        CHECK_OK(om->lpVtbl->GetObjectHandle(om, user, &h));
        if (access != 0) CHECK_OK(om->lpVtbl->ReleaseObject(om, user));
        // Find and reference by handle, each with its own reference.
        PVOID found = nullptr;
        UINT32 findAccess = w.rng.Below(3);
        st = om->lpVtbl->FindObject(om, KeyArg(key), SameKey, key % kChains, findAccess, &found);
        if (st == 0) {
            // Ours, or a newer object of the key if another thread deleted
            // ours meanwhile.
            CHECK(static_cast<Obj*>(found)->key == key && static_cast<Obj*>(found)->magic == kMagic,
                  static_cast<Obj*>(found)->key);
            // The dereference releases the lock the find took.
            CHECK_OK(om->lpVtbl->DereferenceObject(om, found, findAccess));
        } else {
            CHECK(st == OmErr(11), st);  // deleted meanwhile by another thread
        }
        PVOID byHandle = nullptr;
        st = om->lpVtbl->ReferenceObjectByHandle(om, h, 0, &byHandle);
        if (st == 0) {
            CHECK(byHandle == user, 0);
            CHECK_OK(om->lpVtbl->DereferenceObject(om, byHandle, 0));
        } else {
            CHECK(st == OmErr(3), st);
        }
        if (w.rng.Chance(35)) {
            CHECK_OK(om->lpVtbl->DeleteObject(om, user, 0));
        } else {
            CHECK_OK(om->lpVtbl->DereferenceObject(om, user, 0));
        }
    }
    if (w.rng.Chance(10)) {
        HANDLE cursor = nullptr;
        PVOID user = nullptr;
        int n = 0;
        while (om->lpVtbl->EnumerateObjects(om, &cursor, nullptr, nullptr, 0, &user) == 0) {
            CHECK(static_cast<Obj*>(user)->magic == kMagic, n);
            CHECK_OK(om->lpVtbl->DereferenceObject(om, user, 0));
            ++n;
        }
    }
}

// A store of its own, released while this thread still holds some of its
// objects; some go to other threads, which drop them later.
void OpStoreRelease(Worker& w) {
    UINT32 level = (w.rng.Chance(50) ? 0u : 3u) | (w.rng.Chance(40) ? 0x10000000u : 0u);
    IOM_2* om = NewStore(level, static_cast<UINT16>(1 + w.rng.Below(6)), w.rng.Below(3));
    CHECK(om != nullptr, level);
    if (om == nullptr) return;
    std::vector<PVOID> held;
    UINT32 n = 1 + w.rng.Below(12);
    for (UINT32 key = 0; key < n; ++key) {
        PVOID user = nullptr;
        KSSTATUS st = om->lpVtbl->CreateObject(om, KeyArg(key), InitObj, nullptr, nullptr,
                                               key % kChains, 0, 0, &user, nullptr);
        CHECK(st == 0, st);
        if (st != 0) continue;
        if (w.rng.Chance(30)) {
            CHECK_OK(om->lpVtbl->DereferenceObject(om, user, 0));
        } else {
            held.push_back(user);
        }
    }
    CHECK(om->lpVtbl->Release(om) == 0, 0);
    for (PVOID user : held) {
        if (w.rng.Chance(40)) {
            std::lock_guard<std::mutex> guard(g_orphanMutex);
            g_orphans.push_back({om, user});
        } else {
            CHECK_OK(om->lpVtbl->DereferenceObject(om, user, 0));
        }
    }
}

void DropOrphans(size_t keep) {
    for (;;) {
        Orphan o;
        {
            std::lock_guard<std::mutex> guard(g_orphanMutex);
            if (g_orphans.size() <= keep) return;
            o = g_orphans.front();
            g_orphans.pop_front();
        }
        CHECK(static_cast<Obj*>(o.user)->magic == kMagic, 0);
        CHECK_OK(o.store->lpVtbl->DereferenceObject(o.store, o.user, 0));
    }
}

void OpOrphans(Worker& w) { DropOrphans(w.rng.Below(8)); }

void OpSecurity(Worker& w) {
    ISCOM_2* m = g.sc;
    SCHANDLE sc = {reinterpret_cast<HANDLE>(uintptr_t{1}),
                   reinterpret_cast<HANDLE>(static_cast<uintptr_t>(1 + w.rng.Below(6)))};
    UINT32 key = w.rng.Below(16);
    PVOID user = nullptr;
    UINT32 mode = 0;
    KSSTATUS st = m->lpVtbl->CreateObject(m, sc, KeyArg(key), InitObj, KeyArg(key), SameKey,
                                          key % 4, 0, 0, &user, &mode);
    CHECK(st == 0, st);
    if (st != 0) return;
    CHECK(static_cast<Obj*>(user)->key == key, key);
    PVOID found = nullptr;
    st = m->lpVtbl->FindObject(m, sc, KeyArg(key), SameKey, key % 4, 0, &found);
    if (st == 0) {
        CHECK_OK(m->lpVtbl->DereferenceObject(m, found, 0));
    } else {
        CHECK(KS_IS_ERROR(st), st);
    }
    if (w.rng.Chance(40)) {
        CHECK_OK(m->lpVtbl->DeleteObject(m, user, 0));
    } else {
        CHECK_OK(m->lpVtbl->DereferenceObject(m, user, 0));
    }
}

void OpInstances(Worker& w) {
    IKspl* k = NewInstance();
    CHECK(k != nullptr, 0);
    if (k == nullptr) return;
    char name[32];
    std::snprintf(name, sizeof name, "soak-%d", w.id);
    CHECK_OK(k->lpVtbl->KsoRegisterModuleName(k, name));
    std::vector<UINT8> stats(64 * 1024);
    UINT32 size = static_cast<UINT32>(stats.size());
    KSSTATUS st = k->lpVtbl->KsoGetGeneralKsplStatistics(k, &size, stats.data());
    CHECK(st == 0 || st == Err(7), st);
    HANDLE e = nullptr;
    CHECK_OK(k->lpVtbl->KsoAllocEvent(k, KsoSynchronizationEvent, &e));
    CHECK_OK(k->lpVtbl->KsoDestroyEvent(k, e));
    ReleaseInstance(k);
}

// The child uses the library briefly on the state it inherited and reports
// through its exit status. No multiple waits there (they log), nothing that
// starts threads where a forked child cannot (ThreadSanitizer, qemu-user),
// and no configuration store:
// SQLite keeps its file-lock bookkeeping per process, and a child forked
// while another thread of the parent held the store's write lock inherits
// that record of a lock it does not hold, so its writes stay busy.
int ChildBody() {
    alarm(30);
    IKspl* k = NewInstance();
    if (k == nullptr) return 2;
    int bad = 0;
    PVOID mem = k->lpVtbl->KsoAllocPagedMemory(k, 4096);
    bad += mem == nullptr;
    if (mem != nullptr) bad += k->lpVtbl->KsoFreeMemory(k, mem) != 0;
    HANDLE e = nullptr;
    bad += k->lpVtbl->KsoAllocEvent(k, KsoNotificationEvent, &e) != 0;
    char text[] = "forked child";
    WCHAR wide[32];
    UINT32 units = 32;
    bad += k->lpVtbl->KsoMultiByteToWideChar(k, 3, text, -1, wide, &units) != 0;
    if (g_childMayStartThreads) {
        Signal s;
        s.k = k;
        s.done = e;
        HANDLE item = nullptr;
        bad += k->lpVtbl->KsoAllocWorkItem(k, SignalRoutine, &s, &item) != 0;
        bad += k->lpVtbl->KsoScheduleWorkItem(k, item, KSO_PRIORITY_NORMAL) != 0;
        bad += k->lpVtbl->KsoWaitForSingleEvent(k, e, 10000000) != 0;
        while (s.finished.load() < 1) k->lpVtbl->KsoSleep(k, 100);
        bad += k->lpVtbl->KsoDestroyWorkItem(k, item) != 0;
        HANDLE timer = nullptr;
        bad += k->lpVtbl->KsoResetEvent(k, e, nullptr) != 0;
        bad += k->lpVtbl->KsoAllocTimer(k, SignalRoutine, &s, FALSE, &timer) != 0;
        bad += k->lpVtbl->KsoScheduleTimer(k, timer, 1000) != 0;
        bad += k->lpVtbl->KsoWaitForSingleEvent(k, e, 10000000) != 0;
        while (s.finished.load() < 2) k->lpVtbl->KsoSleep(k, 100);
        bad += k->lpVtbl->KsoDestroyTimer(k, timer) != 0;
    } else {
        bad += k->lpVtbl->KsoSignalEvent(k, e, nullptr) != 0;
        bad += k->lpVtbl->KsoWaitForSingleEvent(k, e, 0) != 0;
    }
    bad += k->lpVtbl->KsoDestroyEvent(k, e) != 0;
    bad += !AllZero(InUse(k));
    bad += k->lpVtbl->Release(k) != 0;
    return bad == 0 ? 0 : 1;
}

void OpFork(Worker&) {
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) _exit(ChildBody());
    CHECK(pid > 0, 0);
    if (pid < 0) return;
    int status = 0;
    CHECK(waitpid(pid, &status, 0) == pid, 0);
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0, status);
}

using OpFn = void (*)(Worker&);
const OpFn kOps[kOpCount] = {OpMemory,  OpLocks,   OpLockLife,     OpEvents, OpCancel,
                             OpThreads, OpWorkItems, OpTimers,     OpConvert, OpConfig,
                             OpObjects, OpStoreRelease, OpOrphans, OpSecurity, OpInstances,
                             OpFork};
// Relative weights; forks are rare and only thread 0 makes them.
uint32_t g_weights[kOpCount] = {10, 10, 4, 10, 3, 3, 4, 3, 6, 3, 12, 4, 3, 6, 4, 0};
bool g_forks = true;
double g_forkInterval = 0.25;  // seconds between forks of thread 0

std::atomic<bool> g_stop{false};

void WorkerMain(Worker* w) {
    uint32_t total = 0;
    for (uint32_t x : g_weights) total += x;
    auto lastFork = Clock::now();
    while (!g_stop.load(std::memory_order_relaxed)) {
        if (g_forks && w->id == 0 &&
            Clock::now() - lastFork > std::chrono::duration<double>(g_forkInterval)) {
            lastFork = Clock::now();
            OpFork(*w);
            g_ops[kFork].fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        if (total == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        uint32_t pick = w->rng.Below(total);
        int op = 0;
        while (pick >= g_weights[op]) pick -= g_weights[op++];
        kOps[op](*w);
        g_ops[op].fetch_add(1, std::memory_order_relaxed);
    }
}

// ---------------------------------------------------------------------------
// Setup and the final checks.

bool SetUpShared() {
    for (IKspl*& k : g.inst) {
        k = NewInstance();
        if (k == nullptr) return false;
    }
    IKspl* k = g.inst[0];
    CHECK_OK(k->lpVtbl->KsoAllocMutex(k, 0, &g.mutex));
    CHECK_OK(g.inst[1]->lpVtbl->KsoAllocSpinLock(g.inst[1], &g.spin));
    CHECK_OK(g.inst[2]->lpVtbl->KsoAllocReadWriteLock(g.inst[2], &g.rw));
    for (int i = 0; i < kSharedEvents; ++i) {
        IKspl* o = g.inst[i % kShared];
        CHECK_OK(o->lpVtbl->KsoAllocEvent(
            o, i % 3 == 2 ? KsoNotificationEvent : KsoSynchronizationEvent, &g.events[i]));
    }
    g.stores[0] = NewStore(0, 5, 1);            // read-write locks
    g.stores[1] = NewStore(3, 3, 0);            // mutexes
    g.stores[2] = NewStore(0x10000000u, 4, 0);  // deferred deletion
    for (IOM_2* s : g.stores) {
        if (s == nullptr) return false;
    }
    GUID clsid = CLSID_ObjectManagerDataStore;
    if (OrlmCreateInstance(&clsid, nullptr, &IID_ISCObjectManager_2,
                           reinterpret_cast<void**>(&g.sc)) != 0) {
        return false;
    }
    static GUID component = {0x50A40001, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    CHECK_OK(g.sc->lpVtbl->Initialize(g.sc, &component, sizeof(Obj), 4, 0, 4, DeleteObj, nullptr,
                                      nullptr, 0));
    return g_failures.load() == 0;
}

void TearDownShared() {
    DropOrphans(0);
    CHECK(g.mutexCount == g.mutexAdds.load(), g.mutexCount);
    CHECK(g.spinCount == g.spinAdds.load(), g.spinCount);
    CHECK(g.rwCount == g.rwAdds.load(), g.rwCount);
    IKspl* k = g.inst[0];
    CHECK_OK(k->lpVtbl->KsoDestroyMutex(k, g.mutex));
    CHECK_OK(g.inst[1]->lpVtbl->KsoDestroySpinLock(g.inst[1], g.spin));
    CHECK_OK(g.inst[2]->lpVtbl->KsoDestroyReadWriteLock(g.inst[2], g.rw));
    for (int i = 0; i < kSharedEvents; ++i) {
        IKspl* o = g.inst[i % kShared];
        CHECK_OK(o->lpVtbl->KsoDestroyEvent(o, g.events[i]));
    }
    for (IOM_2* s : g.stores) CHECK(s->lpVtbl->Release(s) == 0, 0);
    CHECK(g.sc->lpVtbl->Release(g.sc) == 0, 0);
    for (IKspl* i : g.inst) ReleaseInstance(i);
}

struct Baseline {
    std::vector<UINT32> global;
    UINT32 interfaces;
    UINT32 ulCount;
    INT32 threads;
};
Baseline Measure() {
    return {InUse(pIKspl), KsAtomicLoad(&InterfaceCount), KsAtomicLoad(&g_ulCount),
            KsAtomicLoad(&g_KsplCurrentThreads)};
}
bool Same(const Baseline& a, const Baseline& b) {
    return a.global == b.global && a.interfaces == b.interfaces && a.ulCount == b.ulCount &&
           a.threads == b.threads;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 10;
    int threads = 6;
    uint64_t seed = static_cast<uint64_t>(Clock::now().time_since_epoch().count());
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc) {
            seconds = std::atof(argv[++i]);
        } else if (a == "--threads" && i + 1 < argc) {
            threads = std::atoi(argv[++i]);
        } else if (a == "--seed" && i + 1 < argc) {
            seed = std::strtoull(argv[++i], nullptr, 0);
        } else if (a == "--fork-interval" && i + 1 < argc) {
            g_forkInterval = std::atof(argv[++i]) / 1000.0;
        } else if (a == "--only" && i + 1 < argc) {
            // Narrows the mix to the named operations (comma-separated),
            // for chasing a failure.
            std::string only = std::string(",") + argv[++i] + ",";
            for (int op = 0; op < kOpCount; ++op) {
                if (only.find(std::string(",") + kOpNames[op] + ",") == std::string::npos) {
                    g_weights[op] = 0;
                }
            }
            g_forks = only.find(",fork,") != std::string::npos;
        } else {
            std::fprintf(stderr, "usage: kspl_soak [--seconds N] [--threads N] [--seed N] [--only OP,...] [--fork-interval MS]\n");
            return 2;
        }
    }
    if (threads < 1 || threads > 8 || !(seconds > 0)) {
        std::fprintf(stderr, "kspl_soak: 1 to 8 threads and a positive duration\n");
        return 2;
    }

    // Probed while the process has one thread. AddressSanitizer's allocator
    // is not held across fork(): a child forked while another thread
    // allocates can hang in its first allocation, so that build does not
    // fork at all.
    g_childMayStartThreads = ChildMayStartThreads();
#if defined(__SANITIZE_ADDRESS__)
    g_forks = false;
#endif

    // A store of its own; the library's log only for real errors.
    char dir[] = "/tmp/kspl_soak.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        std::perror("kspl_soak: mkdtemp");
        return 1;
    }
    std::string db = std::string(dir) + "/store.db";
    setenv("ZLREG_DATABASE", db.c_str(), 1);
    setenv("KSPL_DO_NOT_OVERWRITE_OPENLOG", "1", 1);
    openlog("kspl_soak", LOG_NDELAY, LOG_USER);
    setlogmask(LOG_UPTO(LOG_WARNING));
    DllStart();
    if (OrlmRegisterComponent("kspl (linked in)", DllGetClassObject, nullptr, ZLCOM_Table) != 0) {
        std::fprintf(stderr, "kspl_soak: FAILED: cannot register the library\n");
        return 1;
    }
    IKspl* probe = NewInstance();  // initialises the library
    if (probe == nullptr) {
        std::fprintf(stderr, "kspl_soak: FAILED: no instance\n");
        return 1;
    }
    probe->lpVtbl->Release(probe);
    const Baseline before = Measure();
    const long initsBefore = g_inits.load();

    auto start = Clock::now();
    if (!SetUpShared()) {
        std::fprintf(stderr, "kspl_soak: FAILED: setup\n");
        return 1;
    }
    std::vector<Worker> workers;
    for (int i = 0; i < threads; ++i) {
        workers.push_back({i, Rng{seed * 0x9E3779B97F4A7C15ull + static_cast<uint64_t>(i) * 7919u + 1u}});
    }
    std::vector<std::thread> running;
    for (Worker& w : workers) running.emplace_back(WorkerMain, &w);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    g_stop = true;
    for (std::thread& t : running) t.join();
    TearDownShared();

    // Deletion threads end on their own; their records go back to the
    // global instance just after they leave the thread count.
    Baseline after = Measure();
    for (int i = 0; i < 60000 && !Same(after, before); ++i) {
        usleep(500);
        after = Measure();
    }
    CHECK(after.global == before.global, 0);
    CHECK(after.interfaces == before.interfaces, after.interfaces);
    CHECK(after.ulCount == before.ulCount, after.ulCount);
    CHECK(after.threads == before.threads, after.threads);
    CHECK(g_inits.load() - initsBefore == g_deletes.load(), g_inits.load() - g_deletes.load());

    ZLRegSetDatabasePath(nullptr);
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((db + suffix).c_str());
    rmdir(dir);

    double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    unsigned long total = 0;
    std::string detail;
    for (int i = 0; i < kOpCount; ++i) {
        unsigned long n = g_ops[i].load();
        total += n;
        detail += std::string(i == 0 ? "" : ", ") + kOpNames[i] + " " + std::to_string(n);
    }
    int failures = g_failures.load();
    std::printf("kspl_soak: %s in %.1f s, %d threads, seed %llu, %lu operations (%s), %ld objects, "
                "%d failures\n",
                failures == 0 ? "OK" : "FAILED", elapsed, threads,
                static_cast<unsigned long long>(seed), total, detail.c_str(),
                g_inits.load() - initsBefore, failures);
    return failures == 0 ? 0 : 1;
}
