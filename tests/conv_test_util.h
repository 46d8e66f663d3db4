// conv_test_util.h - helpers of the conversion and counted-string suites and
// of the conversion fuzz harness: wide literals as WCHAR buffers, scopes over
// the code page globals, and runners that capture the whole outcome of one
// conversion (result, count, output area and the guard after it) as a value,
// so that the fast routines and the reference compare with ==.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "convert_int.h"
#include "kspl_exports.h"
#include "locale_int.h"

// The units of a UTF-16 literal, without and with a terminating 0 unit.
inline std::vector<WCHAR> Units(std::u16string_view s) { return {s.begin(), s.end()}; }
inline std::vector<WCHAR> Wide(std::u16string_view s) {
    std::vector<WCHAR> v = Units(s);
    v.push_back(0);
    return v;
}

inline std::u16string AsU16(const WCHAR* p, size_t n) { return std::u16string(p, p + n); }

// Keeps the code page names and euro flags and puts them back at scope end
// (the library owns and frees the names its setup chose); given pages,
// selects them for the scope.
class CodePageScope {
public:
    CodePageScope() = default;
    CodePageScope(const char* oem, BOOLEAN oemEuro, const char* ansi, BOOLEAN ansiEuro) {
        Globals() = std::make_tuple(const_cast<char*>(oem), const_cast<char*>(ansi), oemEuro, ansiEuro);
    }
    CodePageScope(const CodePageScope&) = delete;
    CodePageScope& operator=(const CodePageScope&) = delete;
    ~CodePageScope() { Globals() = saved_; }

private:
    using Pages = std::tuple<char*&, char*&, BOOLEAN&, BOOLEAN&>;
    static Pages Globals() {
        return {g_pOemCodePage, g_pAnsiCodePage, g_oemCodePageSupportsEuro, g_ansiCodePageSupportsEuro};
    }
    std::tuple<char*, char*, BOOLEAN, BOOLEAN> saved_ = Globals();
};
using PageScope = CodePageScope;

// One conversion: its result, the count it reported, and its output area
// with two guard units past the capacity, as bytes.
struct ConvRun {
    long long rc;
    long long count;
    std::string area;
    bool operator==(const ConvRun&) const = default;
};

// Runs call(area, &count) with the count set to the capacity, over an area
// of `capacity` units and two more, pre-filled with the pattern 0xA5.
template <typename Out, typename Count, typename Call>
ConvRun Capture(long long capacity, Call call) {
    std::vector<Out> out(static_cast<size_t>(std::max(capacity, 0LL)) + 2, static_cast<Out>(0xA5A5));
    Count count = static_cast<Count>(capacity);
    const long long rc = call(out.data(), &count);
    const char* bytes = reinterpret_cast<const char*>(out.data());
    return {rc, count, std::string(bytes, sizeof(Out) * out.size())};
}

// A character routine, the exported (fast) one or the reference; a null
// page means UTF-8.
inline ConvRun RoutineToWide(bool fast, char* page, BOOLEAN euro, std::string in, int capacity) {
    const int n = static_cast<int>(in.size());
    return Capture<WCHAR, int>(capacity, [&](WCHAR* out, int* count) {
        if (page == nullptr) return (fast ? Utf8ToUni : KsplRefUtf8ToUni)(in.data(), n, out, count);
        return (fast ? LocToUni : KsplRefLocToUni)(page, euro, in.data(), n, out, count);
    });
}
inline ConvRun RoutineToNarrow(bool fast, char* page, std::vector<WCHAR> in, int capacity) {
    const int n = static_cast<int>(in.size());
    return Capture<char, int>(capacity, [&](char* out, int* count) {
        if (page == nullptr) return (fast ? UniToUtf8 : KsplRefUniToUtf8)(in.data(), n, out, count);
        return (fast ? UniToLoc : KsplRefUniToLoc)(page, in.data(), n, out, count);
    });
}

// A service over the slots (fast) or the reference routines, with `len` as
// the length argument and the area (or none) for the output. The input is
// copied with a terminator after it.
inline ConvRun ServiceToWide(bool fast, IKspl* k, UINT32 cp, std::string in, INT32 len,
                             UINT32 capacity, bool area = true) {
    return Capture<WCHAR, UINT32>(capacity, [&](WCHAR* out, UINT32* count) {
        return (fast ? KsoMultiByteToWideChar : KsplRefMultiByteToWideChar)(
            k, cp, in.data(), len, area ? out : nullptr, count);
    });
}
inline ConvRun ServiceToNarrow(bool fast, IKspl* k, UINT32 cp, std::vector<WCHAR> in, INT32 len,
                               UINT32 capacity, bool area = true) {
    in.push_back(0);
    return Capture<char, UINT32>(capacity, [&](char* out, UINT32* count) {
        return (fast ? KsoWideCharToMultiByte : KsplRefWideCharToMultiByte)(
            k, cp, in.data(), len, area ? out : nullptr, count);
    });
}

// The text of a successful run.
inline std::u16string WideText(const ConvRun& r) {
    return {reinterpret_cast<const char16_t*>(r.area.data()), static_cast<size_t>(r.count)};
}
inline std::string NarrowText(const ConvRun& r) { return r.area.substr(0, r.count); }
