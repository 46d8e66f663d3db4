// The configuration store library on its own: hierarchy, names, types,
// enumeration, buffer rules, deletion, handles, and the database under
// threads, processes, a killed writer and a file that is not a database.
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "zlreg.h"

// Every syslog line of the process passes here, so the store's diagnostics
// can be checked without a logger.
namespace {
std::mutex g_syslogMutex;
std::vector<std::string> g_syslogLines;
}  // namespace

extern "C" __attribute__((visibility("default"))) void syslog(int /*priority*/,
                                                              const char* format, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    std::lock_guard<std::mutex> g(g_syslogMutex);
    g_syslogLines.emplace_back(buf);
}

namespace {

const HANDLE kMachine = ZLREG_HKEY_LOCAL_MACHINE;

KSSTATUS Z(UINT32 code) { return ZLREG_STATUS(code); }

bool SyslogContains(const std::string& text) {
    std::lock_guard<std::mutex> g(g_syslogMutex);
    for (const auto& l : g_syslogLines)
        if (l.find(text) != std::string::npos) return true;
    return false;
}

UINT64 FiletimeNow() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<UINT64>(ts.tv_sec) * 10000000u + static_cast<UINT64>(ts.tv_nsec) / 100u +
           116444736000000000ull;
}

// Each test gets its own database file in its own directory, removed at the end.
class ZlregTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zlreg_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/store.db";
        ASSERT_EQ(ZLRegSetDatabasePath(path_.c_str()), 0u);
    }
    void TearDown() override {
        ZLRegSetDatabasePath(nullptr);  // closes this thread's connection
        for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((path_ + suffix).c_str());
        EXPECT_EQ(rmdir(dir_.c_str()), 0) << "stray files left in " << dir_;
    }

    HANDLE Create(const char* path) {
        HANDLE h = nullptr;
        EXPECT_EQ(ZLRegCreateKeyExA(kMachine, path, 0, nullptr, 0, 0, nullptr, &h, nullptr), 0u)
            << path;
        return h;
    }
    // The value's bytes, or "<code>" when the query fails.
    static std::string QueryString(HANDLE h, const char* name, UINT32* type = nullptr) {
        UINT32 len = 0;
        UINT32 t = 99;
        KSSTATUS st = ZLRegQueryValueExA(h, name, nullptr, &t, nullptr, &len);
        std::string buf(len, '\0');
        if (st == 0) st = ZLRegQueryValueExA(h, name, nullptr, &t, buf.data(), &len);
        if (type != nullptr) *type = t;
        if (st != 0) return "<" + std::to_string(KS_STATUS_CODE(st)) + ">";
        buf.resize(len);
        return buf;
    }
    static std::vector<std::string> SubkeyNames(HANDLE h) {
        std::vector<std::string> names;
        for (UINT32 i = 0;; ++i) {
            char buf[300];
            INT32 len = sizeof buf;
            KSSTATUS st = ZLRegEnumKeyExA(h, i, buf, &len, nullptr, nullptr, nullptr, nullptr);
            if (st != 0) {
                EXPECT_EQ(st, ZLREG_STATUS_NO_MORE_ITEMS);
                break;
            }
            names.emplace_back(buf, static_cast<size_t>(len));
        }
        return names;
    }

    std::string dir_;
    std::string path_;
};

TEST_F(ZlregTest, HierarchyAndNamesWithoutCase) {
    HANDLE h = nullptr;
    UINT32 disp = 0;
    ASSERT_EQ(ZLRegCreateKeyExA(kMachine, "Software\\Zorvik\\App\\Sub", 0, nullptr, 0, 0, nullptr,
                                &h, &disp),
              0u);
    EXPECT_EQ(disp, ZLREG_CREATED_NEW_KEY);
    ASSERT_EQ(ZLRegCloseKey(h), 0u);
    ASSERT_EQ(ZLRegCreateKeyExA(kMachine, "SOFTWARE\\zorvik\\APP\\sub", 0, nullptr, 0, 0, nullptr,
                                &h, &disp),
              0u);
    EXPECT_EQ(disp, ZLREG_OPENED_EXISTING_KEY) << "case-folded path must find the same key";
    ASSERT_EQ(ZLRegCloseKey(h), 0u);

    // Stored as first written; separators at the ends and doubled are skipped.
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "\\software\\\\ZORVIK\\", 0, ZLREG_ACCESS_READ, &h), 0u);
    EXPECT_EQ(SubkeyNames(h), std::vector<std::string>{"App"});
    HANDLE sub = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(h, "app\\SUB", 0, ZLREG_ACCESS_READ, &sub), 0u) << "relative open";
    EXPECT_EQ(ZLRegCloseKey(sub), 0u);
    EXPECT_EQ(ZLRegCloseKey(h), 0u);

    // A key below another root is a different key.
    h = reinterpret_cast<HANDLE>(1);
    EXPECT_EQ(ZLRegOpenKeyExA(ZLREG_HKEY_CURRENT_USER, "Software\\Zorvik", 0, 0, &h),
              Z(ZLREG_E_KEY_NOT_FOUND));
    EXPECT_EQ(h, nullptr) << "out handle is cleared on failure";
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Zorvik\\Missing", 0, 0, &h),
              Z(ZLREG_E_KEY_NOT_FOUND));

    // Path element limit: 255 bytes fit, 256 do not (and nothing is created).
    std::string ok = "Software\\" + std::string(255, 'k');
    std::string tooLong = "Software\\" + std::string(256, 'k');
    h = Create(ok.c_str());
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    EXPECT_EQ(ZLRegCreateKeyExA(kMachine, tooLong.c_str(), 0, nullptr, 0, 0, nullptr, &h, nullptr),
              Z(ZLREG_E_INVALID_ARG));
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 0, 3, &h), Z(ZLREG_E_INVALID_ARG))
        << "access above ALL";
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 1, 0, &h), Z(ZLREG_E_INVALID_ARG))
        << "options must be 0";
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 0, 0, &h), 0u);
    EXPECT_EQ(SubkeyNames(h), (std::vector<std::string>{std::string(255, 'k'), "Zorvik"}));
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

TEST_F(ZlregTest, EveryTypeKeepsItsBytes) {
    HANDLE h = Create("Software\\Types");
    unsigned char all[256];
    for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
    UINT32 u32 = 0xDEADBEEF;
    UINT64 u64 = 0x0123456789ABCDEFull;
    const char sz[] = "text with \xE9 and \\ inside";
    const char multi[] = "a\0bc\0\0";
    struct Case {
        const char* name;
        UINT32 type;
        const void* data;
        UINT32 len;
    } cases[] = {
        {"bin", ZLREG_BINARY, all, sizeof all},    {"empty", ZLREG_BINARY, nullptr, 0},
        {"u32", ZLREG_UINT32, &u32, 4},            {"u64", ZLREG_UINT64, &u64, 8},
        {"sz", ZLREG_SZ, sz, sizeof sz},           {"multi", ZLREG_MULTI_SZ, multi, sizeof multi},
        {"short32", ZLREG_UINT32, &u32, 2},        {"", ZLREG_SZ, "unnamed", 8},
    };
    for (const Case& c : cases)
        ASSERT_EQ(ZLRegSetValueExA(h, c.name, 0, c.type, c.data, c.len), 0u) << c.name;
    for (const Case& c : cases) {
        UINT32 type = 99;
        std::string got = QueryString(h, c.name, &type);
        EXPECT_EQ(type, c.type) << c.name;
        EXPECT_EQ(got, std::string(static_cast<const char*>(c.data), c.len)) << c.name;
    }
    // The unnamed value answers to null and empty names alike.
    EXPECT_EQ(QueryString(h, nullptr), std::string("unnamed", 8));
    // Names without case; a rewrite replaces type and data but keeps the name.
    ASSERT_EQ(ZLRegSetValueExA(h, "U32", 0, ZLREG_UINT64, &u64, 8), 0u);
    UINT32 type = 0;
    EXPECT_EQ(QueryString(h, "u32", &type), std::string(reinterpret_cast<char*>(&u64), 8));
    EXPECT_EQ(type, ZLREG_UINT64);
    char name[16];
    INT32 nlen = sizeof name;
    bool seen = false;
    for (UINT32 i = 0; ZLRegEnumValueA(h, i, name, &nlen, nullptr, nullptr, nullptr, nullptr) == 0;
         ++i, nlen = sizeof name)
        if (std::string(name) == "u32") seen = true;
    EXPECT_TRUE(seen) << "the first spelling of the name is kept";

    EXPECT_EQ(ZLRegSetValueExA(h, "bad", 0, 5, &u32, 4), Z(ZLREG_E_INVALID_ARG));
    EXPECT_EQ(ZLRegSetValueExA(h, "bad", 0, ZLREG_BINARY, nullptr, 4), Z(ZLREG_E_INVALID_ARG));
    EXPECT_EQ(QueryString(h, "bad"), "<3>") << "a refused write leaves nothing";
    std::string longName(ZLREG_MAX_VALUE_NAME + 1, 'v');
    EXPECT_EQ(ZLRegSetValueExA(h, longName.c_str(), 0, ZLREG_UINT32, &u32, 4), Z(ZLREG_E_INVALID_ARG));
    longName.pop_back();
    EXPECT_EQ(ZLRegSetValueExA(h, longName.c_str(), 0, ZLREG_UINT32, &u32, 4), 0u);
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

TEST_F(ZlregTest, EnumerationOrderEndAndBufferSizes) {
    HANDLE h = Create("Software\\Enum");
    // Folded order: '_' (0x5F) sorts before 'a' only once 'A' is folded.
    for (const char* n : {"b", "A", "c", "_x", "B2"}) {
        HANDLE s = nullptr;
        ASSERT_EQ(ZLRegCreateKeyExA(h, n, 0, nullptr, 0, 0, nullptr, &s, nullptr), 0u);
        ASSERT_EQ(ZLRegCloseKey(s), 0u);
        ASSERT_EQ(ZLRegSetValueExA(h, n, 0, ZLREG_BINARY, n, static_cast<UINT32>(strlen(n))), 0u);
    }
    EXPECT_EQ(SubkeyNames(h), (std::vector<std::string>{"_x", "A", "b", "B2", "c"}));
    std::vector<std::string> values;
    for (UINT32 i = 0;; ++i) {
        char name[8];
        INT32 nlen = sizeof name;
        char data[8];
        UINT32 dlen = sizeof data;
        UINT32 type = 99;
        KSSTATUS st = ZLRegEnumValueA(h, i, name, &nlen, nullptr, &type, data, &dlen);
        if (st != 0) {
            StatusCapture cap;
            EXPECT_EQ(ZLRegEnumValueA(h, i, name, &nlen, nullptr, &type, data, &dlen),
                      ZLREG_STATUS_NO_MORE_ITEMS);
            EXPECT_TRUE(cap.Built().empty()) << "the end of an enumeration is not logged";
            break;
        }
        EXPECT_EQ(type, ZLREG_BINARY);
        EXPECT_EQ(std::string(data, dlen), std::string(name, static_cast<size_t>(nlen)));
        values.emplace_back(name, static_cast<size_t>(nlen));
    }
    EXPECT_EQ(values, (std::vector<std::string>{"_x", "A", "b", "B2", "c"}));

    // Name room counts the terminator: "B2" needs 3.
    char buf[8];
    std::memset(buf, '#', sizeof buf);
    INT32 len = 2;
    EXPECT_EQ(ZLRegEnumKeyExA(h, 3, buf, &len, nullptr, nullptr, nullptr, nullptr),
              Z(ZLREG_E_BUFFER_SMALL));
    EXPECT_EQ(len, 3);
    EXPECT_EQ(buf[0], '#') << "nothing written when it does not fit";
    len = 3;
    ASSERT_EQ(ZLRegEnumKeyExA(h, 3, buf, &len, nullptr, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(len, 2);
    EXPECT_STREQ(buf, "B2");

    // Data room: exact fits, one byte less reports the size needed.
    UINT32 dlen = 1;
    char data[4];
    EXPECT_EQ(ZLRegQueryValueExA(h, "b2", nullptr, nullptr, data, &dlen), Z(ZLREG_E_BUFFER_SMALL));
    EXPECT_EQ(dlen, 2u);
    dlen = 0;
    EXPECT_EQ(ZLRegQueryValueExA(h, "b2", nullptr, nullptr, nullptr, &dlen), 0u) << "size query";
    EXPECT_EQ(dlen, 2u);
    // Enumeration: data too small reports both needs and writes no name.
    std::memset(buf, '#', sizeof buf);
    len = sizeof buf;
    dlen = 1;
    EXPECT_EQ(ZLRegEnumValueA(h, 3, buf, &len, nullptr, nullptr, data, &dlen),
              Z(ZLREG_E_BUFFER_SMALL));
    EXPECT_EQ(len, 3);
    EXPECT_EQ(dlen, 2u);
    EXPECT_EQ(buf[0], '#');
    EXPECT_EQ(ZLRegEnumKeyExA(h, 0, nullptr, &len, nullptr, nullptr, nullptr, nullptr),
              Z(ZLREG_E_INVALID_ARG));
    for (const char* n : {"b", "A", "c", "_x", "B2"}) EXPECT_EQ(ZLRegDeleteKeyA(h, n), 0u);
    EXPECT_EQ(ZLRegEnumKeyExA(h, 0, buf, &len, nullptr, nullptr, nullptr, nullptr),
              ZLREG_STATUS_NO_MORE_ITEMS);
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

TEST_F(ZlregTest, DeletionRulesAndDeletedKeys) {
    HANDLE leaf = Create("Software\\Del\\Mid\\Leaf");
    UINT32 one = 1;
    ASSERT_EQ(ZLRegSetValueExA(leaf, "v", 0, ZLREG_UINT32, &one, 4), 0u);
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, "Software\\Del\\Mid"), Z(ZLREG_E_HAS_SUBKEYS));
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, "Software\\Del\\Nope"), Z(ZLREG_E_KEY_NOT_FOUND));
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, ""), Z(ZLREG_E_ACCESS_DENIED)) << "a root stays";
    EXPECT_EQ(ZLRegDeleteValueA(leaf, "w"), Z(ZLREG_E_VALUE_NOT_FOUND));

    ASSERT_EQ(ZLRegDeleteKeyA(kMachine, "software\\del\\mid\\LEAF"), 0u);
    // The handle outlives its key and says so on every use.
    char buf[8];
    UINT32 dlen = sizeof buf;
    INT32 nlen = sizeof buf;
    HANDLE h = nullptr;
    EXPECT_EQ(ZLRegQueryValueExA(leaf, "v", nullptr, nullptr, buf, &dlen), Z(ZLREG_E_KEY_DELETED));
    EXPECT_EQ(ZLRegSetValueExA(leaf, "v", 0, ZLREG_UINT32, &one, 4), Z(ZLREG_E_KEY_DELETED));
    EXPECT_EQ(ZLRegDeleteValueA(leaf, "v"), Z(ZLREG_E_KEY_DELETED));
    EXPECT_EQ(ZLRegEnumValueA(leaf, 0, buf, &nlen, nullptr, nullptr, nullptr, nullptr),
              Z(ZLREG_E_KEY_DELETED));
    EXPECT_EQ(ZLRegEnumKeyExA(leaf, 0, buf, &nlen, nullptr, nullptr, nullptr, nullptr),
              Z(ZLREG_E_KEY_DELETED));
    EXPECT_EQ(ZLRegOpenKeyExA(leaf, "", 0, 0, &h), Z(ZLREG_E_KEY_DELETED));
    EXPECT_EQ(ZLRegCreateKeyExA(leaf, "x", 0, nullptr, 0, 0, nullptr, &h, nullptr),
              Z(ZLREG_E_KEY_DELETED));
    // A new key at the same path is not the old handle's key, and its values are new.
    HANDLE again = Create("Software\\Del\\Mid\\Leaf");
    EXPECT_EQ(ZLRegQueryValueExA(leaf, "v", nullptr, nullptr, buf, &dlen), Z(ZLREG_E_KEY_DELETED));
    EXPECT_EQ(QueryString(again, "v"), "<3>") << "values went with the deleted key";
    EXPECT_EQ(ZLRegCloseKey(leaf), 0u);
    EXPECT_EQ(ZLRegCloseKey(leaf), Z(ZLREG_E_INVALID_HANDLE)) << "second close";
    EXPECT_EQ(ZLRegDeleteKeyA(again, ""), 0u) << "empty path deletes the handle's own key";
    EXPECT_EQ(ZLRegCloseKey(again), 0u);
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, "Software\\Del\\Mid"), 0u);
}

TEST_F(ZlregTest, AccessAndInvalidHandles) {
    HANDLE w = Create("Software\\Acc");
    ASSERT_EQ(ZLRegCloseKey(w), 0u);
    HANDLE r = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Acc", 0, ZLREG_ACCESS_READ, &r), 0u);
    UINT32 one = 1;
    HANDLE h = nullptr;
    EXPECT_EQ(ZLRegSetValueExA(r, "v", 0, ZLREG_UINT32, &one, 4), Z(ZLREG_E_ACCESS_DENIED));
    EXPECT_EQ(ZLRegDeleteValueA(r, "v"), Z(ZLREG_E_ACCESS_DENIED));
    EXPECT_EQ(ZLRegCreateKeyExA(r, "sub", 0, nullptr, 0, 0, nullptr, &h, nullptr),
              Z(ZLREG_E_ACCESS_DENIED));
    EXPECT_EQ(ZLRegDeleteKeyA(r, ""), Z(ZLREG_E_ACCESS_DENIED));
    for (UINT32 access : {ZLREG_ACCESS_WRITE, ZLREG_ACCESS_ALL}) {
        ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Acc", 0, access, &w), 0u);
        EXPECT_EQ(ZLRegSetValueExA(w, "v", 0, ZLREG_UINT32, &one, 4), 0u);
        EXPECT_EQ(QueryString(w, "v"), std::string(reinterpret_cast<char*>(&one), 4));
        EXPECT_EQ(ZLRegCloseKey(w), 0u);
    }
    EXPECT_EQ(QueryString(r, "v"), std::string(reinterpret_cast<char*>(&one), 4));
    EXPECT_EQ(ZLRegCloseKey(r), 0u);

    // A closed handle whose slot was reused by a new handle is still refused.
    HANDLE fresh = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 0, 0, &fresh), 0u);
    StatusCapture cap;
    for (HANDLE bad : {r, static_cast<HANDLE>(nullptr), reinterpret_cast<HANDLE>(0x1234),
                       reinterpret_cast<HANDLE>(0x80000010u)}) {
        char buf[4];
        UINT32 len = sizeof buf;
        EXPECT_EQ(ZLRegQueryValueExA(bad, "v", nullptr, nullptr, buf, &len),
                  Z(ZLREG_E_INVALID_HANDLE));
        EXPECT_EQ(ZLRegCloseKey(bad), Z(ZLREG_E_INVALID_HANDLE));
    }
    EXPECT_TRUE(cap.WasBuilt(Z(ZLREG_E_INVALID_HANDLE), "ZLRegCloseKey"));
    EXPECT_EQ(ZLRegCloseKey(fresh), 0u);
    EXPECT_EQ(ZLRegCloseKey(kMachine), 0u) << "closing a root is harmless";
}

TEST_F(ZlregTest, LastWriteTimes) {
    UINT64 before = FiletimeNow();
    HANDLE h = Create("Software\\Time\\Child");
    UINT64 created = 0;
    HANDLE parent = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Time", 0, 0, &parent), 0u);
    char name[16];
    INT32 len = sizeof name;
    ASSERT_EQ(ZLRegEnumKeyExA(parent, 0, name, &len, nullptr, nullptr, nullptr, &created), 0u);
    UINT64 after = FiletimeNow();
    EXPECT_GE(created, before - 10000000u) << "within a second of the clock";
    EXPECT_LE(created, after + 10000000u);
    usleep(20000);
    UINT32 one = 1;
    ASSERT_EQ(ZLRegSetValueExA(h, "v", 0, ZLREG_UINT32, &one, 4), 0u);
    UINT64 written = 0;
    len = sizeof name;
    ASSERT_EQ(ZLRegEnumKeyExA(parent, 0, name, &len, nullptr, nullptr, nullptr, &written), 0u);
    EXPECT_GT(written, created) << "a value write moves the key's time";
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    EXPECT_EQ(ZLRegCloseKey(parent), 0u);
}

// Threads share one handle and also use their own; every write arrives.
TEST_F(ZlregTest, ThreadsWriteOneKey) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 40;
    HANDLE shared = Create("Software\\Threads");
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            HANDLE own = nullptr;
            if (ZLRegOpenKeyExA(kMachine, "software\\threads", 0, ZLREG_ACCESS_WRITE, &own) != 0) {
                ++failures;
                return;
            }
            for (int i = 0; i < kPerThread; ++i) {
                std::string name = "t" + std::to_string(t) + "_" + std::to_string(i);
                UINT32 v = static_cast<UINT32>(t * 1000 + i);
                if (ZLRegSetValueExA(i % 2 ? own : shared, name.c_str(), 0, ZLREG_UINT32, &v, 4) != 0)
                    ++failures;
            }
            if (ZLRegCloseKey(own) != 0) ++failures;
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kPerThread; ++i) {
            std::string name = "t" + std::to_string(t) + "_" + std::to_string(i);
            UINT32 v = static_cast<UINT32>(t * 1000 + i);
            EXPECT_EQ(QueryString(shared, name.c_str()), std::string(reinterpret_cast<char*>(&v), 4));
        }
    EXPECT_EQ(ZLRegCloseKey(shared), 0u);
}

// Read-modify-write of one counter inside write transactions from two
// processes at once: every increment survives.
TEST_F(ZlregTest, TwoProcessesLoseNothing) {
    constexpr int kProcs = 2;
    constexpr int kRounds = 60;
    HANDLE h = Create("Software\\Procs");  // opened before the fork: used by the children too
    UINT32 zero = 0;
    ASSERT_EQ(ZLRegSetValueExA(h, "counter", 0, ZLREG_UINT32, &zero, 4), 0u);
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int bad = 0;
            for (int i = 0; i < kRounds; ++i) {
                if (ZLRegBeginTransaction(TRUE) != 0) {
                    ++bad;
                    continue;
                }
                UINT32 v = 0;
                UINT32 len = 4;
                if (ZLRegQueryValueExA(h, "counter", nullptr, nullptr, &v, &len) != 0) ++bad;
                ++v;
                if (ZLRegSetValueExA(h, "counter", 0, ZLREG_UINT32, &v, 4) != 0) ++bad;
                std::string own = "p" + std::to_string(p) + "_" + std::to_string(i);
                if (ZLRegSetValueExA(h, own.c_str(), 0, ZLREG_UINT32, &v, 4) != 0) ++bad;
                if (ZLRegCommitTransaction() != 0) ++bad;
            }
            _exit(bad == 0 ? 0 : 1);
        }
        kids.push_back(pid);
    }
    for (pid_t pid : kids) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    UINT32 v = 0;
    UINT32 len = 4;
    ASSERT_EQ(ZLRegQueryValueExA(h, "counter", nullptr, nullptr, &v, &len), 0u);
    EXPECT_EQ(v, static_cast<UINT32>(kProcs * kRounds));
    int values = 0;
    char name[32];
    INT32 nlen = sizeof name;
    while (ZLRegEnumValueA(h, static_cast<UINT32>(values), name, &nlen, nullptr, nullptr, nullptr,
                           nullptr) == 0) {
        ++values;
        nlen = sizeof name;
    }
    EXPECT_EQ(values, kProcs * kRounds + 1);
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

// A writer killed inside its transaction, and one killed while committing
// in a loop: what was committed is whole, the rest is absent, and the store
// takes writes at once.
TEST_F(ZlregTest, KilledWriterLeavesStoreIntact) {
    HANDLE h = Create("Software\\Kill");
    const char committed[] = "before";
    ASSERT_EQ(ZLRegSetValueExA(h, "kept", 0, ZLREG_SZ, committed, sizeof committed), 0u);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(ready[0]);
        int bad = ZLRegBeginTransaction(TRUE) != 0;
        std::string blob(4096, 'x');
        for (int i = 0; i < 50; ++i) {
            std::string name = "pending" + std::to_string(i);
            bad |= ZLRegSetValueExA(h, name.c_str(), 0, ZLREG_BINARY, blob.data(), 4096) != 0;
        }
        bad |= ZLRegDeleteValueA(h, "kept") != 0;
        char c = bad ? 'b' : 'k';
        (void)!write(ready[1], &c, 1);
        for (;;) pause();
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);
    EXPECT_EQ(c, 'k');
    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(QueryString(h, "kept"), std::string(committed, sizeof committed));
    EXPECT_EQ(QueryString(h, "pending0"), "<3>");

    // Second writer: single-operation commits in a loop, killed at some point.
    pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        for (UINT32 i = 0;; ++i) {
            std::string name = "loop" + std::to_string(i);
            std::string data(1000 + i % 100, static_cast<char>('a' + i % 26));
            ZLRegSetValueExA(h, name.c_str(), 0, ZLREG_BINARY, data.data(),
                             static_cast<UINT32>(data.size()));
        }
    }
    // Let it commit a few, then kill it wherever it is.
    for (int waited = 0; waited < 600; ++waited) {
        if (QueryString(h, "loop5") != "<3>") break;
        usleep(50000);
    }
    kill(pid, SIGKILL);
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    int found = 0;
    for (UINT32 i = 0;; ++i) {
        std::string name = "loop" + std::to_string(i);
        std::string got = QueryString(h, name.c_str());
        if (got == "<3>") break;
        EXPECT_TRUE(got == std::string(1000 + i % 100, static_cast<char>('a' + i % 26)))
            << name << " is torn: " << got.size() << " bytes";
        ++found;
    }
    EXPECT_GE(found, 6);
    UINT32 one = 1;
    EXPECT_EQ(ZLRegSetValueExA(h, "after", 0, ZLREG_UINT32, &one, 4), 0u) << "not left locked";
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

TEST_F(ZlregTest, TransactionsCommitRollBackAndRefuseNesting) {
    HANDLE h = Create("Software\\Txn");
    UINT32 one = 1;
    ASSERT_EQ(ZLRegBeginTransaction(TRUE), 0u);
    EXPECT_EQ(ZLRegBeginTransaction(TRUE), Z(ZLREG_E_TRANSACTION));
    ASSERT_EQ(ZLRegSetValueExA(h, "a", 0, ZLREG_UINT32, &one, 4), 0u);
    // A failing operation inside leaves the transaction usable.
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, "Software"), Z(ZLREG_E_HAS_SUBKEYS));
    ASSERT_EQ(ZLRegSetValueExA(h, "b", 0, ZLREG_UINT32, &one, 4), 0u);
    ASSERT_EQ(ZLRegRollbackTransaction(), 0u);
    EXPECT_EQ(QueryString(h, "a"), "<3>");
    EXPECT_EQ(QueryString(h, "b"), "<3>");
    ASSERT_EQ(ZLRegBeginTransaction(TRUE), 0u);
    ASSERT_EQ(ZLRegSetValueExA(h, "a", 0, ZLREG_UINT32, &one, 4), 0u);
    EXPECT_EQ(ZLRegDeleteValueA(h, "zz"), Z(ZLREG_E_VALUE_NOT_FOUND));
    ASSERT_EQ(ZLRegCommitTransaction(), 0u);
    EXPECT_EQ(QueryString(h, "a"), std::string(reinterpret_cast<char*>(&one), 4));
    ASSERT_EQ(ZLRegBeginTransaction(FALSE), 0u);
    EXPECT_EQ(ZLRegSetValueExA(h, "c", 0, ZLREG_UINT32, &one, 4), Z(ZLREG_E_ACCESS_DENIED));
    EXPECT_EQ(ZLRegCommitTransaction(), 0u);
    EXPECT_EQ(ZLRegCommitTransaction(), Z(ZLREG_E_TRANSACTION));
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

// A file that is not a database, and one of another program: a clear status
// and a log line, no crash; the store works again on a good file.
TEST_F(ZlregTest, NotADatabase) {
    std::string junk = dir_ + "/junk.db";
    FILE* f = std::fopen(junk.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    for (int i = 0; i < 512; ++i) std::fputs("this is not a database. ", f);
    std::fclose(f);
    ASSERT_EQ(ZLRegSetDatabasePath(junk.c_str()), 0u);
    HANDLE h = nullptr;
    StatusCapture cap;
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 0, 0, &h), Z(ZLREG_E_STORE_CORRUPT));
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(ZLRegCreateKeyExA(kMachine, "Software", 0, nullptr, 0, 0, nullptr, &h, nullptr),
              Z(ZLREG_E_STORE_CORRUPT));
    EXPECT_TRUE(cap.WasBuilt(Z(ZLREG_E_STORE_CORRUPT), "ZLRegOpenKeyExA"));
    EXPECT_TRUE(SyslogContains(junk)) << "the log names the file";
    ASSERT_EQ(ZLRegSetDatabasePath(nullptr), 0u);
    EXPECT_EQ(unlink(junk.c_str()), 0);

    ASSERT_EQ(ZLRegSetDatabasePath(path_.c_str()), 0u);
    h = Create("Software\\Fine");
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

// Sets the process's umask for a scope.
class UmaskScope {
public:
    explicit UmaskScope(mode_t mask) : old_(umask(mask)) {}
    ~UmaskScope() { umask(old_); }
    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;

private:
    mode_t old_;
};

mode_t ModeOf(const std::string& path, uid_t* owner = nullptr) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return static_cast<mode_t>(-1);
    if (owner != nullptr) *owner = st.st_uid;
    return st.st_mode & 07777;
}

// Even with a umask that takes nothing away, the directories the store makes
// and the database with its -wal and -shm files let no other user in.
TEST_F(ZlregTest, CreatedFilesKeepOtherUsersOut) {
    const std::string a = dir_ + "/a", b = a + "/b", db = b + "/store.db";
    {
        UmaskScope open(0);
        ASSERT_EQ(ZLRegSetDatabasePath(db.c_str()), 0u);
        HANDLE h = Create("Software\\Private");
        ASSERT_EQ(ZLRegSetValueExA(h, "v", 0, ZLREG_UINT32, "\1\0\0\0", 4), 0u);
        uid_t owner = 0;
        EXPECT_EQ(ModeOf(a, &owner), 0700u);
        EXPECT_EQ(owner, geteuid());
        EXPECT_EQ(ModeOf(b), 0700u);
        EXPECT_EQ(ModeOf(db, &owner), 0600u);
        EXPECT_EQ(owner, geteuid());
        // Both exist while this thread's connection is open after a write.
        EXPECT_EQ(ModeOf(db + "-wal"), 0600u);
        EXPECT_EQ(ModeOf(db + "-shm"), 0600u);
        EXPECT_EQ(ZLRegCloseKey(h), 0u);
        ASSERT_EQ(ZLRegSetDatabasePath(nullptr), 0u);
    }
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((db + suffix).c_str());
    EXPECT_EQ(rmdir(b.c_str()), 0);
    EXPECT_EQ(rmdir(a.c_str()), 0);
}

// A directory at the database path is refused with its own status and a
// log line naming it; nothing is created inside it.
TEST_F(ZlregTest, DirectoryAsDatabaseIsRefused) {
    ASSERT_EQ(ZLRegSetDatabasePath(dir_.c_str()), 0u);
    HANDLE h = nullptr;
    StatusCapture cap;
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 0, 0, &h), Z(ZLREG_E_STORE_UNSAFE));
    EXPECT_EQ(h, nullptr);
    EXPECT_TRUE(cap.WasBuilt(Z(ZLREG_E_STORE_UNSAFE), "ZLRegOpenKeyExA"));
    EXPECT_TRUE(SyslogContains(dir_ + ": refused: a directory"));
    EXPECT_TRUE(ZLREG_IS_STORE_FAILURE(Z(ZLREG_E_STORE_UNSAFE)));
    // A link of one's own to a directory is no better.
    const std::string link = dir_ + "/to-dir";
    ASSERT_EQ(symlink(dir_.c_str(), link.c_str()), 0);
    ASSERT_EQ(ZLRegSetDatabasePath(link.c_str()), 0u);
    EXPECT_EQ(ZLRegCreateKeyExA(kMachine, "Software", 0, nullptr, 0, 0, nullptr, &h, nullptr),
              Z(ZLREG_E_STORE_UNSAFE));
    ASSERT_EQ(ZLRegSetDatabasePath(nullptr), 0u);
    EXPECT_EQ(unlink(link.c_str()), 0);
}

// A symbolic link of one's own is followed: the store lives at its target.
TEST_F(ZlregTest, OwnLinkIsFollowed) {
    const std::string link = dir_ + "/link.db";
    ASSERT_EQ(symlink(path_.c_str(), link.c_str()), 0);
    ASSERT_EQ(ZLRegSetDatabasePath(link.c_str()), 0u);
    HANDLE h = Create("Software\\ByLink");
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    ASSERT_EQ(ZLRegSetDatabasePath(path_.c_str()), 0u);
    h = nullptr;
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\ByLink", 0, 0, &h), 0u);
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    EXPECT_EQ(unlink(link.c_str()), 0);
}

// A link owned by another user decides where the writes go: refused, and
// its target is not created. Making such a link takes root.
TEST_F(ZlregTest, OtherUsersLinkIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give a link to another user";
    const std::string link = dir_ + "/foreign.db";
    ASSERT_EQ(symlink(path_.c_str(), link.c_str()), 0);
    ASSERT_EQ(lchown(link.c_str(), 65534, 65534), 0);
    ASSERT_EQ(ZLRegSetDatabasePath(link.c_str()), 0u);
    HANDLE h = nullptr;
    StatusCapture cap;
    EXPECT_EQ(ZLRegCreateKeyExA(kMachine, "Software", 0, nullptr, 0, 0, nullptr, &h, nullptr),
              Z(ZLREG_E_STORE_UNSAFE));
    EXPECT_EQ(h, nullptr);
    EXPECT_TRUE(cap.WasBuilt(Z(ZLREG_E_STORE_UNSAFE), "ZLRegCreateKeyExA"));
    EXPECT_TRUE(SyslogContains(link + ": refused: a symbolic link owned by another user"));
    struct stat st;
    EXPECT_NE(stat(path_.c_str(), &st), 0) << "the link's target was created";
    ASSERT_EQ(ZLRegSetDatabasePath(nullptr), 0u);
    EXPECT_EQ(unlink(link.c_str()), 0);
}

}  // namespace
