// The configuration store library on its own: hierarchy, names,
// enumeration, buffer rules, deletion, handles, transactions across
// processes, and the safety of the database file and its directories.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kspl_test.h"
#include "zlreg.h"

namespace {

const HANDLE kMachine = ZLREG_HKEY_LOCAL_MACHINE;
KSSTATUS Z(UINT32 code) { return ZLREG_STATUS(code); }

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
    static std::string Query(HANDLE h, const char* name) {
        char buf[512];
        UINT32 len = sizeof buf;
        KSSTATUS st = ZLRegQueryValueExA(h, name, nullptr, nullptr, buf, &len);
        return st != 0 ? "<" + std::to_string(KS_STATUS_CODE(st)) + ">" : std::string(buf, len);
    }

    std::string dir_;
    std::string path_;
};

TEST_F(ZlregTest, PathsNamesAndEnumeration) {
    HANDLE h = nullptr;
    UINT32 disp = 0;
    ASSERT_EQ(Create(kMachine, "Software\\Enum", &h), 0u);
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    ASSERT_EQ(Create(kMachine, "\\SOFTWARE\\\\enum\\", &h, &disp), 0u);
    EXPECT_EQ(disp, ZLREG_OPENED_EXISTING_KEY) << "folded case and extra separators";
    HANDLE sub = reinterpret_cast<HANDLE>(1);
    EXPECT_EQ(ZLRegOpenKeyExA(h, "Missing", 0, 0, &sub), Z(ZLREG_E_KEY_NOT_FOUND));
    EXPECT_EQ(sub, nullptr) << "out handle is cleared on failure";
    EXPECT_EQ(ZLRegOpenKeyExA(ZLREG_HKEY_CURRENT_USER, "Software", 0, 0, &sub), Z(ZLREG_E_KEY_NOT_FOUND));
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 0, 3, &sub), Z(ZLREG_E_INVALID_ARG));
    EXPECT_EQ(Create(h, std::string(256, 'k'), &sub), Z(ZLREG_E_INVALID_ARG));
    const std::string longName(ZLREG_MAX_VALUE_NAME + 1, 'v');
    EXPECT_EQ(ZLRegSetValueExA(h, longName.c_str(), 0, ZLREG_BINARY, "x", 1), Z(ZLREG_E_INVALID_ARG));
    // Stored as first written, enumerated in folded order: '_' (0x5F) sorts
    // before 'a' only once 'A' is folded. 255 bytes make a name.
    const std::string k255(255, 'k');
    for (const std::string& n : {std::string("b"), std::string("A"), k255, std::string("_x"),
                                 std::string("B2")}) {
        ASSERT_EQ(Create(h, n, &sub), 0u);
        ASSERT_EQ(ZLRegCloseKey(sub), 0u);
        ASSERT_EQ(ZLRegSetValueExA(h, n.c_str(), 0, ZLREG_BINARY, n.data(), 2), 0u);
    }
    const std::vector<std::string> order = {"_x", "A", "b", "B2", k255};
    char name[300];
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
        nlen = sizeof name;
        ASSERT_EQ(ZLRegEnumKeyExA(h, i, name, &nlen, nullptr, nullptr, nullptr, nullptr), 0u);
        EXPECT_EQ(std::string(name, static_cast<size_t>(nlen)), order[i]);
    }
    // Name room counts the terminator: "B2" needs 3; nothing is written
    // when it does not fit, and data too small reports both needs.
    std::memset(name, '#', sizeof name);
    INT32 nlen = 2;
    EXPECT_EQ(ZLRegEnumKeyExA(h, 3, name, &nlen, nullptr, nullptr, nullptr, nullptr), Z(ZLREG_E_BUFFER_SMALL));
    EXPECT_EQ(nlen, 3);
    UINT32 dlen = 1;
    nlen = 3;
    EXPECT_EQ(ZLRegEnumValueA(h, 3, name, &nlen, nullptr, nullptr, data, &dlen), Z(ZLREG_E_BUFFER_SMALL));
    EXPECT_EQ(dlen, 2u);
    EXPECT_EQ(name[0], '#');
    dlen = 0;
    EXPECT_EQ(ZLRegQueryValueExA(h, "b2", nullptr, nullptr, nullptr, &dlen), 0u) << "size query";
    EXPECT_EQ(dlen, 2u);
    for (const std::string& n : order) EXPECT_EQ(ZLRegDeleteKeyA(h, n.c_str()), 0u);
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

TEST_F(ZlregTest, DeletionAccessAndHandles) {
    HANDLE leaf = nullptr;
    HANDLE r = nullptr;
    ASSERT_EQ(Create(kMachine, "Software\\Del\\Leaf", &leaf), 0u);
    ASSERT_EQ(ZLRegSetValueExA(leaf, "v", 0, ZLREG_BINARY, "1", 1), 0u);
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Del", 0, ZLREG_ACCESS_READ, &r), 0u);
    EXPECT_EQ(ZLRegSetValueExA(r, "v", 0, ZLREG_BINARY, "1", 1), Z(ZLREG_E_ACCESS_DENIED));
    EXPECT_EQ(ZLRegDeleteKeyA(r, "Leaf"), Z(ZLREG_E_ACCESS_DENIED));
    EXPECT_EQ(ZLRegCloseKey(r), 0u);
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, "Software\\Del"), Z(ZLREG_E_HAS_SUBKEYS));
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, ""), Z(ZLREG_E_ACCESS_DENIED)) << "a root stays";
    EXPECT_EQ(ZLRegDeleteValueA(leaf, "w"), Z(ZLREG_E_VALUE_NOT_FOUND));
    ASSERT_EQ(ZLRegDeleteKeyA(kMachine, "software\\del\\LEAF"), 0u);
    // The handle outlives its key and says so; a new key at the same path
    // is not the old handle's key, and its values are new.
    HANDLE again = nullptr;
    ASSERT_EQ(Create(kMachine, "Software\\Del\\Leaf", &again), 0u);
    EXPECT_EQ(Query(leaf, "v"), "<11>");
    EXPECT_EQ(Create(leaf, "x", &r), Z(ZLREG_E_KEY_DELETED));
    EXPECT_EQ(Query(again, "v"), "<3>");
    EXPECT_EQ(ZLRegCloseKey(leaf), 0u);
    EXPECT_EQ(ZLRegDeleteKeyA(again, ""), 0u) << "empty path deletes the handle's own key";
    EXPECT_EQ(ZLRegCloseKey(again), 0u);
    // A closed handle is refused even when its slot went to a new handle.
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software", 0, 0, &r), 0u);
    StatusCapture cap;
    for (HANDLE bad : {leaf, static_cast<HANDLE>(nullptr), reinterpret_cast<HANDLE>(0x80000010u)}) {
        EXPECT_EQ(Query(bad, "v"), "<6>");
        EXPECT_EQ(ZLRegCloseKey(bad), Z(ZLREG_E_INVALID_HANDLE));
    }
    EXPECT_TRUE(cap.WasBuilt(Z(ZLREG_E_INVALID_HANDLE), "ZLRegCloseKey"));
    EXPECT_EQ(ZLRegCloseKey(r), 0u);
}

// Read-modify-write of one counter in write transactions from two processes
// at once: every increment survives.
TEST_F(ZlregTest, TransactionsLoseNothing) {
    HANDLE h = nullptr;
    ASSERT_EQ(Create(kMachine, "Software\\Txn", &h), 0u);  // used by the child too
    UINT32 count = 0;
    ASSERT_EQ(ZLRegSetValueExA(h, "counter", 0, ZLREG_UINT32, &count, 4), 0u);
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
    EXPECT_EQ(rounds(60), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    UINT32 len = 4;
    EXPECT_EQ(ZLRegQueryValueExA(h, "counter", nullptr, nullptr, &count, &len), 0u);
    EXPECT_EQ(count, 120u);
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

// A directory (directly or through one's own link), a file that is not a
// database, and a link owned by another user (which decides where the
// writes go; making one takes root) are refused with their own statuses,
// and the foreign link's target is not created. One's own link is followed.
TEST_F(ZlregTest, UnusableDatabasePathsAreRefused) {
    const std::string junk = dir_ + "/junk.db";
    const std::string toDir = dir_ + "/to-dir";
    const std::string toFile = dir_ + "/to-file";
    const std::string foreign = dir_ + "/foreign";
    FILE* f = std::fopen(junk.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    for (int i = 0; i < 512; ++i) std::fputs("this is not a database. ", f);
    std::fclose(f);
    ASSERT_EQ(symlink(dir_.c_str(), toDir.c_str()), 0);
    ASSERT_EQ(symlink(path_.c_str(), toFile.c_str()), 0);
    ASSERT_EQ(symlink((dir_ + "/target.db").c_str(), foreign.c_str()), 0);
    const bool root = geteuid() == 0 && lchown(foreign.c_str(), 65534, 65534) == 0;
    const std::pair<std::string, KSSTATUS> rows[] = {
        {dir_, Z(ZLREG_E_STORE_UNSAFE)},
        {toDir, Z(ZLREG_E_STORE_UNSAFE)},
        {junk, Z(ZLREG_E_STORE_CORRUPT)},
        {root ? foreign : dir_, Z(ZLREG_E_STORE_UNSAFE)},
        {toFile, 0},
    };
    for (const auto& [path, status] : rows) {
        SCOPED_TRACE(path);
        ASSERT_EQ(ZLRegSetDatabasePath(path.c_str()), 0u);
        StatusCapture cap;
        HANDLE h = reinterpret_cast<HANDLE>(1);
        EXPECT_EQ(Create(kMachine, "Software\\Fine", &h), status);
        if (status == 0) {
            EXPECT_EQ(ZLRegCloseKey(h), 0u);
            continue;
        }
        EXPECT_EQ(h, nullptr);
        EXPECT_TRUE(cap.WasBuilt(status, "ZLRegCreateKeyExA"));
        EXPECT_TRUE(ZLREG_IS_STORE_FAILURE(status));
    }
    EXPECT_NE(access((dir_ + "/target.db").c_str(), F_OK), 0) << "the foreign link's target was created";
    ASSERT_EQ(ZLRegSetDatabasePath(path_.c_str()), 0u);
    HANDLE h = nullptr;
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Fine", 0, 0, &h), 0u) << "written through the link";
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    for (const std::string& p : {junk, toDir, toFile, foreign}) EXPECT_EQ(unlink(p.c_str()), 0);
}

}  // namespace
