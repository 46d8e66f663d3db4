// handles.cpp - the table behind key handles.
//
// A handle is a small number, (generation << 20) | (slot + 1), carried in a
// HANDLE: never a pointer, so a stale or made-up handle is detected rather
// than dereferenced, and always below 0x80000000, so it never meets a
// predefined root. A slot's generation changes when it is freed.
//
// g_handleMutex guards g_slots and g_free; it is a leaf lock (taken after
// g_configMutex only in fork preparation).
#include <pthread.h>

#include <vector>

#include "zlreg_internal.h"

namespace zlreg {
namespace {

constexpr char kUnit[] = "handles";
constexpr uintptr_t kSlotBits = 20;
constexpr uintptr_t kSlotMask = (uintptr_t{1} << kSlotBits) - 1;
constexpr uint32_t kGenMask = 0x7FF;  // 11 bits: the value stays below 2^31

struct Slot {
    KeyRef ref;
    uint32_t gen = 1;
    bool used = false;
};

pthread_mutex_t g_handleMutex = PTHREAD_MUTEX_INITIALIZER;
std::vector<Slot> g_slots;      // guarded by g_handleMutex
std::vector<uint32_t> g_free;   // guarded by g_handleMutex

class HandleLock {
public:
    HandleLock() { pthread_mutex_lock(&g_handleMutex); }
    ~HandleLock() { pthread_mutex_unlock(&g_handleMutex); }
    HandleLock(const HandleLock&) = delete;
    HandleLock& operator=(const HandleLock&) = delete;
};

bool IsRootHandle(uintptr_t v) { return v >= 0x80000000u && v < 0x80000000u + kRootCount; }

// REQUIRES: g_handleMutex is held.
Slot* Find(uintptr_t v) {
    uintptr_t index = v & kSlotMask;
    if (index == 0 || index > g_slots.size()) return nullptr;
    Slot& s = g_slots[index - 1];
    if (!s.used || s.gen != ((v >> kSlotBits) & kGenMask) || (v >> (kSlotBits + 11)) != 0)
        return nullptr;
    return &s;
}

}  // namespace

void LockHandlesForFork() { pthread_mutex_lock(&g_handleMutex); }
void UnlockHandlesAfterFork() { pthread_mutex_unlock(&g_handleMutex); }

Err HandleLookup(HANDLE h, KeyRef* out) {
    auto v = reinterpret_cast<uintptr_t>(h);
    if (IsRootHandle(v)) {
        *out = KeyRef{kFirstRootRow + static_cast<int64_t>(v - 0x80000000u), true};
        return {};
    }
    HandleLock lock;
    Slot* s = Find(v);
    if (s == nullptr) return ZLREG_ERR(ZLREG_E_INVALID_HANDLE);
    *out = s->ref;
    return {};
}

Err HandleAdd(KeyRef ref, HANDLE* out) {
    HandleLock lock;
    uint32_t index;
    if (!g_free.empty()) {
        index = g_free.back();
        g_free.pop_back();
    } else {
        if (g_slots.size() >= kSlotMask) return ZLREG_ERR(ZLREG_E_NO_MEMORY);
        g_slots.emplace_back();
        index = static_cast<uint32_t>(g_slots.size() - 1);
    }
    Slot& s = g_slots[index];
    s.ref = ref;
    s.used = true;
    *out = reinterpret_cast<HANDLE>((static_cast<uintptr_t>(s.gen) << kSlotBits) | (index + 1));
    return {};
}

Err HandleRemove(HANDLE h) {
    auto v = reinterpret_cast<uintptr_t>(h);
    if (IsRootHandle(v)) return {};
    HandleLock lock;
    Slot* s = Find(v);
    if (s == nullptr) return ZLREG_ERR(ZLREG_E_INVALID_HANDLE);
    s->used = false;
    s->gen = (s->gen & kGenMask) == kGenMask ? 1 : s->gen + 1;
    g_free.push_back(static_cast<uint32_t>(s - g_slots.data()));
    return {};
}

void HandleInvalidateAll() {
    HandleLock lock;
    g_free.clear();
    for (size_t i = 0; i < g_slots.size(); ++i) {
        Slot& s = g_slots[i];
        if (s.used) {
            s.used = false;
            s.gen = (s.gen & kGenMask) == kGenMask ? 1 : s.gen + 1;
        }
        g_free.push_back(static_cast<uint32_t>(i));
    }
}

}  // namespace zlreg
