// Events: both kinds under single and multiple waits, the statuses of the
// multiple wait (code 1 built on every call, code 10 when it runs out), bad
// inputs, signals taken exactly once by competing waiters, and waiters
// cancelled in their waits leaving everything usable.

#include "kspl_test.h"
#include "sched_test_util.h"
#include "sync_int.h"
#include "thread_int.h"

namespace {

constexpr KSSTATUS kTimedOut = 0xC7F1000Au;    // the single wait's, not logged
constexpr auto Sync = KsoSynchronizationEvent;
constexpr auto Note = KsoNotificationEvent;

KSO_EVENT_HANDLE* Rec(HANDLE h) { return static_cast<KSO_EVENT_HANDLE*>(h); }
UINT32 State(HANDLE h) { return __atomic_load_n(&Rec(h)->state, __ATOMIC_SEQ_CST); }

// Single waiters asleep on the event plus registrations of multiple waits.
size_t Waiters(HANDLE h) {
    KsMutexGuard guard(&Rec(h)->mutex);
    size_t n = Rec(h)->singleWaiters;
    PLIST_ENTRY head = &Rec(h)->multiWaitList;
    for (PLIST_ENTRY l = head->Flink; l != head; l = l->Flink) ++n;
    return n;
}

class Events : public KsplTest {
protected:
    HANDLE New(KSO_EVENT_TYPE type) {
        HANDLE h = nullptr;
        EXPECT_EQ(v->KsoAllocEvent(k, type, &h), 0u);
        made_.push_back(h);
        return h;
    }
    BOOLEAN Signal(HANDLE h) {
        BOOLEAN prev = 2;
        EXPECT_EQ(v->KsoSignalEvent(k, h, &prev), 0u);
        return prev;
    }
    KSSTATUS Multi(std::vector<HANDLE> events, BOOLEAN all, INT64 timeout) {
        return v->KsoWaitForMultipleEvents(k, UINT32(events.size()), events.data(), all, timeout);
    }
    void TearDown() override {
        for (HANDLE h : made_) {
            EXPECT_EQ(Waiters(h), 0u);
            EXPECT_EQ(v->KsoDestroyEvent(k, h), 0u);
        }
        KsplTest::TearDown();
    }
    std::vector<HANDLE> made_;
};

TEST_F(Events, WaitResultsAndStatuses) {
    HANDLE a = New(Sync), b = New(Sync), note = New(Note);
    StatusCapture statuses;
    // A synchronization event satisfies one wait. A single wait's time-out
    // is the constant, not logged; with one handle a multiple wait is one.
    EXPECT_EQ(Signal(a), FALSE);
    EXPECT_EQ(Signal(a), TRUE) << "already set";
    EXPECT_EQ(v->KsoWaitForSingleEvent(k, a, 0), 0u);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Multi({a}, TRUE, 300000), kTimedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_TRUE(statuses.Built().empty());
    // Wait-any takes the first set event only; a notification event stays set.
    Signal(b);
    Signal(note);
    EXPECT_EQ(Multi({a, b, note}, FALSE, kLongWait), 1u);
    EXPECT_EQ(Multi({a, b, note}, FALSE, 0), 2u);
    EXPECT_EQ(Multi({a, b, note}, FALSE, 0), 2u);
    // Wait-all consumes what it sees, even when it is not satisfied.
    Signal(a);
    EXPECT_EQ(Multi({a, b, note}, TRUE, 0), KsplErr(1));
    EXPECT_EQ(State(a), 0u);
    EXPECT_EQ(statuses.Built().size(), 4u) << "code 1 is built on every call";
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(1), "KsoWaitForMultipleEvents"));
    EXPECT_EQ(Multi({a, b}, TRUE, 250000), KsplErr(10));
    EXPECT_EQ(statuses.Built().size(), 6u);
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(10), "KsoWaitForMultipleEvents"));

    // One signal releases every sleeper of a notification event.
    BOOLEAN prev = 2;
    EXPECT_EQ(v->KsoResetEvent(k, note, &prev), 0u);
    EXPECT_EQ(prev, TRUE);
    std::vector<std::thread> sleepers;
    for (int i = 0; i < 3; ++i) {
        sleepers.emplace_back([&] { EXPECT_EQ(v->KsoWaitForSingleEvent(k, note, kLongWait), 0u); });
    }
    ASSERT_TRUE(WaitFor([&] { return Waiters(note) == 3; }));
    EXPECT_EQ(Signal(note), FALSE);
    for (auto& t : sleepers) t.join();
    // A wait-all sleeping through two cycles: one event, then the other.
    std::thread signaller([&] {
        ASSERT_TRUE(WaitFor([&] { return Waiters(a) == 1 && Waiters(b) == 1; }));
        Signal(b);
        ASSERT_TRUE(WaitFor([&] { return Waiters(b) == 0; }));
        EXPECT_EQ(Waiters(a), 1u) << "still awaited";
        Signal(a);
    });
    EXPECT_EQ(Multi({a, b}, TRUE, kLongWait), 0u);
    signaller.join();
    EXPECT_EQ(State(a) + State(b), 0u);
}

// A wait-all cycle waits up to the whole timeout from its own start: events
// that come closer together than the timeout satisfy the wait however long
// it takes altogether; a gap longer than the timeout ends it with code 10,
// the events seen so far consumed and every registration gone.
TEST_F(Events, WaitAllGivesEveryCycleTheFullTimeout) {
    using Clock = std::chrono::steady_clock;
    using std::chrono::milliseconds;
    HANDLE a = New(Sync), b = New(Sync);
    constexpr INT64 kTimeoutUs = 1000000;
    // Each gap is 60% of the timeout; the wait as a whole lasts 120% of it.
    auto start = Clock::now();
    std::thread signaller([&] {
        ASSERT_TRUE(WaitFor([&] { return Waiters(a) == 1 && Waiters(b) == 1; }));
        std::this_thread::sleep_for(milliseconds(600));
        Signal(b);
        // The waiter's pass has dropped b's registration: its next cycle
        // starts no earlier than this.
        ASSERT_TRUE(WaitFor([&] { return Waiters(b) == 0; }));
        std::this_thread::sleep_for(milliseconds(600));
        Signal(a);
    });
    EXPECT_EQ(Multi({a, b}, TRUE, kTimeoutUs), 0u);
    EXPECT_GE(Clock::now() - start, milliseconds(1200));
    signaller.join();
    EXPECT_EQ(State(a) + State(b), 0u);

    // The second event never comes: the first one restarted the clock, so
    // the call lasts its gap plus a whole timeout.
    StatusCapture statuses;
    constexpr INT64 kShortUs = 400000;
    start = Clock::now();
    std::thread first([&] {
        ASSERT_TRUE(WaitFor([&] { return Waiters(a) == 1 && Waiters(b) == 1; }));
        std::this_thread::sleep_for(milliseconds(200));
        Signal(a);
    });
    EXPECT_EQ(Multi({a, b}, TRUE, kShortUs), KsplErr(KSPL_CODE_TIMEOUT));
    EXPECT_GE(Clock::now() - start, milliseconds(600));
    first.join();
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(KSPL_CODE_TIMEOUT), "KsoWaitForMultipleEvents"));
    EXPECT_EQ(State(a), 0u) << "consumed by the wait that then timed out";
    EXPECT_EQ(Waiters(a) + Waiters(b), 0u);
}

TEST_F(Events, BadInputsGetTheirStatus) {
    HANDLE a = New(Sync), b = New(Sync);
    HANDLE mutex = nullptr;
    ASSERT_EQ(v->KsoAllocMutex(k, 0, &mutex), 0u);
    KSO_EVENT_HANDLE cleared{};
    for (HANDLE h : {HANDLE{nullptr}, mutex, HANDLE{&cleared}}) {
        EXPECT_EQ(v->KsoSignalEvent(k, h, nullptr), KsplErr(3));
        EXPECT_EQ(v->KsoResetEvent(k, h, nullptr), KsplErr(3));
        EXPECT_EQ(v->KsoWaitForSingleEvent(k, h, 0), KsplErr(3));
        EXPECT_EQ(v->KsoDestroyEvent(k, h), KsplErr(3));
    }
    EXPECT_EQ(v->KsoDestroyEvent(nullptr, a), KsplErr(3));
    // A bad handle in third position ends the scan; wait-all has already
    // consumed the events before it.
    Signal(a);
    Signal(b);
    EXPECT_EQ(Multi({a, b, mutex}, TRUE, kLongWait), KsplErr(3));
    EXPECT_EQ(State(a) + State(b), 0u);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 0, &a, FALSE, 0), KsplErr(4));
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, nullptr, TRUE, 0), KsplErr(4));
    HANDLE h = nullptr;
    EXPECT_EQ(v->KsoAllocEvent(k, static_cast<KSO_EVENT_TYPE>(2), &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocEvent(nullptr, Sync, &h), KsplErr(4));
    EXPECT_EQ(v->KsoAllocEvent(k, Note, nullptr), KsplErr(4));
    EXPECT_EQ(v->KsoDestroyMutex(k, mutex), 0u);
}

// Single and wait-any waiters compete for one synchronization
// event, which is set again only once its previous signal was taken. A lost
// wake-up leaves it set while the waiters sleep; a signal taken twice is
// counted twice.
TEST_F(Events, CompetingWaitersTakeEverySignalExactlyOnce) {
    HANDLE e = New(Sync), never = New(Note);
    std::atomic<int> taken{0}, running{6};
    std::atomic<bool> stop{false};
    std::vector<std::thread> waiters;
    for (int w = 0; w < 6; ++w) {
        waiters.emplace_back([&, w] {
            while (!stop) {
                KSSTATUS want = w % 2 == 0 ? 0u : 1u;  // the index of e in a wait-any
                KSSTATUS st = w % 2 == 0 ? v->KsoWaitForSingleEvent(k, e, kLongWait)
                                         : Multi({never, e}, FALSE, kLongWait);
                taken += st == want ? 1 : 0;
                EXPECT_TRUE(st == want || st == kTimedOut || st == KsplErr(10)) << std::hex << st;
            }
            --running;
        });
    }
    int signals = 0;
    for (; signals < 2000 && !HasFailure(); ++signals) {
        EXPECT_EQ(Signal(e), FALSE);
        EXPECT_TRUE(WaitFor([&] { return State(e) == 0; })) << "signal " << signals;
    }
    stop = true;
    EXPECT_TRUE(WaitFor([&] {
        signals += Signal(e) == FALSE ? 1 : 0;
        return running == 0;
    }));
    for (auto& t : waiters) t.join();
    EXPECT_EQ(taken + int(State(e)), signals);
}

struct WaitCtx {
    IKspl* k;
    int kind;
    HANDLE events[2];
    HANDLE target;  // thread whose exit kind 2 waits for
};

void WaitForever(HANDLE, PVOID p) {
    auto* c = static_cast<WaitCtx*>(p);
    if (c->kind == 0) c->k->lpVtbl->KsoWaitForSingleEvent(c->k, c->events[1], -1);
    if (c->kind == 1) c->k->lpVtbl->KsoWaitForMultipleEvents(c->k, 2, c->events, FALSE, -1);
    if (c->kind == 2) c->k->lpVtbl->KsoWaitForThreadExit(c->k, c->target, -1);
}

// Destroy is refused while anyone waits; waiters cancelled in each kind of
// wait leave no registration and no mutex held (the exit waiter's target
// could not record its end otherwise).
TEST_F(Events, WaitersCancelledInTheirWaitsLeaveEverythingUsable) {
    HANDLE e = New(Sync), f = New(Note);
    WaitCtx ctx[3] = {{k, 0, {f, e}, nullptr}, {k, 1, {f, e}, nullptr}, {k, 2, {f, e}, nullptr}};
    HANDLE t[3] = {};
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, WaitForever, &ctx[i], &t[i]), 0u);
        if (i == 0) ctx[2].target = t[0];
    }
    ASSERT_TRUE(WaitFor([&] { return Waiters(e) == 2 && Waiters(f) == 1; }));
    EXPECT_EQ(v->KsoDestroyEvent(k, e), KsplErr(0x1003));
    EXPECT_EQ(v->KsoDestroyEvent(k, f), KsplErr(0x1003)) << "registered by a multiple wait";
    // Lets the exit waiter reach its sleep.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (int i : {2, 0, 1}) {
        ASSERT_EQ(pthread_cancel(static_cast<KSO_THREAD_HANDLE*>(t[i])->id), 0);
        EXPECT_EQ(v->KsoWaitForThreadExit(k, t[i], kLongWait), 0u) << i;
        EXPECT_EQ(v->KsoDestroyThread(k, t[i]), 0u);
    }
    EXPECT_EQ(Signal(e), FALSE);
    EXPECT_EQ(Multi({f, e}, FALSE, 0), 1u);
}

}  // namespace
