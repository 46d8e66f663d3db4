// stdio.cpp - memory utilities and string lengths. None of these validates
// its instance, locks or reports a status.
#include <cstring>

#include "stdio_int.h"

UINT32 KsoCompareMemory(IKspl* /*pThis*/, PVOID pMemory1, PVOID pMemory2, UINT32 Length) {
    if (pMemory1 == nullptr || pMemory2 == nullptr) return 0;
    const auto* a = static_cast<const unsigned char*>(pMemory1);
    const auto* b = static_cast<const unsigned char*>(pMemory2);
    UINT32 i = 0;
    while (i < Length && a[i] == b[i]) ++i;
    return i;
}

void KsoCopyMemory(IKspl* /*pThis*/, PVOID pDest, PVOID pSrc, UINT32 Length) {
    if (pDest == nullptr || pSrc == nullptr) return;
    std::memcpy(pDest, pSrc, Length);
}

void KsoMoveMemory(IKspl* /*pThis*/, PVOID pDest, PVOID pSrc, UINT32 Length) {
    if (pDest == nullptr || pSrc == nullptr) return;
    std::memmove(pDest, pSrc, Length);
}

void KsoFillMemory(IKspl* /*pThis*/, PVOID pDest, UINT32 Length, UCHAR Fill) {
    if (pDest == nullptr) return;
    std::memset(pDest, Fill, Length);
}

void KsoZeroMemory(IKspl* /*pThis*/, PVOID pDest, UINT32 Length) {
    if (pDest == nullptr) return;
    std::memset(pDest, 0, Length);
}

UINT32 KsoStrlen(IKspl* /*pThis*/, PCHAR pString) {
    return pString == nullptr ? 0 : static_cast<UINT32>(std::strlen(pString));
}

UINT32 KsoStrlenW(IKspl* /*pThis*/, PWCHAR pStringW) {
    if (pStringW == nullptr) return 0;
    UINT32 n = 0;
    while (pStringW[n] != 0) ++n;
    return n;
}
