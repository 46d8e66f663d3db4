// Counted strings: initialisation limits, truncating copies, appends that
// refuse without changing anything, comparisons (the wide case-insensitive
// ones through the library's own upper-casing) and integer conversions.
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "conv_test_util.h"
#include "kspl_test.h"
#include "locale_int.h"
#include "string_int.h"

namespace {

constexpr WCHAR kSentinelUnit = 0x5A5A;

class StringTest : public KsplTest {
protected:
    // A wide record over a buffer of `capacityUnits` sentinel units holding
    // `text`.
    UNICODE_STRING WideRecord(std::vector<WCHAR>& storage, std::u16string_view text,
                              size_t capacityBytes) {
        storage.assign(capacityBytes / 2 + 1, kSentinelUnit);
        std::copy(text.begin(), text.end(), storage.begin());
        UNICODE_STRING s;
        s.Length = static_cast<UINT16>(text.size() * 2);
        s.MaximumLength = static_cast<UINT16>(capacityBytes);
        s.Buffer = storage.data();
        return s;
    }
    UNICODE_STRING View(std::vector<WCHAR>& storage) {
        UNICODE_STRING s;
        v->KsoInitUnicodeString(k, &s, storage.data());
        return s;
    }
    STRING NarrowView(const char* text) {
        STRING s;
        v->KsoInitString(k, &s, const_cast<char*>(text));
        return s;
    }
};

TEST_F(StringTest, InitialisationAndItsLimits) {
    STRING s{7, 7, reinterpret_cast<PCHAR>(1)};
    char hello[] = "hello";
    v->KsoInitString(k, &s, hello);
    EXPECT_EQ(s.Buffer, hello);
    EXPECT_EQ(s.Length, 5);
    EXPECT_EQ(s.MaximumLength, 6);
    v->KsoInitString(k, &s, nullptr);
    EXPECT_EQ(s.Buffer, nullptr);
    EXPECT_EQ(s.Length, 0);
    EXPECT_EQ(s.MaximumLength, 0);
    v->KsoInitString(k, nullptr, hello);

    std::vector<WCHAR> wide = Wide(u"hello");
    UNICODE_STRING u{7, 7, nullptr};
    v->KsoInitUnicodeString(k, &u, wide.data());
    EXPECT_EQ(u.Buffer, wide.data());
    EXPECT_EQ(u.Length, 10);
    EXPECT_EQ(u.MaximumLength, 12);
    v->KsoInitUnicodeString(k, &u, nullptr);
    EXPECT_EQ(u.Length, 0);
    EXPECT_EQ(u.MaximumLength, 0);
    v->KsoInitUnicodeString(k, nullptr, wide.data());

    // Sources beyond what 16-bit lengths describe get the largest lengths
    // that fit, never wrapped ones.
    struct NarrowCase {
        size_t bytes;
        UINT16 length;
        UINT16 maximum;
    };
    for (NarrowCase c : {NarrowCase{65533, 65533, 65534}, NarrowCase{65534, 65534, 65535},
                         NarrowCase{65535, 65534, 65535}, NarrowCase{70000, 65534, 65535}}) {
        std::string big(c.bytes, 'x');
        v->KsoInitString(k, &s, big.data());
        EXPECT_EQ(s.Length, c.length) << c.bytes;
        EXPECT_EQ(s.MaximumLength, c.maximum) << c.bytes;
    }
    struct WideCase {
        size_t units;
        UINT16 length;
        UINT16 maximum;
    };
    for (WideCase c : {WideCase{32765, 65530, 65532}, WideCase{32766, 65532, 65534},
                       WideCase{32767, 65532, 65534}, WideCase{32768, 65532, 65534},
                       WideCase{40000, 65532, 65534}}) {
        std::vector<WCHAR> big(c.units, u'x');
        big.push_back(0);
        v->KsoInitUnicodeString(k, &u, big.data());
        EXPECT_EQ(u.Length, c.length) << c.units;
        EXPECT_EQ(u.MaximumLength, c.maximum) << c.units;
    }
}

TEST_F(StringTest, NarrowCopyTruncatesAndTerminatesWhenThereIsRoom) {
    char source[] = "0123456789";
    STRING src = NarrowView(source);
    ASSERT_EQ(src.Length, 10);
    struct Case {
        UINT16 maximum;
        UINT16 length;
        bool terminated;
    };
    for (Case c : {Case{10, 10, false}, Case{11, 10, true}, Case{20, 10, true}, Case{4, 4, false},
                   Case{0, 0, false}}) {
        char buffer[24];
        std::memset(buffer, 'Z', sizeof(buffer));
        STRING dst{99, c.maximum, buffer};
        v->KsoCopyString(k, &dst, &src);
        EXPECT_EQ(dst.Length, c.length) << c.maximum;
        EXPECT_EQ(std::string(buffer, c.length), std::string(source, c.length));
        // A terminator goes at byte n only when the capacity is above n.
        EXPECT_EQ(buffer[c.length], c.terminated ? '\0' : 'Z') << c.maximum;
        EXPECT_EQ(buffer[c.length + 1], 'Z');
    }
    // No source: empty destination, buffer untouched.
    char buffer[4] = {'a', 'b', 'c', 'd'};
    STRING dst{3, 4, buffer};
    v->KsoCopyString(k, &dst, nullptr);
    EXPECT_EQ(dst.Length, 0);
    EXPECT_EQ(std::string(buffer, 4), "abcd");
    v->KsoCopyString(k, nullptr, &src);
}

TEST_F(StringTest, WideCopyTruncatesAndTerminatesWhenThereIsRoom) {
    std::vector<WCHAR> source = Wide(u"abcdef");
    UNICODE_STRING src = View(source);
    ASSERT_EQ(src.Length, 12);
    struct Case {
        UINT16 maximum;
        UINT16 length;
        bool terminated;
    };
    for (Case c : {Case{8, 8, false}, Case{12, 12, false}, Case{13, 12, false}, Case{14, 12, true},
                   Case{40, 12, true}}) {
        std::vector<WCHAR> buffer(24, kSentinelUnit);
        UNICODE_STRING dst{99, c.maximum, buffer.data()};
        v->KsoCopyUnicodeString(k, &dst, &src);
        EXPECT_EQ(dst.Length, c.length) << c.maximum;
        EXPECT_EQ(AsU16(buffer.data(), c.length / 2), std::u16string(u"abcdef", c.length / 2));
        EXPECT_EQ(buffer[c.length / 2], c.terminated ? 0 : kSentinelUnit) << c.maximum;
        EXPECT_EQ(buffer[c.length / 2 + 1], kSentinelUnit);
    }
    std::vector<WCHAR> buffer = Wide(u"xy");
    UNICODE_STRING dst{4, 6, buffer.data()};
    v->KsoCopyUnicodeString(k, &dst, nullptr);
    EXPECT_EQ(dst.Length, 0);
    EXPECT_EQ(AsU16(buffer.data(), 2), u"xy");
}

TEST_F(StringTest, AppendFitsOrChangesNothing) {
    std::vector<WCHAR> tail = Wide(u"cd");
    UNICODE_STRING src = View(tail);
    struct Case {
        UINT16 maximum;
        KSSTATUS status;
        bool terminated;
    };
    for (Case c : {Case{10, 0, false}, Case{11, 0, false}, Case{12, 0, true},
                   Case{8, KsplErr(7), false}, Case{9, KsplErr(7), false}}) {
        std::vector<WCHAR> storage;
        UNICODE_STRING dst = WideRecord(storage, u"xab", c.maximum);
        const std::vector<WCHAR> before = storage;
        StatusCapture built;
        EXPECT_EQ(v->KsoAppendUnicodeStringToString(k, &dst, &src), c.status) << c.maximum;
        if (c.status == 0) {
            EXPECT_EQ(dst.Length, 10);
            EXPECT_EQ(AsU16(storage.data(), 5), u"xabcd");
            EXPECT_EQ(storage[5], c.terminated ? 0 : kSentinelUnit) << c.maximum;
        } else {
            EXPECT_TRUE(built.WasBuilt(KsplErr(7), "KsoAppendUnicodeStringToString"));
            EXPECT_EQ(dst.Length, 6);
            EXPECT_EQ(dst.MaximumLength, c.maximum);
            EXPECT_EQ(storage, before) << "a refused append changes nothing";
        }
    }

    // Through the zero-terminated form.
    std::vector<WCHAR> storage;
    UNICODE_STRING dst = WideRecord(storage, u"x", 12);
    EXPECT_EQ(v->KsoAppendUnicodeToString(k, &dst, tail.data()), 0u);
    EXPECT_EQ(dst.Length, 6);
    EXPECT_EQ(AsU16(storage.data(), 4), std::u16string(u"xcd\0", 4));
    std::vector<WCHAR> longer = Wide(u"0123456789");
    EXPECT_EQ(v->KsoAppendUnicodeToString(k, &dst, longer.data()), KsplErr(7));
    EXPECT_EQ(dst.Length, 6);
    EXPECT_EQ(v->KsoAppendUnicodeToString(k, &dst, nullptr), 0u);
    EXPECT_EQ(dst.Length, 6);

    // Empty sources change nothing; null records are refused.
    std::vector<WCHAR> nothing = Wide(u"");
    UNICODE_STRING empty = View(nothing);
    UNICODE_STRING full = WideRecord(storage, u"ab", 4);
    EXPECT_EQ(v->KsoAppendUnicodeStringToString(k, &full, &empty), 0u);
    EXPECT_EQ(full.Length, 4);
    StatusCapture built;
    EXPECT_EQ(v->KsoAppendUnicodeStringToString(k, nullptr, &src), KsplErr(4));
    EXPECT_EQ(v->KsoAppendUnicodeStringToString(k, &full, nullptr), KsplErr(4));
    EXPECT_EQ(v->KsoAppendUnicodeToString(k, nullptr, tail.data()), KsplErr(4));
    EXPECT_TRUE(built.WasBuilt(KsplErr(4), "KsoAppendUnicodeStringToString"));
    EXPECT_TRUE(built.WasBuilt(KsplErr(4), "KsoAppendUnicodeToString"));

    // Appending a string to itself moves overlapping bytes safely.
    UNICODE_STRING self = WideRecord(storage, u"ab", 10);
    UNICODE_STRING selfCopy = self;
    EXPECT_EQ(v->KsoAppendUnicodeStringToString(k, &self, &selfCopy), 0u);
    EXPECT_EQ(AsU16(storage.data(), 4), u"abab");
}

TEST_F(StringTest, NarrowComparisons) {
    STRING ab = NarrowView("ab");
    STRING abc = NarrowView("abc");
    STRING upper = NarrowView("AB");
    EXPECT_EQ(v->KsoCompareString(k, &ab, &abc, FALSE), -1);
    EXPECT_EQ(v->KsoCompareString(k, &abc, &ab, FALSE), 1);
    EXPECT_EQ(v->KsoCompareString(k, &upper, &ab, TRUE), 0);
    EXPECT_LT(v->KsoCompareString(k, &upper, &ab, FALSE), 0);
    EXPECT_EQ(v->KsoCompareString(k, nullptr, &ab, FALSE), -1);
    EXPECT_EQ(v->KsoCompareString(k, &ab, nullptr, TRUE), -1);
    EXPECT_FALSE(v->KsoEqualString(k, &ab, &abc, FALSE));
    EXPECT_TRUE(v->KsoEqualString(k, &upper, &ab, TRUE));
    EXPECT_FALSE(v->KsoEqualString(k, &upper, &ab, FALSE));
    EXPECT_FALSE(v->KsoEqualString(k, nullptr, nullptr, FALSE));

    // The comparison stops at a zero byte inside the compared range.
    char x[] = "a\0x";
    char y[] = "a\0y";
    STRING sx{3, 4, x};
    STRING sy{3, 4, y};
    EXPECT_EQ(v->KsoCompareString(k, &sx, &sy, FALSE), 0);
    EXPECT_TRUE(v->KsoEqualString(k, &sx, &sy, FALSE));
    // Only Length bytes count, not the terminator or what follows.
    char longer[] = "abZZ";
    STRING prefix{2, 5, longer};
    EXPECT_TRUE(v->KsoEqualString(k, &prefix, &ab, FALSE));
}

TEST_F(StringTest, WideComparisons) {
    std::vector<WCHAR> a = Wide(u"abC");
    std::vector<WCHAR> b = Wide(u"ABc");
    std::vector<WCHAR> prefix = Wide(u"ab");
    UNICODE_STRING sa = View(a);
    UNICODE_STRING sb = View(b);
    UNICODE_STRING sp = View(prefix);
    EXPECT_EQ(v->KsoCompareUnicodeString(k, &sa, &sb, TRUE), 0);
    EXPECT_TRUE(v->KsoEqualUnicodeString(k, &sa, &sb, TRUE));
    EXPECT_GT(v->KsoCompareUnicodeString(k, &sa, &sb, FALSE), 0);
    EXPECT_FALSE(v->KsoEqualUnicodeString(k, &sa, &sb, FALSE));
    // The upper-casing works on copies.
    EXPECT_EQ(AsU16(a.data(), 3), u"abC");
    EXPECT_EQ(AsU16(b.data(), 3), u"ABc");
    // Equal prefixes: the difference of the lengths.
    EXPECT_EQ(v->KsoCompareUnicodeString(k, &sp, &sa, FALSE), -2);
    EXPECT_EQ(v->KsoCompareUnicodeString(k, &sa, &sp, TRUE), 2);
    EXPECT_FALSE(v->KsoEqualUnicodeString(k, &sp, &sa, TRUE));

    // Bytes compare as stored: 0x0100 (00 01) sorts before 0x00FF (FF 00).
    std::vector<WCHAR> hi = {0x0100, 0};
    std::vector<WCHAR> lo = {0x00FF, 0};
    UNICODE_STRING shi = View(hi);
    UNICODE_STRING slo = View(lo);
    EXPECT_LT(v->KsoCompareUnicodeString(k, &shi, &slo, FALSE), 0);
    EXPECT_GT(v->KsoCompareUnicodeString(k, &slo, &shi, FALSE), 0);

    EXPECT_EQ(v->KsoCompareUnicodeString(k, nullptr, &sa, FALSE), -1);
    EXPECT_EQ(v->KsoCompareUnicodeString(k, &sa, nullptr, TRUE), -1);
    EXPECT_FALSE(v->KsoEqualUnicodeString(k, nullptr, &sa, FALSE));
    EXPECT_FALSE(v->KsoEqualUnicodeString(k, &sa, nullptr, TRUE));

    std::vector<WCHAR> none = Wide(u"");
    UNICODE_STRING e1 = View(none);
    UNICODE_STRING e2 = View(none);
    EXPECT_TRUE(v->KsoEqualUnicodeString(k, &e1, &e2, TRUE));
    EXPECT_EQ(v->KsoCompareUnicodeString(k, &e1, &sa, TRUE), -6);
}

// The case-insensitive wide comparison folds exactly as KsoCharUpperBuff
// does: in a UTF-8 locale the bytes 128..255 are no letters of the byte
// classification, so U+00E9 and U+00C9 differ, while Cyrillic letters
// (above 255) fold.
TEST_F(StringTest, WideCaseFoldingIsTheLibrarysOwn) {
    locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (utf8 == nullptr) GTEST_SKIP() << "no C.UTF-8 locale";
    freelocale(utf8);
    EXPECT_EQ(KsplRunInChild([] {
                  setenv("LC_ALL", "C.UTF-8", 1);
                  UnInitCharConvInfrastructure();
                  ASSERT_EQ(InitCharConvInfrastructure(), 0);
                  std::vector<WCHAR> e1 = Wide(u"caf\u00E9");
                  std::vector<WCHAR> e2 = Wide(u"CAF\u00C9");
                  std::vector<WCHAR> c1 = Wide(u"\u0434\u0430");
                  std::vector<WCHAR> c2 = Wide(u"\u0414\u0410");
                  UNICODE_STRING s1, s2, s3, s4;
                  KsoInitUnicodeString(pIKspl, &s1, e1.data());
                  KsoInitUnicodeString(pIKspl, &s2, e2.data());
                  KsoInitUnicodeString(pIKspl, &s3, c1.data());
                  KsoInitUnicodeString(pIKspl, &s4, c2.data());
                  EXPECT_FALSE(KsoEqualUnicodeString(pIKspl, &s1, &s2, TRUE));
                  EXPECT_GT(KsoCompareUnicodeString(pIKspl, &s1, &s2, TRUE), 0);
                  EXPECT_TRUE(KsoEqualUnicodeString(pIKspl, &s3, &s4, TRUE));
                  EXPECT_EQ(KsoCompareUnicodeString(pIKspl, &s3, &s4, TRUE), 0);
              }),
              0);
}

TEST_F(StringTest, IntegerToText) {
    struct Case {
        UINT32 value;
        UINT32 base;
        std::u16string text;
    };
    for (const Case& c : {Case{255, 16, u"ff"}, Case{255, 8, u"377"}, Case{255, 10, u"255"},
                          Case{255, 2, u"255"}, Case{255, 0, u"255"}, Case{0, 16, u"0"},
                          Case{0xFFFFFFFFu, 10, u"4294967295"}, Case{0xDEADBEEFu, 16, u"deadbeef"},
                          Case{0xFFFFFFFFu, 8, u"37777777777"}}) {
        std::vector<WCHAR> storage;
        UNICODE_STRING s = WideRecord(storage, u"", 40);
        s.Length = 2;
        EXPECT_EQ(v->KsoIntegerToUnicodeString(k, c.value, c.base, &s), 0u);
        EXPECT_EQ(s.Length, 2 * c.text.size());
        EXPECT_EQ(AsU16(storage.data(), c.text.size() + 1), c.text + u'\0')
            << c.value << " base " << c.base;
    }

    // Capacity: above the digits, exactly the digits, below them.
    std::vector<WCHAR> storage;
    UNICODE_STRING s = WideRecord(storage, u"", 6);
    EXPECT_EQ(v->KsoIntegerToUnicodeString(k, 255, 10, &s), 0u);
    EXPECT_EQ(s.Length, 6);
    EXPECT_EQ(storage[3], kSentinelUnit) << "no room for a terminator";
    s = WideRecord(storage, u"", 4);
    s.Length = 2;
    StatusCapture built;
    EXPECT_EQ(v->KsoIntegerToUnicodeString(k, 255, 10, &s), KsplErr(7));
    EXPECT_TRUE(built.WasBuilt(KsplErr(7), "KsoMultiByteToWideChar"));
    EXPECT_EQ(s.Length, 2) << "unchanged on failure";
    // A record without room or without a buffer cannot take the digits.
    s = WideRecord(storage, u"", 1);
    EXPECT_EQ(v->KsoIntegerToUnicodeString(k, 7, 10, &s), KsplErr(7));
    EXPECT_EQ(s.Length, 0);
    UNICODE_STRING noBuffer{0, 20, nullptr};
    EXPECT_EQ(v->KsoIntegerToUnicodeString(k, 7, 10, &noBuffer), KsplErr(7));
    EXPECT_EQ(noBuffer.Length, 0);
    EXPECT_EQ(v->KsoIntegerToUnicodeString(k, 7, 10, nullptr), KsplErr(4));
    EXPECT_TRUE(built.WasBuilt(KsplErr(4), "KsoIntegerToUnicodeString"));
}

TEST_F(StringTest, TextToInteger) {
    CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
    struct Case {
        std::u16string text;
        UINT32 base;
        UINT32 value;
    };
    for (const Case& c :
         {Case{u"0x1A", 0, 26}, Case{u"0X1a", 16, 26}, Case{u"1A", 16, 26}, Case{u"010", 0, 8},
          Case{u"010", 10, 10}, Case{u"xyz", 10, 0}, Case{u"xyz", 0, 0}, Case{u"z", 36, 35},
          Case{u"  +42", 10, 42}, Case{u"\t-1", 10, 0xFFFFFFFFu}, Case{u"-2", 10, 0xFFFFFFFEu},
          Case{u"12abc", 10, 12}, Case{u"4294967295", 10, 0xFFFFFFFFu},
          Case{u"4294967296", 10, 0xFFFFFFFFu}, Case{u"99999999999999999999999", 10, 0xFFFFFFFFu},
          Case{u"-4294967296", 10, 0xFFFFFFFFu}, Case{u"101", 2, 5}, Case{u"0x", 0, 0}}) {
        std::vector<WCHAR> storage = Wide(c.text);
        UNICODE_STRING s = View(storage);
        UINT32 value = 12345;
        EXPECT_EQ(v->KsoUnicodeStringToInteger(k, &s, c.base, &value), 0u)
            << std::string(c.text.begin(), c.text.end());
        EXPECT_EQ(value, c.value) << std::string(c.text.begin(), c.text.end()) << " base "
                                  << c.base;
    }

    // Only Length units are read; no terminator is needed.
    std::vector<WCHAR> storage = {u'1', u'2', u'3', u'4', u'5'};
    UNICODE_STRING s{6, 10, storage.data()};
    UINT32 value = 0;
    EXPECT_EQ(v->KsoUnicodeStringToInteger(k, &s, 10, &value), 0u);
    EXPECT_EQ(value, 123u);

    // 64 bytes parse; 65 fill the work buffer and are refused.
    std::u16string digits64 = std::u16string(61, u'0') + u"123";
    std::vector<WCHAR> ok = Wide(digits64);
    s = View(ok);
    EXPECT_EQ(v->KsoUnicodeStringToInteger(k, &s, 10, &value), 0u);
    EXPECT_EQ(value, 123u);
    StatusCapture built;
    for (size_t n : {65u, 66u, 200u}) {
        std::vector<WCHAR> tooLong = Wide(std::u16string(n - 1, u'0') + u"7");
        s = View(tooLong);
        value = 12345;
        EXPECT_EQ(v->KsoUnicodeStringToInteger(k, &s, 10, &value), KsplErr(7)) << n;
        EXPECT_EQ(value, 12345u) << "not written on failure";
    }
    EXPECT_TRUE(built.WasBuilt(KsplErr(7), "KsoUnicodeStringToInteger"));
    // An escape counts with its six bytes.
    std::vector<WCHAR> escaped = Wide(std::u16string(59, u'1') + u"\u4E2D");
    s = View(escaped);
    EXPECT_EQ(v->KsoUnicodeStringToInteger(k, &s, 10, &value), KsplErr(7));

    // Empty text reaches the conversion with length 0.
    built.Clear();
    std::vector<WCHAR> none = Wide(u"");
    s = View(none);
    value = 12345;
    EXPECT_EQ(v->KsoUnicodeStringToInteger(k, &s, 10, &value), KsplErr(4));
    EXPECT_TRUE(built.WasBuilt(KsplErr(4), "KsoWideCharToMultiByte"));
    EXPECT_EQ(value, 12345u);
    EXPECT_EQ(v->KsoUnicodeStringToInteger(k, nullptr, 10, &value), KsplErr(4));
    EXPECT_EQ(v->KsoUnicodeStringToInteger(k, &s, 10, nullptr), KsplErr(4));
    EXPECT_TRUE(built.WasBuilt(KsplErr(4), "KsoUnicodeStringToInteger"));

    // Round trip through both conversions.
    for (UINT32 base : {8u, 10u, 16u}) {
        std::vector<WCHAR> buffer;
        UNICODE_STRING t = WideRecord(buffer, u"", 64);
        ASSERT_EQ(v->KsoIntegerToUnicodeString(k, 0x89ABCDEFu, base, &t), 0u);
        value = 0;
        EXPECT_EQ(v->KsoUnicodeStringToInteger(k, &t, base, &value), 0u);
        EXPECT_EQ(value, 0x89ABCDEFu) << base;
    }
}

}  // namespace
