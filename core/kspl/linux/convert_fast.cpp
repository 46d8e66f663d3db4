// convert_fast.cpp - the character routines behind the conversion services.
//
// They produce exactly what the reference routines of convert.cpp produce
// (status, output, count, and the output written before a failure), without
// one iconv call per character:
// - a single-byte code page chosen by the setup converts through lookup
//   tables probed once from iconv, with the reference's own rules (path
//   separators, "[XXXX]" escapes, the euro byte 0xCC) applied around them;
// - UTF-8 goes through a validating codec of our own;
// - any other code page runs the reference loop on an iconv descriptor
//   cached per thread and reset before each call.
//
// Two properties of glibc's "UNICODE" code set shape the code below; both
// are visible in the reference because it opens a fresh descriptor per call:
// - A descriptor that reads "UNICODE" takes a unit U+FEFF at its very first
//   iconv call as a byte-order mark (it produces nothing), and U+FFFE there
//   as a mark of swapped byte order: every later unit of that descriptor is
//   read byte-swapped. Any first call, failed or not, ends the window. A
//   reset reopens the window but does not undo a swap, so a call whose first
//   unit through iconv is U+FFFE never gets a cached descriptor.
// - A descriptor that writes "UNICODE" puts a mark ahead of its first
//   output, again after a reset; the reference loop skips it by output size.
//
// Tables are written only by the setup and the release, which never run
// while a conversion does; conversions read them without locks.
#include <errno.h>
#include <iconv.h>
#include <strings.h>

#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "../sysalloc_int.h"
#include "convert_int.h"
#include "convlock_int.h"

namespace {

const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);
constexpr size_t kIconvFailed = static_cast<size_t>(-1);
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

// ---------------------------------------------------------------------------
// Single-byte code pages.

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
// Bumped by every setup and release: cached descriptors of an older
// generation are closed on their next use.
std::atomic<unsigned> g_generation{1};

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

#if defined(__SSE2__)
// The length of the run at in, up to 16 bytes (all readable), of ASCII
// bytes other than '['.
inline int PlainAsciiBytes(const unsigned char* in) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const unsigned stop = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_or_si128(v, _mm_cmpeq_epi8(v, _mm_set1_epi8('[')))));
    return stop == 0 ? 16 : __builtin_ctz(stop);
}

// Widens the k bytes at in (4 <= k <= 16) to out as two overlapping pieces:
// exactly k units are written.
inline void WidenRun(const unsigned char* in, int k, WCHAR* out) {
    const __m128i zero = _mm_setzero_si128();
    const auto piece = [&](int at, bool eight) {
        const __m128i bytes = eight ? _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + at))
                                    : _mm_loadu_si32(in + at);
        const __m128i units = _mm_unpacklo_epi8(bytes, zero);
        if (eight) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), units);
        } else {
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out + at), units);
        }
    };
    const bool eight = k >= 8;
    piece(0, eight);
    piece(k - (eight ? 8 : 4), eight);
}

// The length of the run at in, up to 8 units (all readable), of units below
// 0x80.
inline int PlainAsciiUnits(const WCHAR* in) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i wide = _mm_cmpeq_epi16(_mm_and_si128(v, _mm_set1_epi16(-0x80)), _mm_setzero_si128());
    const unsigned stop = ~static_cast<unsigned>(_mm_movemask_epi8(wide)) & 0xFFFFu;
    return stop == 0 ? 8 : __builtin_ctz(stop) / 2;
}

// Narrows the k units at in (4 <= k <= 8), all below 0x80, to out as two
// overlapping pieces of four: exactly k bytes are written.
inline void NarrowRun(const WCHAR* in, int k, char* out) {
    const auto piece = [&](int at) {
        const __m128i units = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + at));
        const int bytes = _mm_cvtsi128_si32(_mm_packus_epi16(units, units));
        std::memcpy(out + at, &bytes, 4);
    };
    piece(0);
    piece(k - 4);
}
#endif

// The reference loop of LocToUni over a table. kCheck: the capacity may
// run out before the input does.
template <bool kCheck>
int TableLocToUni(const uint32_t* toWide, bool asciiSame, const unsigned char* in, int n,
                  WCHAR* out, int capacity, int* pOut) {
    int pos = 0;
    int produced = 0;
    while (pos < n) {
#if defined(__SSE2__)
        // A run of four ASCII bytes or more copied as it is.
        if (!kCheck && asciiSame && n - pos >= 16) {
            const int run = PlainAsciiBytes(in + pos);
            if (run >= 4) {
                WidenRun(in + pos, run, out + produced);
                pos += run;
                produced += run;
                continue;
            }
        }
#else
        (void)asciiSame;
#endif
        if (!kCheck) {
            // Four plain bytes at a time while they last.
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
            if (pos == n) break;
        }
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
            return Fail(pOut);
        }
        if (kCheck && pos < n && produced >= capacity) return Fail(pOut);
    }
    return Succeed(pOut, produced);
}

// The reference loop of UniToLoc over a table, from pos on. kSwapped: the
// reference's descriptor reads units byte-swapped (U+FFFE came first).
// kCheck: the capacity may run out before the input does.
template <bool kSwapped, bool kCheck>
int TableUniToLoc(const SingleByteTables& t, const WCHAR* in, int pos, int n, char* out,
                  int produced, int capacity, int* pOut) {
    while (pos < n && (!kCheck || produced < capacity)) {
#if defined(__SSE2__)
        // A run of four units below 0x80 or more copied as it is.
        if (!kSwapped && !kCheck && t.asciiSame && n - pos >= 8) {
            const int run = PlainAsciiUnits(in + pos);
            if (run >= 4) {
                NarrowRun(in + pos, run, out + produced);
                pos += run;
                produced += run;
                continue;
            }
        }
#endif
        if (!kSwapped && !kCheck) {
            // Four plain units at a time while they last.
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
            if (pos == n) break;
        }
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
            return Fail(pOut);
        }
        ++pos;
    }
    if (pos < n) return Fail(pOut);
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
    return roomy ? TableUniToLoc<false, false>(t, in, pos, n, out, produced, capacity, pOut)
                 : TableUniToLoc<false, true>(t, in, pos, n, out, produced, capacity, pOut);
}

// ---------------------------------------------------------------------------
// UTF-8.
//
// Decoding follows the reference: a sequence is as long as its first byte
// announces; it fails on a stray continuation byte, a truncated sequence,
// the lead bytes 0xC0 and 0xC1, an overlong three-byte form, an encoded
// surrogate, and any sequence of four bytes or more, with one exception
// glibc makes: a tag character (U+E0000 to U+E007F) converts to no unit at
// all, so at the start of the input the reference takes the byte-order mark
// in its place and anywhere else fails.

inline bool IsContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

inline bool AllAscii8(const unsigned char* p) {
    uint64_t w;
    std::memcpy(&w, p, sizeof(w));
    return (w & 0x8080808080808080ull) == 0;
}

#if defined(__x86_64__)
// Text that converts is, block by block, nothing but ASCII and complete
// two- and three-byte sequences, or units outside the surrogates. With
// SSSE3 (looked up once) such blocks convert sixteen bytes or eight units at
// a time through byte shuffles built at compile time; without it, and on
// 32-bit x86, the loops below go one character at a time.

bool HasSsse3() {
    static const bool has = __builtin_cpu_supports("ssse3");
    return has;
}

// Shuffles of eight 16-bit lanes: for each byte mask, the selected lanes
// moved to the front (compact) or to the back (compactBack), the other lanes
// zero; for each k up to 8, every lane moved k lanes to the front
// (toFront), zero behind. count: the lanes each mask selects.
struct LaneShuffles {
    alignas(16) unsigned char compact[256][16];
    alignas(16) unsigned char compactBack[256][16];
    alignas(16) unsigned char toFront[9][16];
    unsigned char count[256];
};

constexpr LaneShuffles MakeLaneShuffles() {
    LaneShuffles t{};
    const auto lane = [](unsigned char* row, int to, int from) {
        row[2 * to] = static_cast<unsigned char>(2 * from);
        row[2 * to + 1] = static_cast<unsigned char>(2 * from + 1);
    };
    for (int mask = 0; mask < 256; ++mask) {
        int selected = 0;
        for (int i = 0; i < 8; ++i) selected += (mask >> i) & 1;
        t.count[mask] = static_cast<unsigned char>(selected);
        for (int i = 0; i < 16; ++i) t.compact[mask][i] = t.compactBack[mask][i] = 0x80;
        int to = 0;
        for (int from = 0; from < 8; ++from) {
            if (((mask >> from) & 1) == 0) continue;
            lane(t.compact[mask], to, from);
            lane(t.compactBack[mask], 8 - selected + to, from);
            ++to;
        }
    }
    for (int k = 0; k <= 8; ++k) {
        for (int to = 0; to < 8; ++to) {
            if (to + k < 8) {
                lane(t.toFront[k], to, to + k);
            } else {
                t.toFront[k][2 * to] = t.toFront[k][2 * to + 1] = 0x80;
            }
        }
    }
    return t;
}
constexpr LaneShuffles kLanes = MakeLaneShuffles();

// Shuffles of sixteen bytes, four lanes of four: for each pair of lane masks
// (bit i: lane i holds two or more bytes, bit i + 4: three), the first one,
// two or three bytes of each lane together at the front, and their number;
// for each k, every byte moved k bytes to the front.
struct ByteShuffles {
    alignas(16) unsigned char gather[256][16];
    alignas(16) unsigned char toFront[16][16];
    unsigned char count[256];
};
constexpr ByteShuffles MakeByteShuffles() {
    ByteShuffles t{};
    for (int index = 0; index < 256; ++index) {
        int to = 0;
        for (int lane = 0; lane < 4; ++lane) {
            const int length = 1 + ((index >> lane) & 1) + ((index >> (lane + 4)) & 1);
            for (int i = 0; i < length; ++i) {
                t.gather[index][to++] = static_cast<unsigned char>(4 * lane + i);
            }
        }
        t.count[index] = static_cast<unsigned char>(to);
        while (to < 16) t.gather[index][to++] = 0x80;
    }
    for (int k = 0; k < 16; ++k) {
        for (int to = 0; to < 16; ++to) {
            t.toFront[k][to] = static_cast<unsigned char>(to + k < 16 ? to + k : 0x80);
        }
    }
    return t;
}
constexpr ByteShuffles kBytes = MakeByteShuffles();

// Decodes whole blocks from in[*pos] on while at least 18 bytes remain (a
// block reads two bytes past its end) and the block is plain: ASCII and
// complete, valid two- and three-byte sequences, one that runs past the
// block being left for the next. Advances *pos over them and returns the
// units written to out, which has room for one unit per byte. A block that
// is not plain holds a byte the byte-wise decoder fails on within the next
// 18 bytes (stray or missing continuation bytes, 0xC0/0xC1, four-byte
// forms, overlong forms, surrogates); it is left untouched, so a failed
// conversion writes exactly what the reference writes.
__attribute__((target("ssse3"))) int DecodeUtf8Blocks(const unsigned char* in, int n, WCHAR* out,
                                                      int* pos) {
    const auto load = [](const unsigned char* p) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    };
    const auto store = [](WCHAR* p, __m128i v) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
    };
    const auto bits = [](__m128i m) { return static_cast<unsigned>(_mm_movemask_epi8(m)); };
    const auto inRange = [](__m128i v, int lo, int hi) {  // signed bytes lo..hi
        return _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8(static_cast<char>(lo - 1))),
                             _mm_cmplt_epi8(v, _mm_set1_epi8(static_cast<char>(hi + 1))));
    };
    const __m128i zero = _mm_setzero_si128();
    int at = *pos;
    int made = 0;
    while (n - at >= 18) {
        const unsigned char* p = in + at;
        const __m128i v0 = load(p);
        const unsigned high = bits(v0);
        if (high == 0) {
            store(out + made, _mm_unpacklo_epi8(v0, zero));
            store(out + made + 8, _mm_unpackhi_epi8(v0, zero));
            at += 16;
            made += 16;
            continue;
        }
        // As signed bytes: continuation 0x80-0xBF, leads 0xC2-0xDF and
        // 0xE0-0xEF; each lead announces the continuation bytes after it.
        const unsigned cont = bits(_mm_cmplt_epi8(v0, _mm_set1_epi8(-0x40)));
        const unsigned lead2 = bits(inRange(v0, -0x3E, -0x21));
        const unsigned lead3 = bits(inRange(v0, -0x20, -0x11));
        const unsigned announced = (lead2 << 1) | (lead3 << 1) | (lead3 << 2);
        if ((cont | lead2 | lead3) != high || cont != (announced & 0xFFFFu)) break;
        const __m128i v1 = load(p + 1);
        // After E0 the second byte is A0 or more (else overlong), after ED
        // below A0 (else a surrogate): bit 5 of the continuation byte.
        const unsigned upper = bits(_mm_slli_epi16(v1, 2));
        const unsigned e0 = bits(_mm_cmpeq_epi8(v0, _mm_set1_epi8(static_cast<char>(0xE0))));
        const unsigned ed = bits(_mm_cmpeq_epi8(v0, _mm_set1_epi8(static_cast<char>(0xED))));
        if (((e0 & ~upper) | (ed & upper)) != 0) break;
        // A sequence running past the block starts at its last lead.
        const int used = (announced >> 16) != 0 ? 31 - __builtin_clz(lead2 | lead3) : 16;
        const unsigned keep = ~cont & ((1u << used) - 1);
        // Each unit at the lane of its first byte; then the units of the
        // first half moved to the front, those of the second to the back.
        __m128i halves[2];
        for (int half = 0; half < 2; ++half) {
            const auto widen = [&](__m128i x) {
                return half == 0 ? _mm_unpacklo_epi8(x, zero) : _mm_unpackhi_epi8(x, zero);
            };
            const __m128i a = widen(v0);
            const __m128i b = _mm_and_si128(widen(v1), _mm_set1_epi16(0x3F));
            const __m128i two =
                _mm_or_si128(_mm_slli_epi16(_mm_and_si128(a, _mm_set1_epi16(0x1F)), 6), b);
            const __m128i isLead2 = _mm_cmpgt_epi16(a, _mm_set1_epi16(0xC1));
            __m128i unit = _mm_or_si128(_mm_and_si128(isLead2, two), _mm_andnot_si128(isLead2, a));
            if (lead3 != 0) {
                const __m128i c = _mm_and_si128(widen(load(p + 2)), _mm_set1_epi16(0x3F));
                const __m128i three =
                    _mm_or_si128(_mm_or_si128(_mm_slli_epi16(a, 12), _mm_slli_epi16(b, 6)), c);
                const __m128i isLead3 = _mm_cmpgt_epi16(a, _mm_set1_epi16(0xDF));
                unit = _mm_or_si128(_mm_and_si128(isLead3, three), _mm_andnot_si128(isLead3, unit));
            }
            const unsigned lanes = (keep >> (8 * half)) & 0xFFu;
            const auto& shuffle = half == 0 ? kLanes.compact[lanes] : kLanes.compactBack[lanes];
            halves[half] = _mm_shuffle_epi8(unit, load(shuffle));
        }
        const int first = kLanes.count[keep & 0xFFu];
        const int count = first + kLanes.count[keep >> 8];
        WCHAR* to = out + made;
        if (count >= 8) {
            // The first eight, then the last eight: the second half's units
            // behind those of the first that fall among them. Nothing past
            // the units made is written.
            store(to, halves[0]);
            const __m128i front = _mm_shuffle_epi8(halves[0], load(kLanes.toFront[count - 8]));
            store(to + count - 8, _mm_or_si128(front, halves[1]));
        } else {
            // At least five units (14 bytes or more in sequences of at most
            // three): through a scratch area, two overlapping copies.
            alignas(16) WCHAR units[16];
            store(units, halves[0]);
            store(units + 8, halves[1]);
            std::memmove(units + first, units + 16 - (count - first), 2 * (count - first));
            std::memcpy(to, units, 8);
            std::memcpy(to + count - 4, units + count - 4, 8);
        }
        at += used;
        made += count;
    }
    *pos = at;
    return made;
}

// Encodes groups of eight units from in[*pos] on while at least eight
// remain and none is a surrogate, to out, which has room for three bytes
// per unit. Advances *pos over them and returns the bytes written; a group
// with a surrogate is left to the unit-wise encoder, which fails on it.
// Exactly the bytes made are written.
__attribute__((target("ssse3"))) int EncodeUtf8Blocks(const WCHAR* in, int n, unsigned char* out,
                                                      int* pos) {
    const auto load = [](const void* p) {
        return _mm_loadu_si128(static_cast<const __m128i*>(p));
    };
    const __m128i zero = _mm_setzero_si128();
    int at = *pos;
    int made = 0;
    while (n - at >= 8) {
        const __m128i v = load(in + at);
        // ASCII units: one byte each.
        if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(v, _mm_set1_epi16(-0x80)), zero)) ==
            0xFFFF) {
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out + made), _mm_packus_epi16(v, v));
            at += 8;
            made += 8;
            continue;
        }
        const __m128i surrogate = _mm_cmpeq_epi16(_mm_and_si128(v, _mm_set1_epi16(-0x800)),
                                                  _mm_set1_epi16(static_cast<short>(0xD800)));
        if (_mm_movemask_epi8(surrogate) != 0) break;
        const bool anyThree =
            _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(v, _mm_set1_epi16(-0x800)), zero)) !=
            0xFFFF;
        for (int quarter = 0; quarter < 2; ++quarter) {
            // Four units in 32-bit lanes, each lane its one to three bytes.
            const __m128i u = quarter == 0 ? _mm_unpacklo_epi16(v, zero) : _mm_unpackhi_epi16(v, zero);
            const __m128i last = _mm_or_si128(_mm_and_si128(u, _mm_set1_epi32(0x3F)),
                                              _mm_set1_epi32(0x80));
            const __m128i two = _mm_or_si128(
                _mm_or_si128(_mm_srli_epi32(u, 6), _mm_set1_epi32(0xC0)), _mm_slli_epi32(last, 8));
            const __m128i isTwo = _mm_cmpgt_epi32(u, _mm_set1_epi32(0x7F));
            __m128i lanes = _mm_or_si128(_mm_and_si128(isTwo, two), _mm_andnot_si128(isTwo, u));
            int index = _mm_movemask_ps(_mm_castsi128_ps(isTwo));
            if (anyThree) {
                const __m128i middle = _mm_or_si128(
                    _mm_and_si128(_mm_srli_epi32(u, 6), _mm_set1_epi32(0x3F)), _mm_set1_epi32(0x80));
                const __m128i three = _mm_or_si128(
                    _mm_or_si128(_mm_srli_epi32(u, 12), _mm_set1_epi32(0xE0)),
                    _mm_or_si128(_mm_slli_epi32(middle, 8), _mm_slli_epi32(last, 16)));
                const __m128i isThree = _mm_cmpgt_epi32(u, _mm_set1_epi32(0x7FF));
                lanes = _mm_or_si128(_mm_and_si128(isThree, three), _mm_andnot_si128(isThree, lanes));
                index |= _mm_movemask_ps(_mm_castsi128_ps(isThree)) << 4;
            }
            const __m128i bytes = _mm_shuffle_epi8(lanes, load(kBytes.gather[index]));
            // Four to twelve bytes, written as two overlapping pieces.
            const int count = kBytes.count[index];
            unsigned char* to = out + made;
            const int piece = count >= 8 ? 8 : 4;
            const __m128i tail = _mm_shuffle_epi8(bytes, load(kBytes.toFront[count - piece]));
            if (piece == 8) {
                _mm_storel_epi64(reinterpret_cast<__m128i*>(to), bytes);
                _mm_storel_epi64(reinterpret_cast<__m128i*>(to + count - 8), tail);
            } else {
                const int head = _mm_cvtsi128_si32(bytes);
                const int end = _mm_cvtsi128_si32(tail);
                std::memcpy(to, &head, 4);
                std::memcpy(to + count - 4, &end, 4);
            }
            made += count;
        }
        at += 8;
    }
    *pos = at;
    return made;
}
#endif

template <bool kCheck>
int DecodeUtf8(const unsigned char* in, int n, WCHAR* out, int capacity, int* pOut) {
    int pos = 0;
    int produced = 0;
    // A tag character is the only sequence of four bytes that converts,
    // and only as the first one.
    if (n >= 4 && in[0] == 0xF3 && in[1] == 0xA0 && (in[2] == 0x80 || in[2] == 0x81) &&
        IsContinuation(in[3])) {
        out[produced++] = kMark;
        pos = 4;
        if (kCheck && pos < n && produced >= capacity) return Fail(pOut);
    }
#if defined(__x86_64__)
    // With room for one unit per byte, plain blocks first; what remains is
    // shorter than a block or holds the failure.
    if (!kCheck && HasSsse3()) produced += DecodeUtf8Blocks(in, n, out + produced, &pos);
#endif
    while (pos < n) {
        const unsigned b = in[pos];
        if (b < 0x80) {
            // ASCII: eight at a time while they last (the output has room
            // for the whole input when kCheck is off), then one by one.
            if (!kCheck) {
                while (n - pos >= 8 && AllAscii8(in + pos)) {
                    for (int i = 0; i < 8; ++i) out[produced + i] = in[pos + i];
                    pos += 8;
                    produced += 8;
                }
                while (pos < n && in[pos] < 0x80) out[produced++] = in[pos++];
                continue;
            }
            out[produced++] = static_cast<WCHAR>(b);
            pos += 1;
        } else if (b - 0xC2u < 0x1Eu) {
            // 0xC2-0xDF; 0xC0 and 0xC1 would start an overlong form.
            if (n - pos < 2 || !IsContinuation(in[pos + 1])) return Fail(pOut);
            out[produced++] = static_cast<WCHAR>(((b & 0x1Fu) << 6) | (in[pos + 1] & 0x3Fu));
            pos += 2;
        } else if (b - 0xE0u < 0x10u) {
            if (n - pos < 3 || !IsContinuation(in[pos + 1]) || !IsContinuation(in[pos + 2])) {
                return Fail(pOut);
            }
            const unsigned unit =
                ((b & 0x0Fu) << 12) | ((in[pos + 1] & 0x3Fu) << 6) | (in[pos + 2] & 0x3Fu);
            if (unit < 0x800 || (unit & 0xF800u) == 0xD800u) return Fail(pOut);
            out[produced++] = static_cast<WCHAR>(unit);
            pos += 3;
        } else {
            // A continuation byte, or a sequence of four bytes or more.
            return Fail(pOut);
        }
        if (kCheck && pos < n && produced >= capacity) return Fail(pOut);
    }
    return Succeed(pOut, produced);
}

inline bool AllAscii4(const WCHAR* p) {
    uint64_t w;
    std::memcpy(&w, p, sizeof(w));
    return (w & 0xFF80FF80FF80FF80ull) == 0;
}

// Encodes from pos on; the reference keeps one byte of its capacity free.
// kSwapped: units are read byte-swapped (U+FFFE came first). kCheck: the
// capacity may run out before the input does.
template <bool kSwapped, bool kCheck>
int EncodeUtf8(const WCHAR* in, int pos, int n, unsigned char* out, int capacity, int* pOut) {
    int produced = 0;
#if defined(__x86_64__)
    // With room for three bytes per unit, whole groups first; what remains
    // is shorter than a group or holds the failure.
    if (!kSwapped && !kCheck && HasSsse3()) produced = EncodeUtf8Blocks(in, n, out, &pos);
#endif
    int ascii = 0;  // ASCII units in a row
    while (pos < n) {
        const unsigned u = kSwapped ? Swapped(in[pos]) : in[pos];
        if (u < 0x80) {
            if (kCheck && produced + 1 >= capacity) return Fail(pOut);
            out[produced++] = static_cast<unsigned char>(u);
            // After a few ASCII units in a row, eight at a time while they
            // last; mixed text never pays for the test.
            if (!kSwapped && !kCheck && ++ascii >= 8) {
                ++pos;
                while (n - pos >= 8 && AllAscii4(in + pos) && AllAscii4(in + pos + 4)) {
                    for (int i = 0; i < 8; ++i) out[produced + i] = static_cast<unsigned char>(in[pos + i]);
                    pos += 8;
                    produced += 8;
                }
                ascii = 0;
                continue;
            }
        } else if (u < 0x800) {
            ascii = 0;
            if (kCheck && produced + 2 >= capacity) return Fail(pOut);
            out[produced] = static_cast<unsigned char>(0xC0 | (u >> 6));
            out[produced + 1] = static_cast<unsigned char>(0x80 | (u & 0x3F));
            produced += 2;
        } else if ((u & 0xF800u) == 0xD800u) {
            return Fail(pOut);
        } else {
            ascii = 0;
            if (kCheck && produced + 3 >= capacity) return Fail(pOut);
            out[produced] = static_cast<unsigned char>(0xE0 | (u >> 12));
            out[produced + 1] = static_cast<unsigned char>(0x80 | ((u >> 6) & 0x3F));
            out[produced + 2] = static_cast<unsigned char>(0x80 | (u & 0x3F));
            produced += 3;
        }
        ++pos;
    }
    return Succeed(pOut, produced);
}

// ---------------------------------------------------------------------------
// Descriptors cached per thread for the other code pages.

// Wide code sets read their byte order from a mark, and may keep that
// decision in the descriptor beyond a reset ("UNICODE" does): as code pages
// they always get a fresh descriptor.
bool ResetKeepsState(const char* name) {
    static constexpr const char* kWideSets[] = {"UTF-16", "UTF16", "UTF-32", "UTF32", "UCS-2",
                                                "UCS2",   "UCS-4", "UCS4",   "UNICODE", "10646"};
    for (const char* set : kWideSets) {
        if (strcasestr(name, set) != nullptr) return true;
    }
    return false;
}

struct CachedDescriptor {
    iconv_t cd = kNoDescriptor;
    unsigned generation = 0;
    bool toWide = false;
    char name[48] = {};
};

// Owned by one thread; closed when the thread exits.
class DescriptorCache {
public:
    DescriptorCache() = default;
    DescriptorCache(const DescriptorCache&) = delete;
    DescriptorCache& operator=(const DescriptorCache&) = delete;
    ~DescriptorCache() {
        for (CachedDescriptor& s : slots_) Close(&s);
    }

    // A descriptor in its initial state for the direction, or kNoDescriptor
    // when the name cannot be cached or opened (the caller then runs the
    // reference, which opens its own and reports a failure).
    iconv_t Get(const char* name, bool toWide) {
        if (name == nullptr) return kNoDescriptor;
        const size_t len = std::strlen(name);
        if (len >= sizeof(CachedDescriptor::name)) return kNoDescriptor;
        const unsigned generation = g_generation.load(std::memory_order_relaxed);
        CachedDescriptor* free = nullptr;
        for (CachedDescriptor& s : slots_) {
            if (s.cd != kNoDescriptor && s.generation != generation) Close(&s);
            if (s.cd == kNoDescriptor) {
                if (free == nullptr) free = &s;
                continue;
            }
            if (s.toWide == toWide && std::strcmp(s.name, name) == 0) {
                if (iconv(s.cd, nullptr, nullptr, nullptr, nullptr) != kIconvFailed) return s.cd;
                Close(&s);
                free = &s;
                break;
            }
        }
        // Such names are never cached, so the test is due only here.
        if (ResetKeepsState(name)) return kNoDescriptor;
        if (free == nullptr) {
            free = &slots_[next_];
            next_ = (next_ + 1) % kSlots;
            Close(free);
        }
        iconv_t cd = toWide ? KsplIconvOpen("UNICODE", name) : KsplIconvOpen(name, "UNICODE");
        if (cd == kNoDescriptor) return kNoDescriptor;
        free->cd = cd;
        free->generation = generation;
        free->toWide = toWide;
        std::memcpy(free->name, name, len + 1);
        return cd;
    }

private:
    static void Close(CachedDescriptor* s) {
        if (s->cd != kNoDescriptor) KsplIconvClose(s->cd);
        s->cd = kNoDescriptor;
    }

    // Both directions of the OEM and the ANSI code page.
    static constexpr unsigned kSlots = 4;
    CachedDescriptor slots_[kSlots];
    unsigned next_ = 0;
};

thread_local DescriptorCache t_descriptors;

}  // namespace

void KsplConvTablesBuild(const char* oemCodePage, const char* ansiCodePage) {
    KsplConvTablesFree();
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
    g_generation.fetch_add(1, std::memory_order_relaxed);
}

void KsplConvTablesFree() {
    for (SingleByteTables*& t : g_tables) {
        if (t != nullptr) {
            KsplSysFree(t->name);
            KsplSysFree(t);
            t = nullptr;
        }
    }
    g_generation.fetch_add(1, std::memory_order_relaxed);
}

bool KsplConvHasTables(const char* codePage) { return FindTables(codePage) != nullptr; }

int KsplFastLocToUni(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti,
                     int inMultiChars, WCHAR* pOutWide, int* pOutWideChars) {
    if (const SingleByteTables* t = FindTables(pCodePage)) {
        if (inMultiChars <= 0) return Succeed(pOutWideChars, 0);
        const int capacity = *pOutWideChars;
        if (capacity <= 0) return Fail(pOutWideChars);
        const uint32_t* toWide = t->toWide[codePageSupportsEuro ? 1 : 0];
        const auto* in = reinterpret_cast<const unsigned char*>(pInMulti);
        // One unit per byte at most: with room for all, only the input ends
        // the loop.
        return capacity >= inMultiChars
                   ? TableLocToUni<false>(toWide, t->asciiSame, in, inMultiChars, pOutWide,
                                          capacity, pOutWideChars)
                   : TableLocToUni<true>(toWide, t->asciiSame, in, inMultiChars, pOutWide,
                                         capacity, pOutWideChars);
    }
    iconv_t cd = t_descriptors.Get(pCodePage, true);
    if (cd == kNoDescriptor) {
        return KsplRefLocToUni(pCodePage, codePageSupportsEuro, pInMulti, inMultiChars, pOutWide,
                               pOutWideChars);
    }
    return KsplLocToUniOn(cd, codePageSupportsEuro, pInMulti, inMultiChars, pOutWide,
                          pOutWideChars);
}

int KsplFastUniToLoc(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                     int* pOutMultiChars) {
    if (const SingleByteTables* t = FindTables(pCodePage)) {
        return TableUniToLocAll(*t, pInWide, inWideChars, pOutMulti, pOutMultiChars);
    }
    // A first unit U+FFFE would leave a cached descriptor swapped for good.
    int first = 0;
    while (first < inWideChars && KsplIsPathSeparator(pInWide[first])) ++first;
    iconv_t cd = first < inWideChars && pInWide[first] == kSwappedMark
                     ? kNoDescriptor
                     : t_descriptors.Get(pCodePage, false);
    if (cd == kNoDescriptor) {
        return KsplRefUniToLoc(pCodePage, pInWide, inWideChars, pOutMulti, pOutMultiChars);
    }
    return KsplUniToLocOn(cd, pInWide, inWideChars, pOutMulti, pOutMultiChars);
}

int KsplFastUtf8ToUni(char* pInMulti, int inMultiChars, WCHAR* pOutWide, int* pOutWideChars) {
    if (inMultiChars <= 0) return Succeed(pOutWideChars, 0);
    const int capacity = *pOutWideChars;
    if (capacity <= 0) return Fail(pOutWideChars);
    const auto* in = reinterpret_cast<const unsigned char*>(pInMulti);
    return capacity >= inMultiChars
               ? DecodeUtf8<false>(in, inMultiChars, pOutWide, capacity, pOutWideChars)
               : DecodeUtf8<true>(in, inMultiChars, pOutWide, capacity, pOutWideChars);
}

int KsplFastUniToUtf8(WCHAR* pInWide, int inWideChars, char* pOutMulti, int* pOutMultiChars) {
    if (inWideChars <= 0) return Succeed(pOutMultiChars, 0);
    const int capacity = *pOutMultiChars;
    auto* out = reinterpret_cast<unsigned char*>(pOutMulti);
    // The first unit may be read as a byte-order mark; it produces nothing
    // but still needs a free byte.
    int pos = 0;
    bool swapped = false;
    if (pInWide[0] == kMark || pInWide[0] == kSwappedMark) {
        if (capacity <= 0) return Fail(pOutMultiChars);
        swapped = pInWide[0] == kSwappedMark;
        pos = 1;
    }
    // Three bytes per unit at most, one byte always free.
    const bool roomy = static_cast<int64_t>(capacity) > 3 * static_cast<int64_t>(inWideChars);
    if (swapped) {
        return roomy ? EncodeUtf8<true, false>(pInWide, pos, inWideChars, out, capacity, pOutMultiChars)
                     : EncodeUtf8<true, true>(pInWide, pos, inWideChars, out, capacity, pOutMultiChars);
    }
    return roomy ? EncodeUtf8<false, false>(pInWide, pos, inWideChars, out, capacity, pOutMultiChars)
                 : EncodeUtf8<false, true>(pInWide, pos, inWideChars, out, capacity, pOutMultiChars);
}

const KsplConvRoutines kKsplFastConvRoutines = {KsplFastLocToUni, KsplFastUtf8ToUni,
                                                KsplFastUniToLoc, KsplFastUniToUtf8};
