// string.cpp - counted strings. The library never allocates or frees the
// buffers of these records: every operation works in place on the caller's
// buffer, truncates to its capacity and adds a terminator only when there
// is room for it. The instance is used only to reach the case mapping and
// the code page conversions, never validated.
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "locale_int.h"
#include "stdio_int.h"
#include "string_int.h"
#include "sysalloc_int.h"

KSPL_SOURCE_UNIT("string");

namespace {

// Largest lengths a record can describe: a wide text keeps an even length
// and room for its terminator unit, a narrow one room for its NUL.
constexpr size_t kMaxWideUnits = 32766;
constexpr size_t kMaxNarrowBytes = 65534;

// Byte comparison over the shorter length; units compare low byte first.
int unincmp(PUNICODE_STRING pStr0, PUNICODE_STRING pStr1) {
    size_t n = pStr0->Length < pStr1->Length ? pStr0->Length : pStr1->Length;
    return n == 0 ? 0 : std::memcmp(pStr0->Buffer, pStr1->Buffer, n);
}

// The same over upper-cased copies; -1 when a copy cannot be made.
int unincasecmp(IKspl* pThis, PUNICODE_STRING pStr0, PUNICODE_STRING pStr1) {
    // One byte at least, so that an empty text is not taken for a failure.
    auto* copy0 = static_cast<WCHAR*>(KsplSysAlloc(pStr0->Length + 1u));
    auto* copy1 = static_cast<WCHAR*>(KsplSysAlloc(pStr1->Length + 1u));
    if (copy0 == nullptr || copy1 == nullptr) {
        KsplSysFree(copy0);
        KsplSysFree(copy1);
        return -1;
    }
    if (pStr0->Length != 0) std::memcpy(copy0, pStr0->Buffer, pStr0->Length);
    if (pStr1->Length != 0) std::memcpy(copy1, pStr1->Buffer, pStr1->Length);
    KsoCharUpperBuff(pThis, pStr0->Length / 2u, copy0);
    KsoCharUpperBuff(pThis, pStr1->Length / 2u, copy1);
    size_t n = pStr0->Length < pStr1->Length ? pStr0->Length : pStr1->Length;
    int result = n == 0 ? 0 : std::memcmp(copy0, copy1, n);
    KsplSysFree(copy0);
    KsplSysFree(copy1);
    return result;
}

int NarrowCompare(PSTRING a, PSTRING b, size_t n, BOOLEAN caseInsensitive) {
    if (n == 0) return 0;
    return caseInsensitive ? strncasecmp(a->Buffer, b->Buffer, n)
                           : std::strncmp(a->Buffer, b->Buffer, n);
}

// strtoul with the 32-bit result of the target: a value that does not fit
// in 32 bits saturates, and a negated value wraps in 32 bits.
UINT32 ParseUnsigned32(const char* text, int base) {
    errno = 0;
    unsigned long long parsed = std::strtoull(text, nullptr, base);
    if (errno == ERANGE) return 0xFFFFFFFFu;
    const char* p = text;
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    const bool negative = *p == '-';
    unsigned long long magnitude = negative ? 0ull - parsed : parsed;
    if (magnitude > 0xFFFFFFFFull) return 0xFFFFFFFFu;
    return negative ? static_cast<UINT32>(0u - static_cast<UINT32>(magnitude))
                    : static_cast<UINT32>(magnitude);
}

}  // namespace

void KsoInitString(IKspl* /*pThis*/, PSTRING pDestString, PCHAR pSrcString) {
    if (pDestString == nullptr) return;
    pDestString->Buffer = pSrcString;
    if (pSrcString == nullptr) {
        pDestString->Length = pDestString->MaximumLength = 0;
        return;
    }
    size_t n = std::strlen(pSrcString);
    if (n > kMaxNarrowBytes) n = kMaxNarrowBytes;
    pDestString->Length = static_cast<UINT16>(n);
    pDestString->MaximumLength = static_cast<UINT16>(n + 1);
}

void KsoInitUnicodeString(IKspl* /*pThis*/, PUNICODE_STRING pDestStringU, PWCHAR pSrcStringW) {
    if (pDestStringU == nullptr) return;
    pDestStringU->Buffer = pSrcStringW;
    if (pSrcStringW == nullptr) {
        pDestStringU->Length = pDestStringU->MaximumLength = 0;
        return;
    }
    size_t n = 0;
    while (pSrcStringW[n] != 0 && n <= kMaxWideUnits) ++n;
    if (n > kMaxWideUnits) n = kMaxWideUnits;
    pDestStringU->Length = static_cast<UINT16>(2 * n);
    pDestStringU->MaximumLength = static_cast<UINT16>(2 * n + 2);
}

void KsoCopyString(IKspl* /*pThis*/, PSTRING pDestString, PSTRING pSrcString) {
    if (pDestString == nullptr) return;
    if (pSrcString == nullptr) {
        pDestString->Length = 0;
        return;
    }
    UINT16 n = pDestString->MaximumLength < pSrcString->Length ? pDestString->MaximumLength
                                                               : pSrcString->Length;
    if (n != 0) std::memmove(pDestString->Buffer, pSrcString->Buffer, n);
    pDestString->Length = n;
    if (pDestString->MaximumLength >= n + 1u) pDestString->Buffer[n] = '\0';
}

void KsoCopyUnicodeString(IKspl* /*pThis*/, PUNICODE_STRING pDestStringU,
                          PUNICODE_STRING pSrcStringU) {
    if (pDestStringU == nullptr) return;
    if (pSrcStringU == nullptr) {
        pDestStringU->Length = 0;
        return;
    }
    UINT16 n = pDestStringU->MaximumLength < pSrcStringU->Length ? pDestStringU->MaximumLength
                                                                 : pSrcStringU->Length;
    if (n != 0) std::memmove(pDestStringU->Buffer, pSrcStringU->Buffer, n);
    pDestStringU->Length = n;
    if (pDestStringU->MaximumLength >= n + 2u) pDestStringU->Buffer[n / 2] = 0;
}

KSSTATUS KsoAppendUnicodeStringToString(IKspl* pThis, PUNICODE_STRING pDestStringU,
                                        PUNICODE_STRING pSrcStringU) {
    if (pDestStringU == nullptr || pSrcStringU == nullptr) {
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    }
    if (pSrcStringU->Length == 0) return 0;
    const UINT32 newLength = static_cast<UINT32>(pDestStringU->Length) + pSrcStringU->Length;
    if (newLength > pDestStringU->MaximumLength) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    KsoMoveMemory(pThis, pDestStringU->Buffer + pDestStringU->Length / 2, pSrcStringU->Buffer,
                  pSrcStringU->Length);
    pDestStringU->Length = static_cast<UINT16>(newLength);
    if (pDestStringU->MaximumLength >= newLength + 2) pDestStringU->Buffer[newLength / 2] = 0;
    return 0;
}

KSSTATUS KsoAppendUnicodeToString(IKspl* pThis, PUNICODE_STRING pDestStringU, PWSTR pSrcStringW) {
    if (pDestStringU == nullptr) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    if (pSrcStringW == nullptr) return 0;
    UNICODE_STRING source;
    KsoInitUnicodeString(pThis, &source, pSrcStringW);
    return KsoAppendUnicodeStringToString(pThis, pDestStringU, &source);
}

INT32 KsoCompareString(IKspl* /*pThis*/, PSTRING pString1, PSTRING pString2,
                       BOOLEAN CaseInsensitive) {
    if (pString1 == nullptr || pString2 == nullptr) return -1;
    size_t n = pString1->Length < pString2->Length ? pString1->Length : pString2->Length;
    int result = NarrowCompare(pString1, pString2, n, CaseInsensitive);
    if (result != 0) return result;
    return static_cast<INT32>(pString1->Length) - static_cast<INT32>(pString2->Length);
}

INT32 KsoCompareUnicodeString(IKspl* pThis, PUNICODE_STRING pString1, PUNICODE_STRING pString2,
                              BOOLEAN CaseInsensitive) {
    if (pString1 == nullptr || pString2 == nullptr) return -1;
    int result = CaseInsensitive ? unincasecmp(pThis, pString1, pString2)
                                 : unincmp(pString1, pString2);
    if (result != 0) return result;
    return static_cast<INT32>(pString1->Length) - static_cast<INT32>(pString2->Length);
}

BOOLEAN KsoEqualString(IKspl* /*pThis*/, PSTRING pString1, PSTRING pString2,
                       BOOLEAN CaseInsensitive) {
    if (pString1 == nullptr || pString2 == nullptr) return FALSE;
    if (pString1->Length != pString2->Length) return FALSE;
    return NarrowCompare(pString1, pString2, pString1->Length, CaseInsensitive) == 0 ? TRUE
                                                                                      : FALSE;
}

BOOLEAN KsoEqualUnicodeString(IKspl* pThis, PUNICODE_STRING pString1, PUNICODE_STRING pString2,
                              BOOLEAN CaseInsensitive) {
    if (pString1 == nullptr || pString2 == nullptr) return FALSE;
    if (pString1->Length != pString2->Length) return FALSE;
    int result = CaseInsensitive ? unincasecmp(pThis, pString1, pString2)
                                 : unincmp(pString1, pString2);
    return result == 0 ? TRUE : FALSE;
}

KSSTATUS KsoIntegerToUnicodeString(IKspl* pThis, UINT32 Value, UINT32 Base,
                                   PUNICODE_STRING pStringU) {
    if (pStringU == nullptr) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    char digits[32];
    const char* format = Base == 8 ? "%o" : Base == 16 ? "%x" : "%u";
    std::snprintf(digits, sizeof(digits), format, static_cast<unsigned>(Value));
    UINT32 units = pStringU->MaximumLength / 2u;
    // Without a buffer to hold the digits the conversion would only measure
    // them; that is a buffer that is too small here.
    if (units == 0 || pStringU->Buffer == nullptr) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    KSSTATUS status = KsoMultiByteToWideChar(pThis, 2, digits, -1, pStringU->Buffer, &units);
    if (!KS_IS_ERROR(status)) pStringU->Length = static_cast<UINT16>(2 * units);
    return status;
}

KSSTATUS KsoUnicodeStringToInteger(IKspl* pThis, PUNICODE_STRING pStringU, UINT32 Base,
                                   PUINT32 pValue) {
    if (pStringU == nullptr || pValue == nullptr) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    char text[65];
    UINT32 bytes = sizeof(text);
    KSSTATUS status = KsoWideCharToMultiByte(pThis, 2, pStringU->Buffer,
                                             static_cast<INT32>(pStringU->Length / 2u), text,
                                             &bytes);
    if (KS_IS_ERROR(status)) return status;
    // A text that fills the buffer leaves no room for its terminator.
    if (bytes >= sizeof(text)) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    text[bytes] = '\0';
    *pValue = ParseUnsigned32(text, static_cast<int>(Base));
    return status;
}
