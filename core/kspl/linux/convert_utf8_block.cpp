// convert_utf8_block.cpp - the UTF-8 block kernels of the fast codec
// (convert_utf8.cpp), one per variant, each compiled for its own target and
// called only when the CPU has it.
//
// Text that converts is, block by block, nothing but ASCII and complete
// two- and three-byte sequences, or units outside the surrogates. SSE2
// copies blocks of pure ASCII; SSSE3 converts any such block, sixteen bytes
// or eight units at a time, through byte shuffles built at compile time;
// AVX2 adds runs of ASCII thirty-two bytes or sixteen units at a time. A
// block that is not plain is left to the per-character codec, which fails
// on it (or converts it, when it only straddles the end of the input).
#include <cstring>
#include <immintrin.h>

#include "convert_fast_int.h"

namespace {

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

// Helpers of the kernels, inlined into kernels of the same or a wider
// target only.

KSPL_TARGET_SSE2 inline __m128i Load(const void* p) {
    return _mm_loadu_si128(static_cast<const __m128i*>(p));
}
KSPL_TARGET_SSE2 inline void Store(void* p, __m128i v) {
    _mm_storeu_si128(static_cast<__m128i*>(p), v);
}
KSPL_TARGET_SSE2 inline unsigned Bits(__m128i m) {
    return static_cast<unsigned>(_mm_movemask_epi8(m));
}
// Signed bytes from lo to hi.
KSPL_TARGET_SSE2 inline __m128i InRange(__m128i v, int lo, int hi) {
    return _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8(static_cast<char>(lo - 1))),
                         _mm_cmplt_epi8(v, _mm_set1_epi8(static_cast<char>(hi + 1))));
}
KSPL_TARGET_SSE2 inline __m128i WidenHalf(__m128i x, int half) {
    return half == 0 ? _mm_unpacklo_epi8(x, _mm_setzero_si128())
                     : _mm_unpackhi_epi8(x, _mm_setzero_si128());
}
KSPL_TARGET_SSE2 inline bool AsciiUnits8(__m128i v) {
    return _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(v, _mm_set1_epi16(-0x80)),
                                             _mm_setzero_si128())) == 0xFFFF;
}

// Decodes the sixteen bytes at p (eighteen readable) to out: pure ASCII
// only. False: leave the block to the next stage.
KSPL_TARGET_SSE2 inline bool DecodeAsciiBlock(const unsigned char* p, WCHAR* out) {
    const __m128i v0 = Load(p);
    if (Bits(v0) != 0) return false;
    Store(out, WidenHalf(v0, 0));
    Store(out + 8, WidenHalf(v0, 1));
    return true;
}

// Decodes the block at p (eighteen bytes readable) to out, which has room
// for sixteen units: ASCII and complete, valid two- and three-byte
// sequences, one that runs past the block being left for the next block.
// Sets *used to the bytes consumed and returns the units written, or -1
// when the block is not plain: then it holds a byte the per-character
// decoder fails on within the next 18 bytes (stray or missing continuation
// bytes, 0xC0/0xC1, four-byte forms, overlong forms, surrogates), and
// nothing was written.
KSPL_TARGET_SSSE3 inline int DecodeBlock(const unsigned char* p, WCHAR* out, int* used) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i v0 = Load(p);
    const unsigned high = Bits(v0);
    if (high == 0) {
        Store(out, _mm_unpacklo_epi8(v0, zero));
        Store(out + 8, _mm_unpackhi_epi8(v0, zero));
        *used = 16;
        return 16;
    }
    // As signed bytes: continuation 0x80-0xBF, leads 0xC2-0xDF and
    // 0xE0-0xEF; each lead announces the continuation bytes after it.
    const unsigned cont = Bits(_mm_cmplt_epi8(v0, _mm_set1_epi8(-0x40)));
    const unsigned lead2 = Bits(InRange(v0, -0x3E, -0x21));
    const unsigned lead3 = Bits(InRange(v0, -0x20, -0x11));
    const unsigned announced = (lead2 << 1) | (lead3 << 1) | (lead3 << 2);
    if ((cont | lead2 | lead3) != high || cont != (announced & 0xFFFFu)) return -1;
    const __m128i v1 = Load(p + 1);
    // After E0 the second byte is A0 or more (else overlong), after ED
    // below A0 (else a surrogate): bit 5 of the continuation byte.
    const unsigned upper = Bits(_mm_slli_epi16(v1, 2));
    const unsigned e0 = Bits(_mm_cmpeq_epi8(v0, _mm_set1_epi8(static_cast<char>(0xE0))));
    const unsigned ed = Bits(_mm_cmpeq_epi8(v0, _mm_set1_epi8(static_cast<char>(0xED))));
    if (((e0 & ~upper) | (ed & upper)) != 0) return -1;
    // A sequence running past the block starts at its last lead.
    const int take = (announced >> 16) != 0 ? 31 - __builtin_clz(lead2 | lead3) : 16;
    const unsigned keep = ~cont & ((1u << take) - 1);
    // Each unit at the lane of its first byte; then the units of the first
    // half moved to the front, those of the second to the back.
    __m128i halves[2];
    for (int half = 0; half < 2; ++half) {
        const __m128i a = WidenHalf(v0, half);
        const __m128i b = _mm_and_si128(WidenHalf(v1, half), _mm_set1_epi16(0x3F));
        const __m128i two = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(a, _mm_set1_epi16(0x1F)), 6), b);
        const __m128i isLead2 = _mm_cmpgt_epi16(a, _mm_set1_epi16(0xC1));
        __m128i unit = _mm_or_si128(_mm_and_si128(isLead2, two), _mm_andnot_si128(isLead2, a));
        if (lead3 != 0) {
            const __m128i c = _mm_and_si128(WidenHalf(Load(p + 2), half), _mm_set1_epi16(0x3F));
            const __m128i three =
                _mm_or_si128(_mm_or_si128(_mm_slli_epi16(a, 12), _mm_slli_epi16(b, 6)), c);
            const __m128i isLead3 = _mm_cmpgt_epi16(a, _mm_set1_epi16(0xDF));
            unit = _mm_or_si128(_mm_and_si128(isLead3, three), _mm_andnot_si128(isLead3, unit));
        }
        const unsigned lanes = (keep >> (8 * half)) & 0xFFu;
        const auto& shuffle = half == 0 ? kLanes.compact[lanes] : kLanes.compactBack[lanes];
        halves[half] = _mm_shuffle_epi8(unit, Load(shuffle));
    }
    const int first = kLanes.count[keep & 0xFFu];
    const int count = first + kLanes.count[keep >> 8];
    if (count >= 8) {
        // The first eight, then the last eight: the second half's units
        // behind those of the first that fall among them. Nothing past the
        // units made is written.
        Store(out, halves[0]);
        const __m128i front = _mm_shuffle_epi8(halves[0], Load(kLanes.toFront[count - 8]));
        Store(out + count - 8, _mm_or_si128(front, halves[1]));
    } else {
        // At least five units (14 bytes or more in sequences of at most
        // three): through a scratch area, two overlapping copies.
        alignas(16) WCHAR units[16];
        Store(units, halves[0]);
        Store(units + 8, halves[1]);
        std::memmove(units + first, units + 16 - (count - first), 2 * (count - first));
        std::memcpy(out, units, 8);
        std::memcpy(out + count - 4, units + count - 4, 8);
    }
    *used = take;
    return count;
}

// Encodes the eight units of v to out, which has room for 24 bytes; false
// (nothing written) if one is a surrogate. Exactly the bytes made are
// written; *made grows by their number.
KSPL_TARGET_SSSE3 inline bool EncodeGroup(__m128i v, unsigned char* out, int* made) {
    const __m128i zero = _mm_setzero_si128();
    if (AsciiUnits8(v)) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(v, v));
        *made += 8;
        return true;
    }
    const __m128i surrogate = _mm_cmpeq_epi16(_mm_and_si128(v, _mm_set1_epi16(-0x800)),
                                              _mm_set1_epi16(static_cast<short>(0xD800)));
    if (_mm_movemask_epi8(surrogate) != 0) return false;
    const bool anyThree =
        _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(v, _mm_set1_epi16(-0x800)), zero)) != 0xFFFF;
    int at = 0;
    for (int quarter = 0; quarter < 2; ++quarter) {
        // Four units in 32-bit lanes, each lane its one to three bytes.
        const __m128i u = quarter == 0 ? _mm_unpacklo_epi16(v, zero) : _mm_unpackhi_epi16(v, zero);
        const __m128i last = _mm_or_si128(_mm_and_si128(u, _mm_set1_epi32(0x3F)), _mm_set1_epi32(0x80));
        const __m128i two = _mm_or_si128(_mm_or_si128(_mm_srli_epi32(u, 6), _mm_set1_epi32(0xC0)),
                                         _mm_slli_epi32(last, 8));
        const __m128i isTwo = _mm_cmpgt_epi32(u, _mm_set1_epi32(0x7F));
        __m128i lanes = _mm_or_si128(_mm_and_si128(isTwo, two), _mm_andnot_si128(isTwo, u));
        int index = _mm_movemask_ps(_mm_castsi128_ps(isTwo));
        if (anyThree) {
            const __m128i middle = _mm_or_si128(
                _mm_and_si128(_mm_srli_epi32(u, 6), _mm_set1_epi32(0x3F)), _mm_set1_epi32(0x80));
            const __m128i three =
                _mm_or_si128(_mm_or_si128(_mm_srli_epi32(u, 12), _mm_set1_epi32(0xE0)),
                             _mm_or_si128(_mm_slli_epi32(middle, 8), _mm_slli_epi32(last, 16)));
            const __m128i isThree = _mm_cmpgt_epi32(u, _mm_set1_epi32(0x7FF));
            lanes = _mm_or_si128(_mm_and_si128(isThree, three), _mm_andnot_si128(isThree, lanes));
            index |= _mm_movemask_ps(_mm_castsi128_ps(isThree)) << 4;
        }
        const __m128i bytes = _mm_shuffle_epi8(lanes, Load(kBytes.gather[index]));
        // Four to twelve bytes, written as two overlapping pieces.
        const int count = kBytes.count[index];
        unsigned char* to = out + at;
        const int piece = count >= 8 ? 8 : 4;
        const __m128i tail = _mm_shuffle_epi8(bytes, Load(kBytes.toFront[count - piece]));
        if (piece == 8) {
            _mm_storel_epi64(reinterpret_cast<__m128i*>(to), bytes);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(to + count - 8), tail);
        } else {
            const int head = _mm_cvtsi128_si32(bytes);
            const int end = _mm_cvtsi128_si32(tail);
            std::memcpy(to, &head, 4);
            std::memcpy(to + count - 4, &end, 4);
        }
        at += count;
    }
    *made += at;
    return true;
}

// AVX2: thirty-two ASCII bytes widened, or sixteen ASCII units narrowed.
KSPL_TARGET_AVX2 inline bool DecodeAscii32(const unsigned char* p, WCHAR* out) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    if (_mm256_movemask_epi8(v) != 0) return false;
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out),
                        _mm256_cvtepu8_epi16(_mm256_castsi256_si128(v)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 16),
                        _mm256_cvtepu8_epi16(_mm256_extracti128_si256(v, 1)));
    return true;
}

KSPL_TARGET_AVX2 inline bool EncodeAscii16(const WCHAR* p, unsigned char* out) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    if (!_mm256_testz_si256(v, _mm256_set1_epi16(-0x80))) return false;
    const __m128i bytes =
        _mm_packus_epi16(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
    return true;
}

}  // namespace

// Every decoding kernel reads two bytes past a block (the continuation
// bytes of a sequence at its end): blocks go while eighteen bytes remain.

KSPL_TARGET_SSE2 int KsplDecodeUtf8BlocksSse2(const unsigned char* in, int n, WCHAR* out, int* pos) {
    int at = *pos;
    int made = 0;
    while (n - at >= 18 && DecodeAsciiBlock(in + at, out + made)) {
        at += 16;
        made += 16;
    }
    *pos = at;
    return made;
}

KSPL_TARGET_SSSE3 int KsplDecodeUtf8BlocksSsse3(const unsigned char* in, int n, WCHAR* out, int* pos) {
    int at = *pos;
    int made = 0;
    while (n - at >= 18) {
        int used;
        const int count = DecodeBlock(in + at, out + made, &used);
        if (count < 0) break;
        at += used;
        made += count;
    }
    *pos = at;
    return made;
}

KSPL_TARGET_AVX2 int KsplDecodeUtf8BlocksAvx2(const unsigned char* in, int n, WCHAR* out, int* pos) {
    int at = *pos;
    int made = 0;
    while (n - at >= 18) {
        if (n - at >= 32 && DecodeAscii32(in + at, out + made)) {
            at += 32;
            made += 32;
            continue;
        }
        int used;
        const int count = DecodeBlock(in + at, out + made, &used);
        if (count < 0) break;
        at += used;
        made += count;
    }
    *pos = at;
    return made;
}

KSPL_TARGET_SSE2 int KsplEncodeUtf8BlocksSse2(const WCHAR* in, int n, unsigned char* out, int* pos) {
    int at = *pos;
    int made = 0;
    while (n - at >= 8) {
        const __m128i v = Load(in + at);
        if (!AsciiUnits8(v)) break;
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + made), _mm_packus_epi16(v, v));
        at += 8;
        made += 8;
    }
    *pos = at;
    return made;
}

KSPL_TARGET_SSSE3 int KsplEncodeUtf8BlocksSsse3(const WCHAR* in, int n, unsigned char* out, int* pos) {
    int at = *pos;
    int made = 0;
    while (n - at >= 8 && EncodeGroup(Load(in + at), out + made, &made)) at += 8;
    *pos = at;
    return made;
}

KSPL_TARGET_AVX2 int KsplEncodeUtf8BlocksAvx2(const WCHAR* in, int n, unsigned char* out, int* pos) {
    int at = *pos;
    int made = 0;
    while (n - at >= 8) {
        if (n - at >= 16 && EncodeAscii16(in + at, out + made)) {
            at += 16;
            made += 16;
            continue;
        }
        if (!EncodeGroup(Load(in + at), out + made, &made)) break;
        at += 8;
    }
    *pos = at;
    return made;
}
