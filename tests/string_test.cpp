// Counted strings at the boundaries of their lengths and capacities:
// initialisation limits, truncating copies, appends that refuse without
// changing anything, integer conversions. (Comparisons: string_fuzz.)
#include "conv_test_util.h"
#include "kspl_test.h"
#include "string_int.h"

namespace {

constexpr WCHAR kPattern = 0x5A5A;

class StringTest : public KsplTest {
protected:
    std::vector<WCHAR> storage_;
    // A record over `capacity` bytes of pattern units that holds `text`.
    UNICODE_STRING Record(std::u16string_view text, UINT16 capacity) {
        storage_.assign(capacity / 2 + 2, kPattern);
        std::copy(text.begin(), text.end(), storage_.begin());
        return {static_cast<UINT16>(2 * text.size()), capacity, storage_.data()};
    }
};

// Sources beyond what 16-bit lengths describe get the largest even (wide)
// lengths that fit, never wrapped ones.
TEST_F(StringTest, InitialisationLimits) {
    // Wide, source units, Length, MaximumLength.
    const std::tuple<bool, size_t, UINT16, UINT16> rows[] = {
        {false, 5, 5, 6},           {false, 65533, 65533, 65534}, {false, 65534, 65534, 65535},
        {false, 65535, 65534, 65535}, {true, 5, 10, 12},          {true, 32765, 65530, 65532},
        {true, 32766, 65532, 65534}, {true, 32767, 65532, 65534}, {true, 40000, 65532, 65534}};
    for (auto [wide, units, length, maximum] : rows) {
        std::string narrow(units, 'x');
        std::u16string w(units, u'x');
        STRING s{7, 7, nullptr};
        UNICODE_STRING u{7, 7, nullptr};
        wide ? v->KsoInitUnicodeString(k, &u, reinterpret_cast<PWCHAR>(w.data()))
             : v->KsoInitString(k, &s, narrow.data());
        EXPECT_EQ(wide ? std::pair(u.Length, u.MaximumLength) : std::pair(s.Length, s.MaximumLength),
                  std::pair(length, maximum)) << units;
    }
    STRING s{7, 7, nullptr};
    v->KsoInitString(k, &s, nullptr);
    EXPECT_EQ(s.Length + s.MaximumLength, 0);
}

// A copy takes what fits and adds a terminator only where there is room
// (an odd byte left over is no room for a 16-bit one).
TEST_F(StringTest, CopiesTruncateAndTerminateWhenThereIsRoom) {
    char source[] = "0123456789";
    STRING narrow{10, 11, source};
    std::vector<WCHAR> wsource = Wide(u"01234");
    UNICODE_STRING wide{10, 12, wsource.data()};
    // MaximumLength, Length after the copy, narrow and wide terminated.
    const std::tuple<UINT16, UINT16, bool, bool> rows[] = {
        {0, 0, false, false},  {4, 4, false, false},  {10, 10, false, false},
        {11, 10, true, false}, {12, 10, true, true}, {40, 10, true, true}};
    for (auto [maximum, length, narrowEnd, wideEnd] : rows) {
        SCOPED_TRACE(maximum);
        std::string bytes(24, 'Z');
        STRING d{99, maximum, bytes.data()};
        v->KsoCopyString(k, &d, &narrow);
        EXPECT_EQ(d.Length, length);
        EXPECT_EQ(bytes.substr(0, length + 1), std::string(source, length) + (narrowEnd ? '\0' : 'Z'));
        UNICODE_STRING w = Record(u"", maximum);
        w.Length = 99;
        v->KsoCopyUnicodeString(k, &w, &wide);
        EXPECT_EQ(w.Length, length);
        EXPECT_EQ(AsU16(storage_.data(), length / 2 + 1),
                  std::u16string(u"01234", length / 2) + (wideEnd ? u'\0' : char16_t(kPattern)));
    }
    // No source: an empty destination, its buffer untouched.
    UNICODE_STRING dst = Record(u"xy", 6);
    v->KsoCopyUnicodeString(k, &dst, nullptr);
    EXPECT_EQ(dst.Length, 0);
    EXPECT_EQ(storage_[0], u'x');
}

// An append fits entirely (terminated when there is room) or changes
// nothing and reports a buffer that is too small.
TEST_F(StringTest, AppendFitsOrChangesNothing) {
    std::vector<WCHAR> tail = Wide(u"cd");
    UNICODE_STRING src{4, 6, tail.data()};
    // MaximumLength, status, terminated.
    const std::tuple<UINT16, UINT32, bool> rows[] = {
        {10, 0, false}, {11, 0, false}, {12, 0, true}, {8, 7, false}, {9, 7, false}};
    for (auto [maximum, status, terminated] : rows) {
        for (bool zeroTerminated : {false, true}) {
            UNICODE_STRING dst = Record(u"xab", maximum);
            std::vector<WCHAR> after = storage_;
            std::copy_n(u"cd", status == 0 ? 2 : 0, after.begin() + 3);
            after[5] = status == 0 && terminated ? 0 : kPattern;
            StatusCapture built;
            EXPECT_EQ(zeroTerminated ? v->KsoAppendUnicodeToString(k, &dst, tail.data())
                                     : v->KsoAppendUnicodeStringToString(k, &dst, &src),
                      status == 0 ? 0 : KsplErr(status));
            EXPECT_TRUE(status == 0 || built.WasBuilt(KsplErr(status)));
            EXPECT_EQ(dst.Length, status == 0 ? 10 : 6) << maximum << " " << zeroTerminated;
            EXPECT_EQ(storage_, after);
        }
    }
    UNICODE_STRING dst = Record(u"ab", 10);
    EXPECT_EQ(v->KsoAppendUnicodeStringToString(k, nullptr, &src), KsplErr(KSPL_CODE_INVALID_PARAM));
    EXPECT_EQ(v->KsoAppendUnicodeToString(k, &dst, nullptr), 0u);
}

// Digits (anything but base 8 and 16 is decimal) where they fit, a
// terminator where there is room; otherwise a buffer that is too small and
// the Length untouched.
TEST_F(StringTest, IntegerToText) {
    // Value, base, capacity, status, digits.
    const std::tuple<UINT32, UINT32, UINT16, UINT32, std::u16string_view> rows[] = {
        {255, 16, 40, 0, u"ff"}, {255, 8, 40, 0, u"377"}, {255, 2, 40, 0, u"255"},
        {0xFFFFFFFF, 10, 40, 0, u"4294967295"},           {255, 10, 6, 0, u"255"},
        {255, 10, 4, 7, u""},    {7, 10, 1, 7, u""}};
    for (auto [value, base, capacity, status, text] : rows) {
        UNICODE_STRING s = Record(u"", capacity);
        s.Length = 2;
        EXPECT_EQ(v->KsoIntegerToUnicodeString(k, value, base, &s), status == 0 ? 0 : KsplErr(status));
        EXPECT_EQ(s.Length, status == 0 ? 2 * text.size() : 2u) << value << " " << capacity;
        const char16_t end = capacity > 2 * text.size() ? u'\0' : char16_t(kPattern);
        EXPECT_EQ(status == 0 ? AsU16(storage_.data(), text.size() + 1) : u"",
                  status == 0 ? std::u16string(text) + end : u"");
    }
    UNICODE_STRING noBuffer{0, 20, nullptr};
    EXPECT_EQ(v->KsoIntegerToUnicodeString(k, 7, 10, &noBuffer), KsplErr(KSPL_CODE_BUFFER_SMALL));
    EXPECT_EQ(v->KsoIntegerToUnicodeString(k, 7, 10, nullptr), KsplErr(KSPL_CODE_INVALID_PARAM));
}

// Prefixes, signs, overflow clamped, trailing text; 64 bytes of text fit
// the work buffer, 65 (an escape counts six) do not; empty text reaches the
// conversion with length 0. The value stays on failure.
TEST_F(StringTest, TextToInteger) {
    CodePageScope ascii("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
    const std::u16string long64 = std::u16string(61, u'0') + u"123";
    const std::u16string long65 = std::u16string(64, u'1') + u"7";
    const std::u16string escaped = std::u16string(59, u'1') + u"\u4E2D";
    // Text, base, status, value.
    const std::tuple<std::u16string_view, UINT32, KSSTATUS, UINT32> rows[] = {
        {u"0x1A", 0, 0, 26},   {u"010", 0, 0, 8},         {u"010", 10, 0, 10},
        {u"  +42", 10, 0, 42}, {u"\t-1", 10, 0, 0xFFFFFFFF}, {u"12abc", 10, 0, 12},
        {u"xyz", 10, 0, 0},    {u"4294967296", 10, 0, 0xFFFFFFFF}, {long64, 10, 0, 123},
        {long65, 10, KsplErr(KSPL_CODE_BUFFER_SMALL), 12345}, {escaped, 10, KsplErr(KSPL_CODE_BUFFER_SMALL), 12345},
        {u"", 10, KsplErr(KSPL_CODE_INVALID_PARAM), 12345}};
    for (auto [text, base, status, expected] : rows) {
        std::vector<WCHAR> w = Wide(text);
        UNICODE_STRING s{static_cast<UINT16>(2 * text.size()), 0, w.data()};
        UINT32 value = 12345;
        EXPECT_EQ(v->KsoUnicodeStringToInteger(k, &s, base, &value), status);
        EXPECT_EQ(value, expected) << ::testing::PrintToString(std::u16string(text));
    }
    EXPECT_EQ(v->KsoUnicodeStringToInteger(k, nullptr, 10, nullptr), KsplErr(KSPL_CODE_INVALID_PARAM));
}

}  // namespace
