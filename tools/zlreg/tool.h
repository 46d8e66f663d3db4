// Private to the zlreg tool: what its verbs, its output helpers and its
// dispatcher share (exit statuses, the parsed arguments, key handles and
// transactions, store access and value display).
#ifndef ZLREG_TOOL_TOOL_H
#define ZLREG_TOOL_TOOL_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "regfile.h"
#include "zlreg.h"

namespace zltool {

using regfile::Units;

enum Exit { kOk = 0, kNotFound = 1, kUsage = 2, kStoreError = 3 };

const HANDLE kRoot = ZLREG_HKEY_LOCAL_MACHINE;
// The name under which the library keeps a key's unnamed value.
const char kDefaultName[] = "default";
constexpr unsigned kWatchIntervalMs = 500;

extern std::string g_db;  // the database file, for messages

// ---- arguments ---------------------------------------------------------------

enum Flag : unsigned {
    kFRecursive = 1, kFType = 2, kFJson = 4, kFFind = 8, kFAllValues = 16,
    kFDataFile = 32, kFUtf8 = 64, kFLenient = 128,
};

struct Args {
    std::vector<std::string> pos;
    bool recursive = false, json = false, keys = false, values = false, data = false;
    bool allValues = false, utf8 = false, lenient = false, help = false;
    bool haveDataFile = false;
    std::string dataFile;
    std::string type;
};

int Usage(const std::string& message);
// Reports a failed store call and turns it into the exit status.
int Fail(KSSTATUS st, const std::string& what);

// Closes a key handle at scope exit.
class Key {
public:
    Key() = default;
    ~Key() { Close(); }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    HANDLE* out() {
        Close();
        return &h_;
    }
    HANDLE get() const { return h_; }
    void Close() {
        if (h_ != nullptr) ZLRegCloseKey(h_);
        h_ = nullptr;
    }

private:
    HANDLE h_ = nullptr;
};

// A read transaction (one snapshot) or a write transaction, rolled back
// unless committed.
class Txn {
public:
    explicit Txn(bool write) { st_ = ZLRegBeginTransaction(write ? TRUE : FALSE); }
    ~Txn() {
        if (st_ == 0 && open_) ZLRegRollbackTransaction();
    }
    Txn(const Txn&) = delete;
    Txn& operator=(const Txn&) = delete;
    KSSTATUS status() const { return st_; }
    KSSTATUS Commit() {
        open_ = false;
        return ZLRegCommitTransaction();
    }

private:
    KSSTATUS st_;
    bool open_ = true;
};

std::string Show(const std::string& narrow);
bool ArgText(const std::string& arg, std::string* narrow, std::string* err);
bool ArgPath(const std::string& arg, std::string* narrow, std::string* err);

// ---- store access ------------------------------------------------------------

struct Value {
    std::string name;  // narrow, as stored
    UINT32 type = 0;
    std::string data;
};

bool EnumKey(HANDLE h, UINT32 index, std::string* name, KSSTATUS* st);
bool EnumValue(HANDLE h, UINT32 index, Value* v, KSSTATUS* st);
bool QueryValue(HANDLE h, const std::string& name, Value* v, KSSTATUS* st);
std::string FoldAscii(std::string s);
std::string Join(const std::string& a, const std::string& b);
bool CanonicalPath(const std::string& typed, std::string* out, KSSTATUS* st);

// Visits `path` and its subtree, parents first, in enumeration order.
template <typename Visit>
KSSTATUS Walk(const std::string& path, HANDLE h, bool recurse, Visit& visit) {
    KSSTATUS st = visit(path, h);
    if (st != 0 || !recurse) return st;
    std::string name;
    for (UINT32 i = 0; EnumKey(h, i, &name, &st); ++i) {
        Key child;
        st = ZLRegOpenKeyExA(h, name.c_str(), 0, ZLREG_ACCESS_READ, child.out());
        if (st == 0) st = Walk(Join(path, name), child.get(), true, visit);
        if (st != 0) return st;
    }
    return st;
}

KSSTATUS Values(HANDLE h, std::vector<Value>* out);
KSSTATUS DeleteTree(const std::string& path);
bool DatabaseMissing();

// ---- showing values and output (output.cpp) ---------------------------------------

std::string HexBytes(const std::string& d, const char* sep);
std::string TextBody(const Value& v);
std::string ValueLine(const Value& v);
std::string JsonString(const std::string& narrow);
std::string JsonValue(const Value& v);
int WriteOut(const std::vector<std::string>& pos, size_t index, const std::string& bytes);
bool ReadAll(const std::string& name, std::string* out, int* rc);

// ---- snapshots of subtrees (verbs_read.cpp) -----------------------------------------

// One key of a snapshot: its values by folded name.
struct KeySnap {
    std::string path;  // as stored, relative to the snapshot's top
    std::map<std::string, Value> values;
};
using Snapshot = std::map<std::string, KeySnap>;  // by folded relative path

KSSTATUS TakeSnapshot(const std::string& path, Snapshot* snap);
std::string Diff(const std::string& topA, const Snapshot& a, const std::string& topB, const Snapshot& b);

// ---- verbs (verbs_read.cpp, verbs_write.cpp) -------------------------------------------

int CmdQuery(const Args& a);
int CmdList(const Args& a);
int CmdFind(const Args& a);
int CmdCompare(const Args& a);
int CmdExport(const Args& a);
int CmdWatch(const Args& a);
int CmdSet(const Args& a);
int CmdAdd(const Args& a);
int CmdDelete(const Args& a);
int CmdCopy(const Args& a);
int CmdImport(const Args& a);

}  // namespace zltool

#endif  // ZLREG_TOOL_TOOL_H
