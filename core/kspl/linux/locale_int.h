// locale_int.h - code page setup and conversions.
#pragma once
#include "../kspl_internal.h"

KSSTATUS KsoCharUpperBuff(IKspl* pThis, UINT32 Length, PWCHAR pWideStr);
KSSTATUS KsoMultiByteToWideChar(IKspl* pThis, UINT32 CodePage, PCHAR pMultiByteStr,
                                INT32 MultiByteStrLen, PWCHAR pWideCharStr,
                                PUINT32 pWideCharStrLen);
KSSTATUS KsoWideCharToMultiByte(IKspl* pThis, UINT32 CodePage, PWCHAR pWideCharStr,
                                INT32 WideCharStrLen, PCHAR pMultiByteStr,
                                PUINT32 pMultiByteStrLen);
