// regfile.cpp - reader and writer of the registry export format (see regfile.h).
#include "regfile.h"

#include <cstdio>
#include <cstring>

namespace regfile {

const char kHeader5[] = "Windows Registry Editor Version 5.00";
const char kHeader4[] = "REGEDIT4";
const char kMachineRoot[] = "HKEY_LOCAL_MACHINE";

namespace {

constexpr char16_t kBom = 0xFEFF;
constexpr size_t kWrapColumn = 76;  // hex lines are continued past this column

bool IsHigh(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLow(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

Units Ascii(const char* s) {
    Units u;
    while (*s != '\0') u.push_back(static_cast<char16_t>(static_cast<unsigned char>(*s++)));
    return u;
}

bool EqualsAsciiNoCase(const Units& u, const char* s) {
    size_t n = std::strlen(s);
    if (u.size() != n) return false;
    for (size_t i = 0; i < n; ++i) {
        char16_t a = u[i];
        char16_t b = static_cast<unsigned char>(s[i]);
        if (a >= 'a' && a <= 'z') a = static_cast<char16_t>(a - 32);
        if (b >= 'a' && b <= 'z') b = static_cast<char16_t>(b - 32);
        if (a != b) return false;
    }
    return true;
}

int HexDigit(char16_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// ---- reading --------------------------------------------------------------

// Decodes the file into units; lines are counted for the errors.
bool DecodeFile(const char* p, size_t n, Units* out, ParseError* err) {
    auto lineAt = [&](size_t end) {
        int line = 1;
        for (size_t i = 0; i < end; ++i) line += p[i] == '\n';
        return line;
    };
    const auto* b = reinterpret_cast<const unsigned char*>(p);
    if (n >= 2 && b[0] == 0xFE && b[1] == 0xFF) {
        *err = {1, "UTF-16 big-endian files are not supported (save as UTF-16LE or UTF-8)"};
        return false;
    }
    if (n >= 2 && b[0] == 0xFF && b[1] == 0xFE) {
        if (n % 2 != 0) {
            int line = 1;
            for (size_t i = 2; i + 1 < n; i += 2) line += b[i] == '\n' && b[i + 1] == 0;
            *err = {line, "truncated UTF-16 file (odd number of bytes)"};
            return false;
        }
        out->clear();
        out->reserve(n / 2);
        for (size_t i = 2; i < n; i += 2) out->push_back(static_cast<char16_t>(b[i] | b[i + 1] << 8));
        return true;
    }
    size_t start = n >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF ? 3 : 0;
    if (!FromUtf8(std::string(p + start, n - start), out)) {
        // Find the first bad line for the message.
        size_t lineStart = start;
        for (size_t i = start; i <= n; ++i) {
            if (i == n || p[i] == '\n') {
                Units tmp;
                if (!FromUtf8(std::string(p + lineStart, i - lineStart), &tmp)) {
                    *err = {lineAt(lineStart), "not valid UTF-8 (nor UTF-16LE with a byte-order mark)"};
                    return false;
                }
                lineStart = i + 1;
            }
        }
        *err = {lineAt(n), "not valid UTF-8"};
        return false;
    }
    return true;
}

class Parser {
public:
    Parser(const Units& text, std::vector<Entry>* out, ParseError* err)
        : t_(text), out_(out), err_(err) {}

    bool Run() {
        out_->clear();
        for (size_t i = 0; i < t_.size(); ++i) {
            if (t_[i] == kBom) return Fail(LineOf(i), "byte-order mark inside the file");
            if (t_[i] == 0) return Fail(LineOf(i), "NUL character in the file");
        }
        // The header is the first line.
        Units first = RestOfLine();
        Trim(&first);
        if (first != Ascii(kHeader5) && first != Ascii(kHeader4))
            return Fail(1, std::string("expected \"") + kHeader5 + "\" or \"" + kHeader4 + "\"");
        NextLine();
        while (!AtEnd()) {
            SkipBlanks();
            if (AtEol()) {
                NextLine();
                continue;
            }
            char16_t c = Peek();
            bool ok = c == ';'   ? (RestOfLine(), true)
                      : c == '[' ? KeyLine()
                      : c == '@' || c == '"' ? ValueLine()
                                             : Fail(line_, "expected [KEY], \"name\"=, @= or ;comment");
            if (!ok) return false;
            NextLine();
        }
        return true;
    }

private:
    bool AtEnd() const { return pos_ >= t_.size(); }
    char16_t Peek() const { return AtEnd() ? 0 : t_[pos_]; }
    // The end of the line: LF, CRLF or the end of the text.
    bool AtEol() const {
        return AtEnd() || t_[pos_] == '\n' ||
               (t_[pos_] == '\r' && (pos_ + 1 == t_.size() || t_[pos_ + 1] == '\n'));
    }
    void NextLine() {
        while (!AtEnd() && t_[pos_] != '\n') ++pos_;
        if (!AtEnd()) {
            ++pos_;
            ++line_;
        }
    }
    void SkipBlanks() {
        while (!AtEnd() && (t_[pos_] == ' ' || t_[pos_] == '\t')) ++pos_;
    }
    Units RestOfLine() {
        size_t start = pos_;
        while (!AtEol()) ++pos_;
        return t_.substr(start, pos_ - start);
    }
    static void Trim(Units* u) {
        while (!u->empty() && (u->back() == ' ' || u->back() == '\t')) u->pop_back();
    }
    int LineOf(size_t at) const {
        int line = 1;
        for (size_t i = 0; i < at && i < t_.size(); ++i) line += t_[i] == '\n';
        return line;
    }
    bool Fail(int line, const std::string& why) {
        err_->line = line;
        err_->message = why;
        return false;
    }
    bool Take(char16_t c) {
        if (AtEnd() || t_[pos_] != c) return false;
        ++pos_;
        return true;
    }
    bool TakeWord(const char* w) {
        size_t n = std::strlen(w);
        if (t_.size() - pos_ < n) return false;
        for (size_t i = 0; i < n; ++i)
            if (t_[pos_ + i] != static_cast<unsigned char>(w[i])) return false;
        pos_ += n;
        return true;
    }
    // After the data only blanks may follow on the line.
    bool EndOfEntry() {
        SkipBlanks();
        return AtEol() || Fail(line_, "unexpected text after the data");
    }

    bool KeyLine() {
        const int line = line_;
        Units text = RestOfLine();
        Trim(&text);
        if (text.size() < 2 || text.back() != ']') return Fail(line, "key line without a closing ']'");
        Entry e;
        e.line = line;
        e.kind = Entry::kKey;
        Units inner = text.substr(1, text.size() - 2);
        if (!inner.empty() && inner[0] == '-') {
            e.kind = Entry::kDeleteKey;
            inner.erase(0, 1);
        }
        // Root, then the elements below it.
        size_t cut = inner.find(u'\\');
        Units root = inner.substr(0, cut);
        if (!EqualsAsciiNoCase(root, kMachineRoot) && !EqualsAsciiNoCase(root, "HKLM"))
            return Fail(line, "unknown or unsupported root \"" + ToUtf8(root) +
                                  "\": this store has HKEY_LOCAL_MACHINE only");
        if (cut != Units::npos) {
            Units rest = inner.substr(cut + 1);
            size_t from = 0;
            while (true) {
                size_t end = rest.find(u'\\', from);
                Units elem = rest.substr(from, end == Units::npos ? Units::npos : end - from);
                if (elem.empty()) return Fail(line, "empty key name (doubled or trailing backslash)");
                if (elem == u"." || elem == u"..") return Fail(line, "\".\" and \"..\" are not key names");
                if (end == Units::npos) break;
                from = end + 1;
            }
            e.path = rest;
        }
        if (e.kind == Entry::kDeleteKey && e.path.empty()) return Fail(line, "refusing to delete the root");
        inDeleted_ = e.kind == Entry::kDeleteKey;
        haveKey_ = true;
        out_->push_back(std::move(e));
        return true;
    }

    // A quoted string; a line break inside it belongs to the text.
    bool Quoted(Units* out) {
        const int startLine = line_;
        if (!Take('"')) return Fail(line_, "expected '\"'");
        out->clear();
        while (!AtEnd()) {
            char16_t c = t_[pos_++];
            if (c == '"') return true;
            if (c == '\n') ++line_;
            if (c != '\\') {
                out->push_back(c);
                continue;
            }
            if (Take('\\')) {
                out->push_back('\\');
            } else if (Take('"')) {
                out->push_back('"');
            } else {
                return Fail(line_, "unknown escape in quoted text (only \\\\ and \\\" are known)");
            }
        }
        return Fail(startLine, "unterminated quoted text");
    }

    // Comma-separated bytes of two digits each; a trailing backslash
    // continues them on the next line.
    bool HexBytes(std::string* out) {
        out->clear();
        bool needByte = false;
        while (true) {
            SkipBlanks();
            if (Take('\\')) {
                SkipBlanks();
                if (!AtEol()) return Fail(line_, "text after a continuing backslash");
                if (AtEnd()) return Fail(line_, "continuation at the end of the file");
                NextLine();
                SkipBlanks();
                continue;
            }
            if (AtEol()) {
                if (needByte) return Fail(line_, "a byte expected after ','");
                return true;
            }
            int hi = HexDigit(Peek());
            if (hi < 0) return Fail(line_, "bad hex byte");
            ++pos_;
            int lo = HexDigit(Peek());
            if (lo < 0) return Fail(line_, "hex bytes need two digits each");
            ++pos_;
            if (HexDigit(Peek()) >= 0) return Fail(line_, "hex bytes need two digits each");
            if (out->size() >= kMaxValueBytes) return Fail(line_, "value larger than 4 MiB");
            out->push_back(static_cast<char>(hi << 4 | lo));
            SkipBlanks();
            needByte = Take(',');
            if (!needByte) {
                SkipBlanks();
                if (Peek() == '\\') continue;
                if (!AtEol()) return Fail(line_, "expected ',' between hex bytes");
            }
        }
    }

    bool ValueLine() {
        Entry e;
        e.line = line_;
        e.kind = Entry::kValue;
        e.path = haveKey_ && !out_->empty() ? CurrentPath() : Units();
        if (!haveKey_) return Fail(line_, "value before any [KEY] line");
        if (inDeleted_) return Fail(line_, "value under a key being deleted");
        if (Take('@')) {
            e.unnamed = true;
        } else if (!Quoted(&e.name)) {
            return false;
        }
        if (e.name.size() > 16383) return Fail(e.line, "value name longer than 16383 characters");
        SkipBlanks();
        if (!Take('=')) return Fail(line_, "expected '=' after the value name");
        SkipBlanks();
        if (Peek() == '"') {
            Units text;
            if (!Quoted(&text)) return false;
            e.type = kSz;
            e.data = ToUtf16Le(text) + std::string(2, '\0');
            if (e.data.size() > kMaxValueBytes) return Fail(e.line, "value larger than 4 MiB");
        } else if (Take('-')) {
            e.kind = Entry::kDeleteValue;
        } else if (TakeWord("dword:")) {
            uint64_t v = 0;
            size_t digits = 0;
            for (; HexDigit(Peek()) >= 0; ++digits, ++pos_) v = v << 4 | HexDigit(Peek());
            if (digits == 0) return Fail(line_, "dword: needs up to 8 hex digits");
            if (digits > 8) return Fail(line_, "dword out of range (more than 8 hex digits)");
            e.type = kDword;
            for (int i = 0; i < 4; ++i) e.data.push_back(static_cast<char>(v >> (8 * i)));
        } else if (TakeWord("hex")) {
            e.type = kBinary;
            if (Take('(')) {
                uint64_t t = 0;
                size_t digits = 0;
                for (; HexDigit(Peek()) >= 0; ++digits, ++pos_) t = t << 4 | HexDigit(Peek());
                if (digits == 0 || digits > 8 || !Take(')')) return Fail(line_, "bad hex(type)");
                e.type = static_cast<uint32_t>(t);
            }
            if (!Take(':')) return Fail(line_, "expected ':' after hex");
            if (!HexBytes(&e.data)) return false;
        } else {
            return Fail(line_, "unknown data form (expected \"text\", dword:, hex:, hex(N): or -)");
        }
        if (!EndOfEntry()) return false;
        out_->push_back(std::move(e));
        return true;
    }

    Units CurrentPath() const {
        for (size_t i = out_->size(); i-- > 0;)
            if ((*out_)[i].kind == Entry::kKey || (*out_)[i].kind == Entry::kDeleteKey) return (*out_)[i].path;
        return Units();
    }

    const Units& t_;
    std::vector<Entry>* out_;
    ParseError* err_;
    size_t pos_ = 0;
    int line_ = 1;
    bool haveKey_ = false;
    bool inDeleted_ = false;
};

// ---- writing --------------------------------------------------------------

void AppendAscii(Units* u, const char* s) {
    while (*s != '\0') u->push_back(static_cast<unsigned char>(*s++));
}

void AppendQuoted(Units* out, const Units& text) {
    out->push_back('"');
    for (char16_t c : text) {
        if (c == '\\' || c == '"') out->push_back('\\');
        out->push_back(c);
    }
    out->push_back('"');
}

// Text that the quoted form carries as it is: no control characters and
// no units of bytes that are not text.
bool Plain(const Units& text) {
    for (size_t i = 0; i < text.size(); ++i) {
        char16_t c = text[i];
        if (c < 0x20 || c == 0x7F) return false;
        if (IsHigh(c) && (i + 1 == text.size() || !IsLow(text[i + 1]))) return false;
        if (IsLow(c) && (i == 0 || !IsHigh(text[i - 1]))) return false;
    }
    return true;
}

}  // namespace

bool Parse(const char* bytes, size_t size, std::vector<Entry>* out, ParseError* error) {
    ParseError local;
    if (error == nullptr) error = &local;
    Units text;
    if (!DecodeFile(bytes, size, &text, error)) return false;
    return Parser(text, out, error).Run();
}

void Writer::Key(const Units& path) {
    AppendAscii(&body_, "\r\n[");
    AppendAscii(&body_, kMachineRoot);
    if (!path.empty()) body_.push_back('\\');
    // A key name cannot hold a line break in this format; control
    // characters take the library's own [XXXX] escape, which reads back as
    // the same character.
    for (char16_t c : path) {
        if (c < 0x20 || c == 0x7F) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "[%04X]", static_cast<unsigned>(c));
            AppendAscii(&body_, esc);
        } else {
            body_.push_back(c);
        }
    }
    AppendAscii(&body_, "]\r\n");
}

void Writer::Value(bool unnamed, const Units& name, uint32_t type, const std::string& data) {
    size_t lineStart = body_.size();
    if (unnamed) {
        body_.push_back('@');
    } else {
        AppendQuoted(&body_, name);
        size_t nl = body_.rfind(u'\n');
        if (nl != Units::npos && nl >= lineStart) lineStart = nl + 1;
    }
    body_.push_back('=');
    if (type == kSz && data.size() >= 2 && data.size() % 2 == 0 && data[data.size() - 1] == 0 &&
        data[data.size() - 2] == 0) {
        Units text = FromUtf16Le(data.substr(0, data.size() - 2));
        if (Plain(text)) {
            AppendQuoted(&body_, text);
            AppendAscii(&body_, "\r\n");
            return;
        }
    }
    char head[32];
    if (type == kDword && data.size() == 4) {
        uint32_t v = 0;
        for (int i = 3; i >= 0; --i) v = v << 8 | static_cast<unsigned char>(data[i]);
        std::snprintf(head, sizeof head, "dword:%08x\r\n", v);
        AppendAscii(&body_, head);
        return;
    }
    if (type == kBinary)
        std::snprintf(head, sizeof head, "hex:");
    else
        std::snprintf(head, sizeof head, "hex(%x):", type);
    AppendAscii(&body_, head);
    static const char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < data.size(); ++i) {
        auto b = static_cast<unsigned char>(data[i]);
        body_.push_back(kDigits[b >> 4]);
        body_.push_back(kDigits[b & 15]);
        if (i + 1 < data.size()) {
            body_.push_back(',');
            if (body_.size() - lineStart >= kWrapColumn) {
                AppendAscii(&body_, "\\\r\n  ");
                lineStart = body_.size() - 2;
            }
        }
    }
    AppendAscii(&body_, "\r\n");
}

std::string Writer::Finish(Encoding encoding) const {
    Units all = Ascii(kHeader5);
    AppendAscii(&all, "\r\n");
    all += body_;
    if (encoding == Encoding::kUtf8) return ToUtf8(all);
    return "\xFF\xFE" + ToUtf16Le(all);
}

std::string ToUtf16Le(const Units& u) {
    std::string out;
    out.reserve(u.size() * 2);
    for (char16_t c : u) {
        out.push_back(static_cast<char>(c & 0xFF));
        out.push_back(static_cast<char>(c >> 8));
    }
    return out;
}

Units FromUtf16Le(const std::string& bytes) {
    Units u;
    u.reserve(bytes.size() / 2);
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        u.push_back(static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                          static_cast<unsigned char>(bytes[i + 1]) << 8));
    return u;
}

std::string ToUtf8(const Units& u) {
    std::string out;
    out.reserve(u.size());
    for (size_t i = 0; i < u.size(); ++i) {
        uint32_t c = u[i];
        if (IsHigh(u[i]) && i + 1 < u.size() && IsLow(u[i + 1])) {
            c = 0x10000 + ((c - 0xD800) << 10) + (u[i + 1] - 0xDC00);
            ++i;
        }
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | c >> 6));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | c >> 12));
            out.push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | c >> 18));
            out.push_back(static_cast<char>(0x80 | (c >> 12 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

bool FromUtf8(const std::string& s, Units* out) {
    out->clear();
    out->reserve(s.size());
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    size_t n = s.size();
    for (size_t i = 0; i < n;) {
        unsigned char b = p[i];
        if (b < 0x80) {
            out->push_back(b);
            ++i;
            continue;
        }
        int len = b >= 0xF0 && b <= 0xF4 ? 4 : b >= 0xE0 ? 3 : b >= 0xC2 && b < 0xE0 ? 2 : 0;
        if (len == 0 || i + len > n) return false;
        uint32_t c = b & (0x7F >> len);
        for (int k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            c = c << 6 | (p[i + k] & 0x3F);
        }
        if ((len == 3 && c < 0x800) || (len == 4 && (c < 0x10000 || c > 0x10FFFF))) return false;
        if (c >= 0x10000) {
            out->push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
            out->push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
        } else {
            out->push_back(static_cast<char16_t>(c));  // a lone surrogate's form is accepted
        }
        i += len;
    }
    return true;
}

}  // namespace regfile
