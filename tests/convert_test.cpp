// Conversions between 16-bit units and the narrow encodings: the length
// protocol of the services, work buffers, escapes, the euro rules, path
// separators, UTF-8 and the list conversions. Every service test runs over
// the IKspl slots and over the reference routines, which must agree.
#include <syslog.h>

#include <atomic>
#include <clocale>
#include <cstring>
#include <string>
#include <thread>

#include "conv_test_util.h"
#include "convert_int.h"
#include "kspl_test.h"
#include "locale_int.h"

namespace {

using ToWideFn = KSSTATUS (*)(IKspl*, UINT32, PCHAR, INT32, PWCHAR, PUINT32);
using ToNarrowFn = KSSTATUS (*)(IKspl*, UINT32, PWCHAR, INT32, PCHAR, PUINT32);

struct ServiceSet {
    const char* name;
    ToWideFn toWide;
    ToNarrowFn toNarrow;
};
const ServiceSet kServiceSets[] = {
    {"slots", KsoMultiByteToWideChar, KsoWideCharToMultiByte},
    {"reference", KsplRefMultiByteToWideChar, KsplRefWideCharToMultiByte},
};

const KsplConvRoutines kExportedRoutines = {LocToUni, Utf8ToUni, UniToLoc, UniToUtf8};
const KsplConvRoutines* const kRoutineSets[] = {&kExportedRoutines, &kKsplRefConvRoutines};

constexpr WCHAR kSentinelUnit = 0x5A5A;
constexpr char kSentinelByte = 'Z';

// Converts with a buffer of exactly the queried size.
struct WideOut {
    KSSTATUS status;
    std::u16string text;
};
WideOut ToWide(const ServiceSet& s, IKspl* k, UINT32 cp, const std::string& in) {
    UINT32 len = 0;
    KSSTATUS st = s.toWide(k, cp, const_cast<char*>(in.data()), static_cast<INT32>(in.size()),
                           nullptr, &len);
    if (st != 0) return {st, {}};
    std::vector<WCHAR> buf(len, kSentinelUnit);
    st = s.toWide(k, cp, const_cast<char*>(in.data()), static_cast<INT32>(in.size()), buf.data(),
                  &len);
    if (st != 0) return {st, {}};
    EXPECT_EQ(buf[len], 0) << "terminator after the converted text";
    return {st, AsU16(buf.data(), len)};
}

struct NarrowOut {
    KSSTATUS status;
    std::string text;
};
NarrowOut ToNarrow(const ServiceSet& s, IKspl* k, UINT32 cp, std::u16string_view in) {
    std::vector<WCHAR> src = Wide(in);
    UINT32 len = 0;
    KSSTATUS st = s.toNarrow(k, cp, src.data(), static_cast<INT32>(in.size()), nullptr, &len);
    if (st != 0) return {st, {}};
    std::vector<char> buf(len, kSentinelByte);
    st = s.toNarrow(k, cp, src.data(), static_cast<INT32>(in.size()), buf.data(), &len);
    if (st != 0) return {st, {}};
    EXPECT_EQ(buf[len], '\0') << "terminator after the converted text";
    return {st, std::string(buf.data(), len)};
}

class ConvertTest : public KsplTest {};

// The length protocol, narrow to wide: query, capacity above, equal to and
// below the result, explicit lengths with and without the NUL.
TEST_F(ConvertTest, NarrowToWideLengthProtocol) {
    CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
    char abc[] = "abc";
    for (const ServiceSet& s : kServiceSets) {
        SCOPED_TRACE(s.name);
        StatusCapture built;
        UINT32 len = 0;
        EXPECT_EQ(s.toWide(k, 1, abc, -1, nullptr, &len), 0u);
        EXPECT_EQ(len, 4u) << "a query reports the units and the terminator";

        // A zero capacity with a buffer is a query too: nothing is written.
        WCHAR out[8];
        std::fill(std::begin(out), std::end(out), kSentinelUnit);
        len = 0;
        EXPECT_EQ(s.toWide(k, 1, abc, -1, out, &len), 0u);
        EXPECT_EQ(len, 4u);
        EXPECT_EQ(out[0], kSentinelUnit);

        for (UINT32 capacity : {8u, 4u}) {
            std::fill(std::begin(out), std::end(out), kSentinelUnit);
            len = capacity;
            EXPECT_EQ(s.toWide(k, 1, abc, -1, out, &len), 0u);
            EXPECT_EQ(len, 3u);
            EXPECT_EQ(AsU16(out, 4), std::u16string(u"abc\0", 4)) << "capacity " << capacity;
            EXPECT_EQ(out[4], kSentinelUnit);
        }

        std::fill(std::begin(out), std::end(out), kSentinelUnit);
        len = 3;
        EXPECT_EQ(s.toWide(k, 1, abc, -1, out, &len), 0u) << "an exact fit is no failure";
        EXPECT_EQ(len, 3u);
        EXPECT_EQ(AsU16(out, 3), u"abc");
        EXPECT_EQ(out[3], kSentinelUnit) << "an exact fit gets no terminator";

        std::fill(std::begin(out), std::end(out), kSentinelUnit);
        len = 2;
        built.Clear();
        EXPECT_EQ(s.toWide(k, 1, abc, -1, out, &len), KsplErr(7));
        EXPECT_TRUE(built.WasBuilt(KsplErr(7), "KsoMultiByteToWideChar"));
        EXPECT_EQ(len, 2u);
        EXPECT_EQ(AsU16(out, 2), u"ab");
        EXPECT_EQ(out[2], kSentinelUnit);

        // Without a buffer but with a capacity below the result.
        len = 2;
        EXPECT_EQ(s.toWide(k, 1, abc, -1, nullptr, &len), KsplErr(7));
        EXPECT_EQ(len, 3u);
        len = 3;
        EXPECT_EQ(s.toWide(k, 1, abc, -1, nullptr, &len), 0u);
        EXPECT_EQ(len, 4u);

        // An explicit length that includes the NUL counts as the text alone.
        for (INT32 explicitLen : {3, 4}) {
            std::fill(std::begin(out), std::end(out), kSentinelUnit);
            len = 3;
            EXPECT_EQ(s.toWide(k, 1, abc, explicitLen, out, &len), 0u);
            EXPECT_EQ(len, 3u) << "length " << explicitLen;
            EXPECT_EQ(out[3], kSentinelUnit);
        }
        len = 8;
        EXPECT_EQ(s.toWide(k, 1, abc, 2, out, &len), 0u);
        EXPECT_EQ(AsU16(out, 3), std::u16string(u"ab\0", 3));

        // A string that is only its NUL converts to an empty text.
        char nul[] = "";
        len = 4;
        out[0] = kSentinelUnit;
        EXPECT_EQ(s.toWide(k, 1, nul, 1, out, &len), 0u);
        EXPECT_EQ(len, 0u);
        EXPECT_EQ(out[0], 0);
    }
}

TEST_F(ConvertTest, WideToNarrowLengthProtocol) {
    CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
    std::vector<WCHAR> abc = Wide(u"abc");
    for (const ServiceSet& s : kServiceSets) {
        SCOPED_TRACE(s.name);
        UINT32 len = 0;
        EXPECT_EQ(s.toNarrow(k, 2, abc.data(), -1, nullptr, &len), 0u);
        EXPECT_EQ(len, 4u);

        // 36 bytes is the worst case for three units: written in place;
        // below it the result goes through a work buffer. Both agree.
        char out[40];
        for (UINT32 capacity : {40u, 36u, 10u, 4u}) {
            std::memset(out, kSentinelByte, sizeof(out));
            len = capacity;
            EXPECT_EQ(s.toNarrow(k, 2, abc.data(), -1, out, &len), 0u);
            EXPECT_EQ(len, 3u);
            EXPECT_EQ(std::string(out, 5), std::string("abc\0Z", 5)) << "capacity " << capacity;
        }

        std::memset(out, kSentinelByte, sizeof(out));
        len = 3;
        EXPECT_EQ(s.toNarrow(k, 2, abc.data(), -1, out, &len), 0u);
        EXPECT_EQ(std::string(out, 4), "abcZ");

        std::memset(out, kSentinelByte, sizeof(out));
        len = 2;
        StatusCapture built;
        EXPECT_EQ(s.toNarrow(k, 2, abc.data(), -1, out, &len), KsplErr(7));
        EXPECT_TRUE(built.WasBuilt(KsplErr(7), "KsoWideCharToMultiByte"));
        EXPECT_EQ(len, 2u);
        EXPECT_EQ(std::string(out, 3), "abZ");

        for (INT32 explicitLen : {3, 4}) {
            len = 40;
            EXPECT_EQ(s.toNarrow(k, 2, abc.data(), explicitLen, out, &len), 0u);
            EXPECT_EQ(len, 3u) << "length " << explicitLen;
        }

        // A truncating copy may cut an escape: the bytes are the first c.
        std::vector<WCHAR> han = Wide(u"a\u4E2D");
        std::memset(out, kSentinelByte, sizeof(out));
        len = 4;
        EXPECT_EQ(s.toNarrow(k, 2, han.data(), -1, out, &len), KsplErr(7));
        EXPECT_EQ(len, 4u);
        EXPECT_EQ(std::string(out, 5), "a[4EZ");
    }
}

TEST_F(ConvertTest, ArgumentChecks) {
    CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
    char text[] = "x";
    std::vector<WCHAR> wide = Wide(u"x");
    WCHAR wout[4];
    char nout[16];
    for (const ServiceSet& s : kServiceSets) {
        SCOPED_TRACE(s.name);
        StatusCapture built;
        UINT32 len = 4;
        EXPECT_EQ(s.toWide(k, 1, nullptr, -1, wout, &len), KsplErr(4));
        EXPECT_EQ(s.toWide(k, 1, text, 0, wout, &len), KsplErr(4));
        EXPECT_EQ(s.toWide(k, 1, text, -2, wout, &len), KsplErr(4));
        EXPECT_EQ(s.toWide(k, 1, text, -1, wout, nullptr), KsplErr(4));
        for (UINT32 badPage : {0u, 6u, 0xFFFFFFFFu}) {
            len = 4;
            EXPECT_EQ(s.toWide(k, badPage, text, -1, wout, &len), KsplErr(4)) << badPage;
            EXPECT_EQ(len, 4u);
        }
        EXPECT_TRUE(built.WasBuilt(KsplErr(4), "KsoMultiByteToWideChar"));
        built.Clear();
        len = 16;
        EXPECT_EQ(s.toNarrow(k, 1, nullptr, -1, nout, &len), KsplErr(4));
        EXPECT_EQ(s.toNarrow(k, 1, wide.data(), 0, nout, &len), KsplErr(4));
        EXPECT_EQ(s.toNarrow(k, 1, wide.data(), -7, nout, &len), KsplErr(4));
        EXPECT_EQ(s.toNarrow(k, 1, wide.data(), -1, nout, nullptr), KsplErr(4));
        EXPECT_EQ(s.toNarrow(k, 0, wide.data(), -1, nout, &len), KsplErr(4));
        EXPECT_EQ(s.toNarrow(k, 6, wide.data(), -1, nout, &len), KsplErr(4));
        EXPECT_EQ(len, 16u);
        EXPECT_TRUE(built.WasBuilt(KsplErr(4), "KsoWideCharToMultiByte"));
        for (UINT32 page = 1; page <= 5; ++page) {
            len = 16;
            EXPECT_EQ(s.toNarrow(k, page, wide.data(), -1, nout, &len), 0u) << page;
        }
    }
}

// Work buffers: up to 512 bytes on the stack, above that paged memory of
// the calling instance, always released. The thresholds are 255 input
// bytes (2n + 2) and 42 input units (12n).
TEST_F(ConvertTest, WorkBuffersAtTheStackThreshold) {
    CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
    KsplObjInfo* info = KsplInfo(k);
    for (const ServiceSet& s : kServiceSets) {
        SCOPED_TRACE(s.name);
        struct NarrowCase {
            size_t bytes;
            UINT32 pagedBytes;
        };
        for (NarrowCase c : {NarrowCase{255, 0}, NarrowCase{256, 514}, NarrowCase{300, 602}}) {
            std::string in(c.bytes, 'q');
            UINT32 totalBefore = KsAtomicLoad(&info->MemoryPagedTotalAllocated);
            UINT32 inUseBefore = KsAtomicLoad(&info->MemoryPagedInUse);
            UINT32 len = 0;
            EXPECT_EQ(s.toWide(k, 1, in.data(), static_cast<INT32>(in.size()), nullptr, &len), 0u);
            EXPECT_EQ(len, c.bytes + 1);
            EXPECT_EQ(KsAtomicLoad(&info->MemoryPagedTotalAllocated) - totalBefore, c.pagedBytes)
                << c.bytes << " bytes";
            EXPECT_EQ(KsAtomicLoad(&info->MemoryPagedInUse), inUseBefore);

            // Truncating through a paged buffer releases it as well.
            std::vector<WCHAR> out(10, kSentinelUnit);
            len = 10;
            EXPECT_EQ(s.toWide(k, 1, in.data(), static_cast<INT32>(in.size()), out.data(), &len),
                      KsplErr(7));
            EXPECT_EQ(KsAtomicLoad(&info->MemoryPagedInUse), inUseBefore);

            // A buffer large enough for the worst case is written in place.
            totalBefore = KsAtomicLoad(&info->MemoryPagedTotalAllocated);
            out.assign(c.bytes + 1, kSentinelUnit);
            len = static_cast<UINT32>(c.bytes + 1);
            EXPECT_EQ(s.toWide(k, 1, in.data(), static_cast<INT32>(in.size()), out.data(), &len),
                      0u);
            EXPECT_EQ(len, c.bytes);
            EXPECT_EQ(out[c.bytes], 0);
            EXPECT_EQ(KsAtomicLoad(&info->MemoryPagedTotalAllocated), totalBefore);
        }
        struct WideCase {
            size_t units;
            UINT32 pagedBytes;
        };
        for (WideCase c : {WideCase{42, 0}, WideCase{43, 516}}) {
            std::vector<WCHAR> in(c.units, u'q');
            in.push_back(0);
            UINT32 totalBefore = KsAtomicLoad(&info->MemoryPagedTotalAllocated);
            UINT32 inUseBefore = KsAtomicLoad(&info->MemoryPagedInUse);
            UINT32 len = 0;
            EXPECT_EQ(s.toNarrow(k, 2, in.data(), -1, nullptr, &len), 0u);
            EXPECT_EQ(len, c.units + 1);
            EXPECT_EQ(KsAtomicLoad(&info->MemoryPagedTotalAllocated) - totalBefore, c.pagedBytes)
                << c.units << " units";
            EXPECT_EQ(KsAtomicLoad(&info->MemoryPagedInUse), inUseBefore);
        }

        // Failures after the allocation release it too.
        UINT32 inUseBefore = KsAtomicLoad(&info->MemoryPagedInUse);
        UINT32 totalBefore = KsAtomicLoad(&info->MemoryPagedTotalAllocated);
        std::string big(300, 'q');
        UINT32 len = 0;
        EXPECT_EQ(s.toWide(k, 6, big.data(), -1, nullptr, &len), KsplErr(4));
        big[150] = static_cast<char>(0x80);
        len = 0;
        EXPECT_EQ(s.toWide(k, 3, big.data(), -1, nullptr, &len), KsplErr(1));
        EXPECT_EQ(KsAtomicLoad(&info->MemoryPagedTotalAllocated) - totalBefore, 2u * 602u);
        EXPECT_EQ(KsAtomicLoad(&info->MemoryPagedInUse), inUseBefore);

        // Paged memory comes from the calling instance: without a valid one
        // a large conversion runs out of memory, a small one does not care.
        StatusCapture built;
        len = 0;
        EXPECT_EQ(s.toWide(nullptr, 1, big.data(), 256, nullptr, &len), KsplErr(5));
        EXPECT_TRUE(built.WasBuilt(KsplErr(5), "KsoMultiByteToWideChar"));
        std::string small(255, 'q');
        len = 0;
        EXPECT_EQ(s.toWide(nullptr, 1, small.data(), 255, nullptr, &len), 0u);
        std::vector<WCHAR> wide(43, u'q');
        wide.push_back(0);
        len = 0;
        EXPECT_EQ(s.toNarrow(nullptr, 1, wide.data(), 43, nullptr, &len), KsplErr(5));
        EXPECT_EQ(s.toNarrow(nullptr, 1, wide.data(), 42, nullptr, &len), 0u);
    }
}

// Characters outside the code page become "[XXXX]" and come back.
TEST_F(ConvertTest, EscapesRoundTrip) {
    CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
    for (const ServiceSet& s : kServiceSets) {
        SCOPED_TRACE(s.name);
        NarrowOut n = ToNarrow(s, k, 1, u"x\u4E2Dy\u00E9\u0001z");
        EXPECT_EQ(n.status, 0u);
        EXPECT_EQ(n.text, "x[4E2D]y[00E9]\x01z");
        WideOut w = ToWide(s, k, 1, n.text);
        EXPECT_EQ(w.status, 0u);
        EXPECT_EQ(w.text, u"x\u4E2Dy\u00E9\u0001z");

        EXPECT_EQ(ToNarrow(s, k, 1, u"\u4E2D").text.size(), 6u);
        EXPECT_EQ(ToWide(s, k, 1, "[4e2d]").text, u"\u4E2D");
        EXPECT_EQ(ToWide(s, k, 1, "[4E2D]").text, u"\u4E2D");
        EXPECT_EQ(ToWide(s, k, 1, "[fFfF][0000]").text, std::u16string(u"\uFFFF\0", 2));
        // Brackets that do not close five bytes later are text.
        EXPECT_EQ(ToWide(s, k, 1, "[abc]").text, u"[abc]");
        EXPECT_EQ(ToWide(s, k, 1, "a[12").text, u"a[12");
        EXPECT_EQ(ToWide(s, k, 1, "[[4E2D]").text, u"[\u4E2D");
        EXPECT_EQ(ToWide(s, k, 1, "[4E2D").text, u"[4E2D");
        // A literal '[' survives a round trip unless it looks like an escape.
        EXPECT_EQ(ToNarrow(s, k, 1, u"[ab]").text, "[ab]");
        // Surrogate units cannot be converted to a code page: escaped.
        EXPECT_EQ(ToNarrow(s, k, 1, u"\xD800").text, "[D800]");
    }
}

TEST_F(ConvertTest, EuroRules) {
    for (const ServiceSet& s : kServiceSets) {
        SCOPED_TRACE(s.name);
        {
            CodePageScope cp("WINDOWS-1252", TRUE, "ANSI_X3.4-1968", FALSE);
            // Without the euro sign: U+20AC <-> 0xCC.
            EXPECT_EQ(ToNarrow(s, k, 1, u"\u20AC").text, "\xCC");
            EXPECT_EQ(ToWide(s, k, 1, "\xCC").text, u"\u20AC");
            EXPECT_EQ(ToWide(s, k, 4, "a\xCC").text, u"a\u20AC");
            // With it: the code page's own byte, and 0xCC is its letter.
            EXPECT_EQ(ToNarrow(s, k, 2, u"\u20AC").text, "\x80");
            EXPECT_EQ(ToWide(s, k, 2, "\xCC").text, u"\u00CC");
            EXPECT_EQ(ToWide(s, k, 5, "\x80").text, u"\u20AC");
        }
        {
            // ISO-8859-1 has no euro sign but a letter at 0xCC: the letter
            // goes out as 0xCC and comes back as the euro sign.
            CodePageScope cp("ISO-8859-1", FALSE, "ISO-8859-1", FALSE);
            EXPECT_EQ(ToNarrow(s, k, 2, u"\u00CC").text, "\xCC");
            EXPECT_EQ(ToNarrow(s, k, 2, u"\u20AC").text, "\xCC");
            EXPECT_EQ(ToWide(s, k, 2, "\xCC").text, u"\u20AC");
            EXPECT_EQ(ToWide(s, k, 2, "\xCD").text, u"\u00CD");
        }
    }
}

// ':' '\' '/' map to themselves in every code page, even where iconv
// would move them (EBCDIC puts ':' at 0x7A).
TEST_F(ConvertTest, PathSeparatorsInEveryCodePage) {
    for (const ServiceSet& s : kServiceSets) {
        SCOPED_TRACE(s.name);
        {
            CodePageScope cp("IBM037", FALSE, "IBM037", FALSE);
            EXPECT_EQ(ToNarrow(s, k, 2, u"a:b\\c/d").text, "\x81:\x82\\\x83/\x84");
            EXPECT_EQ(ToWide(s, k, 1, "\x81:\x82\\\x83/\x84").text, u"a:b\\c/d");
        }
        for (const char* page : {"ANSI_X3.4-1968", "WINDOWS-1252", "ISO-8859-1", "CP437", "866",
                                 "UTF-8", "SHIFT_JIS"}) {
            SCOPED_TRACE(page);
            CodePageScope cp(page, FALSE, page, FALSE);
            for (UINT32 sel = 1; sel <= 5; ++sel) {
                NarrowOut n = ToNarrow(s, k, sel, u"a:b\\c/d");
                EXPECT_EQ(n.status, 0u);
                EXPECT_EQ(n.text, "a:b\\c/d") << "selector " << sel;
                EXPECT_EQ(ToWide(s, k, sel, "a:b\\c/d").text, u"a:b\\c/d") << "selector " << sel;
            }
        }
    }
}

// A code page with multi-byte characters: UTF-8 as the OEM code page.
TEST_F(ConvertTest, MultiByteCharactersOfACodePage) {
    CodePageScope cp("UTF-8", TRUE, "ANSI_X3.4-1968", FALSE);
    for (const ServiceSet& s : kServiceSets) {
        SCOPED_TRACE(s.name);
        EXPECT_EQ(ToNarrow(s, k, 2, u"\u4E2D").text, "\xE4\xB8\xAD");
        EXPECT_EQ(ToNarrow(s, k, 2, u"\u4E2Da\u00E9").text, "\xE4\xB8\xAD" "a\xC3\xA9");
        // The first character is the one after the byte-order mark, whatever
        // its length.
        EXPECT_EQ(ToWide(s, k, 2, "\xE4\xB8\xAD" "a\xC3\xA9\xE2\x82\xAC").text, u"\u4E2Da\u00E9\u20AC");
        EXPECT_EQ(ToWide(s, k, 5, "a\xE4\xB8\xAD").text, u"a\u4E2D");
        // A sequence that no three bytes complete fails the conversion.
        StatusCapture built;
        EXPECT_EQ(ToWide(s, k, 2, "\xF0\x9F\x98\x80").status, KsplErr(1));
        EXPECT_TRUE(built.WasBuilt(KsplErr(1), "KsoMultiByteToWideChar"));
        EXPECT_EQ(ToWide(s, k, 2, "a\xE4\xB8").status, KsplErr(1));
        // A character that UCS-2 cannot hold is escaped on the way out.
        EXPECT_EQ(ToNarrow(s, k, 1, u"\u4E2D").text, "[4E2D]");
    }
}

TEST_F(ConvertTest, Utf8Selector) {
    CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
    for (const ServiceSet& s : kServiceSets) {
        SCOPED_TRACE(s.name);
        NarrowOut n = ToNarrow(s, k, 3, u"a\u00E9\u4E2D\u20AC");
        EXPECT_EQ(n.status, 0u);
        EXPECT_EQ(n.text, "a\xC3\xA9\xE4\xB8\xAD\xE2\x82\xAC");
        EXPECT_EQ(ToWide(s, k, 3, n.text).text, u"a\u00E9\u4E2D\u20AC");
        // No escapes on the UTF-8 side: '[' and 0xCC are ordinary.
        EXPECT_EQ(ToWide(s, k, 3, "[4E2D]").text, u"[4E2D]");

        StatusCapture built;
        EXPECT_EQ(ToWide(s, k, 3, "\x80" "abc").status, KsplErr(1)) << "stray continuation byte";
        EXPECT_EQ(ToWide(s, k, 3, "ab\xBF").status, KsplErr(1));
        EXPECT_EQ(ToWide(s, k, 3, "\xF0\x9F\x98\x80").status, KsplErr(1)) << "four-byte sequence";
        EXPECT_EQ(ToWide(s, k, 3, "ab\xE4\xB8").status, KsplErr(1)) << "truncated sequence";
        EXPECT_EQ(ToWide(s, k, 3, "\xC3(").status, KsplErr(1)) << "bad continuation";
        EXPECT_EQ(ToWide(s, k, 3, "\xFF").status, KsplErr(1));
        EXPECT_EQ(ToNarrow(s, k, 3, u"a\xDC00").status, KsplErr(1)) << "surrogate to UTF-8";
        EXPECT_TRUE(built.WasBuilt(KsplErr(1), "KsoMultiByteToWideChar"));
        EXPECT_TRUE(built.WasBuilt(KsplErr(1), "KsoWideCharToMultiByte"));
    }
}

TEST_F(ConvertTest, Utf8SequenceLengths) {
    struct Case {
        unsigned byte;
        int length;
    };
    for (Case c : {Case{0x00, 1}, Case{0x7F, 1}, Case{0x80, 1}, Case{0xBF, 1}, Case{0xC0, 2},
                   Case{0xDF, 2}, Case{0xE0, 3}, Case{0xEF, 3}, Case{0xF0, 4}, Case{0xF7, 4},
                   Case{0xF8, 5}, Case{0xFB, 5}, Case{0xFC, 6}, Case{0xFD, 6}, Case{0xFE, 7},
                   Case{0xFF, 7}}) {
        EXPECT_EQ(Utf8SeqLen(static_cast<char>(c.byte)), c.length) << std::hex << c.byte;
        EXPECT_EQ(KsplRefUtf8SeqLen(static_cast<char>(c.byte)), c.length) << std::hex << c.byte;
    }
}

// The character routines' own contract: capacities, failures that report
// nothing produced, zero input, descriptor failures.
TEST_F(ConvertTest, CharacterRoutineCapacities) {
    char ascii[] = "ANSI_X3.4-1968";
    char bogus[] = "NO-SUCH-CODE-PAGE";
    for (const KsplConvRoutines* r : kRoutineSets) {
        SCOPED_TRACE(r == &kKsplRefConvRoutines ? "reference" : "exported");
        WCHAR wout[8];
        char nout[16];
        char abc[] = "abc";
        std::vector<WCHAR> wabc = Wide(u"abc");

        int n = 3;
        EXPECT_EQ(r->locToUni(ascii, FALSE, abc, 3, wout, &n), 0);
        EXPECT_EQ(n, 3);
        n = 2;
        EXPECT_EQ(r->locToUni(ascii, FALSE, abc, 3, wout, &n), -1);
        EXPECT_EQ(n, 0);
        n = 0;
        EXPECT_EQ(r->locToUni(ascii, FALSE, abc, 3, wout, &n), -1);
        n = 0;
        EXPECT_EQ(r->locToUni(ascii, FALSE, abc, 0, wout, &n), 0);
        EXPECT_EQ(n, 0);
        n = 3;
        EXPECT_EQ(r->utf8ToUni(abc, 3, wout, &n), 0);
        EXPECT_EQ(n, 3);
        n = 2;
        EXPECT_EQ(r->utf8ToUni(abc, 3, wout, &n), -1);
        EXPECT_EQ(n, 0);
        // Never reads past the count: a sequence cut by the count fails.
        char cut[] = "\xC3\xA9";
        n = 4;
        EXPECT_EQ(r->utf8ToUni(cut, 1, wout, &n), -1);

        // The UTF-8 writer keeps one byte of its capacity free.
        n = 3;
        EXPECT_EQ(r->uniToUtf8(wabc.data(), 3, nout, &n), -1);
        EXPECT_EQ(n, 0);
        n = 4;
        EXPECT_EQ(r->uniToUtf8(wabc.data(), 3, nout, &n), 0);
        EXPECT_EQ(n, 3);

        // An escape needs six free bytes.
        std::vector<WCHAR> han = Wide(u"\u4E2D");
        n = 5;
        EXPECT_EQ(r->uniToLoc(ascii, han.data(), 1, nout, &n), -1);
        EXPECT_EQ(n, 0);
        n = 6;
        EXPECT_EQ(r->uniToLoc(ascii, han.data(), 1, nout, &n), 0);
        EXPECT_EQ(std::string(nout, static_cast<size_t>(n)), "[4E2D]");
        n = 3;
        EXPECT_EQ(r->uniToLoc(ascii, wabc.data(), 3, nout, &n), 0);
        EXPECT_EQ(n, 3);
        n = 2;
        EXPECT_EQ(r->uniToLoc(ascii, wabc.data(), 3, nout, &n), -1);
        EXPECT_EQ(n, 0);
        // A byte-order mark at the very start yields no byte of its own.
        std::vector<WCHAR> marked = Wide(u"\uFEFFab");
        n = 8;
        EXPECT_EQ(r->uniToLoc(ascii, marked.data(), 3, nout, &n), 0);
        EXPECT_EQ(std::string(nout, static_cast<size_t>(n)), "ab");

        // A descriptor that cannot be opened: logged, -1 unless there is
        // nothing to convert.
        LogCapture log;
        n = 8;
        EXPECT_EQ(r->locToUni(bogus, FALSE, abc, 3, wout, &n), -1);
        n = 8;
        EXPECT_EQ(r->locToUni(bogus, FALSE, abc, 0, wout, &n), 0);
        EXPECT_EQ(n, 0);
        n = 8;
        EXPECT_EQ(r->uniToLoc(bogus, wabc.data(), 3, nout, &n), -1);
        n = 8;
        EXPECT_EQ(r->uniToLoc(bogus, wabc.data(), 0, nout, &n), 0);
        EXPECT_EQ(n, 0);
        EXPECT_EQ(log.Count("LocToUni: Unable to open conversion descriptor\n"), 2u);
        EXPECT_EQ(log.Count("UniToLoc: Unable to open conversion descriptor\n"), 2u);
        for (const auto& m : log.Messages()) EXPECT_EQ(m.first, LOG_USER | LOG_ERR) << m.second;
    }
}

TEST_F(ConvertTest, UnknownCodePageFailsTheService) {
    CodePageScope cp("NO-SUCH-CODE-PAGE", FALSE, "NO-SUCH-CODE-PAGE", FALSE);
    for (const ServiceSet& s : kServiceSets) {
        SCOPED_TRACE(s.name);
        StatusCapture built;
        EXPECT_EQ(ToWide(s, k, 1, "abc").status, KsplErr(1));
        EXPECT_EQ(ToNarrow(s, k, 2, u"abc").status, KsplErr(1));
        EXPECT_TRUE(built.WasBuilt(KsplErr(1), "KsoMultiByteToWideChar"));
        EXPECT_TRUE(built.WasBuilt(KsplErr(1), "KsoWideCharToMultiByte"));
        // UTF-8 does not depend on the code page names.
        EXPECT_EQ(ToWide(s, k, 3, "abc").text, u"abc");
    }
}

TEST_F(ConvertTest, CharUpperBuff) {
    std::vector<WCHAR> text = Wide(u"ab1-z{");
    EXPECT_EQ(v->KsoCharUpperBuff(k, 4, text.data()), 0u);
    EXPECT_EQ(AsU16(text.data(), 6), u"AB1-z{") << "exactly Length units are visited";
    EXPECT_EQ(v->KsoCharUpperBuff(k, 6, text.data()), 0u);
    EXPECT_EQ(AsU16(text.data(), 6), u"AB1-Z{");
    EXPECT_EQ(KsplRefCharUpperBuff(k, 6, text.data()), 0u);
    EXPECT_EQ(AsU16(text.data(), 6), u"AB1-Z{");

    StatusCapture built;
    EXPECT_EQ(v->KsoCharUpperBuff(k, 0, text.data()), KsplErr(4));
    EXPECT_EQ(v->KsoCharUpperBuff(k, 3, nullptr), KsplErr(4));
    EXPECT_TRUE(built.WasBuilt(KsplErr(4), "KsoCharUpperBuff"));
}

// Units above 255 are upper-cased with the wide classification of the
// process locale; the bytes 128..255 follow the byte classification, which
// in a UTF-8 locale calls none of them a letter.
TEST_F(ConvertTest, CharUpperBuffBeyondAscii) {
    locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (utf8 == nullptr) GTEST_SKIP() << "no C.UTF-8 locale";
    freelocale(utf8);
    EXPECT_EQ(KsplRunInChild([] {
                  setenv("LC_ALL", "C.UTF-8", 1);
                  UnInitCharConvInfrastructure();
                  ASSERT_EQ(InitCharConvInfrastructure(), 0);
                  std::vector<WCHAR> text = Wide(u"\u0430\u00E9\u03B1x\u4E2D");
                  EXPECT_EQ(KsoCharUpperBuff(nullptr, 5, text.data()), 0u);
                  EXPECT_EQ(AsU16(text.data(), 5), u"\u0410\u00E9\u0391X\u4E2D");
              }),
              0);
}

TEST_F(ConvertTest, WideListToNarrow) {
    CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
    std::vector<WCHAR> list = {u'a', u'b', 0, u'c', 0, 0};
    char out[16];
    UINT32 len = sizeof(out);
    std::memset(out, kSentinelByte, sizeof(out));
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 2, TRUE, list.data(), 0, out, &len), 0u);
    EXPECT_EQ(len, 6u);
    EXPECT_EQ(std::string(out, 7), std::string("ab\0c\0\0Z", 7));

    std::memset(out, kSentinelByte, sizeof(out));
    len = sizeof(out);
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 2, FALSE, list.data(), 0, out, &len), 0u);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(std::string(out, 4), std::string("ab\0Z", 4));

    // Room: six bytes hold the list exactly; five do not.
    len = 6;
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 2, TRUE, list.data(), 0, out, &len), 0u);
    EXPECT_EQ(len, 6u);
    StatusCapture built;
    for (UINT32 room : {5u, 3u, 2u, 1u, 0u}) {
        len = room;
        EXPECT_EQ(WideCharToMultiByteMultiple(k, 2, TRUE, list.data(), 0, out, &len), KsplErr(7))
            << room;
        EXPECT_EQ(len, room) << "unchanged on failure";
    }
    EXPECT_TRUE(built.WasBuilt(KsplErr(7), "WideCharToMultiByteMultiple"));
    // A single string keeps one byte free beyond its terminator.
    len = 4;
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 2, FALSE, list.data(), 0, out, &len), 0u);
    EXPECT_EQ(len, 3u);
    len = 3;
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 2, FALSE, list.data(), 0, out, &len), KsplErr(7));

    // Empty input: the list terminator alone, or nothing.
    std::vector<WCHAR> empty = {0, 0};
    len = 4;
    out[0] = kSentinelByte;
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 2, TRUE, empty.data(), 0, out, &len), 0u);
    EXPECT_EQ(len, 1u);
    EXPECT_EQ(out[0], '\0');
    len = 0;
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 2, TRUE, empty.data(), 0, out, &len), KsplErr(7));
    len = 4;
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 2, FALSE, empty.data(), 0, out, &len), 0u);
    EXPECT_EQ(len, 0u);

    // Escapes inside a list, and a failing string's status passed up.
    std::vector<WCHAR> han = {0x4E2D, 0, u'x', 0, 0};
    len = sizeof(out);
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 1, TRUE, han.data(), 0, out, &len), 0u);
    EXPECT_EQ(std::string(out, len), std::string("[4E2D]\0x\0\0", 10));
    std::vector<WCHAR> bad = {u'a', 0, 0xD800, 0, 0};
    len = sizeof(out);
    built.Clear();
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 3, TRUE, bad.data(), 0, out, &len), KsplErr(1));
    EXPECT_EQ(len, sizeof(out));
    EXPECT_TRUE(built.WasBuilt(KsplErr(1), "KsoWideCharToMultiByte"));
    EXPECT_EQ(WideCharToMultiByteMultiple(k, 9, TRUE, list.data(), 0, out, &len), KsplErr(4));
}

TEST_F(ConvertTest, NarrowListToWide) {
    CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
    char list[] = "ab\0[4E2D]\0";  // plus the literal's own NUL: the list end
    WCHAR out[16];
    UINT32 len = 16;
    std::fill(std::begin(out), std::end(out), kSentinelUnit);
    EXPECT_EQ(KsoMultiByteToWideCharMultiple(k, 2, TRUE, list, 0, out, &len), 0u);
    EXPECT_EQ(len, 6u);
    EXPECT_EQ(AsU16(out, 7), std::u16string(u"ab\0\u4E2D\0\0\x5A5A", 7));

    len = 16;
    EXPECT_EQ(KsoMultiByteToWideCharMultiple(k, 2, FALSE, list, 0, out, &len), 0u);
    EXPECT_EQ(len, 3u);

    len = 6;
    EXPECT_EQ(KsoMultiByteToWideCharMultiple(k, 2, TRUE, list, 0, out, &len), 0u);
    len = 5;
    StatusCapture built;
    EXPECT_EQ(KsoMultiByteToWideCharMultiple(k, 2, TRUE, list, 0, out, &len), KsplErr(7));
    EXPECT_EQ(len, 5u);
    EXPECT_TRUE(built.WasBuilt(KsplErr(7), "KsoMultiByteToWideCharMultiple"));

    char empty[] = "";
    len = 1;
    EXPECT_EQ(KsoMultiByteToWideCharMultiple(k, 2, TRUE, empty, 0, out, &len), 0u);
    EXPECT_EQ(len, 1u);
    EXPECT_EQ(out[0], 0);
    len = 0;
    EXPECT_EQ(KsoMultiByteToWideCharMultiple(k, 2, TRUE, empty, 0, out, &len), KsplErr(7));

    char badUtf8[] = "ok\0\x80\0";
    len = 16;
    EXPECT_EQ(KsoMultiByteToWideCharMultiple(k, 3, TRUE, badUtf8, 0, out, &len), KsplErr(1));
    EXPECT_EQ(len, 16u);
}

// Each call has its own descriptors and buffers: many threads at once get
// exactly the single-threaded results.
TEST_F(ConvertTest, ConcurrentConversionsAgree) {
    CodePageScope cp("WINDOWS-1252", TRUE, "ANSI_X3.4-1968", FALSE);
    const std::u16string text = u"path:/x\\y \u20AC\u4E2D\u00E9 [ab]";
    const std::string expected = ToNarrow(kServiceSets[0], k, 1, text).text;
    ASSERT_FALSE(expected.empty());
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const ServiceSet& s = kServiceSets[t % 2];
            for (int i = 0; i < 25; ++i) {
                // Large enough to need paged memory of the shared instance.
                std::u16string big;
                for (int j = 0; j < 3; ++j) big += text;
                NarrowOut n = ToNarrow(s, k, 1, big);
                if (n.text != expected + expected + expected) ++mismatches;
                if (ToWide(s, k, 1, n.text).text != big) ++mismatches;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
