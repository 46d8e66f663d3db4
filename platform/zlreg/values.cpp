// values.cpp - reading, writing, deleting and enumerating values.
#include <cstring>

#include "zlreg_internal.h"

namespace zlreg {
namespace {

constexpr char kUnit[] = "values";

Err CheckValueName(const char* name, size_t* n) {
    *n = name != nullptr ? std::strlen(name) : 0;
    if (*n > ZLREG_MAX_VALUE_NAME) return ZLREG_ERR(ZLREG_E_INVALID_ARG);
    return {};
}

// Hands stored data to a caller under the data-length rules of zlreg.h.
Err CopyData(const void* data, int n, void* buf, UINT32* len) {
    if (buf == nullptr) {
        if (len != nullptr) *len = static_cast<UINT32>(n);
        return {};
    }
    if (len == nullptr) return ZLREG_ERR(ZLREG_E_INVALID_ARG);
    UINT32 room = *len;
    *len = static_cast<UINT32>(n);
    if (room < static_cast<UINT32>(n)) return ZLREG_ERR(ZLREG_E_BUFFER_SMALL);
    if (n > 0) std::memcpy(buf, data, static_cast<size_t>(n));
    return {};
}

Err Touch(Conn& c, int64_t key, bool* touched) {
    sqlite3_stmt* s = nullptr;
    if (Err e = GetStmt(c, kTouchKey, &s)) return e;
    StmtScope scope(s);
    sqlite3_bind_int64(s, 1, key);
    sqlite3_bind_int64(s, 2, NowFiletime());
    int rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) return ZLREG_SQLERR(c, rc);
    *touched = sqlite3_changes(c.db) > 0;
    return {};
}

}  // namespace
}  // namespace zlreg

using namespace zlreg;

extern "C" {

KSSTATUS ZLRegQueryValueExA(HANDLE hKey, const char* pValueName, UINT32* /*pReserved*/,
                            UINT32* pType, void* pData, UINT32* pcbData) {
    if (pData != nullptr && pcbData == nullptr) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_INVALID_ARG));
    size_t n = 0;
    if (Err e = CheckValueName(pValueName, &n)) ZLREG_RETURN(e);
    KeyRef key;
    Conn* c = nullptr;
    if (Err e = EnterKey(hKey, false, &key, &c)) ZLREG_RETURN(e);
    sqlite3_stmt* s = nullptr;
    if (Err e = GetStmt(*c, kQueryValue, &s)) ZLREG_RETURN(e);
    StmtScope scope(s);
    std::string folded = Fold(pValueName != nullptr ? pValueName : "", n);
    sqlite3_bind_int64(s, 1, key.key);
    sqlite3_bind_blob(s, 2, folded.data(), static_cast<int>(folded.size()), SQLITE_STATIC);
    int rc = sqlite3_step(s);
    if (rc == SQLITE_DONE)
        ZLREG_RETURN(MissingOr(*c, key.key, ZLREG_E_VALUE_NOT_FOUND, __LINE__, kUnit));
    if (rc != SQLITE_ROW) ZLREG_RETURN(ZLREG_SQLERR(*c, rc));
    if (pType != nullptr) *pType = static_cast<UINT32>(sqlite3_column_int(s, 0));
    const void* data = sqlite3_column_blob(s, 1);
    int len = sqlite3_column_bytes(s, 1);
    ZLREG_RETURN(CopyData(data, len, pData, pcbData));
}

KSSTATUS ZLRegSetValueExA(HANDLE hKey, const char* pValueName, UINT32 /*Reserved*/, UINT32 dwType,
                          const void* pData, UINT32 cbData) {
    if (dwType > ZLREG_UINT64 || (pData == nullptr && cbData != 0) || cbData > 0x7FFFFFFFu)
        ZLREG_RETURN(ZLREG_ERR(ZLREG_E_INVALID_ARG));
    size_t n = 0;
    if (Err e = CheckValueName(pValueName, &n)) ZLREG_RETURN(e);
    KeyRef key;
    Conn* c = nullptr;
    if (Err e = EnterKey(hKey, true, &key, &c)) ZLREG_RETURN(e);
    WriteTxn txn;
    if (Err e = txn.Begin(*c)) ZLREG_RETURN(e);
    bool touched = false;
    if (Err e = Touch(*c, key.key, &touched)) ZLREG_RETURN(e);
    if (!touched) ZLREG_RETURN(ZLREG_ERR(ZLREG_E_KEY_DELETED));
    sqlite3_stmt* s = nullptr;
    if (Err e = GetStmt(*c, kSetValue, &s)) ZLREG_RETURN(e);
    const char* name = pValueName != nullptr ? pValueName : "";
    std::string folded = Fold(name, n);
    int rc;
    {
        StmtScope scope(s);
        sqlite3_bind_int64(s, 1, key.key);
        sqlite3_bind_blob(s, 2, name, static_cast<int>(n), SQLITE_STATIC);
        sqlite3_bind_blob(s, 3, folded.data(), static_cast<int>(folded.size()), SQLITE_STATIC);
        sqlite3_bind_int(s, 4, static_cast<int>(dwType));
        // A zero-length blob must still be a blob, not NULL.
        if (cbData == 0)
            sqlite3_bind_zeroblob(s, 5, 0);
        else
            sqlite3_bind_blob(s, 5, pData, static_cast<int>(cbData), SQLITE_STATIC);
        rc = sqlite3_step(s);
    }
    if (rc != SQLITE_DONE) ZLREG_RETURN(ZLREG_SQLERR(*c, rc));
    ZLREG_RETURN(txn.Commit());
}

KSSTATUS ZLRegDeleteValueA(HANDLE hKey, const char* pValueName) {
    size_t n = 0;
    if (Err e = CheckValueName(pValueName, &n)) ZLREG_RETURN(e);
    KeyRef key;
    Conn* c = nullptr;
    if (Err e = EnterKey(hKey, true, &key, &c)) ZLREG_RETURN(e);
    WriteTxn txn;
    if (Err e = txn.Begin(*c)) ZLREG_RETURN(e);
    sqlite3_stmt* s = nullptr;
    if (Err e = GetStmt(*c, kDeleteValue, &s)) ZLREG_RETURN(e);
    std::string folded = Fold(pValueName != nullptr ? pValueName : "", n);
    int rc;
    {
        StmtScope scope(s);
        sqlite3_bind_int64(s, 1, key.key);
        sqlite3_bind_blob(s, 2, folded.data(), static_cast<int>(folded.size()), SQLITE_STATIC);
        rc = sqlite3_step(s);
    }
    if (rc != SQLITE_DONE) ZLREG_RETURN(ZLREG_SQLERR(*c, rc));
    if (sqlite3_changes(c->db) == 0)
        ZLREG_RETURN(MissingOr(*c, key.key, ZLREG_E_VALUE_NOT_FOUND, __LINE__, kUnit));
    bool touched = false;
    if (Err e = Touch(*c, key.key, &touched)) ZLREG_RETURN(e);
    ZLREG_RETURN(txn.Commit());
}

KSSTATUS ZLRegEnumValueA(HANDLE hKey, UINT32 dwIndex, char* pValueName, INT32* pcchValueName,
                         UINT32* /*pReserved*/, UINT32* pType, void* pData, UINT32* pcbData) {
    if (pValueName == nullptr || pcchValueName == nullptr || *pcchValueName < 0 ||
        (pData != nullptr && pcbData == nullptr))
        ZLREG_RETURN(ZLREG_ERR(ZLREG_E_INVALID_ARG));
    KeyRef key;
    Conn* c = nullptr;
    if (Err e = EnterKey(hKey, false, &key, &c)) ZLREG_RETURN(e);
    sqlite3_stmt* s = nullptr;
    Err stepped = StepEnum(*c, kEnumValue, key.key, dwIndex, &s);
    StmtScope scope(s);
    if (stepped) ZLREG_RETURN(stepped);
    // Nothing is written unless both fit; then both lengths tell the room
    // needed.
    int nameLen = sqlite3_column_bytes(s, 0);
    int dataLen = sqlite3_column_bytes(s, 2);
    if (*pcchValueName <= nameLen || (pData != nullptr && *pcbData < static_cast<UINT32>(dataLen))) {
        *pcchValueName = nameLen + 1;
        if (pcbData != nullptr) *pcbData = static_cast<UINT32>(dataLen);
        ZLREG_RETURN(ZLREG_ERR(ZLREG_E_BUFFER_SMALL));
    }
    if (Err e = CopyNameOut(sqlite3_column_blob(s, 0), nameLen, pValueName, pcchValueName))
        ZLREG_RETURN(e);
    if (Err e = CopyData(sqlite3_column_blob(s, 2), dataLen, pData, pcbData)) ZLREG_RETURN(e);
    if (pType != nullptr) *pType = static_cast<UINT32>(sqlite3_column_int(s, 1));
    return 0;
}

}  // extern "C"
