// keys.cpp - opening, creating, closing, deleting and enumerating keys.
#include <cstring>

#include "zlreg_internal.h"

namespace zlreg {
namespace {

constexpr char kUnit[] = "keys";

Err FindChild(Conn& c, int64_t parent, const std::string& folded, int64_t* child, bool* found) {
    sqlite3_stmt* s = nullptr;
    if (Err e = GetStmt(c, kFindChild, &s)) return e;
    StmtScope scope(s);
    sqlite3_bind_int64(s, 1, parent);
    sqlite3_bind_blob(s, 2, folded.data(), static_cast<int>(folded.size()), SQLITE_STATIC);
    int rc = sqlite3_step(s);
    if (rc == SQLITE_ROW) {
        *child = sqlite3_column_int64(s, 0);
        *found = true;
        return {};
    }
    if (rc != SQLITE_DONE) return ZLREG_SQLERR(c, rc);
    *found = false;
    return {};
}

Err Touch(Conn& c, int64_t key, int64_t now, bool* touched) {
    sqlite3_stmt* s = nullptr;
    if (Err e = GetStmt(c, kTouchKey, &s)) return e;
    StmtScope scope(s);
    sqlite3_bind_int64(s, 1, key);
    sqlite3_bind_int64(s, 2, now);
    int rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) return ZLREG_SQLERR(c, rc);
    if (touched != nullptr) *touched = sqlite3_changes(c.db) > 0;
    return {};
}

Err InsertKey(Conn& c, int64_t parent, const char* name, size_t n, const std::string& folded,
              int64_t now, int64_t* id) {
    sqlite3_stmt* s = nullptr;
    if (Err e = GetStmt(c, kInsertKey, &s)) return e;
    StmtScope scope(s);
    sqlite3_bind_int64(s, 1, parent);
    sqlite3_bind_blob(s, 2, name, static_cast<int>(n), SQLITE_STATIC);
    sqlite3_bind_blob(s, 3, folded.data(), static_cast<int>(folded.size()), SQLITE_STATIC);
    sqlite3_bind_int64(s, 4, now);
    int rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) return ZLREG_SQLERR(c, rc);
    *id = sqlite3_last_insert_rowid(c.db);
    return {};
}

// Checks every element of a path before the database is touched.
Err CheckPath(const char* path) {
    size_t run = 0;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '\\') {
            run = 0;
        } else if (++run > ZLREG_MAX_KEY_NAME) {
            return ZLREG_ERR(ZLREG_E_INVALID_ARG);
        }
    }
    return {};
}

// Walks `path` below key `start`. With `create`, missing elements are made
// (REQUIRES: a write transaction) and *created tells whether any was.
Err Resolve(Conn& c, int64_t start, const char* path, bool create, int64_t* out,
            bool* created) {
    int64_t cur = start;
    bool first = true;
    if (created != nullptr) *created = false;
    int64_t now = create ? NowFiletime() : 0;
    const char* p = path;
    while (true) {
        while (*p == '\\') ++p;
        if (*p == '\0') break;
        const char* end = p;
        while (*end != '\0' && *end != '\\') ++end;
        size_t n = static_cast<size_t>(end - p);
        std::string folded = Fold(p, n);
        int64_t child = 0;
        bool found = false;
        if (Err e = FindChild(c, cur, folded, &child, &found)) return e;
        if (!found && first) {
            // A miss right below the handle's key may mean that key is gone.
            bool exists = false;
            if (Err e = KeyExists(c, cur, &exists)) return e;
            if (!exists) return ZLREG_ERR(ZLREG_E_KEY_DELETED);
        }
        if (!found) {
            if (!create) return ZLREG_ERR(ZLREG_E_KEY_NOT_FOUND);
            if (!*created) {
                // The existing key that receives the first new subkey.
                if (Err e = Touch(c, cur, now, nullptr)) return e;
            }
            if (Err e = InsertKey(c, cur, p, n, folded, now, &child)) return e;
            *created = true;
        }
        cur = child;
        first = false;
        p = end;
    }
    if (first) {
        bool exists = false;
        if (Err e = KeyExists(c, cur, &exists)) return e;
        if (!exists) return ZLREG_ERR(ZLREG_E_KEY_DELETED);
    }
    *out = cur;
    return {};
}

// Copies a name into a caller's buffer under the name-length rules.
Err CopyName(const void* name, int n, char* buf, INT32* len) {
    if (*len <= n) {
        *len = n + 1;
        return ZLREG_ERR(ZLREG_E_BUFFER_SMALL);
    }
    if (n > 0) std::memcpy(buf, name, static_cast<size_t>(n));
    buf[n] = '\0';
    *len = n;
    return {};
}

}  // namespace

Err CopyNameOut(const void* name, int n, char* buf, INT32* len) { return CopyName(name, n, buf, len); }

}  // namespace zlreg

using namespace zlreg;

extern "C" {

KSSTATUS ZLRegOpenKeyExA(HANDLE hKey, const char* pSubKey, UINT32 ulOptions, UINT32 samDesired,
                         HANDLE* phkResult) {
    if (phkResult != nullptr) *phkResult = nullptr;
    if (phkResult == nullptr || ulOptions != 0 || samDesired > ZLREG_ACCESS_ALL)
        ZLREG_RETURN(ZLREG_ERR(ZLREG_E_INVALID_ARG));
    if (pSubKey == nullptr) pSubKey = "";
    if (Err e = CheckPath(pSubKey)) ZLREG_RETURN(e);
    KeyRef parent;
    Conn* c = nullptr;
    if (Err e = EnterKey(hKey, false, &parent, &c)) ZLREG_RETURN(e);
    int64_t id = 0;
    if (Err e = Resolve(*c, parent.key, pSubKey, false, &id, nullptr)) ZLREG_RETURN(e);
    ZLREG_RETURN(HandleAdd(KeyRef{id, samDesired != ZLREG_ACCESS_READ}, phkResult));
}

KSSTATUS ZLRegCreateKeyExA(HANDLE hKey, const char* pSubKey, UINT32 /*Reserved*/,
                           char* /*pClass*/, UINT32 /*dwOptions*/, UINT32 /*samDesired*/,
                           void* /*pSecurityAttributes*/, HANDLE* phkResult,
                           UINT32* pDisposition) {
    if (phkResult != nullptr) *phkResult = nullptr;
    if (phkResult == nullptr) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_INVALID_ARG));
    if (pSubKey == nullptr) pSubKey = "";
    if (Err e = CheckPath(pSubKey)) ZLREG_RETURN(e);
    KeyRef parent;
    Conn* c = nullptr;
    if (Err e = EnterKey(hKey, true, &parent, &c)) ZLREG_RETURN(e);
    int64_t id = 0;
    bool created = false;
    {
        WriteTxn txn;
        if (Err e = txn.Begin(*c)) ZLREG_RETURN(e);
        if (Err e = Resolve(*c, parent.key, pSubKey, true, &id, &created)) ZLREG_RETURN(e);
        if (Err e = txn.Commit()) ZLREG_RETURN(e);
    }
    if (Err e = HandleAdd(KeyRef{id, true}, phkResult)) ZLREG_RETURN(e);
    if (pDisposition != nullptr)
        *pDisposition = created ? ZLREG_CREATED_NEW_KEY : ZLREG_OPENED_EXISTING_KEY;
    return 0;
}

KSSTATUS ZLRegCloseKey(HANDLE hKey) { ZLREG_RETURN(HandleRemove(hKey)); }

KSSTATUS ZLRegDeleteKeyA(HANDLE hKey, const char* pSubKey) {
    if (pSubKey == nullptr) pSubKey = "";
    if (Err e = CheckPath(pSubKey)) ZLREG_RETURN(e);
    KeyRef parent;
    Conn* c = nullptr;
    if (Err e = EnterKey(hKey, true, &parent, &c)) ZLREG_RETURN(e);
    WriteTxn txn;
    if (Err e = txn.Begin(*c)) ZLREG_RETURN(e);
    int64_t id = 0;
    if (Err e = Resolve(*c, parent.key, pSubKey, false, &id, nullptr)) ZLREG_RETURN(e);
    if (IsRootRow(id)) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_ACCESS_DENIED));
    sqlite3_stmt* s = nullptr;
    if (Err e = GetStmt(*c, kHasChild, &s)) ZLREG_RETURN(e);
    int rc;
    {
        StmtScope scope(s);
        sqlite3_bind_int64(s, 1, id);
        rc = sqlite3_step(s);
    }
    if (rc == SQLITE_ROW) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_HAS_SUBKEYS));
    if (rc != SQLITE_DONE) ZLREG_RETURN(ZLREG_SQLERR(*c, rc));
    int64_t up = 0;
    if (Err e = GetStmt(*c, kParentOf, &s)) ZLREG_RETURN(e);
    {
        StmtScope scope(s);
        sqlite3_bind_int64(s, 1, id);
        rc = sqlite3_step(s);
        if (rc == SQLITE_ROW) up = sqlite3_column_int64(s, 0);
    }
    if (rc != SQLITE_ROW) ZLREG_RETURN(ZLREG_SQLERR(*c, rc == SQLITE_DONE ? SQLITE_CORRUPT : rc));
    if (Err e = GetStmt(*c, kDeleteKey, &s)) ZLREG_RETURN(e);
    {
        StmtScope scope(s);
        sqlite3_bind_int64(s, 1, id);
        rc = sqlite3_step(s);
    }
    if (rc != SQLITE_DONE) ZLREG_RETURN(ZLREG_SQLERR(*c, rc));
    if (Err e = Touch(*c, up, NowFiletime(), nullptr)) ZLREG_RETURN(e);
    ZLREG_RETURN(txn.Commit());
}

KSSTATUS ZLRegEnumKeyExA(HANDLE hKey, UINT32 dwIndex, char* pName, INT32* pcchName,
                         UINT32* /*pReserved*/, char* pClass, UINT32* pcchClass,
                         UINT64* pLastWriteTime) {
    if (pName == nullptr || pcchName == nullptr || *pcchName < 0)
        ZLREG_RETURN(ZLREG_ERR(ZLREG_E_INVALID_ARG));
    KeyRef key;
    Conn* c = nullptr;
    if (Err e = EnterKey(hKey, false, &key, &c)) ZLREG_RETURN(e);
    sqlite3_stmt* s = nullptr;
    Err stepped = StepEnum(*c, kEnumKey, key.key, dwIndex, &s);
    StmtScope scope(s);
    if (stepped) ZLREG_RETURN(stepped);
    const void* name = sqlite3_column_blob(s, 0);
    int n = sqlite3_column_bytes(s, 0);
    if (Err e = CopyName(name, n, pName, pcchName)) ZLREG_RETURN(e);
    if (pLastWriteTime != nullptr) *pLastWriteTime = static_cast<UINT64>(sqlite3_column_int64(s, 1));
    if (pClass != nullptr && pcchClass != nullptr && *pcchClass > 0) {
        pClass[0] = '\0';
        *pcchClass = 0;
    }
    return 0;
}

}  // extern "C"
