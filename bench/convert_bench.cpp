// Character conversion: the IKspl services (kspl), the same length protocol
// over the reference routines (ref: one descriptor per call, one iconv call
// per character), and one bulk iconv call over the same text with a
// descriptor opened once (iconv), side by side.
//
// Names: <direction>/<impl>/<code page>/<text>/<characters>, with direction
// to_narrow (16-bit to narrow) or to_wide, impl kspl, ref or iconv. Code
// pages: ISO-8859-1 (OEM of the setup ZELTA_CODE_PAGE=ISO-8859-1),
// WINDOWS-1252 (ANSI of the setup 437), UTF-8 (selector 3), SHIFT_JIS (OEM
// of the setup SHIFT_JIS: not single-byte, converted on a cached
// descriptor). Texts: ASCII; Latin-1 letters; every tenth character outside
// Latin-1 (escaped by the services in the single-byte code pages, ordinary
// characters in UTF-8); Japanese (kana, kanji and ASCII) for SHIFT_JIS.
// Throughput: bytes_per_second counts characters of the text; the counter
// GB/s counts input bytes (16-bit units: two bytes each; narrow text: its
// encoded length) in 10^9 bytes per CPU second. The services get output
// buffers large enough for the worst case, so they write in place without a
// work buffer.
//
// variant/<isa>/<direction>/<code page>/<text>/65536 runs the services with
// the vector kernels forced to one variant (scalar is what a plain i686
// runs), skipped where the CPU lacks it.
//
// The bulk baseline for 16-bit to a single-byte code page with characters
// it lacks uses //TRANSLIT (it writes '?' instead of escaping them; //IGNORE
// would stop early and flatter the baseline). After the run a table gives
// the throughput of all three and the ratios, from process CPU time, and the
// services' GB/s.
#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"
#include "convert_int.h"
#include "locale_int.h"

namespace {

enum class Kind { Ascii, Latin1, Foreign10, Japanese };
enum class Impl { Kspl, Ref, Iconv };

struct Page {
    const char* name;     // iconv name of the code page
    const char* setting;  // ZELTA_CODE_PAGE that makes it the OEM or ANSI code page
    UINT32 selector;
};
const Page kPages[] = {{"ISO-8859-1", "ISO-8859-1", 2},
                       {"WINDOWS-1252", "437", 1},
                       {"UTF-8", nullptr, 3},
                       {"SHIFT_JIS", "SHIFT_JIS", 2}};

const char* KindName(Kind k) {
    switch (k) {
        case Kind::Ascii: return "ascii";
        case Kind::Latin1: return "latin1";
        case Kind::Foreign10: return "foreign10pct";
        default: return "japanese";
    }
}
const char* ImplName(Impl i) { return i == Impl::Kspl ? "kspl" : i == Impl::Ref ? "ref" : "iconv"; }

std::vector<WCHAR> MakeText(Kind kind, size_t chars) {
    static const char16_t kLatin1[] = u"\u00E9\u00E8\u00E0\u00FC\u00F6\u00E4\u00DF\u00E7";
    static const char16_t kForeign[] = u"\u4E2D\u6587\u0416\u03A9\u20AC";
    static const char16_t kJapanese[] = u"\u65E5\u672C\u8A9E\u306E\u30C6\u30AD\u30B9\u30C8\u3001";
    std::vector<WCHAR> text;
    text.reserve(chars + 1);
    for (size_t i = 0; i < chars; ++i) {
        WCHAR c = static_cast<WCHAR>('a' + i % 26);
        if (i % 7 == 6) c = ' ';
        if (kind == Kind::Latin1 && i % 3 == 1) c = kLatin1[i % 8];
        if (kind == Kind::Foreign10 && i % 10 == 9) c = kForeign[i / 10 % 5];
        if (kind == Kind::Japanese && i % 4 != 3) c = kJapanese[i % 9];
        text.push_back(c);
    }
    text.push_back(0);
    return text;
}

IKspl* Instance() {
    static IKspl* k = BenchInstance();
    return k;
}

// Runs the code page setup again when a benchmark needs another one (the
// benchmarks run one at a time, no conversion is in progress).
void UseSetup(const char* setting) {
    static std::string current = "-";
    if (setting == nullptr || current == setting) return;
    setenv("ZELTA_CODE_PAGE", setting, 1);
    UnInitCharConvInfrastructure();
    if (InitCharConvInfrastructure() != 0) std::abort();
    current = setting;
}

std::string NarrowOf(const std::vector<WCHAR>& wide, const Page& page) {
    std::vector<char> out(12 * wide.size() + 1);
    UINT32 len = static_cast<UINT32>(out.size());
    if (KsoWideCharToMultiByte(Instance(), page.selector, const_cast<WCHAR*>(wide.data()), -1,
                               out.data(), &len) != 0) {
        std::abort();
    }
    return std::string(out.data(), len);
}

// Throughput of each case per implementation, from the CPU time over the
// measured loop; the last run of a case wins.
struct Rates {
    double rate[3] = {};
    double gbps = 0;  // the services, input bytes
};
std::map<std::string, Rates>& RateTable() {
    static auto* table = new std::map<std::string, Rates>;
    return *table;
}

// Process CPU time; the library's own threads are idle while the
// benchmarks run.
double CpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

struct Case {
    const char* direction;
    Impl impl;
    Kind kind;
    const Page* page;
    bool variant = false;  // a variant row: not in the table
    KsplConvIsa isa = KsplConvIsa::kScalar;
};

// Forces the case's variant for the life of one benchmark run (nothing for
// the ordinary rows); false when the CPU lacks it.
class VariantScope {
public:
    explicit VariantScope(const Case& c) : active_(c.variant) {
        if (active_) ok_ = KsplConvUseIsa(c.isa);
    }
    ~VariantScope() {
        if (active_) KsplConvUseIsa(KsplConvIsaBest());
    }
    VariantScope(const VariantScope&) = delete;
    VariantScope& operator=(const VariantScope&) = delete;
    bool ok() const { return ok_; }

private:
    bool active_;
    bool ok_ = true;
};

void Finish(benchmark::State& state, const Case& c, size_t chars, size_t inBytes, double cpuStart) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * chars));
    state.counters["GB/s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * static_cast<double>(inBytes) / 1e9,
        benchmark::Counter::kIsRate);
    const double seconds = CpuSeconds() - cpuStart;
    if (seconds <= 0 || c.variant) return;
    char name[96];
    std::snprintf(name, sizeof(name), "%s/%s/%s/%zu", c.direction, c.page->name, KindName(c.kind),
                  chars);
    Rates& rates = RateTable()[name];
    rates.rate[static_cast<int>(c.impl)] = static_cast<double>(state.iterations() * chars) / seconds;
    if (c.impl == Impl::Kspl) {
        rates.gbps = static_cast<double>(state.iterations()) * static_cast<double>(inBytes) / seconds / 1e9;
    }
}

void PrintRatios() {
    std::printf("\n%-40s %10s %10s %10s %9s %9s %9s\n", "case (M characters/s)", "kspl", "ref",
                "iconv", "kspl/ref", "kspl/iconv", "kspl GB/s");
    for (const auto& [name, r] : RateTable()) {
        const double kspl = r.rate[0];
        const double ref = r.rate[1];
        const double bulk = r.rate[2];
        if (kspl <= 0) continue;
        std::printf("%-40s %10.2f %10.2f %10.2f %8.0fx %8.2fx %9.2f\n", name.c_str(), kspl / 1e6,
                    ref / 1e6, bulk / 1e6, ref > 0 ? kspl / ref : 0.0, bulk > 0 ? kspl / bulk : 0.0,
                    r.gbps);
    }
}

// One iconv call over the whole text per iteration; the descriptor is
// opened once and reset between iterations.
void RunBulk(benchmark::State& state, const Case& c, const char* to, const char* from,
             const void* in, size_t inBytes, size_t outBytes, size_t chars) {
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
    Finish(state, c, chars, inBytes, cpuStart);
    iconv_close(cd);
}

void BM_ToNarrow(benchmark::State& state, Case c) {
    UseSetup(c.page->setting);
    const size_t chars = static_cast<size_t>(state.range(0));
    std::vector<WCHAR> text = MakeText(c.kind, chars);
    if (c.impl == Impl::Iconv) {
        std::string to = c.page->name;
        if (c.kind == Kind::Foreign10 && c.page->selector != 3) to += "//TRANSLIT";
        RunBulk(state, c, to.c_str(), "UNICODE", text.data(), 2 * chars, 4 * chars + 8, chars);
        return;
    }
    auto* service = c.impl == Impl::Kspl ? KsoWideCharToMultiByte : KsplRefWideCharToMultiByte;
    IKspl* k = Instance();
    VariantScope variant(c);
    if (!variant.ok()) {
        state.SkipWithError("CPU without this variant");
        return;
    }
    std::vector<char> out(12 * chars + 1);
    const double cpuStart = CpuSeconds();
    for (auto _ : state) {
        UINT32 len = static_cast<UINT32>(out.size());
        KSSTATUS st = service(k, c.page->selector, text.data(), static_cast<INT32>(chars),
                              out.data(), &len);
        if (st != 0) state.SkipWithError("conversion failed");
        benchmark::DoNotOptimize(out.data());
    }
    Finish(state, c, chars, 2 * chars, cpuStart);
}

void BM_ToWide(benchmark::State& state, Case c) {
    UseSetup(c.page->setting);
    const size_t chars = static_cast<size_t>(state.range(0));
    std::string narrow = NarrowOf(MakeText(c.kind, chars), *c.page);
    if (c.impl == Impl::Iconv) {
        RunBulk(state, c, "UNICODE", c.page->name, narrow.data(), narrow.size(),
                2 * narrow.size() + 8, chars);
        return;
    }
    auto* service = c.impl == Impl::Kspl ? KsoMultiByteToWideChar : KsplRefMultiByteToWideChar;
    IKspl* k = Instance();
    VariantScope variant(c);
    if (!variant.ok()) {
        state.SkipWithError("CPU without this variant");
        return;
    }
    std::vector<WCHAR> out(narrow.size() + 1);
    const double cpuStart = CpuSeconds();
    for (auto _ : state) {
        UINT32 len = static_cast<UINT32>(out.size());
        KSSTATUS st = service(k, c.page->selector, narrow.data(),
                              static_cast<INT32>(narrow.size()), out.data(), &len);
        if (st != 0) state.SkipWithError("conversion failed");
        benchmark::DoNotOptimize(out.data());
    }
    Finish(state, c, chars, narrow.size(), cpuStart);
}

void Register() {
    for (const Page& page : kPages) {
        const bool japanese = std::strcmp(page.name, "SHIFT_JIS") == 0;
        for (Kind kind : {Kind::Ascii, Kind::Latin1, Kind::Foreign10, Kind::Japanese}) {
            if (japanese != (kind == Kind::Japanese) && !(japanese && kind == Kind::Ascii)) continue;
            for (const char* direction : {"to_narrow", "to_wide"}) {
                for (Impl impl : {Impl::Kspl, Impl::Ref, Impl::Iconv}) {
                    const std::string name = std::string(direction) + "/" + ImplName(impl) + "/" +
                                             page.name + "/" + KindName(kind);
                    auto* fn = direction[3] == 'n' ? BM_ToNarrow : BM_ToWide;
                    auto* b = benchmark::RegisterBenchmark(name.c_str(), fn,
                                                           Case{direction, impl, kind, &page});
                    b->Arg(16)->Arg(1024)->Arg(65536);
                }
            }
        }
    }
    // The services per variant, on 64 Ki characters of the texts that the
    // kernels take in runs or blocks.
    for (int isa = 0; isa <= static_cast<int>(KsplConvIsa::kAvx2); ++isa) {
        const auto variant = static_cast<KsplConvIsa>(isa);
        for (const Page* page : {&kPages[2], &kPages[1]}) {
            for (Kind kind : {Kind::Ascii, Kind::Latin1, Kind::Foreign10}) {
                for (const char* direction : {"to_narrow", "to_wide"}) {
                    const std::string name = std::string("variant/") + KsplConvIsaName(variant) + "/" +
                                             direction + "/" + page->name + "/" + KindName(kind);
                    auto* fn = direction[3] == 'n' ? BM_ToNarrow : BM_ToWide;
                    benchmark::RegisterBenchmark(name.c_str(), fn,
                                                 Case{direction, Impl::Kspl, kind, page, true, variant})
                        ->Arg(65536);
                }
            }
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
