// zlreg: the verbs that read the store (query, list, find, compare, export,
// watch) and the subtree snapshots that compare, copy and watch share.
#include <time.h>

#include <cstdio>
#include <cwctype>
#include <map>
#include <string>
#include <vector>

#include "regfile.h"
#include "text.h"
#include "tool.h"

namespace zltool {

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

namespace {

// Lower case of text for case-insensitive matching.
Units FoldUnits(Units u) {
    for (char16_t& c : u) c = static_cast<char16_t>(std::towlower(static_cast<wint_t>(c)));
    return u;
}
bool Contains(const std::string& narrow, const Units& foldedPattern) {
    return FoldUnits(text::Decode(narrow)).find(foldedPattern) != Units::npos;
}

}  // namespace

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

namespace {

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


}  // namespace

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

}  // namespace zltool
