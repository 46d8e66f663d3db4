// convert.cpp - the conversion services over the character routines: the
// length protocol of KsoMultiByteToWideChar and KsoWideCharToMultiByte
// (argument checks, work buffers, query / fit / exact fit / truncation),
// upper-casing, the exported routines, and the conversions of string lists
// used by the configuration store. The services run the protocol over the
// fast routines (convert_table.cpp, convert_utf8.cpp), the test oracle over
// the reference routines of convert_ref.cpp.
//
// Reentrant: work buffers live on the stack or in the calling instance.
// The code page names are fixed by the setup before any caller exists and
// are read without locks.
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>
#include <cwctype>

#include "../memory_int.h"
#include "convert_int.h"
#include "locale_int.h"
#include "stdio_int.h"

KSPL_SOURCE_UNIT("convert");

namespace {

// The narrow side selected by a CodePage argument.
struct NarrowSide {
    bool valid;
    bool utf8;
    char* name;
    BOOLEAN euro;
};

NarrowSide SelectNarrowSide(UINT32 codePage) {
    switch (codePage) {
        case 1:
        case 4:
            return {true, false, g_pAnsiCodePage, g_ansiCodePageSupportsEuro};
        case 2:
        case 5:
            return {true, false, g_pOemCodePage, g_oemCodePageSupportsEuro};
        case 3:
            return {true, true, nullptr, FALSE};
        default:
            return {false, false, nullptr, FALSE};
    }
}

// Work buffers of the services: a stack area for results of up to
// kStackWork bytes, paged memory of the calling instance above that.
constexpr size_t kStackWork = 512;

class WorkBuffer {
public:
    explicit WorkBuffer(IKspl* pThis) : pThis_(pThis) {}
    ~WorkBuffer() {
        if (paged_ != nullptr) KsoFreeMemory(pThis_, paged_);
    }
    WorkBuffer(const WorkBuffer&) = delete;
    WorkBuffer& operator=(const WorkBuffer&) = delete;

    // Null when a paged buffer was needed and could not be had.
    void* Get(uint64_t bytes) {
        if (bytes <= kStackWork) return stack_;
        if (bytes > UINT32_MAX) return nullptr;
        paged_ = KsoAllocPagedMemory(pThis_, static_cast<UINT32>(bytes));
        return paged_;
    }

private:
    IKspl* pThis_;
    void* paged_ = nullptr;
    alignas(8) unsigned char stack_[kStackWork];
};

inline int ClampToInt(uint64_t v) { return v > INT_MAX ? INT_MAX : static_cast<int>(v); }

// The outcome of a conversion against the caller's capacity: a length
// query or a capacity above the result gets the result and a terminator;
// an exact fit no terminator; a smaller capacity a truncated copy.
struct Fit {
    UINT32 count;
    bool terminator;
    bool truncated;
};

inline Fit FitResult(UINT32 produced, UINT32 capacity) {
    if (capacity == 0 || capacity > produced) return {produced, true, false};
    if (capacity == produced) return {produced, false, false};
    return {capacity, false, true};
}

}  // namespace

KSSTATUS KsplMultiByteToWideCharWith(const KsplConvRoutines* routines, IKspl* pThis,
                                     UINT32 CodePage, PCHAR pMultiByteStr, INT32 MultiByteStrLen,
                                     PWCHAR pWideCharStr, PUINT32 pWideCharStrLen) {
    static constexpr char kFn[] = "KsoMultiByteToWideChar";
    if (pMultiByteStr == nullptr || MultiByteStrLen == 0 || MultiByteStrLen < -1 ||
        pWideCharStrLen == nullptr) {
        return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_INVALID_PARAM, kFn);
    }
    uint64_t n;
    if (MultiByteStrLen == -1) {
        n = KsoStrlen(pThis, pMultiByteStr);
    } else {
        n = static_cast<uint64_t>(MultiByteStrLen);
        if (pMultiByteStr[n - 1] == '\0') --n;
    }
    // One input byte never yields more than one unit; one more for the NUL.
    const uint64_t work = 2 * n + 2;
    const UINT32 capacity = *pWideCharStrLen;
    const bool lengthOnly = pWideCharStr == nullptr || capacity == 0;

    WorkBuffer buffer(pThis);
    WCHAR* out;
    if (!lengthOnly && work <= 2ull * capacity) {
        out = pWideCharStr;
    } else {
        out = static_cast<WCHAR*>(buffer.Get(work));
        if (out == nullptr) return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_NO_MEMORY, kFn);
    }

    const NarrowSide side = SelectNarrowSide(CodePage);
    if (!side.valid) return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_INVALID_PARAM, kFn);
    const int inCount = ClampToInt(n);
    int produced = ClampToInt(n + 1);
    const int rc = side.utf8 ? routines->utf8ToUni(pMultiByteStr, inCount, out, &produced)
                             : routines->locToUni(side.name, side.euro, pMultiByteStr, inCount,
                                                  out, &produced);
    if (rc == -1) return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_FAILURE, kFn);

    const UINT32 r = static_cast<UINT32>(produced);
    const Fit fit = FitResult(r, capacity);
    if (lengthOnly) {
        *pWideCharStrLen = fit.count + 1;
    } else {
        if (out != pWideCharStr) std::memcpy(pWideCharStr, out, fit.count * sizeof(WCHAR));
        if (fit.terminator) pWideCharStr[r] = 0;
        *pWideCharStrLen = fit.count;
    }
    return fit.truncated ? KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_BUFFER_SMALL, kFn) : 0;
}

KSSTATUS KsplWideCharToMultiByteWith(const KsplConvRoutines* routines, IKspl* pThis,
                                     UINT32 CodePage, PWCHAR pWideCharStr, INT32 WideCharStrLen,
                                     PCHAR pMultiByteStr, PUINT32 pMultiByteStrLen) {
    static constexpr char kFn[] = "KsoWideCharToMultiByte";
    if (pWideCharStr == nullptr || WideCharStrLen == 0 || WideCharStrLen < -1 ||
        pMultiByteStrLen == nullptr) {
        return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_INVALID_PARAM, kFn);
    }
    uint64_t n;
    if (WideCharStrLen == -1) {
        n = KsoStrlenW(pThis, pWideCharStr);
    } else {
        n = static_cast<uint64_t>(WideCharStrLen);
        if (pWideCharStr[n - 1] == 0) --n;
    }
    // Worst case per unit: a six-byte escape, with room to spare for the
    // capacity tests of the character routines.
    const uint64_t work = 12 * n;
    const UINT32 capacity = *pMultiByteStrLen;
    const bool lengthOnly = pMultiByteStr == nullptr || capacity == 0;

    WorkBuffer buffer(pThis);
    char* out;
    if (!lengthOnly && work <= capacity) {
        out = pMultiByteStr;
    } else {
        out = static_cast<char*>(buffer.Get(work));
        if (out == nullptr) return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_NO_MEMORY, kFn);
    }

    const NarrowSide side = SelectNarrowSide(CodePage);
    if (!side.valid) return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_INVALID_PARAM, kFn);
    const int inCount = ClampToInt(n);
    int produced = ClampToInt(work);
    const int rc = side.utf8 ? routines->uniToUtf8(pWideCharStr, inCount, out, &produced)
                             : routines->uniToLoc(side.name, pWideCharStr, inCount, out, &produced);
    if (rc == -1) return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_FAILURE, kFn);

    const UINT32 r = static_cast<UINT32>(produced);
    const Fit fit = FitResult(r, capacity);
    if (lengthOnly) {
        *pMultiByteStrLen = fit.count + 1;
    } else {
        if (out != pMultiByteStr) std::memcpy(pMultiByteStr, out, fit.count);
        if (fit.terminator) pMultiByteStr[r] = '\0';
        *pMultiByteStrLen = fit.count;
    }
    return fit.truncated ? KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_BUFFER_SMALL, kFn) : 0;
}

KSSTATUS KsplRefMultiByteToWideChar(IKspl* pThis, UINT32 CodePage, PCHAR pMultiByteStr,
                                    INT32 MultiByteStrLen, PWCHAR pWideCharStr,
                                    PUINT32 pWideCharStrLen) {
    return KsplMultiByteToWideCharWith(&kKsplRefConvRoutines, pThis, CodePage, pMultiByteStr,
                                       MultiByteStrLen, pWideCharStr, pWideCharStrLen);
}

KSSTATUS KsplRefWideCharToMultiByte(IKspl* pThis, UINT32 CodePage, PWCHAR pWideCharStr,
                                    INT32 WideCharStrLen, PCHAR pMultiByteStr,
                                    PUINT32 pMultiByteStrLen) {
    return KsplWideCharToMultiByteWith(&kKsplRefConvRoutines, pThis, CodePage, pWideCharStr,
                                       WideCharStrLen, pMultiByteStr, pMultiByteStrLen);
}

KSSTATUS KsplRefCharUpperBuff(IKspl* /*pThis*/, UINT32 Length, PWCHAR pWideStr) {
    static constexpr char kFn[] = "KsoCharUpperBuff";
    if (Length == 0 || pWideStr == nullptr) {
        return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_INVALID_PARAM, kFn);
    }
    // Byte classification in the process locale for the units it is
    // defined for, the wide-character classification above them.
    for (UINT32 i = Length; i-- > 0;) {
        const WCHAR u = pWideStr[i];
        const bool alnum = u <= 0xFF ? std::isalnum(u) != 0 : std::iswalnum(u) != 0;
        if (alnum) pWideStr[i] = static_cast<WCHAR>(std::towupper(u));
    }
    return 0;
}

// The IKspl services and the exported routines.

KSSTATUS KsoCharUpperBuff(IKspl* pThis, UINT32 Length, PWCHAR pWideStr) {
    return KsplRefCharUpperBuff(pThis, Length, pWideStr);
}

KSSTATUS KsoMultiByteToWideChar(IKspl* pThis, UINT32 CodePage, PCHAR pMultiByteStr,
                                INT32 MultiByteStrLen, PWCHAR pWideCharStr,
                                PUINT32 pWideCharStrLen) {
    return KsplMultiByteToWideCharWith(&kKsplFastConvRoutines, pThis, CodePage, pMultiByteStr,
                                       MultiByteStrLen, pWideCharStr, pWideCharStrLen);
}

KSSTATUS KsoWideCharToMultiByte(IKspl* pThis, UINT32 CodePage, PWCHAR pWideCharStr,
                                INT32 WideCharStrLen, PCHAR pMultiByteStr,
                                PUINT32 pMultiByteStrLen) {
    return KsplWideCharToMultiByteWith(&kKsplFastConvRoutines, pThis, CodePage, pWideCharStr,
                                       WideCharStrLen, pMultiByteStr, pMultiByteStrLen);
}

int LocToUni(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti, int inMultiChars,
             WCHAR* pOutWide, int* pOutWideChars) {
    return KsplFastLocToUni(pCodePage, codePageSupportsEuro, pInMulti, inMultiChars, pOutWide,
                            pOutWideChars);
}

int Utf8ToUni(char* pInMulti, int inMultiChars, WCHAR* pOutWide, int* pOutWideChars) {
    return KsplFastUtf8ToUni(pInMulti, inMultiChars, pOutWide, pOutWideChars);
}

int UniToLoc(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
             int* pOutMultiChars) {
    return KsplFastUniToLoc(pCodePage, pInWide, inWideChars, pOutMulti, pOutMultiChars);
}

int UniToUtf8(WCHAR* pInWide, int inWideChars, char* pOutMulti, int* pOutMultiChars) {
    return KsplFastUniToUtf8(pInWide, inWideChars, pOutMulti, pOutMultiChars);
}

int Utf8SeqLen(char firstSeqByte) { return KsplRefUtf8SeqLen(firstSeqByte); }

// List conversions: one string, or (Multiple exactly TRUE) a list of
// NUL-terminated strings ended by an empty one. The converted list keeps
// one unit free for its own terminator. On failure the length stays as it
// was; what was written so far stays in the output.

KSSTATUS WideCharToMultiByteMultiple(IKspl* pThis, UINT32 CodePage, BOOLEAN Multiple,
                                     PWCHAR WideStr, INT32 /*WideStrLen*/, PCHAR Str,
                                     PUINT32 pStrLen) {
    if (WideStr == nullptr || Str == nullptr || pStrLen == nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    char* const end = Str + *pStrLen;
    char* pos = Str;
    const WCHAR* in = WideStr;
    while (*in != 0) {
        if (pos >= end) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
        UINT32 len = static_cast<UINT32>(end - pos);
        KSSTATUS st = KsoWideCharToMultiByte(pThis, CodePage, const_cast<WCHAR*>(in), -1, pos, &len);
        if (st != 0) return st;
        if (len >= static_cast<UINT32>(end - pos) - 1) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
        pos[len] = '\0';
        pos += len + 1;
        if (Multiple != TRUE) {
            *pStrLen = static_cast<UINT32>(pos - Str);
            return 0;
        }
        in += KsoStrlenW(pThis, const_cast<WCHAR*>(in)) + 1;
    }
    if (Multiple != TRUE) {
        *pStrLen = 0;
        return 0;
    }
    if (pos >= end) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    *pos++ = '\0';
    *pStrLen = static_cast<UINT32>(pos - Str);
    return 0;
}

KSSTATUS KsoMultiByteToWideCharMultiple(IKspl* pThis, UINT32 CodePage, BOOLEAN Multiple,
                                        PCHAR pMultiByteStr, INT32 /*MultiByteStrLen*/,
                                        PWCHAR pWideCharStr, PUINT32 pWideCharStrLen) {
    if (pMultiByteStr == nullptr || pWideCharStr == nullptr || pWideCharStrLen == nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    WCHAR* const end = pWideCharStr + *pWideCharStrLen;
    WCHAR* pos = pWideCharStr;
    const char* in = pMultiByteStr;
    while (*in != '\0') {
        if (pos >= end) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
        UINT32 len = static_cast<UINT32>(end - pos);
        KSSTATUS st = KsoMultiByteToWideChar(pThis, CodePage, const_cast<char*>(in), -1, pos, &len);
        if (st != 0) return st;
        if (len >= static_cast<UINT32>(end - pos) - 1) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
        pos[len] = 0;
        pos += len + 1;
        if (Multiple != TRUE) {
            *pWideCharStrLen = static_cast<UINT32>(pos - pWideCharStr);
            return 0;
        }
        in += std::strlen(in) + 1;
    }
    if (Multiple != TRUE) {
        *pWideCharStrLen = 0;
        return 0;
    }
    if (pos >= end) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    *pos++ = 0;
    *pWideCharStrLen = static_cast<UINT32>(pos - pWideCharStr);
    return 0;
}
