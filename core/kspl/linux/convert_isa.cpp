// convert_isa.cpp - the variant of the conversion kernels: the widest
// instruction set the CPU offers, looked up once, and a test hook that
// narrows it so that every variant can be compared with the reference.
#include <atomic>

#include "convert_int.h"

namespace {

KsplConvIsa Detect() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2")) return KsplConvIsa::kAvx2;
    if (__builtin_cpu_supports("ssse3")) return KsplConvIsa::kSsse3;
    if (__builtin_cpu_supports("sse2")) return KsplConvIsa::kSse2;
#endif
    return KsplConvIsa::kScalar;
}

// -1 until the first lookup. Relaxed: every value stored is one the CPU
// supports, and each conversion reads it once.
std::atomic<int> g_isaInUse{-1};

}  // namespace

KsplConvIsa KsplConvIsaBest() {
    static const KsplConvIsa best = Detect();
    return best;
}

KsplConvIsa KsplConvIsaInUse() {
    int v = g_isaInUse.load(std::memory_order_relaxed);
    if (v < 0) {
        v = static_cast<int>(KsplConvIsaBest());
        int expected = -1;
        // A variant forced meanwhile wins over the default.
        if (!g_isaInUse.compare_exchange_strong(expected, v, std::memory_order_relaxed)) v = expected;
    }
    return static_cast<KsplConvIsa>(v);
}

bool KsplConvUseIsa(KsplConvIsa isa) {
    if (isa > KsplConvIsaBest()) return false;
    g_isaInUse.store(static_cast<int>(isa), std::memory_order_relaxed);
    return true;
}

const char* KsplConvIsaName(KsplConvIsa isa) {
    switch (isa) {
        case KsplConvIsa::kScalar: return "scalar";
        case KsplConvIsa::kSse2: return "sse2";
        case KsplConvIsa::kSsse3: return "ssse3";
        default: return "avx2";
    }
}
