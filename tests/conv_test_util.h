// conv_test_util.h - helpers of the conversion and counted-string suites:
// wide literals as WCHAR buffers, and a scope that selects the ANSI and OEM
// code pages for one test and restores the process's own afterwards.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kspl_internal.h"

// A NUL-terminated WCHAR copy of a UTF-16 literal.
inline std::vector<WCHAR> Wide(std::u16string_view s) {
    std::vector<WCHAR> v(s.begin(), s.end());
    v.push_back(0);
    return v;
}

inline std::u16string AsU16(const WCHAR* p, size_t n) {
    return std::u16string(p, p + n);
}

class CodePageScope {
public:
    CodePageScope(const char* oem, BOOLEAN oemEuro, const char* ansi, BOOLEAN ansiEuro)
        : oem_(g_pOemCodePage),
          ansi_(g_pAnsiCodePage),
          oemEuro_(g_oemCodePageSupportsEuro),
          ansiEuro_(g_ansiCodePageSupportsEuro) {
        g_pOemCodePage = const_cast<char*>(oem);
        g_pAnsiCodePage = const_cast<char*>(ansi);
        g_oemCodePageSupportsEuro = oemEuro;
        g_ansiCodePageSupportsEuro = ansiEuro;
    }
    ~CodePageScope() {
        g_pOemCodePage = oem_;
        g_pAnsiCodePage = ansi_;
        g_oemCodePageSupportsEuro = oemEuro_;
        g_ansiCodePageSupportsEuro = ansiEuro_;
    }
    CodePageScope(const CodePageScope&) = delete;
    CodePageScope& operator=(const CodePageScope&) = delete;

private:
    char* oem_;
    char* ansi_;
    BOOLEAN oemEuro_;
    BOOLEAN ansiEuro_;
};
