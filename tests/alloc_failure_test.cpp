// Out-of-memory paths: every operation that allocates is run with its
// first, second, ... allocation failing (once, and from there on), until a
// run makes fewer allocations than the failing one. Each failed run must
// return the operation's out-of-memory status, leave its out-pointers null,
// register nothing, and leave every counter of the calling instance and of
// the global instance where it was (AddressSanitizer's leak check covers
// the system heap at exit).
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <string>
#include <tuple>
#include <vector>

#include "conv_test_util.h"
#include "convert_int.h"
#include "kspl_test.h"
#include "linklist_int.h"
#include "locale_int.h"
#include "object_int.h"
#include "scobject_int.h"
#include "sync_int.h"
#include "sysalloc_int.h"
#include "zlreg.h"

namespace {

constexpr unsigned kMaxAllocations = 64;

// Everything a failed call must leave as it found it.
using Snapshot = std::tuple<KsplCounters, KsplCounters, UINT32, UINT32, INT32>;
Snapshot Take(IKspl* k) {
    return {KsplInUseCounters(k), KsplInUseCounters(pIKspl), KsAtomicLoad(&InterfaceCount),
            KsAtomicLoad(&g_ulCount), KsAtomicLoad(&g_KsplCurrentThreads)};
}

// One run of a sweep: the failing allocation is the n-th made inside the
// call wrapped by operator(); with `sticky` every later one fails too.
struct FailAt {
    unsigned n;
    bool sticky;
    bool fired = false;
    unsigned seen = 0;

    template <typename F>
    auto operator()(F f) {
        KsplAllocFailArm(n, sticky);
        auto result = f();
        seen = KsplAllocSeen();
        fired = KsplAllocFailDisarm();
        return result;
    }
};

// Runs `body` for n = 1, 2, ... in both modes until the wrapped call
// completes without reaching the failing allocation. `body` checks the
// outcome and releases whatever a successful call made; the state after
// every run must be the state before it. Returns the number of allocations
// of the clean run.
template <typename Body>
unsigned Sweep(IKspl* k, Body body) {
    unsigned clean = 0;
    for (bool sticky : {false, true}) {
        for (unsigned n = 1;; ++n) {
            if (n > kMaxAllocations) {
                ADD_FAILURE() << "the call never completed";
                return 0;
            }
            SCOPED_TRACE(::testing::Message() << "failing allocation " << n
                                              << (sticky ? " and every later one" : " only"));
            Snapshot before = Take(k);
            FailAt at{n, sticky};
            body(at);
            EXPECT_EQ(Take(k), before) << "the call left state behind";
            if (::testing::Test::HasFatalFailure()) return 0;
            if (!at.fired) {
                if (!sticky) clean = at.seen;
                EXPECT_EQ(at.seen, clean) << "both modes see the same allocations";
                break;
            }
        }
    }
    return clean;
}

class AllocFailureTest : public KsplTest {
protected:
    void TearDown() override {
        KsplAllocFailDisarm();
        KsplTest::TearDown();
    }
};

// ---------------------------------------------------------------------------
// The hook itself.

TEST_F(AllocFailureTest, HookFailsOnlyTheArmedThreadsNthAllocation) {
    KsplAllocFailArm(3);
    void* a = KsplSysAlloc(8);
    void* b = KsplSysCalloc(1, 8);
    // Another thread's allocations neither fail nor advance the count.
    std::atomic<void*> other{nullptr};
    std::thread([&] { other = KsplSysAlloc(8); }).join();
    void* c = KsplSysAlloc(8);
    void* d = KsplSysAlloc(8);
    EXPECT_EQ(KsplAllocSeen(), 4u);
    EXPECT_TRUE(KsplAllocFailDisarm());
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_NE(other.load(), nullptr);
    EXPECT_EQ(c, nullptr);
    EXPECT_NE(d, nullptr);
    for (void* p : {a, b, other.load(), d}) KsplSysFree(p);

    KsplAllocFailArm(2, true);
    void* e = v->KsoAllocPagedMemory(k, 16);  // tracked memory counts the same way
    void* f = KsplSysAlloc(8);
    void* g = KsplSysAlloc(8);
    EXPECT_TRUE(KsplAllocFailDisarm());
    EXPECT_NE(e, nullptr);
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(g, nullptr);
    EXPECT_EQ(v->KsoFreeMemory(k, e), 0u);

    // Disarmed, and armed but not reached: nothing fails.
    KsplAllocFailArm(5);
    void* h = KsplSysAlloc(8);
    EXPECT_FALSE(KsplAllocFailDisarm());
    EXPECT_NE(h, nullptr);
    KsplSysFree(h);
    EXPECT_EQ(g_ksplAllocHookArmed.load(), 0);
}

// ---------------------------------------------------------------------------
// Instances.

TEST_F(AllocFailureTest, InstanceCreation) {
    ORLM_IClassFactory* factory = nullptr;
    GUID clsid = CLSID_ZorvikKspl;
    GUID iid = IID_IClassFactory;
    ASSERT_EQ(DllGetClassObject(&clsid, &iid, reinterpret_cast<PVOID*>(&factory)), 0);
    StatusCapture built;
    unsigned n = Sweep(k, [&](FailAt& at) {
        void* out = &out;
        built.Clear();
        UINT32 st = at([&] {
            return factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IZorvikKspl_1, &out);
        });
        if (at.fired) {
            EXPECT_EQ(st, KsplErr(5));
            EXPECT_TRUE(built.WasBuilt(KsplErr(5), "KsplFactoryCreateInstance"));
            EXPECT_EQ(out, nullptr);
        } else {
            ASSERT_EQ(st, 0u);
            ASSERT_NE(out, nullptr);
            EXPECT_EQ(static_cast<IKspl*>(out)->lpVtbl->Release(static_cast<IKspl*>(out)), 0u);
        }
    });
    EXPECT_EQ(n, 1u);
    factory->lpVtbl->Release(factory);
}

// ---------------------------------------------------------------------------
// Resources of an instance.

struct ResourceCase {
    const char* name;
    KSSTATUS noMemory;
    KSSTATUS (*alloc)(IKspl*, HANDLE*);
    KSSTATUS (*destroy)(IKspl*, HANDLE);
};

void Nop(HANDLE, PVOID) {}

const ResourceCase kResources[] = {
    {"KsoAllocMutex", KsplErr(1),
     [](IKspl* k, HANDLE* h) { return k->lpVtbl->KsoAllocMutex(k, 1, h); },
     [](IKspl* k, HANDLE h) { return k->lpVtbl->KsoDestroyMutex(k, h); }},
    {"KsoAllocSpinLock", KsplErr(1),
     [](IKspl* k, HANDLE* h) { return k->lpVtbl->KsoAllocSpinLock(k, h); },
     [](IKspl* k, HANDLE h) { return k->lpVtbl->KsoDestroySpinLock(k, h); }},
    {"KsoAllocReadWriteLock", KsplErr(1),
     [](IKspl* k, HANDLE* h) { return k->lpVtbl->KsoAllocReadWriteLock(k, h); },
     [](IKspl* k, HANDLE h) { return k->lpVtbl->KsoDestroyReadWriteLock(k, h); }},
    {"KsoAllocEvent", KsplErr(1),
     [](IKspl* k, HANDLE* h) { return k->lpVtbl->KsoAllocEvent(k, KsoNotificationEvent, h); },
     [](IKspl* k, HANDLE h) { return k->lpVtbl->KsoDestroyEvent(k, h); }},
    {"KsoAllocWorkItem", KsplErr(5),
     [](IKspl* k, HANDLE* h) { return k->lpVtbl->KsoAllocWorkItem(k, Nop, nullptr, h); },
     [](IKspl* k, HANDLE h) { return k->lpVtbl->KsoDestroyWorkItem(k, h); }},
    {"KsoAllocTimer", KsplErr(5),
     [](IKspl* k, HANDLE* h) { return k->lpVtbl->KsoAllocTimer(k, Nop, nullptr, FALSE, h); },
     [](IKspl* k, HANDLE h) { return k->lpVtbl->KsoDestroyTimer(k, h); }},
};

TEST_F(AllocFailureTest, LockEventWorkItemAndTimerRecords) {
    StatusCapture built;
    for (const ResourceCase& c : kResources) {
        SCOPED_TRACE(c.name);
        unsigned n = Sweep(k, [&](FailAt& at) {
            HANDLE h = &h;
            built.Clear();
            KSSTATUS st = at([&] { return c.alloc(k, &h); });
            if (at.fired) {
                EXPECT_EQ(st, c.noMemory);
                EXPECT_TRUE(built.WasBuilt(c.noMemory, c.name));
                EXPECT_EQ(h, nullptr);
            } else {
                ASSERT_EQ(st, 0u);
                EXPECT_EQ(c.destroy(k, h), 0u);
            }
        });
        EXPECT_EQ(n, 1u);
    }
}

std::atomic<int> g_threadRuns{0};
void CountRun(HANDLE, PVOID) { g_threadRuns.fetch_add(1); }

TEST_F(AllocFailureTest, ThreadRecord) {
    StatusCapture built;
    int started = 0;
    unsigned n = Sweep(k, [&](FailAt& at) {
        HANDLE h = &h;
        built.Clear();
        KSSTATUS st = at([&] {
            return v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, CountRun, nullptr, &h);
        });
        if (at.fired) {
            EXPECT_EQ(st, KsplErr(1));
            EXPECT_TRUE(built.WasBuilt(KsplErr(1), "KsoCreateThread"));
            EXPECT_EQ(h, nullptr);
        } else {
            ASSERT_EQ(st, 0u);
            ++started;
            EXPECT_EQ(v->KsoWaitForThreadExit(k, h, -1), 0u);
            EXPECT_EQ(v->KsoDestroyThread(k, h), 0u);
        }
    });
    EXPECT_EQ(n, 1u);
    // Only the runs that succeeded started a thread.
    EXPECT_EQ(g_threadRuns.load(), started);
}

// ---------------------------------------------------------------------------
// Registrations of a multiple wait.

class MultiWaitAllocTest : public AllocFailureTest {
protected:
    void SetUp() override {
        AllocFailureTest::SetUp();
        for (HANDLE& e : events_) ASSERT_EQ(v->KsoAllocEvent(k, KsoSynchronizationEvent, &e), 0u);
    }
    void TearDown() override {
        for (HANDLE e : events_) EXPECT_EQ(v->KsoDestroyEvent(k, e), 0u);
        AllocFailureTest::TearDown();
    }
    bool NothingRegistered() const {
        for (HANDLE e : events_) {
            if (!KsListEmpty(&static_cast<KSO_EVENT_HANDLE*>(e)->multiWaitList)) return false;
        }
        return true;
    }
    UINT32 State(int i) const { return static_cast<KSO_EVENT_HANDLE*>(events_[i])->state; }

    HANDLE events_[3] = {};
};

TEST_F(MultiWaitAllocTest, EveryRegistrationFailureIsCode5AndUnregistersAll) {
    StatusCapture built;
    for (BOOLEAN waitAll : {TRUE, FALSE}) {
        SCOPED_TRACE(waitAll ? "wait-all" : "wait-any");
        unsigned n = Sweep(k, [&](FailAt& at) {
            built.Clear();
            KSSTATUS st = at([&] { return v->KsoWaitForMultipleEvents(k, 3, events_, waitAll, 2000); });
            EXPECT_EQ(st, at.fired ? KsplErr(5) : KsplErr(10));
            if (at.fired) {
                EXPECT_TRUE(built.WasBuilt(KsplErr(5), "KsoWaitForMultipleEvents"));
            }
            EXPECT_TRUE(NothingRegistered());
            for (int i = 0; i < 3; ++i) EXPECT_EQ(State(i), 0u);
        });
        EXPECT_EQ(n, 3u) << "one registration per clear event";
    }
}

TEST_F(MultiWaitAllocTest, SetEventsBeforeTheFailureStayConsumed) {
    // Wait-all over [set, clear, clear]: the scan takes the first event,
    // then registers on the other two.
    unsigned n = Sweep(k, [&](FailAt& at) {
        ASSERT_EQ(v->KsoSignalEvent(k, events_[0], nullptr), 0u);
        KSSTATUS st = at([&] { return v->KsoWaitForMultipleEvents(k, 3, events_, TRUE, 2000); });
        EXPECT_EQ(st, at.fired ? KsplErr(5) : KsplErr(10));
        EXPECT_EQ(State(0), 0u);
        EXPECT_TRUE(NothingRegistered());
        // A signal after the failure still reaches a plain wait: nothing of
        // the failed call sits on the events.
        ASSERT_EQ(v->KsoSignalEvent(k, events_[2], nullptr), 0u);
        EXPECT_EQ(v->KsoWaitForSingleEvent(k, events_[2], 0), 0u);
    });
    EXPECT_EQ(n, 2u);
}

// ---------------------------------------------------------------------------
// Conversions whose work buffer comes from paged memory.

TEST_F(AllocFailureTest, ConversionWorkBuffers) {
    StatusCapture built;
    std::string narrow(300, 'x');  // 602 bytes of work: above the stack area
    std::vector<WCHAR> wide(100, u'y');
    wide.push_back(0);  // 1200 bytes of work the other way

    for (UINT32 cp : {1u, 2u, 3u}) {
        SCOPED_TRACE(cp);
        // Length query, then a capacity too small for the work in place.
        for (UINT32 capacity : {0u, 10u}) {
            std::vector<WCHAR> out(capacity + 1);
            unsigned n = Sweep(k, [&](FailAt& at) {
                UINT32 len = capacity;
                out.assign(capacity + 1, 0x5A5A);
                built.Clear();
                KSSTATUS st = at([&] {
                    return v->KsoMultiByteToWideChar(k, cp, narrow.data(), -1,
                                                     capacity ? out.data() : nullptr, &len);
                });
                if (at.fired) {
                    EXPECT_EQ(st, KsplErr(5));
                    EXPECT_TRUE(built.WasBuilt(KsplErr(5), "KsoMultiByteToWideChar"));
                    EXPECT_EQ(len, capacity);
                    EXPECT_EQ(out[0], 0x5A5A) << "nothing written on failure";
                } else {
                    EXPECT_EQ(st, capacity ? KsplErr(7) : 0u);
                    EXPECT_EQ(len, capacity ? capacity : 301u);
                }
            });
            EXPECT_EQ(n, 1u);

            std::vector<char> bytes(capacity + 1);
            n = Sweep(k, [&](FailAt& at) {
                UINT32 len = capacity;
                bytes.assign(capacity + 1, 'Q');
                built.Clear();
                KSSTATUS st = at([&] {
                    return v->KsoWideCharToMultiByte(k, cp, wide.data(), -1,
                                                     capacity ? bytes.data() : nullptr, &len);
                });
                if (at.fired) {
                    EXPECT_EQ(st, KsplErr(5));
                    EXPECT_TRUE(built.WasBuilt(KsplErr(5), "KsoWideCharToMultiByte"));
                    EXPECT_EQ(len, capacity);
                    EXPECT_EQ(bytes[0], 'Q');
                } else {
                    EXPECT_EQ(st, capacity ? KsplErr(7) : 0u);
                    EXPECT_EQ(len, capacity ? capacity : 101u);
                }
            });
            EXPECT_EQ(n, 1u);
        }
    }
}

// Code page setup copies both names (a failure of either leaves neither)
// and then builds the lookup tables of the conversions, which are optional:
// without memory for them the setup still succeeds and conversions give the
// same results the slow way.
std::u16string ConvertOem(const char* text) {
    WCHAR out[16];
    UINT32 units = 16;
    if (pIKspl->lpVtbl->KsoMultiByteToWideChar(pIKspl, KSO_CP_OEM, const_cast<char*>(text), -1,
                                               out, &units) != 0) {
        return u"<failed>";
    }
    return AsU16(out, units);
}

TEST_F(AllocFailureTest, CodePageSetup) {
    EXPECT_EQ(KsplRunInChild([] {
                  setenv("ZELTA_CODE_PAGE", "850", 1);
                  const char text[] = "\x82t\x82 \x9c";  // e-acute, pound sign in 850
                  UnInitCharConvInfrastructure();
                  ASSERT_EQ(InitCharConvInfrastructure(), 0);
                  const std::u16string expected = ConvertOem(text);
                  ASSERT_EQ(expected, u"\u00e9t\u00e9 \u00a3");
                  UnInitCharConvInfrastructure();
                  for (bool sticky : {false, true}) {
                      for (unsigned n = 1;; ++n) {
                          SCOPED_TRACE(::testing::Message() << n << (sticky ? " and later" : ""));
                          ASSERT_LT(n, kMaxAllocations);
                          KsplAllocFailArm(n, sticky);
                          int rc = InitCharConvInfrastructure();
                          bool fired = KsplAllocFailDisarm();
                          if (n <= 2) {
                              EXPECT_TRUE(fired);
                              EXPECT_EQ(rc, -1);
                              EXPECT_EQ(g_pOemCodePage, nullptr);
                              EXPECT_EQ(g_pAnsiCodePage, nullptr);
                              continue;
                          }
                          ASSERT_EQ(rc, 0);
                          EXPECT_STREQ(g_pOemCodePage, "850");
                          EXPECT_STREQ(g_pAnsiCodePage, "WINDOWS-1252");
                          EXPECT_EQ(ConvertOem(text), expected);
                          // Tables of the OEM code page, then of the ANSI one.
                          if (sticky && fired) {
                              EXPECT_FALSE(KsplConvHasTables(g_pAnsiCodePage));
                              if (n <= 4) {
                                  EXPECT_FALSE(KsplConvHasTables(g_pOemCodePage));
                              }
                          }
                          UnInitCharConvInfrastructure();
                          if (!fired) break;
                      }
                  }
                  ASSERT_EQ(InitCharConvInfrastructure(), 0);
                  EXPECT_TRUE(KsplConvHasTables(g_pOemCodePage)) << "a clean setup builds the tables";
                  EXPECT_TRUE(KsplConvHasTables(g_pAnsiCodePage));
              }),
              0);
}

// Case-insensitive comparison of counted strings upper-cases copies; without
// memory for them it still answers without touching the caller's texts.
TEST_F(AllocFailureTest, CaseInsensitiveCompareCopies) {
    auto a = Wide(u"Alpha");
    auto b = Wide(u"alpha");
    UNICODE_STRING sa = {10, 12, a.data()};
    UNICODE_STRING sb = {10, 12, b.data()};
    unsigned n = Sweep(k, [&](FailAt& at) {
        BOOLEAN eq = at([&] { return v->KsoEqualUnicodeString(k, &sa, &sb, TRUE); });
        if (!at.fired) {
            EXPECT_EQ(eq, TRUE);
        }
        EXPECT_EQ(AsU16(a.data(), 5), u"Alpha");
        EXPECT_EQ(AsU16(b.data(), 5), u"alpha");
    });
    EXPECT_EQ(n, 2u);
}

// ---------------------------------------------------------------------------
// Configuration keys and values, against a temporary store.

class ConfigAllocTest : public AllocFailureTest {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/alloc_failure_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/store.db";
        setenv("ZLREG_DATABASE", path_.c_str(), 1);
        ZLRegSetDatabasePath(nullptr);
        AllocFailureTest::SetUp();
    }
    void TearDown() override {
        AllocFailureTest::TearDown();
        ZLRegSetDatabasePath(nullptr);
        unsetenv("ZLREG_DATABASE");
        for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((path_ + suffix).c_str());
        EXPECT_EQ(rmdir(dir_.c_str()), 0);
    }

    std::string dir_;
    std::string path_;
};

TEST_F(ConfigAllocTest, KeyRecordsAndNameBuffers) {
    StatusCapture built;
    // A name long enough that its conversion needs a paged work buffer.
    std::u16string longName(60, u'k');
    auto name = Wide(u"AllocFailure\\" + longName);
    for (bool create : {true, false}) {
        SCOPED_TRACE(create ? "create" : "open");
        HANDLE kept = nullptr;
        if (!create) {
            ASSERT_EQ(v->KsoCreateKey(k, name.data(), KSO_KEY_ALL_ACCESS, &kept), 0u);
        }
        const char* fn = create ? "KsoCreateKey" : "KsoOpenKey";
        unsigned n = Sweep(k, [&](FailAt& at) {
            HANDLE h = &h;
            built.Clear();
            KSSTATUS st = at([&] {
                return create ? v->KsoCreateKey(k, name.data(), KSO_KEY_ALL_ACCESS, &h)
                              : v->KsoOpenKey(k, name.data(), KSO_KEY_ALL_ACCESS, &h);
            });
            if (at.fired) {
                EXPECT_EQ(st, KsplErr(5));
                // The record is the key's own; the work buffer is the
                // conversion's.
                EXPECT_TRUE(built.WasBuilt(KsplErr(5), fn) ||
                            built.WasBuilt(KsplErr(5), "KsoWideCharToMultiByte"));
                EXPECT_EQ(h, nullptr);
                if (create) {
                    // Nothing reached the store.
                    HANDLE probe = nullptr;
                    EXPECT_NE(v->KsoOpenKey(k, name.data(), KSO_KEY_READ, &probe), 0u);
                    if (probe != nullptr) v->KsoCloseKey(k, probe);
                }
            } else {
                ASSERT_EQ(st, 0u);
                // Created keys go again, so that every run starts without one.
                if (create) {
                    EXPECT_EQ(v->KsoDeleteKey(k, h), 0u);
                }
                EXPECT_EQ(v->KsoCloseKey(k, h), 0u);
            }
        });
        EXPECT_EQ(n, 2u) << "the record and the name's work buffer";
        if (kept != nullptr) {
            EXPECT_EQ(v->KsoDeleteKey(k, kept), 0u);
            EXPECT_EQ(v->KsoCloseKey(k, kept), 0u);
        }
    }
}

TEST_F(ConfigAllocTest, ValueCalls) {
    StatusCapture built;
    auto keyName = Wide(u"AllocFailure\\Values");
    HANDLE key = nullptr;
    ASSERT_EQ(v->KsoCreateKey(k, keyName.data(), KSO_KEY_ALL_ACCESS, &key), 0u);
    auto sub = Wide(u"AllocFailure\\Values\\Sub");
    HANDLE subKey = nullptr;
    ASSERT_EQ(v->KsoCreateKey(k, sub.data(), KSO_KEY_ALL_ACCESS, &subKey), 0u);
    ASSERT_EQ(v->KsoCloseKey(k, subKey), 0u);

    // A string long enough for paged work buffers in both directions.
    std::u16string text(200, u's');
    auto data = Wide(text);
    auto valueName = Wide(u"Text");
    UINT32 number = 0x01020304;
    auto numberName = Wide(u"Number");

    auto expectNoMemory = [&](KSSTATUS st, const char* fn) {
        EXPECT_EQ(st, KsplErr(5));
        EXPECT_TRUE(built.WasBuilt(KsplErr(5), fn) ||
                    built.WasBuilt(KsplErr(5), "KsoWideCharToMultiByte") ||
                    built.WasBuilt(KsplErr(5), "KsoMultiByteToWideChar"));
    };
    std::vector<UINT8> info(2048);
    UINT32 result = 0;

    // Set: a failed set writes nothing.
    unsigned n = Sweep(k, [&](FailAt& at) {
        built.Clear();
        KSSTATUS st = at([&] {
            return v->KsoSetValueKey(k, key, valueName.data(), KSO_REG_SZ, data.data(),
                                     static_cast<UINT32>(data.size() * 2));
        });
        KSSTATUS query = v->KsoQueryValueKey(k, key, valueName.data(), info.data(),
                                             static_cast<UINT32>(info.size()), &result);
        if (at.fired) {
            expectNoMemory(st, "KsoSetValueKey");
            EXPECT_NE(query, 0u) << "the failed set stored the value";
        } else {
            ASSERT_EQ(st, 0u);
            EXPECT_EQ(query, 0u);
            EXPECT_EQ(v->KsoDeleteValue(k, key, valueName.data()), 0u);
        }
    });
    EXPECT_EQ(n, 2u) << "the name and data buffer, and the text's conversion";
    n = Sweep(k, [&](FailAt& at) {
        built.Clear();
        KSSTATUS st = at([&] {
            return v->KsoSetValueKey(k, key, numberName.data(), KSO_REG_UINT32, &number, 4);
        });
        if (at.fired) {
            expectNoMemory(st, "KsoSetValueKey");
        } else {
            ASSERT_EQ(st, 0u);
        }
    });
    EXPECT_EQ(n, 1u);

    ASSERT_EQ(v->KsoSetValueKey(k, key, valueName.data(), KSO_REG_SZ, data.data(),
                                static_cast<UINT32>(data.size() * 2)),
              0u);

    // Query and enumerate: a failure leaves the result length alone.
    n = Sweep(k, [&](FailAt& at) {
        built.Clear();
        result = 0xA5A5A5A5u;
        KSSTATUS st = at([&] {
            return v->KsoQueryValueKey(k, key, valueName.data(), info.data(),
                                       static_cast<UINT32>(info.size()), &result);
        });
        if (at.fired) {
            expectNoMemory(st, "KsoQueryValueKey");
            EXPECT_EQ(result, 0xA5A5A5A5u);
        } else {
            ASSERT_EQ(st, 0u);
            EXPECT_NE(result, 0xA5A5A5A5u);
        }
    });
    EXPECT_EQ(n, 1u) << "the work buffer; the text fits the caller's record directly";
    for (UINT32 index : {0u, 1u}) {
        n = Sweep(k, [&](FailAt& at) {
            built.Clear();
            result = 0xA5A5A5A5u;
            KSSTATUS st = at([&] {
                return v->KsoEnumerateValueKey(k, key, index, info.data(),
                                               static_cast<UINT32>(info.size()), &result);
            });
            if (at.fired) {
                expectNoMemory(st, "KsoEnumerateValueKey");
            } else {
                ASSERT_EQ(st, 0u);
            }
        });
        EXPECT_EQ(n, 1u);
    }
    n = Sweep(k, [&](FailAt& at) {
        built.Clear();
        KSSTATUS st = at([&] {
            return v->KsoEnumerateKey(k, key, 0, info.data(), static_cast<UINT32>(info.size()),
                                      &result);
        });
        if (at.fired) {
            expectNoMemory(st, "KsoEnumerateKey");
        } else {
            ASSERT_EQ(st, 0u);
        }
    });
    EXPECT_EQ(n, 1u);

    // Delete: a failed delete leaves the value.
    n = Sweep(k, [&](FailAt& at) {
        built.Clear();
        KSSTATUS st = at([&] { return v->KsoDeleteValue(k, key, numberName.data()); });
        KSSTATUS query = v->KsoQueryValueKey(k, key, numberName.data(), info.data(),
                                             static_cast<UINT32>(info.size()), &result);
        if (at.fired) {
            expectNoMemory(st, "KsoDeleteValue");
            EXPECT_EQ(query, 0u) << "the failed delete removed the value";
        } else {
            ASSERT_EQ(st, 0u);
            EXPECT_NE(query, 0u);
            ASSERT_EQ(v->KsoSetValueKey(k, key, numberName.data(), KSO_REG_UINT32, &number, 4), 0u);
        }
    });
    EXPECT_EQ(n, 1u);

    ASSERT_EQ(v->KsoOpenKey(k, sub.data(), KSO_KEY_ALL_ACCESS, &subKey), 0u);
    ASSERT_EQ(v->KsoDeleteKey(k, subKey), 0u);
    ASSERT_EQ(v->KsoCloseKey(k, subKey), 0u);
    ASSERT_EQ(v->KsoDeleteKey(k, key), 0u);
    EXPECT_EQ(v->KsoCloseKey(k, key), 0u);
}

// ---------------------------------------------------------------------------
// Object stores.

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

class StoreAllocTest : public AllocFailureTest {
protected:
    void SetUp() override {
        AllocFailureTest::SetUp();
        g_deletes = 0;
    }

    static void* NewRecord(const GUID& iid) {
        ORLM_IClassFactory* factory = nullptr;
        GUID clsid = CLSID_ObjectManagerDataStore;
        GUID cf = IID_IClassFactory;
        if (DllGetClassObject(&clsid, &cf, reinterpret_cast<PVOID*>(&factory)) != 0) return nullptr;
        void* out = nullptr;
        UINT32 st = factory->lpVtbl->CreateInstance(factory, nullptr, &iid, &out);
        factory->lpVtbl->Release(factory);
        return st == 0 ? out : nullptr;
    }
    static IOM* NewStore() { return static_cast<IOM*>(NewRecord(IID_IObjectManager_1)); }
};

TEST_F(StoreAllocTest, ManagerRecords) {
    ORLM_IClassFactory* factory = nullptr;
    GUID clsid = CLSID_ObjectManagerDataStore;
    GUID cf = IID_IClassFactory;
    ASSERT_EQ(DllGetClassObject(&clsid, &cf, reinterpret_cast<PVOID*>(&factory)), 0);
    StatusCapture built;
    for (const GUID* iid : {&IID_IObjectManager_1, &IID_IObjectManager_2, &IID_ISCObjectManager_1,
                            &IID_ISCObjectManager_2}) {
        unsigned n = Sweep(k, [&](FailAt& at) {
            void* out = &out;
            built.Clear();
            UINT32 st = at([&] { return factory->lpVtbl->CreateInstance(factory, nullptr, iid, &out); });
            if (at.fired) {
                EXPECT_EQ(st, KsplOmErr(5));
                EXPECT_TRUE(built.WasBuilt(KsplOmErr(5), "OMFactoryCreateInstance"));
                EXPECT_EQ(out, nullptr);
            } else {
                ASSERT_EQ(st, 0u);
                auto* unk = static_cast<ORLM_IUnknown*>(out);
                EXPECT_EQ(unk->lpVtbl->Release(unk), 0u);
            }
        });
        EXPECT_EQ(n, 1u);
    }
    factory->lpVtbl->Release(factory);
}

TEST_F(StoreAllocTest, InitializeGivesEverythingBackAndCanBeRetried) {
    StatusCapture built;
    // Read-write lock, mutex, and read-write lock with deferred deletion
    // (a work item as well), each with two permanent blocks.
    for (UINT32 level : {0u, 3u, 0x10000000u}) {
        SCOPED_TRACE(level);
        unsigned n = Sweep(k, [&](FailAt& at) {
            IOM* om = NewStore();
            ASSERT_NE(om, nullptr);
            built.Clear();
            KSSTATUS st = at([&] {
                return om->lpVtbl->Initialize(om, sizeof(Obj), 4, level, 8, CountDelete, nullptr,
                                              nullptr, 2);
            });
            if (at.fired) {
                EXPECT_EQ(st, KsplOmErr(5));
                EXPECT_FALSE(OiInitialized(reinterpret_cast<ObjectInfo*>(om)));
                // The same record initialises cleanly afterwards.
                st = om->lpVtbl->Initialize(om, sizeof(Obj), 4, level, 8, CountDelete, nullptr,
                                            nullptr, 2);
            }
            ASSERT_EQ(st, 0u);
            UINT32 allocated = 0;
            EXPECT_EQ(om->lpVtbl->GetObjectStats(om, &allocated, nullptr, nullptr), 0u);
            EXPECT_EQ(allocated, 8u);
            EXPECT_EQ(om->lpVtbl->Release(om), 0u);
        });
        EXPECT_EQ(n, level == 0x10000000u ? 5u : 4u) << "lock, [work item,] chains, two blocks";
    }
}

// A store of two objects per block with `pre` objects in it already: a new
// object needs a block and a lock (0 or 2 there) or only a lock (1 there).
// A failed creation takes no key and keeps no lock; a block made on the way
// stays, empty, and the next creation uses it. Every new object is deleted
// again (which releases such a block) so that each run starts alike.
TEST_F(StoreAllocTest, CreateAllocateAndCreateByHandle) {
    StatusCapture built;
    int made = 0;
    for (UINT32 level : {0u, 3u}) {
        for (UINT32 pre : {0u, 1u, 2u}) {
            SCOPED_TRACE(::testing::Message() << "level " << level << ", objects before " << pre);
            IOM* om = NewStore();
            ASSERT_NE(om, nullptr);
            ASSERT_EQ(om->lpVtbl->Initialize(om, sizeof(Obj), 2, level, 1, CountDelete, nullptr,
                                             nullptr, 0),
                      0u);
            auto* oi = reinterpret_cast<ObjectInfo*>(om);
            std::vector<PVOID> existing;
            for (UINT32 i = 0; i < pre; ++i) {
                PVOID user = nullptr;
                ASSERT_EQ(om->lpVtbl->CreateObject(om, Key(100 + i), InitObj, nullptr, nullptr, 0,
                                                   0, 0, &user, nullptr),
                          0u);
                existing.push_back(user);
            }
            const unsigned expected = pre == 1 ? 1u : 2u;
            const UINT32 blocksBefore = pre == 0 ? 0u : 2u;
            auto checkFailed = [&](const FailAt& at, KSSTATUS st, PVOID user, const char* fn) {
                EXPECT_EQ(st, KsplOmErr(5));
                EXPECT_TRUE(built.WasBuilt(KsplOmErr(5), fn));
                EXPECT_EQ(user, nullptr);
                EXPECT_EQ(oi->statsInUse, pre);
                EXPECT_EQ(oi->statsPreallocated, 0u);
                // Only the lock failed after a new block was made.
                bool blockStayed = expected == 2 && at.n == 2;
                EXPECT_EQ(oi->statsAllocated, blocksBefore + (blockStayed ? 2u : 0u));
                if (blockStayed) {
                    // Used by the next creation, released with its object.
                    PVOID next = nullptr;
                    ASSERT_EQ(om->lpVtbl->CreateObject(om, Key(50), InitObj, nullptr, nullptr, 0,
                                                       0, 0, &next, nullptr),
                              0u);
                    EXPECT_EQ(oi->statsAllocated, blocksBefore + 2u);
                    EXPECT_EQ(om->lpVtbl->DeleteObject(om, next, 0), 0u);
                    ++made;
                    EXPECT_EQ(oi->statsAllocated, blocksBefore);
                }
            };

            // By key: the key must not be taken by the failed call.
            unsigned n = Sweep(k, [&](FailAt& at) {
                PVOID user = &user;
                UINT32 mode = 77;
                built.Clear();
                KSSTATUS st = at([&] {
                    return om->lpVtbl->CreateObject(om, Key(7), InitObj, Key(7), SameObj, 0, 1, 1,
                                                    &user, &mode);
                });
                if (at.fired) {
                    checkFailed(at, st, user, "ObjectCreate");
                    EXPECT_EQ(mode, 77u);
                    PVOID found = nullptr;
                    EXPECT_EQ(om->lpVtbl->FindObject(om, Key(7), SameObj, 0, 0, &found),
                              KsplOmErr(11));
                } else {
                    ASSERT_EQ(st, 0u);
                    EXPECT_EQ(mode, 1u);
                    ++made;
                    EXPECT_EQ(om->lpVtbl->DeleteObject(om, user, 1), 0u);
                }
            });
            EXPECT_EQ(n, expected);

            // Preallocation.
            n = Sweep(k, [&](FailAt& at) {
                PVOID user = &user;
                built.Clear();
                KSSTATUS st = at([&] { return om->lpVtbl->AllocateObject(om, &user); });
                if (at.fired) {
                    checkFailed(at, st, user, "ObjectAllocate");
                } else {
                    ASSERT_EQ(st, 0u);
                    EXPECT_EQ(oi->statsPreallocated, 1u);
                    ++made;
                    EXPECT_EQ(om->lpVtbl->DeleteObject(om, user, 0), 0u);
                }
            });
            EXPECT_EQ(n, expected);

            // By handle: the slot named by the handle is in the block after
            // the existing ones (a new one unless it has a free slot).
            UINT32 handle = MakeHandle(1 + pre / 2, 1, 1 + pre % 2);
            n = Sweep(k, [&](FailAt& at) {
                PVOID user = &user;
                UINT32 mode = 77;
                built.Clear();
                KSSTATUS st = at([&] {
                    return om->lpVtbl->CreateObjectByHandle(om, PtrFromHandle(handle), Key(9),
                                                            InitObj, 0, 0, &user, &mode);
                });
                if (at.fired) {
                    checkFailed(at, st, user, "ObjectCreateByHandle");
                    EXPECT_EQ(mode, 0u);
                    PVOID found = nullptr;
                    EXPECT_EQ(om->lpVtbl->ReferenceObjectByHandle(om, PtrFromHandle(handle), 0, &found),
                              KsplOmErr(3));
                } else {
                    ASSERT_EQ(st, 0u);
                    EXPECT_EQ(mode, 1u);
                    ++made;
                    EXPECT_EQ(om->lpVtbl->DeleteObject(om, user, 0), 0u);
                }
            });
            EXPECT_EQ(n, expected);

            for (PVOID user : existing) EXPECT_EQ(om->lpVtbl->DeleteObject(om, user, 0), 0u);
            made += static_cast<int>(existing.size());
            EXPECT_EQ(om->lpVtbl->Release(om), 0u);
            if (HasFatalFailure()) return;
        }
    }
    EXPECT_EQ(g_deletes.load(), made) << "a routine ran for an object that was never made";
}

template <typename Pred>
bool Eventually(Pred pred) {
    for (int i = 0; i < 40000; ++i) {
        if (pred()) return true;
        usleep(500);
    }
    return pred();
}

// With deferred deletion a delete starts the store's deletion thread; when
// its record cannot be had the object stays queued, and the next deletion's
// thread runs its routine: each routine runs exactly once either way.
TEST_F(StoreAllocTest, DeferredDeletionWithoutThreadMemory) {
    IOM* om = NewStore();
    ASSERT_NE(om, nullptr);
    ASSERT_EQ(om->lpVtbl->Initialize(om, sizeof(Obj), 4, 0x10000000u, 1, CountDelete, nullptr,
                                     nullptr, 1),
              0u);
    auto* oi = reinterpret_cast<ObjectInfo*>(om);
    auto idle = [&] {
        LockInstance(oi, kOmAccessExclusive);
        bool done = !oi->objDeleteActive && OmListEmpty(oi, &oi->objDeleteList);
        UnlockInstance(oi);
        return done;
    };
    int expectedDeletes = 0;
    unsigned n = Sweep(k, [&](FailAt& at) {
        Snapshot start = Take(k);
        PVOID user = nullptr;
        ASSERT_EQ(om->lpVtbl->CreateObject(om, Key(1), InitObj, nullptr, nullptr, 0, 0, 0, &user,
                                           nullptr),
                  0u);
        KSSTATUS st = at([&] { return om->lpVtbl->DeleteObject(om, user, 0); });
        EXPECT_EQ(st, 0u);
        ++expectedDeletes;
        if (at.fired) {
            // Queued, not run.
            EXPECT_EQ(g_deletes.load(), expectedDeletes - 1);
            EXPECT_FALSE(idle());
            PVOID other = nullptr;
            ASSERT_EQ(om->lpVtbl->CreateObject(om, Key(2), InitObj, nullptr, nullptr, 0, 0, 0,
                                               &other, nullptr),
                      0u);
            EXPECT_EQ(om->lpVtbl->DeleteObject(om, other, 0), 0u);
            ++expectedDeletes;
        }
        EXPECT_TRUE(Eventually([&] { return idle() && Take(k) == start; }));
        EXPECT_EQ(g_deletes.load(), expectedDeletes);
    });
    EXPECT_EQ(n, 1u) << "the deletion thread's record";
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    EXPECT_EQ(g_deletes.load(), expectedDeletes);
}

// The first object of a security context makes the context's store; every
// allocation on the way (store record, its lock and chains, the block and
// the object's lock) can fail, and the manager's release gives back what a
// context kept.
TEST_F(StoreAllocTest, FirstObjectOfASecurityContext) {
    ASSERT_EQ(OrlmRegisterComponent("kspl (linked in)", DllGetClassObject, nullptr, ZLCOM_Table), 0u);
    static GUID component = {0x5C0BA110, 0x1, 0x2, {1, 2, 3, 4, 5, 6, 7, 8}};
    int made = 0;
    unsigned n = Sweep(k, [&](FailAt& at) {
        ISCOM_2* m = nullptr;
        GUID clsid = CLSID_ObjectManagerDataStore;
        ASSERT_EQ(OrlmCreateInstance(&clsid, nullptr, &IID_ISCObjectManager_2,
                                     reinterpret_cast<void**>(&m)),
                  0u);
        ASSERT_EQ(m->lpVtbl->Initialize(m, &component, sizeof(Obj), 4, 0, 2, CountDelete, nullptr,
                                        nullptr, 0),
                  0u);
        SCHANDLE sc = {reinterpret_cast<HANDLE>(uintptr_t{7}), reinterpret_cast<HANDLE>(uintptr_t{8})};
        PVOID user = &user;
        KSSTATUS st = at([&] {
            return m->lpVtbl->CreateObject(m, sc, Key(5), InitObj, Key(5), SameObj, 1, 0, 0, &user,
                                           nullptr);
        });
        if (at.fired) {
            EXPECT_EQ(st, KsplOmErr(5));
            EXPECT_EQ(user, nullptr);
            PVOID found = nullptr;
            EXPECT_NE(m->lpVtbl->FindObject(m, sc, Key(5), SameObj, 1, 0, &found), 0u);
        } else {
            ASSERT_EQ(st, 0u);
            EXPECT_EQ(static_cast<Obj*>(user)->key, 5u);
            ++made;
            EXPECT_EQ(m->lpVtbl->DeleteObject(m, user, 0), 0u);
        }
        EXPECT_EQ(m->lpVtbl->Release(m), 0u);
    });
    EXPECT_EQ(n, 5u) << "store record, lock, chains, block, object lock";
    EXPECT_EQ(g_deletes.load(), made);
}

}  // namespace
