// Out-of-memory paths. Every call that allocates runs with its first,
// second, ... allocation failing (that one only, then that one and every
// later one) until a run completes without reaching it. A failed run must
// return the call's out-of-memory status, built (and so logged) by the call,
// leave its out-pointer null and nothing half made, and leave every counter
// of the calling and of the global instance where it was; AddressSanitizer's
// leak check covers the system heap at exit.
#include <unistd.h>

#include <functional>
#include <string>
#include <tuple>

#include "conv_test_util.h"
#include "linklist_int.h"
#include "om_fixture.h"
#include "schedule_int.h"
#include "sync_int.h"
#include "sysalloc_int.h"
#include "zlreg.h"

namespace {

// Everything a run must leave as it found it.
using Snapshot = std::tuple<KsplCounters, KsplCounters, UINT32, UINT32, INT32>;
Snapshot Take(IKspl* k) {
    return {KsplInUseCounters(k), KsplInUseCounters(pIKspl), KsAtomicLoad(&InterfaceCount),
            KsAtomicLoad(&g_ulCount), KsAtomicLoad(&g_KsplCurrentThreads)};
}

class Fx;

// One scenario. `setup` runs before every run and `check` after it, both
// with the hook unarmed; `check` tests what a run left and gives back
// whatever it (and `setup`) made.
struct Row {
    const char* fn;  // builds the out-of-memory status (or a conversion it calls does)
    unsigned allocations = 1;  // of a clean run
    KSSTATUS noMemory = KsplErr(KSPL_CODE_NO_MEMORY);  // 0: the call absorbs the failure
    KSSTATUS success = 0;
    bool clearsOut = false;  // a failed run nulls the out-pointer `out`
    const char* builtBy = nullptr;  // "" for any routine it calls; default `fn`
    std::function<void(Fx&)> setup = [](Fx&) {};
    std::function<KSSTATUS(Fx&)> call;
    std::function<void(Fx&, bool failed)> check = [](Fx&, bool) {};
};
void PrintTo(const Row& row, std::ostream* os) { *os << row.fn; }

// Long enough that its conversion needs a paged work buffer.
std::vector<WCHAR> Name(const std::u16string& tail) {
    return Wide(u"AllocFailure\\" + std::u16string(60, u'k') + tail);
}

// A configuration store of its own with a key holding a 200-character
// text (paged work buffers both ways), and three clear events.
class Fx : public OmTest, public ::testing::WithParamInterface<Row> {
public:
    using KsplTest::k;
    using KsplTest::v;
    using OmTest::Create;
    using OmTest::MakeStore;
    using OmTest::Info;

    void SetUp() override {
        setenv("ZLREG_DATABASE", db_.c_str(), 1);
        ZLRegSetDatabasePath(nullptr);
        OmTest::SetUp();
        // Records and contexts are made and looked up through the runtime.
        OrlmRegisterComponent("kspl (linked in)", DllGetClassObject, nullptr, ZLCOM_Table);
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
        OmTest::TearDown();
        ZLRegSetDatabasePath(nullptr);
        for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((db_ + suffix).c_str());
    }

    KSSTATUS Query(const char16_t* name) {
        result = 0xA5A5A5A5u;
        return v->KsoQueryValueKey(k, key, Wide(name).data(), info.data(),
                                   static_cast<UINT32>(info.size()), &result);
    }
    bool Registered() const {
        for (HANDLE e : events) {
            if (!KsListEmpty(&static_cast<KSO_EVENT_HANDLE*>(e)->multiWaitList)) return true;
        }
        return false;
    }

    void* out = nullptr;
    HANDLE events[3] = {};
    HANDLE key = nullptr;
    std::vector<WCHAR> text = Wide(std::u16string(200, u's'));
    std::vector<UINT8> info = std::vector<UINT8>(2048);
    UINT32 result = 0;
    IOM* om = nullptr;
    ISCOM_2* sc = nullptr;

private:
    std::string db_ = "/tmp/alloc_failure_test." + std::to_string(getpid()) + ".db";
};

// The driver.
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
            EXPECT_EQ(st, failed ? row.noMemory : row.success);
            if (failed && row.noMemory != 0) {
                // Work buffers fail inside the conversion routines.
                EXPECT_TRUE(built.WasBuilt(st, row.builtBy ? row.builtBy : row.fn) ||
                            built.WasBuilt(st, "KsoWideCharToMultiByte") ||
                            built.WasBuilt(st, "KsoMultiByteToWideChar"));
                EXPECT_TRUE(!row.clearsOut || out == nullptr) << "out-pointer left set";
            }
            row.check(*this, failed);
            if (HasFatalFailure()) return;
            ASSERT_TRUE(WaitFor([&] { return Take(k) == before; })) << "state left behind";
            if (!failed) {
                EXPECT_EQ(seen, row.allocations) << "allocations of a clean run";
                break;
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Scenarios.

void Nop(HANDLE, PVOID) {}

// Records made by a class factory: an IKspl instance or a store.
Row Factory(const char* fn, GUID clsid, const GUID& iid, KSSTATUS noMemory) {
    return {.fn = fn, .noMemory = noMemory, .clearsOut = true,
            .call = [clsid, &iid](Fx& f) {
                GUID c = clsid;
                return OrlmCreateInstance(&c, nullptr, &iid, &f.out);
            },
            .check = [](Fx& f, bool failed) {
                auto* unknown = static_cast<ORLM_IUnknown*>(f.out);
                if (!failed) unknown->lpVtbl->Release(unknown);
            }};
}

Row Resource(const char* fn, KSSTATUS noMemory, std::function<KSSTATUS(Fx&)> alloc,
             KSSTATUS (*destroy)(IKspl*, HANDLE)) {
    return {.fn = fn, .noMemory = noMemory, .clearsOut = true, .call = alloc,
            .check = [destroy](Fx& f, bool failed) {
                if (!failed) destroy(f.k, f.out);
            }};
}

// One registration per clear event; a set event taken before the failure
// stays taken, and a signal after the run reaches a plain wait.
Row MultiWait(BOOLEAN all, bool firstSet) {
    return {.fn = "KsoWaitForMultipleEvents", .allocations = firstSet ? 2u : 3u,
            .success = KsplErr(KSPL_CODE_TIMEOUT),
            .setup = [firstSet](Fx& f) {
                if (firstSet) f.v->KsoSignalEvent(f.k, f.events[0], nullptr);
            },
            .call = [all](Fx& f) {
                return f.v->KsoWaitForMultipleEvents(f.k, 3, f.events, all, 2000);
            },
            .check = [](Fx& f, bool) {
                EXPECT_FALSE(f.Registered());
                for (HANDLE e : f.events) EXPECT_EQ(static_cast<KSO_EVENT_HANDLE*>(e)->state, 0u);
                EXPECT_EQ(f.v->KsoSignalEvent(f.k, f.events[2], nullptr), 0u);
                EXPECT_EQ(f.v->KsoWaitForSingleEvent(f.k, f.events[2], 0), 0u);
            }};
}

KSSTATUS InitStore(IOM* om) {
    return om->lpVtbl->Initialize(om, sizeof(Item), 4, 0x10000000u, 1, DeleteItem, nullptr,
                                  nullptr, 2);
}

// A store of two objects per block holding `pre` objects: a new object
// needs a block and a lock (pre 0) or only a lock (pre 1). A failed
// creation takes no key, and only the objects really made are deleted.
Row StoreObject(const char* fn, UINT32 pre, std::function<KSSTATUS(Fx&)> call) {
    return {.fn = fn, .allocations = pre == 1 ? 1u : 2u, .noMemory = KsplOmErr(KSPL_OM_CODE_NO_MEMORY),
            .clearsOut = true,
            .setup = [pre](Fx& f) {
                f.om = Fx::MakeStore(2, 0, 1);
                for (UINT32 i = 0; i < pre; ++i) {
                    f.om->lpVtbl->DereferenceObject(f.om, Fx::Create(f.om, 100 + i), 0);
                }
                g_routines.deletes = 0;
            },
            .call = call,
            .check = [pre](Fx& f, bool failed) {
                PVOID found = nullptr;
                EXPECT_TRUE(!failed || f.om->lpVtbl->FindObject(f.om, KeyArg(7), CompareItem, 0, 0,
                                                                &found) == KsplOmErr(KSPL_OM_CODE_NOT_FOUND));
                if (!failed) f.om->lpVtbl->DeleteObject(f.om, f.out, 0);
                EXPECT_EQ(Fx::Info(f.om)->statsPreallocated, 0u);
                EXPECT_EQ(Fx::Info(f.om)->statsInUse, pre);
                f.om->lpVtbl->Release(f.om);
                EXPECT_EQ(g_routines.deletes, static_cast<int>(pre + (failed ? 0 : 1)));
            }};
}
KSSTATUS CreateObject(Fx& f) {
    return f.om->lpVtbl->CreateObject(f.om, KeyArg(7), InitItem, KeyArg(7), CompareItem, 0, 0, 0,
                                      &f.out, nullptr);
}

const Row kRows[] = {
    Factory("KsplFactoryCreateInstance", CLSID_ZorvikKspl, IID_IZorvikKspl_1, KsplErr(KSPL_CODE_NO_MEMORY)),
    Resource("KsoAllocMutex", KsplErr(KSPL_CODE_FAILURE),
             [](Fx& f) { return f.v->KsoAllocMutex(f.k, 1, &f.out); }, KsoDestroyMutex),
    Resource("KsoAllocSpinLock", KsplErr(KSPL_CODE_FAILURE),
             [](Fx& f) { return f.v->KsoAllocSpinLock(f.k, &f.out); }, KsoDestroySpinLock),
    Resource("KsoAllocReadWriteLock", KsplErr(KSPL_CODE_FAILURE),
             [](Fx& f) { return f.v->KsoAllocReadWriteLock(f.k, &f.out); },
             KsoDestroyReadWriteLock),
    Resource("KsoAllocEvent", KsplErr(KSPL_CODE_FAILURE),
             [](Fx& f) { return f.v->KsoAllocEvent(f.k, KsoNotificationEvent, &f.out); },
             KsoDestroyEvent),
    Resource("KsoAllocWorkItem", KsplErr(KSPL_CODE_NO_MEMORY),
             [](Fx& f) { return f.v->KsoAllocWorkItem(f.k, Nop, nullptr, &f.out); },
             KsoDestroyWorkItem),
    Resource("KsoAllocTimer", KsplErr(KSPL_CODE_NO_MEMORY),
             [](Fx& f) { return f.v->KsoAllocTimer(f.k, Nop, nullptr, FALSE, &f.out); },
             KsoDestroyTimer),
    Resource("KsoCreateThread", KsplErr(KSPL_CODE_FAILURE),
             [](Fx& f) {
                 return f.v->KsoCreateThread(f.k, KSO_PRIORITY_NORMAL, Nop, nullptr, &f.out);
             },
             [](IKspl* k, HANDLE t) {
                 k->lpVtbl->KsoWaitForThreadExit(k, t, -1);
                 return k->lpVtbl->KsoDestroyThread(k, t);
             }),
    MultiWait(TRUE, false),
    MultiWait(TRUE, true),
    // A length query through a paged work buffer: the length is left alone
    // on failure (the other way fails in the configuration rows).
    {.fn = "KsoMultiByteToWideChar",
     .call = [](Fx& f) {
         f.result = 0;
         return f.v->KsoMultiByteToWideChar(f.k, 1, std::string(300, 'x').data(), -1, nullptr,
                                            &f.result);
     },
     .check = [](Fx& f, bool failed) { EXPECT_EQ(f.result, failed ? 0u : 301u); }},
    // Keys: the record and the name's work buffer; a failed create does
    // not reach the store. Opening takes the same two.
    {.fn = "KsoCreateKey", .allocations = 2, .clearsOut = true,
     .call = [](Fx& f) {
         return f.v->KsoCreateKey(f.k, Name(u"\\New").data(), KSO_KEY_ALL_ACCESS, &f.out);
     },
     .check = [](Fx& f, bool failed) {
         HANDLE h = nullptr;
         EXPECT_EQ(f.v->KsoOpenKey(f.k, Name(u"\\New").data(), KSO_KEY_READ, &h) == 0, !failed);
         if (failed) return;
         f.v->KsoDeleteKey(f.k, h);
         f.v->KsoCloseKey(f.k, h);
         f.v->KsoCloseKey(f.k, f.out);
     }},
    // Values: a failed set stores nothing, a failed query leaves the result
    // length alone.
    {.fn = "KsoSetValueKey", .allocations = 2,
     .call = [](Fx& f) {
         return f.v->KsoSetValueKey(f.k, f.key, Wide(u"New").data(), KSO_REG_SZ, f.text.data(),
                                    static_cast<UINT32>(f.text.size() * 2));
     },
     .check = [](Fx& f, bool failed) {
         EXPECT_EQ(f.Query(u"New") == 0, !failed);
         if (!failed) f.v->KsoDeleteValue(f.k, f.key, Wide(u"New").data());
     }},
    {.fn = "KsoQueryValueKey",
     .call = [](Fx& f) { return f.Query(u"Text"); },
     .check = [](Fx& f, bool failed) { EXPECT_EQ(f.result == 0xA5A5A5A5u, failed); }},
    // Stores.
    Factory("OMFactoryCreateInstance", CLSID_ObjectManagerDataStore, IID_ISCObjectManager_2,
            KsplOmErr(KSPL_OM_CODE_NO_MEMORY)),
    // A store initialisation takes its lock, a work item for deferred
    // deletion, chains and two permanent blocks; a failed one leaves the
    // record as new, so that it initialises cleanly afterwards.
    {.fn = "InternalInitialize", .allocations = 5, .noMemory = KsplOmErr(KSPL_OM_CODE_NO_MEMORY),
     .setup = [](Fx& f) { f.om = NewStore(); },
     .call = [](Fx& f) { return InitStore(f.om); },
     .check = [](Fx& f, bool failed) {
         EXPECT_EQ(OiInitialized(Fx::Info(f.om)), !failed);
         EXPECT_EQ(InitStore(f.om) == 0, failed);
         EXPECT_EQ(Fx::Info(f.om)->statsAllocated, 8u);
         f.om->lpVtbl->Release(f.om);
     }},
    StoreObject("ObjectCreate", 0, CreateObject),
    StoreObject("ObjectCreate", 1, CreateObject),
    StoreObject("ObjectAllocate", 0,
                [](Fx& f) { return f.om->lpVtbl->AllocateObject(f.om, &f.out); }),
    StoreObject("ObjectCreateByHandle", 0, [](Fx& f) {
        return f.om->lpVtbl->CreateObjectByHandle(f.om, PtrFromHandle(MakeHandle(1, 1, 1)),
                                                  KeyArg(7), InitItem, 0, 0, &f.out, &f.result);
    }),
    // The first object of a security context makes the context's store:
    // its record, lock and chains, then the block and the object's lock.
    {.fn = "SCObjectCreate", .allocations = 5, .noMemory = KsplOmErr(KSPL_OM_CODE_NO_MEMORY), .clearsOut = true,
     .builtBy = "",
     .setup = [](Fx& f) {
         static GUID component = {0x5C0BA110, 0x1, 0x2, {1, 2, 3, 4, 5, 6, 7, 8}};
         f.sc = reinterpret_cast<ISCOM_2*>(NewStore(IID_ISCObjectManager_2));
         ASSERT_EQ(f.sc->lpVtbl->Initialize(f.sc, &component, sizeof(Item), 4, 0, 2, DeleteItem,
                                            nullptr, nullptr, 0),
                   0u);
     },
     .call = [](Fx& f) {
         return f.sc->lpVtbl->CreateObject(f.sc, {KeyArg(7), KeyArg(8)}, KeyArg(5), InitItem,
                                           KeyArg(5), CompareItem, 1, 0, 0, &f.out, nullptr);
     },
     .check = [](Fx& f, bool failed) {
         if (!failed) f.sc->lpVtbl->DeleteObject(f.sc, f.out, 0);
         EXPECT_EQ(g_routines.inits, g_routines.deletes);
         f.sc->lpVtbl->Release(f.sc);
     }},
};
INSTANTIATE_TEST_SUITE_P(Calls, Fx, ::testing::ValuesIn(kRows));

}  // namespace
