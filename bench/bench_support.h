// bench_support.h - what the benchmark programs share: instances obtained the
// way a component obtains them, and a console reporter that keeps each run's
// times and prints the ratio of each pair of benchmarks after the run.
#pragma once
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kspl_internal.h"

// An instance of `clsid` through its class factory; aborts on failure (a
// benchmark without its subject has nothing to measure).
template <class T>
T* BenchCreate(GUID clsid, GUID iid) {
    ORLM_IClassFactory* factory = nullptr;
    GUID cf = IID_IClassFactory;
    if (DllGetClassObject(&clsid, &cf, reinterpret_cast<PVOID*>(&factory)) != 0) std::abort();
    T* object = nullptr;
    if (factory->lpVtbl->CreateInstance(factory, nullptr, &iid, reinterpret_cast<void**>(&object)) !=
        0) {
        std::abort();
    }
    factory->lpVtbl->Release(factory);
    return object;
}

// A fresh IKspl instance; the first call starts the library.
inline IKspl* BenchInstance() {
    static bool started = [] {
        setenv("KSPL_DO_NOT_OVERWRITE_OPENLOG", "1", 1);
        return DllStart() == 0;
    }();
    (void)started;
    return BenchCreate<IKspl>(CLSID_ZorvikKspl, IID_IZorvikKspl_1);
}

// Two benchmarks compared: `ours` and `reference` are names or prefixes that
// end before a '/'. Every run named `ours` or `ours/...` is set against the
// reference run with the same continuation (BM_A/threads:2 against
// BM_B/threads:2), the way scripts/bench pairs them.
struct BenchPair {
    const char* ours;
    const char* reference;
};

// Console output plus each run's real and CPU time per iteration (the median
// when repetitions are asked for, else the first run); after the run, the
// ratio ours / reference of both times for every pair.
class BenchRatioReporter : public benchmark::ConsoleReporter {
public:
    BenchRatioReporter(const char* title, std::vector<BenchPair> pairs)
        : title_(title), pairs_(std::move(pairs)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.error_occurred) continue;
            Times& t = times_[r.run_name.str()];
            if (r.run_type == Run::RT_Aggregate) {
                if (r.aggregate_name != "median") continue;
                t = {r.GetAdjustedRealTime(), r.GetAdjustedCPUTime(), true};
            } else if (!t.median) {
                t = {r.GetAdjustedRealTime(), r.GetAdjustedCPUTime(), false};
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        struct Row {
            std::string label;
            double real, cpu;
        };
        std::vector<Row> rows;
        for (const BenchPair& pair : pairs_) {
            const std::string ours = pair.ours;
            for (const auto& [name, a] : times_) {
                if (name.compare(0, ours.size(), ours) != 0 ||
                    (name.size() > ours.size() && name[ours.size()] != '/')) {
                    continue;
                }
                const std::string reference = pair.reference + name.substr(ours.size());
                auto b = times_.find(reference);
                if (b == times_.end() || b->second.real <= 0 || b->second.cpu <= 0) continue;
                rows.push_back({name + " / " + reference, a.real / b->second.real,
                                a.cpu / b->second.cpu});
            }
        }
        if (rows.empty()) return;
        size_t width = title_.size();
        for (const Row& row : rows) width = std::max(width, row.label.size() + 2);
        std::printf("\n%-*s %6s %6s\n", static_cast<int>(width), title_.c_str(), "real", "cpu");
        for (const Row& row : rows) {
            std::printf("  %-*s %5.2fx %5.2fx\n", static_cast<int>(width - 2), row.label.c_str(),
                        row.real, row.cpu);
        }
    }

    // Real time per iteration of the first recorded run whose name starts
    // with `prefix` (in the run's time unit); 0 when there is none.
    double RealTime(const std::string& prefix) const {
        for (const auto& [name, t] : times_) {
            if (name.compare(0, prefix.size(), prefix) == 0) return t.real;
        }
        return 0;
    }

private:
    struct Times {
        double real = 0, cpu = 0;
        bool median = false;
    };
    std::string title_;
    std::vector<BenchPair> pairs_;
    std::map<std::string, Times> times_;
};

// The main of a program whose only summary is its pairs' ratios.
inline int BenchMain(int argc, char** argv, const char* title, std::vector<BenchPair> pairs) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    BenchRatioReporter reporter(title, std::move(pairs));
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
