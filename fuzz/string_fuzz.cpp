// string_fuzz.cpp - counted-string operations on two narrow and two wide
// records, each over heap storage of exactly its capacity (so any access
// past it is caught), against a model of the bytes each record holds:
// copies truncate to the capacity, appends are all or nothing, terminators
// go only where there is room, Length never exceeds MaximumLength,
// comparisons are antisymmetric and agree with equality.
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
        rec = {static_cast<UINT16>(model.size()), max,
               reinterpret_cast<decltype(rec.Buffer)>(storage.get())};
    }
    bool Terminated() const {
        return rec.Length == rec.MaximumLength || rec.Buffer[rec.Length / sizeof(*rec.Buffer)] == 0;
    }
    void Check() const { FUZZ_CHECK(rec.Length <= rec.MaximumLength && Bytes() == model); }
};

int Sign(long v) { return v < 0 ? -1 : v > 0 ? 1 : 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    IKspl* k = FuzzInstance();
    const IKsplVtbl* v = k->lpVtbl;
    FuzzReader in(data, size);
    Slot<STRING> n[2];
    Slot<UNICODE_STRING> w[2];
    for (int step = 0; step < 64 && !in.empty(); ++step) {
        const uint8_t op = in.U8();
        Slot<STRING>& na = n[op & 1];
        Slot<UNICODE_STRING>& wa = w[op & 1];
        Slot<UNICODE_STRING>& wb = w[(op >> 1) & 1];
        if (step < 2 || (op & 0x0C) == 0) {
            na.Reset(in, 1);
            wa.Reset(in, 2);
        } else if ((op & 0x0C) == 4) {  // copies: truncated to the capacity
            v->KsoCopyString(k, &na.rec, &n[(op >> 1) & 1].rec);
            na.model = n[(op >> 1) & 1].model.substr(0, na.rec.MaximumLength);
            v->KsoCopyUnicodeString(k, &wa.rec, &wb.rec);
            wa.model = wb.model.substr(0, wa.rec.MaximumLength);
            FUZZ_CHECK(na.Terminated() && wa.Terminated(), "a copy terminates where there is room");
        } else if ((op & 0x0C) == 8) {  // appends of a record or a zero-terminated text
            std::vector<WCHAR> text(in.U8() % 24 + 1, 0);
            for (size_t i = 0; i + 1 < text.size(); ++i) text[i] = in.U16() | 1;
            const bool terminated = in.Bool();
            const std::string add = terminated ? std::string(reinterpret_cast<char*>(text.data()),
                                                             2 * text.size() - 2)
                                               : wb.model;
            const bool fits = wa.model.size() + add.size() <= wa.rec.MaximumLength;
            const KSSTATUS st = terminated ? v->KsoAppendUnicodeToString(k, &wa.rec, text.data())
                                           : v->KsoAppendUnicodeStringToString(k, &wa.rec, &wb.rec);
            FUZZ_CHECK(st == (add.empty() || fits ? 0 : kBufferSmall), "all or nothing");
            if (st == 0) wa.model += add;
            FUZZ_CHECK(add.empty() || st != 0 || wa.Terminated(), "terminated where there is room");
        } else {  // comparisons; any text to a number leaves the records alone
            const BOOLEAN ci = (op & 0x20) != 0;
            const INT32 c = v->KsoCompareString(k, &n[0].rec, &n[1].rec, ci);
            FUZZ_CHECK(Sign(c) == -Sign(v->KsoCompareString(k, &n[1].rec, &n[0].rec, ci)));
            FUZZ_CHECK((v->KsoEqualString(k, &n[0].rec, &n[1].rec, ci) == TRUE) == (c == 0));
            const INT32 d = v->KsoCompareUnicodeString(k, &w[0].rec, &w[1].rec, ci);
            FUZZ_CHECK(Sign(d) == -Sign(v->KsoCompareUnicodeString(k, &w[1].rec, &w[0].rec, ci)));
            FUZZ_CHECK((v->KsoEqualUnicodeString(k, &w[0].rec, &w[1].rec, ci) == TRUE) == (d == 0));
            // Case-sensitive: bytes in memory order, then the length.
            const std::string a = w[0].Bytes();
            const std::string b = w[1].Bytes();
            const int order = a.compare(0, b.size(), b, 0, a.size());
            FUZZ_CHECK(ci || Sign(d) == Sign(order != 0 ? order : long(a.size()) - long(b.size())));
            UINT32 value = 0;
            v->KsoUnicodeStringToInteger(k, &wa.rec, in.Pick(40), &value);
        }
        for (int i = 0; i < 2; ++i) {
            n[i].Check();
            w[i].Check();
        }
    }
    return 0;
}
