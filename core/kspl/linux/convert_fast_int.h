// convert_fast_int.h - what the fast conversion routines share among their
// files: the code page tables (convert_table.cpp), the UTF-8 codec
// (convert_utf8.cpp) and its block kernels (convert_utf8_block.cpp), and the
// per-thread descriptor cache (convert_cache.cpp).
#pragma once
#include <iconv.h>

#include "convert_int.h"

// Function-level targets of the vector kernels: the files are compiled for
// the plain target of the build (i686 has no SSE at all), and a kernel runs
// only when the variant chosen at start-up allows it.
#define KSPL_TARGET_SSE2 __attribute__((target("sse2")))
#define KSPL_TARGET_SSSE3 __attribute__((target("ssse3")))
#define KSPL_TARGET_AVX2 __attribute__((target("avx2")))

namespace kspl_conv {

inline const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);
// Units that a descriptor reading "UNICODE" takes as byte-order marks at its
// very first call: the mark, and the mark of swapped byte order.
constexpr WCHAR kMark = 0xFEFF;
constexpr WCHAR kSwappedMark = 0xFFFE;

inline int Fail(int* pOut) {
    *pOut = 0;
    return -1;
}

inline int Succeed(int* pOut, int produced) {
    *pOut = produced;
    return 0;
}

inline WCHAR Swapped(WCHAR u) { return static_cast<WCHAR>((u >> 8) | (u << 8)); }

}  // namespace kspl_conv

// The reference loops of LocToUni and UniToLoc on a descriptor cached per
// thread for the code page, or on a fresh one where a cached descriptor
// would not give the reference's results (convert_cache.cpp).
int KsplCachedLocToUni(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti,
                       int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
int KsplCachedUniToLoc(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                       int* pOutMultiChars);
// Closes every cached descriptor on its thread's next use: the code pages
// behind the names may have changed. Called by the setup and the release.
void KsplConvCacheInvalidate();

// UTF-8 block kernels. Decoding: whole blocks from in[*pos] on into out,
// which has room for one unit per input byte; encoding: whole groups of
// units into out, which has room for three bytes per unit. Each advances
// *pos over what it converted and returns the units or bytes written,
// stopping short of anything the per-character codec must judge (a block
// that is not plain holds the failure), so that a failed conversion writes
// exactly what the reference writes. Call only the variants the CPU has.
int KsplDecodeUtf8BlocksSse2(const unsigned char* in, int n, WCHAR* out, int* pos);
int KsplDecodeUtf8BlocksSsse3(const unsigned char* in, int n, WCHAR* out, int* pos);
int KsplDecodeUtf8BlocksAvx2(const unsigned char* in, int n, WCHAR* out, int* pos);
int KsplEncodeUtf8BlocksSse2(const WCHAR* in, int n, unsigned char* out, int* pos);
int KsplEncodeUtf8BlocksSsse3(const WCHAR* in, int n, unsigned char* out, int* pos);
int KsplEncodeUtf8BlocksAvx2(const WCHAR* in, int n, unsigned char* out, int* pos);
