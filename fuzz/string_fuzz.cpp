// string_fuzz.cpp - sequences of counted-string operations on a few narrow
// and wide records, each over a heap buffer of exactly its capacity (so any
// write or read past it is caught), checked against a model of the bytes
// every record holds: copies truncate to the capacity, appends are all or
// nothing, terminators only where there is room, Length never above
// MaximumLength, comparisons agree with equality and are antisymmetric, and
// numbers survive a trip through text.
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "string_int.h"

namespace {

constexpr KSSTATUS kBufferSmall = KS_MAKE_STATUS(3, KSPL_FACILITY, KSPL_CODE_BUFFER_SMALL);
constexpr int kRecords = 3;

// A record, the storage it points into and what its first Length bytes
// must be. `known` is false after an operation whose effect on the bytes
// the model does not predict (odd wide capacities, a failed number).
template <typename Rec>
struct Slot {
    Rec rec{};
    std::unique_ptr<unsigned char[]> storage;
    std::string bytes;
    bool known = true;
};

struct Harness {
    IKspl* k;
    FuzzReader& in;
    Slot<STRING> narrow[kRecords];
    Slot<UNICODE_STRING> wide[kRecords];
    // Sources handed to the Init operations; they must outlive the records.
    std::vector<std::unique_ptr<unsigned char[]>> sources;

    // Fresh storage of a capacity chosen by the input, holding Length bytes.
    template <typename Rec>
    void Reset(Slot<Rec>& s, bool wideRecord) {
        UINT16 max = static_cast<UINT16>(in.U8() % 96);
        if (wideRecord && (in.U8() & 7) != 0) max &= 0xFFFE;
        s.storage.reset(max == 0 ? nullptr : new unsigned char[max]);
        UINT16 length = max == 0 ? 0 : static_cast<UINT16>(in.U8() % (max + 1));
        if (wideRecord && (max & 1) == 0) length &= 0xFFFE;
        std::string content = in.Take(length);
        content.resize(length, 'x');
        if (max != 0) {
            std::memset(s.storage.get(), 0x5A, max);
            std::memcpy(s.storage.get(), content.data(), length);
        }
        s.rec.Length = length;
        s.rec.MaximumLength = max;
        s.rec.Buffer = reinterpret_cast<decltype(s.rec.Buffer)>(s.storage.get());
        s.bytes = content;
        s.known = !wideRecord || (max & 1) == 0;
    }

    template <typename Rec>
    static std::string Bytes(const Rec& r) {
        return r.Length == 0 ? std::string()
                             : std::string(reinterpret_cast<const char*>(r.Buffer), r.Length);
    }

    template <typename Rec>
    void Verify(Slot<Rec>& s, const char* op) {
        FUZZ_CHECK(s.rec.Length <= s.rec.MaximumLength, op);
        if (s.known) {
            FUZZ_CHECK(Bytes(s.rec) == s.bytes, op);
        } else {
            s.bytes = Bytes(s.rec);
        }
    }

    // A NUL-terminated copy of input text in storage of its own.
    char* NarrowSource() {
        std::string t = in.Bytes(80);
        for (char& c : t)
            if (c == '\0') c = 'z';
        auto* p = new unsigned char[t.size() + 1];
        std::memcpy(p, t.data(), t.size());
        p[t.size()] = 0;
        sources.emplace_back(p);
        return reinterpret_cast<char*>(p);
    }
    WCHAR* WideSource(size_t* units) {
        std::string t = in.Bytes(80);
        size_t n = t.size() / 2;
        auto* p = new unsigned char[2 * n + 2];
        std::memcpy(p, t.data(), 2 * n);
        WCHAR* w = reinterpret_cast<WCHAR*>(p);
        for (size_t i = 0; i < n; ++i)
            if (w[i] == 0) w[i] = 'z';
        w[n] = 0;
        sources.emplace_back(p);
        *units = n;
        return w;
    }

    static int Sign(long v) { return v < 0 ? -1 : v > 0 ? 1 : 0; }
    static long Order(const std::string& a, const std::string& b) {
        const size_t n = std::min(a.size(), b.size());
        const int c = n == 0 ? 0 : std::memcmp(a.data(), b.data(), n);
        return c != 0 ? c : static_cast<long>(a.size()) - static_cast<long>(b.size());
    }

    void Step() {
        const IKsplVtbl* v = k->lpVtbl;
        const uint32_t op = in.Pick(12);
        Slot<STRING>& na = narrow[in.Pick(kRecords)];
        Slot<STRING>& nb = narrow[in.Pick(kRecords)];
        Slot<UNICODE_STRING>& wa = wide[in.Pick(kRecords)];
        Slot<UNICODE_STRING>& wb = wide[in.Pick(kRecords)];
        const BOOLEAN ci = in.Bool() ? TRUE : FALSE;
        switch (op) {
            case 0:
                Reset(na, false);
                break;
            case 1:
                Reset(wa, true);
                break;
            case 2: {  // init from text or from nothing
                char* src = in.Bool() ? NarrowSource() : nullptr;
                v->KsoInitString(k, &na.rec, src);
                FUZZ_CHECK(na.rec.Buffer == src, "init keeps the pointer");
                size_t n = src != nullptr ? std::strlen(src) : 0;
                FUZZ_CHECK(na.rec.Length == n, "init length");
                FUZZ_CHECK(na.rec.MaximumLength == (src != nullptr ? n + 1 : 0), "init capacity");
                na.bytes.assign(src != nullptr ? src : "", n);
                na.known = true;
                break;
            }
            case 3: {
                size_t n = 0;
                WCHAR* src = in.Bool() ? WideSource(&n) : nullptr;
                v->KsoInitUnicodeString(k, &wa.rec, src);
                FUZZ_CHECK(wa.rec.Buffer == src, "init keeps the pointer");
                FUZZ_CHECK(wa.rec.Length == 2 * n, "init length");
                FUZZ_CHECK(wa.rec.MaximumLength == (src != nullptr ? 2 * n + 2 : 0), "init capacity");
                wa.bytes.assign(reinterpret_cast<const char*>(src), 2 * n);
                wa.known = true;
                break;
            }
            case 4: {  // copy truncates to the destination's capacity
                const std::string src = nb.bytes;
                const bool nullSrc = in.U8() < 16;
                v->KsoCopyString(k, &na.rec, nullSrc ? nullptr : &nb.rec);
                const size_t n = nullSrc ? 0 : std::min<size_t>(na.rec.MaximumLength, src.size());
                FUZZ_CHECK(na.rec.Length == n, "copy length");
                na.bytes = src.substr(0, n);
                if (!nullSrc && na.rec.MaximumLength > n)
                    FUZZ_CHECK(na.rec.Buffer[n] == '\0', "copy terminates when there is room");
                break;
            }
            case 5: {
                const std::string src = wb.bytes;
                const bool nullSrc = in.U8() < 16;
                v->KsoCopyUnicodeString(k, &wa.rec, nullSrc ? nullptr : &wb.rec);
                const size_t n = nullSrc ? 0 : std::min<size_t>(wa.rec.MaximumLength, src.size());
                FUZZ_CHECK(wa.rec.Length == n, "copy length");
                wa.bytes = src.substr(0, n);
                // An odd count (from an odd capacity, outside the record's
                // contract) lets the terminator unit overlap the last byte.
                wa.known = nullSrc || (wb.known && n % 2 == 0);
                if (!nullSrc && wa.rec.MaximumLength >= n + 2 && n % 2 == 0)
                    FUZZ_CHECK(wa.rec.Buffer[n / 2] == 0, "copy terminates when there is room");
                break;
            }
            case 6:
            case 7: {  // append: all or nothing
                std::string add;
                KSSTATUS st;
                bool known = wa.known;
                if (op == 6) {
                    add = wb.bytes;
                    known = known && wb.known;
                    st = v->KsoAppendUnicodeStringToString(k, &wa.rec, &wb.rec);
                } else {
                    size_t n = 0;
                    WCHAR* src = WideSource(&n);
                    add.assign(reinterpret_cast<const char*>(src), 2 * n);
                    st = v->KsoAppendUnicodeToString(k, &wa.rec, src);
                }
                const size_t want = wa.bytes.size() + add.size();
                if (add.empty()) {
                    FUZZ_CHECK(st == 0, "appending nothing");
                } else if (want > wa.rec.MaximumLength) {
                    FUZZ_CHECK(st == kBufferSmall, "append past the capacity");
                } else {
                    FUZZ_CHECK(st == 0, "append that fits");
                    FUZZ_CHECK(wa.rec.Length == want, "append length");
                    if (known) wa.bytes += add;
                    if (known && wa.rec.MaximumLength >= want + 2)
                        FUZZ_CHECK(wa.rec.Buffer[want / 2] == 0, "append terminates when there is room");
                }
                wa.known = known && wa.rec.Length % 2 == 0;
                break;
            }
            case 8: {  // narrow comparison
                INT32 ab = v->KsoCompareString(k, &na.rec, &nb.rec, ci);
                INT32 ba = v->KsoCompareString(k, &nb.rec, &na.rec, ci);
                BOOLEAN eq = v->KsoEqualString(k, &na.rec, &nb.rec, ci);
                FUZZ_CHECK(Sign(ab) == -Sign(ba), "narrow comparison is antisymmetric");
                FUZZ_CHECK((eq == TRUE) == (ab == 0), "narrow equality agrees with comparison");
                FUZZ_CHECK(v->KsoCompareString(k, &na.rec, &na.rec, ci) == 0, "a text equals itself");
                // Without NUL bytes: unsigned bytes over the shorter length, then length.
                const std::string a = Bytes(na.rec), b = Bytes(nb.rec);
                if (!ci && a.find('\0') == std::string::npos && b.find('\0') == std::string::npos)
                    FUZZ_CHECK(Sign(ab) == Sign(Order(a, b)), "narrow order");
                break;
            }
            case 9: {  // wide comparison
                INT32 ab = v->KsoCompareUnicodeString(k, &wa.rec, &wb.rec, ci);
                INT32 ba = v->KsoCompareUnicodeString(k, &wb.rec, &wa.rec, ci);
                BOOLEAN eq = v->KsoEqualUnicodeString(k, &wa.rec, &wb.rec, ci);
                FUZZ_CHECK(Sign(ab) == -Sign(ba), "wide comparison is antisymmetric");
                FUZZ_CHECK((eq == TRUE) == (ab == 0), "wide equality agrees with comparison");
                FUZZ_CHECK(v->KsoCompareUnicodeString(k, &wa.rec, &wa.rec, ci) == 0, "a text equals itself");
                // Bytes in memory order (low byte of a unit first), then length.
                if (!ci) FUZZ_CHECK(Sign(ab) == Sign(Order(Bytes(wa.rec), Bytes(wb.rec))), "wide order");
                break;
            }
            case 10: {  // number to text and back
                const UINT32 value = in.U32();
                const UINT32 bases[] = {8, 10, 16, 2, 0};
                const UINT32 base = bases[in.Pick(5)];
                char digits[32];
                std::snprintf(digits, sizeof digits, base == 8 ? "%o" : base == 16 ? "%x" : "%u", value);
                const size_t d = std::strlen(digits);
                KSSTATUS st = v->KsoIntegerToUnicodeString(k, value, base, &wa.rec);
                const size_t units = wa.rec.MaximumLength / 2;
                if (units < d) {
                    FUZZ_CHECK(st == kBufferSmall, "digits that do not fit");
                    wa.known = false;
                    break;
                }
                FUZZ_CHECK(st == 0, "digits that fit");
                FUZZ_CHECK(wa.rec.Length == 2 * d, "length of the digits");
                wa.bytes.clear();
                for (size_t i = 0; i < d; ++i) {
                    wa.bytes.push_back(digits[i]);
                    wa.bytes.push_back('\0');
                }
                wa.known = true;
                if (base == 8 || base == 10 || base == 16) {
                    UINT32 back = ~value;
                    FUZZ_CHECK(v->KsoUnicodeStringToInteger(k, &wa.rec, base, &back) == 0, "parse");
                    FUZZ_CHECK(back == value, "a number survives its text");
                }
                break;
            }
            case 11: {  // any text to a number: no fault, the record untouched
                UINT32 value = 0;
                const UINT32 base = in.Pick(40);
                v->KsoUnicodeStringToInteger(k, &wa.rec, base, &value);
                break;
            }
        }
        for (auto& s : narrow) Verify(s, "narrow record");
        for (auto& s : wide) Verify(s, "wide record");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzReader in(data, size);
    Harness h{FuzzInstance(), in, {}, {}, {}};
    for (auto& s : h.narrow) h.Reset(s, false);
    for (auto& s : h.wide) h.Reset(s, true);
    for (int step = 0; step < 64 && !in.empty(); ++step) h.Step();
    return 0;
}
