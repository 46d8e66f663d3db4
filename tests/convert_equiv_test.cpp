// The conversions behind the services (lookup tables, the UTF-8 codec, the
// cached descriptors) against the reference routines, which open a fresh
// descriptor per call and convert one character per iconv call: the same
// return value, the same count, and the same output buffer byte for byte,
// including what a failed conversion leaves behind. Every unit and every
// byte alone, then random strings from fixed seeds, at the routine level and
// through the length protocol of the services.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "conv_test_util.h"
#include "convert_int.h"
#include "kspl_test.h"
#include "locale_int.h"

namespace {

constexpr WCHAR kSentinelUnit = 0xA5A5;
constexpr char kSentinelByte = '\x5A';

// Runs the code page setup again with ZELTA_CODE_PAGE set, and once more
// with the previous environment at the end.
class CodePageSetup {
public:
    explicit CodePageSetup(const char* oem) {
        const char* previous = std::getenv("ZELTA_CODE_PAGE");
        hadPrevious_ = previous != nullptr;
        if (hadPrevious_) previous_ = previous;
        setenv("ZELTA_CODE_PAGE", oem, 1);
        UnInitCharConvInfrastructure();
        ok_ = InitCharConvInfrastructure() == 0;
    }
    ~CodePageSetup() {
        if (hadPrevious_) {
            setenv("ZELTA_CODE_PAGE", previous_.c_str(), 1);
        } else {
            unsetenv("ZELTA_CODE_PAGE");
        }
        UnInitCharConvInfrastructure();
        EXPECT_EQ(InitCharConvInfrastructure(), 0);
    }
    CodePageSetup(const CodePageSetup&) = delete;
    CodePageSetup& operator=(const CodePageSetup&) = delete;
    bool ok() const { return ok_; }

private:
    bool hadPrevious_ = false;
    std::string previous_;
    bool ok_ = false;
};

template <typename T>
struct Outcome {
    int rc;
    int count;
    std::vector<T> buffer;  // the whole output area, sentinels included
    bool operator==(const Outcome&) const = default;
};

template <typename T>
std::string Hex(const std::vector<T>& v, size_t limit = 48) {
    std::string s;
    char part[8];
    for (size_t i = 0; i < v.size() && i < limit; ++i) {
        std::snprintf(part, sizeof(part), sizeof(T) == 1 ? "%02X " : "%04X ",
                      static_cast<unsigned>(static_cast<std::make_unsigned_t<T>>(v[i])));
        s += part;
    }
    return s;
}

template <typename T>
std::string Describe(const Outcome<T>& o) {
    return "rc " + std::to_string(o.rc) + " count " + std::to_string(o.count) + " [" +
           Hex(o.buffer) + "]";
}

// The four character routines, fast (exported) or reference.
Outcome<WCHAR> RunLocToUni(bool fast, char* cp, BOOLEAN euro, std::vector<char> in, int capacity) {
    Outcome<WCHAR> o{0, capacity, std::vector<WCHAR>(static_cast<size_t>(capacity) + 4, kSentinelUnit)};
    o.rc = (fast ? LocToUni : KsplRefLocToUni)(cp, euro, in.data(), static_cast<int>(in.size()),
                                               o.buffer.data(), &o.count);
    return o;
}
Outcome<WCHAR> RunUtf8ToUni(bool fast, std::vector<char> in, int capacity) {
    Outcome<WCHAR> o{0, capacity, std::vector<WCHAR>(static_cast<size_t>(capacity) + 4, kSentinelUnit)};
    o.rc = (fast ? Utf8ToUni : KsplRefUtf8ToUni)(in.data(), static_cast<int>(in.size()),
                                                 o.buffer.data(), &o.count);
    return o;
}
Outcome<char> RunUniToLoc(bool fast, char* cp, std::vector<WCHAR> in, int capacity) {
    Outcome<char> o{0, capacity, std::vector<char>(static_cast<size_t>(capacity) + 4, kSentinelByte)};
    o.rc = (fast ? UniToLoc : KsplRefUniToLoc)(cp, in.data(), static_cast<int>(in.size()),
                                               o.buffer.data(), &o.count);
    return o;
}
Outcome<char> RunUniToUtf8(bool fast, std::vector<WCHAR> in, int capacity) {
    Outcome<char> o{0, capacity, std::vector<char>(static_cast<size_t>(capacity) + 4, kSentinelByte)};
    o.rc = (fast ? UniToUtf8 : KsplRefUniToUtf8)(in.data(), static_cast<int>(in.size()),
                                                 o.buffer.data(), &o.count);
    return o;
}

// Counts mismatches; a sweep stops reporting after a few.
class Checker {
public:
    template <typename In, typename T>
    bool Same(const char* what, const std::vector<In>& input, int capacity,
              const Outcome<T>& fast, const Outcome<T>& ref) {
        if (fast == ref) return true;
        if (++failures_ <= 8) {
            ADD_FAILURE() << what << " of [" << Hex(input) << "] capacity " << capacity
                          << "\n  fast      " << Describe(fast) << "\n  reference " << Describe(ref);
        }
        return false;
    }
    bool TooMany() const { return failures_ > 8; }

private:
    int failures_ = 0;
};

// Input alone and in the middle of a string: a descriptor treats its first
// iconv call differently from later ones.
std::vector<WCHAR> AloneAndInside(WCHAR u) { return {u, 'a', u}; }

void CompareToNarrow(Checker& c, char* cp, const std::vector<WCHAR>& in, int capacity) {
    if (cp == nullptr) {
        c.Same("UniToUtf8", in, capacity, RunUniToUtf8(true, in, capacity),
               RunUniToUtf8(false, in, capacity));
    } else {
        c.Same("UniToLoc", in, capacity, RunUniToLoc(true, cp, in, capacity),
               RunUniToLoc(false, cp, in, capacity));
    }
}

void CompareToWide(Checker& c, char* cp, BOOLEAN euro, const std::vector<char>& in, int capacity) {
    if (cp == nullptr) {
        c.Same("Utf8ToUni", in, capacity, RunUtf8ToUni(true, in, capacity),
               RunUtf8ToUni(false, in, capacity));
    } else {
        c.Same("LocToUni", in, capacity, RunLocToUni(true, cp, euro, in, capacity),
               RunLocToUni(false, cp, euro, in, capacity));
    }
}

// Every 16-bit unit, alone and inside a string, with the capacity the
// services give (twelve bytes per unit) and with the smallest one that
// lets the reference start.
void SweepUnits(Checker& c, char* cp) {
    for (unsigned u = 0; u < 65536 && !c.TooMany(); ++u) {
        std::vector<WCHAR> in = AloneAndInside(static_cast<WCHAR>(u));
        CompareToNarrow(c, cp, in, 36);
        CompareToNarrow(c, cp, {static_cast<WCHAR>(u)}, 1);
    }
}

// Every byte alone and inside a string; with both euro flags for a code
// page, since 0xCC reads as U+20AC only without the euro sign.
void SweepBytes(Checker& c, char* cp) {
    for (unsigned b = 0; b < 256 && !c.TooMany(); ++b) {
        const char x = static_cast<char>(b);
        for (BOOLEAN euro : {FALSE, TRUE}) {
            CompareToWide(c, cp, euro, {x}, 2);
            CompareToWide(c, cp, euro, {x, 'a', x}, 4);
            CompareToWide(c, cp, euro, {'a', x, 'a'}, 1);
            if (cp == nullptr) break;
        }
    }
}

// Every pair of bytes: two-byte characters of multi-byte code pages and of
// UTF-8, and what follows an incomplete one.
void SweepBytePairs(Checker& c, char* cp, BOOLEAN euro) {
    for (unsigned p = 0; p < 65536 && !c.TooMany(); ++p) {
        CompareToWide(c, cp, euro, {static_cast<char>(p >> 8), static_cast<char>(p & 0xFF)}, 3);
    }
}

// Random text. Units and bytes are drawn from classes that exercise the
// rules: separators, brackets and escapes, the euro sign and 0xCC,
// byte-order marks, surrogates, NULs, characters of the code page.
class TextSource {
public:
    explicit TextSource(uint32_t seed) : rng_(seed) {}

    WCHAR Unit() {
        static constexpr WCHAR kSpecial[] = {0x20AC, 0xFEFF, 0xFFFE, 0x0000, 0xD800, 0xDBFF,
                                             0xDC00, 0xDFFF, 0xFFFF, 0x00CC, '[',    ']',
                                             ':',    '\\',   '/',    0x3A00, 0x5C00, 0x2F00};
        switch (Pick(10)) {
            case 0:
            case 1:
            case 2: return static_cast<WCHAR>(0x20 + Pick(0x5F));
            case 3: return kSpecial[Pick(sizeof(kSpecial) / sizeof(kSpecial[0]))];
            case 4: return static_cast<WCHAR>(0x80 + Pick(0x80));
            case 5: return static_cast<WCHAR>(0x100 + Pick(0x700));
            case 6: return static_cast<WCHAR>(0x4E00 + Pick(0x5200));
            case 7: return static_cast<WCHAR>(0xFF61 + Pick(0x3F));  // half-width katakana
            case 8: return static_cast<WCHAR>(0x0400 + Pick(0x60));  // Cyrillic
            default: return static_cast<WCHAR>(Pick(0x10000));
        }
    }

    std::vector<WCHAR> Units(size_t maxLength) {
        std::vector<WCHAR> v(Pick(static_cast<uint32_t>(maxLength) + 1));
        for (WCHAR& u : v) u = Unit();
        return v;
    }

    // Bytes of a code page: characters of it (encoded through iconv), bare
    // bytes, separators, escapes well and badly formed, 0xCC. cp null: UTF-8,
    // with sequences truncated or broken now and then.
    std::vector<char> Bytes(const char* cp, size_t maxUnits) {
        std::vector<char> v;
        const size_t units = Pick(static_cast<uint32_t>(maxUnits) + 1);
        for (size_t i = 0; i < units; ++i) {
            switch (Pick(12)) {
                case 0:
                case 1:
                case 2:
                case 3: AppendEncoded(&v, cp, Unit()); break;
                case 4: v.push_back(static_cast<char>(0x20 + Pick(0x5F))); break;
                case 5: v.push_back(static_cast<char>(Pick(256))); break;
                case 6: v.push_back("/\\:"[Pick(3)]); break;
                case 7: {
                    static constexpr char kDigits[] = "0123456789abcdefABCDEFgz[] \xCC";
                    v.push_back('[');
                    for (int d = 0; d < 4; ++d) v.push_back(kDigits[Pick(sizeof(kDigits) - 1)]);
                    v.push_back(Pick(4) == 0 ? 'x' : ']');
                    break;
                }
                case 8: v.push_back(static_cast<char>(0xCC)); break;
                case 9: v.push_back("[]"[Pick(2)]); break;
                case 10:
                    if (cp == nullptr) {
                        // A tag character, a sequence cut short, a surrogate.
                        static const char* const kOdd[] = {"\xF3\xA0\x81\x81", "\xE4\xB8",
                                                           "\xED\xA0\x80", "\xC0\x80",
                                                           "\xF0\x9F\x98\x80", "\xEF\xBF\xBE"};
                        const char* s = kOdd[Pick(6)];
                        v.insert(v.end(), s, s + std::strlen(s));
                    } else {
                        AppendEncoded(&v, cp, static_cast<WCHAR>(0x4E00 + Pick(0x5200)));
                    }
                    break;
                default: v.push_back('\0'); break;
            }
        }
        return v;
    }

    uint32_t Pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }

private:
    static void AppendEncoded(std::vector<char>* v, const char* cp, WCHAR u) {
        iconv_t cd = iconv_open(cp != nullptr ? cp : "UTF-8", "UTF-16LE");
        if (cd == reinterpret_cast<iconv_t>(-1)) return;
        unsigned char src[2] = {static_cast<unsigned char>(u & 0xFF), static_cast<unsigned char>(u >> 8)};
        char dst[8];
        char* inPtr = reinterpret_cast<char*>(src);
        size_t inLeft = 2;
        char* outPtr = dst;
        size_t outLeft = sizeof(dst);
        if (iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft) != static_cast<size_t>(-1)) {
            v->insert(v->end(), dst, outPtr);
        }
        iconv_close(cd);
    }

    std::mt19937 rng_;
};

// Random strings through the character routines with the capacity the
// services give, an exact capacity, and one that runs out.
void CompareRandomStrings(Checker& c, char* cp, BOOLEAN euro, uint32_t seed, int count) {
    TextSource src(seed);
    for (int i = 0; i < count && !c.TooMany(); ++i) {
        std::vector<WCHAR> wide = src.Units(24);
        const int wn = static_cast<int>(wide.size());
        CompareToNarrow(c, cp, wide, 12 * wn);
        Outcome<char> exact = cp != nullptr ? RunUniToLoc(false, cp, wide, 12 * wn)
                                            : RunUniToUtf8(false, wide, 12 * wn);
        if (exact.rc == 0) {
            CompareToNarrow(c, cp, wide, exact.count);
            CompareToNarrow(c, cp, wide, exact.count + 1);
        }
        CompareToNarrow(c, cp, wide, static_cast<int>(src.Pick(static_cast<uint32_t>(wn) + 2)));

        std::vector<char> narrow = src.Bytes(cp, 16);
        const int nn = static_cast<int>(narrow.size());
        CompareToWide(c, cp, euro, narrow, nn + 1);
        CompareToWide(c, cp, euro, narrow, static_cast<int>(src.Pick(static_cast<uint32_t>(nn) + 2)));
    }
}

// Random strings through the services and the length protocol: a length
// query, capacities above, at and below the result, with a terminator
// included in the explicit length or a length of -1.
template <typename In, typename Out, typename Fn>
void CompareService(Checker& c, const char* what, Fn fn, Fn ref, UINT32 codePage, std::vector<In> in,
                    IKspl* k) {
    std::vector<In> terminated = in;
    terminated.push_back(0);
    const bool hasNul = std::find(in.begin(), in.end(), In(0)) != in.end();
    UINT32 query = 0;
    const KSSTATUS queried = ref(k, codePage, terminated.data(), static_cast<INT32>(terminated.size()),
                                 nullptr, &query);
    const UINT32 result = queried == 0 ? query - 1 : 8;
    std::vector<UINT32> capacities = {0, result + 1, result, result / 2, 12 * static_cast<UINT32>(in.size()) + 1};
    for (UINT32 capacity : capacities) {
        for (INT32 length : {static_cast<INT32>(terminated.size()), static_cast<INT32>(in.size()), -1}) {
            if (length == 0 || (length == -1 && hasNul)) continue;
            auto run = [&](Fn f) {
                Outcome<Out> o{0, static_cast<int>(capacity),
                               std::vector<Out>(capacity + 4, static_cast<Out>(sizeof(Out) == 1 ? kSentinelByte : kSentinelUnit))};
                UINT32 len = capacity;
                o.rc = static_cast<int>(f(k, codePage, terminated.data(), length,
                                          capacity == 0 ? nullptr : o.buffer.data(), &len));
                o.count = static_cast<int>(len);
                return o;
            };
            if (!c.Same(what, in, static_cast<int>(capacity), run(fn), run(ref))) return;
        }
    }
}

void CompareServices(Checker& c, IKspl* k, UINT32 codePage, uint32_t seed, int count) {
    TextSource src(seed);
    const char* cp = codePage == 3 ? nullptr : codePage == 2 ? g_pOemCodePage : g_pAnsiCodePage;
    for (int i = 0; i < count && !c.TooMany(); ++i) {
        CompareService<WCHAR, char>(c, "KsoWideCharToMultiByte", KsoWideCharToMultiByte,
                                    KsplRefWideCharToMultiByte, codePage, src.Units(24), k);
        CompareService<char, WCHAR>(c, "KsoMultiByteToWideChar", KsoMultiByteToWideChar,
                                    KsplRefMultiByteToWideChar, codePage, src.Bytes(cp, 16), k);
    }
}

struct CodePageCase {
    const char* setting;  // ZELTA_CODE_PAGE
    bool oemTables;       // the OEM code page probes as single-byte
    bool ansiTables;
};

void PrintTo(const CodePageCase& c, std::ostream* os) { *os << c.setting; }

class ConvertEquivTest : public KsplTest, public ::testing::WithParamInterface<CodePageCase> {};

// Each code page of the setup: every unit and byte, random strings through
// the routines and the services, for the OEM and (when it differs) the ANSI
// code page.
TEST_P(ConvertEquivTest, CodePageMatchesReference) {
    const CodePageCase& param = GetParam();
    CodePageSetup setup(param.setting);
    ASSERT_TRUE(setup.ok());
    ASSERT_TRUE(CodePageValid(const_cast<char*>(param.setting))) << "not on this system?";
    struct Side {
        UINT32 selector;
        char* name;
        BOOLEAN euro;
        bool tables;
    };
    const Side sides[] = {{2, g_pOemCodePage, g_oemCodePageSupportsEuro, param.oemTables},
                          {1, g_pAnsiCodePage, g_ansiCodePageSupportsEuro, param.ansiTables}};
    for (const Side& side : sides) {
        if (side.selector == 1 && std::strcmp(side.name, g_pOemCodePage) == 0) break;
        SCOPED_TRACE(side.name);
        EXPECT_EQ(KsplConvHasTables(side.name), side.tables);
        // The same name in another buffer finds the same tables.
        std::string copy = side.name;
        EXPECT_EQ(KsplConvHasTables(copy.c_str()), side.tables);

        Checker c;
        SweepUnits(c, side.name);
        SweepBytes(c, side.name);
        if (!side.tables) SweepBytePairs(c, side.name, side.euro);
        CompareRandomStrings(c, side.name, side.euro, 1234 + side.selector, 300);
        CompareServices(c, k, side.selector, 99 + side.selector, 60);
    }
}

INSTANTIATE_TEST_SUITE_P(
    CodePages, ConvertEquivTest,
    ::testing::Values(CodePageCase{"ANSI_X3.4-1968", true, true}, CodePageCase{"ISO-8859-1", true, true},
                      CodePageCase{"437", true, true},  // ANSI: WINDOWS-1252
                      CodePageCase{"850", true, true}, CodePageCase{"866", true, true},  // WINDOWS-1251
                      CodePageCase{"SHIFT_JIS", false, false}, CodePageCase{"UTF-8", false, false}),
    [](const ::testing::TestParamInfo<CodePageCase>& info) {
        std::string name = std::string("cp_") + info.param.setting;
        for (char& ch : name) {
            if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        }
        return name;
    });

// UTF-8 of the selector 3: every unit; every byte, byte pair, and three- and
// four-byte sequences over the bytes where validity changes; at the start
// of the input and after a character.
TEST_F(ConvertEquivTest, Utf8MatchesReference) {
    Checker c;
    SweepUnits(c, nullptr);
    SweepBytes(c, nullptr);
    SweepBytePairs(c, nullptr, FALSE);
    static constexpr unsigned char kEdges[] = {0x00, 0x41, 0x7F, 0x80, 0x81, 0x8F, 0x90,
                                               0x9F, 0xA0, 0xBF, 0xC0, 0xFF};
    for (unsigned lead = 0xE0; lead <= 0xFF && !c.TooMany(); ++lead) {
        for (unsigned second = 0; second < 256; ++second) {
            for (unsigned char third : kEdges) {
                std::vector<char> seq = {static_cast<char>(lead), static_cast<char>(second),
                                         static_cast<char>(third)};
                if (lead < 0xF0) {
                    CompareToWide(c, nullptr, FALSE, seq, 4);
                    continue;
                }
                for (unsigned char fourth : kEdges) {
                    std::vector<char> four = seq;
                    four.push_back(static_cast<char>(fourth));
                    CompareToWide(c, nullptr, FALSE, four, 4);
                    four.insert(four.begin(), 'a');
                    CompareToWide(c, nullptr, FALSE, four, 5);
                }
            }
        }
    }
    CompareRandomStrings(c, nullptr, FALSE, 77, 400);
    CompareServices(c, k, 3, 78, 100);
}

// A code page outside the setup goes through a descriptor cached for the
// thread and reset before each call, single-byte or not. A call that starts
// with U+FFFE switches a descriptor to swapped byte order for good; the
// calls after it must not see that.
TEST_F(ConvertEquivTest, CodePagesOutsideTheSetupUseCachedDescriptors) {
    char latin9[] = "ISO-8859-15";
    char gb[] = "GB18030";
    char utf16[] = "UTF-16";  // a wide code set: never cached
    ASSERT_FALSE(KsplConvHasTables(latin9));
    Checker c;
    for (char* cp : {latin9, gb, utf16}) {
        SCOPED_TRACE(cp);
        const std::vector<WCHAR> swapped = {0xFFFE, 0x4100, 0x00E9, 0x3A00};
        const std::vector<WCHAR> plain = {0x4100, 'A', 0x00E9};
        for (int round = 0; round < 2; ++round) {
            CompareToNarrow(c, cp, swapped, 48);
            CompareToNarrow(c, cp, plain, 36);
            CompareToNarrow(c, cp, {':', 0xFFFE, 0x4100}, 36);
            CompareToNarrow(c, cp, {0xFEFF, 'A'}, 24);
        }
        CompareRandomStrings(c, cp, FALSE, 4321, 200);
    }
    SweepUnits(c, latin9);
    SweepBytePairs(c, gb, FALSE);
}

// Each thread has its own descriptors, closed when it exits (the leak
// checker sees any that are not); a new setup invalidates them.
TEST_F(ConvertEquivTest, DescriptorsPerThreadAndAcrossSetups) {
    char sjis[] = "SHIFT_JIS";
    auto work = [&](uint32_t seed, int* failures) {
        TextSource src(seed);
        for (int i = 0; i < 100; ++i) {
            std::vector<WCHAR> wide = src.Units(16);
            const int cap = 12 * static_cast<int>(wide.size());
            if (!(RunUniToLoc(true, sjis, wide, cap) == RunUniToLoc(false, sjis, wide, cap))) ++*failures;
            std::vector<char> narrow = src.Bytes(sjis, 12);
            const int wcap = static_cast<int>(narrow.size()) + 1;
            if (!(RunLocToUni(true, sjis, FALSE, narrow, wcap) == RunLocToUni(false, sjis, FALSE, narrow, wcap))) {
                ++*failures;
            }
        }
    };
    // glibc loads and unloads conversion modules under a lock of its loader
    // that ThreadSanitizer does not see; a descriptor held here keeps them
    // loaded while the threads open and close their own.
    iconv_t pin = iconv_open("SHIFT_JIS", "UNICODE");
    ASSERT_NE(pin, reinterpret_cast<iconv_t>(-1));
    iconv_t pinSource = iconv_open("SHIFT_JIS", "UTF-16LE");  // the text source's
    ASSERT_NE(pinSource, reinterpret_cast<iconv_t>(-1));
    int failures[3] = {};
    std::thread a(work, 1u, &failures[0]);
    std::thread b(work, 2u, &failures[1]);
    work(3u, &failures[2]);
    a.join();
    b.join();
    EXPECT_EQ(failures[0] + failures[1] + failures[2], 0);
    iconv_close(pinSource);
    iconv_close(pin);

    {
        CodePageSetup setup("SHIFT_JIS");
        ASSERT_TRUE(setup.ok());
        int more = 0;
        work(4u, &more);
        EXPECT_EQ(more, 0);
    }
    EXPECT_FALSE(KsplConvHasTables(sjis));
}

// The tables live exactly as long as the setup's names.
TEST_F(ConvertEquivTest, TablesFollowTheSetup) {
    std::string name;
    {
        CodePageSetup setup("ISO-8859-1");
        ASSERT_TRUE(setup.ok());
        name = g_pOemCodePage;
        EXPECT_TRUE(KsplConvHasTables(name.c_str()));
        UnInitCharConvInfrastructure();
        EXPECT_FALSE(KsplConvHasTables(name.c_str()));
        UnInitCharConvInfrastructure();  // twice: nothing left to free
    }
    EXPECT_FALSE(KsplConvHasTables(nullptr));
}

}  // namespace
