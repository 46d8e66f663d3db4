// convert_utf8.cpp - UTF-8 to and from 16-bit units: a validating codec of
// our own with the reference's results (status, output, count, and the
// output written before a failure), taking plain blocks through the vector
// kernels of the variant in use (convert_utf8_block.cpp).
#include <cstdint>
#include <cstring>

#include "convert_fast_int.h"

using namespace kspl_conv;

namespace {

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

// The block kernels of the variant in use; none on a plain i686.
int DecodeBlocks(const unsigned char* in, int n, WCHAR* out, int* pos) {
    switch (KsplConvIsaInUse()) {
        case KsplConvIsa::kAvx2: return KsplDecodeUtf8BlocksAvx2(in, n, out, pos);
        case KsplConvIsa::kSsse3: return KsplDecodeUtf8BlocksSsse3(in, n, out, pos);
        case KsplConvIsa::kSse2: return KsplDecodeUtf8BlocksSse2(in, n, out, pos);
        default: return 0;
    }
}

int EncodeBlocks(const WCHAR* in, int n, unsigned char* out, int* pos) {
    switch (KsplConvIsaInUse()) {
        case KsplConvIsa::kAvx2: return KsplEncodeUtf8BlocksAvx2(in, n, out, pos);
        case KsplConvIsa::kSsse3: return KsplEncodeUtf8BlocksSsse3(in, n, out, pos);
        case KsplConvIsa::kSse2: return KsplEncodeUtf8BlocksSse2(in, n, out, pos);
        default: return 0;
    }
}

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
    // With room for one unit per byte, plain blocks first; what remains is
    // shorter than a block or holds the failure.
    if (!kCheck) produced += DecodeBlocks(in, n, out + produced, &pos);
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
    // With room for three bytes per unit, whole groups first; what remains
    // is shorter than a group or holds the failure.
    if (!kSwapped && !kCheck) produced = EncodeBlocks(in, n, out, &pos);
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

}  // namespace

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