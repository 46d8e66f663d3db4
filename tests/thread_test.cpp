// Client threads: how each way of ending reaches the waiters and the count,
// refusals while running, the thread limit, and bad inputs. (An exit waiter
// cancelled in its wait: with the other waits, in event_test.)
#include "kspl_test.h"
#include "memory_int.h"
#include "sched_test_util.h"
#include "sync_int.h"
#include "thread_int.h"

namespace {

constexpr KSSTATUS kExitStatus = 0x2A2B2C2Du;

INT32 Running() { return KsAtomicLoad(&g_KsplCurrentThreads); }

enum class Ending { kReturn, kExit, kExitAndDestroy };

// Every routine waits for `go`, then ends as told.
struct Script {
    IKspl* k = nullptr;
    std::atomic<bool> go{false};
    Ending ending = Ending::kReturn;
    std::atomic<int> pastExit{0};  // a thread that went on after ending itself
};

void Routine(HANDLE self, PVOID context) {
    auto* s = static_cast<Script*>(context);
    WaitFor([&] { return s->go.load(); }, 600);
    if (s->ending == Ending::kReturn) return;
    s->k->lpVtbl->KsoExitThread(s->k, self, kExitStatus, s->ending == Ending::kExitAndDestroy);
    ++s->pastExit;
}

class Threads : public KsplTest {
protected:
    void TearDown() override {
        EXPECT_EQ(s.pastExit.load(), 0) << "KsoExitThread returned";
        KsplTest::TearDown();
    }
    Script s;
};

TEST_F(Threads, EveryEndingReachesTheWaitersAndTheCount) {
    const INT32 before = Running();
    const UINT32 memory = KsplInfo(k)->MemoryPagedInUse;
    s.k = k;
    for (Ending ending : {Ending::kReturn, Ending::kExit, Ending::kExitAndDestroy}) {
        SCOPED_TRACE(static_cast<int>(ending));
        s.ending = ending;
        s.go = false;
        if (ending == Ending::kExitAndDestroy) {
            // No handle wanted: the routine still gets its own, and its
            // record goes with it.
            ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_IDLE, Routine, &s, nullptr), 0u);
            s.go = true;
            EXPECT_TRUE(WaitFor([&] {
                UINT32 now = KsAtomicLoad(&KsplInfo(k)->MemoryPagedInUse);
                return Running() == before && now == memory;
            }));
            // The count drops inside the release, under the instance's pool
            // lock: let the thread out of it before teardown.
            KsMemoryPoolPassThrough(k);
            continue;
        }
        HANDLE t = nullptr, refused = reinterpret_cast<HANDLE>(0x1);
        auto priority = ending == Ending::kExit ? KSO_PRIORITY_NORMAL : KSO_PRIORITY_REALTIME;
        ASSERT_EQ(v->KsoCreateThread(k, priority, Routine, &s, &t), 0u);
        // A limit one above the count refuses the next thread (the limit
        // itself is never reached), leaving the count and nulling the handle.
        const ULONG savedMax = g_KsplMaxThreads;
        g_KsplMaxThreads = static_cast<ULONG>(Running() + 1);
        EXPECT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, Routine, &s, &refused), KsplErr(KSPL_CODE_NO_MEMORY));
        g_KsplMaxThreads = savedMax;
        EXPECT_EQ(refused, nullptr);
        EXPECT_EQ(Running(), before + 1);
        EXPECT_EQ(v->KsoDestroyThread(k, t), kBusy);
        EXPECT_EQ(v->KsoGetThreadExitStatus(k, t), kBusy);
        EXPECT_EQ(v->KsoWaitForThreadExit(k, t, 50000), KsplErr(KSPL_CODE_TIMEOUT));
        EXPECT_EQ(v->KsoSetThreadPriority(k, t, static_cast<KSO_PRIORITY>(3)), KsplErr(KSPL_CODE_INVALID_PARAM));
        EXPECT_EQ(v->KsoSetThreadPriority(k, t, KSO_PRIORITY_REALTIME), 0u);
        std::thread waiter([&] { EXPECT_EQ(v->KsoWaitForThreadExit(k, t, kLongWait), 0u); });
        s.go = true;
        EXPECT_EQ(v->KsoWaitForThreadExit(k, t, kLongWait), 0u);
        waiter.join();
        EXPECT_EQ(Running(), before) << "whoever sees the end sees the count down";
        EXPECT_EQ(v->KsoGetThreadExitStatus(k, t), ending == Ending::kExit ? kExitStatus : 0u);
        EXPECT_EQ(v->KsoDestroyThread(k, t), 0u);
    }
}

TEST_F(Threads, BadInputsGetTheirStatus) {
    KsoHandleHeader event{};  // a record of another kind
    event.Signature = kSigEvent;
    KSO_THREAD_HANDLE cleared{};
    StatusCapture statuses;
    HANDLE h = nullptr;
    EXPECT_EQ(v->KsoCreateThread(nullptr, KSO_PRIORITY_IDLE, Routine, &s, &h), KsplErr(KSPL_CODE_INVALID_PARAM));
    EXPECT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_IDLE, nullptr, &s, &h), KsplErr(KSPL_CODE_INVALID_PARAM));
    EXPECT_EQ(v->KsoCreateThread(k, static_cast<KSO_PRIORITY>(3), Routine, &s, &h), KsplErr(KSPL_CODE_INVALID_PARAM));
    for (HANDLE bad : {HANDLE{nullptr}, HANDLE{&event}, HANDLE{&cleared}}) {
        EXPECT_EQ(v->KsoDestroyThread(k, bad), KsplErr(KSPL_CODE_INVALID_HANDLE));
        EXPECT_EQ(v->KsoGetThreadExitStatus(k, bad), KsplErr(KSPL_CODE_INVALID_HANDLE));
        EXPECT_EQ(v->KsoSetThreadPriority(k, bad, KSO_PRIORITY_NORMAL), KsplErr(KSPL_CODE_INVALID_HANDLE));
        EXPECT_EQ(v->KsoWaitForThreadExit(k, bad, 0), KsplErr(KSPL_CODE_INVALID_HANDLE));
        v->KsoExitThread(k, bad, 1, TRUE);  // not a thread: the caller goes on
    }
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(KSPL_CODE_INVALID_HANDLE), "KsoWaitForThreadExit"));
}

}  // namespace
