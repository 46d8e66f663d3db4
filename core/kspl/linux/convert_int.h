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
#include <iconv.h>

#include "../kspl_internal.h"

int KsplRefLocToUni(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti,
                    int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
int KsplRefUtf8ToUni(char* pInMulti, int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
int KsplRefUniToLoc(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                    int* pOutMultiChars);
int KsplRefUniToUtf8(WCHAR* pInWide, int inWideChars, char* pOutMulti, int* pOutMultiChars);
int KsplRefUtf8SeqLen(char firstSeqByte);

// Separators that never pass through iconv, so that paths survive every
// code page unchanged.
inline bool KsplIsPathSeparator(unsigned v) { return v == ':' || v == '\\' || v == '/'; }

// One iconv call over the whole input; returns the output bytes produced,
// or -1 on failure (errno as iconv left it).
int KsplIconvOnce(iconv_t cd, const void* in, size_t inBytes, void* out, size_t outBytes);

// The per-character loops of KsplRefLocToUni and KsplRefUniToLoc on a
// descriptor the caller opened: fresh, or reset to its initial state with
// iconv(cd, NULL, NULL, NULL, NULL).
int KsplLocToUniOn(iconv_t descriptor, BOOLEAN codePageSupportsEuro, char* pInMulti,
                   int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
int KsplUniToLocOn(iconv_t descriptor, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                   int* pOutMultiChars);

// The routines behind the services and the exported LocToUni, Utf8ToUni,
// UniToLoc and UniToUtf8 (convert_table.cpp, convert_utf8.cpp). Same
// contract and same results
// as the reference, output written before a failure included: lookup tables
// for the single-byte code pages chosen by the setup, a UTF-8 codec of our
// own, and for any other code page the reference loops on a descriptor
// cached per thread. The tables and the codec take runs of characters at a
// time with the vector kernels of the variant in use (below).
int KsplFastLocToUni(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti,
                     int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
int KsplFastUtf8ToUni(char* pInMulti, int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
int KsplFastUniToLoc(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                     int* pOutMultiChars);
int KsplFastUniToUtf8(WCHAR* pInWide, int inWideChars, char* pOutMulti, int* pOutMultiChars);

// Variants of the vector kernels, each a superset of the one before:
// scalar (a plain i686, the per-character loops only), SSE2 (runs of ASCII
// copied sixteen bytes at a time), SSSE3 (UTF-8 blocks with any one-, two-
// and three-byte characters through byte shuffles), AVX2 (the same, with
// runs of ASCII thirty-two bytes at a time). Every variant gives the same
// results.
enum class KsplConvIsa : int { kScalar = 0, kSse2 = 1, kSsse3 = 2, kAvx2 = 3 };
// The widest variant the CPU supports, looked up once.
KsplConvIsa KsplConvIsaBest();
// The variant the conversions use: the widest, unless a test chose another.
KsplConvIsa KsplConvIsaInUse();
// Test hook: use `isa` from now on; false (nothing changed) when the CPU
// lacks it. Not for use while conversions run on other threads.
bool KsplConvUseIsa(KsplConvIsa isa);
const char* KsplConvIsaName(KsplConvIsa isa);

// Lookup tables of the OEM and ANSI code pages, built by the code page setup
// for each of them that probes as single-byte, and released with the names.
// Both run with no conversion in progress (the setup's own guarantee).
// Building never fails the setup: without tables the conversions take the
// descriptor path.
void KsplConvTablesBuild(const char* oemCodePage, const char* ansiCodePage);
void KsplConvTablesFree();
// Whether conversions through this code page name use lookup tables.
bool KsplConvHasTables(const char* codePage);

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
extern const KsplConvRoutines kKsplFastConvRoutines;

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
