// sysalloc_int.h - the library's one way to the system heap.
//
// Every record the library takes from the system allocator (instances,
// lock and event records, key records, code page names, work buffers, and
// the blocks behind tracked memory) goes through KsplSysAlloc /
// KsplSysCalloc and back through KsplSysFree. The point of the funnel is a
// failure hook for tests: armed on a thread, it makes that thread's N-th
// allocation fail, so every out-of-memory path can be driven in turn.
//
// Unarmed, the only extra cost is one relaxed load of a global counter.
// The hook is internal (hidden like everything not exported): the tests
// reach it by linking the library's objects statically.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>

// Number of threads with an armed hook; zero on the fast path.
extern std::atomic<int> g_ksplAllocHookArmed;

// Slow path of the hook: true when the calling thread's armed countdown
// reaches this allocation.
bool KsplAllocHookFires();

inline bool KsplAllocShouldFail() {
    return g_ksplAllocHookArmed.load(std::memory_order_relaxed) != 0 && KsplAllocHookFires();
}

inline void* KsplSysAlloc(size_t size) {
    if (KsplAllocShouldFail()) return nullptr;
    return std::malloc(size);
}

inline void* KsplSysCalloc(size_t count, size_t size) {
    if (KsplAllocShouldFail()) return nullptr;
    return std::calloc(count, size);
}

inline void KsplSysFree(void* p) { std::free(p); }

inline char* KsplSysStrdup(const char* s) {
    size_t size = __builtin_strlen(s) + 1;
    auto* copy = static_cast<char*>(KsplSysAlloc(size));
    if (copy != nullptr) __builtin_memcpy(copy, s, size);
    return copy;
}

// Test control, per calling thread. Allocations of other threads are never
// failed by it.
//
// KsplAllocFailArm(n, sticky): the n-th allocation of this thread from now
// (1 = the next) fails; with `sticky`, every later one fails as well, else
// the later ones succeed. n = 0 disarms.
void KsplAllocFailArm(unsigned n, bool sticky = false);
// Disarms the hook of this thread; true when at least one allocation was
// failed since it was armed.
bool KsplAllocFailDisarm();
// Allocations this thread made through the funnel (failed ones included)
// since the hook was last armed.
unsigned KsplAllocSeen();
