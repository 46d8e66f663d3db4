// convert_int.h - the reference conversions between 16-bit units and the
// narrow encodings (ANSI and OEM code pages, UTF-8).
//
// The KsplRef* routines are the per-character algorithms on iconv: every
// call opens its own descriptor and makes one iconv call per character (up
// to three for a multi-byte character of a code page). They are slow by
// design and stay callable from tests as the oracle that any faster
// implementation of the exported routines and IKspl slots must match.
//
// Contract of the four character routines: input pointer and count of input
// units (bytes or 16-bit units); output pointer; *pOut* holds the output
// capacity in output units on entry and the units produced on return. They
// return 0, or -1 with *pOut* set to 0. They never write a terminator and
// never read past the given count.
#pragma once
#include "../kspl_internal.h"

int KsplRefLocToUni(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti,
                    int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
int KsplRefUtf8ToUni(char* pInMulti, int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
int KsplRefUniToLoc(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                    int* pOutMultiChars);
int KsplRefUniToUtf8(WCHAR* pInWide, int inWideChars, char* pOutMulti, int* pOutMultiChars);
int KsplRefUtf8SeqLen(char firstSeqByte);

// The character routines behind the length protocol of the Kso services.
// The protocol (argument checks, work buffers, query/fit/exact/truncate)
// is shared; only the character work differs between implementations.
struct KsplConvRoutines {
    int (*locToUni)(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti,
                    int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
    int (*utf8ToUni)(char* pInMulti, int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
    int (*uniToLoc)(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                    int* pOutMultiChars);
    int (*uniToUtf8)(WCHAR* pInWide, int inWideChars, char* pOutMulti, int* pOutMultiChars);
};
extern const KsplConvRoutines kKsplRefConvRoutines;

// The length protocol of KsoMultiByteToWideChar / KsoWideCharToMultiByte
// over the given character routines. Failures are reported under the
// service's own name.
KSSTATUS KsplMultiByteToWideCharWith(const KsplConvRoutines* routines, IKspl* pThis,
                                     UINT32 CodePage, PCHAR pMultiByteStr, INT32 MultiByteStrLen,
                                     PWCHAR pWideCharStr, PUINT32 pWideCharStrLen);
KSSTATUS KsplWideCharToMultiByteWith(const KsplConvRoutines* routines, IKspl* pThis,
                                     UINT32 CodePage, PWCHAR pWideCharStr, INT32 WideCharStrLen,
                                     PCHAR pMultiByteStr, PUINT32 pMultiByteStrLen);

// The services over the reference routines.
KSSTATUS KsplRefMultiByteToWideChar(IKspl* pThis, UINT32 CodePage, PCHAR pMultiByteStr,
                                    INT32 MultiByteStrLen, PWCHAR pWideCharStr,
                                    PUINT32 pWideCharStrLen);
KSSTATUS KsplRefWideCharToMultiByte(IKspl* pThis, UINT32 CodePage, PWCHAR pWideCharStr,
                                    INT32 WideCharStrLen, PCHAR pMultiByteStr,
                                    PUINT32 pMultiByteStrLen);
KSSTATUS KsplRefCharUpperBuff(IKspl* pThis, UINT32 Length, PWCHAR pWideStr);
