// zlreg - command-line access to the configuration store.
//
// Exit status: 0 success, 1 not found, 2 usage error (also a refused
// request such as deleting a key that has subkeys without --recursive, or a
// malformed import file), 3 store error (busy, permission, damaged
// database). Errors are one line on stderr.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "regfile.h"
#include "zlreg.h"

namespace {

enum Exit { kOk = 0, kNotFound = 1, kUsage = 2, kStoreError = 3 };

const HANDLE kRoot = ZLREG_HKEY_LOCAL_MACHINE;

const char kUsageText[] =
    "usage: zlreg VERB [ARGS]   (KEY is a path below the machine root, e.g. Software\\Zorvik\\App)\n"
    "  query KEY [VALUE]                          show a key's values and subkeys, or one value\n"
    "  set KEY VALUE --type TYPE [DATA...]        create or replace a value (creates KEY)\n"
    "  delete KEY [VALUE] [--recursive]           delete a value, a key, or a key and its subtree\n"
    "  list KEY [--recursive]                     list subkeys\n"
    "  export KEY [FILE]                          write KEY and its subtree as text\n"
    "  import FILE                                read a file written by export (one transaction)\n"
    "VALUE \"\" is the key's unnamed value. The database: $ZLREG_DATABASE or the default.\n"
    "Exit status: 0 ok, 1 not found, 2 usage, 3 store error.\n";

const char* const kVerbHelp[][2] = {
    {"query",
     "usage: zlreg query KEY [VALUE]\n"
     "Without VALUE prints [KEY], its values in export form and its subkeys as [KEY\\Sub].\n"
     "With VALUE prints that value's line, e.g. \"Level\"=dword:00000003.\n"},
    {"set",
     "usage: zlreg set KEY VALUE --type sz|multi_sz|uint32|uint64|binary [DATA...]\n"
     "  sz        one DATA argument, stored with its NUL\n"
     "  multi_sz  each DATA argument is one (non-empty) string of the list\n"
     "  uint32    one number, decimal or 0x hexadecimal\n"
     "  uint64    one number, decimal or 0x hexadecimal\n"
     "  binary    hexadecimal bytes, e.g. 0a1b2c or 0a,1b,2c (several arguments are joined)\n"
     "KEY is created when missing. Use -- before DATA that begins with '-'.\n"},
    {"delete",
     "usage: zlreg delete KEY [VALUE] [--recursive]\n"
     "Deletes VALUE of KEY, or KEY itself. A key with subkeys needs --recursive.\n"},
    {"list", "usage: zlreg list KEY [--recursive]\nPrints the subkeys of KEY, one per line.\n"},
    {"export",
     "usage: zlreg export KEY [FILE]\n"
     "Writes KEY, its subtree and all values as text to FILE (default: standard output),\n"
     "from one consistent snapshot of the store.\n"},
    {"import",
     "usage: zlreg import FILE\n"
     "Creates the keys and sets the values of FILE (\"-\": standard input) in one transaction;\n"
     "a malformed file changes nothing.\n"},
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
        case ZLREG_E_INVALID_ARG: return "invalid name, path or data";
        case ZLREG_E_HAS_SUBKEYS: return "key has subkeys (use --recursive)";
        case ZLREG_E_ACCESS_DENIED: return "access denied";
        case ZLREG_E_STORE_BUSY: return "store is busy";
        case ZLREG_E_STORE_CORRUPT: return "store database is damaged or not a store";
        case ZLREG_E_STORE_PERMISSION: return "store database cannot be opened or written";
        case ZLREG_E_STORE_UNSAFE: return "store database path refused (a directory or another user's link)";
        case ZLREG_E_NO_MEMORY: return "out of memory";
        default: return "store error";
    }
}

// Reports a failed store call and turns it into the exit status.
int Fail(KSSTATUS st, const std::string& what) {
    UINT32 code = KS_STATUS_CODE(st);
    std::fprintf(stderr, "zlreg: %s: %s (status %08X)\n", what.c_str(), Describe(code), st);
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
    ~Key() {
        if (h_ != nullptr) ZLRegCloseKey(h_);
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    HANDLE* out() { return &h_; }
    HANDLE get() const { return h_; }

private:
    HANDLE h_ = nullptr;
};

// Arguments of one verb: positionals and the flags it allows.
struct Args {
    std::vector<std::string> pos;
    bool recursive = false;
    bool help = false;
    std::string type;
};

bool ParseArgs(int argc, char** argv, bool allowRecursive, bool allowType, Args* a,
               std::string* err) {
    bool optionsDone = false;
    for (int i = 0; i < argc; ++i) {
        std::string s = argv[i];
        if (!optionsDone && s == "--") {
            optionsDone = true;
        } else if (!optionsDone && (s == "--help" || s == "-h")) {
            a->help = true;
        } else if (!optionsDone && allowRecursive && (s == "--recursive" || s == "-r")) {
            a->recursive = true;
        } else if (!optionsDone && allowType && s == "--type") {
            if (i + 1 >= argc) return (*err = "--type needs a value"), false;
            a->type = argv[++i];
        } else if (!optionsDone && allowType && s.rfind("--type=", 0) == 0) {
            a->type = s.substr(7);
        } else if (!optionsDone && s.size() > 1 && s[0] == '-') {
            return (*err = "unknown option " + s), false;
        } else {
            a->pos.push_back(s);
        }
    }
    return true;
}

// Reads the index-th subkey name; false at the end. *st holds a failure.
bool EnumKey(HANDLE h, UINT32 index, std::string* name, UINT64* time, KSSTATUS* st) {
    std::vector<char> buf(ZLREG_MAX_KEY_NAME + 1);
    while (true) {
        INT32 len = static_cast<INT32>(buf.size());
        *st = ZLRegEnumKeyExA(h, index, buf.data(), &len, nullptr, nullptr, nullptr, time);
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

bool EnumValue(HANDLE h, UINT32 index, regfile::Value* v, KSSTATUS* st) {
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

bool QueryValue(HANDLE h, const std::string& name, regfile::Value* v, KSSTATUS* st) {
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
        *v = regfile::Value{name, type, data};
        return true;
    }
    return false;
}

// The stored spelling of a path typed in any case, with empty elements
// dropped; so that an export names keys exactly as the store does.
bool CanonicalPath(const std::string& typed, std::string* out, KSSTATUS* st) {
    out->clear();
    size_t pos = 0;
    while (pos <= typed.size()) {
        size_t end = typed.find('\\', pos);
        if (end == std::string::npos) end = typed.size();
        std::string elem = typed.substr(pos, end - pos);
        pos = end + 1;
        if (elem.empty()) continue;
        Key parent;
        *st = ZLRegOpenKeyExA(kRoot, out->c_str(), 0, ZLREG_ACCESS_READ, parent.out());
        if (*st != 0) return false;
        std::string found;
        std::string name;
        UINT64 t = 0;
        for (UINT32 i = 0; EnumKey(parent.get(), i, &name, &t, st); ++i) {
            if (name.size() == elem.size() &&
                std::equal(name.begin(), name.end(), elem.begin(), [](char a, char b) {
                    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
                    return lower(a) == lower(b);
                })) {
                found = name;
                break;
            }
        }
        if (*st != 0) return false;
        if (found.empty()) {
            *st = ZLREG_STATUS(ZLREG_E_KEY_NOT_FOUND);
            return false;
        }
        if (!out->empty()) *out += '\\';
        *out += found;
    }
    return true;
}

int CmdQuery(const Args& a) {
    if (a.pos.empty() || a.pos.size() > 2) return Usage("query needs KEY [VALUE]");
    Key key;
    KSSTATUS st = ZLRegOpenKeyExA(kRoot, a.pos[0].c_str(), 0, ZLREG_ACCESS_READ, key.out());
    if (st != 0) return Fail(st, a.pos[0]);
    regfile::Value v;
    if (a.pos.size() == 2) {
        if (!QueryValue(key.get(), a.pos[1], &v, &st)) return Fail(st, a.pos[0] + ": " + a.pos[1]);
        std::fputs(regfile::FormatValue(v).c_str(), stdout);
        return kOk;
    }
    std::string out = regfile::FormatKey(a.pos[0]);
    for (UINT32 i = 0; EnumValue(key.get(), i, &v, &st); ++i) out += regfile::FormatValue(v);
    if (st != 0) return Fail(st, a.pos[0]);
    std::string name;
    UINT64 t = 0;
    for (UINT32 i = 0; EnumKey(key.get(), i, &name, &t, &st); ++i)
        out += regfile::FormatKey(a.pos[0] + "\\" + name);
    if (st != 0) return Fail(st, a.pos[0]);
    std::fputs(out.c_str(), stdout);
    return kOk;
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
    std::vector<std::string> data(a.pos.begin() + 2, a.pos.end());
    std::string bytes;
    UINT32 type;
    if (a.type == "sz") {
        if (data.size() != 1) return Usage("sz takes exactly one DATA argument");
        type = ZLREG_SZ;
        bytes = data[0] + '\0';
    } else if (a.type == "multi_sz") {
        type = ZLREG_MULTI_SZ;
        for (const auto& d : data) {
            if (d.empty()) return Usage("multi_sz strings cannot be empty");
            bytes += d + '\0';
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
    Key key;
    KSSTATUS st = ZLRegCreateKeyExA(kRoot, a.pos[0].c_str(), 0, nullptr, 0, 0, nullptr, key.out(),
                                    nullptr);
    if (st != 0) return Fail(st, a.pos[0]);
    st = ZLRegSetValueExA(key.get(), a.pos[1].c_str(), 0, type, bytes.data(),
                          static_cast<UINT32>(bytes.size()));
    if (st != 0) return Fail(st, a.pos[0] + ": " + a.pos[1]);
    return kOk;
}

// Deletes every subkey below `h` (children first), then nothing else.
KSSTATUS DeleteSubtree(HANDLE h) {
    KSSTATUS st = 0;
    std::string name;
    UINT64 t = 0;
    // Always index 0: the list shrinks as children go.
    while (EnumKey(h, 0, &name, &t, &st)) {
        Key child;
        st = ZLRegOpenKeyExA(h, name.c_str(), 0, ZLREG_ACCESS_ALL, child.out());
        if (st == 0) st = DeleteSubtree(child.get());
        if (st == 0) st = ZLRegDeleteKeyA(h, name.c_str());
        if (st != 0) return st;
    }
    return st;
}

int CmdDelete(const Args& a) {
    if (a.pos.empty() || a.pos.size() > 2) return Usage("delete needs KEY [VALUE]");
    if (a.pos.size() == 2) {
        if (a.recursive) return Usage("--recursive applies to keys, not values");
        Key key;
        KSSTATUS st = ZLRegOpenKeyExA(kRoot, a.pos[0].c_str(), 0, ZLREG_ACCESS_WRITE, key.out());
        if (st == 0) st = ZLRegDeleteValueA(key.get(), a.pos[1].c_str());
        return st == 0 ? kOk : Fail(st, a.pos[0] + ": " + a.pos[1]);
    }
    if (a.pos[0].find_first_not_of('\\') == std::string::npos)
        return Usage("refusing to delete the machine root");
    if (!a.recursive) {
        KSSTATUS st = ZLRegDeleteKeyA(kRoot, a.pos[0].c_str());
        return st == 0 ? kOk : Fail(st, a.pos[0]);
    }
    KSSTATUS st = ZLRegBeginTransaction(TRUE);
    if (st != 0) return Fail(st, a.pos[0]);
    {
        Key key;
        st = ZLRegOpenKeyExA(kRoot, a.pos[0].c_str(), 0, ZLREG_ACCESS_ALL, key.out());
        if (st == 0) st = DeleteSubtree(key.get());
    }
    if (st == 0) st = ZLRegDeleteKeyA(kRoot, a.pos[0].c_str());
    if (st == 0) st = ZLRegCommitTransaction();
    else ZLRegRollbackTransaction();
    return st == 0 ? kOk : Fail(st, a.pos[0]);
}

// Visits `path` and its subtree in enumeration order (parents first).
template <typename Visit>
KSSTATUS Walk(const std::string& path, HANDLE h, bool recurse, Visit& visit) {
    KSSTATUS st = visit(path, h);
    if (st != 0 || !recurse) return st;
    std::string name;
    UINT64 t = 0;
    for (UINT32 i = 0; EnumKey(h, i, &name, &t, &st); ++i) {
        Key child;
        st = ZLRegOpenKeyExA(h, name.c_str(), 0, ZLREG_ACCESS_READ, child.out());
        if (st == 0) st = Walk(path.empty() ? name : path + "\\" + name, child.get(), true, visit);
        if (st != 0) return st;
    }
    return st;
}

int CmdList(const Args& a) {
    if (a.pos.size() != 1) return Usage("list needs KEY");
    Key key;
    KSSTATUS st = ZLRegBeginTransaction(FALSE);
    if (st == 0) st = ZLRegOpenKeyExA(kRoot, a.pos[0].c_str(), 0, ZLREG_ACCESS_READ, key.out());
    std::string out;
    bool top = true;
    auto visit = [&](const std::string& path, HANDLE h) -> KSSTATUS {
        if (!top) out += path + "\n";
        top = false;
        if (a.recursive) return 0;
        std::string name;
        UINT64 t = 0;
        KSSTATUS s = 0;
        for (UINT32 i = 0; EnumKey(h, i, &name, &t, &s); ++i) out += name + "\n";
        return s;
    };
    if (st == 0) st = Walk(a.pos[0], key.get(), a.recursive, visit);
    ZLRegCommitTransaction();
    if (st != 0) return Fail(st, a.pos[0]);
    std::fputs(out.c_str(), stdout);
    return kOk;
}

int CmdExport(const Args& a) {
    if (a.pos.empty() || a.pos.size() > 2) return Usage("export needs KEY [FILE]");
    KSSTATUS st = ZLRegBeginTransaction(FALSE);
    if (st != 0) return Fail(st, a.pos[0]);
    std::string path;
    std::string out = std::string(regfile::kHeader) + "\n";
    Key key;
    if (CanonicalPath(a.pos[0], &path, &st))
        st = ZLRegOpenKeyExA(kRoot, path.c_str(), 0, ZLREG_ACCESS_READ, key.out());
    auto visit = [&](const std::string& p, HANDLE h) -> KSSTATUS {
        out += "\n" + regfile::FormatKey(p);
        regfile::Value v;
        KSSTATUS s = 0;
        for (UINT32 i = 0; EnumValue(h, i, &v, &s); ++i) out += regfile::FormatValue(v);
        return s;
    };
    if (st == 0) st = Walk(path, key.get(), true, visit);
    ZLRegCommitTransaction();
    if (st != 0) return Fail(st, a.pos[0]);
    FILE* f = a.pos.size() == 2 ? std::fopen(a.pos[1].c_str(), "wb") : stdout;
    if (f == nullptr) {
        std::fprintf(stderr, "zlreg: %s: %s\n", a.pos[1].c_str(), std::strerror(errno));
        return kUsage;
    }
    bool ok = std::fwrite(out.data(), 1, out.size(), f) == out.size();
    ok = (f == stdout ? std::fflush(f) : std::fclose(f)) == 0 && ok;
    if (!ok) {
        std::fprintf(stderr, "zlreg: cannot write the export: %s\n", std::strerror(errno));
        return kStoreError;
    }
    return kOk;
}

// Collects a parsed file so that nothing is written unless all of it parses.
class Collect : public regfile::Sink {
public:
    struct Item {
        bool isKey;
        std::string path;
        regfile::Value value;
    };
    bool Key(const std::string& path) override {
        items.push_back({true, path, {}});
        return true;
    }
    bool Value(const regfile::Value& v) override {
        items.push_back({false, {}, v});
        return true;
    }
    std::vector<Item> items;
};

int CmdImport(const Args& a) {
    if (a.pos.size() != 1) return Usage("import needs FILE");
    FILE* f = a.pos[0] == "-" ? stdin : std::fopen(a.pos[0].c_str(), "rb");
    if (f == nullptr) {
        std::fprintf(stderr, "zlreg: %s: %s\n", a.pos[0].c_str(), std::strerror(errno));
        return kNotFound;
    }
    std::string text;
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    if (f != stdin) std::fclose(f);
    Collect c;
    regfile::ParseError err;
    if (!regfile::Parse(text.data(), text.size(), c, &err)) {
        std::fprintf(stderr, "zlreg: %s:%d: %s\n", a.pos[0].c_str(), err.line, err.message.c_str());
        return kUsage;
    }
    KSSTATUS st = ZLRegBeginTransaction(TRUE);
    if (st != 0) return Fail(st, "import");
    std::string where;
    {
        Key key;
        std::string keyPath;
        for (const auto& item : c.items) {
            if (item.isKey) {
                ZLRegCloseKey(key.get());
                *key.out() = nullptr;
                keyPath = item.path;
                where = keyPath;
                st = ZLRegCreateKeyExA(kRoot, keyPath.c_str(), 0, nullptr, 0, 0, nullptr,
                                       key.out(), nullptr);
            } else {
                where = keyPath + ": " + item.value.name;
                st = ZLRegSetValueExA(key.get(), item.value.name.c_str(), 0, item.value.type,
                                      item.value.data.data(),
                                      static_cast<UINT32>(item.value.data.size()));
            }
            if (st != 0) break;
        }
    }
    if (st == 0) st = ZLRegCommitTransaction();
    else ZLRegRollbackTransaction();
    return st == 0 ? kOk : Fail(st, where.empty() ? "import" : where);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return Usage("missing verb");
    std::string verb = argv[1];
    if (verb == "--help" || verb == "-h" || verb == "help") {
        std::fputs(kUsageText, stdout);
        return kOk;
    }
    struct Verb {
        const char* name;
        int (*run)(const Args&);
        bool recursive;
        bool type;
    } verbs[] = {
        {"query", CmdQuery, false, false},   {"set", CmdSet, false, true},
        {"delete", CmdDelete, true, false},  {"list", CmdList, true, false},
        {"export", CmdExport, false, false}, {"import", CmdImport, false, false},
    };
    for (const Verb& v : verbs) {
        if (verb != v.name) continue;
        Args a;
        std::string err;
        if (!ParseArgs(argc - 2, argv + 2, v.recursive, v.type, &a, &err)) return Usage(err);
        if (a.help) {
            for (const auto& h : kVerbHelp)
                if (verb == h[0]) std::fputs(h[1], stdout);
            return kOk;
        }
        return v.run(a);
    }
    return Usage("unknown verb " + verb);
}
