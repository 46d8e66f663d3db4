// zlreg: arguments, errors and store access shared by the verbs.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "text.h"
#include "tool.h"

namespace zltool {

std::string g_db;  // the database file, for messages

int Usage(const std::string& message) {
    std::fprintf(stderr, "zlreg: %s (try zlreg --help)\n", message.c_str());
    return kUsage;
}

namespace {

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


}  // namespace

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

// Every value of one key.
KSSTATUS Values(HANDLE h, std::vector<Value>* out) {
    out->clear();
    Value v;
    KSSTATUS st = 0;
    while (EnumValue(h, static_cast<UINT32>(out->size()), &v, &st)) out->push_back(v);
    return st;
}

// Deletes every subkey below `h` (children first).
namespace {

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


}  // namespace

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

}  // namespace zltool
