// dbg.cpp - the library's path to the system log and the debug services.
//
// Nobody may be listening on the system log (containers, CI). glibc then
// tries socket + connect + close for every message, and with LOG_CONS also
// writes it to the console. So whether a daemon listens is looked up once and
// again every few seconds (a daemon started later is picked up), and in
// between a message nobody would receive is not sent: it goes to the
// runtime's recorder instead, when the runtime offers one.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dbg_int.h"

namespace {

constexpr INT64 kProbeIntervalNs = 5'000'000'000;
std::atomic<INT64> g_nextProbeNs{0};
std::atomic<bool> g_listening{false};

INT64 CoarseNowNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<INT64>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The runtime's recorder, looked up by name: a runtime without one (an
// older liborlm) still loads the library.
using RecordMessageFn = void (*)(int priority, const char* unit, const char* text);
RecordMessageFn RuntimeRecorder() {
    static RecordMessageFn fn =
        reinterpret_cast<RecordMessageFn>(dlsym(RTLD_DEFAULT, "OrlmRecordMessage"));
    return fn;
}

}  // namespace

bool KsplProbeSystemLog() {
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, "/dev/log");
    bool listening = false;
    for (int type : {SOCK_DGRAM, SOCK_STREAM}) {
        int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        if (fd < 0) break;
        int rc = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
        int err = errno;
        close(fd);
        if (rc == 0) listening = true;
        if (rc == 0 || err != EPROTOTYPE) break;
    }
    g_listening.store(listening, std::memory_order_release);
    g_nextProbeNs.store(CoarseNowNs() + kProbeIntervalNs, std::memory_order_release);
    return listening;
}

bool KsplSystemLogListening() {
    INT64 now = CoarseNowNs();
    INT64 next = g_nextProbeNs.load(std::memory_order_acquire);
    // One thread looks again; the others keep the previous answer meanwhile.
    if (now >= next && g_nextProbeNs.compare_exchange_strong(next, now + kProbeIntervalNs,
                                                             std::memory_order_acq_rel)) {
        return KsplProbeSystemLog();
    }
    return g_listening.load(std::memory_order_acquire);
}

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
    // A message the log mask drops costs nothing either way.
    int mask = setlogmask(0);
    if ((mask & LOG_MASK(LOG_PRI(priority))) == 0) return;
    if (KsplSystemLogListening()) {
        vsyslog(priority, format, args);
        return;
    }
    RecordMessageFn record = RuntimeRecorder();
    if (record == nullptr) return;
    char text[ORLM_RECORD_TEXT_SIZE];
    std::vsnprintf(text, sizeof(text), format, args);
    record(LOG_PRI(priority), "kspl", text);
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
