// The configuration store library on its own: hierarchy, names, types,
// enumeration, buffer rules, deletion, handles, transactions across
// processes, and the safety of the database file and its directories.
#include <stdarg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
std::string g_syslog;
}  // namespace

extern "C" __attribute__((visibility("default"))) void syslog(int, const char* format, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    std::lock_guard<std::mutex> g(g_syslogMutex);
    g_syslog += std::string(buf) + "\n";
}

namespace {

const HANDLE kMachine = ZLREG_HKEY_LOCAL_MACHINE;
KSSTATUS Z(UINT32 code) { return ZLREG_STATUS(code); }

bool SyslogContains(const std::string& text) {
    std::lock_guard<std::mutex> g(g_syslogMutex);
    return g_syslog.find(text) != std::string::npos;
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

    static KSSTATUS Create(HANDLE parent, const std::string& path, HANDLE* h, UINT32* disp = nullptr) {
        return ZLRegCreateKeyExA(parent, path.c_str(), 0, nullptr, 0, 0, nullptr, h, disp);
    }
    // The value's bytes, or "<code>" when the query fails.
    static std::string Query(HANDLE h, const char* name, UINT32* type = nullptr) {
        char buf[512];
        UINT32 len = sizeof buf;
        KSSTATUS st = ZLRegQueryValueExA(h, name, nullptr, type, buf, &len);
        return st != 0 ? "<" + std::to_string(KS_STATUS_CODE(st)) + ">" : std::string(buf, len);
    }
    static std::vector<std::string> Subkeys(HANDLE h) {
        std::vector<std::string> names;
        char buf[300];
        INT32 len = sizeof buf;
        for (UINT32 i = 0; ZLRegEnumKeyExA(h, i, buf, &len, nullptr, nullptr, nullptr, nullptr) == 0;
             ++i, len = sizeof buf)
            names.emplace_back(buf, static_cast<size_t>(len));
        return names;
    }

    std::string dir_;
    std::string path_;
};

TEST_F(ZlregTest, PathsNamesAndTypes) {
    HANDLE h = nullptr;
    UINT32 disp = 0;
    ASSERT_EQ(Create(kMachine, "Software\\Zorvik\\App", &h, &disp), 0u);
    EXPECT_EQ(disp, ZLREG_CREATED_NEW_KEY);
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    ASSERT_EQ(Create(kMachine, "\\SOFTWARE\\\\zorvik\\APP\\", &h, &disp), 0u);
    EXPECT_EQ(disp, ZLREG_OPENED_EXISTING_KEY) << "folded case and extra separators";
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "software", 0, ZLREG_ACCESS_READ, &h), 0u);
    EXPECT_EQ(Subkeys(h), std::vector<std::string>{"Zorvik"}) << "stored as first written";
    HANDLE sub = reinterpret_cast<HANDLE>(1);
    EXPECT_EQ(ZLRegOpenKeyExA(h, "zorvik\\Missing", 0, 0, &sub), Z(ZLREG_E_KEY_NOT_FOUND));
    EXPECT_EQ(sub, nullptr) << "out handle is cleared on failure";
    EXPECT_EQ(ZLRegOpenKeyExA(ZLREG_HKEY_CURRENT_USER, "Software", 0, 0, &sub),
              Z(ZLREG_E_KEY_NOT_FOUND));
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 0, 3, &sub), Z(ZLREG_E_INVALID_ARG));
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 1, 0, &sub), Z(ZLREG_E_INVALID_ARG));
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    // A path element of 255 bytes fits, 256 do not; value names likewise.
    ASSERT_EQ(Create(kMachine, "Software\\" + std::string(255, 'k'), &h), 0u);
    EXPECT_EQ(Create(kMachine, "Software\\" + std::string(256, 'k'), &sub), Z(ZLREG_E_INVALID_ARG));
    const std::string longName(ZLREG_MAX_VALUE_NAME + 1, 'v');
    EXPECT_EQ(ZLRegSetValueExA(h, longName.c_str(), 0, ZLREG_BINARY, "x", 1), Z(ZLREG_E_INVALID_ARG));
    EXPECT_EQ(ZLRegSetValueExA(h, longName.c_str() + 1, 0, ZLREG_BINARY, "x", 1), 0u);

    // Every type keeps its bytes, whatever their length; a rewrite in
    // another case replaces type and data.
    const std::string all = [] {
        std::string s(256, '\0');
        for (int i = 0; i < 256; ++i) s[i] = static_cast<char>(i);
        return s;
    }();
    struct Row {
        const char* name;
        UINT32 type;
        std::string data;
    } rows[] = {
        {"bin", ZLREG_BINARY, all},      {"empty", ZLREG_BINARY, ""},
        {"short32", ZLREG_UINT32, "ab"}, {"u64", ZLREG_UINT64, "12345678"},
        {"sz", ZLREG_SZ, "t\xE9xt\\"},   {"multi", ZLREG_MULTI_SZ, std::string("a\0bc\0\0", 6)},
        {"", ZLREG_SZ, "unnamed"},
    };
    for (const Row& r : rows)
        ASSERT_EQ(ZLRegSetValueExA(h, r.name, 0, r.type, r.data.data(), static_cast<UINT32>(r.data.size())),
                  0u)
            << r.name;
    for (const Row& r : rows) {
        UINT32 type = 99;
        EXPECT_EQ(Query(h, r.name, &type), r.data) << r.name;
        EXPECT_EQ(type, r.type) << r.name;
    }
    EXPECT_EQ(Query(h, nullptr), "unnamed") << "null and empty names are the same value";
    ASSERT_EQ(ZLRegSetValueExA(h, "SHORT32", 0, ZLREG_UINT64, "87654321", 8), 0u);
    UINT32 type = 0;
    EXPECT_EQ(Query(h, "short32", &type), "87654321");
    EXPECT_EQ(type, ZLREG_UINT64);
    EXPECT_EQ(ZLRegSetValueExA(h, "bad", 0, 5, "1234", 4), Z(ZLREG_E_INVALID_ARG));
    EXPECT_EQ(ZLRegSetValueExA(h, "bad", 0, ZLREG_BINARY, nullptr, 4), Z(ZLREG_E_INVALID_ARG));
    EXPECT_EQ(Query(h, "bad"), "<3>") << "a refused write leaves nothing";
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

TEST_F(ZlregTest, EnumerationOrderEndAndBufferSizes) {
    HANDLE h = nullptr;
    ASSERT_EQ(Create(kMachine, "Software\\Enum", &h), 0u);
    // Folded order: '_' (0x5F) sorts before 'a' only once 'A' is folded.
    for (const char* n : {"b", "A", "c", "_x", "B2"}) {
        HANDLE s = nullptr;
        ASSERT_EQ(Create(h, n, &s), 0u);
        ASSERT_EQ(ZLRegCloseKey(s), 0u);
        ASSERT_EQ(ZLRegSetValueExA(h, n, 0, ZLREG_BINARY, n, static_cast<UINT32>(strlen(n))), 0u);
    }
    const std::vector<std::string> order = {"_x", "A", "b", "B2", "c"};
    EXPECT_EQ(Subkeys(h), order);
    char name[8];
    char data[8];
    for (UINT32 i = 0; i <= order.size(); ++i) {
        INT32 nlen = sizeof name;
        UINT32 dlen = sizeof data;
        StatusCapture cap;
        KSSTATUS st = ZLRegEnumValueA(h, i, name, &nlen, nullptr, nullptr, data, &dlen);
        if (i == order.size()) {
            EXPECT_EQ(st, ZLREG_STATUS_NO_MORE_ITEMS);
            EXPECT_TRUE(cap.Built().empty()) << "the end of an enumeration is not logged";
            break;
        }
        ASSERT_EQ(st, 0u);
        EXPECT_EQ(std::string(name, static_cast<size_t>(nlen)), order[i]);
        EXPECT_EQ(std::string(data, dlen), order[i]);
    }
    // Name room counts the terminator: "B2" needs 3; nothing is written
    // when it does not fit, and data too small reports both needs.
    std::memset(name, '#', sizeof name);
    INT32 nlen = 2;
    EXPECT_EQ(ZLRegEnumKeyExA(h, 3, name, &nlen, nullptr, nullptr, nullptr, nullptr),
              Z(ZLREG_E_BUFFER_SMALL));
    EXPECT_EQ(nlen, 3);
    EXPECT_EQ(name[0], '#');
    nlen = 3;
    ASSERT_EQ(ZLRegEnumKeyExA(h, 3, name, &nlen, nullptr, nullptr, nullptr, nullptr), 0u);
    EXPECT_STREQ(name, "B2");
    UINT32 dlen = 1;
    nlen = sizeof name;
    std::memset(name, '#', sizeof name);
    EXPECT_EQ(ZLRegEnumValueA(h, 3, name, &nlen, nullptr, nullptr, data, &dlen), Z(ZLREG_E_BUFFER_SMALL));
    EXPECT_EQ(nlen, 3);
    EXPECT_EQ(dlen, 2u);
    EXPECT_EQ(name[0], '#');
    dlen = 1;
    EXPECT_EQ(ZLRegQueryValueExA(h, "b2", nullptr, nullptr, data, &dlen), Z(ZLREG_E_BUFFER_SMALL));
    EXPECT_EQ(dlen, 2u);
    dlen = 0;
    EXPECT_EQ(ZLRegQueryValueExA(h, "b2", nullptr, nullptr, nullptr, &dlen), 0u) << "size query";
    EXPECT_EQ(dlen, 2u);
    for (const std::string& n : order) EXPECT_EQ(ZLRegDeleteKeyA(h, n.c_str()), 0u);
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

TEST_F(ZlregTest, DeletionAccessAndHandles) {
    HANDLE leaf = nullptr;
    ASSERT_EQ(Create(kMachine, "Software\\Del\\Leaf", &leaf), 0u);
    ASSERT_EQ(ZLRegSetValueExA(leaf, "v", 0, ZLREG_UINT32, "\1\0\0\0", 4), 0u);
    HANDLE r = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Del", 0, ZLREG_ACCESS_READ, &r), 0u);
    EXPECT_EQ(ZLRegSetValueExA(r, "v", 0, ZLREG_UINT32, "\1\0\0\0", 4), Z(ZLREG_E_ACCESS_DENIED));
    EXPECT_EQ(ZLRegDeleteKeyA(r, "Leaf"), Z(ZLREG_E_ACCESS_DENIED));
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, "Software\\Del"), Z(ZLREG_E_HAS_SUBKEYS));
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, ""), Z(ZLREG_E_ACCESS_DENIED)) << "a root stays";
    EXPECT_EQ(ZLRegDeleteValueA(leaf, "w"), Z(ZLREG_E_VALUE_NOT_FOUND));
    ASSERT_EQ(ZLRegDeleteKeyA(kMachine, "software\\del\\LEAF"), 0u);
    // The handle outlives its key and says so; a new key at the same path
    // is not the old handle's key, and its values are new.
    HANDLE again = nullptr;
    ASSERT_EQ(Create(kMachine, "Software\\Del\\Leaf", &again), 0u);
    EXPECT_EQ(Query(leaf, "v"), "<11>");
    EXPECT_EQ(ZLRegSetValueExA(leaf, "v", 0, ZLREG_UINT32, "\1\0\0\0", 4), Z(ZLREG_E_KEY_DELETED));
    EXPECT_EQ(Create(leaf, "x", &r), Z(ZLREG_E_KEY_DELETED));
    EXPECT_EQ(Query(again, "v"), "<3>");
    EXPECT_EQ(ZLRegCloseKey(leaf), 0u);
    EXPECT_EQ(ZLRegDeleteKeyA(again, ""), 0u) << "empty path deletes the handle's own key";
    EXPECT_EQ(ZLRegCloseKey(again), 0u);

    // A closed handle is refused even when its slot went to a new handle.
    HANDLE fresh = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 0, 0, &fresh), 0u);
    StatusCapture cap;
    for (HANDLE bad : {leaf, static_cast<HANDLE>(nullptr), reinterpret_cast<HANDLE>(0x80000010u)}) {
        EXPECT_EQ(Query(bad, "v"), "<6>");
        EXPECT_EQ(ZLRegCloseKey(bad), Z(ZLREG_E_INVALID_HANDLE));
    }
    EXPECT_TRUE(cap.WasBuilt(Z(ZLREG_E_INVALID_HANDLE), "ZLRegCloseKey"));
    EXPECT_EQ(ZLRegCloseKey(fresh), 0u);
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, "Software\\Del"), 0u);
}

// Read-modify-write of one counter in write transactions from two processes
// and two threads at once: every increment survives. Then the transaction
// rules: no nesting, rollback, read-only transactions.
TEST_F(ZlregTest, TransactionsLoseNothing) {
    HANDLE h = nullptr;
    ASSERT_EQ(Create(kMachine, "Software\\Txn", &h), 0u);  // used by the children too
    UINT32 zero = 0;
    ASSERT_EQ(ZLRegSetValueExA(h, "counter", 0, ZLREG_UINT32, &zero, 4), 0u);
    auto rounds = [h](int n) {
        int bad = 0;
        for (int i = 0; i < n; ++i) {
            UINT32 v = 0;
            UINT32 len = 4;
            bad += ZLRegBeginTransaction(TRUE) != 0;
            bad += ZLRegQueryValueExA(h, "counter", nullptr, nullptr, &v, &len) != 0;
            ++v;
            bad += ZLRegSetValueExA(h, "counter", 0, ZLREG_UINT32, &v, 4) != 0;
            bad += ZLRegCommitTransaction() != 0;
        }
        return bad;
    };
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) _exit(rounds(60) == 0 ? 0 : 1);
    int threadBad = 0;
    std::thread other([&] { threadBad = rounds(30); });
    EXPECT_EQ(rounds(30), 0);
    other.join();
    EXPECT_EQ(threadBad, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    const UINT32 total = 120;
    EXPECT_EQ(Query(h, "counter"), std::string(reinterpret_cast<const char*>(&total), 4));

    ASSERT_EQ(ZLRegBeginTransaction(TRUE), 0u);
    EXPECT_EQ(ZLRegBeginTransaction(TRUE), Z(ZLREG_E_TRANSACTION));
    ASSERT_EQ(ZLRegSetValueExA(h, "a", 0, ZLREG_UINT32, &zero, 4), 0u);
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, "Software"), Z(ZLREG_E_HAS_SUBKEYS)) << "and goes on";
    ASSERT_EQ(ZLRegSetValueExA(h, "b", 0, ZLREG_UINT32, &zero, 4), 0u);
    ASSERT_EQ(ZLRegRollbackTransaction(), 0u);
    EXPECT_EQ(Query(h, "a") + Query(h, "b"), "<3><3>");
    ASSERT_EQ(ZLRegBeginTransaction(FALSE), 0u);
    EXPECT_EQ(ZLRegSetValueExA(h, "c", 0, ZLREG_UINT32, &zero, 4), Z(ZLREG_E_ACCESS_DENIED));
    EXPECT_EQ(ZLRegCommitTransaction(), 0u);
    EXPECT_EQ(ZLRegCommitTransaction(), Z(ZLREG_E_TRANSACTION));
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

mode_t ModeOf(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || st.st_uid != geteuid()) return static_cast<mode_t>(-1);
    return st.st_mode & 07777;
}

// Even with a umask that takes nothing away, the directories the store makes
// and the database with its -wal and -shm files let no other user in.
TEST_F(ZlregTest, CreatedFilesKeepOtherUsersOut) {
    const std::string a = dir_ + "/a";
    const std::string db = a + "/b/store.db";
    const mode_t old = umask(0);
    ASSERT_EQ(ZLRegSetDatabasePath(db.c_str()), 0u);
    HANDLE h = nullptr;
    EXPECT_EQ(Create(kMachine, "Software\\Private", &h), 0u);
    EXPECT_EQ(ZLRegSetValueExA(h, "v", 0, ZLREG_UINT32, "\1\0\0\0", 4), 0u);
    umask(old);
    EXPECT_EQ(ModeOf(a), 0700u);
    EXPECT_EQ(ModeOf(a + "/b"), 0700u);
    for (const char* suffix : {"", "-wal", "-shm"}) EXPECT_EQ(ModeOf(db + suffix), 0600u) << suffix;
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    ASSERT_EQ(ZLRegSetDatabasePath(nullptr), 0u);
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((db + suffix).c_str());
    EXPECT_EQ(rmdir((a + "/b").c_str()), 0);
    EXPECT_EQ(rmdir(a.c_str()), 0);
}

// A directory (directly or through one's own link) and a file that is not a
// database are refused with their own statuses and a log line naming them;
// one's own link to a file is followed.
TEST_F(ZlregTest, UnusableDatabasePathsAreRefused) {
    const std::string junk = dir_ + "/junk.db";
    const std::string toDir = dir_ + "/to-dir";
    const std::string toFile = dir_ + "/to-file";
    FILE* f = std::fopen(junk.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    for (int i = 0; i < 512; ++i) std::fputs("this is not a database. ", f);
    std::fclose(f);
    ASSERT_EQ(symlink(dir_.c_str(), toDir.c_str()), 0);
    ASSERT_EQ(symlink(path_.c_str(), toFile.c_str()), 0);
    struct Row {
        std::string path;
        KSSTATUS status;
        std::string log;
    } rows[] = {
        {dir_, Z(ZLREG_E_STORE_UNSAFE), dir_ + ": refused: a directory"},
        {toDir, Z(ZLREG_E_STORE_UNSAFE), toDir + ": refused: a directory"},
        {junk, Z(ZLREG_E_STORE_CORRUPT), junk},
        {toFile, 0, ""},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.path);
        ASSERT_EQ(ZLRegSetDatabasePath(r.path.c_str()), 0u);
        StatusCapture cap;
        HANDLE h = reinterpret_cast<HANDLE>(1);
        EXPECT_EQ(Create(kMachine, "Software\\Fine", &h), r.status);
        if (r.status == 0) {
            EXPECT_EQ(ZLRegCloseKey(h), 0u);
            continue;
        }
        EXPECT_EQ(h, nullptr);
        EXPECT_TRUE(cap.WasBuilt(r.status, "ZLRegCreateKeyExA"));
        EXPECT_TRUE(SyslogContains(r.log));
        EXPECT_TRUE(ZLREG_IS_STORE_FAILURE(r.status));
    }
    ASSERT_EQ(ZLRegSetDatabasePath(path_.c_str()), 0u);
    HANDLE h = nullptr;
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Fine", 0, 0, &h), 0u) << "written through the link";
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    for (const std::string& p : {junk, toDir, toFile}) EXPECT_EQ(unlink(p.c_str()), 0);
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
    EXPECT_EQ(Create(kMachine, "Software", &h), Z(ZLREG_E_STORE_UNSAFE));
    EXPECT_TRUE(cap.WasBuilt(Z(ZLREG_E_STORE_UNSAFE), "ZLRegCreateKeyExA"));
    EXPECT_TRUE(SyslogContains(link + ": refused: a symbolic link owned by another user"));
    struct stat st;
    EXPECT_NE(stat(path_.c_str(), &st), 0) << "the link's target was created";
    ASSERT_EQ(ZLRegSetDatabasePath(nullptr), 0u);
    EXPECT_EQ(unlink(link.c_str()), 0);
}

}  // namespace
