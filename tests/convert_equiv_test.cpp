// The conversions behind the services (lookup tables, the UTF-8 codec,
// cached descriptors) against the reference routines, which open a fresh
// descriptor per call and convert one character per iconv call: the same
// result, count and output area byte for byte, including what a failed
// conversion leaves behind. Every unit and every byte, then random strings
// from fixed seeds; the texts long enough for the vector kernels once per
// variant the CPU (or the emulator) has, the others skipped.
#include <random>
#include <thread>

#include "conv_test_util.h"
#include "kspl_test.h"

// Failure messages name the variant.
inline void PrintTo(KsplConvIsa isa, std::ostream* os) { *os << KsplConvIsaName(isa); }

namespace {

// Runs the code page setup again with ZELTA_CODE_PAGE set (the variable
// stays set: each setup of this suite sets it first).
bool SetUpCodePages(const char* oem) {
    setenv("ZELTA_CODE_PAGE", oem, 1);
    UnInitCharConvInfrastructure();
    return InitCharConvInfrastructure() == 0;
}

// Reports the first few mismatches; a sweep stops after them.
struct Checker {
    int failures = 0;
    bool TooMany() const { return failures > 8; }
    void Same(const char* what, std::string_view in, int cap, const ConvRun& a, const ConvRun& b) {
        EXPECT_TRUE(a == b || ++failures > 8) << what << " of " << ::testing::PrintToString(in)
                                              << " capacity " << cap << ": rc " << a.rc << " count "
                                              << a.count << ", reference " << b.rc << " " << b.count;
    }
    void ToWide(char* page, BOOLEAN euro, const std::string& in, int cap) {
        Same("to 16-bit", in, cap, RoutineToWide(true, page, euro, in, cap),
             RoutineToWide(false, page, euro, in, cap));
    }
    void ToNarrow(char* page, const std::vector<WCHAR>& in, int cap) {
        Same("to narrow", {reinterpret_cast<const char*>(in.data()), 2 * in.size()}, cap,
             RoutineToNarrow(true, page, in, cap), RoutineToNarrow(false, page, in, cap));
    }
};

// Random text from classes that exercise the rules: separators, brackets
// and escapes, the euro sign and 0xCC, byte-order marks, surrogates, NULs,
// characters of the code page (encoded by the reference), broken UTF-8.
struct TextSource : std::mt19937 {
    using std::mt19937::mt19937;
    uint32_t Pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(*this); }
    WCHAR Unit() {
        static constexpr WCHAR kRuleUnits[] = {0x20AC, 0xFEFF, 0xFFFE, 0, 0xD800, 0xDFFF, 0xFFFF,
                                             0x00CC, '[', ']', ':', '\\', '/', 0x3A00};
        static constexpr uint32_t kBase[] = {0x20, 0x80, 0x100, 0x4E00, 0xFF61, 0x400, 0};
        static constexpr uint32_t kSpan[] = {0x5F, 0x80, 0x700, 0x5200, 0x3F, 0x60, 0x10000};
        const uint32_t r = Pick(8);
        if (r == 7) return kRuleUnits[Pick(std::size(kRuleUnits))];
        return static_cast<WCHAR>(kBase[r] + Pick(kSpan[r]));
    }
    std::string Bytes(char* page) {
        static const char* const kPieces[] = {"[4E2D]", "[00e9]", "[zz12]", "[12", "[", "]", ":",
                                              "\\", "/", "\xCC", "\xED\xA0\x80", "\xE4\xB8",
                                              "\xF0\x9F\x98\x80", "\xC0\x80", "\xF3\xA0\x81\x81"};
        std::string s;
        for (uint32_t i = Pick(17); i > 0; --i) {
            const uint32_t r = Pick(5);
            if (r < 2) s += NarrowText(RoutineToNarrow(false, page, {Unit()}, 12));
            if (r == 2) s += kPieces[Pick(std::size(kPieces))];
            if (r >= 3) s += static_cast<char>(r == 3 ? Pick(256) : 0);
        }
        return s;
    }
};

// Random strings through the routines: the services' capacity, the exact
// one, one more, one that runs out. (The services over random text and
// capacities: convert_fuzz.)
void RandomStrings(Checker& c, char* page, BOOLEAN euro, uint32_t seed) {
    TextSource src(seed);
    for (int i = 0; i < 200 && !c.TooMany(); ++i) {
        std::vector<WCHAR> wide(src.Pick(25));
        for (WCHAR& u : wide) u = src.Unit();
        const std::string narrow = src.Bytes(page);
        const INT32 wn = static_cast<INT32>(wide.size());
        const INT32 nn = static_cast<INT32>(narrow.size());
        const int exact = static_cast<int>(RoutineToNarrow(false, page, wide, 12 * wn).count);
        for (int cap : {12 * wn, exact, exact + 1, static_cast<int>(src.Pick(wn + 2))}) {
            c.ToNarrow(page, wide, cap);
        }
        c.ToWide(page, euro, narrow, nn + 1);
        c.ToWide(page, euro, narrow, static_cast<int>(src.Pick(nn + 2)));
    }
}

class ConvertEquivTest : public KsplTest, public ::testing::WithParamInterface<const char*> {};

// Runs its test with the conversions forced to one variant of the vector
// kernels, and puts the widest back afterwards.
class ConvertVariantTest : public KsplTest, public ::testing::WithParamInterface<KsplConvIsa> {
protected:
    void SetUp() override {
        KsplTest::SetUp();
        if (!KsplConvUseIsa(GetParam())) GTEST_SKIP() << "CPU without " << KsplConvIsaName(GetParam());
        ASSERT_EQ(KsplConvIsaInUse(), GetParam());
    }
    void TearDown() override {
        KsplConvUseIsa(KsplConvIsaBest());
        KsplTest::TearDown();
    }
};

std::string VariantName(const ::testing::TestParamInfo<KsplConvIsa>& info) {
    return KsplConvIsaName(info.param);
}

// The OEM and ANSI code pages of each setup (437, 850 and 866 imply another
// ANSI code page): every unit alone and between others (a descriptor treats
// its first conversion differently), every byte likewise with both euro
// flags, every byte pair where there are no lookup tables (multi-byte code
// pages), random strings; for UTF-8 also the codec of selector 3.
TEST_P(ConvertEquivTest, CodePageMatchesReference) {
    ASSERT_TRUE(SetUpCodePages(GetParam()));
    ASSERT_STREQ(g_pOemCodePage, GetParam()) << "not on this system?";
    const bool utf8 = std::string(GetParam()) == "UTF-8";
    const bool tables = !utf8 && std::string(GetParam()) != "SHIFT_JIS";
    for (UINT32 sel : {2u, 1u, 3u}) {
        char* page = sel == 3 ? nullptr : sel == 2 ? g_pOemCodePage : g_pAnsiCodePage;
        const BOOLEAN euro = sel == 2 ? g_oemCodePageSupportsEuro : g_ansiCodePageSupportsEuro;
        if ((sel == 1 && std::string(page) == g_pOemCodePage) || (sel == 3 && !utf8)) continue;
        SCOPED_TRACE(page != nullptr ? page : "selector 3");
        EXPECT_EQ(page != nullptr && KsplConvHasTables(page), page != nullptr && tables);
        Checker c;
        // One pass per unit; every eighth runs out of room somewhere.
        for (unsigned u = 0; u < 65536 && !c.TooMany(); ++u) {
            const WCHAR w = static_cast<WCHAR>(u);
            c.ToNarrow(page, {w, 'a', w}, u % 8 == 0 ? u / 8 % 14 : 36);
        }
        for (unsigned b = 0; b < 512; ++b) {
            const char x = static_cast<char>(b);
            c.ToWide(page, b >> 8, {x, 'a', x}, 4);
            c.ToWide(page, b >> 8, {'a', x, 'a'}, 1);
        }
        // Pairs with an ASCII lead are two single bytes, swept above.
        for (unsigned p = 0x8000; !tables && p < 65536 && !c.TooMany(); ++p) {
            c.ToWide(page, FALSE, {static_cast<char>(p >> 8), static_cast<char>(p)}, 3);
        }
        RandomStrings(c, page, euro, 1234 + sel);
    }
}

// Long texts, which the conversions take many characters at a time, then
// the same text with a fault at each of its first positions: in the narrow
// text a piece inserted (for UTF-8 broken, overlong, surrogate and four-byte
// sequences; for the single-byte code pages brackets, escapes, a byte with
// no character in WINDOWS-1252), in the 16-bit text a unit replaced.
// Capacities: room for the worst case, exactly enough, one that runs out.
struct LongTexts {
    TextSource src{99};
    Checker c;
    void Sweep(char* page, const std::vector<WCHAR>& units, const char* const* faults,
               size_t faultCount, WCHAR badFrom, uint32_t badSpan) {
        const int n = static_cast<int>(units.size());
        const ConvRun encoded = RoutineToNarrow(false, page, units, 6 * n + 1);
        ASSERT_EQ(encoded.rc, 0);
        const std::string text = NarrowText(encoded);
        const int bytes = static_cast<int>(text.size());
        for (int cap : {6 * n + 1, bytes + 1, static_cast<int>(src.Pick(bytes + 1))}) {
            c.ToNarrow(page, units, cap);
        }
        for (int cap : {bytes + 1, n, static_cast<int>(src.Pick(n + 1))}) {
            c.ToWide(page, FALSE, text, cap);
        }
        for (int at = 0; at < 36 && at < n; ++at) {
            std::vector<WCHAR> bad = units;
            bad[at] = static_cast<WCHAR>(badFrom + src.Pick(badSpan));
            c.ToNarrow(page, bad, 6 * n + 1);
            std::string broken = text;
            broken.insert(static_cast<size_t>(at), faults[src.Pick(static_cast<uint32_t>(faultCount))]);
            c.ToWide(page, FALSE, broken, static_cast<int>(broken.size()) + 1);
        }
    }
};

TEST_P(ConvertVariantTest, LongUtf8TextsWithAFaultAnywhere) {
    static const char* const kFaults[] = {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC3",
                                          "\xE4\xB8", "\xE0\x80\x80", "\xE0\x9F\xBF",
                                          "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0\x90\x80\x80",
                                          "\xF3\xA0\x81\x81", "\xF8", "\xFF"};
    static constexpr WCHAR kEdges[] = {0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xE000, 0xFEFF, 0xFFFE, 0xFFFF};
    // Weights of one-, two- and three-byte characters.
    static constexpr uint32_t kMixes[][3] = {{1, 0, 0}, {2, 1, 0}, {1, 1, 0}, {0, 1, 0},
                                             {1, 1, 1}, {0, 0, 1}, {6, 0, 1}};
    LongTexts t;
    for (const auto& mix : kMixes) {
        for (int round = 0; round < 16 && !t.c.TooMany(); ++round) {
            std::vector<WCHAR> units(20 + t.src.Pick(60));
            for (WCHAR& u : units) {
                const uint32_t r = t.src.Pick(mix[0] + mix[1] + mix[2]);
                // (A first U+FFFE would make the rest byte-swapped.)
                if (t.src.Pick(16) == 0 && &u != &units[0]) {
                    u = kEdges[t.src.Pick(std::size(kEdges))];
                } else if (r < mix[0]) {
                    u = static_cast<WCHAR>(t.src.Pick(0x80));
                } else if (r < mix[0] + mix[1]) {
                    u = static_cast<WCHAR>(0x80 + t.src.Pick(0x780));
                } else {
                    do u = static_cast<WCHAR>(0x800 + t.src.Pick(0xF800));
                    while ((u & 0xF800) == 0xD800);
                }
            }
            t.Sweep(nullptr, units, kFaults, std::size(kFaults), 0xD800, 0x800);
        }
    }
}

// The single-byte code pages of the setup 437 (CP437, WINDOWS-1252): runs
// of ASCII of every length between single other characters (Latin-1,
// escaped, brackets, separators, the euro sign).
TEST_P(ConvertVariantTest, LongSingleByteTextsWithAFaultAnywhere) {
    ASSERT_TRUE(SetUpCodePages("437"));
    static const char* const kFaults[] = {"[", "]", "[12", "[4E2D]", "[zz12]", "\x81", "\xCC", "\x80"};
    static constexpr WCHAR kOthers[] = {'[', ']', ':', '\\', 0x20AC, 0xCC, 0xFEFF, 0x4E2D, 0x0416};
    LongTexts t;
    for (char* page : {g_pOemCodePage, g_pAnsiCodePage}) {
        ASSERT_TRUE(KsplConvHasTables(page)) << page;
        for (int round = 0; round < 24 && !t.c.TooMany(); ++round) {
            std::vector<WCHAR> units;
            while (units.size() < 60) {
                for (uint32_t run = t.src.Pick(20); run > 0; --run) {
                    units.push_back(static_cast<WCHAR>(0x20 + t.src.Pick(0x5F)));
                }
                const uint32_t r = t.src.Pick(3);
                units.push_back(r == 0   ? static_cast<WCHAR>(0xA0 + t.src.Pick(0x60))
                                : r == 1 ? kOthers[t.src.Pick(std::size(kOthers))]
                                         : static_cast<WCHAR>(0x100 + t.src.Pick(0xFF00)));
            }
            t.Sweep(page, units, kFaults, std::size(kFaults), 0x80, 0xFF80);
        }
    }
}

// One piece at every position of a long ASCII text, so that it falls at
// each offset of a block and at each end of a run the kernels copy (16 and
// 32 bytes, 8 and 16 units): valid and broken sequences, escapes, brackets,
// characters the code page lacks. Capacities: the services' room, and
// exactly the reference's result (the guard after it must stay untouched).
TEST_P(ConvertVariantTest, APieceAtEveryOffsetOfABlock) {
    ASSERT_TRUE(SetUpCodePages("437"));
    static const char* const kUtf8Pieces[] = {"\xC3\xA9", "\xE4\xB8\xAD", "\xEF\xBB\xBF", "\xC3",
                                              "\xE4\xB8", "\x80", "\xC1\xBF", "\xE0\x9F\xBF",
                                              "\xED\xA0\x80", "\xF0\x90\x80\x80"};
    static const char* const kPagePieces[] = {"\xE9", "[4E2D]", "[", "[12", "\xCC", "\x81", "/"};
    static constexpr WCHAR kUnits[] = {0xE9, 0x7F, 0x80, 0x7FF, 0x800, 0x4E2D, 0xD800, 0xDFFF,
                                       0xFEFF, 0xFFFE, 0x20AC, '[', ':'};
    Checker c;
    std::string ascii;
    for (int i = 0; i < 96; ++i) ascii += static_cast<char>('a' + i % 26);
    for (int at = 0; at < 72 && !c.TooMany(); ++at) {
        for (const char* piece : kUtf8Pieces) {
            std::string text = ascii;
            text.insert(static_cast<size_t>(at), piece);
            const int room = static_cast<int>(text.size()) + 1;
            c.ToWide(nullptr, FALSE, text, room);
            c.ToWide(nullptr, FALSE, text.substr(0, static_cast<size_t>(at) + 20), room);
        }
        for (const char* piece : kPagePieces) {
            std::string text = ascii;
            text.insert(static_cast<size_t>(at), piece);
            c.ToWide(g_pAnsiCodePage, FALSE, text, static_cast<int>(text.size()) + 1);
        }
        for (WCHAR unit : kUnits) {
            std::vector<WCHAR> wide(ascii.begin(), ascii.begin() + 64);
            wide[static_cast<size_t>(at) % 64] = unit;
            for (char* page : {static_cast<char*>(nullptr), g_pAnsiCodePage}) {
                const int worst = 12 * static_cast<int>(wide.size());
                c.ToNarrow(page, wide, worst);
                c.ToNarrow(page, wide, static_cast<int>(RoutineToNarrow(false, page, wide, worst).count) + 1);
            }
        }
    }
}

// The hook narrows the variant only to what the CPU has (a kernel it lacks
// would fault), and every variant up to the widest is there.
TEST_F(ConvertEquivTest, TheHookOffersExactlyTheVariantsUpToTheWidest) {
    for (int i = 0; i <= static_cast<int>(KsplConvIsa::kAvx2); ++i) {
        const auto isa = static_cast<KsplConvIsa>(i);
        EXPECT_EQ(KsplConvUseIsa(isa), isa <= KsplConvIsaBest()) << KsplConvIsaName(isa);
        EXPECT_EQ(KsplConvIsaInUse(), std::min(isa, KsplConvIsaBest())) << KsplConvIsaName(isa);
    }
    KsplConvUseIsa(KsplConvIsaBest());
}

INSTANTIATE_TEST_SUITE_P(Variants, ConvertVariantTest,
                         ::testing::Values(KsplConvIsa::kScalar, KsplConvIsa::kSse2,
                                           KsplConvIsa::kSsse3, KsplConvIsa::kAvx2),
                         VariantName);

INSTANTIATE_TEST_SUITE_P(CodePages, ConvertEquivTest,
                         ::testing::Values("ANSI_X3.4-1968", "ISO-8859-1", "437", "850", "866",
                                           "SHIFT_JIS", "UTF-8"));

// Code pages outside the setup take descriptors cached per thread and reset
// before each call (a first U+FFFE must not leave one swapped for good; wide
// code sets are never cached), closed at thread exit (the leak checker sees
// any that are not). A new setup invalidates every cache.
TEST_F(ConvertEquivTest, CachedDescriptorsAcrossThreadsAndSetups) {
    char pages[][12] = {"SHIFT_JIS", "ISO-8859-15", "UTF-16"};
    auto work = [&](uint32_t seed, int* failures) {
        Checker c;
        for (char* page : pages) {
            c.ToNarrow(page, {':', 0xFFFE, 0x4100}, 36);
            RandomStrings(c, page, FALSE, seed);
        }
        *failures = c.failures;
    };
    // glibc loads and unloads conversion modules under a lock of its loader
    // that ThreadSanitizer does not see: descriptors held here keep them
    // loaded while the threads open and close their own.
    std::vector<iconv_t> pins;
    for (char* page : pages) pins.push_back(iconv_open(page, "UNICODE"));
    int failures[3] = {};
    std::thread a(work, 1u, &failures[0]);
    std::thread b(work, 2u, &failures[1]);
    work(3u, &failures[2]);
    a.join();
    b.join();
    for (iconv_t pin : pins) iconv_close(pin);
    EXPECT_EQ(failures[0] + failures[1] + failures[2], 0);
    ASSERT_TRUE(SetUpCodePages("SHIFT_JIS"));
    work(4u, &failures[0]);
    EXPECT_EQ(failures[0], 0);
}

}  // namespace
