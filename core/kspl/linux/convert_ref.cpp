// convert_ref.cpp - the reference character routines: the per-character
// algorithms on iconv behind the oracle the faster routines are held to.
//
// Every call opens and closes its own iconv descriptor (the loops of
// KsplLocToUniOn and KsplUniToLocOn also run on a cached descriptor, see
// convert_cache.cpp) and makes one iconv call per character, up to three
// for a multi-byte character of a code page. Reentrant: buffers on the
// stack, no state between calls.
#include <errno.h>
#include <iconv.h>
#include <syslog.h>

#include <cctype>
#include <cstring>

#include "convert_int.h"
#include "convlock_int.h"
#include "dbg_int.h"

namespace {

constexpr const char kWideCodeSet[] = "UNICODE";
constexpr const char kUtf8CodeSet[] = "UTF-8";
const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);

// One descriptor per call; closed on every path.
class Descriptor {
public:
    Descriptor(const char* to, const char* from)
        : cd_(to != nullptr && from != nullptr ? KsplIconvOpen(to, from) : kNoDescriptor) {}
    ~Descriptor() {
        if (cd_ != kNoDescriptor) KsplIconvClose(cd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    bool ok() const { return cd_ != kNoDescriptor; }
    iconv_t get() const { return cd_; }

private:
    iconv_t cd_;
};

// The 16-bit unit of a conversion to "UNICODE" of one character followed
// by a NUL. A descriptor puts a byte-order mark ahead of its first output,
// so the first successful call yields mark, unit, 0 and later calls unit, 0.
inline bool TakeWideUnit(const unsigned char* out, int bytes, bool firstOutput, WCHAR* unit) {
    WCHAR units[3];
    if (bytes != 4 && bytes != 6) return false;
    std::memcpy(units, out, static_cast<size_t>(bytes));
    *unit = bytes == 6 && firstOutput ? units[1] : units[0];
    return true;
}

int HexValue(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    return std::tolower(c) - 87;
}

inline int Fail(int* pOut) {
    *pOut = 0;
    return -1;
}

}  // namespace

int KsplRefUtf8SeqLen(char firstSeqByte) {
    unsigned v = static_cast<unsigned char>(firstSeqByte);
    int ones = 0;
    while (ones < 7 && (v & 0x80u) != 0) {
        ++ones;
        v <<= 1;
    }
    return ones <= 1 ? 1 : ones;
}

int KsplLocToUniOn(iconv_t descriptor, BOOLEAN codePageSupportsEuro, char* pInMulti,
                   int inMultiChars, WCHAR* pOutWide, int* pOutWideChars) {
    if (inMultiChars <= 0) {
        *pOutWideChars = 0;
        return 0;
    }
    const int capacity = *pOutWideChars;
    if (capacity <= 0) return Fail(pOutWideChars);

    const auto* in = reinterpret_cast<const unsigned char*>(pInMulti);
    int pos = 0;
    int produced = 0;
    bool firstOutput = true;
    while (pos < inMultiChars) {
        const unsigned char b = in[pos];
        const int left = inMultiChars - pos;
        WCHAR unit;
        if (KsplIsPathSeparator(b)) {
            unit = b;
            pos += 1;
        } else if (b == '[' && left >= 6 && in[pos + 5] == ']') {
            unsigned value = 0;
            for (int d = 1; d <= 4; ++d) value = value * 16u + static_cast<unsigned>(HexValue(in[pos + d]));
            unit = static_cast<WCHAR>(value & 0xFFFFu);
            pos += 6;
        } else if (b == '[') {
            unit = '[';
            pos += 1;
        } else if (b == 0xCC && !codePageSupportsEuro) {
            unit = 0x20AC;
            pos += 1;
        } else {
            // Grow the byte sequence until iconv accepts it as one
            // character; the trailing NUL marks its end.
            int k = 1;
            for (;;) {
                unsigned char src[4] = {};
                unsigned char dst[6];
                std::memcpy(src, in + pos, static_cast<size_t>(k));
                int bytes = KsplIconvOnce(descriptor, src, static_cast<size_t>(k) + 1, dst, sizeof(dst));
                if (bytes >= 0) {
                    if (!TakeWideUnit(dst, bytes, firstOutput, &unit)) return Fail(pOutWideChars);
                    firstOutput = false;
                    break;
                }
                if ((errno == EINVAL || errno == EILSEQ) && k < 3 && left >= k + 1) {
                    ++k;
                    continue;
                }
                return Fail(pOutWideChars);
            }
            pos += k;
        }
        pOutWide[produced++] = unit;
        if (pos < inMultiChars && produced >= capacity) return Fail(pOutWideChars);
    }
    *pOutWideChars = produced;
    return 0;
}

int KsplRefLocToUni(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti,
                    int inMultiChars, WCHAR* pOutWide, int* pOutWideChars) {
    Descriptor cd(kWideCodeSet, pCodePage);
    if (!cd.ok()) {
        KsplLog(LOG_USER | LOG_ERR, "LocToUni: Unable to open conversion descriptor\n");
        return inMultiChars != 0 ? Fail(pOutWideChars) : (*pOutWideChars = 0, 0);
    }
    return KsplLocToUniOn(cd.get(), codePageSupportsEuro, pInMulti, inMultiChars, pOutWide,
                          pOutWideChars);
}

int KsplRefUtf8ToUni(char* pInMulti, int inMultiChars, WCHAR* pOutWide, int* pOutWideChars) {
    Descriptor cd(kWideCodeSet, kUtf8CodeSet);
    if (!cd.ok()) {
        KsplLog(LOG_USER | LOG_ERR, "Utf8ToUni: Unable to open conversion descriptor\n");
        return inMultiChars != 0 ? Fail(pOutWideChars) : (*pOutWideChars = 0, 0);
    }
    if (inMultiChars <= 0) {
        *pOutWideChars = 0;
        return 0;
    }
    const int capacity = *pOutWideChars;
    if (capacity <= 0) return Fail(pOutWideChars);

    int pos = 0;
    int produced = 0;
    while (pos < inMultiChars) {
        const int len = KsplRefUtf8SeqLen(pInMulti[pos]);
        if (len > inMultiChars - pos) return Fail(pOutWideChars);
        unsigned char src[8] = {};
        unsigned char dst[6];
        std::memcpy(src, pInMulti + pos, static_cast<size_t>(len));
        int bytes = KsplIconvOnce(cd.get(), src, static_cast<size_t>(len) + 1, dst, sizeof(dst));
        WCHAR unit;
        if (bytes < 0 || !TakeWideUnit(dst, bytes, pos == 0, &unit)) return Fail(pOutWideChars);
        pOutWide[produced++] = unit;
        pos += len;
        if (pos < inMultiChars && produced >= capacity) return Fail(pOutWideChars);
    }
    *pOutWideChars = produced;
    return 0;
}

int KsplUniToLocOn(iconv_t descriptor, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                   int* pOutMultiChars) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    if (inWideChars <= 0) {
        *pOutMultiChars = 0;
        return 0;
    }
    const int capacity = *pOutMultiChars;
    if (capacity <= 0) return Fail(pOutMultiChars);

    int pos = 0;
    int produced = 0;
    while (pos < inWideChars && produced < capacity) {
        const WCHAR u = pInWide[pos];
        if (KsplIsPathSeparator(u)) {
            pOutMulti[produced++] = static_cast<char>(u);
        } else {
            const WCHAR src[2] = {u, 0};
            char dst[4];
            int bytes = KsplIconvOnce(descriptor, src, sizeof(src), dst, sizeof(dst));
            if (bytes >= 0) {
                // The last byte is the NUL's; a unit that yields no byte of
                // its own (a leading byte-order mark) produces nothing.
                const int own = bytes > 0 ? bytes - 1 : 0;
                if (produced + own > capacity) return Fail(pOutMultiChars);
                std::memcpy(pOutMulti + produced, dst, static_cast<size_t>(own));
                produced += own;
            } else if (u == 0x20AC) {
                pOutMulti[produced++] = static_cast<char>(0xCC);
            } else if (produced + 5 < capacity) {
                char* o = pOutMulti + produced;
                o[0] = '[';
                o[1] = kHex[(u >> 12) & 0xF];
                o[2] = kHex[(u >> 8) & 0xF];
                o[3] = kHex[(u >> 4) & 0xF];
                o[4] = kHex[u & 0xF];
                o[5] = ']';
                produced += 6;
            } else {
                return Fail(pOutMultiChars);
            }
        }
        ++pos;
    }
    if (pos < inWideChars) return Fail(pOutMultiChars);
    *pOutMultiChars = produced;
    return 0;
}

int KsplRefUniToLoc(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                    int* pOutMultiChars) {
    Descriptor cd(pCodePage, kWideCodeSet);
    if (!cd.ok()) {
        KsplLog(LOG_USER | LOG_ERR, "UniToLoc: Unable to open conversion descriptor\n");
        return inWideChars != 0 ? Fail(pOutMultiChars) : (*pOutMultiChars = 0, 0);
    }
    return KsplUniToLocOn(cd.get(), pInWide, inWideChars, pOutMulti, pOutMultiChars);
}

int KsplRefUniToUtf8(WCHAR* pInWide, int inWideChars, char* pOutMulti, int* pOutMultiChars) {
    Descriptor cd(kUtf8CodeSet, kWideCodeSet);
    if (!cd.ok()) {
        KsplLog(LOG_USER | LOG_ERR, "UniToUtf8: Unable to open conversion descriptor\n");
        return inWideChars != 0 ? Fail(pOutMultiChars) : (*pOutMultiChars = 0, 0);
    }
    const int capacity = *pOutMultiChars;
    int produced = 0;
    for (int pos = 0; pos < inWideChars; ++pos) {
        const WCHAR src[2] = {pInWide[pos], 0};
        char dst[8];
        int bytes = KsplIconvOnce(cd.get(), src, sizeof(src), dst, sizeof(dst));
        if (bytes < 1 || bytes > 7) return Fail(pOutMultiChars);
        const int own = bytes - 1;
        // One byte of the capacity always stays free.
        if (produced + own >= capacity) return Fail(pOutMultiChars);
        std::memcpy(pOutMulti + produced, dst, static_cast<size_t>(own));
        produced += own;
    }
    *pOutMultiChars = produced;
    return 0;
}

const KsplConvRoutines kKsplRefConvRoutines = {KsplRefLocToUni, KsplRefUtf8ToUni, KsplRefUniToLoc,
                                               KsplRefUniToUtf8};

int KsplIconvOnce(iconv_t cd, const void* in, size_t inBytes, void* out, size_t outBytes) {
    char* inPtr = const_cast<char*>(static_cast<const char*>(in));
    char* outPtr = static_cast<char*>(out);
    size_t outLeft = outBytes;
    if (iconv(cd, &inPtr, &inBytes, &outPtr, &outLeft) == static_cast<size_t>(-1)) return -1;
    return static_cast<int>(outBytes - outLeft);
}
