// Events: signal/reset semantics of both kinds, single and multiple waits
// with their timeouts and failures, destroy refused while anyone waits, no
// lost or doubled wake-up under competing waiters, and cancellation in a
// wait leaving the events usable.
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "sync_int.h"
#include "thread_int.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr KSSTATUS kTimeoutConstant = 0xC7F1000Au;
constexpr INT64 kLongWait = 30 * 1000 * 1000;  // 30 s: only a lost wake-up reaches it

template <typename Pred>
bool Eventually(Pred pred) {
    auto until = steady_clock::now() + std::chrono::seconds(30);
    while (!pred()) {
        if (steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

KSO_EVENT_HANDLE* Rec(HANDLE h) { return static_cast<KSO_EVENT_HANDLE*>(h); }

// Registrations of multiple waits on the event; each must point back at it.
size_t Registrations(HANDLE h) {
    KSO_EVENT_HANDLE* e = Rec(h);
    KsMutexGuard guard(&e->mutex);
    size_t n = 0;
    for (PLIST_ENTRY l = e->multiWaitList.Flink; l != &e->multiWaitList; l = l->Flink) {
        auto* r = reinterpret_cast<MY_EVENT_LIST_ENTRY*>(reinterpret_cast<char*>(l) -
                                                         offsetof(MY_EVENT_LIST_ENTRY, SingleEntry));
        EXPECT_EQ(r->pSingleEvent, e);
        ++n;
    }
    return n;
}

UINT32 SingleWaiters(HANDLE h) {
    KsMutexGuard guard(&Rec(h)->mutex);
    return Rec(h)->singleWaiters;
}

UINT32 State(HANDLE h) { return __atomic_load_n(&Rec(h)->state, __ATOMIC_SEQ_CST); }

double SecondsSince(steady_clock::time_point start) {
    return std::chrono::duration<double>(steady_clock::now() - start).count();
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
    BOOLEAN Reset(HANDLE h) {
        BOOLEAN prev = 2;
        EXPECT_EQ(v->KsoResetEvent(k, h, &prev), 0u);
        return prev;
    }
    void TearDown() override {
        for (HANDLE h : made_) {
            EXPECT_EQ(Registrations(h), 0u);
            EXPECT_EQ(v->KsoDestroyEvent(k, h), 0u);
        }
        KsplTest::TearDown();
    }

private:
    std::vector<HANDLE> made_;
};

TEST_F(Events, SynchronizationSatisfiesOneWaitNotificationStaysSet) {
    HANDLE sync = New(KsoSynchronizationEvent);
    HANDLE note = New(KsoNotificationEvent);
    StatusCapture statuses;

    EXPECT_EQ(Signal(sync), FALSE);
    EXPECT_EQ(Signal(sync), TRUE) << "already set: nothing changes";
    EXPECT_EQ(v->KsoWaitForSingleEvent(k, sync, 0), 0u);
    EXPECT_EQ(State(sync), 0u) << "consumed by the wait";
    EXPECT_EQ(v->KsoWaitForSingleEvent(k, sync, 0), kTimeoutConstant);

    EXPECT_EQ(v->KsoSignalEvent(k, note, nullptr), 0u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(v->KsoWaitForSingleEvent(k, note, 0), 0u);
    EXPECT_EQ(Reset(note), TRUE);
    EXPECT_EQ(Reset(note), FALSE);
    EXPECT_EQ(v->KsoResetEvent(k, note, nullptr), 0u);
    EXPECT_EQ(v->KsoWaitForSingleEvent(k, note, 0), kTimeoutConstant);

    EXPECT_TRUE(statuses.Built().empty()) << "a single-wait time-out is a constant, not logged";
}

TEST_F(Events, SignalReleasesOneSleeperOrAll) {
    for (KSO_EVENT_TYPE type : {KsoSynchronizationEvent, KsoNotificationEvent}) {
        HANDLE e = New(type);
        std::atomic<int> woken{0};
        std::vector<std::thread> sleepers;
        for (int i = 0; i < 3; ++i) {
            sleepers.emplace_back([&] {
                EXPECT_EQ(v->KsoWaitForSingleEvent(k, e, kLongWait), 0u);
                ++woken;
            });
        }
        ASSERT_TRUE(Eventually([&] { return SingleWaiters(e) == 3; }));
        Signal(e);
        if (type == KsoNotificationEvent) {
            ASSERT_TRUE(Eventually([&] { return woken == 3; }));
            EXPECT_EQ(State(e), 1u);
        } else {
            // One signal, one sleeper; the others keep sleeping.
            for (int expected = 1; expected <= 3; ++expected) {
                ASSERT_TRUE(Eventually(
                    [&] { return SingleWaiters(e) == 3u - expected && woken == expected; }));
                EXPECT_EQ(State(e), 0u);
                if (expected < 3) {
                    EXPECT_EQ(Signal(e), FALSE);
                }
            }
        }
        for (auto& t : sleepers) t.join();
    }
}

TEST_F(Events, SingleWaitTimeouts) {
    HANDLE e = New(KsoSynchronizationEvent);
    StatusCapture statuses;
    auto start = steady_clock::now();
    EXPECT_EQ(v->KsoWaitForSingleEvent(k, e, 0), kTimeoutConstant);
    EXPECT_LT(SecondsSince(start), 2.0) << "a zero timeout does not sleep";

    start = steady_clock::now();
    EXPECT_EQ(v->KsoWaitForSingleEvent(k, e, 300000), kTimeoutConstant);
    double waited = SecondsSince(start);
    EXPECT_GE(waited, 0.3);
    EXPECT_LT(waited, 20.0);
    EXPECT_TRUE(statuses.Built().empty());

    EXPECT_EQ(v->KsoWaitForSingleEvent(k, e, -2), KsplErr(4));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoWaitForSingleEvent"));

    // A signal during a finite wait ends it with success.
    std::thread signaller([&] {
        ASSERT_TRUE(Eventually([&] { return SingleWaiters(e) == 1; }));
        Signal(e);
    });
    EXPECT_EQ(v->KsoWaitForSingleEvent(k, e, kLongWait), 0u);
    signaller.join();
    EXPECT_EQ(State(e), 0u);
}

TEST_F(Events, MultipleWaitArgumentsAndSingleHandleForwarding) {
    HANDLE e = New(KsoSynchronizationEvent);
    HANDLE handles[3] = {e, e, e};
    StatusCapture statuses;
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 0, handles, FALSE, 0), KsplErr(4));
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, nullptr, TRUE, 0), KsplErr(4));
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, handles, TRUE, -5), KsplErr(4));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(4), "KsoWaitForMultipleEvents"));
    statuses.Clear();

    // One handle behaves as the single wait, in both modes: the time-out is
    // the unlogged constant.
    for (BOOLEAN all : {FALSE, TRUE}) {
        EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 1, handles, all, 0), kTimeoutConstant);
        Signal(e);
        EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 1, handles, all, 0), 0u);
        EXPECT_EQ(State(e), 0u);
    }
    EXPECT_TRUE(statuses.Built().empty());
}

TEST_F(Events, WaitAnyScanStopsAtTheFirstSetEvent) {
    HANDLE a = New(KsoSynchronizationEvent);
    HANDLE b = New(KsoSynchronizationEvent);
    HANDLE c = New(KsoSynchronizationEvent);
    HANDLE handles[3] = {a, b, c};

    Signal(b);
    Signal(c);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 3, handles, FALSE, kLongWait), 1u);
    EXPECT_EQ(State(b), 0u);
    EXPECT_EQ(State(c), 1u) << "the scan stops at the first set event";
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 3, handles, FALSE, 0), 2u);

    // Sleeping wait-any: the third is signalled once every event holds a
    // registration of this wait.
    for (int round = 0; round < 3; ++round) {
        std::thread signaller([&] {
            ASSERT_TRUE(Eventually([&] {
                return Registrations(a) == 1 && Registrations(b) == 1 && Registrations(c) == 1;
            }));
            Signal(handles[2 - round]);
        });
        EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 3, handles, FALSE, kLongWait),
                  static_cast<KSSTATUS>(2 - round));
        signaller.join();
        EXPECT_EQ(Registrations(a) + Registrations(b) + Registrations(c), 0u);
        EXPECT_EQ(State(handles[2 - round]), 0u);
    }

    // A notification event is reported and stays set.
    HANDLE note = New(KsoNotificationEvent);
    HANDLE mixed[2] = {a, note};
    Signal(note);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, mixed, FALSE, 0), 1u);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, mixed, FALSE, 0), 1u);
}

TEST_F(Events, WaitAllConsumesWhatItSeesAndTimesOutWithCode10) {
    HANDLE a = New(KsoSynchronizationEvent);
    HANDLE b = New(KsoSynchronizationEvent);
    HANDLE note = New(KsoNotificationEvent);
    HANDLE handles[3] = {a, b, note};
    StatusCapture statuses;

    Signal(a);
    Signal(b);
    Signal(note);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 3, handles, TRUE, 0), 0u);
    EXPECT_EQ(State(a) + State(b), 0u);
    EXPECT_EQ(State(note), 1u);

    // Zero timeout with one event clear: code 1, the set ones consumed anyway.
    Signal(a);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 3, handles, TRUE, 0), KsplErr(1));
    EXPECT_EQ(State(a), 0u);
    EXPECT_EQ(Registrations(b), 0u);

    // Finite timeout: code 10, logged, and no registration left behind.
    statuses.Clear();
    auto start = steady_clock::now();
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 3, handles, TRUE, 250000), KsplErr(10));
    double waited = SecondsSince(start);
    EXPECT_GE(waited, 0.25);
    EXPECT_LT(waited, 20.0);
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(10), "KsoWaitForMultipleEvents"));
    EXPECT_EQ(Registrations(a) + Registrations(b) + Registrations(note), 0u);
    EXPECT_EQ(KsplInfo(k)->MemoryPagedInUse, 0u) << "registration memory released";

    // The same for wait-any.
    HANDLE pair[2] = {a, b};
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, FALSE, 0), KsplErr(1));
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, FALSE, 100000), KsplErr(10));
    EXPECT_EQ(Registrations(a) + Registrations(b), 0u);

    // Events signalled one after the other, each once the wait sleeps.
    std::thread signaller([&] {
        ASSERT_TRUE(Eventually([&] { return Registrations(a) == 1 && Registrations(b) == 1; }));
        Signal(b);
        ASSERT_TRUE(Eventually([&] { return Registrations(b) == 0; }));
        EXPECT_EQ(Registrations(a), 1u) << "a is still awaited";
        Signal(a);
    });
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, TRUE, kLongWait), 0u);
    signaller.join();
    EXPECT_EQ(State(a) + State(b), 0u);
}

TEST_F(Events, BadHandlesAndArgumentsChangeNothing) {
    HANDLE a = New(KsoSynchronizationEvent);
    HANDLE b = New(KsoSynchronizationEvent);
    HANDLE mutex = nullptr;
    ASSERT_EQ(v->KsoAllocMutex(k, 0, &mutex), 0u);
    KSO_EVENT_HANDLE cleared{};
    StatusCapture statuses;
    const KSSTATUS bad = KsplErr(3);

    for (HANDLE h : {HANDLE{nullptr}, mutex, HANDLE{&cleared}}) {
        BOOLEAN prev = 7;
        EXPECT_EQ(v->KsoSignalEvent(k, h, &prev), bad);
        EXPECT_EQ(v->KsoResetEvent(k, h, &prev), bad);
        EXPECT_EQ(prev, 7);
        EXPECT_EQ(v->KsoWaitForSingleEvent(k, h, 0), bad);
        EXPECT_EQ(v->KsoDestroyEvent(k, h), bad);
    }
    EXPECT_TRUE(statuses.WasBuilt(bad, "KsoSignalEvent"));
    EXPECT_TRUE(statuses.WasBuilt(bad, "KsoWaitForSingleEvent"));
    EXPECT_EQ(v->KsoDestroyEvent(nullptr, a), bad);

    // A bad handle in third position ends the scan: in wait-all mode the
    // events before it were already consumed; nothing stays registered.
    Signal(a);
    Signal(b);
    HANDLE handles[3] = {a, b, mutex};
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 3, handles, TRUE, kLongWait), bad);
    EXPECT_TRUE(statuses.WasBuilt(bad, "KsoWaitForMultipleEvents"));
    EXPECT_EQ(State(a) + State(b), 0u);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 3, handles, FALSE, kLongWait), bad);
    EXPECT_EQ(Registrations(a) + Registrations(b), 0u);

    KsplCounters before = KsplReadCounters(k);
    HANDLE untouched = reinterpret_cast<HANDLE>(0x99);
    KsplObjInfo foreign{};
    EXPECT_EQ(v->KsoAllocEvent(k, 2, &untouched), KsplErr(4));
    EXPECT_EQ(v->KsoAllocEvent(k, 0xFFFFFFFFu, &untouched), KsplErr(4));
    EXPECT_EQ(v->KsoAllocEvent(reinterpret_cast<IKspl*>(&foreign), 0, &untouched), KsplErr(4));
    EXPECT_EQ(v->KsoAllocEvent(k, KsoNotificationEvent, nullptr), KsplErr(4));
    EXPECT_EQ(untouched, reinterpret_cast<HANDLE>(0x99));
    EXPECT_EQ(KsplReadCounters(k), before);
    for (const auto& s : statuses.Built()) EXPECT_EQ(s.file, "sync");
    EXPECT_EQ(v->KsoDestroyMutex(k, mutex), 0u);
}

TEST_F(Events, DestroyRefusedWhileAnyoneWaits) {
    HANDLE e = New(KsoSynchronizationEvent);
    HANDLE other = New(KsoSynchronizationEvent);
    HANDLE scratch = nullptr;
    ASSERT_EQ(v->KsoAllocEvent(k, KsoSynchronizationEvent, &scratch), 0u);
    EXPECT_EQ(v->KsoDestroyEvent(k, scratch), 0u);
    EXPECT_EQ(KsplInfo(k)->EventInUse, 2u);

    std::thread single([&] { EXPECT_EQ(v->KsoWaitForSingleEvent(k, e, kLongWait), 0u); });
    ASSERT_TRUE(Eventually([&] { return SingleWaiters(e) == 1; }));
    EXPECT_EQ(v->KsoDestroyEvent(k, e), KsplErr(0x1003));
    EXPECT_EQ(KsplInfo(k)->EventInUse, 2u);
    Signal(e);
    single.join();

    HANDLE pair[2] = {e, other};
    std::thread multi([&] { EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, FALSE, kLongWait), 1u); });
    ASSERT_TRUE(Eventually([&] { return Registrations(e) == 1 && Registrations(other) == 1; }));
    EXPECT_EQ(v->KsoDestroyEvent(k, e), KsplErr(0x1003)) << "registered by a multiple wait";
    // The refused event still works for the waiter: signalling the other
    // event ends the wait and removes both registrations.
    Signal(other);
    multi.join();
    EXPECT_EQ(Registrations(e), 0u);
    EXPECT_EQ(KsplInfo(k)->EventInUse, 2u);
}

// Competing single and wait-any waiters, a resetter, and one driver per
// event that signals it again only once its previous signal was taken. Each
// signal is one token; a successful wait reporting the event and a reset
// finding it set each take one. A wait-any may take more tokens than it
// reports (its pass after a wake-up consumes every set event it finds), so
// per event: reports + resets + what is left set <= signals; a token taken
// twice breaks that. A lost wake-up leaves an event set while the waiters
// sleep, and its driver then waits for it in vain.
TEST_F(Events, CompetingWaitersNeverTakeASignalTwiceNorLoseOne) {
    constexpr int kEvents = 4;
    constexpr int kSignals = 1500;
    constexpr INT64 kWaiterLimit = 2 * kLongWait;  // longer than a driver's patience
    HANDLE events[kEvents];
    for (auto& e : events) e = New(KsoSynchronizationEvent);

    std::atomic<long> signalled[kEvents] = {}, reported[kEvents] = {}, resetTaken[kEvents] = {};
    std::atomic<bool> stop{false};
    std::atomic<int> running{0};
    std::vector<std::thread> waiters;
    for (int w = 0; w < 2; ++w) {
        ++running;
        waiters.emplace_back([&, w] {
            for (int i = w; !stop; ++i) {
                KSSTATUS st = v->KsoWaitForSingleEvent(k, events[i % kEvents], kWaiterLimit);
                if (st == 0) {
                    ++reported[i % kEvents];
                } else if (st != kTimeoutConstant) {
                    ADD_FAILURE() << "single wait: " << std::hex << st;
                    break;
                }
            }
            --running;
        });
        ++running;
        waiters.emplace_back([&] {
            while (!stop) {
                KSSTATUS st = v->KsoWaitForMultipleEvents(k, kEvents, events, FALSE, kWaiterLimit);
                if (st < static_cast<KSSTATUS>(kEvents)) {
                    ++reported[st];
                } else if (st != KsplErr(10)) {
                    ADD_FAILURE() << "wait-any: " << std::hex << st;
                    break;
                }
            }
            --running;
        });
    }

    std::vector<std::thread> drivers;
    for (int d = 0; d < kEvents; ++d) {
        drivers.emplace_back([&, d] {
            for (int i = 0; i < kSignals && !stop; ++i) {
                auto until = steady_clock::now() + std::chrono::seconds(30);
                while (State(events[d]) != 0) {
                    if (steady_clock::now() > until) {
                        ADD_FAILURE() << "event " << d << " signal " << i << " never taken";
                        stop = true;
                        return;
                    }
                    std::this_thread::yield();
                }
                BOOLEAN prev = 2;
                ASSERT_EQ(v->KsoSignalEvent(k, events[d], &prev), 0u);
                ASSERT_EQ(prev, FALSE) << "only this driver sets the event";
                ++signalled[d];
            }
        });
    }
    drivers.emplace_back([&] {
        std::minstd_rand rng(99);
        for (int i = 0; i < kSignals / 4 && !stop; ++i) {
            int which = static_cast<int>(rng() % kEvents);
            BOOLEAN prev = 2;
            ASSERT_EQ(v->KsoResetEvent(k, events[which], &prev), 0u);
            if (prev == TRUE) ++resetTaken[which];
            std::this_thread::yield();
        }
    });
    for (auto& t : drivers) t.join();

    // Every waiter finishes once it sees the stop flag; keep the events set
    // until they all have.
    stop = true;
    EXPECT_TRUE(Eventually([&] {
        for (int d = 0; d < kEvents; ++d) {
            BOOLEAN prev = 2;
            v->KsoSignalEvent(k, events[d], &prev);
            if (prev == FALSE) ++signalled[d];
        }
        return running == 0;
    }));
    for (auto& t : waiters) t.join();

    long total = 0;
    for (int d = 0; d < kEvents; ++d) {
        long left = Reset(events[d]) == TRUE ? 1 : 0;
        EXPECT_LE(reported[d].load() + resetTaken[d].load() + left, signalled[d].load())
            << "event " << d;
        EXPECT_EQ(SingleWaiters(events[d]), 0u);
        EXPECT_EQ(Registrations(events[d]), 0u);
        total += reported[d].load();
    }
    EXPECT_GT(total, 0);
    EXPECT_EQ(KsplInfo(k)->MemoryPagedInUse, 0u) << "every registration freed";
}

// Every wait on two or more events builds (and so logs) the code 1 failure
// once, whatever its outcome; the zero-timeout miss returns that very value.
TEST_F(Events, MultipleWaitBuildsTheCode1FailureOnEveryCall) {
    HANDLE a = New(KsoSynchronizationEvent);
    HANDLE b = New(KsoSynchronizationEvent);
    HANDLE pair[2] = {a, b};
    StatusCapture statuses;
    auto expectBuilt = [&](std::vector<KSSTATUS> expected, const char* what) {
        std::vector<KSSTATUS> got;
        for (const auto& s : statuses.Built()) {
            EXPECT_EQ(s.function, "KsoWaitForMultipleEvents") << what;
            EXPECT_EQ(s.file, "sync") << what;
            got.push_back(s.status);
        }
        EXPECT_EQ(got, expected) << what;
        statuses.Clear();
    };
    const KSSTATUS code1 = KsplErr(1);

    Signal(a);
    Signal(b);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, TRUE, 0), 0u);
    expectBuilt({code1}, "wait-all satisfied at once");
    Signal(b);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, FALSE, kLongWait), 1u);
    expectBuilt({code1}, "wait-any satisfied at once");

    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, FALSE, 0), code1);
    expectBuilt({code1}, "wait-any zero timeout: built once");
    Signal(a);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, TRUE, 0), code1);
    expectBuilt({code1}, "wait-all zero timeout: built once");

    std::thread signaller([&] {
        ASSERT_TRUE(Eventually([&] { return Registrations(a) == 1 && Registrations(b) == 1; }));
        Signal(a);
    });
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, FALSE, kLongWait), 0u);
    signaller.join();
    expectBuilt({code1}, "wait-any after sleeping");

    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, TRUE, 1000), KsplErr(10));
    expectBuilt({code1, KsplErr(10)}, "time-out");
    HANDLE bad[2] = {a, nullptr};
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, bad, TRUE, 0), KsplErr(3));
    expectBuilt({code1, KsplErr(3)}, "bad handle");
}

// A wait-any woken once two of its events are set takes both and reports the
// lower position. The waiter's pass starts with the first event, whose mutex
// the test holds while it signals the other two, so the pass can only run
// after both signals.
TEST_F(Events, WaitAnyPassTakesEverySetEventAndReportsTheLowest) {
    HANDLE a = New(KsoSynchronizationEvent);
    HANDLE b = New(KsoSynchronizationEvent);
    HANDLE c = New(KsoSynchronizationEvent);
    HANDLE handles[3] = {a, b, c};
    KSSTATUS result = 0xFFFFFFFFu;
    std::thread waiter(
        [&] { result = v->KsoWaitForMultipleEvents(k, 3, handles, FALSE, kLongWait); });
    EXPECT_TRUE(Eventually([&] {
        return Registrations(a) == 1 && Registrations(b) == 1 && Registrations(c) == 1;
    }));
    {
        KsMutexGuard hold(&Rec(a)->mutex);
        Signal(c);  // wakes the waiter; its pass stops at a
        Signal(b);
    }
    waiter.join();
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(State(b), 0u);
    EXPECT_EQ(State(c), 0u) << "found set in the same pass: consumed too";
    EXPECT_EQ(State(a), 0u);
    EXPECT_EQ(Registrations(a) + Registrations(b) + Registrations(c), 0u);
}

// A cycle whose sleep ran out fails with code 10 even when its pass finds an
// event set, and that event stays consumed. The test holds the first event's
// mutex across the deadline, so the pass can only run after the second event
// is signalled. A waiter not yet scheduled when the signal comes is woken by
// it and succeeds instead; that round is retried.
TEST_F(Events, CycleThatTimesOutFailsWithCode10EvenIfItsPassFindsAnEvent) {
    HANDLE a = New(KsoSynchronizationEvent);
    HANDLE b = New(KsoSynchronizationEvent);
    HANDLE pair[2] = {a, b};
    constexpr INT64 kShort = 200000;  // 0.2 s
    bool observed = false;
    for (int attempt = 0; attempt < 10 && !observed; ++attempt) {
        StatusCapture statuses;
        std::atomic<bool> done{false};
        KSSTATUS result = 0xFFFFFFFFu;
        std::thread waiter([&] {
            result = v->KsoWaitForMultipleEvents(k, 2, pair, FALSE, kShort);
            done = true;
        });
        bool registered = false;
        EXPECT_TRUE(Eventually([&] {
            registered = Registrations(a) == 1 && Registrations(b) == 1;
            return registered || done;
        }));
        if (registered) {
            KsMutexGuard hold(&Rec(a)->mutex);
            std::this_thread::sleep_for(milliseconds(800));  // well past the deadline
            Signal(b);
        }
        waiter.join();
        if (!registered) {
            EXPECT_EQ(result, KsplErr(10));  // timed out before the test saw it
            continue;
        }
        EXPECT_EQ(State(b), 0u) << "the pass consumed b";
        if (result == KsplErr(10)) {
            observed = true;
            EXPECT_TRUE(statuses.WasBuilt(KsplErr(10), "KsoWaitForMultipleEvents"));
        } else {
            EXPECT_EQ(result, 1u) << "only a waiter woken by the signal may succeed";
        }
    }
    EXPECT_TRUE(observed);
}

// Lock-step rounds where each side sleeps with a 30 s limit: a lost
// wake-up shows up as a time-out.
TEST_F(Events, NoLostWakeUpBetweenSingleAnyAndAllWaits) {
    constexpr int kRounds = 1500;
    HANDLE ping = New(KsoSynchronizationEvent);
    HANDLE pong = New(KsoSynchronizationEvent);
    HANDLE extra = New(KsoSynchronizationEvent);
    HANDLE idle = New(KsoNotificationEvent);  // never set: only widens the wait-any

    std::thread partner([&] {
        HANDLE all[2] = {ping, extra};
        for (int i = 0; i < kRounds; ++i) {
            KSSTATUS st = i % 2 == 0 ? v->KsoWaitForSingleEvent(k, ping, kLongWait)
                                     : v->KsoWaitForMultipleEvents(k, 2, all, TRUE, kLongWait);
            ASSERT_EQ(st, 0u) << "round " << i;
            v->KsoSignalEvent(k, pong, nullptr);
        }
    });
    HANDLE any[2] = {idle, pong};
    for (int i = 0; i < kRounds; ++i) {
        v->KsoSignalEvent(k, ping, nullptr);
        if (i % 2 == 1) v->KsoSignalEvent(k, extra, nullptr);
        ASSERT_EQ(v->KsoWaitForMultipleEvents(k, 2, any, FALSE, kLongWait), 1u) << "round " << i;
    }
    partner.join();
    for (HANDLE e : {ping, pong, extra}) EXPECT_EQ(State(e), 0u);
}

void WaitOne(HANDLE /*self*/, PVOID context) {
    auto* ctx = static_cast<std::pair<IKspl*, HANDLE>*>(context);
    ctx->first->lpVtbl->KsoWaitForSingleEvent(ctx->first, ctx->second, -1);
}

void WaitAny(HANDLE /*self*/, PVOID context) {
    auto* ctx = static_cast<std::pair<IKspl*, HANDLE*>*>(context);
    ctx->first->lpVtbl->KsoWaitForMultipleEvents(ctx->first, 2, ctx->second, FALSE, -1);
}

TEST_F(Events, CancelledWaitersLeaveTheEventsUsable) {
    HANDLE e = New(KsoSynchronizationEvent);
    HANDLE f = New(KsoNotificationEvent);
    HANDLE pair[2] = {f, e};
    std::pair<IKspl*, HANDLE> one{k, e};
    std::pair<IKspl*, HANDLE*> both{k, pair};
    HANDLE t1 = nullptr, t2 = nullptr;
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, WaitOne, &one, &t1), 0u);
    ASSERT_EQ(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, WaitAny, &both, &t2), 0u);
    ASSERT_TRUE(Eventually([&] {
        return SingleWaiters(e) == 1 && Registrations(e) == 1 && Registrations(f) == 1;
    }));
    ASSERT_EQ(pthread_cancel(static_cast<KSO_THREAD_HANDLE*>(t1)->id), 0);
    ASSERT_EQ(pthread_cancel(static_cast<KSO_THREAD_HANDLE*>(t2)->id), 0);
    EXPECT_EQ(v->KsoWaitForThreadExit(k, t1, kLongWait), 0u);
    EXPECT_EQ(v->KsoWaitForThreadExit(k, t2, kLongWait), 0u);

    EXPECT_EQ(SingleWaiters(e), 0u);
    EXPECT_EQ(Registrations(e) + Registrations(f), 0u);
    // Both events still signal and wait normally (their mutexes are free).
    EXPECT_EQ(Signal(e), FALSE);
    EXPECT_EQ(v->KsoWaitForMultipleEvents(k, 2, pair, FALSE, 0), 1u);
    EXPECT_EQ(Signal(f), FALSE);
    EXPECT_EQ(v->KsoWaitForSingleEvent(k, f, 0), 0u);
    EXPECT_EQ(v->KsoDestroyThread(k, t1), 0u);
    EXPECT_EQ(v->KsoDestroyThread(k, t2), 0u);
}

}  // namespace
