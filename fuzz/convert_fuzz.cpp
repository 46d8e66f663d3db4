// convert_fuzz.cpp - both conversion services and the exported character
// routines against the per-character reference routines: the same status,
// count and output area byte for byte, for every code-page selector, OEM
// and ANSI code pages, lengths and capacities chosen by the input, and every
// variant of the vector kernels the CPU has (one it lacks: the widest).
#include "fuzz_support.h"

const char* const kPages[] = {"437",   "850",  "866", "WINDOWS-1252", "WINDOWS-1251",
                              "CP932", "UTF-8", "ANSI_X3.4-1968"};
const UINT32 kSelectors[] = {0, 1, 2, 3, 4, 5, 6, 0xFFFFFFFFu};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    IKspl* k = FuzzInstance();
    FuzzReader in(data, size);
    char* oem = const_cast<char*>(kPages[in.Pick(8)]);
    char* ansi = const_cast<char*>(kPages[in.Pick(8)]);
    CodePageScope scope(oem, CheckCodePageEuroSupport(oem), ansi, CheckCodePageEuroSupport(ansi));
    const UINT32 sel = kSelectors[in.Pick(8)];
    struct Variant {
        explicit Variant(KsplConvIsa isa) {
            if (!KsplConvUseIsa(isa)) KsplConvUseIsa(KsplConvIsaBest());
        }
        ~Variant() { KsplConvUseIsa(KsplConvIsaBest()); }
    } variant(static_cast<KsplConvIsa>(in.Pick(4)));
    const uint8_t mode = in.U8();
    const long long cap = (mode & 0x80) != 0 ? in.U16() : in.U8() % 64;
    const std::string text = in.Take(size);
    std::vector<WCHAR> wide(text.size() / 2);
    if (!wide.empty()) std::memcpy(wide.data(), text.data(), 2 * wide.size());

    if ((mode & 1) != 0) {  // the character routines, with any capacity
        char* page = (mode & 0x40) != 0 ? nullptr : oem;
        const BOOLEAN euro = (mode & 8) != 0;
        const int c = static_cast<int>(cap) - 8;
        FUZZ_CHECK(RoutineToWide(true, page, euro, text, c) ==
                       RoutineToWide(false, page, euro, text, c), "to 16-bit");
        FUZZ_CHECK(RoutineToNarrow(true, page, wide, c) == RoutineToNarrow(false, page, wide, c),
                   "to narrow");
        return 0;
    }
    // Lengths: -1, the count, the count with the terminator, or invalid.
    const int lengthMode = (mode >> 1) & 3;
    auto length = [&](size_t n) -> INT32 {
        const INT32 invalid = (mode & 8) != 0 ? 0 : -2;
        if (lengthMode == 0 || lengthMode == 3) return lengthMode == 0 ? -1 : invalid;
        return static_cast<INT32>(n) + lengthMode - 1;
    };
    const bool area = (mode & 0x30) != 0;
    const INT32 nl = length(text.size());
    const INT32 wl = length(wide.size());
    FUZZ_CHECK(ServiceToWide(true, k, sel, text, nl, cap, area) ==
                   ServiceToWide(false, k, sel, text, nl, cap, area), "KsoMultiByteToWideChar");
    FUZZ_CHECK(ServiceToNarrow(true, k, sel, wide, wl, cap, area) ==
                   ServiceToNarrow(false, k, sel, wide, wl, cap, area), "KsoWideCharToMultiByte");
    return 0;
}
