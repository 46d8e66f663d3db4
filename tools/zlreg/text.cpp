// text.cpp - store text through kspl's code page routines (see text.h).
#include "text.h"

#include <cstdio>
#include <vector>

#include "kspl_exports.h"

namespace text {

namespace {

bool IsHigh(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLow(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }
// A lone U+DC00..U+DCFF: a byte that is not text.
bool IsByteUnit(const Units& u, size_t i) {
    return u[i] >= 0xDC00 && u[i] <= 0xDCFF && (i == 0 || !IsHigh(u[i - 1]));
}

// One run without NUL bytes through the library; false if it refuses.
bool DecodeRun(const char* p, size_t n, Units* out) {
    if (n == 0) return true;
    std::vector<WCHAR> buf(n + 1);
    int produced = static_cast<int>(buf.size());
    if (LocToUni(g_pOemCodePage, g_oemCodePageSupportsEuro, const_cast<char*>(p), static_cast<int>(n),
                 buf.data(), &produced) != 0)
        return false;
    out->append(buf.begin(), buf.begin() + produced);
    return true;
}

// A run that does not decode as a whole: the longest decodable pieces
// (an escape group, or a character of up to four bytes), and every other
// byte as its own unit.
void DecodePiecewise(const char* p, size_t n, Units* out) {
    size_t i = 0;
    while (i < n) {
        bool done = false;
        if (p[i] == '[' && n - i >= 6 && p[i + 5] == ']' && DecodeRun(p + i, 6, out)) {
            i += 6;
            continue;
        }
        for (size_t k = 1; k <= 4 && i + k <= n && !done; ++k) {
            Units one;
            if (p[i] != '[' && DecodeRun(p + i, k, &one) && one.size() == 1) {
                out->append(one);
                i += k;
                done = true;
            }
        }
        if (!done) out->push_back(static_cast<char16_t>(0xDC00 + static_cast<unsigned char>(p[i++])));
    }
}

void AppendUtf8(std::string* out, const Units& u, size_t i, size_t n) {
    *out += regfile::ToUtf8(u.substr(i, n));
}

}  // namespace

bool Startup() { return InitCharConvInfrastructure() == 0; }
void Shutdown() { UnInitCharConvInfrastructure(); }
const char* CodePage() { return g_pOemCodePage != nullptr ? g_pOemCodePage : "?"; }

Units Decode(const std::string& narrow) {
    Units out;
    size_t start = 0;
    while (start <= narrow.size()) {
        size_t end = narrow.find('\0', start);
        if (end == std::string::npos) end = narrow.size();
        if (!DecodeRun(narrow.data() + start, end - start, &out))
            DecodePiecewise(narrow.data() + start, end - start, &out);
        if (end == narrow.size()) break;
        out.push_back(0);
        start = end + 1;
    }
    return out;
}

bool Encode(const Units& units, std::string* narrow) {
    narrow->clear();
    size_t i = 0;
    while (i < units.size()) {
        if (units[i] == 0 || IsByteUnit(units, i)) {
            narrow->push_back(units[i] == 0 ? '\0' : static_cast<char>(units[i] - 0xDC00));
            ++i;
            continue;
        }
        size_t end = i;
        while (end < units.size() && units[end] != 0 && !IsByteUnit(units, end)) ++end;
        std::vector<WCHAR> in(units.begin() + static_cast<long>(i), units.begin() + static_cast<long>(end));
        std::vector<char> buf(12 * in.size() + 1);
        int produced = static_cast<int>(buf.size());
        if (UniToLoc(g_pOemCodePage, in.data(), static_cast<int>(in.size()), buf.data(), &produced) != 0)
            return false;
        narrow->append(buf.data(), static_cast<size_t>(produced));
        i = end;
    }
    return true;
}

std::string Display(const Units& u) {
    std::string out;
    size_t run = 0;  // start of the run of plain units not yet written
    char esc[8];
    for (size_t i = 0; i < u.size(); ++i) {
        char16_t c = u[i];
        const char* named = c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\t' ? "\\t" : c == 0 ? "\\0" : nullptr;
        bool pair = IsHigh(c) && i + 1 < u.size() && IsLow(u[i + 1]);
        if (named == nullptr && c >= 0x20 && c != 0x7F && !IsLow(c) && (!IsHigh(c) || pair)) {
            if (pair) ++i;
            continue;
        }
        AppendUtf8(&out, u, run, i - run);
        if (named != nullptr)
            out += named;
        else if (c < 0x20 || c == 0x7F)
            std::snprintf(esc, sizeof esc, "\\x%02x", static_cast<unsigned>(c)), out += esc;
        else if (IsByteUnit(u, i))
            std::snprintf(esc, sizeof esc, "\\x%02x", static_cast<unsigned>(c - 0xDC00)), out += esc;
        else
            std::snprintf(esc, sizeof esc, "\\u%04x", static_cast<unsigned>(c)), out += esc;
        run = i + 1;
    }
    AppendUtf8(&out, u, run, u.size() - run);
    return out;
}

std::string Json(const Units& u) {
    std::string shown = Display(u);
    std::string out;
    for (char c : shown) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

}  // namespace text
