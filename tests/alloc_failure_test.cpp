// Out-of-memory paths. Every call that allocates runs with its first,
// second, ... allocation failing (that one only, then that one and every
// later one) until a run completes without reaching it. A failed run must
// return the call's out-of-memory status, built (and so logged) by the call,
// leave its out-pointer null and nothing half made, and leave every counter
// of the calling and of the global instance where it was; AddressSanitizer's
// leak check covers the system heap at exit.
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <tuple>

#include "conv_test_util.h"
#include "kspl_test.h"
#include "linklist_int.h"
#include "object_int.h"
#include "schedule_int.h"
#include "sync_int.h"
#include "sysalloc_int.h"
#include "zlreg.h"

namespace {

struct Obj {
    UINT32 key;
    UINT32 payload[5];
};
std::atomic<int> g_deletes{0};
KSSTATUS InitObj(PVOID user, PVOID init) {
    static_cast<Obj*>(user)->key = static_cast<UINT32>(reinterpret_cast<uintptr_t>(init));
    return 0;
}
BOOLEAN SameObj(PVOID user, PVOID data) {
    return static_cast<Obj*>(user)->key == static_cast<UINT32>(reinterpret_cast<uintptr_t>(data));
}
KSSTATUS CountDelete(PVOID) {
    g_deletes.fetch_add(1);
    return 0;
}
PVOID Key(UINT32 key) { return reinterpret_cast<PVOID>(static_cast<uintptr_t>(key)); }
const SCHANDLE kContext = {reinterpret_cast<HANDLE>(uintptr_t{7}),
                           reinterpret_cast<HANDLE>(uintptr_t{8})};
void Nop(HANDLE, PVOID) {}

template <typename Pred>
bool Eventually(Pred pred) {
    for (int i = 0; i < 40000 && !pred(); ++i) usleep(500);
    return pred();
}

// Everything a run must leave as it found it.
using Snapshot = std::tuple<KsplCounters, KsplCounters, UINT32, UINT32, INT32>;
Snapshot Take(IKspl* k) {
    return {KsplInUseCounters(k), KsplInUseCounters(pIKspl), KsAtomicLoad(&InterfaceCount),
            KsAtomicLoad(&g_ulCount), KsAtomicLoad(&g_KsplCurrentThreads)};
}

class Fx;

// One scenario. `setup` runs before every run and `check` after it, both
// with the hook unarmed; `check` tests the outcome and gives back whatever
// the run (and `setup`) made.
struct Row {
    const char* fn;  // builds the out-of-memory status (or a conversion it calls does)
    const char* variant = "";
    unsigned allocations = 1;  // of a clean run
    KSSTATUS noMemory = KsplErr(5);  // 0: the call absorbs the failure
    KSSTATUS success = 0;
    bool clearsOut = false;  // a failed run nulls the out-pointer `out`
    const char* builtBy = nullptr;  // "" for any of the routines it calls; default `fn`
    std::function<void(Fx&)> setup = [](Fx&) {};
    std::function<KSSTATUS(Fx&)> call;
    std::function<void(Fx&, bool failed)> check = [](Fx&, bool) {};
};

std::vector<WCHAR> Name(const std::u16string& tail) {
    // Long enough that its conversion needs a paged work buffer.
    return Wide(u"AllocFailure\\" + std::u16string(60, u'k') + tail);
}

void PrintTo(const Row& row, std::ostream* os) { *os << row.fn << row.variant; }

class Fx : public KsplTest, public ::testing::WithParamInterface<Row> {
public:
    using KsplTest::k;
    using KsplTest::v;

    void SetUp() override {
        char tmpl[] = "/tmp/alloc_failure_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        setenv("ZLREG_DATABASE", (dir_ + "/store.db").c_str(), 1);
        ZLRegSetDatabasePath(nullptr);
        KsplTest::SetUp();
        g_deletes = 0;
        for (HANDLE& e : events) ASSERT_EQ(v->KsoAllocEvent(k, KsoSynchronizationEvent, &e), 0u);
        ASSERT_EQ(v->KsoCreateKey(k, Name(u"").data(), KSO_KEY_ALL_ACCESS, &key), 0u);
        ASSERT_EQ(v->KsoSetValueKey(k, key, Wide(u"Text").data(), KSO_REG_SZ, text.data(),
                                    static_cast<UINT32>(text.size() * 2)),
                  0u);
    }
    void TearDown() override {
        KsplAllocFailDisarm();
        for (HANDLE e : events) EXPECT_EQ(v->KsoDestroyEvent(k, e), 0u);
        EXPECT_EQ(v->KsoDeleteKey(k, key), 0u);
        EXPECT_EQ(v->KsoCloseKey(k, key), 0u);
        KsplTest::TearDown();
        ZLRegSetDatabasePath(nullptr);
        unsetenv("ZLREG_DATABASE");
        for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
            unlink((dir_ + "/store.db" + suffix).c_str());
        }
        EXPECT_EQ(rmdir(dir_.c_str()), 0);
    }

    // Whether any of the events still carries a registration of a wait.
    bool Registered() const {
        for (HANDLE e : events) {
            if (!KsListEmpty(&static_cast<KSO_EVENT_HANDLE*>(e)->multiWaitList)) return true;
        }
        return false;
    }
    ObjectInfo* Store() const { return reinterpret_cast<ObjectInfo*>(om); }

    void* out = nullptr;
    HANDLE events[3] = {};
    HANDLE key = nullptr;
    std::vector<WCHAR> text = Wide(std::u16string(200, u's'));
    std::vector<UINT8> info = std::vector<UINT8>(2048);
    UINT32 result = 0;
    ORLM_IClassFactory* factory = nullptr;
    IOM* om = nullptr;
    ISCOM_2* sc = nullptr;
    PVOID user = nullptr;

private:
    std::string dir_;
};

// The driver: n = 1, 2, ... in both modes until a run completes without
// reaching the failing allocation; every run is checked.
TEST_P(Fx, FailsCleanlyAtEveryAllocation) {
    const Row& row = GetParam();
    StatusCapture built;
    for (bool sticky : {false, true}) {
        for (unsigned n = 1;; ++n) {
            SCOPED_TRACE(::testing::Message() << "failing allocation " << n
                                              << (sticky ? " and every later one" : " only"));
            ASSERT_LE(n, 64u) << "the call never completed";
            const Snapshot before = Take(k);
            row.setup(*this);
            out = &out;
            built.Clear();
            KsplAllocFailArm(n, sticky);
            KSSTATUS st = row.call(*this);
            const unsigned seen = KsplAllocSeen();
            const bool failed = KsplAllocFailDisarm();
            if (failed && row.noMemory != 0) {
                EXPECT_EQ(st, row.noMemory);
                // Work buffers fail inside the conversion routines.
                EXPECT_TRUE(built.WasBuilt(st, row.builtBy ? row.builtBy : row.fn) ||
                            built.WasBuilt(st, "KsoWideCharToMultiByte") ||
                            built.WasBuilt(st, "KsoMultiByteToWideChar"));
                if (row.clearsOut) {
                    EXPECT_EQ(out, nullptr);
                }
            } else {
                EXPECT_EQ(st, row.success);
            }
            row.check(*this, failed);
            if (HasFatalFailure()) return;
            EXPECT_TRUE(Eventually([&] { return Take(k) == before; })) << "state left behind";
            if (!failed) {
                EXPECT_EQ(seen, row.allocations) << "allocations of a clean run";
                break;
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Scenarios.

// Records made by a class factory: an IKspl instance or a store.
Row Factory(const char* fn, const char* variant, GUID clsid, const GUID& iid, KSSTATUS noMemory) {
    return {.fn = fn, .variant = variant, .noMemory = noMemory, .clearsOut = true,
            .setup = [clsid](Fx& f) {
                GUID c = clsid;
                GUID cf = IID_IClassFactory;
                ASSERT_EQ(DllGetClassObject(&c, &cf, reinterpret_cast<PVOID*>(&f.factory)), 0);
            },
            .call = [&iid](Fx& f) {
                return f.factory->lpVtbl->CreateInstance(f.factory, nullptr, &iid, &f.out);
            },
            .check = [](Fx& f, bool failed) {
                auto* unknown = static_cast<ORLM_IUnknown*>(f.out);
                if (!failed) unknown->lpVtbl->Release(unknown);
                f.factory->lpVtbl->Release(f.factory);
            }};
}

Row Resource(const char* fn, KSSTATUS noMemory, std::function<KSSTATUS(Fx&)> alloc,
             KSSTATUS (*destroy)(IKspl*, HANDLE)) {
    return {.fn = fn, .noMemory = noMemory, .clearsOut = true, .call = alloc,
            .check = [destroy](Fx& f, bool failed) {
                if (!failed) destroy(f.k, f.out);
            }};
}

void NoWaitLeftBehind(Fx& f, bool) {
    EXPECT_FALSE(f.Registered());
    for (HANDLE e : f.events) EXPECT_EQ(static_cast<KSO_EVENT_HANDLE*>(e)->state, 0u);
    // A signal after the run reaches a plain wait: nothing of it sits on the events.
    EXPECT_EQ(f.v->KsoSignalEvent(f.k, f.events[2], nullptr), 0u);
    EXPECT_EQ(f.v->KsoWaitForSingleEvent(f.k, f.events[2], 0), 0u);
}

Row MultiWait(const char* variant, BOOLEAN all, unsigned allocations, bool firstSet) {
    return {.fn = "KsoWaitForMultipleEvents", .variant = variant, .allocations = allocations,
            .success = KsplErr(10),
            .setup = [firstSet](Fx& f) {
                if (firstSet) f.v->KsoSignalEvent(f.k, f.events[0], nullptr);
            },
            .call = [all](Fx& f) {
                return f.v->KsoWaitForMultipleEvents(f.k, 3, f.events, all, 2000);
            },
            .check = NoWaitLeftBehind};
}

// Config calls on the key the fixture made (with a value "Text" of 200
// characters: paged work buffers both ways).
Row Config(const char* fn, unsigned allocations, std::function<KSSTATUS(Fx&)> call,
           std::function<void(Fx&, bool)> check = [](Fx&, bool) {}) {
    return {.fn = fn, .allocations = allocations, .call = call, .check = check};
}
KSSTATUS QueryValue(Fx& f, const char16_t* name) {
    return f.v->KsoQueryValueKey(f.k, f.key, Wide(name).data(), f.info.data(),
                                 static_cast<UINT32>(f.info.size()), &f.result);
}

IOM* NewStore(const GUID& iid = IID_IObjectManager_1) {
    ORLM_IClassFactory* factory = nullptr;
    GUID clsid = CLSID_ObjectManagerDataStore;
    GUID cf = IID_IClassFactory;
    EXPECT_EQ(DllGetClassObject(&clsid, &cf, reinterpret_cast<PVOID*>(&factory)), 0);
    void* out = nullptr;
    EXPECT_EQ(factory->lpVtbl->CreateInstance(factory, nullptr, &iid, &out), 0u);
    factory->lpVtbl->Release(factory);
    return static_cast<IOM*>(out);
}
KSSTATUS InitStore(IOM* om, UINT32 level, UINT16 perBlock, UINT32 permanent) {
    return om->lpVtbl->Initialize(om, sizeof(Obj), perBlock, level, 1, CountDelete, nullptr,
                                  nullptr, permanent);
}

// Initialisation of a store takes its lock (plus a work item with deferred
// deletion), chains and two permanent blocks; a failed one leaves the record
// as new, so the same record initialises cleanly afterwards.
Row StoreInit(const char* variant, UINT32 level, unsigned allocations) {
    return {.fn = "InternalInitialize", .variant = variant, .allocations = allocations,
            .noMemory = KsplOmErr(5), .setup = [](Fx& f) { f.om = NewStore(); },
            .call = [level](Fx& f) { return InitStore(f.om, level, 4, 2); },
            .check = [level](Fx& f, bool failed) {
                if (failed) {
                    EXPECT_FALSE(OiInitialized(f.Store()));
                    EXPECT_EQ(InitStore(f.om, level, 4, 2), 0u);
                }
                UINT32 allocated = 0;
                EXPECT_EQ(f.om->lpVtbl->GetObjectStats(f.om, &allocated, nullptr, nullptr), 0u);
                EXPECT_EQ(allocated, 8u);
                EXPECT_EQ(f.om->lpVtbl->Release(f.om), 0u);
            }};
}

// A store of two objects per block holding `pre` objects: a new object
// needs a block and a lock (pre 0) or only a lock (pre 1). A failed creation
// takes no key; each routine runs once for every object really made.
Row StoreObject(const char* fn, const char* variant, UINT32 level, UINT32 pre,
                std::function<KSSTATUS(Fx&)> call) {
    return {.fn = fn, .variant = variant, .allocations = pre == 1 ? 1u : 2u,
            .noMemory = KsplOmErr(5), .clearsOut = true,
            .setup = [level, pre](Fx& f) {
                f.om = NewStore();
                ASSERT_EQ(InitStore(f.om, level, 2, 0), 0u);
                for (UINT32 i = 0; i < pre; ++i) {
                    PVOID user = nullptr;
                    ASSERT_EQ(f.om->lpVtbl->CreateObject(f.om, Key(100 + i), InitObj, nullptr,
                                                         nullptr, 0, 0, 0, &user, nullptr),
                              0u);
                    EXPECT_EQ(f.om->lpVtbl->DereferenceObject(f.om, user, 0), 0u);
                }
                g_deletes = 0;
            },
            .call = call,
            .check = [pre](Fx& f, bool failed) {
                if (failed) {
                    EXPECT_EQ(f.Store()->statsInUse, pre);
                    EXPECT_EQ(f.Store()->statsPreallocated, 0u);
                    PVOID found = nullptr;
                    EXPECT_EQ(f.om->lpVtbl->FindObject(f.om, Key(7), SameObj, 0, 0, &found),
                              KsplOmErr(11)) << "a failed creation took the key";
                } else {
                    EXPECT_EQ(f.om->lpVtbl->DeleteObject(f.om, f.out, 0), 0u);
                }
                EXPECT_EQ(f.om->lpVtbl->Release(f.om), 0u);
                EXPECT_EQ(g_deletes.load(), static_cast<int>(pre + (failed ? 0 : 1)));
            }};
}
KSSTATUS CreateObject(Fx& f) {
    return f.om->lpVtbl->CreateObject(f.om, Key(7), InitObj, Key(7), SameObj, 0, 0, 0, &f.out,
                                      nullptr);
}

const Row kRows[] = {
    Factory("KsplFactoryCreateInstance", "", CLSID_ZorvikKspl, IID_IZorvikKspl_1, KsplErr(5)),
    Resource("KsoAllocMutex", KsplErr(1),
             [](Fx& f) { return f.v->KsoAllocMutex(f.k, 1, &f.out); }, KsoDestroyMutex),
    Resource("KsoAllocSpinLock", KsplErr(1),
             [](Fx& f) { return f.v->KsoAllocSpinLock(f.k, &f.out); }, KsoDestroySpinLock),
    Resource("KsoAllocReadWriteLock", KsplErr(1),
             [](Fx& f) { return f.v->KsoAllocReadWriteLock(f.k, &f.out); },
             KsoDestroyReadWriteLock),
    Resource("KsoAllocEvent", KsplErr(1),
             [](Fx& f) { return f.v->KsoAllocEvent(f.k, KsoNotificationEvent, &f.out); },
             KsoDestroyEvent),
    Resource("KsoAllocWorkItem", KsplErr(5),
             [](Fx& f) { return f.v->KsoAllocWorkItem(f.k, Nop, nullptr, &f.out); },
             KsoDestroyWorkItem),
    Resource("KsoAllocTimer", KsplErr(5),
             [](Fx& f) { return f.v->KsoAllocTimer(f.k, Nop, nullptr, FALSE, &f.out); },
             KsoDestroyTimer),
    Resource("KsoCreateThread", KsplErr(1),
             [](Fx& f) {
                 return f.v->KsoCreateThread(f.k, KSO_PRIORITY_NORMAL, Nop, nullptr, &f.out);
             },
             [](IKspl* k, HANDLE t) {
                 EXPECT_EQ(k->lpVtbl->KsoWaitForThreadExit(k, t, -1), 0u);
                 return k->lpVtbl->KsoDestroyThread(k, t);
             }),
    // One registration per clear event; a set event taken before the
    // failure stays taken.
    MultiWait("All", TRUE, 3, false),
    MultiWait("Any", FALSE, 3, false),
    MultiWait("AllFirstSet", TRUE, 2, true),
    // Length query one way, a capacity too small for the work in place the
    // other: nothing written and the length left alone on failure.
    {.fn = "KsoMultiByteToWideChar", .call = [](Fx& f) {
         std::string narrow(300, 'x');
         f.result = 0;
         return f.v->KsoMultiByteToWideChar(f.k, 1, narrow.data(), -1, nullptr, &f.result);
     },
     .check = [](Fx& f, bool failed) { EXPECT_EQ(f.result, failed ? 0u : 301u); }},
    {.fn = "KsoWideCharToMultiByte", .success = KsplErr(7), .call = [](Fx& f) {
         f.result = 10;
         f.info.assign(f.info.size(), 'Q');
         return f.v->KsoWideCharToMultiByte(f.k, 3, f.text.data(), -1,
                                            reinterpret_cast<char*>(f.info.data()), &f.result);
     },
     .check = [](Fx& f, bool failed) {
         EXPECT_EQ(f.result, 10u);
         EXPECT_EQ(f.info[0], failed ? 'Q' : 's');
     }},
    // The key record and the name's work buffer.
    Config("KsoCreateKey", 2,
           [](Fx& f) { return f.v->KsoCreateKey(f.k, Name(u"\\New").data(), KSO_KEY_ALL_ACCESS,
                                                &f.out); },
           [](Fx& f, bool failed) {
               HANDLE h = nullptr;
               EXPECT_EQ(f.v->KsoOpenKey(f.k, Name(u"\\New").data(), KSO_KEY_ALL_ACCESS, &h) == 0,
                         !failed) << "a failed create reached the store";
               if (h != nullptr) f.v->KsoDeleteKey(f.k, h);
               if (h != nullptr) f.v->KsoCloseKey(f.k, h);
               if (!failed) f.v->KsoCloseKey(f.k, f.out);
           }),
    Config("KsoOpenKey", 2,
           [](Fx& f) { return f.v->KsoOpenKey(f.k, Name(u"").data(), KSO_KEY_READ, &f.out); },
           [](Fx& f, bool failed) {
               EXPECT_EQ(f.out == nullptr, failed);
               if (!failed) f.v->KsoCloseKey(f.k, f.out);
           }),
    // The name and data buffer, and the text's conversion.
    Config("KsoSetValueKey", 2,
           [](Fx& f) {
               return f.v->KsoSetValueKey(f.k, f.key, Wide(u"New").data(), KSO_REG_SZ,
                                          f.text.data(), static_cast<UINT32>(f.text.size() * 2));
           },
           [](Fx& f, bool failed) {
               EXPECT_EQ(QueryValue(f, u"New") == 0, !failed) << "a failed set stored the value";
               if (!failed) f.v->KsoDeleteValue(f.k, f.key, Wide(u"New").data());
           }),
    Config("KsoQueryValueKey", 1,
           [](Fx& f) {
               f.result = 0xA5A5A5A5u;
               return QueryValue(f, u"Text");
           },
           [](Fx& f, bool failed) { EXPECT_EQ(f.result == 0xA5A5A5A5u, failed); }),
    Config("KsoEnumerateValueKey", 1, [](Fx& f) {
        return f.v->KsoEnumerateValueKey(f.k, f.key, 0, f.info.data(),
                                         static_cast<UINT32>(f.info.size()), &f.result);
    }),
    {.fn = "KsoEnumerateKey",
     .setup = [](Fx& f) { f.v->KsoOpenKey(f.k, Wide(u"AllocFailure").data(), KSO_KEY_READ, &f.user); },
     .call = [](Fx& f) {
         return f.v->KsoEnumerateKey(f.k, f.user, 0, f.info.data(),
                                     static_cast<UINT32>(f.info.size()), &f.result);
     },
     .check = [](Fx& f, bool) { f.v->KsoCloseKey(f.k, f.user); }},
    {.fn = "KsoDeleteValue",
     .setup = [](Fx& f) {
         UINT32 number = 7;
         EXPECT_EQ(f.v->KsoSetValueKey(f.k, f.key, Wide(u"Gone").data(), KSO_REG_UINT32, &number, 4), 0u);
     },
     .call = [](Fx& f) { return f.v->KsoDeleteValue(f.k, f.key, Wide(u"Gone").data()); },
     .check = [](Fx& f, bool failed) {
         EXPECT_EQ(QueryValue(f, u"Gone") == 0, failed) << "a failed delete removed the value";
         if (failed) f.v->KsoDeleteValue(f.k, f.key, Wide(u"Gone").data());
     }},
    // Store records, plain and of security contexts.
    Factory("OMFactoryCreateInstance", "Store", CLSID_ObjectManagerDataStore,
            IID_IObjectManager_1, KsplOmErr(5)),
    Factory("OMFactoryCreateInstance", "Contexts", CLSID_ObjectManagerDataStore,
            IID_ISCObjectManager_2, KsplOmErr(5)),
    StoreInit("RwLock", 0, 4),
    StoreInit("Mutex", 3, 4),
    StoreInit("Deferred", 0x10000000u, 5),
    StoreObject("ObjectCreate", "NewBlock", 0, 0, CreateObject),
    StoreObject("ObjectCreate", "NewBlockMutex", 3, 0, CreateObject),
    StoreObject("ObjectCreate", "FreeSlot", 0, 1, CreateObject),
    StoreObject("ObjectAllocate", "", 0, 0,
                [](Fx& f) { return f.om->lpVtbl->AllocateObject(f.om, &f.out); }),
    StoreObject("ObjectCreateByHandle", "", 0, 0, [](Fx& f) {
        return f.om->lpVtbl->CreateObjectByHandle(f.om, PtrFromHandle(MakeHandle(1, 1, 1)),
                                                  Key(7), InitObj, 0, 0, &f.out, &f.result);
    }),
    // With deferred deletion a delete starts the store's deletion thread;
    // without memory for its record the object stays queued and the next
    // deletion's thread runs its routine: once either way.
    {.fn = "DeferredDelete", .noMemory = 0,
     .setup = [](Fx& f) {
         f.om = NewStore();
         ASSERT_EQ(InitStore(f.om, 0x10000000u, 4, 1), 0u);
         ASSERT_EQ(f.om->lpVtbl->CreateObject(f.om, Key(1), InitObj, nullptr, nullptr, 0, 0, 0,
                                              &f.user, nullptr),
                   0u);
         g_deletes = 0;
     },
     .call = [](Fx& f) { return f.om->lpVtbl->DeleteObject(f.om, f.user, 0); },
     .check = [](Fx& f, bool failed) {
         if (failed) {
             EXPECT_EQ(g_deletes.load(), 0);
             ASSERT_EQ(f.om->lpVtbl->CreateObject(f.om, Key(2), InitObj, nullptr, nullptr, 0, 0,
                                                  0, &f.user, nullptr),
                       0u);
             EXPECT_EQ(f.om->lpVtbl->DeleteObject(f.om, f.user, 0), 0u);
         }
         EXPECT_TRUE(Eventually([&] { return g_deletes.load() == (failed ? 2 : 1); }));
         EXPECT_EQ(f.om->lpVtbl->Release(f.om), 0u);
     }},
    // The first object of a security context makes the context's store:
    // its record, lock and chains, then the block and the object's lock.
    {.fn = "SCObjectCreate", .allocations = 5, .noMemory = KsplOmErr(5), .clearsOut = true,
     .builtBy = "",
     .setup = [](Fx& f) {
         static GUID component = {0x5C0BA110, 0x1, 0x2, {1, 2, 3, 4, 5, 6, 7, 8}};
         // Contexts are looked up through the runtime.
         OrlmRegisterComponent("kspl (linked in)", DllGetClassObject, nullptr, ZLCOM_Table);
         f.sc = reinterpret_cast<ISCOM_2*>(NewStore(IID_ISCObjectManager_2));
         ASSERT_EQ(f.sc->lpVtbl->Initialize(f.sc, &component, sizeof(Obj), 4, 0, 2, CountDelete,
                                            nullptr, nullptr, 0),
                   0u);
     },
     .call = [](Fx& f) {
         return f.sc->lpVtbl->CreateObject(f.sc, kContext, Key(5), InitObj, Key(5), SameObj, 1, 0,
                                           0, &f.out, nullptr);
     },
     .check = [](Fx& f, bool failed) {
         PVOID found = nullptr;
         EXPECT_EQ(f.sc->lpVtbl->FindObject(f.sc, kContext, Key(5), SameObj, 1, 0, &found) == 0,
                   !failed);
         if (found != nullptr) f.sc->lpVtbl->DereferenceObject(f.sc, found, 0);
         if (!failed) f.sc->lpVtbl->DeleteObject(f.sc, f.out, 0);
         EXPECT_EQ(f.sc->lpVtbl->Release(f.sc), 0u);
     }},
};

// The hook fails the n-th allocation of the armed thread (system heap and
// tracked memory alike), and with `sticky` every later one; allocations of
// other threads neither fail nor count.
TEST(AllocHook, FailsOnlyTheArmedThreadsNthAllocation) {
    IKspl* k = KsplTestCreateInstance();
    KsplAllocFailArm(3);
    void* a = KsplSysAlloc(8);
    std::thread([] {
        void* p = KsplSysAlloc(8);
        EXPECT_NE(p, nullptr);
        KsplSysFree(p);
    }).join();
    void* b = KsplSysCalloc(1, 8);
    void* c = k->lpVtbl->KsoAllocPagedMemory(k, 16);
    void* d = KsplSysAlloc(8);
    EXPECT_EQ(KsplAllocSeen(), 4u);
    EXPECT_TRUE(KsplAllocFailDisarm());
    EXPECT_EQ(c, nullptr);
    for (void* p : {a, b, d}) {
        EXPECT_NE(p, nullptr);
        KsplSysFree(p);
    }
    KsplAllocFailArm(1, true);
    c = k->lpVtbl->KsoAllocPagedMemory(k, 16);
    EXPECT_EQ(KsplSysAlloc(8), nullptr);
    EXPECT_TRUE(KsplAllocFailDisarm());
    EXPECT_EQ(c, nullptr);
    // Armed but not reached: nothing failed.
    KsplAllocFailArm(2);
    a = KsplSysAlloc(8);
    EXPECT_FALSE(KsplAllocFailDisarm());
    EXPECT_NE(a, nullptr);
    KsplSysFree(a);
    EXPECT_EQ(g_ksplAllocHookArmed.load(), 0);
    EXPECT_EQ(k->lpVtbl->Release(k), 0u);
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Calls, Fx, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) {
                             return std::string(info.param.fn) + info.param.variant;
                         });
