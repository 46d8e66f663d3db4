// init_int.h - module start: failure injection for the initialisation
// sequence, used by tests to drive its failure and retry paths.
#pragma once
#include <atomic>

#include "../kspl_internal.h"

enum class KsplInitStep : int { None = 0, CharConv = 1, GlobalInstance = 2, Timer = 3, WorkItem = 4 };

// Not exported from kspl.so; only the statically linked tests reach them.
struct KsplInitHooks {
    std::atomic<int> failStep{0};  // a KsplInitStep that reports failure once reached
    std::atomic<int> runs{0};      // how often the initialisation sequence ran
};
extern KsplInitHooks g_ksplInitHooks;
