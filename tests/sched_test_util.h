// sched_test_util.h - small helpers shared by the thread, event, lock,
// work-item and timer suites (and the soak program).
#pragma once

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "ks_types.h"
#include "kspl_status.h"
#include "support/wait_for.h"

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


constexpr KSSTATUS kBusy =  // pending, held or running: refused
    KS_MAKE_STATUS(3, KSPL_FACILITY, KSPL_CODE_BUSY);
constexpr INT64 kLongWait = 30 * 1000 * 1000;  // in microseconds: only a lost wake-up reaches it

// Routine (work item or timer) counting its runs in its context.
struct Counter {
    std::atomic<int> runs{0};
};
inline void CountRoutine(HANDLE, PVOID ctx) { static_cast<Counter*>(ctx)->runs.fetch_add(1); }
