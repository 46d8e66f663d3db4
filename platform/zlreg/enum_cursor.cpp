// enum_cursor.cpp - stepping the enumeration statements to a row index, and
// the per-thread cursors that keep a walk over a key's subkeys or values
// from counting rows again on every step.
#include "zlreg_internal.h"

namespace zlreg {
namespace {

// Failures found here are reported under the store's unit name.
constexpr char kUnit[] = "store";

}  // namespace

namespace {

// The data version of the main database as the current transaction sees it:
// it changes with every commit, this connection's or another's.
uint32_t DataVersion(Conn& c) {
    unsigned int version = 0;
    sqlite3_file_control(c.db, "main", SQLITE_FCNTL_DATA_VERSION, &version);
    return version;
}

// The cursor kept for `key` among `cursors`, or the least recently used one
// (cleared) to take its place.
EnumCursor& CursorFor(EnumCursor* cursors, int64_t key, bool* found) {
    EnumCursor* oldest = &cursors[0];
    for (int i = 0; i < kEnumCursors; ++i) {
        if (cursors[i].key == key) {
            *found = true;
            return cursors[i];
        }
        if (cursors[i].lastUse < oldest->lastUse) oldest = &cursors[i];
    }
    *found = false;
    *oldest = EnumCursor{};
    return *oldest;
}

// Binds the sort key kept in `cursor` with the type it was read with, so
// that it compares as the column's values do. A copy: the cursor takes the
// next sort key while the statement is still bound.
void BindFolded(sqlite3_stmt* s, int param, const EnumCursor& cursor) {
    const auto size = static_cast<int>(cursor.folded.size());
    if (cursor.foldedType == SQLITE_TEXT)
        sqlite3_bind_text(s, param, cursor.folded.data(), size, SQLITE_TRANSIENT);
    else
        sqlite3_bind_blob(s, param, cursor.folded.data(), size, SQLITE_TRANSIENT);
}

}  // namespace

// Callers walk a key with index 0, 1, 2, ...: counting `index` rows each
// time would make a walk quadratic. When `index` follows the last one this
// thread served below the same key, and the database is unchanged since
// (compared inside the new step's own read transaction), the next row is
// the first one after the last sort key. Anything else counts from the
// start, which is also what a change between the steps requires: the index
// then means a position in the store's present order. Inside the thread's
// own write transaction no place is kept: its uncommitted changes move no
// data version, and a rollback would undo the order a place was taken in.
Err StepEnum(Conn& c, Stmt id, int64_t key, UINT32 index, sqlite3_stmt** s) {
    const bool keys = id == kEnumKey;
    const int foldedColumn = keys ? 2 : 3;
    const bool keepPlace = c.userTxn != Txn::kWrite;
    bool found = false;
    EnumCursor& cursor = CursorFor(keys ? c.keyCursors : c.valueCursors, key, &found);
    cursor.lastUse = ++c.enumSteps;
    int rc = SQLITE_DONE;
    bool served = false;
    if (keepPlace && found && index != 0 && index - 1 == cursor.index) {
        if (Err e = GetStmt(c, keys ? kEnumKeyAfter : kEnumValueAfter, s)) return e;
        sqlite3_bind_int64(*s, 1, key);
        BindFolded(*s, 2, cursor);
        rc = sqlite3_step(*s);
        if ((rc == SQLITE_ROW || rc == SQLITE_DONE) && DataVersion(c) == cursor.dataVersion) {
            served = true;
        } else {
            sqlite3_reset(*s);
            sqlite3_clear_bindings(*s);
        }
    }
    if (!served) {
        if (Err e = GetStmt(c, id, s)) return e;
        sqlite3_bind_int64(*s, 1, key);
        sqlite3_bind_int64(*s, 2, index);
        rc = sqlite3_step(*s);
    }
    if (rc == SQLITE_ROW && keepPlace) {
        cursor.key = key;
        cursor.index = index;
        cursor.dataVersion = DataVersion(c);
        cursor.foldedType = sqlite3_column_type(*s, foldedColumn);
        const auto* folded = static_cast<const char*>(sqlite3_column_blob(*s, foldedColumn));
        cursor.folded.assign(folded != nullptr ? folded : "",
                             static_cast<size_t>(sqlite3_column_bytes(*s, foldedColumn)));
        return {};
    }
    cursor = EnumCursor{};
    if (rc == SQLITE_ROW) return {};
    if (rc == SQLITE_DONE) return MissingOr(c, key, ZLREG_E_NO_MORE_ITEMS, __LINE__, kUnit);
    return ZLREG_SQLERR(c, rc);
}

}  // namespace zlreg
