// convert_table.cpp - conversions through the single-byte code pages that
// the setup chose, by lookup tables probed once from iconv, with the
// reference's own rules (path separators, "[XXXX]" escapes, the euro byte
// 0xCC) applied around them; any other code page goes to the descriptor
// cache. Results are the reference's: status, output, count, and the output
// written before a failure.
//
// A property of glibc's "UNICODE" code set shapes the code below (it shows
// in the reference because the reference opens a fresh descriptor per
// call): a descriptor that reads "UNICODE" takes a unit U+FEFF at its very
// first iconv call as a byte-order mark (it produces nothing), and U+FFFE
// there as a mark of swapped byte order: every later unit of that
// descriptor is read byte-swapped.
//
// Tables are written only by the setup and the release, which never run
// while a conversion does; conversions read them without locks.
#include <errno.h>
#include <iconv.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <immintrin.h>

#include "../sysalloc_int.h"
#include "convert_fast_int.h"
#include "convlock_int.h"

using namespace kspl_conv;

namespace {

// The digit rule of the escapes read back: '0'-'9', anything else its
// lower-case code minus 87. The letters of hexadecimal digits have the same
// lower case in every locale; only other bytes ask the locale.
inline unsigned HexDigit(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if ((c | 0x20u) - 'a' < 6u) return (c | 0x20u) - 87u;
    return static_cast<unsigned>(std::tolower(c) - 87);
}

inline WCHAR EscapeValue(const unsigned char* digits) {
    unsigned value = 0;
    for (int d = 0; d < 4; ++d) value = value * 16u + HexDigit(digits[d]);
    return static_cast<WCHAR>(value & 0xFFFFu);
}

inline void WriteEscape(char* o, WCHAR u) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    o[0] = '[';
    o[1] = kHex[(u >> 12) & 0xF];
    o[2] = kHex[(u >> 8) & 0xF];
    o[3] = kHex[(u >> 4) & 0xF];
    o[4] = kHex[u & 0xF];
    o[5] = ']';
}



// Entries of toNarrow (a byte otherwise).
constexpr uint16_t kNoByte = 0x100;    // iconv rejects the unit: euro byte or escape
constexpr uint16_t kNoOutput = 0x200;  // iconv converts it to no byte of its own
// Entries of toWide (a unit otherwise).
constexpr uint32_t kHole = 0x10000;     // iconv rejects the byte: the conversion fails
constexpr uint32_t kBracket = 0x10001;  // '[': an escape if ']' follows five bytes on

struct SingleByteTables {
    char* name;       // own copy
    const char* key;  // the setup's name pointer, compared first
    // What iconv makes of [u, 0] on a descriptor past its first call, with
    // the path separators folded in as themselves; rawSeparators keeps
    // iconv's own results for ':' '\' '/', which a swapped unit can reach.
    uint16_t toNarrow[65536];
    uint16_t rawSeparators[3];
    // Per byte, with the separators, '[' and (index 0: code page without
    // the euro sign) 0xCC folded in.
    uint32_t toWide[2][256];
    // Every ASCII byte but '[' is its own unit, and every unit below 0x80
    // its own byte: runs of them are copied, not looked up.
    bool asciiSame;
};

// REQUIRES: no conversion in progress (setup or release).
SingleByteTables* g_tables[2];

inline int SeparatorIndex(unsigned v) { return v == ':' ? 0 : v == '\\' ? 1 : 2; }

inline uint16_t RawToNarrow(const SingleByteTables& t, WCHAR v) {
    return KsplIsPathSeparator(v) ? t.rawSeparators[SeparatorIndex(v)] : t.toNarrow[v];
}

// Fills the tables from iconv with the reference's call shapes (one byte
// and a NUL into six bytes; one unit and a 0 unit into four bytes). False
// if the code page is not single-byte: a byte that starts a longer
// sequence or converts to more than one unit, a unit that needs more than
// one byte, or results that depend on what was converted before.
bool Probe(const char* name, SingleByteTables* t) {
    iconv_t toWide = KsplIconvOpen("UNICODE", name);
    if (toWide == kNoDescriptor) return false;
    iconv_t toNarrow = KsplIconvOpen(name, "UNICODE");
    if (toNarrow == kNoDescriptor) {
        KsplIconvClose(toWide);
        return false;
    }
    bool single = true;
    for (unsigned b = 0; b < 256 && single; ++b) {
        const unsigned char src[2] = {static_cast<unsigned char>(b), 0};
        WCHAR first[4] = {};
        WCHAR again[4] = {};
        iconv(toWide, nullptr, nullptr, nullptr, nullptr);
        const int bytes = KsplIconvOnce(toWide, src, 2, first, sizeof(first));
        if (bytes == 6 && first[0] == kMark && first[2] == 0) {
            // Past the first output: the unit alone, the same one.
            single = KsplIconvOnce(toWide, src, 2, again, sizeof(again)) == 4 && again[0] == first[1] &&
                     again[1] == 0;
            t->toWide[1][b] = first[1];
        } else if (bytes < 0 && errno == EILSEQ) {
            // Undefined here, and not the start of a longer sequence.
            iconv(toWide, nullptr, nullptr, nullptr, nullptr);
            single = KsplIconvOnce(toWide, src, 1, again, sizeof(again)) < 0 && errno == EILSEQ;
            t->toWide[1][b] = kHole;
        } else {
            single = false;
        }
    }
    if (single) {
        // Take the descriptor past its first call, where U+FEFF and U+FFFE
        // would be read as byte-order marks.
        const WCHAR prime[2] = {'A', 0};
        char dst[4];
        iconv(toNarrow, nullptr, nullptr, nullptr, nullptr);
        KsplIconvOnce(toNarrow, prime, sizeof(prime), dst, sizeof(dst));
        for (unsigned u = 0; u < 65536 && single; ++u) {
            const WCHAR src[2] = {static_cast<WCHAR>(u), 0};
            const int bytes = KsplIconvOnce(toNarrow, src, sizeof(src), dst, sizeof(dst));
            if (bytes == 2) {
                t->toNarrow[u] = static_cast<unsigned char>(dst[0]);
            } else if (bytes == 1) {
                t->toNarrow[u] = kNoOutput;
            } else if (bytes < 0 && errno == EILSEQ) {
                t->toNarrow[u] = kNoByte;
            } else {
                single = false;
            }
        }
    }
    KsplIconvClose(toNarrow);
    KsplIconvClose(toWide);
    if (!single) return false;

    static constexpr WCHAR kSeparators[3] = {':', '\\', '/'};
    for (int i = 0; i < 3; ++i) {
        t->rawSeparators[i] = t->toNarrow[kSeparators[i]];
        t->toNarrow[kSeparators[i]] = kSeparators[i];
    }
    for (unsigned b = 0; b < 256; ++b) {
        uint32_t v = t->toWide[1][b];
        if (KsplIsPathSeparator(b)) v = b;
        if (b == '[') v = kBracket;
        t->toWide[1][b] = v;
        t->toWide[0][b] = b == 0xCC ? 0x20AC : v;
    }
    t->asciiSame = true;
    for (unsigned c = 0; c < 0x80; ++c) {
        if ((c != '[' && t->toWide[0][c] != c) || t->toNarrow[c] != c) t->asciiSame = false;
    }
    return true;
}

SingleByteTables* BuildTables(const char* name) {
    if (name == nullptr) return nullptr;
    auto* t = static_cast<SingleByteTables*>(KsplSysAlloc(sizeof(SingleByteTables)));
    if (t == nullptr) return nullptr;
    t->name = KsplSysStrdup(name);
    if (t->name == nullptr || !Probe(name, t)) {
        KsplSysFree(t->name);
        KsplSysFree(t);
        return nullptr;
    }
    t->key = name;
    return t;
}

const SingleByteTables* FindTables(const char* name) {
    if (name == nullptr) return nullptr;
    for (const SingleByteTables* t : g_tables) {
        if (t != nullptr && (t->key == name || std::strcmp(t->name, name) == 0)) return t;
    }
    return nullptr;
}

// SSE2 runs of ASCII. The helpers are inlined only into kernels of the
// same target.

// The length of the run at in, up to 16 bytes (all readable), of ASCII
// bytes other than '['.
KSPL_TARGET_SSE2 inline int PlainAsciiBytes(const unsigned char* in) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const unsigned stop = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_or_si128(v, _mm_cmpeq_epi8(v, _mm_set1_epi8('[')))));
    return stop == 0 ? 16 : __builtin_ctz(stop);
}

KSPL_TARGET_SSE2 inline void WidenPiece(const unsigned char* in, int at, bool eight, WCHAR* out) {
    const __m128i zero = _mm_setzero_si128();
    if (eight) {
        const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + at));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), _mm_unpacklo_epi8(bytes, zero));
    } else {
        const __m128i bytes = _mm_loadu_si32(in + at);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + at), _mm_unpacklo_epi8(bytes, zero));
    }
}

// Widens the k bytes at in (4 <= k <= 16) to out as two overlapping pieces:
// exactly k units are written.
KSPL_TARGET_SSE2 inline void WidenRun(const unsigned char* in, int k, WCHAR* out) {
    const bool eight = k >= 8;
    WidenPiece(in, 0, eight, out);
    WidenPiece(in, k - (eight ? 8 : 4), eight, out);
}

// The length of the run at in, up to 8 units (all readable), of units below
// 0x80.
KSPL_TARGET_SSE2 inline int PlainAsciiUnits(const WCHAR* in) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i wide = _mm_cmpeq_epi16(_mm_and_si128(v, _mm_set1_epi16(-0x80)), _mm_setzero_si128());
    const unsigned stop = ~static_cast<unsigned>(_mm_movemask_epi8(wide)) & 0xFFFFu;
    return stop == 0 ? 8 : __builtin_ctz(stop) / 2;
}

KSPL_TARGET_SSE2 inline void NarrowPiece(const WCHAR* in, int at, char* out) {
    const __m128i units = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + at));
    const int bytes = _mm_cvtsi128_si32(_mm_packus_epi16(units, units));
    std::memcpy(out + at, &bytes, 4);
}

// Narrows the k units at in (4 <= k <= 8), all below 0x80, to out as two
// overlapping pieces of four: exactly k bytes are written.
KSPL_TARGET_SSE2 inline void NarrowRun(const WCHAR* in, int k, char* out) {
    NarrowPiece(in, 0, out);
    NarrowPiece(in, k - 4, out);
}

// The loops of LocToUni over a table. Their pieces are always inlined, so
// that the SSE2 loop, which adds the runs, keeps them in its own body.

// Four plain bytes at a time while they last; the output has room for the
// whole input.
[[gnu::always_inline]] inline void TableQuadsToWide(const uint32_t* toWide, const unsigned char* in,
                                                    int n, int& pos, WCHAR* out, int& produced) {
    while (n - pos >= 4) {
        const uint32_t a = toWide[in[pos]];
        const uint32_t b = toWide[in[pos + 1]];
        const uint32_t c = toWide[in[pos + 2]];
        const uint32_t d = toWide[in[pos + 3]];
        if ((a | b | c | d) >= 0x10000) break;
        out[produced] = static_cast<WCHAR>(a);
        out[produced + 1] = static_cast<WCHAR>(b);
        out[produced + 2] = static_cast<WCHAR>(c);
        out[produced + 3] = static_cast<WCHAR>(d);
        pos += 4;
        produced += 4;
    }
}

// One character, an escape or a bracket; false when the byte has no
// character in the code page.
[[gnu::always_inline]] inline bool TableStepToWide(const uint32_t* toWide, const unsigned char* in,
                                                   int n, int& pos, WCHAR* out, int& produced) {
    const uint32_t v = toWide[in[pos]];
    if (v < 0x10000) {
        out[produced++] = static_cast<WCHAR>(v);
        ++pos;
    } else if (v == kBracket) {
        if (n - pos >= 6 && in[pos + 5] == ']') {
            out[produced++] = EscapeValue(in + pos + 1);
            pos += 6;
        } else {
            out[produced++] = '[';
            ++pos;
        }
    } else {
        return false;
    }
    return true;
}

// kCheck: the capacity may run out before the input does.
template <bool kCheck>
int TableLocToUni(const uint32_t* toWide, const unsigned char* in, int n, WCHAR* out, int capacity,
                  int* pOut) {
    int pos = 0;
    int produced = 0;
    while (pos < n) {
        if (!kCheck) {
            TableQuadsToWide(toWide, in, n, pos, out, produced);
            if (pos == n) break;
        }
        if (!TableStepToWide(toWide, in, n, pos, out, produced)) return Fail(pOut);
        if (kCheck && pos < n && produced >= capacity) return Fail(pOut);
    }
    return Succeed(pOut, produced);
}

// With room for the whole input: runs of four ASCII bytes or more copied as
// they are.
KSPL_TARGET_SSE2 int TableLocToUniSse2(const uint32_t* toWide, const unsigned char* in, int n,
                                       WCHAR* out, int* pOut) {
    int pos = 0;
    int produced = 0;
    while (pos < n) {
        if (n - pos >= 16) {
            const int run = PlainAsciiBytes(in + pos);
            if (run >= 4) {
                WidenRun(in + pos, run, out + produced);
                pos += run;
                produced += run;
                continue;
            }
        }
        TableQuadsToWide(toWide, in, n, pos, out, produced);
        if (pos == n) break;
        if (!TableStepToWide(toWide, in, n, pos, out, produced)) return Fail(pOut);
    }
    return Succeed(pOut, produced);
}

// The loops of UniToLoc over a table, from pos on. kSwapped: the
// reference's descriptor reads units byte-swapped (U+FFFE came first).
// kCheck: the capacity may run out before the input does.

// Four plain units at a time while they last; the output has room for the
// worst case.
[[gnu::always_inline]] inline void TableQuadsToNarrow(const SingleByteTables& t, const WCHAR* in,
                                                      int n, int& pos, char* out, int& produced) {
    while (n - pos >= 4) {
        const uint16_t a = t.toNarrow[in[pos]];
        const uint16_t b = t.toNarrow[in[pos + 1]];
        const uint16_t c = t.toNarrow[in[pos + 2]];
        const uint16_t d = t.toNarrow[in[pos + 3]];
        if ((a | b | c | d) >= 0x100) break;
        out[produced] = static_cast<char>(a);
        out[produced + 1] = static_cast<char>(b);
        out[produced + 2] = static_cast<char>(c);
        out[produced + 3] = static_cast<char>(d);
        pos += 4;
        produced += 4;
    }
}

// One unit: its byte, nothing, the euro byte or an escape; false when the
// escape does not fit.
template <bool kSwapped, bool kCheck>
[[gnu::always_inline]] inline bool TableStepToNarrow(const SingleByteTables& t, const WCHAR* in,
                                                     int& pos, char* out, int& produced,
                                                     int capacity) {
    const WCHAR u = in[pos];
    uint16_t v;
    if (kSwapped) {
        v = KsplIsPathSeparator(u) ? u : RawToNarrow(t, Swapped(u));
    } else {
        v = t.toNarrow[u];  // separators folded in
    }
    if (v < 0x100) {
        out[produced++] = static_cast<char>(v);
    } else if (v == kNoOutput) {
        // iconv wrote only the NUL's byte.
    } else if (u == 0x20AC) {
        out[produced++] = static_cast<char>(0xCC);
    } else if (!kCheck || produced + 5 < capacity) {
        WriteEscape(out + produced, u);
        produced += 6;
    } else {
        return false;
    }
    ++pos;
    return true;
}

template <bool kSwapped, bool kCheck>
int TableUniToLoc(const SingleByteTables& t, const WCHAR* in, int pos, int n, char* out,
                  int produced, int capacity, int* pOut) {
    while (pos < n && (!kCheck || produced < capacity)) {
        if (!kSwapped && !kCheck) {
            TableQuadsToNarrow(t, in, n, pos, out, produced);
            if (pos == n) break;
        }
        if (!TableStepToNarrow<kSwapped, kCheck>(t, in, pos, out, produced, capacity)) {
            return Fail(pOut);
        }
    }
    if (pos < n) return Fail(pOut);
    return Succeed(pOut, produced);
}

// Unswapped, with room for the worst case: runs of four units below 0x80
// or more copied as they are.
KSPL_TARGET_SSE2 int TableUniToLocSse2(const SingleByteTables& t, const WCHAR* in, int pos, int n,
                                       char* out, int produced, int* pOut) {
    while (pos < n) {
        if (n - pos >= 8) {
            const int run = PlainAsciiUnits(in + pos);
            if (run >= 4) {
                NarrowRun(in + pos, run, out + produced);
                pos += run;
                produced += run;
                continue;
            }
        }
        TableQuadsToNarrow(t, in, n, pos, out, produced);
        if (pos == n) break;
        TableStepToNarrow<false, false>(t, in, pos, out, produced, 0);
    }
    return Succeed(pOut, produced);
}

int TableUniToLocAll(const SingleByteTables& t, const WCHAR* in, int n, char* out, int* pOut) {
    if (n <= 0) return Succeed(pOut, 0);
    const int capacity = *pOut;
    if (capacity <= 0) return Fail(pOut);
    // Separators never reach iconv; the first unit that does may be read
    // as a byte-order mark.
    int pos = 0;
    int produced = 0;
    while (pos < n && produced < capacity && KsplIsPathSeparator(in[pos])) {
        out[produced++] = static_cast<char>(in[pos++]);
    }
    bool swapped = false;
    if (pos < n && produced < capacity && (in[pos] == kMark || in[pos] == kSwappedMark)) {
        swapped = in[pos] == kSwappedMark;
        ++pos;
    }
    // Six bytes per unit at most: then only the input ends the loop.
    const bool roomy = static_cast<int64_t>(capacity) - produced >= 6 * static_cast<int64_t>(n - pos);
    if (swapped) {
        return roomy ? TableUniToLoc<true, false>(t, in, pos, n, out, produced, capacity, pOut)
                     : TableUniToLoc<true, true>(t, in, pos, n, out, produced, capacity, pOut);
    }
    if (!roomy) return TableUniToLoc<false, true>(t, in, pos, n, out, produced, capacity, pOut);
    if (t.asciiSame && KsplConvIsaInUse() >= KsplConvIsa::kSse2) {
        return TableUniToLocSse2(t, in, pos, n, out, produced, pOut);
    }
    return TableUniToLoc<false, false>(t, in, pos, n, out, produced, capacity, pOut);
}

}  // namespace

void KsplConvTablesBuild(const char* oemCodePage, const char* ansiCodePage) {
    KsplConvTablesFree();
    // The variant is chosen here, at the setup, once for the process.
    (void)KsplConvIsaInUse();
    g_tables[0] = BuildTables(oemCodePage);
    if (ansiCodePage != nullptr && oemCodePage != nullptr &&
        std::strcmp(ansiCodePage, oemCodePage) == 0) {
        // Same code page: one probe, the second key points at its own name.
        if (g_tables[0] != nullptr) {
            g_tables[1] = static_cast<SingleByteTables*>(KsplSysAlloc(sizeof(SingleByteTables)));
            if (g_tables[1] != nullptr) {
                std::memcpy(static_cast<void*>(g_tables[1]), g_tables[0], sizeof(SingleByteTables));
                g_tables[1]->name = KsplSysStrdup(ansiCodePage);
                g_tables[1]->key = ansiCodePage;
                if (g_tables[1]->name == nullptr) {
                    KsplSysFree(g_tables[1]);
                    g_tables[1] = nullptr;
                }
            }
        }
    } else {
        g_tables[1] = BuildTables(ansiCodePage);
    }
    KsplConvCacheInvalidate();
}

void KsplConvTablesFree() {
    for (SingleByteTables*& t : g_tables) {
        if (t != nullptr) {
            KsplSysFree(t->name);
            KsplSysFree(t);
            t = nullptr;
        }
    }
    KsplConvCacheInvalidate();
}

bool KsplConvHasTables(const char* codePage) { return FindTables(codePage) != nullptr; }

int KsplFastLocToUni(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti,
                     int inMultiChars, WCHAR* pOutWide, int* pOutWideChars) {
    const SingleByteTables* t = FindTables(pCodePage);
    if (t == nullptr) {
        return KsplCachedLocToUni(pCodePage, codePageSupportsEuro, pInMulti, inMultiChars,
                                  pOutWide, pOutWideChars);
    }
    if (inMultiChars <= 0) return Succeed(pOutWideChars, 0);
    const int capacity = *pOutWideChars;
    if (capacity <= 0) return Fail(pOutWideChars);
    const uint32_t* toWide = t->toWide[codePageSupportsEuro ? 1 : 0];
    const auto* in = reinterpret_cast<const unsigned char*>(pInMulti);
    // One unit per byte at most: with room for all, only the input ends the
    // loop.
    if (capacity < inMultiChars) {
        return TableLocToUni<true>(toWide, in, inMultiChars, pOutWide, capacity, pOutWideChars);
    }
    if (t->asciiSame && KsplConvIsaInUse() >= KsplConvIsa::kSse2) {
        return TableLocToUniSse2(toWide, in, inMultiChars, pOutWide, pOutWideChars);
    }
    return TableLocToUni<false>(toWide, in, inMultiChars, pOutWide, capacity, pOutWideChars);
}

int KsplFastUniToLoc(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                     int* pOutMultiChars) {
    if (const SingleByteTables* t = FindTables(pCodePage)) {
        return TableUniToLocAll(*t, pInWide, inWideChars, pOutMulti, pOutMultiChars);
    }
    return KsplCachedUniToLoc(pCodePage, pInWide, inWideChars, pOutMulti, pOutMultiChars);
}
