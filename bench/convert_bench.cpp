// Character conversion: the IKspl services (per-character iconv, one
// descriptor per call) beside one bulk iconv call over the same text with a
// descriptor opened once.
//
// Texts of 16, 1024 and 65536 characters: ASCII, Latin-1 letters, and text
// with every tenth character outside Latin-1 (escaped by the services in
// ISO-8859-1; ordinary three-byte characters in UTF-8). Both directions,
// with ISO-8859-1 as the OEM code page (selector 2) and with UTF-8
// (selector 3). Throughput counts characters of the text (MB/s = million
// characters per second). The services get output buffers large enough
// for the worst case, so they write in place without a work buffer.
//
// The bulk baseline for 16-bit to ISO-8859-1 with characters outside
// Latin-1 uses //TRANSLIT (it writes '?' for them instead of escaping
// them; //IGNORE would stop early and flatter the baseline).
#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"
#include "locale_int.h"

namespace {

enum class Kind { Ascii, Latin1, Foreign10 };
enum class Page { Latin1, Utf8 };

const char* KindName(Kind k) {
    return k == Kind::Ascii ? "ascii" : k == Kind::Latin1 ? "latin1" : "foreign10pct";
}
const char* PageName(Page p) { return p == Page::Latin1 ? "ISO-8859-1" : "UTF-8"; }
UINT32 Selector(Page p) { return p == Page::Latin1 ? 2u : 3u; }

std::vector<WCHAR> MakeText(Kind kind, size_t chars) {
    static const char16_t kLatin1[] = u"\u00E9\u00E8\u00E0\u00FC\u00F6\u00E4\u00DF\u00E7";
    static const char16_t kForeign[] = u"\u4E2D\u6587\u0416\u03A9\u20AC";
    std::vector<WCHAR> text;
    text.reserve(chars + 1);
    for (size_t i = 0; i < chars; ++i) {
        WCHAR c = static_cast<WCHAR>('a' + i % 26);
        if (i % 7 == 6) c = ' ';
        if (kind == Kind::Latin1 && i % 3 == 1) c = kLatin1[i % 8];
        if (kind == Kind::Foreign10 && i % 10 == 9) c = kForeign[i % 5];
        text.push_back(c);
    }
    text.push_back(0);
    return text;
}

IKspl* Instance() {
    static IKspl* k = [] {
        IKspl* instance = BenchInstance();
        // A fixed OEM code page whatever the machine's locale says.
        static char latin1[] = "ISO-8859-1";
        g_pOemCodePage = latin1;
        g_oemCodePageSupportsEuro = FALSE;
        return instance;
    }();
    return k;
}

std::string NarrowOf(const std::vector<WCHAR>& wide, Page page) {
    IKspl* k = Instance();
    std::vector<char> out(12 * wide.size() + 1);
    UINT32 len = static_cast<UINT32>(out.size());
    if (KsoWideCharToMultiByte(k, Selector(page), const_cast<WCHAR*>(wide.data()), -1, out.data(),
                               &len) != 0) {
        std::abort();
    }
    return std::string(out.data(), len);
}

// Throughput of each case, service and bulk baseline, from the CPU time
// over the measured loop; the last (longest) run of a case wins.
struct Rates {
    double kspl = 0;
    double iconv = 0;
};
std::map<std::string, Rates>& RateTable() {
    static auto* table = new std::map<std::string, Rates>;
    return *table;
}

// Process CPU time; the library's own threads are idle while the
// benchmarks run.
double CpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

void Finish(benchmark::State& state, const char* direction, bool service, Kind kind, Page page,
            size_t chars, double cpuStart) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * chars));
    const double seconds = CpuSeconds() - cpuStart;
    if (seconds <= 0) return;
    char name[96];
    std::snprintf(name, sizeof(name), "%s/%s/%s/%zu", direction, PageName(page), KindName(kind),
                  chars);
    Rates& r = RateTable()[name];
    (service ? r.kspl : r.iconv) = static_cast<double>(state.iterations() * chars) / seconds;
}

// Each service beside its bulk iconv baseline: MB/s of both and how many
// times slower the service is.
void PrintRatios() {
    std::printf("\n%-40s %12s %12s %10s\n", "case", "kspl MB/s", "iconv MB/s", "slowdown");
    for (const auto& [name, r] : RateTable()) {
        if (r.kspl <= 0 || r.iconv <= 0) continue;
        std::printf("%-40s %12.2f %12.2f %9.0fx\n", name.c_str(), r.kspl / 1e6, r.iconv / 1e6,
                    r.iconv / r.kspl);
    }
}

void BM_KsplToNarrow(benchmark::State& state, Kind kind, Page page) {
    IKspl* k = Instance();
    const size_t chars = static_cast<size_t>(state.range(0));
    std::vector<WCHAR> text = MakeText(kind, chars);
    std::vector<char> out(12 * chars + 1);
    const double cpuStart = CpuSeconds();
    for (auto _ : state) {
        UINT32 len = static_cast<UINT32>(out.size());
        KSSTATUS st = KsoWideCharToMultiByte(k, Selector(page), text.data(),
                                             static_cast<INT32>(chars), out.data(), &len);
        if (st != 0) state.SkipWithError("conversion failed");
        benchmark::DoNotOptimize(out.data());
    }
    Finish(state, "to_narrow", true, kind, page, chars, cpuStart);
}

void BM_KsplToWide(benchmark::State& state, Kind kind, Page page) {
    IKspl* k = Instance();
    const size_t chars = static_cast<size_t>(state.range(0));
    std::string narrow = NarrowOf(MakeText(kind, chars), page);
    std::vector<WCHAR> out(narrow.size() + 1);
    const double cpuStart = CpuSeconds();
    for (auto _ : state) {
        UINT32 len = static_cast<UINT32>(out.size());
        KSSTATUS st = KsoMultiByteToWideChar(k, Selector(page), narrow.data(),
                                             static_cast<INT32>(narrow.size()), out.data(), &len);
        if (st != 0) state.SkipWithError("conversion failed");
        benchmark::DoNotOptimize(out.data());
    }
    Finish(state, "to_wide", true, kind, page, chars, cpuStart);
}

// One iconv call over the whole text per iteration; the descriptor is
// opened once and reset between iterations.
void RunBulk(benchmark::State& state, const char* direction, Kind kind, Page page, const char* to,
             const char* from, const void* in, size_t inBytes, size_t outBytes, size_t chars) {
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        state.SkipWithError("iconv_open failed");
        return;
    }
    std::vector<char> out(outBytes);
    const double cpuStart = CpuSeconds();
    for (auto _ : state) {
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        char* inPtr = const_cast<char*>(static_cast<const char*>(in));
        size_t inLeft = inBytes;
        char* outPtr = out.data();
        size_t outLeft = out.size();
        benchmark::DoNotOptimize(iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft));
        benchmark::DoNotOptimize(out.data());
    }
    Finish(state, direction, false, kind, page, chars, cpuStart);
    iconv_close(cd);
}

void BM_IconvToNarrow(benchmark::State& state, Kind kind, Page page) {
    const size_t chars = static_cast<size_t>(state.range(0));
    std::vector<WCHAR> text = MakeText(kind, chars);
    std::string to = PageName(page);
    if (page == Page::Latin1 && kind == Kind::Foreign10) to += "//TRANSLIT";
    RunBulk(state, "to_narrow", kind, page, to.c_str(), "UNICODE", text.data(), 2 * chars, 4 * chars + 8, chars);
}

void BM_IconvToWide(benchmark::State& state, Kind kind, Page page) {
    const size_t chars = static_cast<size_t>(state.range(0));
    std::string narrow = NarrowOf(MakeText(kind, chars), page);
    RunBulk(state, "to_wide", kind, page, "UNICODE", PageName(page), narrow.data(), narrow.size(),
            2 * narrow.size() + 8, chars);
}

void Register() {
    for (Page page : {Page::Latin1, Page::Utf8}) {
        for (Kind kind : {Kind::Ascii, Kind::Latin1, Kind::Foreign10}) {
            const std::string suffix = std::string("/") + PageName(page) + "/" + KindName(kind);
            auto add = [&](const std::string& name, auto fn) {
                benchmark::RegisterBenchmark(name.c_str(), fn, kind, page)
                    ->Arg(16)
                    ->Arg(1024)
                    ->Arg(65536)
                    ->MinTime(0.2);
            };
            add("to_narrow/kspl" + suffix, BM_KsplToNarrow);
            add("to_narrow/iconv" + suffix, BM_IconvToNarrow);
            add("to_wide/kspl" + suffix, BM_KsplToWide);
            add("to_wide/iconv" + suffix, BM_IconvToWide);
        }
    }
}

}  // namespace

// Runs after the benchmarks (registered before they start).
const bool kRegistered = [] {
    Register();
    RateTable();
    std::atexit(PrintRatios);
    return true;
}();

BENCHMARK_MAIN();
