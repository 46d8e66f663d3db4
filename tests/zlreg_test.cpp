// The configuration store library on its own: paths, names, enumeration,
// buffer rules, deleted keys and stale handles, and the safety of the
// database file and its directories.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <cstring>

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
        EXPECT_EQ(std::system(("rm -r '" + dir_ + "'").c_str()), 0);
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

// Paths fold case and skip extra separators; names are kept as first
// written and enumerated in folded order ('_' (0x5F) sorts before 'a' only
// once 'A' is folded); name room counts the terminator, and nothing is
// written when it does not fit; the end of an enumeration is not logged.
TEST_F(ZlregTest, PathsNamesAndEnumeration) {
    HANDLE h = nullptr;
    HANDLE sub = nullptr;
    UINT32 disp = 0;
    ASSERT_EQ(Create(kMachine, "Software\\Enum", &h), 0u);
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
    ASSERT_EQ(Create(kMachine, "\\SOFTWARE\\\\enum\\", &h, &disp), 0u);
    EXPECT_EQ(disp, ZLREG_OPENED_EXISTING_KEY);
    EXPECT_EQ(Create(h, std::string(256, 'k'), &sub), Z(ZLREG_E_INVALID_ARG));
    const std::vector<std::string> order = {"_x", "A", "b", "B2", std::string(255, 'k')};
    for (size_t i = order.size(); i-- > 0;) {
        ASSERT_EQ(Create(h, order[i], &sub), 0u);
        ASSERT_EQ(ZLRegCloseKey(sub), 0u);
    }
    char name[300];
    StatusCapture cap;
    for (UINT32 i = 0; i <= order.size(); ++i) {
        INT32 len = sizeof name;
        KSSTATUS st = ZLRegEnumKeyExA(h, i, name, &len, nullptr, nullptr, nullptr, nullptr);
        EXPECT_EQ(st != 0 ? "" : std::string(name, static_cast<size_t>(len)),
                  i < order.size() ? order[i] : "");
    }
    EXPECT_TRUE(cap.Built().empty());
    std::memset(name, '#', sizeof name);
    INT32 len = 2;
    EXPECT_EQ(ZLRegEnumKeyExA(h, 3, name, &len, nullptr, nullptr, nullptr, nullptr),
              Z(ZLREG_E_BUFFER_SMALL));
    EXPECT_EQ(len, 3);
    EXPECT_EQ(name[0], '#');
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

// A root cannot be deleted; a closed handle is refused even when its slot
// went to a new handle (the deleted-key answers are checked through IKspl).
TEST_F(ZlregTest, DeletionAndHandles) {
    HANDLE leaf = nullptr;
    HANDLE again = nullptr;
    ASSERT_EQ(Create(kMachine, "Software\\Del", &leaf), 0u);
    EXPECT_EQ(ZLRegDeleteKeyA(kMachine, ""), Z(ZLREG_E_ACCESS_DENIED));
    EXPECT_EQ(ZLRegCloseKey(leaf), 0u);
    ASSERT_EQ(Create(kMachine, "Software\\Del", &again), 0u);
    StatusCapture cap;
    for (HANDLE bad : {leaf, static_cast<HANDLE>(nullptr), reinterpret_cast<HANDLE>(0x80000010u)}) {
        EXPECT_EQ(Query(bad, "v"), "<6>");
        EXPECT_EQ(ZLRegCloseKey(bad), Z(ZLREG_E_INVALID_HANDLE));
    }
    EXPECT_EQ(ZLRegDeleteKeyA(again, ""), 0u) << "empty path deletes the handle's own key";
    EXPECT_TRUE(cap.WasBuilt(Z(ZLREG_E_INVALID_HANDLE), "ZLRegCloseKey"));
    EXPECT_EQ(ZLRegCloseKey(again), 0u);
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
    umask(old);
    EXPECT_EQ(ModeOf(a), 0700u);
    EXPECT_EQ(ModeOf(a + "/b"), 0700u);
    for (const char* suffix : {"", "-wal", "-shm"}) EXPECT_EQ(ModeOf(db + suffix), 0600u) << suffix;
    EXPECT_EQ(ZLRegCloseKey(h), 0u);
}

// A directory (directly or through one's own link), a file that is not a
// database, and a link owned by another user (which decides where the
// writes go; making one takes root) are refused with their own statuses,
// and the foreign link's target is not created.
TEST_F(ZlregTest, UnusableDatabasePathsAreRefused) {
    const std::string junk = dir_ + "/junk.db";
    const std::string toDir = dir_ + "/to-dir";
    const std::string foreign = dir_ + "/foreign";
    std::ofstream(junk) << std::string(12288, 'j');
    ASSERT_EQ(symlink(dir_.c_str(), toDir.c_str()), 0);
    ASSERT_EQ(symlink((dir_ + "/target.db").c_str(), foreign.c_str()), 0);
    const bool root = geteuid() == 0 && lchown(foreign.c_str(), 65534, 65534) == 0;
    const std::pair<std::string, KSSTATUS> rows[] = {  // path, status
        {dir_, Z(ZLREG_E_STORE_UNSAFE)},
        {toDir, Z(ZLREG_E_STORE_UNSAFE)},
        {junk, Z(ZLREG_E_STORE_CORRUPT)},
        {root ? foreign : dir_, Z(ZLREG_E_STORE_UNSAFE)},
    };
    for (const auto& [path, status] : rows) {
        SCOPED_TRACE(path);
        ASSERT_EQ(ZLRegSetDatabasePath(path.c_str()), 0u);
        StatusCapture cap;
        HANDLE h = reinterpret_cast<HANDLE>(1);
        EXPECT_EQ(Create(kMachine, "Software\\Fine", &h), status);
        EXPECT_EQ(h, nullptr);
        EXPECT_TRUE(cap.WasBuilt(status, "ZLRegCreateKeyExA"));
    }
    EXPECT_NE(access((dir_ + "/target.db").c_str(), F_OK), 0) << "the foreign link's target exists";
}

}  // namespace

namespace {

// Big-endian 32-bit field of the database header: user_version at 60,
// application_id at 68.
uint32_t HeaderField(const std::string& db, long offset) {
    std::ifstream f(db, std::ios::binary);
    unsigned char b[4] = {};
    f.seekg(offset);
    f.read(reinterpret_cast<char*>(b), 4);
    return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
}
void SetHeaderField(const std::string& db, long offset, uint32_t v) {
    std::fstream f(db, std::ios::binary | std::ios::in | std::ios::out);
    const char b[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    f.seekp(offset);
    f.write(b, 4);
}

// The store marks its databases and refuses files it did not make: another
// application's database (marked or not) is left untouched, a newer schema
// has its own status, and an unmarked store of the first version is adopted.
TEST_F(ZlregTest, DatabaseMarksDecideOwnership) {
    const std::string db = dir_ + "/marked.db";
    const uint32_t kOurs = 0x5A4C5247;
    HANDLE h = nullptr;
    auto makeStore = [&] {
        ASSERT_EQ(ZLRegSetDatabasePath(db.c_str()), 0u);
        ASSERT_EQ(Create(kMachine, "Software\\Marked", &h), 0u);
        ASSERT_EQ(ZLRegSetValueExA(h, "v", 0, ZLREG_BINARY, "x", 1), 0u);
        EXPECT_EQ(ZLRegCloseKey(h), 0u);
        ASSERT_EQ(ZLRegSetDatabasePath(path_.c_str()), 0u);  // last connection closed: no WAL left
        EXPECT_EQ(HeaderField(db, 68), kOurs);
        EXPECT_EQ(HeaderField(db, 60), 1u);
    };
    const struct {
        uint32_t appId, version;
        KSSTATUS status;
    } rows[] = {
        {0x12345678, 1, Z(ZLREG_E_STORE_CORRUPT)},
        {0, 0, Z(ZLREG_E_STORE_CORRUPT)},  // unmarked, with tables: not ours
        {0, 7, Z(ZLREG_E_STORE_CORRUPT)},
        {kOurs, 2, Z(ZLREG_E_STORE_VERSION)},
        {0, 1, 0},  // the first version's unmarked store: adopted
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.appId);
        SCOPED_TRACE(row.version);
        std::remove(db.c_str());
        makeStore();
        SetHeaderField(db, 68, row.appId);
        SetHeaderField(db, 60, row.version);
        ASSERT_EQ(ZLRegSetDatabasePath(db.c_str()), 0u);
        StatusCapture cap;
        EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Marked", 0, ZLREG_ACCESS_READ, &h), row.status);
        if (row.status == 0) {
            EXPECT_EQ(Query(h, "v"), "x");
            EXPECT_EQ(ZLRegCloseKey(h), 0u);
        } else {
            EXPECT_TRUE(cap.WasBuilt(row.status, "ZLRegOpenKeyExA"));
        }
        ASSERT_EQ(ZLRegSetDatabasePath(path_.c_str()), 0u);
        EXPECT_EQ(HeaderField(db, 68), row.status == 0 ? kOurs : row.appId) << "marks changed";
        EXPECT_EQ(HeaderField(db, 60), row.version);
    }
}

}  // namespace
