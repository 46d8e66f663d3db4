// The status builder beside what it used to be: one syslog call per built
// status at debug priority, here with no log daemon listening (every
// container, CI). The builder records into the runtime's ring and forwards at
// most one line per call site and second, none while nobody listens.
#include <benchmark/benchmark.h>
#include <syslog.h>

#include <vector>

#include "bench_support.h"

namespace {

char kUnit[] = "bench";
char kFunction[] = "BM_StatusBuild";

// Default settings: ORLM_LOG unset (system log forwarding), the host's log
// set-up untouched.
void BM_StatusBuild(benchmark::State& state) {
    unsetenv("ORLM_LOG");
    OrlmSetLogMode(nullptr);
    for (auto _ : state) {
        benchmark::DoNotOptimize(KsStatusBuild_log(3, KSPL_FACILITY, 1, kUnit, __LINE__, kFunction));
    }
}
BENCHMARK(BM_StatusBuild);
BENCHMARK(BM_StatusBuild)->Threads(2)->UseRealTime();

// The ring alone (ORLM_LOG=off): what forwarding's rate limit adds.
void BM_StatusBuildRecordOnly(benchmark::State& state) {
    OrlmSetLogMode("off");
    for (auto _ : state) {
        benchmark::DoNotOptimize(KsStatusBuild_log(3, KSPL_FACILITY, 1, kUnit, __LINE__, kFunction));
    }
    OrlmSetLogMode(nullptr);
}
BENCHMARK(BM_StatusBuildRecordOnly);

// What each built status cost before: the composed value and one syslog
// call at debug priority with the default log mask.
void BM_SyslogPerStatus(benchmark::State& state) {
    UINT32 code = 1;
    for (auto _ : state) {
        KSSTATUS status = KS_MAKE_STATUS(3, KSPL_FACILITY, code);
        syslog(LOG_USER | LOG_DEBUG, "status %08X built in %s at %s:%d", status, kFunction, kUnit,
               __LINE__);
        benchmark::DoNotOptimize(status);
    }
}
BENCHMARK(BM_SyslogPerStatus);

// Reading the whole ring, as a tool or host does.
void BM_GetRecentStatuses(benchmark::State& state) {
    for (int i = 0; i < 300; ++i) KsStatusBuild_log(3, KSPL_FACILITY, 1, kUnit, __LINE__, kFunction);
    std::vector<ORLM_STATUS_RECORD> records(ORLM_RECORDER_CAPACITY);
    for (auto _ : state) {
        UINT32 count = 0;
        OrlmGetRecentStatuses(records.data(), ORLM_RECORDER_CAPACITY, &count);
        benchmark::DoNotOptimize(count);
    }
}
BENCHMARK(BM_GetRecentStatuses);

}  // namespace

int main(int argc, char** argv) {
    return BenchMain(argc, argv, "ratios status builder / one syslog call per status:",
                     {{"BM_StatusBuild", "BM_SyslogPerStatus"},
                      {"BM_StatusBuildRecordOnly", "BM_SyslogPerStatus"}});
}
