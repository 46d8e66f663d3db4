// convert_fuzz.cpp - the two conversion services of IKspl, and the
// exported character routines, against the per-character reference
// routines: same status, same count, same bytes in
// the whole output buffer, for every code-page selector, for OEM and ANSI
// code pages chosen from the input, and for capacities around the result.
// The reference's own length protocol is checked too: a length query, an
// exact fit, a larger buffer and a shorter one must agree with each other.
#include <algorithm>
#include <vector>

#include "convert_int.h"
#include "fuzz_support.h"
#include "kspl_exports.h"
#include "locale_int.h"

namespace {

// Single-byte pages of both families, a double-byte page, UTF-8 and ASCII.
const char* const kPages[] = {"437", "850", "866", "WINDOWS-1252", "WINDOWS-1251", "CP932",
                              "UTF-8", "ANSI_X3.4-1968"};
constexpr uint32_t kPageCount = sizeof kPages / sizeof kPages[0];
const UINT32 kSelectors[] = {0, 1, 2, 3, 4, 5, 6, 0xFFFFFFFFu};

struct PageChoice {
    char* name;
    BOOLEAN euro;
};

PageChoice Page(uint32_t i) {
    static PageChoice cache[kPageCount];
    static bool ready = false;
    if (!ready) {
        for (uint32_t p = 0; p < kPageCount; ++p) {
            cache[p].name = const_cast<char*>(kPages[p]);
            cache[p].euro = CheckCodePageEuroSupport(cache[p].name);
        }
        ready = true;
    }
    return cache[i];
}

constexpr UINT32 kPattern = 0xA5;
constexpr KSSTATUS kBufferSmall = KS_MAKE_STATUS(3, KSPL_FACILITY, KSPL_CODE_BUFFER_SMALL);

// One call of a conversion with a fresh output buffer of exactly `capacity`
// units (none when `nullOut`), pre-filled with a pattern.
template <typename Out>
struct Result {
    KSSTATUS status;
    UINT32 length;
    std::vector<Out> buffer;
};

template <typename In, typename Out, typename Fn>
Result<Out> Run(Fn fn, IKspl* k, UINT32 codePage, const std::vector<In>& input, INT32 inLength,
                bool nullIn, bool nullOut, UINT32 capacity) {
    Result<Out> r;
    // The input is copied so that the call sees exactly its own bytes and
    // any read past them is caught.
    std::vector<In> in(input);
    r.buffer.assign(nullOut ? 0 : capacity, static_cast<Out>(kPattern));
    r.length = capacity;
    Out* out = nullOut || capacity == 0 ? nullptr : r.buffer.data();
    r.status = fn(k, codePage, nullIn ? nullptr : in.data(), inLength, out, &r.length);
    return r;
}

template <typename Out>
void Same(const Result<Out>& a, const Result<Out>& b, const char* what) {
    FUZZ_CHECK(a.status == b.status, what);
    FUZZ_CHECK(a.length == b.length, what);
    FUZZ_CHECK(a.buffer == b.buffer, what);
}

// One exported character routine against its reference: the same result,
// count and output buffer (of exactly `capacity` units, pre-filled).
template <typename In, typename Out, typename Fn, typename... Lead>
void SameRoutine(Fn fast, Fn ref, std::vector<In> input, int count, int capacity,
                 const char* what, Lead... lead) {
    const size_t room = capacity > 0 ? static_cast<size_t>(capacity) : 0;
    std::vector<Out> a(room, static_cast<Out>(kPattern)), b(a);
    std::vector<In> inA(input), inB(input);
    int countA = capacity, countB = capacity;
    const int ra = fast(lead..., inA.data(), count, a.data(), &countA);
    const int rb = ref(lead..., inB.data(), count, b.data(), &countB);
    FUZZ_CHECK(ra == rb, what);
    FUZZ_CHECK(countA == countB, what);
    FUZZ_CHECK(a == b, what);
    FUZZ_CHECK(inA == input, "the input is left alone");
    if (rb == 0) FUZZ_CHECK(countB >= 0 && countB <= std::max(capacity, 0), "count within the capacity");
}

void CharacterRoutines(FuzzReader& in, const PageChoice& page) {
    const uint8_t which = in.U8();
    const int capacity = (which & 0x80) != 0 ? static_cast<int>(in.U8()) - 8 : static_cast<int>(in.U8() % 48);
    const std::string payload = in.Rest();
    if ((which & 2) == 0) {
        std::vector<char> text(payload.begin(), payload.end());
        const int count = static_cast<int>(text.size());
        if ((which & 1) == 0)
            SameRoutine<char, WCHAR>(LocToUni, KsplRefLocToUni, text, count, capacity, "LocToUni",
                                     page.name, page.euro);
        else
            SameRoutine<char, WCHAR>(Utf8ToUni, KsplRefUtf8ToUni, text, count, capacity, "Utf8ToUni");
        if (!text.empty()) FUZZ_CHECK(Utf8SeqLen(text[0]) == KsplRefUtf8SeqLen(text[0]), "Utf8SeqLen");
    } else {
        std::vector<WCHAR> text(payload.size() / 2);
        if (!text.empty()) std::memcpy(text.data(), payload.data(), text.size() * 2);
        const int count = static_cast<int>(text.size());
        if ((which & 1) == 0)
            SameRoutine<WCHAR, char>(UniToLoc, KsplRefUniToLoc, text, count, capacity, "UniToLoc", page.name);
        else
            SameRoutine<WCHAR, char>(UniToUtf8, KsplRefUniToUtf8, text, count, capacity, "UniToUtf8");
    }
}

// The protocol around one successful length query of the reference.
template <typename In, typename Out, typename Fn>
void CheckProtocol(Fn ref, IKspl* k, UINT32 codePage, const std::vector<In>& input,
                   INT32 inLength, UINT32 queried) {
    FUZZ_CHECK(queried >= 1, "a length query counts the terminator");
    const UINT32 n = queried - 1;
    if (n > 4096) return;
    auto roomy = Run<In, Out>(ref, k, codePage, input, inLength, false, false, n + 1);
    FUZZ_CHECK(roomy.status == 0, "room for result and terminator");
    FUZZ_CHECK(roomy.length == n, "count without the terminator");
    FUZZ_CHECK(roomy.buffer[n] == 0, "terminator after the result");
    if (n == 0) return;
    auto exact = Run<In, Out>(ref, k, codePage, input, inLength, false, false, n);
    FUZZ_CHECK(exact.status == 0, "exact fit");
    FUZZ_CHECK(exact.length == n, "exact fit count");
    FUZZ_CHECK(std::equal(exact.buffer.begin(), exact.buffer.end(), roomy.buffer.begin()),
               "exact fit holds the same result");
    auto shortBy1 = Run<In, Out>(ref, k, codePage, input, inLength, false, false, n - 1);
    if (n - 1 == 0) {
        // Capacity 0 is a length query again.
        FUZZ_CHECK(shortBy1.status == 0 && shortBy1.length == queried, "query by zero capacity");
        return;
    }
    FUZZ_CHECK(shortBy1.status == kBufferSmall, "one unit short");
    FUZZ_CHECK(shortBy1.length == n - 1, "truncated count");
    FUZZ_CHECK(std::equal(shortBy1.buffer.begin(), shortBy1.buffer.end(), roomy.buffer.begin()),
               "truncated copy is a prefix");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    IKspl* k = FuzzInstance();
    PageScope scope;
    FuzzReader in(data, size);
    const PageChoice oem = Page(in.Pick(kPageCount));
    const PageChoice ansi = Page(in.Pick(kPageCount));
    g_pOemCodePage = oem.name;
    g_oemCodePageSupportsEuro = oem.euro;
    g_pAnsiCodePage = ansi.name;
    g_ansiCodePageSupportsEuro = ansi.euro;

    // One input in eight drives the exported character routines directly.
    const uint8_t target = in.U8();
    if (target % 8 == 0) {
        CharacterRoutines(in, (target & 0x10) != 0 ? ansi : oem);
        return 0;
    }
    const UINT32 codePage = kSelectors[in.Pick(sizeof kSelectors / sizeof kSelectors[0])];
    const uint8_t mode = in.U8();
    const bool toWide = (mode & 1) != 0;
    const uint32_t lengthMode = (mode >> 1) % 4;  // NUL-terminated, counted, counted with NUL, odd
    const bool nullOut = ((mode >> 3) & 3) == 0;
    const bool nullIn = (mode >> 5) == 0 && lengthMode == 3;
    const UINT32 capacity = (mode & 0x80) != 0 ? in.U16() : in.U8() % 64;
    const std::string payload = in.Rest();

    const IKsplVtbl* v = k->lpVtbl;
    if (toWide) {
        std::vector<CHAR> text(payload.begin(), payload.end());
        INT32 inLength;
        switch (lengthMode) {
            case 0:
                text.push_back('\0');
                inLength = -1;
                break;
            case 1:
                inLength = static_cast<INT32>(text.size());
                break;
            case 2:
                text.push_back('\0');
                inLength = static_cast<INT32>(text.size());
                break;
            default:
                inLength = text.empty() ? -2 : 0;
                break;
        }
        auto a = Run<CHAR, WCHAR>(v->KsoMultiByteToWideChar, k, codePage, text, inLength, nullIn,
                                  nullOut, capacity);
        auto b = Run<CHAR, WCHAR>(KsplRefMultiByteToWideChar, k, codePage, text, inLength,
                                  nullIn, nullOut, capacity);
        Same(a, b, "KsoMultiByteToWideChar");
        if (b.status == 0 && (nullOut || capacity == 0))
            CheckProtocol<CHAR, WCHAR>(KsplRefMultiByteToWideChar, k, codePage, text, inLength,
                                       b.length);
    } else {
        std::vector<WCHAR> text(payload.size() / 2);
        if (!text.empty()) std::memcpy(text.data(), payload.data(), text.size() * 2);
        INT32 inLength;
        switch (lengthMode) {
            case 0:
                text.push_back(0);
                inLength = -1;
                break;
            case 1:
                inLength = static_cast<INT32>(text.size());
                break;
            case 2:
                text.push_back(0);
                inLength = static_cast<INT32>(text.size());
                break;
            default:
                inLength = text.empty() ? -2 : 0;
                break;
        }
        auto a = Run<WCHAR, CHAR>(v->KsoWideCharToMultiByte, k, codePage, text, inLength, nullIn,
                                  nullOut, capacity);
        auto b = Run<WCHAR, CHAR>(KsplRefWideCharToMultiByte, k, codePage, text, inLength,
                                  nullIn, nullOut, capacity);
        Same(a, b, "KsoWideCharToMultiByte");
        if (b.status == 0 && (nullOut || capacity == 0))
            CheckProtocol<WCHAR, CHAR>(KsplRefWideCharToMultiByte, k, codePage, text, inLength,
                                       b.length);
    }
    return 0;
}
