// locale.cpp - choice of the OEM and ANSI code pages at initialisation.
//
// The four globals, and the lookup tables of the code pages they name
// (convert_table.cpp), are written only by the setup and release, which run
// under g_hModuleMutex before any instance exists and after the last one
// is gone; conversions read them without locks.
#include <iconv.h>
#include <langinfo.h>
#include <syslog.h>

#include <atomic>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include "../sysalloc_int.h"
#include "convert_int.h"
#include "convlock_int.h"
#include "dbg_int.h"
#include "locale_int.h"

char* g_pOemCodePage = nullptr;
char* g_pAnsiCodePage = nullptr;
BOOLEAN g_oemCodePageSupportsEuro = FALSE;
BOOLEAN g_ansiCodePageSupportsEuro = FALSE;

namespace {

constexpr int kLogErr = LOG_USER | LOG_ERR;
constexpr int kLogInfo = LOG_USER | LOG_INFO;
constexpr char kCodePageVariable[] = "ZELTA_CODE_PAGE";
constexpr char kLogVariable[] = "ZELTA_LOG_CODE_PAGE";
constexpr char kDefaultOem[] = "437";
constexpr char kFallback[] = "ANSI_X3.4-1968";
constexpr char kWideCodeSet[] = "UNICODE";
const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);

std::atomic<KsplCodePageAllocFn> g_allocHook{nullptr};

char* CopyName(const char* name) {
    KsplCodePageAllocFn alloc = g_allocHook.load(std::memory_order_acquire);
    size_t size = std::strlen(name) + 1;
    auto* copy = static_cast<char*>(alloc != nullptr ? alloc(size) : KsplSysAlloc(size));
    if (copy != nullptr) std::memcpy(copy, name, size);
    return copy;
}

// The OEM code page names that imply a different ANSI code page; any other
// name is its own ANSI code page.
const char* AnsiCandidateFor(const char* oem) {
    if (std::strcmp(oem, "437") == 0 || std::strcmp(oem, "850") == 0) return "WINDOWS-1252";
    if (std::strcmp(oem, "866") == 0) return "WINDOWS-1251";
    return oem;
}

}  // namespace

void KsplSetCodePageAllocHook(KsplCodePageAllocFn alloc) {
    g_allocHook.store(alloc, std::memory_order_release);
}

BOOLEAN CodePageValid(char* pCodePage) {
    iconv_t cd = KsplIconvOpen(pCodePage, kWideCodeSet);
    if (cd == kNoDescriptor) {
        KsplLog(kLogErr, "CodePageValid: Unable to open conversion descriptor %s-UNICODE\n",
                pCodePage);
        return FALSE;
    }
    KsplIconvClose(cd);
    cd = KsplIconvOpen(kWideCodeSet, pCodePage);
    if (cd == kNoDescriptor) {
        KsplLog(kLogErr, "CodePageValid: Unable to open conversion descriptor UNICODE-%s\n",
                pCodePage);
        return FALSE;
    }
    KsplIconvClose(cd);
    return TRUE;
}

BOOLEAN CheckCodePageEuroSupport(char* pCodePage) {
    iconv_t cd = KsplIconvOpen(pCodePage, kWideCodeSet);
    if (cd == kNoDescriptor) {
        KsplLog(kLogErr, "CheckCodePageEuroSupport: Unable to open conversion descriptor\n");
        return FALSE;
    }
    WCHAR in[2] = {0x20AC, 0};
    char out[4];
    char* inPtr = reinterpret_cast<char*>(in);
    char* outPtr = out;
    size_t inLeft = sizeof(in);
    size_t outLeft = sizeof(out);
    size_t rc = iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft);
    KsplIconvClose(cd);
    return rc != static_cast<size_t>(-1) ? TRUE : FALSE;
}

int InitCharConvInfrastructure(void) {
    KsplConvTablesFree();
    const bool logInfo = std::getenv(kLogVariable) != nullptr;
    std::setlocale(LC_ALL, "");

    const char* candidate = std::getenv(kCodePageVariable);
    if (candidate != nullptr && candidate[0] != '\0') {
        if (logInfo) {
            KsplLog(kLogInfo, "Obtaining OEM Code Page setting from %s environment variable\n",
                    kCodePageVariable);
            KsplLog(kLogInfo, "%s=%s\n", kCodePageVariable, candidate);
        }
    } else {
        if (logInfo) {
            KsplLog(kLogInfo,
                    "Obtaining OEM Code Page setting from locale settings (ie. locale charmap)\n");
        }
        candidate = nl_langinfo(CODESET);
        if (candidate != nullptr && candidate[0] != '\0') {
            if (logInfo) {
                KsplLog(kLogInfo, "OEM Code Page setting obtained from locale settings = %s\n",
                        candidate);
            }
        } else {
            candidate = kDefaultOem;
            if (logInfo) {
                KsplLog(kLogInfo,
                        "Unable to obtain OEM Code Page setting from locale settings, using "
                        "default\n");
            }
        }
    }

    const char* oem = candidate;
    if (!CodePageValid(const_cast<char*>(candidate))) {
        oem = kFallback;
        if (logInfo) {
            KsplLog(kLogErr,
                    "Did not find support for %s in the system, setting OEM Code Page to "
                    "ANSI_X3.4-1968\n",
                    candidate);
            KsplLog(kLogErr,
                    "Either add support for the code page or modify the configuration of the "
                    "system\n");
            KsplLog(kLogErr, "Note: You can set the OEM Code Page Setting via the %s variable\n",
                    kCodePageVariable);
            KsplLog(kLogInfo, "Setting OEM Code Page to %s\n", kFallback);
        }
    } else if (logInfo) {
        KsplLog(kLogInfo, "Setting OEM Code Page to %s\n", oem);
    }

    g_pOemCodePage = CopyName(oem);
    if (g_pOemCodePage == nullptr) {
        if (logInfo) KsplLog(kLogErr, "Unable to allocate buffer for code page string");
        return -1;
    }
    g_oemCodePageSupportsEuro = CheckCodePageEuroSupport(g_pOemCodePage);

    const char* ansi = AnsiCandidateFor(g_pOemCodePage);
    if (!CodePageValid(const_cast<char*>(ansi))) {
        ansi = kFallback;
        if (logInfo) {
            KsplLog(kLogErr,
                    "Did not find support for %s in the system, setting ANSI Code Page to "
                    "ANSI_X3.4-1968\n",
                    g_pOemCodePage);
        }
    }
    if (logInfo) KsplLog(kLogInfo, "Setting ANSI Code Page to %s\n", ansi);

    g_pAnsiCodePage = CopyName(ansi);
    if (g_pAnsiCodePage == nullptr) {
        KsplSysFree(g_pOemCodePage);
        g_pOemCodePage = nullptr;
        if (logInfo) KsplLog(kLogErr, "Unable to allocate buffer for code page string");
        return -1;
    }
    g_ansiCodePageSupportsEuro = CheckCodePageEuroSupport(g_pAnsiCodePage);
    KsplConvTablesBuild(g_pOemCodePage, g_pAnsiCodePage);
    return 0;
}

void UnInitCharConvInfrastructure(void) {
    KsplConvTablesFree();
    if (g_pAnsiCodePage != nullptr) {
        KsplSysFree(g_pAnsiCodePage);
        g_pAnsiCodePage = nullptr;
    }
    if (g_pOemCodePage != nullptr) {
        KsplSysFree(g_pOemCodePage);
        g_pOemCodePage = nullptr;
    }
}
