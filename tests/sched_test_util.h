// sched_test_util.h - small helpers shared by the thread, event, lock,
// work-item and timer suites (and the soak program).
#pragma once

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "ks_types.h"

// Whether a forked child of this (multi-threaded) process can start
// threads. ThreadSanitizer cannot follow it (its thread registry still holds
// the parent's threads), AddressSanitizer's child can inherit the
// allocator's internal lock held by another thread, and the i386 build runs
// under qemu-user, which aborts on it.
inline bool ChildMayStartThreads() {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(__i386__)
    return false;
#else
    return true;
#endif
}

// Polls `pred` every 200 us until it holds or `seconds` have passed (the
// bound is generous: sanitizers and qemu-i386 are slow).
template <class Pred>
bool WaitFor(Pred pred, double seconds = 30.0) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

constexpr KSSTATUS kBusy = 0xC7F11003u;         // pending, held or running: refused
constexpr INT64 kLongWait = 30 * 1000 * 1000;  // in microseconds: only a lost wake-up reaches it

// Routine (work item or timer) counting its runs in its context.
struct Counter {
    std::atomic<int> runs{0};
};
inline void CountRoutine(HANDLE, PVOID ctx) { static_cast<Counter*>(ctx)->runs.fetch_add(1); }
