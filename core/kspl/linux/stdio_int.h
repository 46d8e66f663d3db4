// stdio_int.h - memory utilities and string lengths.
#pragma once
#include "kspl_internal.h"

UINT32 KsoCompareMemory(IKspl* pThis, PVOID pMemory1, PVOID pMemory2, UINT32 Length);
void KsoCopyMemory(IKspl* pThis, PVOID pDest, PVOID pSrc, UINT32 Length);
void KsoFillMemory(IKspl* pThis, PVOID pDest, UINT32 Length, UCHAR Fill);
void KsoMoveMemory(IKspl* pThis, PVOID pDest, PVOID pSrc, UINT32 Length);
void KsoZeroMemory(IKspl* pThis, PVOID pDest, UINT32 Length);
UINT32 KsoStrlen(IKspl* pThis, PCHAR pString);
UINT32 KsoStrlenW(IKspl* pThis, PWCHAR pStringW);
