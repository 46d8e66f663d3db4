// Configuration values: query and set of a 4-byte value and of a
// 100-character string through IKspl, beside the same through libzlreg
// directly and beside one prepared SQLite statement on the same database
// (the floor every layer above pays for). Prints values per second and the
// ratios of each layer to the one below it. Walks of every subkey and every
// value of a key by increasing index, at 5,000 and 50,000 entries: a step
// must not cost more as the index grows, so the larger walk stays near ten
// times the smaller.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "zlreg.h"

namespace {

std::string g_dir;
std::string g_db;
IKspl* g_k = nullptr;
HANDLE g_ksplKey = nullptr;   // IKspl key handle of Software\Zorvik\Bench
HANDLE g_storeKey = nullptr;  // the store's handle of the same key
const UINT32 kU32 = 0x12345678;
const std::u16string kText16(100, u'x');
const std::string kText8 = std::string(100, 'x') + '\0';

std::vector<WCHAR> Wide(const std::u16string& s) {
    std::vector<WCHAR> w(s.begin(), s.end());
    w.push_back(0);
    return w;
}

void Setup() {
    char tmpl[] = "/tmp/config_bench.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) std::abort();
    g_dir = tmpl;
    g_db = g_dir + "/bench.db";
    ZLRegSetDatabasePath(g_db.c_str());
    g_k = BenchInstance();
    auto name = Wide(u"Bench");
    if (g_k->lpVtbl->KsoCreateKey(g_k, name.data(), KSO_KEY_ALL_ACCESS, &g_ksplKey) != 0) std::abort();
    if (ZLRegOpenKeyExA(ZLREG_HKEY_LOCAL_MACHINE, "Software\\Zorvik\\Bench", 0, ZLREG_ACCESS_ALL,
                        &g_storeKey) != 0)
        std::abort();
    ZLRegSetValueExA(g_storeKey, "u32", 0, ZLREG_UINT32, &kU32, 4);
    ZLRegSetValueExA(g_storeKey, "text", 0, ZLREG_SZ, kText8.data(),
                     static_cast<UINT32>(kText8.size()));
}

void Teardown() {
    g_k->lpVtbl->KsoCloseKey(g_k, g_ksplKey);
    ZLRegCloseKey(g_storeKey);
    g_k->lpVtbl->Release(g_k);
    ZLRegSetDatabasePath(nullptr);
    for (const char* s : {"", "-wal", "-shm"}) unlink((g_db + s).c_str());
    rmdir(g_dir.c_str());
}

// ---- IKspl ----------------------------------------------------------------

// The record buffer has room for either value.
void KsplQuery(benchmark::State& state, const char16_t* value) {
    auto name = Wide(value);
    alignas(8) UINT8 rec[512];
    UINT32 result = 0;
    for (auto _ : state) {
        if (g_k->lpVtbl->KsoQueryValueKey(g_k, g_ksplKey, name.data(), rec, sizeof rec, &result) != 0)
            state.SkipWithError("query failed");
        benchmark::DoNotOptimize(rec);
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_Kspl_QueryU32(benchmark::State& state) { KsplQuery(state, u"u32"); }
void BM_Kspl_QueryText(benchmark::State& state) { KsplQuery(state, u"text"); }
// Every set writes new bytes: SQLite skips rewriting a row with identical
// content, which would leave the raw statement with no commit to make.
void BM_Kspl_SetU32(benchmark::State& state) {
    auto name = Wide(u"u32");
    UINT32 v = kU32;
    for (auto _ : state)
        if (++v, g_k->lpVtbl->KsoSetValueKey(g_k, g_ksplKey, name.data(), KSO_REG_UINT32, &v, 4) != 0)
            state.SkipWithError("set failed");
    state.SetItemsProcessed(state.iterations());
}
void BM_Kspl_SetText(benchmark::State& state) {
    auto name = Wide(u"text");
    auto text = Wide(kText16);
    unsigned round = 0;
    for (auto _ : state)
        if (text[0] = static_cast<WCHAR>('a' + ++round % 26),
            g_k->lpVtbl->KsoSetValueKey(g_k, g_ksplKey, name.data(), KSO_REG_SZ, text.data(),
                                        static_cast<UINT32>(text.size() * 2)) != 0)
            state.SkipWithError("set failed");
    state.SetItemsProcessed(state.iterations());
}

// ---- libzlreg -------------------------------------------------------------

void BM_Zlreg_QueryU32(benchmark::State& state) {
    for (auto _ : state) {
        UINT32 v = 0, len = 4, type = 0;
        if (ZLRegQueryValueExA(g_storeKey, "u32", nullptr, &type, &v, &len) != 0)
            state.SkipWithError("query failed");
        benchmark::DoNotOptimize(v);
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_Zlreg_QueryText(benchmark::State& state) {
    char buf[256];
    for (auto _ : state) {
        UINT32 len = sizeof buf, type = 0;
        if (ZLRegQueryValueExA(g_storeKey, "text", nullptr, &type, buf, &len) != 0)
            state.SkipWithError("query failed");
        benchmark::DoNotOptimize(buf);
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_Zlreg_SetU32(benchmark::State& state) {
    UINT32 v = kU32;
    for (auto _ : state)
        if (++v, ZLRegSetValueExA(g_storeKey, "u32", 0, ZLREG_UINT32, &v, 4) != 0)
            state.SkipWithError("set failed");
    state.SetItemsProcessed(state.iterations());
}
void BM_Zlreg_SetText(benchmark::State& state) {
    std::string text = kText8;
    unsigned round = 0;
    for (auto _ : state)
        if (text[0] = static_cast<char>('a' + ++round % 26),
            ZLRegSetValueExA(g_storeKey, "text", 0, ZLREG_SZ, text.data(),
                             static_cast<UINT32>(text.size())) != 0)
            state.SkipWithError("set failed");
    state.SetItemsProcessed(state.iterations());
}

// ---- one prepared SQLite statement -----------------------------------------

// A connection of its own with the store's settings; the key's row id is
// looked up once.
struct Raw {
    sqlite3* db = nullptr;
    sqlite3_int64 key = 0;
    sqlite3_stmt* query = nullptr;
    sqlite3_stmt* upsert = nullptr;
    Raw() {
        sqlite3_open_v2(g_db.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
        sqlite3_busy_timeout(db, 60000);
        sqlite3_exec(db, "PRAGMA foreign_keys=ON; PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
        sqlite3_stmt* s = nullptr;
        sqlite3_prepare_v2(db,
                           "SELECT k3.id FROM keys k1 JOIN keys k2 ON k2.parent=k1.id "
                           "JOIN keys k3 ON k3.parent=k2.id WHERE k1.parent=4 AND "
                           "k1.folded=CAST('software' AS BLOB) AND k2.folded=CAST('zorvik' AS BLOB) "
                           "AND k3.folded=CAST('bench' AS BLOB)",
                           -1, &s, nullptr);
        if (sqlite3_step(s) == SQLITE_ROW) key = sqlite3_column_int64(s, 0);
        sqlite3_finalize(s);
        sqlite3_prepare_v2(db, "SELECT type,data FROM vals WHERE key=?1 AND folded=?2", -1, &query,
                           nullptr);
        sqlite3_prepare_v2(db,
                           "INSERT INTO vals(key,name,folded,type,data) VALUES(?1,?2,?2,?3,?4) "
                           "ON CONFLICT(key,folded) DO UPDATE SET type=excluded.type,data=excluded.data",
                           -1, &upsert, nullptr);
        if (key == 0 || query == nullptr || upsert == nullptr) std::abort();
    }
    ~Raw() {
        sqlite3_finalize(query);
        sqlite3_finalize(upsert);
        sqlite3_close_v2(db);
    }
    bool Query(const char* name, void* out, int room) {
        sqlite3_bind_int64(query, 1, key);
        sqlite3_bind_blob(query, 2, name, static_cast<int>(std::strlen(name)), SQLITE_STATIC);
        bool ok = sqlite3_step(query) == SQLITE_ROW && sqlite3_column_bytes(query, 1) <= room;
        if (ok) std::memcpy(out, sqlite3_column_blob(query, 1), static_cast<size_t>(sqlite3_column_bytes(query, 1)));
        sqlite3_reset(query);
        return ok;
    }
    bool Set(const char* name, int type, const void* data, int len) {
        sqlite3_bind_int64(upsert, 1, key);
        sqlite3_bind_blob(upsert, 2, name, static_cast<int>(std::strlen(name)), SQLITE_STATIC);
        sqlite3_bind_int(upsert, 3, type);
        sqlite3_bind_blob(upsert, 4, data, len, SQLITE_STATIC);
        bool ok = sqlite3_step(upsert) == SQLITE_DONE;
        sqlite3_reset(upsert);
        return ok;
    }
};

void BM_Sqlite_QueryU32(benchmark::State& state) {
    Raw raw;
    for (auto _ : state) {
        UINT32 v = 0;
        if (!raw.Query("u32", &v, 4)) state.SkipWithError("query failed");
        benchmark::DoNotOptimize(v);
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_Sqlite_QueryText(benchmark::State& state) {
    Raw raw;
    char buf[256];
    for (auto _ : state) {
        if (!raw.Query("text", buf, sizeof buf)) state.SkipWithError("query failed");
        benchmark::DoNotOptimize(buf);
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_Sqlite_SetU32(benchmark::State& state) {
    Raw raw;
    UINT32 v = kU32;
    for (auto _ : state)
        if (++v, !raw.Set("u32", ZLREG_UINT32, &v, 4)) state.SkipWithError("set failed");
    state.SetItemsProcessed(state.iterations());
}
void BM_Sqlite_SetText(benchmark::State& state) {
    Raw raw;
    std::string text = kText8;
    unsigned round = 0;
    for (auto _ : state)
        if (text[0] = static_cast<char>('a' + ++round % 26),
            !raw.Set("text", ZLREG_SZ, text.data(), static_cast<int>(text.size())))
            state.SkipWithError("set failed");
    state.SetItemsProcessed(state.iterations());
}

// ---- enumeration ---------------------------------------------------------

// Software\Zorvik\Walk<N> with N subkeys and N values, made once in one
// write transaction.
HANDLE WalkKey(int64_t n) {
    const std::string path = "Software\\Zorvik\\Walk" + std::to_string(n);
    HANDLE h = nullptr;
    UINT32 disposition = 0;
    if (ZLRegCreateKeyExA(ZLREG_HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, 0, nullptr, &h,
                          &disposition) != 0)
        std::abort();
    if (disposition == ZLREG_OPENED_EXISTING_KEY) return h;
    if (ZLRegBeginTransaction(TRUE) != 0) std::abort();
    char name[32];
    for (int64_t i = 0; i < n; ++i) {
        std::snprintf(name, sizeof name, "entry%07lld", static_cast<long long>(i));
        HANDLE sub = nullptr;
        if (ZLRegCreateKeyExA(h, name, 0, nullptr, 0, 0, nullptr, &sub, &disposition) != 0 ||
            ZLRegCloseKey(sub) != 0 || ZLRegSetValueExA(h, name, 0, ZLREG_UINT32, &kU32, 4) != 0)
            std::abort();
    }
    if (ZLRegCommitTransaction() != 0) std::abort();
    return h;
}

// One iteration is one walk, index 0 up to the end, through IKspl.
void KsplWalk(benchmark::State& state, bool values) {
    const int64_t n = state.range(0);
    HANDLE store = WalkKey(n);
    ZLRegCloseKey(store);
    HANDLE h = nullptr;
    const std::string digits = std::to_string(n);
    auto name = Wide(u"Walk" + std::u16string(digits.begin(), digits.end()));
    if (g_k->lpVtbl->KsoOpenKey(g_k, name.data(), KSO_KEY_READ, &h) != 0) std::abort();
    alignas(8) UINT8 rec[256];
    UINT32 result = 0;
    for (auto _ : state) {
        UINT32 index = 0;
        while ((values ? g_k->lpVtbl->KsoEnumerateValueKey(g_k, h, index, rec, sizeof rec, &result)
                       : g_k->lpVtbl->KsoEnumerateKey(g_k, h, index, rec, sizeof rec, &result)) == 0)
            ++index;
        if (index != n) state.SkipWithError("walk ended early");
    }
    state.SetItemsProcessed(state.iterations() * n);
    g_k->lpVtbl->KsoCloseKey(g_k, h);
}
void BM_Kspl_WalkSubkeys(benchmark::State& state) { KsplWalk(state, false); }
void BM_Kspl_WalkValues(benchmark::State& state) { KsplWalk(state, true); }

BENCHMARK(BM_Kspl_QueryU32);
BENCHMARK(BM_Zlreg_QueryU32);
BENCHMARK(BM_Sqlite_QueryU32);
BENCHMARK(BM_Kspl_QueryText);
BENCHMARK(BM_Zlreg_QueryText);
BENCHMARK(BM_Sqlite_QueryText);
// Writes wait for the disk (synchronous=FULL): fewer, longer iterations.
BENCHMARK(BM_Kspl_SetU32)->MinTime(1.0);
BENCHMARK(BM_Zlreg_SetU32)->MinTime(1.0);
BENCHMARK(BM_Sqlite_SetU32)->MinTime(1.0);
BENCHMARK(BM_Kspl_SetText)->MinTime(1.0);
BENCHMARK(BM_Zlreg_SetText)->MinTime(1.0);
BENCHMARK(BM_Sqlite_SetText)->MinTime(1.0);
BENCHMARK(BM_Kspl_WalkSubkeys)->Arg(5000)->Arg(50000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Kspl_WalkValues)->Arg(5000)->Arg(50000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Setup();
    BenchRatioReporter rec("", {});
    benchmark::RunSpecifiedBenchmarks(&rec);
    std::printf("\n%-12s %14s %14s %14s %12s %12s\n", "operation", "IKspl/s", "zlreg/s", "sqlite/s",
                "IKspl:zlreg", "zlreg:sqlite");
    for (const char* op : {"QueryU32", "QueryText", "SetU32", "SetText"}) {
        auto get = [&](const char* layer) {
            return rec.RealTime(std::string("BM_") + layer + "_" + op);
        };
        double k = get("Kspl"), z = get("Zlreg"), s = get("Sqlite");
        if (k <= 0 || z <= 0 || s <= 0) continue;
        std::printf("%-12s %14.0f %14.0f %14.0f %11.2fx %11.2fx\n", op, 1e9 / k, 1e9 / z, 1e9 / s,
                    k / z, z / s);
    }
    Teardown();
    benchmark::Shutdown();
    return 0;
}
