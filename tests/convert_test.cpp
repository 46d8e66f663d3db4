// Conversions between 16-bit units and the narrow encodings: the length
// protocol, work buffers, escapes, the euro and path-separator rules, UTF-8.
// The character rules run over the IKspl slots and over the reference
// routines alike. (The list conversions: config_test, MULTI_SZ values.)
#include "conv_test_util.h"
#include "kspl_test.h"

namespace {

class ConvertTest : public KsplTest {};

long long Code(UINT32 code) { return code == 0 ? 0 : KsplErr(code); }

// "abc" both ways: a query, capacities above, at and below the result,
// without an output area, explicit lengths with and without the NUL.
TEST_F(ConvertTest, LengthProtocol) {
    // Length, capacity, output area, status, count, what is written (the
    // pattern follows).
    const std::tuple<INT32, UINT32, bool, UINT32, UINT32, std::string_view> rows[] = {
        {-1, 0, false, 0, 4, ""},            // query: the text and its terminator
        {-1, 0, true, 0, 4, ""},             // a zero capacity is a query too
        {-1, 40, true, 0, 3, {"abc\0", 4}},  // room: written in place
        {-1, 4, true, 0, 3, {"abc\0", 4}},   // through a work buffer when narrow
        {-1, 3, true, 0, 3, "abc"},          // exact fit: no terminator
        {-1, 2, true, 7, 2, "ab"},           // truncated copy
        {-1, 2, false, 7, 3, ""},
        {-1, 3, false, 0, 4, ""},
        {4, 3, true, 0, 3, "abc"},  // an explicit length may count the NUL
        {2, 8, true, 0, 2, {"ab\0", 3}},
    };
    for (auto [len, cap, area, status, count, written] : rows) {
        SCOPED_TRACE(::testing::Message() << "length " << len << " capacity " << cap << " " << area);
        StatusCapture built;
        std::string narrow(written);
        narrow.resize(cap + 2, '\xA5');
        std::u16string wide(written.begin(), written.end());
        wide.resize(cap + 2, u'\xA5A5');
        const std::string wideBytes(reinterpret_cast<char*>(wide.data()), 2 * wide.size());
        EXPECT_EQ(ServiceToWide(true, k, 1, "abc", len, cap, area),
                  (ConvRun{Code(status), count, wideBytes}));
        EXPECT_EQ(ServiceToNarrow(true, k, 2, Units(u"abc"), len, cap, area),
                  (ConvRun{Code(status), count, narrow}));
        EXPECT_TRUE(status == 0 || (built.WasBuilt(KsplErr(status), "KsoMultiByteToWideChar") &&
                                    built.WasBuilt(KsplErr(status), "KsoWideCharToMultiByte")));
    }
}

// Null text or length pointer, lengths 0 and below -1, code pages outside 1
// to 5: built failures, the length untouched.
TEST_F(ConvertTest, InvalidArgumentsAreRefused) {
    char text[] = "x";
    WCHAR wide[] = {u'x', 0};
    UINT32 len = 4;
    // Code page, null text, length, null length pointer.
    const std::tuple<UINT32, bool, INT32, bool> rows[] = {
        {1, true, -1, false}, {1, false, 0, false}, {1, false, -2, false}, {1, false, -1, true},
        {0, false, -1, false}, {6, false, -1, false}, {0xFFFFFFFF, false, -1, false}};
    StatusCapture built;
    for (auto [page, nullText, n, nullLen] : rows) {
        PUINT32 pLen = nullLen ? nullptr : &len;
        PCHAR narrowIn = nullText ? nullptr : text;
        PWCHAR wideIn = nullText ? nullptr : wide;
        EXPECT_EQ(v->KsoMultiByteToWideChar(k, page, narrowIn, n, wide, pLen), KsplErr(4));
        EXPECT_EQ(v->KsoWideCharToMultiByte(k, page, wideIn, n, text, pLen), KsplErr(4));
    }
    EXPECT_EQ(len, 4u);
    EXPECT_TRUE(built.WasBuilt(KsplErr(4), "KsoMultiByteToWideChar") &&
                built.WasBuilt(KsplErr(4), "KsoWideCharToMultiByte"));
    EXPECT_EQ(v->KsoCharUpperBuff(k, 0, wide), KsplErr(4));
    EXPECT_EQ(v->KsoCharUpperBuff(k, 3, nullptr), KsplErr(4));
    EXPECT_TRUE(built.WasBuilt(KsplErr(4), "KsoCharUpperBuff"));
}

// Work beyond 512 bytes (255 input bytes at 2n + 2, 42 units at 12n) comes
// from the calling instance's paged memory and is released on every path;
// a caller's buffer that holds the worst case needs none.
TEST_F(ConvertTest, WorkBuffersComeFromTheCallersPagedMemory) {
    KsplObjInfo* info = KsplInfo(k);
    auto paged = [&](long long rc, auto call) {
        const UINT32 total = KsAtomicLoad(&info->MemoryPagedTotalAllocated);
        const UINT32 inUse = KsAtomicLoad(&info->MemoryPagedInUse);
        EXPECT_EQ(call().rc, rc);
        EXPECT_EQ(KsAtomicLoad(&info->MemoryPagedInUse), inUse);
        return KsAtomicLoad(&info->MemoryPagedTotalAllocated) - total;
    };
    std::string q(300, 'q');
    std::vector<WCHAR> wq(43, u'q');
    EXPECT_EQ(paged(0, [&] { return ServiceToWide(true, k, 1, q, 255, 0); }), 0u);
    EXPECT_EQ(paged(0, [&] { return ServiceToWide(true, k, 1, q, 256, 0); }), 514u);
    EXPECT_EQ(paged(0, [&] { return ServiceToNarrow(true, k, 1, wq, 42, 0); }), 0u);
    EXPECT_EQ(paged(0, [&] { return ServiceToNarrow(true, k, 1, wq, 43, 0); }), 516u);
    EXPECT_EQ(paged(0, [&] { return ServiceToWide(true, k, 1, q, 300, 301); }), 0u);
    EXPECT_EQ(paged(KsplErr(7), [&] { return ServiceToWide(true, k, 1, q, 300, 10); }), 602u);
    EXPECT_EQ(paged(KsplErr(4), [&] { return ServiceToWide(true, k, 6, q, 300, 0); }), 602u);
    // Without a valid instance only conversions that need paged memory fail.
    EXPECT_EQ(ServiceToWide(true, nullptr, 1, q, 256, 0).rc, KsplErr(5));
    EXPECT_EQ(ServiceToWide(true, nullptr, 1, q, 255, 0).rc, 0);
    q[150] = '\x80';
    EXPECT_EQ(paged(KsplErr(1), [&] { return ServiceToWide(true, k, 3, q, 300, 0); }), 602u);
}

// Escapes, the euro sign, path separators, multi-byte characters of a code
// page and UTF-8, with the OEM code page of the row and ASCII as the ANSI
// one: code page, selector, 16-bit and narrow text, directions (1 to
// narrow, 2 to 16-bit, 3 both), status (a failing row expects empty text on
// its output side).
TEST_F(ConvertTest, CharacterRules) {
    const char* const a = "ANSI_X3.4-1968";
    const std::tuple<const char*, UINT32, std::u16string_view, std::string_view, int, UINT32> rows[] = {
        {a, 1, u"x\u4E2Dy\u00E9\u0001z", "x[4E2D]y[00E9]\x01z", 3, 0},
        {a, 1, u"\u4E2D\uFFFF[abc]a[\u4E2D[4E2D", "[4e2d][fFfF][abc]a[[4E2D][4E2D", 2, 0},
        {a, 1, u"[ab]\xD800", "[ab][D800]", 1, 0},
        {a, 4, u"a\u20AC", "a\xCC", 3, 0},
        {"WINDOWS-1252", 2, u"\u20AC\u00CC", "\x80\xCC", 3, 0},
        {"ISO-8859-1", 5, u"\u00CC", "\xCC", 1, 0},
        {"ISO-8859-1", 2, u"\u20AC\u00CD", "\xCC\xCD", 3, 0},
        {"IBM037", 2, u"a:b\\c/d", "\x81:\x82\\\x83/\x84", 3, 0},
        {"UTF-8", 2, u"\u4E2Da\u00E9\u20AC", "\xE4\xB8\xAD" "a\xC3\xA9\xE2\x82\xAC", 3, 0},
        {"UTF-8", 5, u"", "\xF0\x9F\x98\x80", 2, 1},
        {"UTF-8", 2, u"", "a\xE4\xB8", 2, 1},
        {"UTF-8", 1, u"\u4E2D", "[4E2D]", 1, 0},
        {a, 3, u"a\u00E9\u4E2D\u20AC[4E2D]", "a\xC3\xA9\xE4\xB8\xAD\xE2\x82\xAC[4E2D]", 3, 0},
        {a, 3, u"", "\x80" "abc", 2, 1},
        {a, 3, u"", "ab\xE4\xB8", 2, 1},
        {a, 3, u"", "\xC3(", 2, 1},
        {a, 3, u"a\xDC00", "", 1, 1},
        {"NO-SUCH-CODE-PAGE", 2, u"abc", "", 1, 1},
        {"NO-SUCH-CODE-PAGE", 2, u"", "abc", 2, 1},
    };
    for (bool fast : {true, false}) {
        for (auto [oem, sel, wide, narrow, dirs, status] : rows) {
            SCOPED_TRACE(::testing::Message() << fast << " " << oem << " selector " << sel << " "
                                              << ::testing::PrintToString(narrow));
            CodePageScope cp(oem, CheckCodePageEuroSupport(const_cast<char*>(oem)), a, FALSE);
            StatusCapture built;
            if (dirs & 1) {
                const ConvRun n = ServiceToNarrow(fast, k, sel, Units(wide), -1, 64);
                EXPECT_EQ(n.rc, Code(status));
                EXPECT_EQ(n.rc == 0 ? NarrowText(n) : "", narrow);
            }
            if (dirs & 2) {
                const ConvRun w = ServiceToWide(fast, k, sel, std::string(narrow), -1, 64);
                EXPECT_EQ(w.rc, Code(status));
                EXPECT_EQ(w.rc == 0 ? WideText(w) : u"", wide);
            }
            EXPECT_TRUE(status == 0 || built.WasBuilt(KsplErr(status)));
        }
    }
}

// Exactly Length units are visited; only letters and digits change.
TEST_F(ConvertTest, CharUpperBuff) {
    std::vector<WCHAR> text = Wide(u"ab1-z{");
    EXPECT_EQ(v->KsoCharUpperBuff(k, 4, text.data()), 0u);
    EXPECT_EQ(AsU16(text.data(), 6), u"AB1-z{");
    EXPECT_EQ(KsplRefCharUpperBuff(k, 6, text.data()), 0u);
    EXPECT_EQ(AsU16(text.data(), 6), u"AB1-Z{");
}

}  // namespace
