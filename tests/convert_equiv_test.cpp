// The conversions behind the services (lookup tables, the UTF-8 codec,
// cached descriptors) against the reference routines, which open a fresh
// descriptor per call and convert one character per iconv call: the same
// result, count and output area byte for byte, including what a failed
// conversion leaves behind. Every unit and every byte, then random strings
// from fixed seeds through the routines and through the services.
#include <cctype>
#include <cstdio>
#include <random>
#include <thread>

#include "conv_test_util.h"
#include "kspl_test.h"

namespace {

// Runs the code page setup with ZELTA_CODE_PAGE set; at scope end, again
// with the variable unset (the test environment does not set it).
struct CodePageSetup {
    explicit CodePageSetup(const char* oem) {
        setenv("ZELTA_CODE_PAGE", oem, 1);
        UnInitCharConvInfrastructure();
        ok = InitCharConvInfrastructure() == 0;
    }
    ~CodePageSetup() {
        unsetenv("ZELTA_CODE_PAGE");
        UnInitCharConvInfrastructure();
        EXPECT_EQ(InitCharConvInfrastructure(), 0);
    }
    bool ok;
};

std::string Hex(std::string_view bytes) {
    std::string s;
    char part[4];
    for (unsigned char b : bytes.substr(0, 64)) {
        std::snprintf(part, sizeof(part), "%02X ", b);
        s += part;
    }
    return s;
}

// Reports the first few mismatches in full; a sweep stops after them.
struct Checker {
    int failures = 0;
    bool TooMany() const { return failures > 8; }
    void Same(const char* what, std::string_view in, int cap, const ConvRun& a, const ConvRun& b) {
        if (a == b || ++failures > 8) return;
        ADD_FAILURE() << what << " of [" << Hex(in) << "] capacity " << cap << "\n  fast rc "
                      << a.rc << " count " << a.count << " [" << Hex(a.area) << "]\n  ref  rc "
                      << b.rc << " count " << b.count << " [" << Hex(b.area) << "]";
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
class TextSource {
public:
    explicit TextSource(uint32_t seed) : rng_(seed) {}
    uint32_t Pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }

    WCHAR Unit() {
        static constexpr WCHAR kSpecial[] = {0x20AC, 0xFEFF, 0xFFFE, 0, 0xD800, 0xDFFF, 0xFFFF,
                                             0x00CC, '[', ']', ':', '\\', '/', 0x3A00};
        static constexpr uint32_t kRanges[][2] = {{0x20, 0x5F},     {0x80, 0x80},  {0x100, 0x700},
                                                  {0x4E00, 0x5200}, {0xFF61, 0x3F}, {0x400, 0x60},
                                                  {0, 0x10000}};
        const uint32_t r = Pick(9);
        if (r == 0) return kSpecial[Pick(std::size(kSpecial))];
        const uint32_t* range = kRanges[std::min(r, 7u) - 1];
        return static_cast<WCHAR>(range[0] + Pick(range[1]));
    }
    std::vector<WCHAR> Units(uint32_t max) {
        std::vector<WCHAR> v(Pick(max + 1));
        for (WCHAR& u : v) u = Unit();
        return v;
    }
    std::string Bytes(char* page, uint32_t maxPieces) {
        static const char* const kPieces[] = {"[4E2D]", "[00e9]", "[zz12]", "[12", "[", "]", ":",
                                              "\\", "/", "\xCC", "\xED\xA0\x80", "\xE4\xB8",
                                              "\xF0\x9F\x98\x80", "\xC0\x80", "\xF3\xA0\x81\x81"};
        std::string s;
        for (uint32_t i = Pick(maxPieces + 1); i > 0; --i) {
            switch (Pick(5)) {
                case 0:
                case 1: s += NarrowText(RoutineToNarrow(false, page, {Unit()}, 12)); break;
                case 2: s += kPieces[Pick(std::size(kPieces))]; break;
                case 3: s += static_cast<char>(Pick(256)); break;
                default: s += '\0'; break;
            }
        }
        return s;
    }

private:
    std::mt19937 rng_;
};

// Every unit alone and between others (a descriptor treats its first
// conversion differently), with the capacity the services give and with
// the smallest one; every byte likewise, with both euro flags.
void SweepUnitsAndBytes(Checker& c, char* page) {
    for (unsigned u = 0; u < 65536 && !c.TooMany(); ++u) {
        const WCHAR w = static_cast<WCHAR>(u);
        c.ToNarrow(page, {w, 'a', w}, 36);
        c.ToNarrow(page, {w}, 1);
    }
    for (unsigned b = 0; b < 256; ++b) {
        const char x = static_cast<char>(b);
        for (BOOLEAN euro : {FALSE, TRUE}) {
            c.ToWide(page, euro, {x}, 2);
            c.ToWide(page, euro, {x, 'a', x}, 4);
            c.ToWide(page, euro, {'a', x, 'a'}, 1);
        }
    }
}

// Two-byte characters of multi-byte code pages, and what follows a
// character cut short.
void SweepBytePairs(Checker& c, char* page) {
    for (unsigned p = 0; p < 65536 && !c.TooMany(); ++p) {
        c.ToWide(page, FALSE, {static_cast<char>(p >> 8), static_cast<char>(p)}, 3);
    }
}

// Random strings through the routines: the services' capacity, the exact
// one, one more, and one that runs out.
void RandomRoutines(Checker& c, char* page, BOOLEAN euro, uint32_t seed, int count) {
    TextSource src(seed);
    for (int i = 0; i < count && !c.TooMany(); ++i) {
        std::vector<WCHAR> wide = src.Units(24);
        const int wn = static_cast<int>(wide.size());
        const long long exact = RoutineToNarrow(false, page, wide, 12 * wn).count;
        for (long long cap : {12LL * wn, exact, exact + 1, static_cast<long long>(src.Pick(wn + 2))}) {
            c.ToNarrow(page, wide, static_cast<int>(cap));
        }
        std::string narrow = src.Bytes(page, 16);
        const int nn = static_cast<int>(narrow.size());
        c.ToWide(page, euro, narrow, nn + 1);
        c.ToWide(page, euro, narrow, static_cast<int>(src.Pick(nn + 2)));
    }
}

// Random strings through the services and their length protocol: a query,
// capacities above, at and below the result, lengths with the terminator
// included, without it, and -1.
void RandomServices(Checker& c, IKspl* k, UINT32 sel, char* page, uint32_t seed, int count) {
    TextSource src(seed);
    for (int i = 0; i < count && !c.TooMany(); ++i) {
        std::vector<WCHAR> wide = src.Units(24);
        std::string narrow = src.Bytes(page, 16);
        const INT32 wn = static_cast<INT32>(wide.size());
        const INT32 nn = static_cast<INT32>(narrow.size());
        // The queried lengths (result and terminator), or 1 after a failure.
        const UINT32 wr = std::max(ServiceToNarrow(false, k, sel, wide, -1, 0).count, 1LL);
        const UINT32 nr = std::max(ServiceToWide(false, k, sel, narrow, nn + 1, 0).count, 1LL);
        const std::string_view in(reinterpret_cast<const char*>(wide.data()), 2 * wide.size());
        for (INT32 len : {-1, 0, 1}) {
            for (UINT32 cap : {0u, nr, nr - 1, nr / 2, 2u * nn + 1}) {
                c.Same("KsoMultiByteToWideChar", narrow, static_cast<int>(cap),
                       ServiceToWide(true, k, sel, narrow, len < 0 ? -1 : nn + len, cap),
                       ServiceToWide(false, k, sel, narrow, len < 0 ? -1 : nn + len, cap));
            }
            for (UINT32 cap : {0u, wr, wr - 1, wr / 2, 12u * wn + 1}) {
                c.Same("KsoWideCharToMultiByte", in, static_cast<int>(cap),
                       ServiceToNarrow(true, k, sel, wide, len < 0 ? -1 : wn + len, cap),
                       ServiceToNarrow(false, k, sel, wide, len < 0 ? -1 : wn + len, cap));
            }
        }
    }
}

struct CodePageCase {
    const char* setting;  // ZELTA_CODE_PAGE: 437, 850 and 866 imply another ANSI code page
    bool tables;          // single-byte: the setup builds lookup tables
};
void PrintTo(const CodePageCase& c, std::ostream* os) { *os << c.setting; }

class ConvertEquivTest : public KsplTest, public ::testing::WithParamInterface<CodePageCase> {};

// The OEM and ANSI code pages of each setup, and for UTF-8 also the codec of
// selector 3 with its three- and four-byte sequences around the bytes where
// validity changes.
TEST_P(ConvertEquivTest, CodePageMatchesReference) {
    CodePageSetup setup(GetParam().setting);
    ASSERT_TRUE(setup.ok);
    ASSERT_STREQ(g_pOemCodePage, GetParam().setting) << "not on this system?";
    const bool utf8 = std::string(GetParam().setting) == "UTF-8";
    struct Side {
        UINT32 selector;
        char* page;
        BOOLEAN euro;
    } sides[] = {{2, g_pOemCodePage, g_oemCodePageSupportsEuro},
                 {1, g_pAnsiCodePage, g_ansiCodePageSupportsEuro},
                 {3, nullptr, FALSE}};
    for (const Side& side : sides) {
        if (side.selector == 1 && std::string(side.page) == g_pOemCodePage) continue;
        if (side.selector == 3 && !utf8) continue;
        SCOPED_TRACE(side.page != nullptr ? side.page : "selector 3");
        if (side.page != nullptr) {
            EXPECT_EQ(KsplConvHasTables(side.page), GetParam().tables);
        }
        Checker c;
        SweepUnitsAndBytes(c, side.page);
        if (!GetParam().tables) SweepBytePairs(c, side.page);
        RandomRoutines(c, side.page, side.euro, 1234 + side.selector, 300);
        RandomServices(c, k, side.selector, side.page, 99 + side.selector, 60);
        static constexpr unsigned char kEdges[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90,
                                                   0x9F, 0xA0, 0xBF, 0xC0, 0xFF};
        for (unsigned lead = 0xE0; side.selector == 3 && lead <= 0xFF; ++lead) {
            for (unsigned second = 0; second < 256 && !c.TooMany(); ++second) {
                for (unsigned char third : kEdges) {
                    std::string seq = {static_cast<char>(lead), static_cast<char>(second),
                                       static_cast<char>(third)};
                    c.ToWide(nullptr, FALSE, seq, 4);
                    c.ToWide(nullptr, FALSE, "a" + seq + "\x80", 6);
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(CodePages, ConvertEquivTest,
                         ::testing::Values(CodePageCase{"ANSI_X3.4-1968", true},
                                           CodePageCase{"ISO-8859-1", true},
                                           CodePageCase{"437", true}, CodePageCase{"850", true},
                                           CodePageCase{"866", true},
                                           CodePageCase{"SHIFT_JIS", false},
                                           CodePageCase{"UTF-8", false}),
                         [](const ::testing::TestParamInfo<CodePageCase>& info) {
                             std::string name = std::string("cp_") + info.param.setting;
                             std::replace_if(name.begin(), name.end(),
                                             [](char ch) { return !std::isalnum(ch); }, '_');
                             return name;
                         });

// A code page outside the setup takes a descriptor cached per thread and
// reset before each call; a call that starts with U+FFFE would switch it to
// swapped byte order for good. Wide code sets are never cached.
TEST_F(ConvertEquivTest, CodePagesOutsideTheSetup) {
    char latin9[] = "ISO-8859-15";
    char gb[] = "GB18030";
    char utf16[] = "UTF-16";
    Checker c;
    for (char* page : {latin9, gb, utf16}) {
        SCOPED_TRACE(page);
        for (int round = 0; round < 2; ++round) {
            c.ToNarrow(page, {0xFFFE, 0x4100, 0x00E9, 0x3A00}, 48);
            c.ToNarrow(page, {0x4100, 'A', 0x00E9}, 36);
            c.ToNarrow(page, {':', 0xFFFE, 0x4100}, 36);
            c.ToNarrow(page, {0xFEFF, 'A'}, 24);
        }
        RandomRoutines(c, page, FALSE, 4321, 200);
    }
    SweepBytePairs(c, gb);
}

// Threads with descriptors of their own (closed at thread exit: the leak
// checker sees any that are not) and large conversions through paged
// memory of one shared instance; a new setup invalidates every cache.
TEST_F(ConvertEquivTest, ThreadsAndSetupsKeepResults) {
    char sjis[] = "SHIFT_JIS";
    auto work = [&](uint32_t seed, int* failures) {
        Checker c;
        RandomRoutines(c, sjis, FALSE, seed, 60);
        std::vector<WCHAR> big(300, u'\u00E9');
        const ConvRun one = ServiceToNarrow(true, k, 3, big, -1, 700);
        for (int i = 0; i < 20; ++i) {
            c.Same("KsoWideCharToMultiByte", "", 700, ServiceToNarrow(true, k, 3, big, -1, 700), one);
        }
        *failures = c.failures;
    };
    // glibc loads and unloads conversion modules under a lock of its loader
    // that ThreadSanitizer does not see: descriptors held here keep them
    // loaded while the threads open and close their own.
    iconv_t pins[] = {iconv_open("SHIFT_JIS", "UNICODE"), iconv_open("UNICODE", "SHIFT_JIS")};
    int failures[3] = {};
    std::thread a(work, 1u, &failures[0]);
    std::thread b(work, 2u, &failures[1]);
    work(3u, &failures[2]);
    a.join();
    b.join();
    for (iconv_t pin : pins) iconv_close(pin);
    EXPECT_EQ(failures[0] + failures[1] + failures[2], 0);
    {
        CodePageSetup setup("SHIFT_JIS");
        ASSERT_TRUE(setup.ok);
        work(4u, &failures[0]);
        EXPECT_EQ(failures[0], 0);
    }
}

}  // namespace
