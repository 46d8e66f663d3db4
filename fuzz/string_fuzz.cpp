// string_fuzz.cpp - sequences of counted-string operations on two narrow
// and two wide records, each over heap storage of exactly its capacity (so
// any access past it is caught), checked against a model of the bytes each
// record holds: copies truncate to the capacity, appends are all or
// nothing, terminators go only where there is room, Length never exceeds
// MaximumLength, comparisons agree with equality and are antisymmetric,
// numbers survive a trip through text.
#include <algorithm>
#include <memory>

#include "fuzz_support.h"
#include "string_int.h"

namespace {

constexpr KSSTATUS kBufferSmall = KS_MAKE_STATUS(3, KSPL_FACILITY, KSPL_CODE_BUFFER_SMALL);

template <typename Rec>
struct Slot {
    Rec rec{};
    std::unique_ptr<char[]> storage;
    std::string model;  // what the first Length bytes hold
    std::string Bytes() const { return {reinterpret_cast<const char*>(rec.Buffer), rec.Length}; }
    void Reset(FuzzReader& in, unsigned align) {
        const UINT16 max = static_cast<UINT16>(in.U8() % 64 & ~(align - 1));
        model = in.Take(in.U8() % (max + 1) & ~(align - 1));
        storage.reset(max == 0 ? nullptr : new char[max]);
        if (max != 0) std::memcpy(storage.get(), model.data(), model.size());
        rec = {static_cast<UINT16>(model.size()), max, reinterpret_cast<decltype(rec.Buffer)>(storage.get())};
    }
};

int Sign(long v) { return v < 0 ? -1 : v > 0 ? 1 : 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    IKspl* k = FuzzInstance();
    const IKsplVtbl* v = k->lpVtbl;
    FuzzReader in(data, size);
    Slot<STRING> narrow[2];
    Slot<UNICODE_STRING> wide[2];
    for (int i = 0; i < 2; ++i) {
        narrow[i].Reset(in, 1);
        wide[i].Reset(in, 2);
    }
    for (int step = 0; step < 64 && !in.empty(); ++step) {
        Slot<STRING>& na = narrow[in.Pick(2)];
        Slot<STRING>& nb = narrow[in.Pick(2)];
        Slot<UNICODE_STRING>& wa = wide[in.Pick(2)];
        Slot<UNICODE_STRING>& wb = wide[in.Pick(2)];
        const BOOLEAN ci = in.Bool();
        switch (in.Pick(6)) {
            case 0:
                na.Reset(in, 1);
                wa.Reset(in, 2);
                break;
            case 1:  // copies truncate to the capacity, terminated where there is room
                v->KsoCopyString(k, &na.rec, &nb.rec);
                na.model = nb.model.substr(0, na.rec.MaximumLength);
                FUZZ_CHECK(na.rec.MaximumLength == na.rec.Length || na.rec.Buffer[na.rec.Length] == 0);
                v->KsoCopyUnicodeString(k, &wa.rec, &wb.rec);
                wa.model = wb.model.substr(0, wa.rec.MaximumLength);
                FUZZ_CHECK(wa.rec.MaximumLength == wa.rec.Length || wa.rec.Buffer[wa.rec.Length / 2] == 0);
                break;
            case 2: {  // appends from a record or a zero-terminated text: all or nothing
                std::vector<WCHAR> text(in.U8() % 24 + 1, 0);
                for (size_t i = 0; i + 1 < text.size(); ++i) text[i] = in.U16() | 1;
                const bool terminated = in.Bool();
                const std::string add = terminated ? std::string(reinterpret_cast<char*>(text.data()),
                                                                 2 * text.size() - 2)
                                                   : wb.model;
                const size_t want = wa.model.size() + add.size();
                const KSSTATUS st = terminated ? v->KsoAppendUnicodeToString(k, &wa.rec, text.data())
                                               : v->KsoAppendUnicodeStringToString(k, &wa.rec, &wb.rec);
                FUZZ_CHECK(st == (add.empty() || want <= wa.rec.MaximumLength ? 0 : kBufferSmall));
                if (st == 0) wa.model += add;
                FUZZ_CHECK(add.empty() || st != 0 || want == wa.rec.MaximumLength ||
                           wa.rec.Buffer[want / 2] == 0);
                break;
            }
            case 3: {  // comparisons: antisymmetric, equal to themselves, agreeing with equality
                const INT32 n = v->KsoCompareString(k, &na.rec, &nb.rec, ci);
                FUZZ_CHECK(Sign(n) == -Sign(v->KsoCompareString(k, &nb.rec, &na.rec, ci)));
                FUZZ_CHECK((v->KsoEqualString(k, &na.rec, &nb.rec, ci) == TRUE) == (n == 0));
                FUZZ_CHECK(v->KsoCompareString(k, &na.rec, &na.rec, ci) == 0);
                const INT32 w = v->KsoCompareUnicodeString(k, &wa.rec, &wb.rec, ci);
                FUZZ_CHECK(Sign(w) == -Sign(v->KsoCompareUnicodeString(k, &wb.rec, &wa.rec, ci)));
                FUZZ_CHECK((v->KsoEqualUnicodeString(k, &wa.rec, &wb.rec, ci) == TRUE) == (w == 0));
                // Case-sensitive: bytes in memory order, then the length.
                const std::string a = wa.Bytes(), b = wb.Bytes();
                const int order = a.compare(0, b.size(), b, 0, a.size());
                FUZZ_CHECK(ci || Sign(w) == Sign(order != 0 ? order : long(a.size()) - long(b.size())));
                break;
            }
            case 4: {  // a number to text (where it fits) and back
                const UINT32 value = in.U32();
                const UINT32 base = "\x08\x0A\x10"[in.Pick(3)];
                char digits[16];
                std::snprintf(digits, sizeof digits, base == 8 ? "%o" : base == 16 ? "%x" : "%u", value);
                const size_t d = std::strlen(digits);
                const KSSTATUS st = v->KsoIntegerToUnicodeString(k, value, base, &wa.rec);
                FUZZ_CHECK(st == (2 * d <= wa.rec.MaximumLength ? 0 : kBufferSmall));
                std::string text;
                for (size_t i = 0; i < d; ++i) text += {digits[i], '\0'};
                FUZZ_CHECK(st != 0 || wa.Bytes() == text);
                wa.model = wa.Bytes();  // a refused number may leave a truncated copy
                UINT32 back = ~value;
                FUZZ_CHECK(st != 0 || (v->KsoUnicodeStringToInteger(k, &wa.rec, base, &back) == 0 &&
                                       back == value));
                break;
            }
            default: {  // any text to a number: no fault, the record untouched
                UINT32 value = 0;
                v->KsoUnicodeStringToInteger(k, &wa.rec, in.Pick(40), &value);
                break;
            }
        }
        auto verify = [](const auto& s) {
            FUZZ_CHECK(s.rec.Length <= s.rec.MaximumLength && s.Bytes() == s.model);
        };
        std::for_each(narrow, narrow + 2, verify);
        std::for_each(wide, wide + 2, verify);
    }
    return 0;
}
