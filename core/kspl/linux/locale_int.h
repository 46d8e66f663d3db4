// locale_int.h - code page setup and the conversion services.
#pragma once
#include <cstddef>

#include "../kspl_internal.h"

KSSTATUS KsoCharUpperBuff(IKspl* pThis, UINT32 Length, PWCHAR pWideStr);
KSSTATUS KsoMultiByteToWideChar(IKspl* pThis, UINT32 CodePage, PCHAR pMultiByteStr,
                                INT32 MultiByteStrLen, PWCHAR pWideCharStr,
                                PUINT32 pWideCharStrLen);
KSSTATUS KsoWideCharToMultiByte(IKspl* pThis, UINT32 CodePage, PWCHAR pWideCharStr,
                                INT32 WideCharStrLen, PCHAR pMultiByteStr,
                                PUINT32 pMultiByteStrLen);

// Test hook: the allocator of the code page name copies (malloc when null),
// so that the setup's out-of-memory path can be driven. Not exported.
using KsplCodePageAllocFn = void* (*)(size_t size);
void KsplSetCodePageAllocHook(KsplCodePageAllocFn alloc);
