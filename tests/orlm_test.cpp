// The component runtime: loading, instance creation and unloading, and the
// statuses it builds reaching the observer.
#include <cstdlib>
#include <thread>

#include "kspl_test.h"

static std::mutex g_eventsMutex;
static std::vector<std::string> g_events;

// The test components report their start and stop here.
extern "C" __attribute__((visibility("default"))) void TestComponentEvent(const char* component,
                                                                           const char* event) {
    std::lock_guard<std::mutex> guard(g_eventsMutex);
    g_events.push_back(std::string(component) + ":" + event);
}

namespace {

std::vector<std::string> TakeEvents() {
    std::lock_guard<std::mutex> guard(g_eventsMutex);
    return std::move(g_events);
}

KSSTATUS OrlmErr(UINT32 code) { return KS_MAKE_STATUS(3, ORLM_FACILITY, code); }

const GUID kClassA = {0xA0000001, 1, 1, {1, 1, 1, 1, 1, 1, 1, 1}};
const GUID kClassB = {0xB0000001, 1, 1, {1, 1, 1, 1, 1, 1, 1, 1}};
const GUID kIid = {0xABCDEF01, 0x0001, 0x0002, {1, 2, 3, 4, 5, 6, 7, 8}};

KSSTATUS CreateAndRelease(const GUID* cls, const GUID* iid = &kIid) {
    ORLM_IUnknown* obj = reinterpret_cast<ORLM_IUnknown*>(1);
    KSSTATUS st = OrlmCreateInstance(cls, nullptr, iid, reinterpret_cast<void**>(&obj));
    EXPECT_EQ(obj == nullptr, st != 0) << "a failed creation clears the out pointer";
    if (obj != nullptr) obj->lpVtbl->Release(obj);
    return st;
}

// The list in ORLM_COMPONENTS is loaded at the first creation of the
// process (this test must come first in a shared run), its empty and
// failing entries skipped. Failing loads build their status and start
// nothing; a second load is no second start; the component's own refusal
// passes through unchanged; unloading stops in reverse order and nothing is
// served afterwards.
TEST(Runtime, LoadsStartsCreatesAndUnloadsInReverseOrder) {
    TakeEvents();
    std::string list = std::string(COMPONENT_A) + "::/nonexistent/x.so:" + COMPONENT_B;
    setenv("ORLM_COMPONENTS", list.c_str(), 1);
    EXPECT_EQ(CreateAndRelease(&kClassB), 0u);
    unsetenv("ORLM_COMPONENTS");
    StatusCapture statuses;
    EXPECT_EQ(OrlmLoadComponent("/nonexistent/lib.so"), OrlmErr(ORLM_E_LOAD_FAILED));
    EXPECT_EQ(OrlmLoadComponent(COMPONENT_NOSTOP), OrlmErr(ORLM_E_NO_ENTRY));
    EXPECT_EQ(OrlmLoadComponent(""), OrlmErr(ORLM_E_INVALIDARG));
    EXPECT_EQ(statuses.Built().size(), 3u);
    EXPECT_EQ(OrlmLoadComponent(COMPONENT_A) | OrlmLoadComponent(COMPONENT_B), 0u);
    GUID otherIid = kIid;
    otherIid.Data1 ^= 1;
    EXPECT_EQ(CreateAndRelease(&kClassA, &otherIid), 0xC7F00002u);
    OrlmUnloadAll();
    std::vector<std::string> expected = {"a:start", "b:start", "b:create", "b:stop", "a:stop"};
    EXPECT_EQ(TakeEvents(), expected);
    EXPECT_EQ(CreateAndRelease(&kClassA), OrlmErr(ORLM_E_NOT_FOUND));
    EXPECT_TRUE(statuses.WasBuilt(OrlmErr(ORLM_E_NOT_FOUND), "OrlmCreateInstance"));
}

TEST(Runtime, ConcurrentLoadsAndCreationsStartEachComponentOnce) {
    TakeEvents();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                EXPECT_EQ(OrlmLoadComponent((t + i) % 2 ? COMPONENT_A : COMPONENT_B), 0u);
                EXPECT_EQ(OrlmLoadComponent((t + i) % 2 ? COMPONENT_B : COMPONENT_A), 0u);
                EXPECT_EQ(CreateAndRelease(i % 2 ? &kClassA : &kClassB), 0u);
            }
        });
    }
    for (auto& th : threads) th.join();
    OrlmUnloadAll();
    std::vector<std::string> events = TakeEvents();
    std::erase_if(events, [](const std::string& e) { return e.ends_with(":create"); });
    EXPECT_EQ(events.size(), 4u) << "one start and one stop each";
}

}  // namespace

// ---- the status recorder ---------------------------------------------------

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "zlreg.h"

namespace {

KSSTATUS Build(int code, const char* unit, int line, const char* function) {
    return KsStatusBuild_log(3, KSPL_FACILITY, code, const_cast<char*>(unit), line,
                             const_cast<char*>(function));
}

std::vector<ORLM_STATUS_RECORD> Recent(UINT32 capacity = ORLM_RECORDER_CAPACITY) {
    std::vector<ORLM_STATUS_RECORD> records(capacity);
    UINT32 count = 0;
    KSSTATUS st = OrlmGetRecentStatuses(records.data(), capacity, &count);
    EXPECT_TRUE(st == 0 || st == ORLM_STATUS_MORE_RECORDS) << std::hex << st;
    records.resize(count);
    return records;
}

// Runs `body` with standard error sent to a file and returns what it wrote.
template <class F>
std::string CaptureStderr(F body) {
    fflush(stderr);
    FILE* file = tmpfile();
    int saved = dup(STDERR_FILENO);
    dup2(fileno(file), STDERR_FILENO);
    body();
    fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text;
    rewind(file);
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), file)) > 0) text.append(buf, n);
    fclose(file);
    return text;
}

// Each built status lands in the ring with everything its builder knew,
// newest last; a short buffer gets the newest records and a notice, and
// nothing is written past it; bad arguments give a status and write nothing.
TEST(Recorder, KeepsTheLatestStatusesNewestLastWithinTheCallersBuffer) {
    EXPECT_EQ(Build(4, "unit-a", 11, "FirstFunction"), 0xC7F10004u);
    EXPECT_EQ(Build(0x1003, "unit-b", 22, "SecondFunction"), 0xC7F11003u);
    std::vector<ORLM_STATUS_RECORD> all = Recent();
    ASSERT_GE(all.size(), 2u);
    const ORLM_STATUS_RECORD& first = all[all.size() - 2];
    const ORLM_STATUS_RECORD& last = all.back();
    EXPECT_EQ(first.Status, 0xC7F10004u);
    EXPECT_STREQ(first.Unit, "unit-a");
    EXPECT_STREQ(first.Function, "FirstFunction");
    EXPECT_EQ(first.Line, 11);
    EXPECT_EQ(first.Priority, 7);
    EXPECT_EQ(first.ThreadId, static_cast<UINT32>(gettid()));
    EXPECT_EQ(last.Status, 0xC7F11003u);
    EXPECT_EQ(last.Sequence, first.Sequence + 1);
    EXPECT_GE(last.MonotonicNs, first.MonotonicNs);
    for (size_t i = 1; i < all.size(); ++i) EXPECT_LT(all[i - 1].Sequence, all[i].Sequence);

    // Names longer than the record's fields are cut, still terminated.
    std::string longName(200, 'f');
    Build(5, longName.c_str(), 33, longName.c_str());
    ORLM_STATUS_RECORD cut = Recent().back();
    EXPECT_EQ(std::string(cut.Unit), longName.substr(0, ORLM_RECORD_UNIT_SIZE - 1));
    EXPECT_EQ(std::string(cut.Function), longName.substr(0, ORLM_RECORD_FUNCTION_SIZE - 1));

    // Size query, then a buffer of two with a guard behind it.
    UINT32 held = 0;
    EXPECT_EQ(OrlmGetRecentStatuses(nullptr, 0, &held), 0u);
    EXPECT_GE(held, 3u);
    EXPECT_LE(held, ORLM_RECORDER_CAPACITY);
    ORLM_STATUS_RECORD buf[3];
    std::memset(buf, 0xA5, sizeof(buf));
    UINT32 count = 99;
    EXPECT_EQ(OrlmGetRecentStatuses(buf, 2, &count), ORLM_STATUS_MORE_RECORDS);
    EXPECT_FALSE(KS_IS_ERROR(ORLM_STATUS_MORE_RECORDS));
    ASSERT_EQ(count, 2u);
    EXPECT_STREQ(buf[0].Function, "SecondFunction");
    EXPECT_EQ(buf[1].Line, 33);
    const unsigned char* guard = reinterpret_cast<const unsigned char*>(&buf[2]);
    for (size_t i = 0; i < sizeof(buf[2]); ++i) ASSERT_EQ(guard[i], 0xA5) << "written past the buffer";

    count = 7;
    EXPECT_EQ(OrlmGetRecentStatuses(buf, 2, nullptr), OrlmErr(ORLM_E_INVALIDARG));
    EXPECT_EQ(OrlmGetRecentStatuses(nullptr, 2, &count), OrlmErr(ORLM_E_INVALIDARG));
    EXPECT_EQ(count, 7u) << "a refused read leaves the count alone";
    // The refusals are recorded too, with what was wrong.
    ORLM_STATUS_RECORD refusal = Recent().back();
    EXPECT_STREQ(refusal.Function, "OrlmGetRecentStatuses");
    EXPECT_STREQ(refusal.Text, "null record buffer");
}

// Writers on many threads race each other and wrap the ring many times while
// readers copy it: every record a reader gets is whole (its fields belong to
// one status) and the records come out in sequence order.
TEST(Recorder, RecordsFromManyThreadsAreNeverTorn) {
    constexpr int kWriters = 3;
    constexpr int kPasses = 1500;
    static const char* const kNames[kWriters] = {"w0", "w1", "w2"};
    std::atomic<bool> done{false};
    std::atomic<long> checked{0};
    std::atomic<int> writersRunning{0};
    auto reader = [&] {
        // The whole ring: its oldest slots are the next ones written, so
        // reads and writes of one slot meet often.
        std::vector<ORLM_STATUS_RECORD> records(ORLM_RECORDER_CAPACITY);
        while (writersRunning.load() < kWriters) std::this_thread::yield();
        for (int pass = 0; pass < kPasses; ++pass) {
            UINT32 count = 0;
            OrlmGetRecentStatuses(records.data(), ORLM_RECORDER_CAPACITY, &count);
            for (UINT32 i = 0; i < count; ++i) {
                const ORLM_STATUS_RECORD& r = records[i];
                if (i > 0) {
                    ASSERT_LT(records[i - 1].Sequence, r.Sequence);
                }
                if (std::strncmp(r.Function, "torn-test-", 10) != 0) continue;
                int w = r.Function[10] - '0';
                ASSERT_TRUE(w >= 0 && w < kWriters) << r.Function;
                ASSERT_EQ(r.Status, KS_MAKE_STATUS(3, KSPL_FACILITY, 0x100 + w));
                ASSERT_STREQ(r.Unit, kNames[w]);
                ASSERT_EQ(std::atoi(r.Function + 12), r.Line) << "line and function of one record";
                checked.fetch_add(1, std::memory_order_relaxed);
            }
        }
    };
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([w, &done, &writersRunning] {
            writersRunning.fetch_add(1);
            char function[32];
            for (int i = 0; !done.load(std::memory_order_relaxed); i = (i + 1) % 100000) {
                std::snprintf(function, sizeof(function), "torn-test-%d-%d", w, i);
                Build(0x100 + w, kNames[w], i, function);
            }
        });
    }
    std::thread readers[2] = {std::thread(reader), std::thread(reader)};
    for (auto& t : readers) t.join();
    done = true;
    for (auto& t : writers) t.join();
    EXPECT_GT(checked.load(), 0);
    // A slot given up in the race holds an older record, left out of reads.
    // Once nobody writes, a full ring of fresh records reads back whole.
    for (UINT32 i = 0; i < ORLM_RECORDER_CAPACITY; ++i) Build(4, "refill", 1, "Refill");
    EXPECT_EQ(Recent().size(), ORLM_RECORDER_CAPACITY);
}

// Every code the platform services and the object managers build has a
// description naming its facility; so do the runtime's and the store's own
// codes. Anything else is unknown.
TEST(Recorder, StatusTextDecodesEveryKnownCodeAndNothingElse) {
    const UINT32 platform[] = {1, 2, 3, 4, 5, 7, 10, 0x1001, 0x1002, 0x1003};
    const UINT32 objects[] = {2, 3, 4, 5, 9, 11, 13, 16, 0x1001, 0x1003, 0x1004};
    for (UINT32 code : platform) {
        const char* text = OrlmStatusText(KS_MAKE_STATUS(3, KSPL_FACILITY, code));
        ASSERT_NE(text, nullptr) << code;
        EXPECT_EQ(std::string(text).rfind("platform services: ", 0), 0u) << text;
    }
    for (UINT32 code : objects) {
        const char* text = OrlmStatusText(KS_MAKE_STATUS(3, KSPL_OM_FACILITY, code));
        ASSERT_NE(text, nullptr) << code;
        EXPECT_EQ(std::string(text).rfind("object manager: ", 0), 0u) << text;
    }
    for (UINT32 code = ORLM_E_NOINTERFACE; code <= ORLM_E_BUSY; ++code) {
        EXPECT_NE(OrlmStatusText(OrlmErr(code)), nullptr) << code;
    }
    for (UINT32 code = ZLREG_E_STORE; code <= ZLREG_E_STORE_UNSAFE; ++code) {
        const char* text = OrlmStatusText(ZLREG_STATUS(code));
        ASSERT_NE(text, nullptr) << code;
        EXPECT_EQ(std::string(text).rfind("configuration store: ", 0), 0u) << text;
    }
    EXPECT_STREQ(OrlmStatusText(0), "success");
    EXPECT_NE(OrlmStatusText(KSPL_STATUS_WAIT_TIMEOUT), nullptr);
    EXPECT_NE(std::strstr(OrlmStatusText(0xC7F10003u), "invalid handle"), nullptr);
    EXPECT_NE(std::strstr(OrlmStatusText(0xC7FA000Bu), "not found"), nullptr);
    // Neighbours of known codes, other severities and facilities.
    const KSSTATUS unknown[] = {0xC7F10006u, 0xC7F10008u, 0xC7F11000u, 0xC7F11004u, 0xC7FA0001u,
                                0xC7FA1002u, 0xC7F00001u, 0xC7F00000u, 0xC7F80011u, 0x87F10004u,
                                0x07F10004u, 0xC7F20004u, 0x00000001u, 0xFFFFFFFFu};
    for (KSSTATUS s : unknown) EXPECT_EQ(OrlmStatusText(s), nullptr) << std::hex << s;
}

// ORLM_LOG=stderr shows why a component did not load, with the path and the
// loader's own reason; messages of other libraries go there too. An unknown
// value falls back to the default and says so once.
TEST(Recorder, StderrForwardingShowsTheReasonOfAFailedLoad) {
    std::string out = CaptureStderr([] {
        EXPECT_EQ(OrlmSetLogMode("stderr"), 0u);
        EXPECT_EQ(OrlmLoadComponent("/x/libfoo.so"), OrlmErr(ORLM_E_LOAD_FAILED));
        EXPECT_EQ(OrlmLoadComponent(COMPONENT_NOSTOP), OrlmErr(ORLM_E_NO_ENTRY));
        OrlmRecordMessage(3, "kspl", "a message nobody else would see\n");
        EXPECT_EQ(OrlmSetLogMode("off"), 0u);
        Build(4, "quiet", 1, "Quiet");
    });
    EXPECT_NE(out.find("C7F00006 component runtime: a component library could not be loaded"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("in OrlmLoadComponent at orlm:"), std::string::npos) << out;
    EXPECT_NE(out.find("cannot load /x/libfoo.so: /x/libfoo.so: cannot open shared object file"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("no entry point DllStop"), std::string::npos) << out;
    EXPECT_NE(out.find("kspl: a message nobody else would see\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("Quiet"), std::string::npos) << "off forwards nothing";
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 3) << out;

    // The failure is in the ring as well, at error priority with its reason.
    std::vector<ORLM_STATUS_RECORD> all = Recent();
    auto failed = std::find_if(all.rbegin(), all.rend(), [](const ORLM_STATUS_RECORD& r) {
        return r.Status == OrlmErr(ORLM_E_LOAD_FAILED);
    });
    ASSERT_NE(failed, all.rend());
    EXPECT_EQ(failed->Priority, 3);
    EXPECT_EQ(std::string(failed->Text).rfind("cannot load /x/libfoo.so: ", 0), 0u);

    std::string warned = CaptureStderr([] {
        setenv("ORLM_LOG", "verbose", 1);
        EXPECT_EQ(OrlmSetLogMode(nullptr), 0u);
        unsetenv("ORLM_LOG");
        EXPECT_EQ(OrlmSetLogMode("loud"), OrlmErr(ORLM_E_INVALIDARG));
        Build(4, "default", 1, "BackToDefault");
        EXPECT_EQ(OrlmSetLogMode(nullptr), 0u);
    });
    EXPECT_EQ(warned, "orlm: ORLM_LOG=verbose is not one of syslog, stderr, off; using syslog\n");
}

// The recording path of a failure makes no system call: a child process
// forbids every system call but exit after one warm-up failure and then
// fails a thousand times (the runtime's builder directly, and an IKspl
// operation refusing a null handle). Any system call kills it.
void FailuresWithoutSystemCalls() {
    IKspl* k = KsplTestCreateInstance();
    auto failOnce = [k] {
        KSSTATUS a = Build(4, "syscall-free", 1, "SyscallFree");
        KSSTATUS b = k->lpVtbl->KsoDestroyEvent(k, nullptr);
        return a == 0xC7F10004u && b == 0xC7F10003u;
    };
    if (!failOnce()) _exit(2);
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) _exit(77);
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_exit_group, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog program = {static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])),
                                 filter};
    // qemu-user refuses seccomp filters: the test is skipped there.
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) _exit(77);
    bool ok = true;
    for (int i = 0; i < 1000; ++i) ok = failOnce() && ok;
    // Not _exit: AddressSanitizer checks the signal stack (a system call)
    // before every call that does not return.
    syscall(SYS_exit_group, ok ? 0 : 3);
}

TEST(Recorder, BuildingAFailureMakesNoSystemCall) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer's runtime maps memory of its own on these paths";
#endif
    int rc = KsplRunInChild(FailuresWithoutSystemCalls);
    if (rc == 77) GTEST_SKIP() << "seccomp filters are not available here";
    EXPECT_EQ(rc, 0) << "128 + 31 (SIGSYS): a system call was made";
}

}  // namespace
