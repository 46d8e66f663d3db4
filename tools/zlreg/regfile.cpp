// regfile.cpp - writer and parser of the store's text form (see regfile.h).
#include "regfile.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace regfile {

const char kHeader[] = "ZLREG Export 1";

namespace {

constexpr uint32_t kBinary = 0, kUint32 = 1, kSz = 2, kMulti = 3, kUint64 = 4;
constexpr size_t kHexPerLine = 24;
const char kDigits[] = "0123456789abcdef";

void AppendHexByte(std::string& out, unsigned char b) {
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
}

std::string Quote(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '\\': out += "\\\\"; break;
            case '"': out += "\\\""; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c >= 0x7F) {
                    out += "\\x";
                    AppendHexByte(out, c);
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

// A string value in its typed form: text, then exactly one NUL.
bool IsPlainString(const std::string& d) {
    return !d.empty() && d.back() == '\0' && d.find('\0') == d.size() - 1;
}

// A list in its typed form: non-empty items each with a NUL, then a NUL.
bool SplitList(const std::string& d, std::vector<std::string>* items) {
    if (d.empty() || d.back() != '\0') return false;
    std::string body = d.substr(0, d.size() - 1);
    items->clear();
    size_t pos = 0;
    while (pos < body.size()) {
        size_t end = body.find('\0', pos);
        if (end == std::string::npos || end == pos) return false;
        items->push_back(body.substr(pos, end - pos));
        pos = end + 1;
    }
    return true;
}

uint64_t LittleEndian(const std::string& d) {
    uint64_t v = 0;
    for (size_t i = d.size(); i-- > 0;) v = v << 8 | static_cast<unsigned char>(d[i]);
    return v;
}

std::string HexData(const std::string& prefix, const std::string& d) {
    std::string out = prefix;
    for (size_t i = 0; i < d.size(); ++i) {
        AppendHexByte(out, static_cast<unsigned char>(d[i]));
        if (i + 1 < d.size()) {
            out += ',';
            if ((i + 1) % kHexPerLine == 0) out += "\\\n  ";
        }
    }
    return out;
}

// ---- parsing ------------------------------------------------------------

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

class Cursor {
public:
    Cursor(const std::string& s) : s_(s) {}
    bool AtEnd() const { return pos_ >= s_.size(); }
    char Peek() const { return AtEnd() ? '\0' : s_[pos_]; }
    bool Take(char c) {
        if (Peek() != c || AtEnd()) return false;
        ++pos_;
        return true;
    }
    bool TakeWord(const char* w) {
        size_t n = std::strlen(w);
        if (s_.compare(pos_, n, w) != 0) return false;
        pos_ += n;
        return true;
    }
    void SkipSpaces() {
        while (!AtEnd() && (s_[pos_] == ' ' || s_[pos_] == '\t')) ++pos_;
    }
    // A quoted string with the escapes of Quote().
    bool Quoted(std::string* out, std::string* why) {
        if (!Take('"')) return (*why = "expected '\"'"), false;
        out->clear();
        while (!AtEnd()) {
            char c = s_[pos_++];
            if (c == '"') return true;
            if (c != '\\') {
                out->push_back(c);
                continue;
            }
            if (AtEnd()) break;
            char e = s_[pos_++];
            switch (e) {
                case '\\': out->push_back('\\'); break;
                case '"': out->push_back('"'); break;
                case 'n': out->push_back('\n'); break;
                case 'r': out->push_back('\r'); break;
                case 't': out->push_back('\t'); break;
                case 'x': {
                    int hi = HexValue(Peek());
                    int lo = pos_ + 1 < s_.size() ? HexValue(s_[pos_ + 1]) : -1;
                    if (hi < 0 || lo < 0) return (*why = "bad \\x escape"), false;
                    out->push_back(static_cast<char>(hi << 4 | lo));
                    pos_ += 2;
                    break;
                }
                default: return (*why = "unknown escape"), false;
            }
        }
        *why = "unterminated string";
        return false;
    }
    // Up to maxDigits hexadecimal digits, at least one.
    bool HexNumber(size_t maxDigits, uint64_t* v) {
        size_t n = 0;
        *v = 0;
        while (n < maxDigits && HexValue(Peek()) >= 0) {
            *v = *v << 4 | static_cast<uint64_t>(HexValue(Peek()));
            ++pos_;
            ++n;
        }
        return n > 0 && HexValue(Peek()) < 0;
    }
    // Comma-separated bytes "00,ff,..." (possibly none).
    bool HexBytes(std::string* out) {
        out->clear();
        if (AtEnd()) return true;
        while (true) {
            int hi = HexValue(Peek());
            int lo = pos_ + 1 < s_.size() ? HexValue(s_[pos_ + 1]) : -1;
            if (hi < 0 || lo < 0) return false;
            out->push_back(static_cast<char>(hi << 4 | lo));
            pos_ += 2;
            if (AtEnd()) return true;
            if (!Take(',')) return false;
        }
    }

private:
    const std::string& s_;
    size_t pos_ = 0;
};

bool DecodePath(const std::string& in, std::string* out) {
    out->clear();
    for (size_t i = 0; i < in.size(); ++i) {
        char c = in[i];
        if (c == '[' || c == ']') return false;
        if (c != '%') {
            out->push_back(c);
            continue;
        }
        if (i + 2 >= in.size()) return false;
        int hi = HexValue(in[i + 1]);
        int lo = HexValue(in[i + 2]);
        if (hi < 0 || lo < 0) return false;
        out->push_back(static_cast<char>(hi << 4 | lo));
        i += 2;
    }
    return true;
}

bool ParseValueLine(const std::string& line, Value* v, std::string* why) {
    Cursor c(line);
    if (c.Take('@')) {
        v->name.clear();
    } else if (!c.Quoted(&v->name, why)) {
        return false;
    }
    if (!c.Take('=')) return (*why = "expected '=' after the name"), false;
    if (c.Peek() == '"') {
        std::string text;
        if (!c.Quoted(&text, why)) return false;
        v->type = kSz;
        v->data = text + '\0';
    } else if (c.TakeWord("dword:")) {
        uint64_t n = 0;
        if (!c.HexNumber(8, &n)) return (*why = "bad dword"), false;
        v->type = kUint32;
        v->data.assign(4, '\0');
        for (int i = 0; i < 4; ++i) v->data[i] = static_cast<char>(n >> (8 * i));
    } else if (c.TakeWord("qword:")) {
        uint64_t n = 0;
        if (!c.HexNumber(16, &n)) return (*why = "bad qword"), false;
        v->type = kUint64;
        v->data.assign(8, '\0');
        for (int i = 0; i < 8; ++i) v->data[i] = static_cast<char>(n >> (8 * i));
    } else if (c.TakeWord("multi:")) {
        v->type = kMulti;
        v->data.clear();
        bool first = true;
        while (!c.AtEnd()) {
            if (!first && !c.Take(',')) return (*why = "expected ',' between strings"), false;
            std::string item;
            if (!c.Quoted(&item, why)) return false;
            if (item.empty() || item.find('\0') != std::string::npos)
                return (*why = "list strings must be non-empty and hold no NUL"), false;
            v->data += item + '\0';
            first = false;
        }
        v->data += '\0';
    } else if (c.TakeWord("hex")) {
        v->type = kBinary;
        if (c.Take('(')) {
            uint64_t t = 0;
            if (!c.HexNumber(1, &t) || t > kUint64 || !c.Take(')'))
                return (*why = "bad hex(type)"), false;
            v->type = static_cast<uint32_t>(t);
        }
        if (!c.Take(':')) return (*why = "expected ':' after hex"), false;
        if (!c.HexBytes(&v->data)) return (*why = "bad hex bytes"), false;
    } else {
        return (*why = "unknown data form"), false;
    }
    c.SkipSpaces();
    if (!c.AtEnd()) return (*why = "unexpected text after the data"), false;
    return true;
}

}  // namespace

std::string FormatKey(const std::string& path) {
    std::string out = "[";
    for (unsigned char c : path) {
        if (c == '%' || c == '[' || c == ']' || c < 0x20 || c >= 0x7F) {
            static const char kUpper[] = "0123456789ABCDEF";
            out += '%';
            out += kUpper[c >> 4];
            out += kUpper[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "]\n";
}

std::string FormatValue(const Value& v) {
    std::string out = v.name.empty() ? "@=" : Quote(v.name) + "=";
    std::vector<std::string> items;
    char num[32];
    if (v.type == kSz && IsPlainString(v.data)) {
        out += Quote(v.data.substr(0, v.data.size() - 1));
    } else if (v.type == kUint32 && v.data.size() == 4) {
        snprintf(num, sizeof num, "dword:%08llx", static_cast<unsigned long long>(LittleEndian(v.data)));
        out += num;
    } else if (v.type == kUint64 && v.data.size() == 8) {
        snprintf(num, sizeof num, "qword:%016llx", static_cast<unsigned long long>(LittleEndian(v.data)));
        out += num;
    } else if (v.type == kMulti && SplitList(v.data, &items)) {
        out += "multi:";
        for (size_t i = 0; i < items.size(); ++i) out += (i ? "," : "") + Quote(items[i]);
    } else if (v.type == kBinary) {
        out += HexData("hex:", v.data);
    } else {
        out += HexData("hex(" + std::to_string(v.type) + "):", v.data);
    }
    return out + "\n";
}

bool Parse(const char* text, size_t size, Sink& sink, ParseError* error) {
    ParseError local;
    if (error == nullptr) error = &local;
    size_t pos = 0;
    int lineNo = 0;
    bool sawHeader = false;
    bool inKey = false;
    auto fail = [&](int line, const std::string& why) {
        error->line = line;
        error->message = why;
        return false;
    };
    while (pos < size) {
        // One logical line: physical lines joined where one ends in '\'.
        std::string line;
        int startLine = lineNo + 1;
        while (pos < size) {
            const char* nl = static_cast<const char*>(std::memchr(text + pos, '\n', size - pos));
            size_t end = nl != nullptr ? static_cast<size_t>(nl - text) : size;
            std::string part(text + pos, end - pos);
            pos = nl != nullptr ? end + 1 : size;
            ++lineNo;
            if (!part.empty() && part.back() == '\r') part.pop_back();
            if (!line.empty()) {
                size_t first = part.find_first_not_of(" \t");
                part = first == std::string::npos ? "" : part.substr(first);
            }
            line += part;
            if (line.empty() || line.back() != '\\' || line[0] == ';' || line[0] == '[') break;
            // A trailing backslash continues hex data; inside quotes it is an escape.
            if (line.find("=hex") == std::string::npos) break;
            line.pop_back();
        }
        size_t last = line.find_last_not_of(" \t");
        line = last == std::string::npos ? "" : line.substr(0, last + 1);
        if (line.empty() || line[0] == ';') continue;
        if (!sawHeader) {
            if (line != kHeader) return fail(startLine, std::string("expected \"") + kHeader + "\"");
            sawHeader = true;
            continue;
        }
        if (line[0] == '[') {
            std::string path;
            if (line.size() < 2 || line.back() != ']' ||
                !DecodePath(line.substr(1, line.size() - 2), &path))
                return fail(startLine, "bad key header");
            if (!sink.Key(path)) return fail(startLine, "stopped");
            inKey = true;
            continue;
        }
        if (!inKey) return fail(startLine, "value before any key");
        Value v;
        std::string why;
        if (!ParseValueLine(line, &v, &why)) return fail(startLine, why);
        if (!sink.Value(v)) return fail(startLine, "stopped");
    }
    if (!sawHeader) return fail(lineNo, std::string("expected \"") + kHeader + "\"");
    return true;
}

}  // namespace regfile
