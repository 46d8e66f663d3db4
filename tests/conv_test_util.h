// conv_test_util.h - helpers of the conversion and counted-string suites and
// of the conversion fuzz harness: wide literals as WCHAR buffers, scopes over
// the code page globals, and runners that capture the whole outcome of one
// conversion (result, count, output area and the guard after it) as a value,
// so that the fast routines and the reference compare with ==.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
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
// (the library owns and frees the names its setup chose).
class PageScope {
public:
    PageScope()
        : oem_(g_pOemCodePage), ansi_(g_pAnsiCodePage), oemEuro_(g_oemCodePageSupportsEuro),
          ansiEuro_(g_ansiCodePageSupportsEuro) {}
    ~PageScope() {
        g_pOemCodePage = oem_;
        g_pAnsiCodePage = ansi_;
        g_oemCodePageSupportsEuro = oemEuro_;
        g_ansiCodePageSupportsEuro = ansiEuro_;
    }
    PageScope(const PageScope&) = delete;
    PageScope& operator=(const PageScope&) = delete;

private:
    char* oem_;
    char* ansi_;
    BOOLEAN oemEuro_;
    BOOLEAN ansiEuro_;
};

// Selects the OEM and ANSI code pages for one scope.
class CodePageScope : public PageScope {
public:
    CodePageScope(const char* oem, BOOLEAN oemEuro, const char* ansi, BOOLEAN ansiEuro) {
        g_pOemCodePage = const_cast<char*>(oem);
        g_pAnsiCodePage = const_cast<char*>(ansi);
        g_oemCodePageSupportsEuro = oemEuro;
        g_ansiCodePageSupportsEuro = ansiEuro;
    }
};

// One conversion: its result, the count it reported, and its output area
// (pre-filled with a pattern, two guard units past the capacity) as bytes.
struct ConvRun {
    long long rc;
    long long count;
    std::string area;
    bool operator==(const ConvRun&) const = default;
};

inline size_t Room(long long capacity) { return static_cast<size_t>(std::max(capacity, 0LL)) + 2; }

inline ConvRun Captured(long long rc, long long count, const void* area, size_t bytes) {
    return {rc, count, std::string(static_cast<const char*>(area), bytes)};
}

// A character routine to 16-bit units: the exported (fast) one or the
// reference. A null page means UTF-8.
inline ConvRun RoutineToWide(bool fast, char* page, BOOLEAN euro, std::string in, int capacity) {
    std::vector<WCHAR> out(Room(capacity), 0xA5A5);
    int count = capacity;
    const int n = static_cast<int>(in.size());
    const int rc = page == nullptr
                       ? (fast ? Utf8ToUni : KsplRefUtf8ToUni)(in.data(), n, out.data(), &count)
                       : (fast ? LocToUni : KsplRefLocToUni)(page, euro, in.data(), n, out.data(),
                                                             &count);
    return Captured(rc, count, out.data(), 2 * out.size());
}

inline ConvRun RoutineToNarrow(bool fast, char* page, std::vector<WCHAR> in, int capacity) {
    std::string out(Room(capacity), '\x5A');
    int count = capacity;
    const int n = static_cast<int>(in.size());
    const int rc = page == nullptr
                       ? (fast ? UniToUtf8 : KsplRefUniToUtf8)(in.data(), n, out.data(), &count)
                       : (fast ? UniToLoc : KsplRefUniToLoc)(page, in.data(), n, out.data(),
                                                             &count);
    return Captured(rc, count, out.data(), out.size());
}

// A service over the slots (fast) or the reference routines, with `len` as
// the length argument and an area of `capacity` units, or no area at all.
// The input is copied with a terminator after it.
inline ConvRun ServiceToWide(bool fast, IKspl* k, UINT32 cp, std::string in, INT32 len,
                             UINT32 capacity, bool area = true) {
    std::vector<WCHAR> out(Room(capacity), 0xA5A5);
    UINT32 count = capacity;
    const KSSTATUS st = (fast ? KsoMultiByteToWideChar : KsplRefMultiByteToWideChar)(
        k, cp, in.data(), len, area ? out.data() : nullptr, &count);
    return Captured(st, count, out.data(), 2 * out.size());
}

inline ConvRun ServiceToNarrow(bool fast, IKspl* k, UINT32 cp, std::vector<WCHAR> in, INT32 len,
                               UINT32 capacity, bool area = true) {
    in.push_back(0);
    std::string out(Room(capacity), '\x5A');
    UINT32 count = capacity;
    const KSSTATUS st = (fast ? KsoWideCharToMultiByte : KsplRefWideCharToMultiByte)(
        k, cp, in.data(), len, area ? out.data() : nullptr, &count);
    return Captured(st, count, out.data(), out.size());
}

// The text of a successful run.
inline std::u16string WideText(const ConvRun& r) {
    std::u16string s(static_cast<size_t>(r.count), u'\0');
    std::memcpy(s.data(), r.area.data(), 2 * s.size());
    return s;
}
inline std::string NarrowText(const ConvRun& r) { return r.area.substr(0, r.count); }
