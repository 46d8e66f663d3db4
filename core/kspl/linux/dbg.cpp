// dbg.cpp - the library's path to the system log and the debug services.
#include <syslog.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "dbg_int.h"

static std::atomic<KsplLogHook> g_logHook{nullptr};

void KsplSetLogHook(KsplLogHook hook) { g_logHook.store(hook, std::memory_order_release); }

void KsplLogV(int priority, const char* format, va_list args) {
    KsplLogHook hook = g_logHook.load(std::memory_order_acquire);
    if (hook != nullptr) {
        char text[1024];
        va_list copy;
        va_copy(copy, args);
        std::vsnprintf(text, sizeof(text), format, copy);
        va_end(copy);
        hook(priority, text);
    }
    vsyslog(priority, format, args);
}

void KsplLog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    KsplLogV(priority, format, args);
    va_end(args);
}

void KsDcheckFailed(const char* cond, const char* file, int line, const char* func) {
    // Both places: the system log may have nobody listening, and a test run
    // shows only what reaches stderr.
    std::fprintf(stderr, "[KSPL] check failed: %s (%s:%d, %s)\n", cond, file, line, func);
    KsplLog(LOG_USER | LOG_ERR, "check failed: %s (%s:%d, %s)", cond, file, line, func);
    std::abort();
}

void KsoDebugBreakPoint(IKspl* /*pThis*/) {}

void KsoDebugPrintf(IKspl* /*pThis*/, PCHAR pFormatStr, ...) {
    va_list args;
    va_start(args, pFormatStr);
    KsplLogV(LOG_USER | LOG_INFO, pFormatStr, args);
    va_end(args);
}
