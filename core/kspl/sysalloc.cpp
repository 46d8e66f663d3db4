// sysalloc.cpp - the allocation failure hook behind KsplSysAlloc.
//
// The countdown lives in thread-local state, so a library thread (timer,
// work items, deletion) allocating at the same time never takes the failure
// meant for the thread under test, and no state is shared but the count of
// armed threads.
#include "sysalloc_int.h"

std::atomic<int> g_ksplAllocHookArmed{0};

namespace {

struct HookState {
    bool armed = false;
    bool sticky = false;
    bool fired = false;
    unsigned countdown = 0;  // allocations until the failing one
    unsigned seen = 0;
};
thread_local HookState t_hook;

}  // namespace

bool KsplAllocHookFires() {
    HookState& h = t_hook;
    if (!h.armed) return false;
    ++h.seen;
    if (h.countdown > 1) {
        --h.countdown;
        return false;
    }
    if (h.countdown == 1) {
        h.countdown = 0;
        h.fired = true;
        return true;
    }
    // Past the failing allocation.
    return h.sticky;
}

void KsplAllocFailArm(unsigned n, bool sticky) {
    HookState& h = t_hook;
    if (h.armed) {
        h.armed = false;
        g_ksplAllocHookArmed.fetch_sub(1, std::memory_order_relaxed);
    }
    h = HookState{};
    if (n == 0) return;
    h.armed = true;
    h.sticky = sticky;
    h.countdown = n;
    g_ksplAllocHookArmed.fetch_add(1, std::memory_order_relaxed);
}

bool KsplAllocFailDisarm() {
    HookState& h = t_hook;
    bool fired = h.fired;
    if (h.armed) {
        h.armed = false;
        g_ksplAllocHookArmed.fetch_sub(1, std::memory_order_relaxed);
    }
    h.countdown = 0;
    return fired;
}

unsigned KsplAllocSeen() { return t_hook.seen; }
