// store.cpp - the database behind the store: where the file is, one
// connection per thread, the schema, statements, transactions, and how
// SQLite failures become statuses.
//
// g_configMutex guards g_path and g_pathResolved; it is taken before
// g_handleMutex (fork preparation) and never while SQLite runs.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zlreg_internal.h"

namespace zlreg {
namespace {

constexpr char kUnit[] = "store";
constexpr int kBusyTimeoutMs = 60000;
// The marks in the database header: application_id says the file is a
// store ("ZLRG"), user_version which schema it has.
constexpr int kSchemaVersion = 1;
constexpr int kApplicationId = 0x5A4C5247;

pthread_mutex_t g_configMutex = PTHREAD_MUTEX_INITIALIZER;
// Serialises the check and creation of the database file among the
// process's threads (see PrepareFile). Taken alone, never with another lock.
pthread_mutex_t g_createMutex = PTHREAD_MUTEX_INITIALIZER;
std::string g_path;         // guarded by g_configMutex
bool g_pathResolved = false;  // guarded by g_configMutex
// Bumped on every path change; a connection opened under another
// generation is closed and reopened.
std::atomic<uint64_t> g_pathGen{1};
// Bumped in every forked child; a connection opened before the fork is
// abandoned there, never closed.
std::atomic<uint64_t> g_forks{0};

// Connections of the parent found in a child after fork(). They are never
// closed there (closing would touch the parent's locks and descriptors);
// they are kept reachable here and left to the process's exit.
struct Abandoned {
    sqlite3* db;
    Abandoned* next;
};
std::atomic<Abandoned*> g_abandoned{nullptr};

pthread_once_t g_forkOnce = PTHREAD_ONCE_INIT;

// Holds a mutex for a scope. The fork handlers are the one place that locks
// by hand: they lock in one handler and unlock in another.
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t& m) : m_(m) { pthread_mutex_lock(&m_); }
    ~MutexGuard() { pthread_mutex_unlock(&m_); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    pthread_mutex_t& m_;
};

void PrepareFork() {
    pthread_mutex_lock(&g_configMutex);
    LockHandlesForFork();
}
void ParentAfterFork() {
    UnlockHandlesAfterFork();
    pthread_mutex_unlock(&g_configMutex);
}
void ChildAfterFork() {
    UnlockHandlesAfterFork();
    pthread_mutex_unlock(&g_configMutex);
    g_forks.fetch_add(1);
}
void InstallForkHandlers() { pthread_atfork(PrepareFork, ParentAfterFork, ChildAfterFork); }

const char* const kSql[] = {
    /* kFindChild */ "SELECT id FROM keys WHERE parent=?1 AND folded=?2",
    /* kKeyExists */ "SELECT 1 FROM keys WHERE id=?1",
    /* kInsertKey */ "INSERT INTO keys(parent,name,folded,mtime) VALUES(?1,?2,?3,?4)",
    /* kTouchKey */ "UPDATE keys SET mtime=?2 WHERE id=?1",
    /* kHasChild */ "SELECT 1 FROM keys WHERE parent=?1 AND id<>?1 LIMIT 1",
    /* kParentOf */ "SELECT parent FROM keys WHERE id=?1",
    /* kDeleteKey */ "DELETE FROM keys WHERE id=?1",
    /* kEnumKey */
    "SELECT name,mtime,folded FROM keys WHERE parent=?1 AND id<>?1 ORDER BY folded LIMIT 1 OFFSET ?2",
    /* kQueryValue */ "SELECT type,data FROM vals WHERE key=?1 AND folded=?2",
    /* kSetValue */
    ("INSERT INTO vals(key,name,folded,type,data) VALUES(?1,?2,?3,?4,?5) "
     "ON CONFLICT(key,folded) DO UPDATE SET type=excluded.type,data=excluded.data"),
    /* kDeleteValue */ "DELETE FROM vals WHERE key=?1 AND folded=?2",
    /* kEnumValue */
    "SELECT name,type,data,folded FROM vals WHERE key=?1 ORDER BY folded LIMIT 1 OFFSET ?2",
    /* kBeginWrite */ "BEGIN IMMEDIATE",
    /* kBeginRead */ "BEGIN",
    /* kCommit */ "COMMIT",
    /* kRollback */ "ROLLBACK",
    /* kSavepoint */ "SAVEPOINT zlreg_op",
    /* kRelease */ "RELEASE zlreg_op",
    /* kRollbackTo */ "ROLLBACK TO zlreg_op",
    /* kEnumKeyAfter */
    ("SELECT name,mtime,folded FROM keys WHERE parent=?1 AND id<>?1 AND folded>?2 "
     "ORDER BY folded LIMIT 1"),
    /* kEnumValueAfter */
    "SELECT name,type,data,folded FROM vals WHERE key=?1 AND folded>?2 ORDER BY folded LIMIT 1",
};
static_assert(sizeof kSql / sizeof kSql[0] == kStmtCount, "one statement per Stmt");

// The root row is its own parent, so no parent is ever NULL under the
// UNIQUE index; the predefined roots are its children. AUTOINCREMENT keeps
// the id of a deleted key from being given to a new one, which is what lets
// a handle notice that its key is gone.
const char kSchema[] =
    "CREATE TABLE keys("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " parent INTEGER NOT NULL REFERENCES keys(id),"
    " name BLOB NOT NULL,"
    " folded BLOB NOT NULL,"
    " mtime INTEGER NOT NULL);"
    "CREATE UNIQUE INDEX keys_by_parent ON keys(parent,folded);"
    "CREATE TABLE vals("
    " key INTEGER NOT NULL REFERENCES keys(id) ON DELETE CASCADE,"
    " name BLOB NOT NULL,"
    " folded BLOB NOT NULL,"
    " type INTEGER NOT NULL CHECK(type BETWEEN 0 AND 4),"
    " data BLOB NOT NULL,"
    " PRIMARY KEY(key,folded)) WITHOUT ROWID;"
    "INSERT INTO keys(id,parent,name,folded,mtime) VALUES(1,1,x'',x'',0);"
    "INSERT INTO keys(id,parent,name,folded,mtime) VALUES"
    " (2,1,CAST('HKEY_CLASSES_ROOT' AS BLOB),CAST('hkey_classes_root' AS BLOB),0),"
    " (3,1,CAST('HKEY_CURRENT_USER' AS BLOB),CAST('hkey_current_user' AS BLOB),0),"
    " (4,1,CAST('HKEY_LOCAL_MACHINE' AS BLOB),CAST('hkey_local_machine' AS BLOB),0),"
    " (5,1,CAST('HKEY_USERS' AS BLOB),CAST('hkey_users' AS BLOB),0);";

bool DirWritable(const char* dir) { return access(dir, W_OK | X_OK) == 0; }

// mkdir -p of the directories above `file`; the ones made here get 0700
// (the umask can only take bits away).
bool MakeParents(const std::string& file) {
    std::string::size_type pos = 0;
    while ((pos = file.find('/', pos + 1)) != std::string::npos) {
        std::string dir = file.substr(0, pos);
        if (dir.empty()) continue;
        if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return false;
    }
    return true;
}

std::string DefaultPath() {
    const char* env = std::getenv("ZLREG_DATABASE");
    if (env != nullptr && env[0] != '\0') return env;
    if (DirWritable("/var/lib/zlreg") || (access("/var/lib/zlreg", F_OK) != 0 && DirWritable("/var/lib")))
        return "/var/lib/zlreg/zlreg.db";
    const char* xdg = std::getenv("XDG_DATA_HOME");
    if (xdg != nullptr && xdg[0] == '/') return std::string(xdg) + "/zlreg/zlreg.db";
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] == '\0') home = "/tmp";
    return std::string(home) + "/.local/share/zlreg/zlreg.db";
}

std::string CurrentPath(uint64_t* pathGen) {
    MutexGuard guard(g_configMutex);
    if (!g_pathResolved) {
        g_path = DefaultPath();
        g_pathResolved = true;
    }
    *pathGen = g_pathGen.load();
    return g_path;
}

void LogStoreProblem(const std::string& path, const char* what, const char* detail) {
    syslog(LOG_USER | LOG_ERR, "zlreg: database %s: %s (%s)", path.c_str(), what, detail);
}

void FinalizeAll(Conn& c) {
    for (auto& s : c.stmts) {
        if (s != nullptr) sqlite3_finalize(s);
        s = nullptr;
    }
}

void CloseConn(Conn& c) {
    if (c.db == nullptr) return;
    FinalizeAll(c);
    sqlite3_close_v2(c.db);
    c.db = nullptr;
    c.userTxn = Txn::kNone;
}

void AbandonConn(Conn& c) {
    // Statements are left alone too: finalizing may write to the database.
    auto* a = new Abandoned{c.db, g_abandoned.load()};
    while (!g_abandoned.compare_exchange_weak(a->next, a)) {
    }
    for (auto& s : c.stmts) s = nullptr;
    c.db = nullptr;
    c.userTxn = Txn::kNone;
}

Err Exec(Conn& c, const char* sql) {
    int rc = sqlite3_exec(c.db, sql, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) return ZLREG_SQLERR(c, rc);
    return {};
}

Err ReadInt(Conn& c, const char* sql, int* out) {
    sqlite3_stmt* s = nullptr;
    int rc = sqlite3_prepare_v2(c.db, sql, -1, &s, nullptr);
    if (rc != SQLITE_OK) return ZLREG_SQLERR(c, rc);
    rc = sqlite3_step(s);
    if (rc == SQLITE_ROW) {
        *out = sqlite3_column_int(s, 0);
        sqlite3_finalize(s);
        return {};
    }
    sqlite3_finalize(s);
    return ZLREG_SQLERR(c, rc == SQLITE_DONE ? SQLITE_CORRUPT : rc);
}

// What a database file is to this store, from its header marks and tables.
enum class Owner {
    kOurs,    // marked as ours, current schema
    kEmpty,   // no tables and no marks: the schema may be created
    kLegacy,  // our tables from before the marks existed: adopted
};

// Decides whether the store may use the database; a file that belongs to
// someone else is refused and never changed. A database written by a newer
// library is refused with its own status, so that an old tool does not
// damage it.
Err ExamineDatabase(Conn& c, Owner* owner) {
    int appId = 0;
    int version = 0;
    int objects = 0;
    if (Err e = ReadInt(c, "PRAGMA application_id", &appId)) return e;
    if (Err e = ReadInt(c, "PRAGMA user_version", &version)) return e;
    if (Err e = ReadInt(c, "SELECT count(*) FROM sqlite_master", &objects)) return e;
    if (appId == kApplicationId) {
        if (version == kSchemaVersion) return (*owner = Owner::kOurs), Err{};
        if (version > kSchemaVersion) {
            LogStoreProblem(c.path, "refused: written by a newer version of the store",
                            ("schema version " + std::to_string(version)).c_str());
            return ZLREG_ERR(ZLREG_E_STORE_VERSION);
        }
        if (version == 0 && objects == 0) return (*owner = Owner::kEmpty), Err{};
    } else if (appId == 0 && version == 0 && objects == 0) {
        return (*owner = Owner::kEmpty), Err{};
    } else if (appId == 0 && version == kSchemaVersion) {
        // Exactly the unmarked schema of the first version: keys, vals,
        // their index and SQLite's AUTOINCREMENT bookkeeping.
        int ours = 0;
        if (Err e = ReadInt(c,
                            "SELECT count(*) FROM sqlite_master WHERE name IN "
                            "('keys','vals','keys_by_parent','sqlite_sequence')",
                            &ours))
            return e;
        if (ours == 4 && objects == 4) return (*owner = Owner::kLegacy), Err{};
    }
    char detail[64];
    std::snprintf(detail, sizeof detail, "application_id %d, user_version %d, %d objects", appId,
                  version, objects);
    LogStoreProblem(c.path, "refused: not empty and not a database of this store", detail);
    return ZLREG_ERR(ZLREG_E_STORE_CORRUPT);
}

const char kMarks[] = "PRAGMA application_id=1514951239; PRAGMA user_version=1";
static_assert(kApplicationId == 1514951239 && kSchemaVersion == 1, "kMarks spells both marks");

// Creates the schema in an empty database, or marks a legacy one. The file
// is examined again under the write lock: another process may have done it
// meanwhile.
Err Initialise(Conn& c, Owner seen) {
    if (seen == Owner::kEmpty) {
        // WAL is a property of the file: set once, before the first table.
        sqlite3_stmt* s = nullptr;
        int rc = sqlite3_prepare_v2(c.db, "PRAGMA journal_mode=WAL", -1, &s, nullptr);
        if (rc != SQLITE_OK) return ZLREG_SQLERR(c, rc);
        rc = sqlite3_step(s);
        bool wal = rc == SQLITE_ROW && sqlite3_stricmp(reinterpret_cast<const char*>(
                                                           sqlite3_column_text(s, 0)),
                                                       "wal") == 0;
        sqlite3_finalize(s);
        if (rc != SQLITE_ROW) return ZLREG_SQLERR(c, rc);
        if (!wal) {
            LogStoreProblem(c.path, "cannot switch to WAL mode", sqlite3_errmsg(c.db));
            return ZLREG_ERR(ZLREG_E_STORE);
        }
    }
    if (Err e = Exec(c, "BEGIN IMMEDIATE")) return e;
    Owner now = Owner::kOurs;
    Err e = ExamineDatabase(c, &now);
    if (!e && now == Owner::kEmpty) e = Exec(c, kSchema);
    if (!e && now != Owner::kOurs) e = Exec(c, kMarks);
    if (e) {
        sqlite3_exec(c.db, "ROLLBACK", nullptr, nullptr, nullptr);
        return e;
    }
    return Exec(c, "COMMIT");
}

// Makes sure the database path is one the store may use, creating the file
// if it is missing. A missing file is created here, mode 0600 whatever the
// umask, so that SQLite never makes it with its own default mode and its
// -wal and -shm files (which take the database file's mode) are private too.
// O_EXCL | O_NOFOLLOW: a link planted at the path meanwhile is not followed.
// Refused: a directory, and a symbolic link owned by another user (someone
// else decides where the writes go).
//
// The descriptor used for creating is closed again at once; closing drops
// every POSIX lock the process holds on the file, which is harmless only
// because the file is new: g_createMutex keeps the process's other threads
// from looking at the path, and so from opening the file, until it is closed.
Err PrepareFile(const std::string& path) {
    MutexGuard guard(g_createMutex);
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        if (errno != ENOENT) {
            LogStoreProblem(path, "cannot be examined", std::strerror(errno));
            return ZLREG_ERR(ZLREG_E_STORE_PERMISSION);
        }
        if (!MakeParents(path)) {
            LogStoreProblem(path, "cannot create its directory", std::strerror(errno));
            return ZLREG_ERR(ZLREG_E_STORE_PERMISSION);
        }
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) {
            fchmod(fd, 0600);
            close(fd);
        } else if (errno != EEXIST) {
            LogStoreProblem(path, "cannot be created", std::strerror(errno));
            return ZLREG_ERR(ZLREG_E_STORE_PERMISSION);
        }
        if (lstat(path.c_str(), &st) != 0) {
            LogStoreProblem(path, "cannot be examined", std::strerror(errno));
            return ZLREG_ERR(ZLREG_E_STORE_PERMISSION);
        }
    }
    if (S_ISLNK(st.st_mode) && st.st_uid != geteuid()) {
        char detail[64];
        std::snprintf(detail, sizeof detail, "link owner uid %u", static_cast<unsigned>(st.st_uid));
        LogStoreProblem(path, "refused: a symbolic link owned by another user", detail);
        return ZLREG_ERR(ZLREG_E_STORE_UNSAFE);
    }
    struct stat target;
    if (S_ISDIR(st.st_mode) || (S_ISLNK(st.st_mode) && stat(path.c_str(), &target) == 0 &&
                                S_ISDIR(target.st_mode))) {
        LogStoreProblem(path, "refused: a directory", "not a database file");
        return ZLREG_ERR(ZLREG_E_STORE_UNSAFE);
    }
    if (S_ISREG(st.st_mode) && (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        syslog(LOG_USER | LOG_WARNING, "zlreg: database %s: other users may write it (mode %03o)",
               path.c_str(), static_cast<unsigned>(st.st_mode & 0777));
    }
    return {};
}

Err OpenConn(Conn& c) {
    uint64_t pathGen = 0;
    c.path = CurrentPath(&pathGen);
    if (Err e = PrepareFile(c.path)) return e;
    int rc = sqlite3_open_v2(c.path.c_str(), &c.db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                             nullptr);
    if (rc != SQLITE_OK) {
        Err e = c.db != nullptr ? ZLREG_SQLERR(c, rc) : ZLREG_ERR(ZLREG_E_NO_MEMORY);
        sqlite3_close_v2(c.db);
        c.db = nullptr;
        return e;
    }
    sqlite3_extended_result_codes(c.db, 1);
    sqlite3_busy_timeout(c.db, kBusyTimeoutMs);
    Err e = Exec(c, "PRAGMA foreign_keys=ON; PRAGMA synchronous=FULL");
    Owner owner = Owner::kOurs;
    if (!e) e = ExamineDatabase(c, &owner);
    if (!e && owner != Owner::kOurs) e = Initialise(c, owner);
    if (e) {
        CloseConn(c);
        return e;
    }
    c.pathGen = pathGen;
    // Data versions of another connection mean nothing on this one.
    for (EnumCursor& cursor : c.keyCursors) cursor = EnumCursor{};
    for (EnumCursor& cursor : c.valueCursors) cursor = EnumCursor{};
    c.forks = g_forks.load();
    return {};
}

// Closes or abandons a connection that is no longer wanted.
void DropConn(Conn& c) {
    if (c.db == nullptr) return;
    if (c.forks != g_forks.load())
        AbandonConn(c);
    else
        CloseConn(c);
}

// The calling thread's connection; dropped when the thread ends.
struct ConnHolder {
    Conn conn;
    ~ConnHolder() { DropConn(conn); }
};
thread_local ConnHolder t_conn;

}  // namespace

void EnsureForkHandlers() { pthread_once(&g_forkOnce, InstallForkHandlers); }

KSSTATUS Build(Err e, const char* function) {
    if (!e) return 0;
    if (e.code == ZLREG_E_NO_MORE_ITEMS) return ZLREG_STATUS_NO_MORE_ITEMS;
    return KsStatusBuild_log(3, static_cast<int>(ZLREG_FACILITY), static_cast<int>(e.code),
                             const_cast<char*>(e.unit != nullptr ? e.unit : "zlreg"), e.line,
                             const_cast<char*>(function));
}

Err SqlErr(Conn& c, int rc, int line, const char* unit) {
    const char* msg = c.db != nullptr ? sqlite3_errmsg(c.db) : sqlite3_errstr(rc);
    switch (rc & 0xFF) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            syslog(LOG_USER | LOG_WARNING, "zlreg: database %s busy: %s", c.path.c_str(), msg);
            return Err{ZLREG_E_STORE_BUSY, line, unit};
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            LogStoreProblem(c.path, "damaged or not a database of this store", msg);
            return Err{ZLREG_E_STORE_CORRUPT, line, unit};
        case SQLITE_CANTOPEN:
        case SQLITE_PERM:
        case SQLITE_READONLY:
        case SQLITE_AUTH:
            LogStoreProblem(c.path, "cannot be opened or written", msg);
            return Err{ZLREG_E_STORE_PERMISSION, line, unit};
        case SQLITE_NOMEM:
            return Err{ZLREG_E_NO_MEMORY, line, unit};
        default:
            LogStoreProblem(c.path, "operation failed", msg);
            return Err{ZLREG_E_STORE, line, unit};
    }
}

Err GetConn(Conn** out) {
    EnsureForkHandlers();
    Conn& c = t_conn.conn;
    if (c.db != nullptr && (c.pathGen != g_pathGen.load() || c.forks != g_forks.load()))
        DropConn(c);
    if (c.db == nullptr) {
        if (Err e = OpenConn(c)) return e;
    }
    *out = &c;
    return {};
}

void CloseThreadConn() { DropConn(t_conn.conn); }

Err GetStmt(Conn& c, Stmt id, sqlite3_stmt** out) {
    if (c.stmts[id] == nullptr) {
        int rc = sqlite3_prepare_v3(c.db, kSql[id], -1, SQLITE_PREPARE_PERSISTENT, &c.stmts[id],
                                    nullptr);
        if (rc != SQLITE_OK) {
            // A prepare fails on a file whose tables are not this store's.
            if ((rc & 0xFF) == SQLITE_ERROR) {
                LogStoreProblem(c.path, "unexpected schema", sqlite3_errmsg(c.db));
                return ZLREG_ERR(ZLREG_E_STORE_CORRUPT);
            }
            return ZLREG_SQLERR(c, rc);
        }
    }
    *out = c.stmts[id];
    return {};
}

Err StepDone(Conn& c, Stmt id) {
    sqlite3_stmt* s = nullptr;
    if (Err e = GetStmt(c, id, &s)) return e;
    StmtScope scope(s);
    int rc = sqlite3_step(s);
    while (rc == SQLITE_ROW) rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) return ZLREG_SQLERR(c, rc);
    return {};
}

Err WriteTxn::Begin(Conn& c) {
    if (c.userTxn == Txn::kRead) return ZLREG_ERR(ZLREG_E_ACCESS_DENIED);
    nested_ = c.userTxn == Txn::kWrite;
    if (Err e = StepDone(c, nested_ ? kSavepoint : kBeginWrite)) return e;
    c_ = &c;
    return {};
}

Err WriteTxn::Commit() {
    Conn* c = c_;
    Err e = StepDone(*c, nested_ ? kRelease : kCommit);
    if (!e) c_ = nullptr;
    return e;
}

WriteTxn::~WriteTxn() {
    if (c_ == nullptr) return;
    if (nested_) {
        StepDone(*c_, kRollbackTo);
        StepDone(*c_, kRelease);
    } else if (!sqlite3_get_autocommit(c_->db)) {
        StepDone(*c_, kRollback);
    }
}

int64_t NowFiletime() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 10000000 + ts.tv_nsec / 100 + 116444736000000000LL;
}

std::string Fold(const char* p, size_t n) {
    std::string s(p, n);
    for (char& ch : s)
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch - 'A' + 'a');
    return s;
}

Err KeyExists(Conn& c, int64_t id, bool* exists) {
    sqlite3_stmt* s = nullptr;
    if (Err e = GetStmt(c, kKeyExists, &s)) return e;
    StmtScope scope(s);
    sqlite3_bind_int64(s, 1, id);
    int rc = sqlite3_step(s);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) return ZLREG_SQLERR(c, rc);
    *exists = rc == SQLITE_ROW;
    return {};
}

Err MissingOr(Conn& c, int64_t key, UINT32 code, int line, const char* unit) {
    bool exists = false;
    if (Err e = KeyExists(c, key, &exists)) return e;
    return Err{exists ? code : ZLREG_E_KEY_DELETED, line, unit};
}

Err EnterKey(HANDLE h, bool forWrite, KeyRef* key, Conn** c) {
    if (Err e = HandleLookup(h, key)) return e;
    if (forWrite && !key->writable) return ZLREG_ERR(ZLREG_E_ACCESS_DENIED);
    return GetConn(c);
}

}  // namespace zlreg

using namespace zlreg;

extern "C" {

KSSTATUS ZLRegBeginTransaction(BOOLEAN bWrite) {
    Conn* c = nullptr;
    if (Err e = GetConn(&c)) ZLREG_RETURN(e);
    if (c->userTxn != Txn::kNone) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_TRANSACTION));
    if (Err e = StepDone(*c, bWrite ? kBeginWrite : kBeginRead)) ZLREG_RETURN(e);
    c->userTxn = bWrite ? Txn::kWrite : Txn::kRead;
    return 0;
}

KSSTATUS ZLRegCommitTransaction(void) {
    Conn* c = nullptr;
    if (Err e = GetConn(&c)) ZLREG_RETURN(e);
    if (c->userTxn == Txn::kNone) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_TRANSACTION));
    Err e = StepDone(*c, kCommit);
    if (e) {
        // A failed commit leaves the transaction open; give it up so the
        // thread is not stuck inside it.
        if (!sqlite3_get_autocommit(c->db)) StepDone(*c, kRollback);
    }
    c->userTxn = Txn::kNone;
    ZLREG_RETURN(e);
}

KSSTATUS ZLRegRollbackTransaction(void) {
    Conn* c = nullptr;
    if (Err e = GetConn(&c)) ZLREG_RETURN(e);
    if (c->userTxn == Txn::kNone) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_TRANSACTION));
    c->userTxn = Txn::kNone;
    if (sqlite3_get_autocommit(c->db)) return 0;
    ZLREG_RETURN(StepDone(*c, kRollback));
}

KSSTATUS ZLRegSetDatabasePath(const char* pPath) {
    EnsureForkHandlers();
    {
        MutexGuard guard(g_configMutex);
        if (pPath != nullptr) {
            g_path = pPath;
            g_pathResolved = true;
        } else {
            g_pathResolved = false;
            g_path.clear();
        }
        g_pathGen.fetch_add(1);
    }
    HandleInvalidateAll();
    CloseThreadConn();
    return 0;
}

KSSTATUS ZLRegGetChangeCounter(UINT64* pCounter) {
    if (pCounter == nullptr) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_INVALID_ARG));
    Conn* c = nullptr;
    if (Err e = GetConn(&c)) ZLREG_RETURN(e);
    // SQLite's data_version: per connection, it moves when another
    // connection commits. Not a prepared statement of the table: it is
    // polled rarely and must see the current state, never a cached one.
    int version = 0;
    if (Err e = ReadInt(*c, "PRAGMA data_version", &version)) ZLREG_RETURN(e);
    *pCounter = static_cast<UINT32>(version);
    return 0;
}

KSSTATUS ZLRegGetDatabasePath(char* pPath, UINT32 cbPath, UINT32* pcbNeeded) {
    uint64_t pathGen = 0;
    std::string path = CurrentPath(&pathGen);
    UINT32 need = static_cast<UINT32>(path.size() + 1);
    if (pcbNeeded != nullptr) *pcbNeeded = need;
    if (pPath == nullptr) {
        if (pcbNeeded == nullptr) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_INVALID_ARG));
        return 0;
    }
    if (cbPath < need) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_BUFFER_SMALL));
    std::memcpy(pPath, path.c_str(), need);
    return 0;
}

}  // extern "C"
