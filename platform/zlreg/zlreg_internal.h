// zlreg_internal.h - what the store's sources share: internal failures,
// the per-thread database connection, statements, transactions and the
// handle table.
//
// Lock order: g_configMutex (store.cpp) before g_handleMutex (handles.cpp).
// Neither is held while SQLite runs. Each thread has its own connection, so
// no lock guards a connection.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>

#include "orlm.h"
#include "zlreg.h"

namespace zlreg {

// A failure found inside the store, turned into a KSSTATUS (and logged) by
// the public operation that reports it. code 0 is success.
struct Err {
    UINT32 code = 0;
    int line = 0;
    const char* unit = nullptr;
    explicit operator bool() const { return code != 0; }
};
#define ZLREG_ERR(c) (::zlreg::Err{(c), __LINE__, kUnit})

// Builds the status of `e` for the public operation `function`. The end of
// an enumeration is a constant and is not logged.
KSSTATUS Build(Err e, const char* function);
#define ZLREG_RETURN(expr) return ::zlreg::Build((expr), __func__)

// Prepared statements of a connection, prepared on first use.
enum Stmt : int {
    kFindChild,
    kKeyExists,
    kInsertKey,
    kTouchKey,
    kHasChild,
    kParentOf,
    kDeleteKey,
    kEnumKey,
    kQueryValue,
    kSetValue,
    kDeleteValue,
    kEnumValue,
    kBeginWrite,
    kBeginRead,
    kCommit,
    kRollback,
    kSavepoint,
    kRelease,
    kRollbackTo,
    kEnumKeyAfter,
    kEnumValueAfter,
    kStmtCount
};

enum class Txn { kNone, kRead, kWrite };

// Where a thread's last enumeration step below a key stopped: the index it
// served and that row's sort key. The next index continues from there with
// a range query instead of counting rows again, as long as the database is
// unchanged since (its data version, read inside each step's transaction:
// it moves with every commit, this connection's or another's).
struct EnumCursor {
    int64_t key = 0;  // 0: unused
    UINT32 index = 0;
    uint32_t dataVersion = 0;
    int foldedType = 0;  // SQLite type of the folded column (text or blob)
    std::string folded;
    uint64_t lastUse = 0;
};
constexpr int kEnumCursors = 4;  // per kind: keys being walked at once

// One thread's connection. Reopened when the database path changes or the
// process forked (a connection is never carried into a child).
struct Conn {
    sqlite3* db = nullptr;
    uint64_t pathGen = 0;  // path generation it was opened under
    uint64_t forks = 0;    // forks of this process's ancestry when it was opened
    std::string path;
    sqlite3_stmt* stmts[kStmtCount] = {};
    Txn userTxn = Txn::kNone;  // a transaction begun by ZLRegBeginTransaction
    EnumCursor keyCursors[kEnumCursors];    // subkey enumeration
    EnumCursor valueCursors[kEnumCursors];  // value enumeration
    uint64_t enumSteps = 0;
};

// The calling thread's connection, opened (and the schema created) if needed.
Err GetConn(Conn** out);
// Closes the calling thread's connection if it has one.
void CloseThreadConn();
// Statement `id` of `c`, reset and unbound.
Err GetStmt(Conn& c, Stmt id, sqlite3_stmt** out);
// Turns an SQLite result into a failure, logging database damage and
// permission problems to the system log.
Err SqlErr(Conn& c, int rc, int line, const char* unit);
#define ZLREG_SQLERR(c, rc) (::zlreg::SqlErr((c), (rc), __LINE__, kUnit))

// Resets a statement when leaving scope, so no read transaction lingers.
class StmtScope {
public:
    explicit StmtScope(sqlite3_stmt* s) : s_(s) {}
    ~StmtScope() {
        if (s_ != nullptr) {
            sqlite3_reset(s_);
            sqlite3_clear_bindings(s_);
        }
    }
    StmtScope(const StmtScope&) = delete;
    StmtScope& operator=(const StmtScope&) = delete;

private:
    sqlite3_stmt* s_;
};

// Runs a statement that yields no rows (or whose rows are ignored).
Err StepDone(Conn& c, Stmt id);

// A write of one operation: BEGIN IMMEDIATE on its own, or a savepoint
// inside the thread's write transaction. Rolled back unless committed.
class WriteTxn {
public:
    WriteTxn() = default;
    ~WriteTxn();
    WriteTxn(const WriteTxn&) = delete;
    WriteTxn& operator=(const WriteTxn&) = delete;
    Err Begin(Conn& c);
    Err Commit();

private:
    Conn* c_ = nullptr;
    bool nested_ = false;
};

// Time now in 100-ns units since 1601.
int64_t NowFiletime();

// ASCII lower case of a name; what uniqueness and ordering use.
std::string Fold(const char* p, size_t n);

// Key row ids. Row 1 is the root of everything (its own parent); the
// predefined roots 0x80000000 + i are rows 2 + i.
constexpr int64_t kTopRow = 1;
constexpr int64_t kFirstRootRow = 2;
constexpr int kRootCount = 4;
inline bool IsRootRow(int64_t id) { return id >= kTopRow && id < kFirstRootRow + kRootCount; }

// Handle table.
struct KeyRef {
    int64_t key = 0;
    bool writable = false;
};
Err HandleLookup(HANDLE h, KeyRef* out);
Err HandleAdd(KeyRef ref, HANDLE* out);
Err HandleRemove(HANDLE h);
void HandleInvalidateAll();

// Fork and lock bookkeeping shared by store.cpp and handles.cpp.
void EnsureForkHandlers();
void LockHandlesForFork();
void UnlockHandlesAfterFork();

// Copies a name to a caller's buffer under the name-length rules of zlreg.h.
Err CopyNameOut(const void* name, int n, char* buf, INT32* len);

// Does key row `id` exist?
Err KeyExists(Conn& c, int64_t id, bool* exists);
// Missing-row outcome for a key: deleted if the key is gone, else `code`.
Err MissingOr(Conn& c, int64_t key, UINT32 code, int line, const char* unit);
// The key behind handle `h` and the calling thread's connection; `forWrite`
// refuses a key opened for reading only.
Err EnterKey(HANDLE h, bool forWrite, KeyRef* key, Conn** c);
// Steps enumeration statement `id` to row `index` below `key`. `*s` is set
// whenever the statement was obtained, for the caller's StmtScope, also on
// failure; past the last row the key's absence tells deleted from done.
// In enum_cursor.cpp, with the per-thread cursors that keep its place.
Err StepEnum(Conn& c, Stmt id, int64_t key, UINT32 index, sqlite3_stmt** s);

}  // namespace zlreg
