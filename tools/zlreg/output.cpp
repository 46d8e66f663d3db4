// zlreg: showing values as text and JSON, writing the output and reading
// input files.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "text.h"
#include "tool.h"

namespace zltool {

// ---- showing values ------------------------------------------------------------

namespace {

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

}  // namespace

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
namespace {

bool IsNumber(const Value& v) {
    return (v.type == ZLREG_UINT32 && v.data.size() == 4) || (v.type == ZLREG_UINT64 && v.data.size() == 8);
}

std::string ShowData(const Value& v) {
    if (v.type == ZLREG_SZ || v.type == ZLREG_MULTI_SZ) return Show(TextBody(v));
    if (IsNumber(v)) return std::to_string(LittleEndian(v.data));
    return HexBytes(v.data, " ");
}

}  // namespace

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

}  // namespace zltool
