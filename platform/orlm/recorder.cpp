// recorder.cpp - the status builder and the recorder behind it: a ring of the
// process's latest statuses and runtime failures, and their forwarding to the
// system log or standard error.
//
// The ring is written without locks. Each slot carries a stamp: 0 empty,
// 2t+1 while ticket t is being written, 2t+2 once record t is complete.
// A writer claims its slot by moving the stamp from an even value below 2t+2
// to 2t+1; a slot that another writer still holds (only possible after the
// ring wrapped during that write) or that holds a newer record is given up,
// and the record counted as lost, rather than waited for. Readers copy a
// slot between two stamp reads and keep the copy only when both read 2t+2,
// so a record is seen whole or not at all. Payload words are atomics (release
// stores, acquire loads) so that the copy itself is not a data race.
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "orlm.h"
#include "orlm_internal.h"

namespace {

constexpr char kUnit[] = "orlm";
constexpr UINT32 kCapacity = ORLM_RECORDER_CAPACITY;
// Payload words are pointer-sized: a plain store on both targets.
using Word = uintptr_t;
constexpr size_t kWordSize = sizeof(Word);
constexpr size_t kWords = sizeof(ORLM_STATUS_RECORD) / kWordSize;
constexpr size_t kHeaderBytes = offsetof(ORLM_STATUS_RECORD, Unit);
static_assert((kCapacity & (kCapacity - 1)) == 0, "ring capacity is a power of two");
static_assert(sizeof(ORLM_STATUS_RECORD) % kWordSize == 0 && kHeaderBytes % kWordSize == 0);
static_assert(ORLM_RECORD_UNIT_SIZE % kWordSize == 0 && ORLM_RECORD_FUNCTION_SIZE % kWordSize == 0 &&
              ORLM_RECORD_TEXT_SIZE % kWordSize == 0);

struct alignas(64) Slot {
    std::atomic<UINT64> stamp{0};
    std::atomic<Word> words[kWords];
};

Slot g_ring[kCapacity];
std::atomic<UINT64> g_nextTicket{0};
std::atomic<UINT64> g_lost{0};

std::atomic<ORLM_STATUS_OBSERVER> g_observer{nullptr};
std::atomic<void*> g_observerContext{nullptr};

// ---- forwarding mode -------------------------------------------------------

enum Mode : int { kModeUnread = -1, kModeSyslog = 0, kModeStderr = 1, kModeOff = 2 };
std::atomic<int> g_mode{kModeUnread};

int ParseMode(const char* name) {
    if (name == nullptr || std::strcmp(name, "syslog") == 0) return kModeSyslog;
    if (std::strcmp(name, "stderr") == 0) return kModeStderr;
    if (std::strcmp(name, "off") == 0) return kModeOff;
    return kModeUnread;
}

int ModeFromEnvironment() {
    const char* value = std::getenv("ORLM_LOG");
    int mode = ParseMode(value);
    if (mode == kModeUnread) {
        std::fprintf(stderr, "orlm: ORLM_LOG=%s is not one of syslog, stderr, off; using syslog\n",
                     value);
        mode = kModeSyslog;
    }
    return mode;
}

int CurrentMode() {
    int mode = g_mode.load(std::memory_order_acquire);
    if (mode != kModeUnread) return mode;
    // Two first records at once may both read the variable; only one
    // installs its reading, so an unknown value is reported at most twice
    // in that race and once otherwise.
    int read = ModeFromEnvironment();
    int expected = kModeUnread;
    g_mode.compare_exchange_strong(expected, read, std::memory_order_acq_rel);
    return g_mode.load(std::memory_order_acquire);
}

// ---- clocks and threads ----------------------------------------------------

INT64 NowNs(clockid_t clock) {
    struct timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<INT64>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// gettid is a system call; each thread asks once. Initial-exec: the runtime
// is loaded with the process (hosts link it), and the cached id is then a
// plain load.
__thread UINT32 t_tid __attribute__((tls_model("initial-exec"))) = 0;

UINT32 ThreadId() {
    if (t_tid == 0) t_tid = static_cast<UINT32>(gettid());
    return t_tid;
}

// ---- is anybody listening? -------------------------------------------------

constexpr INT64 kProbeIntervalNs = 5'000'000'000;
std::atomic<INT64> g_nextProbeNs{0};
std::atomic<bool> g_logListening{false};

bool ProbeDevLog() {
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, "/dev/log");
    for (int type : {SOCK_DGRAM, SOCK_STREAM}) {
        int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        if (fd < 0) return false;
        int rc = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
        int err = errno;
        close(fd);
        if (rc == 0) return true;
        if (err != EPROTOTYPE) return false;
    }
    return false;
}

// Whether a system log daemon was listening when last looked at; looked at
// again once the interval has passed, by one thread while the others keep
// the previous answer.
bool SystemLogListening(INT64 now) {
    INT64 next = g_nextProbeNs.load(std::memory_order_acquire);
    if (now >= next &&
        g_nextProbeNs.compare_exchange_strong(next, now + kProbeIntervalNs,
                                              std::memory_order_acq_rel)) {
        g_logListening.store(ProbeDevLog(), std::memory_order_release);
    }
    return g_logListening.load(std::memory_order_acquire);
}

// ---- rate limit per call site ----------------------------------------------

// One line per call site and second. Sites share a slot when their hashes
// collide; the counts are then approximate, never lost for good.
constexpr INT64 kSiteIntervalNs = 1'000'000'000;
constexpr size_t kSites = 128;
struct Site {
    std::atomic<uintptr_t> key{0};
    std::atomic<INT64> nextNs{0};
    std::atomic<UINT32> suppressed{0};
};
Site g_sites[kSites];

// True when a line for this site may go out now; *pSuppressed receives the
// lines held back since the last one that went out.
bool SiteMayForward(const char* file, int line, INT64 now, UINT32* pSuppressed) {
    uintptr_t key = reinterpret_cast<uintptr_t>(file) * 31u + static_cast<uintptr_t>(line) + 1u;
    Site& site = g_sites[(key ^ (key >> 7)) % kSites];
    if (site.key.load(std::memory_order_relaxed) != key) {
        site.key.store(key, std::memory_order_relaxed);
        site.nextNs.store(0, std::memory_order_relaxed);
    }
    INT64 next = site.nextNs.load(std::memory_order_relaxed);
    if (now < next || !site.nextNs.compare_exchange_strong(next, now + kSiteIntervalNs,
                                                           std::memory_order_relaxed)) {
        // Load and store rather than a locked add: a count lost to a race
        // between two threads of one site is an acceptable price for a
        // suppressed status costing no more than a recorded one.
        site.suppressed.store(site.suppressed.load(std::memory_order_relaxed) + 1,
                              std::memory_order_relaxed);
        return false;
    }
    *pSuppressed = site.suppressed.exchange(0, std::memory_order_relaxed);
    return true;
}

// ---- writing ---------------------------------------------------------------

// Only the words of a string field up to its terminator are stored: a
// status costs a few words, not the whole record. The bytes after the
// terminator, up to the end of its word, are zeroed here; readers zero the
// rest of the field (it may hold an older record's bytes).
struct Used {
    size_t unit, function, text;
};

size_t TerminateAt(char* field, size_t n) {
    size_t used = (n + kWordSize) & ~(kWordSize - 1);  // n + 1 rounded up to a word
    for (size_t i = n; i < used; ++i) field[i] = '\0';
    return used;
}

// Names are short: a byte loop beats calls to strnlen and memcpy.
size_t CopyName(char* dst, size_t size, const char* src) {
    size_t n = 0;
    if (src != nullptr) {
        for (; n + 1 < size && src[n] != '\0'; ++n) dst[n] = src[n];
    }
    return TerminateAt(dst, n);
}

void ClearTail(char* field, size_t size) {
    size_t n = strnlen(field, size - 1);
    std::memset(field + n, 0, size - n);
}

void StoreWords(Slot& slot, const ORLM_STATUS_RECORD& r, size_t offset, size_t bytes) {
    const char* base = reinterpret_cast<const char*>(&r);
    for (size_t i = offset / kWordSize; i < (offset + bytes) / kWordSize; ++i) {
        Word w;
        std::memcpy(&w, base + i * kWordSize, kWordSize);
        slot.words[i].store(w, std::memory_order_release);
    }
}

void Publish(ORLM_STATUS_RECORD* pRecord, const Used& used) {
    UINT64 ticket = g_nextTicket.fetch_add(1, std::memory_order_relaxed);
    pRecord->Sequence = ticket + 1;
    Slot& slot = g_ring[ticket & (kCapacity - 1)];
    UINT64 writing = 2 * ticket + 1;
    UINT64 stamp = slot.stamp.load(std::memory_order_relaxed);
    do {
        if ((stamp & 1u) != 0 || stamp > writing) {
            g_lost.fetch_add(1, std::memory_order_relaxed);
            return;
        }
    } while (!slot.stamp.compare_exchange_weak(stamp, writing, std::memory_order_relaxed));
    // Payload words are stored with release ordering: a reader that sees
    // any of them also sees the odd stamp before it (plain moves on x86).
    StoreWords(slot, *pRecord, 0, kHeaderBytes);
    StoreWords(slot, *pRecord, offsetof(ORLM_STATUS_RECORD, Unit), used.unit);
    StoreWords(slot, *pRecord, offsetof(ORLM_STATUS_RECORD, Function), used.function);
    StoreWords(slot, *pRecord, offsetof(ORLM_STATUS_RECORD, Text), used.text);
    slot.stamp.store(writing + 1, std::memory_order_release);
}

// Copies record `ticket` out of the ring; false when it is being written,
// was overwritten or was never written.
bool ReadTicket(UINT64 ticket, ORLM_STATUS_RECORD* pOut) {
    const Slot& slot = g_ring[ticket & (kCapacity - 1)];
    UINT64 complete = 2 * ticket + 2;
    if (slot.stamp.load(std::memory_order_acquire) != complete) return false;
    Word words[kWords];
    // Acquire loads: the second stamp read cannot move before them, and a
    // word of a newer writer brings that writer's odd stamp with it.
    for (size_t i = 0; i < kWords; ++i) words[i] = slot.words[i].load(std::memory_order_acquire);
    if (slot.stamp.load(std::memory_order_relaxed) != complete) return false;
    std::memcpy(pOut, words, sizeof(words));
    ClearTail(pOut->Unit, sizeof(pOut->Unit));
    ClearTail(pOut->Function, sizeof(pOut->Function));
    ClearTail(pOut->Text, sizeof(pOut->Text));
    return true;
}

void WriteStderrLine(const ORLM_STATUS_RECORD& r) {
    char line[512];
    int n;
    if (r.Status != 0) {
        const char* meaning = OrlmStatusText(r.Status);
        n = std::snprintf(line, sizeof(line), "orlm: %08X %s, in %s at %s:%d, thread %u%s%s\n",
                          r.Status, meaning != nullptr ? meaning : "(unknown status)",
                          r.Function[0] ? r.Function : "?", r.Unit[0] ? r.Unit : "?", r.Line,
                          r.ThreadId, r.Text[0] ? ": " : "", r.Text);
    } else {
        n = std::snprintf(line, sizeof(line), "%s: %s%s", r.Unit[0] ? r.Unit : "?", r.Text,
                          r.Text[0] != '\0' && r.Text[std::strlen(r.Text) - 1] == '\n' ? "" : "\n");
    }
    if (n <= 0) return;
    size_t len = static_cast<size_t>(n) < sizeof(line) ? static_cast<size_t>(n) : sizeof(line) - 1;
    // One write per line, so that lines of several threads do not mix.
    ssize_t rc = write(STDERR_FILENO, line, len);
    (void)rc;
}

void Forward(const ORLM_STATUS_RECORD& r, const char* siteFile, bool toSyslog) {
    int mode = CurrentMode();
    if (mode == kModeOff) return;
    if (mode == kModeStderr) {
        WriteStderrLine(r);
        return;
    }
    if (!toSyslog) return;
    INT64 now = static_cast<INT64>(r.MonotonicNs);
    UINT32 suppressed = 0;
    if (!SiteMayForward(siteFile, r.Line, now, &suppressed)) return;
    if (!SystemLogListening(now)) return;
    const char* fn = r.Function[0] ? r.Function : "?";
    const char* unit = r.Unit[0] ? r.Unit : "?";
    if (r.Text[0] != '\0') {
        syslog(LOG_USER | r.Priority, "status %08X built in %s at %s:%d: %s", r.Status, fn, unit,
               r.Line, r.Text);
    } else {
        syslog(LOG_USER | r.Priority, "status %08X built in %s at %s:%d", r.Status, fn, unit, r.Line);
    }
    if (suppressed != 0) {
        syslog(LOG_USER | r.Priority, "%u more from %s at %s:%d suppressed", suppressed, fn, unit,
               r.Line);
    }
}

// Fills everything but Sequence (Publish's) and Text (the caller's).
// The coarse clock: a precise one costs more than the rest of the record on
// some virtual machines; the order of records is their sequence.
Used FillRecord(ORLM_STATUS_RECORD* r, KSSTATUS status, int priority, const char* unit, int line,
                const char* function) {
    r->Sequence = 0;
    r->MonotonicNs = static_cast<UINT64>(NowNs(CLOCK_MONOTONIC_COARSE));
    r->Status = status;
    r->Line = line;
    r->ThreadId = ThreadId();
    r->Priority = priority & LOG_PRIMASK;
    Used used;
    used.unit = CopyName(r->Unit, sizeof(r->Unit), unit);
    used.function = CopyName(r->Function, sizeof(r->Function), function);
    used.text = 0;
    return used;
}

void Observe(KSSTATUS status, const char* pFile, int line, const char* pFunction) {
    ORLM_STATUS_OBSERVER observer = g_observer.load(std::memory_order_acquire);
    if (observer != nullptr) {
        observer(g_observerContext.load(std::memory_order_acquire), status, pFile, line, pFunction);
    }
}

KSSTATUS Compose(int severity, int facility, int code) {
    return (static_cast<UINT32>(severity) << 30) | (static_cast<UINT32>(facility) << 16) |
           (static_cast<UINT32>(code) & 0xFFFFu);
}

}  // namespace

KSSTATUS OrlmBuildFailure(UINT32 code, const char* function, int line, const char* format, ...) {
    KSSTATUS status = Compose(3, ORLM_FACILITY, static_cast<int>(code));
    ORLM_STATUS_RECORD r;
    Used used = FillRecord(&r, status, LOG_ERR, kUnit, line, function);
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(r.Text, sizeof(r.Text), format, args);
    va_end(args);
    if (n < 0) r.Text[0] = '\0';
    used.text = TerminateAt(r.Text, strnlen(r.Text, sizeof(r.Text) - 1));
    Publish(&r, used);
    Forward(r, kUnit, true);
    Observe(status, kUnit, line, function);
    return status;
}

UINT64 OrlmRecorderLost() { return g_lost.load(std::memory_order_relaxed); }

extern "C" {

KSSTATUS KsStatusBuild_log(int severity, int facility, int code, char* pFile, int line,
                           char* pFunction) {
    KSSTATUS status = Compose(severity, facility, code);
    ORLM_STATUS_RECORD r;
    Used used = FillRecord(&r, status, LOG_DEBUG, pFile, line, pFunction);
    used.text = TerminateAt(r.Text, 0);
    Publish(&r, used);
    Forward(r, pFile, true);
    Observe(status, pFile, line, pFunction);
    return status;
}

void KsStatusSetObserver(ORLM_STATUS_OBSERVER pObserver, void* pContext) {
    g_observerContext.store(pContext, std::memory_order_release);
    g_observer.store(pObserver, std::memory_order_release);
}

void OrlmRecordMessage(int priority, const char* pUnit, const char* pText) {
    if (pText == nullptr) return;
    ORLM_STATUS_RECORD r;
    Used used = FillRecord(&r, 0, priority, pUnit, 0, nullptr);
    used.text = CopyName(r.Text, sizeof(r.Text), pText);
    Publish(&r, used);
    // The caller sends its own messages to the system log, under its own
    // identity; here they only reach standard error when that is asked for.
    Forward(r, pUnit, false);
}

KSSTATUS OrlmGetRecentStatuses(PORLM_STATUS_RECORD pRecords, UINT32 capacity, PUINT32 pCount) {
    if (pCount == nullptr || (pRecords == nullptr && capacity != 0)) {
        return OrlmBuildFailure(ORLM_E_INVALIDARG, __func__, __LINE__,
                                "null %s", pCount == nullptr ? "count" : "record buffer");
    }
    UINT64 end = g_nextTicket.load(std::memory_order_acquire);
    UINT64 held = end < kCapacity ? end : kCapacity;
    if (pRecords == nullptr) {
        *pCount = static_cast<UINT32>(held);
        return 0;
    }
    UINT64 begin = end - (held < capacity ? held : capacity);
    UINT32 copied = 0;
    for (UINT64 t = begin; t < end && copied < capacity; ++t) {
        ORLM_STATUS_RECORD r;
        if (ReadTicket(t, &r)) pRecords[copied++] = r;
    }
    *pCount = copied;
    return held > capacity ? ORLM_STATUS_MORE_RECORDS : 0;
}

KSSTATUS OrlmSetLogMode(const char* pMode) {
    if (pMode == nullptr) {
        g_mode.store(ModeFromEnvironment(), std::memory_order_release);
        return 0;
    }
    int mode = ParseMode(pMode);
    g_mode.store(mode == kModeUnread ? kModeSyslog : mode, std::memory_order_release);
    return mode == kModeUnread
               ? OrlmBuildFailure(ORLM_E_INVALIDARG, __func__, __LINE__, "unknown log mode %s", pMode)
               : 0;
}

}  // extern "C"
