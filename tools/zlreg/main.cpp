// zlreg - command-line access to the configuration store.
//
// Exit status: 0 success, 1 not found (also: compare found differences,
// find found nothing), 2 usage error (also a refused request such as
// deleting a key that has subkeys without --recursive, or a malformed
// import file), 3 store error (busy, permission, damaged or foreign
// database). Errors are one line on stderr and name the database file.
//
// Names and text pass through kspl's own code page routines (text.h), so
// what the tool shows and writes is what components see through IKspl.
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <map>
#include <string>
#include <vector>

#include "regfile.h"
#include "text.h"
#include "zlreg.h"

#ifndef ZLREG_TOOL_VERSION
#define ZLREG_TOOL_VERSION "1.0.0"
#endif

namespace {

using regfile::Units;

enum Exit { kOk = 0, kNotFound = 1, kUsage = 2, kStoreError = 3 };

const HANDLE kRoot = ZLREG_HKEY_LOCAL_MACHINE;
// The name under which the library keeps a key's unnamed value.
const char kDefaultName[] = "default";
constexpr unsigned kWatchIntervalMs = 500;

std::string g_db;  // the database file, for messages

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

int Usage(const std::string& message) {
    std::fprintf(stderr, "zlreg: %s (try zlreg --help)\n", message.c_str());
    return kUsage;
}

const char* Describe(UINT32 code) {
    switch (code) {
        case ZLREG_E_KEY_NOT_FOUND: return "key not found";
        case ZLREG_E_VALUE_NOT_FOUND: return "value not found";
        case ZLREG_E_KEY_DELETED: return "key was deleted meanwhile";
        case ZLREG_E_INVALID_ARG: return "invalid name, path or data (too long?)";
        case ZLREG_E_HAS_SUBKEYS: return "key has subkeys (use --recursive)";
        case ZLREG_E_ACCESS_DENIED: return "access denied";
        case ZLREG_E_STORE_BUSY: return "store is busy";
        case ZLREG_E_STORE_CORRUPT: return "database is damaged or belongs to another application";
        case ZLREG_E_STORE_PERMISSION: return "database cannot be opened or written";
        case ZLREG_E_STORE_UNSAFE: return "database path refused (a directory or another user's link)";
        case ZLREG_E_STORE_VERSION: return "database was written by a newer version of the store";
        case ZLREG_E_NO_MEMORY: return "out of memory";
        default: return "store error";
    }
}

// Reports a failed store call and turns it into the exit status.
int Fail(KSSTATUS st, const std::string& what) {
    UINT32 code = KS_STATUS_CODE(st);
    std::fprintf(stderr, "zlreg: %s: %s: %s (status %08X)\n", g_db.c_str(), what.c_str(), Describe(code),
                 st);
    switch (code) {
        case ZLREG_E_KEY_NOT_FOUND:
        case ZLREG_E_VALUE_NOT_FOUND:
        case ZLREG_E_KEY_DELETED: return kNotFound;
        case ZLREG_E_INVALID_ARG:
        case ZLREG_E_HAS_SUBKEYS:
        case ZLREG_E_ACCESS_DENIED: return kUsage;
        default: return kStoreError;
    }
}

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

// ---- text of arguments and names --------------------------------------------------

std::string Show(const std::string& narrow) { return text::Display(text::Decode(narrow)); }

// An argument typed in the terminal's encoding (UTF-8) to store bytes.
bool ArgText(const std::string& arg, std::string* narrow, std::string* err) {
    Units u;
    if (!regfile::FromUtf8(arg, &u)) return (*err = "argument is not UTF-8: " + arg), false;
    if (!text::Encode(u, narrow))
        return (*err = "cannot be written in code page " + std::string(text::CodePage()) + ": " + arg), false;
    return true;
}

// A key path argument: an optional HKEY_LOCAL_MACHINE\ or HKLM\ prefix, no
// empty elements (but one leading '\'), no "." or "..".
bool ArgPath(const std::string& arg, std::string* narrow, std::string* err) {
    std::string p = arg;
    for (const char* root : {"HKEY_LOCAL_MACHINE", "HKLM"}) {
        size_t n = std::strlen(root);
        if (p.size() >= n && strncasecmp(p.c_str(), root, n) == 0 && (p.size() == n || p[n] == '\\')) {
            p.erase(0, p.size() == n ? n : n + 1);
            break;
        }
    }
    if (!p.empty() && p[0] == '\\') p.erase(0, 1);
    if (!p.empty()) {
        size_t from = 0;
        while (true) {
            size_t end = p.find('\\', from);
            std::string elem = p.substr(from, end == std::string::npos ? std::string::npos : end - from);
            if (elem.empty()) return (*err = "empty key name (doubled or trailing backslash) in " + arg), false;
            if (elem == "." || elem == "..") return (*err = "\".\" and \"..\" are not key names: " + arg), false;
            if (end == std::string::npos) break;
            from = end + 1;
        }
    }
    return ArgText(p, narrow, err);
}

// ---- store access ------------------------------------------------------------

struct Value {
    std::string name;  // narrow, as stored
    UINT32 type = 0;
    std::string data;
};

bool EnumKey(HANDLE h, UINT32 index, std::string* name, KSSTATUS* st) {
    std::vector<char> buf(ZLREG_MAX_KEY_NAME + 1);
    while (true) {
        INT32 len = static_cast<INT32>(buf.size());
        *st = ZLRegEnumKeyExA(h, index, buf.data(), &len, nullptr, nullptr, nullptr, nullptr);
        if (*st == ZLREG_STATUS(ZLREG_E_BUFFER_SMALL)) {
            buf.resize(static_cast<size_t>(len));
            continue;
        }
        if (*st == ZLREG_STATUS_NO_MORE_ITEMS) {
            *st = 0;
            return false;
        }
        if (*st != 0) return false;
        name->assign(buf.data(), static_cast<size_t>(len));
        return true;
    }
}

bool EnumValue(HANDLE h, UINT32 index, Value* v, KSSTATUS* st) {
    std::vector<char> name(256);
    std::vector<char> data(1024);
    while (true) {
        INT32 nlen = static_cast<INT32>(name.size());
        UINT32 dlen = static_cast<UINT32>(data.size());
        UINT32 type = 0;
        *st = ZLRegEnumValueA(h, index, name.data(), &nlen, nullptr, &type, data.data(), &dlen);
        if (*st == ZLREG_STATUS(ZLREG_E_BUFFER_SMALL)) {
            if (static_cast<size_t>(nlen) > name.size()) name.resize(static_cast<size_t>(nlen));
            if (dlen > data.size()) data.resize(dlen);
            continue;
        }
        if (*st == ZLREG_STATUS_NO_MORE_ITEMS) {
            *st = 0;
            return false;
        }
        if (*st != 0) return false;
        v->name.assign(name.data(), static_cast<size_t>(nlen));
        v->type = type;
        v->data.assign(data.data(), dlen);
        return true;
    }
}

bool QueryValue(HANDLE h, const std::string& name, Value* v, KSSTATUS* st) {
    UINT32 len = 0;
    UINT32 type = 0;
    *st = ZLRegQueryValueExA(h, name.c_str(), nullptr, &type, nullptr, &len);
    while (*st == 0) {
        std::string data(len, '\0');
        UINT32 room = len;
        *st = ZLRegQueryValueExA(h, name.c_str(), nullptr, &type, data.data(), &room);
        if (*st == ZLREG_STATUS(ZLREG_E_BUFFER_SMALL)) {  // grew meanwhile
            len = room;
            *st = 0;
            continue;
        }
        if (*st != 0) break;
        data.resize(room);
        *v = Value{name, type, data};
        return true;
    }
    return false;
}

std::string FoldAscii(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

std::string Join(const std::string& a, const std::string& b) { return a.empty() ? b : a + "\\" + b; }

// The stored spelling of a path typed in any case.
bool CanonicalPath(const std::string& typed, std::string* out, KSSTATUS* st) {
    out->clear();
    size_t pos = 0;
    while (pos < typed.size()) {
        size_t end = typed.find('\\', pos);
        if (end == std::string::npos) end = typed.size();
        std::string elem = FoldAscii(typed.substr(pos, end - pos));
        pos = end + 1;
        Key parent;
        *st = ZLRegOpenKeyExA(kRoot, out->c_str(), 0, ZLREG_ACCESS_READ, parent.out());
        if (*st != 0) return false;
        std::string found;
        std::string name;
        for (UINT32 i = 0; EnumKey(parent.get(), i, &name, st); ++i)
            if (FoldAscii(name) == elem) {
                found = name;
                break;
            }
        if (*st != 0) return false;
        if (found.empty()) {
            *st = ZLREG_STATUS(ZLREG_E_KEY_NOT_FOUND);
            return false;
        }
        *out = Join(*out, found);
    }
    return true;
}

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

// Every value of one key.
KSSTATUS Values(HANDLE h, std::vector<Value>* out) {
    out->clear();
    Value v;
    KSSTATUS st = 0;
    while (EnumValue(h, static_cast<UINT32>(out->size()), &v, &st)) out->push_back(v);
    return st;
}

// Deletes every subkey below `h` (children first).
KSSTATUS DeleteSubtree(HANDLE h) {
    KSSTATUS st = 0;
    std::string name;
    while (EnumKey(h, 0, &name, &st)) {  // index 0: the list shrinks as children go
        Key child;
        st = ZLRegOpenKeyExA(h, name.c_str(), 0, ZLREG_ACCESS_ALL, child.out());
        if (st == 0) st = DeleteSubtree(child.get());
        child.Close();
        if (st == 0) st = ZLRegDeleteKeyA(h, name.c_str());
        if (st != 0) return st;
    }
    return st;
}

// Deletes `path` and its subtree inside the caller's write transaction.
KSSTATUS DeleteTree(const std::string& path) {
    Key key;
    KSSTATUS st = ZLRegOpenKeyExA(kRoot, path.c_str(), 0, ZLREG_ACCESS_ALL, key.out());
    if (st == 0) st = DeleteSubtree(key.get());
    key.Close();
    if (st == 0) st = ZLRegDeleteKeyA(kRoot, path.c_str());
    return st;
}

// A read-only verb on a database that does not exist reports "not found"
// and creates nothing.
bool DatabaseMissing() {
    struct stat st;
    if (stat(g_db.c_str(), &st) == 0 || errno != ENOENT) return false;
    std::fprintf(stderr, "zlreg: %s: no database there (nothing stored yet)\n", g_db.c_str());
    return true;
}

// ---- showing values ------------------------------------------------------------

const char* TypeName(UINT32 type) {
    switch (type) {
        case ZLREG_BINARY: return "binary";
        case ZLREG_UINT32: return "uint32";
        case ZLREG_SZ: return "sz";
        case ZLREG_MULTI_SZ: return "multi_sz";
        case ZLREG_UINT64: return "uint64";
        default: return "unknown";
    }
}

uint64_t LittleEndian(const std::string& d) {
    uint64_t v = 0;
    for (size_t i = d.size(); i-- > 0;) v = v << 8 | static_cast<unsigned char>(d[i]);
    return v;
}

std::string HexBytes(const std::string& d, const char* sep) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < d.size(); ++i) {
        if (i > 0) out += sep;
        out += kDigits[static_cast<unsigned char>(d[i]) >> 4];
        out += kDigits[static_cast<unsigned char>(d[i]) & 15];
    }
    return out;
}

// String data without its terminator(s): one NUL for sz, two for multi_sz.
std::string TextBody(const Value& v) {
    std::string d = v.data;
    size_t strip = v.type == ZLREG_MULTI_SZ ? 2 : 1;
    while (strip-- > 0 && !d.empty() && d.back() == '\0') d.pop_back();
    return d;
}

bool IsNumber(const Value& v) {
    return (v.type == ZLREG_UINT32 && v.data.size() == 4) || (v.type == ZLREG_UINT64 && v.data.size() == 8);
}

std::string ShowData(const Value& v) {
    if (v.type == ZLREG_SZ || v.type == ZLREG_MULTI_SZ) return Show(TextBody(v));
    if (IsNumber(v)) return std::to_string(LittleEndian(v.data));
    return HexBytes(v.data, " ");
}

std::string ValueLine(const Value& v) {
    return "    " + (v.name.empty() ? std::string("\"\"") : Show(v.name)) + "    " + TypeName(v.type) + "    " +
           ShowData(v) + "\n";
}

std::string JsonString(const std::string& narrow) { return "\"" + text::Json(text::Decode(narrow)) + "\""; }

std::string JsonValue(const Value& v) {
    std::string out = "{\"name\": " + JsonString(v.name) + ", \"type\": \"" + TypeName(v.type) + "\", \"data\": ";
    if (v.type == ZLREG_SZ) {
        out += JsonString(TextBody(v));
    } else if (v.type == ZLREG_MULTI_SZ) {
        out += "[";
        std::string body = TextBody(v);
        size_t from = 0;
        bool first = true;
        while (from < body.size()) {
            size_t end = body.find('\0', from);
            if (end == std::string::npos) end = body.size();
            out += (first ? "" : ", ") + JsonString(body.substr(from, end - from));
            first = false;
            from = end + 1;
        }
        out += "]";
    } else if (IsNumber(v)) {
        out += std::to_string(LittleEndian(v.data));
    } else {
        out += "\"" + HexBytes(v.data, "") + "\"";
    }
    return out + "}";
}

// ---- output ---------------------------------------------------------------

// Writes to FILE, or to standard output for none or "-".
int WriteOut(const std::vector<std::string>& pos, size_t index, const std::string& bytes) {
    bool toStdout = pos.size() <= index || pos[index] == "-";
    FILE* f = toStdout ? stdout : std::fopen(pos[index].c_str(), "wb");
    if (f == nullptr) {
        std::fprintf(stderr, "zlreg: %s: %s\n", pos[index].c_str(), std::strerror(errno));
        return kUsage;
    }
    bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    ok = (toStdout ? std::fflush(f) : std::fclose(f)) == 0 && ok;
    if (!ok) {
        std::fprintf(stderr, "zlreg: cannot write %s: %s\n", toStdout ? "the output" : pos[index].c_str(),
                     std::strerror(errno));
        return kStoreError;
    }
    return kOk;
}

bool ReadAll(const std::string& name, std::string* out, int* rc) {
    FILE* f = name == "-" ? stdin : std::fopen(name.c_str(), "rb");
    if (f == nullptr) {
        std::fprintf(stderr, "zlreg: %s: %s\n", name.c_str(), std::strerror(errno));
        *rc = errno == ENOENT ? kNotFound : kUsage;
        return false;
    }
    out->clear();
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
        out->append(buf, n);
        if (out->size() > 64u * regfile::kMaxValueBytes) break;  // far beyond any valid input
    }
    bool bad = std::ferror(f) != 0;
    if (f != stdin) std::fclose(f);
    if (bad) {
        std::fprintf(stderr, "zlreg: %s: read error\n", name.c_str());
        *rc = kUsage;
        return false;
    }
    return true;
}

// ---- verbs ------------------------------------------------------------------

int CmdQuery(const Args& a) {
    if (a.pos.empty() || a.pos.size() > 2) return Usage("query needs KEY [VALUE]");
    std::string path, name, err;
    if (!ArgPath(a.pos[0], &path, &err)) return Usage(err);
    if (a.pos.size() == 2 && !ArgText(a.pos[1], &name, &err)) return Usage(err);
    if (DatabaseMissing()) return kNotFound;
    Txn txn(false);
    if (txn.status() != 0) return Fail(txn.status(), a.pos[0]);
    Key key;
    KSSTATUS st = ZLRegOpenKeyExA(kRoot, path.c_str(), 0, ZLREG_ACCESS_READ, key.out());
    if (st != 0) return Fail(st, a.pos[0]);
    if (a.pos.size() == 2) {
        Value v;
        if (!QueryValue(key.get(), name, &v, &st)) return Fail(st, a.pos[0] + ": " + a.pos[1]);
        std::string out = a.json ? JsonValue(v) + "\n" : ValueLine(v);
        return WriteOut({}, 0, out);
    }
    std::string out = a.json && a.recursive ? "[" : "";
    bool first = true;
    auto visit = [&](const std::string& p, HANDLE h) -> KSSTATUS {
        std::vector<Value> values;
        KSSTATUS s = Values(h, &values);
        if (s != 0) return s;
        std::vector<std::string> subkeys;
        std::string sub;
        if (!a.recursive)
            for (UINT32 i = 0; EnumKey(h, i, &sub, &s); ++i) subkeys.push_back(sub);
        if (s != 0) return s;
        if (a.json) {
            out += (first ? "" : ",\n ") + std::string("{\"key\": ") + JsonString(p) + ", \"values\": [";
            for (size_t i = 0; i < values.size(); ++i) out += (i ? ", " : "") + JsonValue(values[i]);
            out += "]";
            if (!a.recursive) {
                out += ", \"subkeys\": [";
                for (size_t i = 0; i < subkeys.size(); ++i) out += (i ? ", " : "") + JsonString(subkeys[i]);
                out += "]";
            }
            out += "}";
        } else {
            out += (first ? "" : "\n") + Show(p) + "\n";
            for (const Value& v : values) out += ValueLine(v);
            if (!subkeys.empty()) out += "\n";
            for (const std::string& k : subkeys) out += Show(Join(p, k)) + "\n";
        }
        first = false;
        return 0;
    };
    st = Walk(path, key.get(), a.recursive, visit);
    if (st != 0) return Fail(st, a.pos[0]);
    if (a.json) out += a.recursive ? "]\n" : "\n";
    return WriteOut({}, 0, out);
}

bool ParseNumber(const std::string& s, unsigned long long max, unsigned long long* v) {
    if (s.empty() || s[0] == '-' || s[0] == '+' || s[0] == ' ') return false;
    errno = 0;
    char* end = nullptr;
    *v = std::strtoull(s.c_str(), &end, s.rfind("0x", 0) == 0 || s.rfind("0X", 0) == 0 ? 16 : 10);
    return errno == 0 && end != nullptr && *end == '\0' && *v <= max;
}

int CmdSet(const Args& a) {
    if (a.pos.size() < 2) return Usage("set needs KEY VALUE --type TYPE [DATA...]");
    std::string path, name, err;
    if (!ArgPath(a.pos[0], &path, &err) || !ArgText(a.pos[1], &name, &err)) return Usage(err);
    std::vector<std::string> data(a.pos.begin() + 2, a.pos.end());
    if (a.haveDataFile) {
        if (!data.empty()) return Usage("DATA arguments and --data-file exclude each other");
        std::string content;
        int rc = kOk;
        if (!ReadAll(a.dataFile, &content, &rc)) return rc;
        if (content.size() > regfile::kMaxValueBytes) return Usage("data larger than 4 MiB: " + a.dataFile);
        if (a.type == "binary") {
            data.push_back(HexBytes(content, ""));
        } else if (a.type == "multi_sz") {
            // One string per line.
            size_t from = 0;
            while (from < content.size()) {
                size_t end = content.find('\n', from);
                if (end == std::string::npos) end = content.size();
                data.push_back(content.substr(from, end - from));
                from = end + 1;
            }
        } else {
            if (a.type != "sz" && !content.empty() && content.back() == '\n') content.pop_back();
            data.push_back(content);
        }
    }
    std::string bytes;
    UINT32 type;
    if (a.type == "sz") {
        if (data.size() != 1) return Usage("sz takes exactly one DATA argument");
        type = ZLREG_SZ;
        if (!ArgText(data[0], &bytes, &err)) return Usage(err);
        bytes += '\0';
    } else if (a.type == "multi_sz") {
        type = ZLREG_MULTI_SZ;
        for (const auto& d : data) {
            if (d.empty()) return Usage("multi_sz strings cannot be empty");
            std::string item;
            if (!ArgText(d, &item, &err)) return Usage(err);
            bytes += item + '\0';
        }
        bytes += '\0';
    } else if (a.type == "uint32" || a.type == "uint64") {
        bool wide = a.type == "uint64";
        unsigned long long n = 0;
        if (data.size() != 1 || !ParseNumber(data[0], wide ? ~0ull : 0xFFFFFFFFull, &n))
            return Usage(a.type + " takes one number in range");
        type = wide ? ZLREG_UINT64 : ZLREG_UINT32;
        for (int i = 0; i < (wide ? 8 : 4); ++i) bytes += static_cast<char>(n >> (8 * i));
    } else if (a.type == "binary") {
        type = ZLREG_BINARY;
        std::string digits;
        for (const auto& d : data)
            for (char c : d) {
                if (c == ',' || c == ':' || c == ' ') continue;
                if (!std::isxdigit(static_cast<unsigned char>(c))) return Usage("binary DATA is hexadecimal");
                digits += c;
            }
        if (digits.size() % 2 != 0) return Usage("binary DATA needs whole bytes");
        for (size_t i = 0; i < digits.size(); i += 2)
            bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    } else {
        return Usage(a.type.empty() ? "set needs --type" : "unknown type " + a.type);
    }
    if (bytes.size() > regfile::kMaxValueBytes) return Usage("data larger than 4 MiB");
    Key key;
    KSSTATUS st = ZLRegCreateKeyExA(kRoot, path.c_str(), 0, nullptr, 0, 0, nullptr, key.out(), nullptr);
    if (st != 0) return Fail(st, a.pos[0]);
    st = ZLRegSetValueExA(key.get(), name.c_str(), 0, type, bytes.data(), static_cast<UINT32>(bytes.size()));
    return st == 0 ? kOk : Fail(st, a.pos[0] + ": " + a.pos[1]);
}

int CmdAdd(const Args& a) {
    if (a.pos.size() != 1) return Usage("add needs KEY");
    std::string path, err;
    if (!ArgPath(a.pos[0], &path, &err)) return Usage(err);
    if (path.empty()) return Usage("the root exists already");
    Key key;
    KSSTATUS st = ZLRegCreateKeyExA(kRoot, path.c_str(), 0, nullptr, 0, 0, nullptr, key.out(), nullptr);
    return st == 0 ? kOk : Fail(st, a.pos[0]);
}

int CmdDelete(const Args& a) {
    if (a.pos.empty() || a.pos.size() > 2) return Usage("delete needs KEY [VALUE]");
    std::string path, name, err;
    if (!ArgPath(a.pos[0], &path, &err)) return Usage(err);
    if (a.pos.size() == 2) {
        if (a.recursive || a.allValues) return Usage("--recursive and --all-values apply to keys, not values");
        if (!ArgText(a.pos[1], &name, &err)) return Usage(err);
        Key key;
        KSSTATUS st = ZLRegOpenKeyExA(kRoot, path.c_str(), 0, ZLREG_ACCESS_WRITE, key.out());
        if (st == 0) st = ZLRegDeleteValueA(key.get(), name.c_str());
        return st == 0 ? kOk : Fail(st, a.pos[0] + ": " + a.pos[1]);
    }
    if (a.allValues) {
        if (a.recursive) return Usage("--all-values keeps the key and its subkeys; drop --recursive");
        Txn txn(true);
        KSSTATUS st = txn.status();
        Key key;
        if (st == 0) st = ZLRegOpenKeyExA(kRoot, path.c_str(), 0, ZLREG_ACCESS_ALL, key.out());
        std::vector<Value> values;
        if (st == 0) st = Values(key.get(), &values);
        for (size_t i = 0; st == 0 && i < values.size(); ++i) st = ZLRegDeleteValueA(key.get(), values[i].name.c_str());
        key.Close();
        if (st == 0) st = txn.Commit();
        return st == 0 ? kOk : Fail(st, a.pos[0]);
    }
    if (path.empty()) return Usage("refusing to delete the machine root");
    if (!a.recursive) {
        KSSTATUS st = ZLRegDeleteKeyA(kRoot, path.c_str());
        return st == 0 ? kOk : Fail(st, a.pos[0]);
    }
    Txn txn(true);
    KSSTATUS st = txn.status();
    if (st == 0) st = DeleteTree(path);
    if (st == 0) st = txn.Commit();
    return st == 0 ? kOk : Fail(st, a.pos[0]);
}

int CmdList(const Args& a) {
    if (a.pos.size() != 1) return Usage("list needs KEY");
    std::string path, err;
    if (!ArgPath(a.pos[0], &path, &err)) return Usage(err);
    if (DatabaseMissing()) return kNotFound;
    Txn txn(false);
    Key key;
    KSSTATUS st = txn.status();
    if (st == 0) st = ZLRegOpenKeyExA(kRoot, path.c_str(), 0, ZLREG_ACCESS_READ, key.out());
    std::vector<std::string> names;
    bool top = true;
    auto visit = [&](const std::string& p, HANDLE h) -> KSSTATUS {
        if (!top) names.push_back(p.substr(path.empty() ? 0 : path.size() + 1));
        top = false;
        if (a.recursive) return 0;
        std::string name;
        KSSTATUS s = 0;
        for (UINT32 i = 0; EnumKey(h, i, &name, &s); ++i) names.push_back(name);
        return s;
    };
    if (st == 0) st = Walk(path, key.get(), a.recursive, visit);
    if (st != 0) return Fail(st, a.pos[0]);
    std::string out = a.json ? "[" : "";
    for (size_t i = 0; i < names.size(); ++i)
        out += a.json ? (i ? ", " : "") + JsonString(names[i]) : Show(names[i]) + "\n";
    if (a.json) out += "]\n";
    return WriteOut({}, 0, out);
}

// Lower case of text for case-insensitive matching.
Units FoldUnits(Units u) {
    for (char16_t& c : u) c = static_cast<char16_t>(std::towlower(static_cast<wint_t>(c)));
    return u;
}
bool Contains(const std::string& narrow, const Units& foldedPattern) {
    return FoldUnits(text::Decode(narrow)).find(foldedPattern) != Units::npos;
}

int CmdFind(const Args& a) {
    if (a.pos.empty() || a.pos.size() > 2) return Usage("find needs PATTERN [KEY]");
    Units pattern;
    if (!regfile::FromUtf8(a.pos[0], &pattern)) return Usage("PATTERN is not UTF-8");
    pattern = FoldUnits(pattern);
    std::string path, err;
    if (a.pos.size() == 2 && !ArgPath(a.pos[1], &path, &err)) return Usage(err);
    const bool all = !a.keys && !a.values && !a.data;
    if (DatabaseMissing()) return kNotFound;
    Txn txn(false);
    Key key;
    KSSTATUS st = txn.status();
    if (st == 0) st = ZLRegOpenKeyExA(kRoot, path.c_str(), 0, ZLREG_ACCESS_READ, key.out());
    std::string out;
    size_t matches = 0;
    auto visit = [&](const std::string& p, HANDLE h) -> KSSTATUS {
        std::string lastElem = p.substr(p.rfind('\\') == std::string::npos ? 0 : p.rfind('\\') + 1);
        bool keyHit = (all || a.keys) && !p.empty() && p != path && Contains(lastElem, pattern);
        std::vector<Value> values;
        KSSTATUS s = Values(h, &values);
        std::string lines;
        for (const Value& v : values) {
            bool hit = ((all || a.values) && Contains(v.name, pattern)) ||
                       ((all || a.data) && (v.type == ZLREG_SZ || v.type == ZLREG_MULTI_SZ) &&
                        Contains(TextBody(v), pattern));
            if (hit) {
                lines += ValueLine(v);
                ++matches;
            }
        }
        if (keyHit) ++matches;
        if (keyHit || !lines.empty()) out += Show(p) + "\n" + lines;
        return s;
    };
    if (st == 0) st = Walk(path, key.get(), true, visit);
    if (st != 0) return Fail(st, a.pos.size() == 2 ? a.pos[1] : "find");
    int rc = WriteOut({}, 0, out);
    if (rc != kOk) return rc;
    return matches > 0 ? kOk : kNotFound;
}

// One key of a snapshot: its values by folded name.
struct KeySnap {
    std::string path;  // as stored, relative to the snapshot's top
    std::map<std::string, Value> values;
};
using Snapshot = std::map<std::string, KeySnap>;  // by folded relative path

KSSTATUS TakeSnapshot(const std::string& path, Snapshot* snap) {
    snap->clear();
    Key key;
    KSSTATUS st = ZLRegOpenKeyExA(kRoot, path.c_str(), 0, ZLREG_ACCESS_READ, key.out());
    if (st != 0) return st;
    auto visit = [&](const std::string& p, HANDLE h) -> KSSTATUS {
        std::string rel = p.size() > path.size() ? p.substr(path.empty() ? 0 : path.size() + 1) : "";
        KeySnap& k = (*snap)[FoldAscii(rel)];
        k.path = rel;
        std::vector<Value> values;
        KSSTATUS s = Values(h, &values);
        for (Value& v : values) k.values[FoldAscii(v.name)] = v;
        return s;
    };
    return Walk(path, key.get(), true, visit);
}

// The differences from `a` to `b` as lines: "- " only in a, "+ " only in b.
std::string Diff(const std::string& topA, const Snapshot& a, const std::string& topB, const Snapshot& b) {
    std::string out;
    auto keyLine = [](const char* sign, const std::string& top, const KeySnap& k) {
        return std::string(sign) + "[" + Show(Join(top, k.path)) + "]\n";
    };
    auto valueLine = [](const char* sign, const std::string& top, const KeySnap& k, const Value& v) {
        return std::string(sign) + "[" + Show(Join(top, k.path)) + "]" + ValueLine(v).substr(3);
    };
    for (const auto& [fold, ka] : a) {
        auto it = b.find(fold);
        if (it == b.end()) {
            out += keyLine("- ", topA, ka);
            continue;
        }
        const KeySnap& kb = it->second;
        for (const auto& [vn, va] : ka.values) {
            auto vb = kb.values.find(vn);
            if (vb == kb.values.end()) {
                out += valueLine("- ", topA, ka, va);
            } else if (vb->second.type != va.type || vb->second.data != va.data) {
                out += valueLine("- ", topA, ka, va);
                out += valueLine("+ ", topB, kb, vb->second);
            }
        }
        for (const auto& [vn, vb] : kb.values)
            if (ka.values.find(vn) == ka.values.end()) out += valueLine("+ ", topB, kb, vb);
    }
    for (const auto& [fold, kb] : b) {
        if (a.find(fold) != a.end()) continue;
        out += keyLine("+ ", topB, kb);
        for (const auto& [vn, vb] : kb.values) out += valueLine("+ ", topB, kb, vb);
    }
    return out;
}

int CmdCompare(const Args& a) {
    if (a.pos.size() != 2) return Usage("compare needs KEY1 KEY2");
    std::string p1, p2, err;
    if (!ArgPath(a.pos[0], &p1, &err) || !ArgPath(a.pos[1], &p2, &err)) return Usage(err);
    if (DatabaseMissing()) return kNotFound;
    Txn txn(false);
    Snapshot s1, s2;
    KSSTATUS st = txn.status();
    if (st == 0 && (st = TakeSnapshot(p1, &s1)) != 0) return Fail(st, a.pos[0]);
    if (st == 0 && (st = TakeSnapshot(p2, &s2)) != 0) return Fail(st, a.pos[1]);
    if (st != 0) return Fail(st, "compare");
    std::string out = Diff(p1, s1, p2, s2);
    int rc = WriteOut({}, 0, out);
    return rc != kOk ? rc : out.empty() ? kOk : kNotFound;
}

int CmdCopy(const Args& a) {
    if (a.pos.size() != 2) return Usage("copy needs SRC DST");
    std::string src, dst, err;
    if (!ArgPath(a.pos[0], &src, &err) || !ArgPath(a.pos[1], &dst, &err)) return Usage(err);
    const std::string fs = FoldAscii(src), fd = FoldAscii(dst);
    if (fs == fd || src.empty() || (fd.size() > fs.size() && fd.compare(0, fs.size(), fs) == 0 && fd[fs.size()] == '\\'))
        return Usage("DST must not be SRC or lie inside it");
    Txn txn(true);
    KSSTATUS st = txn.status();
    Snapshot snap;
    if (st == 0) st = TakeSnapshot(src, &snap);
    if (st != 0) return Fail(st, a.pos[0]);
    for (const auto& [fold, k] : snap) {
        Key key;
        st = ZLRegCreateKeyExA(kRoot, Join(dst, k.path).c_str(), 0, nullptr, 0, 0, nullptr, key.out(), nullptr);
        for (auto it = k.values.begin(); st == 0 && it != k.values.end(); ++it)
            st = ZLRegSetValueExA(key.get(), it->second.name.c_str(), 0, it->second.type, it->second.data.data(),
                                  static_cast<UINT32>(it->second.data.size()));
        if (st != 0) return Fail(st, a.pos[1]);
    }
    st = txn.Commit();
    return st == 0 ? kOk : Fail(st, a.pos[1]);
}

// Store types to the format's and back (string data converted between the
// code page and UTF-16LE).
void ExportValue(regfile::Writer& w, const Value& v) {
    const bool unnamed = FoldAscii(v.name) == kDefaultName;
    const Units name = text::Decode(v.name);
    switch (v.type) {
        case ZLREG_SZ: w.Value(unnamed, name, regfile::kSz, regfile::ToUtf16Le(text::Decode(v.data))); break;
        case ZLREG_MULTI_SZ:
            w.Value(unnamed, name, regfile::kMultiSz, regfile::ToUtf16Le(text::Decode(v.data)));
            break;
        case ZLREG_UINT32: w.Value(unnamed, name, regfile::kDword, v.data); break;
        case ZLREG_UINT64: w.Value(unnamed, name, regfile::kQword, v.data); break;
        default: w.Value(unnamed, name, regfile::kBinary, v.data); break;
    }
}

int CmdExport(const Args& a) {
    if (a.pos.empty() || a.pos.size() > 2) return Usage("export needs KEY [FILE]");
    if (a.json && a.utf8) return Usage("--json and --utf8 exclude each other");
    std::string typed, err;
    if (!ArgPath(a.pos[0], &typed, &err)) return Usage(err);
    if (DatabaseMissing()) return kNotFound;
    Txn txn(false);
    KSSTATUS st = txn.status();
    std::string path;
    Key key;
    if (st == 0 && CanonicalPath(typed, &path, &st))
        st = ZLRegOpenKeyExA(kRoot, path.c_str(), 0, ZLREG_ACCESS_READ, key.out());
    regfile::Writer w;
    std::string json = "[";
    auto visit = [&](const std::string& p, HANDLE h) -> KSSTATUS {
        std::vector<Value> values;
        KSSTATUS s = Values(h, &values);
        if (a.json) {
            json += (json.size() > 1 ? ",\n " : "") + std::string("{\"key\": ") + JsonString(p) + ", \"values\": [";
            for (size_t i = 0; i < values.size(); ++i) json += (i ? ", " : "") + JsonValue(values[i]);
            json += "]}";
        } else {
            w.Key(text::Decode(p));
            for (const Value& v : values) ExportValue(w, v);
        }
        return s;
    };
    if (st == 0) st = Walk(path, key.get(), true, visit);
    if (st != 0) return Fail(st, a.pos[0]);
    key.Close();
    txn.Commit();
    return WriteOut(a.pos, 1, a.json ? json + "]\n"
                                     : w.Finish(a.utf8 ? regfile::Encoding::kUtf8 : regfile::Encoding::kUtf16));
}

// One entry of a file turned into store terms; false with a reason when the
// store cannot hold it.
struct Planned {
    const regfile::Entry* entry;
    std::string path, name, data;
    UINT32 type = 0;
};

bool PlanValue(const regfile::Entry& e, bool lenient, const std::string& file, Planned* p, std::string* why) {
    auto textData = [&](UINT32 storeType) {
        if (e.data.size() % 2 != 0) return (*why = "string data needs whole UTF-16 units (even byte count)"), false;
        if (!text::Encode(regfile::FromUtf16Le(e.data), &p->data))
            return (*why = std::string("text cannot be written in code page ") + text::CodePage()), false;
        p->type = storeType;
        return true;
    };
    auto warn = [&](const char* what) {
        std::fprintf(stderr, "zlreg: %s:%d: warning: %s\n", file.c_str(), e.line, what);
    };
    switch (e.type) {
        case regfile::kSz: return textData(ZLREG_SZ);
        case regfile::kMultiSz: return textData(ZLREG_MULTI_SZ);
        case regfile::kDword: p->type = ZLREG_UINT32; p->data = e.data; return true;
        case regfile::kQword: p->type = ZLREG_UINT64; p->data = e.data; return true;
        case regfile::kBinary: p->type = ZLREG_BINARY; p->data = e.data; return true;
        case regfile::kExpandSz:
            if (!lenient) break;
            warn("hex(2) expandable string stored as a plain string (sz)");
            return textData(ZLREG_SZ);
        case regfile::kDwordBigEndian:
            if (!lenient) break;
            warn("hex(5) big-endian dword stored as uint32 in little-endian order");
            p->type = ZLREG_UINT32;
            p->data.assign(e.data.rbegin(), e.data.rend());
            return true;
        default:
            if (!lenient) break;
            warn("type not held by the store; stored as binary");
            p->type = ZLREG_BINARY;
            p->data = e.data;
            return true;
    }
    char msg[160];
    std::snprintf(msg, sizeof msg,
                  "type hex(%x) is not one the store holds (sz, dword, hex, hex(1), hex(3), hex(4), hex(7), "
                  "hex(b)); --lenient stores the nearest type",
                  e.type);
    *why = msg;
    return false;
}

int CmdImport(const Args& a) {
    if (a.pos.size() != 1) return Usage("import needs FILE");
    const std::string& file = a.pos[0];
    std::string bytes;
    int rc = kOk;
    if (!ReadAll(file, &bytes, &rc)) return rc;
    std::vector<regfile::Entry> entries;
    regfile::ParseError perr;
    auto bad = [&](int line, const std::string& why) {
        std::fprintf(stderr, "zlreg: %s:%d: %s\n", file.c_str(), line, why.c_str());
        return kUsage;
    };
    if (!regfile::Parse(bytes.data(), bytes.size(), &entries, &perr)) return bad(perr.line, perr.message);
    // Everything is converted before the store is touched.
    std::vector<Planned> plan;
    plan.reserve(entries.size());
    for (const regfile::Entry& e : entries) {
        Planned p{&e, {}, {}, {}, 0};
        if (!text::Encode(e.path, &p.path))
            return bad(e.line, std::string("key name cannot be written in code page ") + text::CodePage());
        if (e.kind == regfile::Entry::kValue || e.kind == regfile::Entry::kDeleteValue) {
            if (e.unnamed)
                p.name = kDefaultName;
            else if (!text::Encode(e.name, &p.name))
                return bad(e.line, std::string("value name cannot be written in code page ") + text::CodePage());
        }
        std::string why;
        if (e.kind == regfile::Entry::kValue && !PlanValue(e, a.lenient, file, &p, &why)) return bad(e.line, why);
        plan.push_back(std::move(p));
    }
    Txn txn(true);
    KSSTATUS st = txn.status();
    if (st != 0) return Fail(st, "import");
    Key key;
    for (const Planned& p : plan) {
        const char* what = "";
        switch (p.entry->kind) {
            case regfile::Entry::kKey:
                what = "cannot create the key";
                st = ZLRegCreateKeyExA(kRoot, p.path.c_str(), 0, nullptr, 0, 0, nullptr, key.out(), nullptr);
                break;
            case regfile::Entry::kDeleteKey:
                what = "cannot delete the key";
                key.Close();
                st = DeleteTree(p.path);
                if (KS_STATUS_CODE(st) == ZLREG_E_KEY_NOT_FOUND) st = 0;  // already gone
                break;
            case regfile::Entry::kValue:
                what = "cannot set the value";
                st = ZLRegSetValueExA(key.get(), p.name.c_str(), 0, p.type, p.data.data(),
                                      static_cast<UINT32>(p.data.size()));
                break;
            case regfile::Entry::kDeleteValue:
                what = "cannot delete the value";
                st = ZLRegDeleteValueA(key.get(), p.name.c_str());
                if (KS_STATUS_CODE(st) == ZLREG_E_VALUE_NOT_FOUND) st = 0;
                break;
        }
        if (st != 0) {
            // Nothing of the file stays: the transaction is rolled back.
            key.Close();
            int code = Fail(st, file + ":" + std::to_string(p.entry->line) + ": " + what);
            return code == kNotFound ? kUsage : code;
        }
    }
    key.Close();
    st = txn.Commit();
    return st == 0 ? kOk : Fail(st, "import " + file);
}

int CmdWatch(const Args& a) {
    if (a.pos.size() != 1) return Usage("watch needs KEY");
    std::string path, err;
    if (!ArgPath(a.pos[0], &path, &err)) return Usage(err);
    if (DatabaseMissing()) return kNotFound;
    Snapshot before;
    KSSTATUS st = 0;
    {
        Txn txn(false);
        st = txn.status();
        if (st == 0) st = TakeSnapshot(path, &before);
    }
    if (st != 0 && KS_STATUS_CODE(st) != ZLREG_E_KEY_NOT_FOUND) return Fail(st, a.pos[0]);
    UINT64 seen = 0;
    if ((st = ZLRegGetChangeCounter(&seen)) != 0) return Fail(st, a.pos[0]);
    std::fprintf(stdout, "watching [%s] (interrupt to stop)\n", Show(path).c_str());
    std::fflush(stdout);
    const struct timespec pause = {0, static_cast<long>(kWatchIntervalMs) * 1000000L};
    while (true) {
        nanosleep(&pause, nullptr);
        UINT64 now = 0;
        if ((st = ZLRegGetChangeCounter(&now)) != 0) return Fail(st, a.pos[0]);
        if (now == seen) continue;
        seen = now;
        Snapshot after;
        {
            Txn txn(false);
            st = txn.status();
            if (st == 0) st = TakeSnapshot(path, &after);
        }
        if (st != 0 && KS_STATUS_CODE(st) != ZLREG_E_KEY_NOT_FOUND) return Fail(st, a.pos[0]);
        std::string diff = Diff(path, before, path, after);
        if (!diff.empty()) {
            std::fputs(diff.c_str(), stdout);
            std::fflush(stdout);
        }
        before.swap(after);
    }
}

// ---- the verb table: dispatch, --help and completion -----------------------------------

struct Verb {
    const char* name;
    int (*run)(const Args&);
    unsigned flags;
    const char* synopsis;
    const char* help;
};

const Verb kVerbs[] = {
    {"query", CmdQuery, kFRecursive | kFJson, "query KEY [VALUE] [--recursive] [--json]",
     "Prints KEY, its values (name, type, data) and its subkeys; with VALUE that value only;\n"
     "with --recursive every key below too. Text is shown in UTF-8; control characters and\n"
     "bytes the code page cannot decode are escaped (\\n, \\t, \\0, \\xHH).\n"},
    {"set", CmdSet, kFType | kFDataFile,
     "set KEY VALUE --type TYPE [DATA...] [--data-file FILE|-]",
     "Creates or replaces VALUE (created with KEY when missing). TYPE:\n"
     "  sz        one DATA argument (UTF-8 text, stored in the OEM code page with its NUL)\n"
     "  multi_sz  each DATA argument is one (non-empty) string of the list\n"
     "  uint32    one number, decimal or 0x hexadecimal\n"
     "  uint64    one number, decimal or 0x hexadecimal\n"
     "  binary    hexadecimal bytes, e.g. 0a1b2c or 0a,1b,2c (several arguments are joined)\n"
     "--data-file takes the data from FILE (\"-\": standard input): raw bytes for binary, one\n"
     "string per line for multi_sz, the text for sz. Values hold at most 4 MiB.\n"
     "Use -- before DATA that begins with '-'.\n"},
    {"add", CmdAdd, 0, "add KEY", "Creates KEY (and missing parents) without values; an existing KEY is fine.\n"},
    {"delete", CmdDelete, kFRecursive | kFAllValues, "delete KEY [VALUE] [--recursive | --all-values]",
     "Deletes VALUE of KEY, or KEY itself. A key with subkeys needs --recursive;\n"
     "--all-values deletes every value of KEY and keeps the key and its subkeys.\n"},
    {"list", CmdList, kFRecursive | kFJson, "list KEY [--recursive] [--json]",
     "Prints the subkeys of KEY, one per line (with --recursive, paths relative to KEY).\n"},
    {"find", CmdFind, kFFind, "find PATTERN [KEY] [--keys] [--values] [--data]",
     "Searches KEY (default: everything) for PATTERN, ignoring case, in key names, value names\n"
     "and string data (all three unless some are chosen). Exit 1 when nothing matches.\n"},
    {"copy", CmdCopy, 0, "copy SRC DST",
     "Copies SRC's values and subtree into DST (created when missing) in one transaction.\n"},
    {"compare", CmdCompare, 0, "compare KEY1 KEY2",
     "Compares two subtrees: lines \"- \" only in (or different in) KEY1, \"+ \" in KEY2.\n"
     "Exit 0 when they are the same, 1 when they differ.\n"},
    {"export", CmdExport, kFUtf8 | kFJson, "export KEY [FILE|-] [--utf8 | --json]",
     "Writes KEY and its subtree in the registry export format (\"Windows Registry Editor\n"
     "Version 5.00\", UTF-16LE with a byte-order mark; --utf8 for UTF-8) to FILE, or to\n"
     "standard output for none or \"-\", from one consistent snapshot. The value named\n"
     "\"default\" is the unnamed value @.\n"},
    {"import", CmdImport, kFLenient, "import FILE|- [--lenient]",
     "Applies a registry export file (version 5 or REGEDIT4; UTF-16LE with BOM or UTF-8;\n"
     "CRLF or LF) in one transaction: [KEY] creates, [-KEY] deletes a subtree, \"name\"=-\n"
     "deletes a value. Only HKEY_LOCAL_MACHINE (HKLM) exists here. A bad line, or a type the\n"
     "store does not hold, is reported as FILE:LINE and nothing is imported; --lenient\n"
     "stores such types as the nearest one (hex(2) as sz) with a warning.\n"},
    {"watch", CmdWatch, 0, "watch KEY",
     "Prints the changes below KEY made by any other process until interrupted, checking\n"
     "the store's change counter twice a second.\n"},
};

int Help(FILE* to) {
    std::fputs("usage: zlreg VERB [ARGS]   (KEY is a path below the machine root, e.g. "
               "Software\\Zorvik\\App;\n                           "
               "an HKEY_LOCAL_MACHINE\\ or HKLM\\ prefix is accepted)\n",
               to);
    for (const Verb& v : kVerbs) std::fprintf(to, "  zlreg %s\n", v.synopsis);
    std::fputs("  zlreg --version\n"
               "VALUE \"\" is the empty name; the database is $ZLREG_DATABASE or the default.\n"
               "Exit status: 0 ok, 1 not found, 2 usage, 3 store error. zlreg VERB --help for more.\n",
               to);
    return to == stdout ? kOk : kUsage;
}

bool ParseArgs(int argc, char** argv, unsigned flags, Args* a, std::string* err) {
    bool optionsDone = false;
    for (int i = 0; i < argc; ++i) {
        std::string s = argv[i];
        auto allowed = [&](unsigned f) { return (flags & f) != 0; };
        if (optionsDone || s.size() < 2 || s[0] != '-') {
            a->pos.push_back(s);
        } else if (s == "--") {
            optionsDone = true;
        } else if (s == "--help" || s == "-h") {
            a->help = true;
        } else if (allowed(kFRecursive) && (s == "--recursive" || s == "-r")) {
            a->recursive = true;
        } else if (allowed(kFJson) && s == "--json") {
            a->json = true;
        } else if (allowed(kFFind) && s == "--keys") {
            a->keys = true;
        } else if (allowed(kFFind) && s == "--values") {
            a->values = true;
        } else if (allowed(kFFind) && s == "--data") {
            a->data = true;
        } else if (allowed(kFAllValues) && s == "--all-values") {
            a->allValues = true;
        } else if (allowed(kFUtf8) && s == "--utf8") {
            a->utf8 = true;
        } else if (allowed(kFLenient) && s == "--lenient") {
            a->lenient = true;
        } else if (allowed(kFType) && (s == "--type" || s.rfind("--type=", 0) == 0)) {
            if (s == "--type" && i + 1 >= argc) return (*err = "--type needs a value"), false;
            a->type = s == "--type" ? argv[++i] : s.substr(7);
        } else if (allowed(kFDataFile) && (s == "--data-file" || s.rfind("--data-file=", 0) == 0)) {
            if (s == "--data-file" && i + 1 >= argc) return (*err = "--data-file needs a file"), false;
            a->dataFile = s == "--data-file" ? argv[++i] : s.substr(12);
            a->haveDataFile = true;
        } else {
            return (*err = "unknown option " + s), false;
        }
    }
    return true;
}

int Run(int argc, char** argv) {
    if (argc < 2) return Help(stderr);
    std::string verb = argv[1];
    if (verb == "--help" || verb == "-h" || verb == "help") return Help(stdout);
    if (verb == "--version") {
        std::printf("zlreg %s\n", ZLREG_TOOL_VERSION);
        return kOk;
    }
    if (verb == "--verbs") {  // for the shell completion
        for (const Verb& v : kVerbs) std::printf("%s\n", v.name);
        return kOk;
    }
    for (const Verb& v : kVerbs) {
        if (verb != v.name) continue;
        Args a;
        std::string err;
        if (!ParseArgs(argc - 2, argv + 2, v.flags, &a, &err)) return Usage(err);
        if (a.help) {
            std::printf("usage: zlreg %s\n%s", v.synopsis, v.help);
            return kOk;
        }
        UINT32 need = 0;
        ZLRegGetDatabasePath(nullptr, 0, &need);
        std::vector<char> buf(need + 1);
        if (ZLRegGetDatabasePath(buf.data(), static_cast<UINT32>(buf.size()), nullptr) == 0) g_db = buf.data();
        return v.run(a);
    }
    return Usage("unknown verb " + verb);
}

}  // namespace

int main(int argc, char** argv) {
    if (!text::Startup()) {
        std::fprintf(stderr, "zlreg: cannot set up the code page (out of memory)\n");
        return kStoreError;
    }
    int rc = Run(argc, argv);
    text::Shutdown();
    return rc;
}
