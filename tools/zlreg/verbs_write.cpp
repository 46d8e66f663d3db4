// zlreg: the verbs that change the store (set, add, delete, copy, import).
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "regfile.h"
#include "text.h"
#include "tool.h"

namespace zltool {

namespace {

bool ParseNumber(const std::string& s, unsigned long long max, unsigned long long* v) {
    if (s.empty() || s[0] == '-' || s[0] == '+' || s[0] == ' ') return false;
    errno = 0;
    char* end = nullptr;
    *v = std::strtoull(s.c_str(), &end, s.rfind("0x", 0) == 0 || s.rfind("0X", 0) == 0 ? 16 : 10);
    return errno == 0 && end != nullptr && *end == '\0' && *v <= max;
}


}  // namespace

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

namespace {

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


}  // namespace

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

}  // namespace zltool
