// Insert rate of the FIM baseline store: one record per write (each its own
// transaction, as the baseline pass writes them) against many records in one
// write (one transaction). Rates are per wall-clock second: the disk sync
// at each commit is the cost that matters.
//
// Keyed lookups and deletes on a table of 10k rows, without the read cache,
// as the file-state store does them per event: CPU per statement. A round
// of them (lookup, replace, delete of an absent key per document, as the
// document thread builds a round) with each statement its own transaction
// (arg 0) or all in one (arg 1).
#include "bench/BenchDir.h"
#include "common/Logging.h"
#include "common/SqlStorage.h"
#include "fim/BaselineEventSqlDataFormatter.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace
{

using vantor::common::SqlStorage;
using vantor::fim::BaselineEventSqlDataFormatter;

using vantor::bench::BenchDir;

std::unique_ptr<SqlStorage> OpenStore(const BenchDir& dir)
{
    vantor::common::Logging::Edr().setLevel(Poco::Message::PRIO_FATAL);
    return std::make_unique<SqlStorage>(dir.Path(), "BaselineEvents.db",
                                        std::make_unique<BaselineEventSqlDataFormatter>(), false);
}

SqlStorage::Record MakeRecord(BaselineEventSqlDataFormatter& formatter, int64_t n)
{
    std::string path = "/usr/lib/x86_64-linux-gnu/some/package/file-" + std::to_string(n) + ".so";
    std::string record = formatter.FormatRecord(path, "READ_SUCCESSFUL");
    return {std::move(path), std::move(record)};
}

void BM_BaselineInsertSynchronous(benchmark::State& state)
{
    BenchDir dir;
    auto store = OpenStore(dir);
    BaselineEventSqlDataFormatter formatter;
    int64_t n = 0;
    for (auto _ : state)
    {
        const auto result =
            store->Write(BaselineEventSqlDataFormatter::kTableName, {MakeRecord(formatter, n++)});
        if (!result.success)
        {
            state.SkipWithError(result.error.c_str());
            break;
        }
    }
    state.SetItemsProcessed(n);
}
BENCHMARK(BM_BaselineInsertSynchronous)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_BaselineInsertInTransaction(benchmark::State& state)
{
    BenchDir dir;
    auto store = OpenStore(dir);
    BaselineEventSqlDataFormatter formatter;
    const auto batch = state.range(0);
    int64_t n = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        SqlStorage::Records records;
        records.reserve(static_cast<size_t>(batch));
        for (int64_t i = 0; i < batch; ++i)
        {
            records.push_back(MakeRecord(formatter, n++));
        }
        state.ResumeTiming();
        const auto result = store->Write(BaselineEventSqlDataFormatter::kTableName, records);
        if (!result.success)
        {
            state.SkipWithError(result.error.c_str());
            break;
        }
    }
    state.SetItemsProcessed(n);
}
BENCHMARK(BM_BaselineInsertInTransaction)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

constexpr int64_t kLookupRows = 10000;

// A store holding kLookupRows records, keys from MakeRecord(0..).
std::unique_ptr<SqlStorage> FilledStore(const BenchDir& dir, BaselineEventSqlDataFormatter& formatter)
{
    auto store = OpenStore(dir);
    SqlStorage::Records records;
    for (int64_t n = 0; n < kLookupRows; ++n)
    {
        records.push_back(MakeRecord(formatter, n));
    }
    if (!store->Write(BaselineEventSqlDataFormatter::kTableName, records).success)
    {
        std::abort();
    }
    return store;
}

// Keys spread over the table, stored (offset 0) or not (offset kLookupRows).
std::vector<std::string> LookupKeys(BaselineEventSqlDataFormatter& formatter, int64_t offset)
{
    std::vector<std::string> keys;
    for (int64_t n = 0; n < kLookupRows; ++n)
    {
        keys.push_back(MakeRecord(formatter, offset + (n * 7919) % kLookupRows).first);
    }
    return keys;
}

// Arg 1: keys that are stored; arg 0: keys that are not.
void BM_BaselineKeyedRead(benchmark::State& state)
{
    BenchDir dir;
    BaselineEventSqlDataFormatter formatter;
    auto store = FilledStore(dir, formatter);
    const auto keys = LookupKeys(formatter, state.range(0) != 0 ? 0 : kLookupRows);
    size_t i = 0;
    for (auto _ : state)
    {
        const auto result = store->Read(BaselineEventSqlDataFormatter::kTableName, keys[i++ % keys.size()]);
        benchmark::DoNotOptimize(result.rows.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BaselineKeyedRead)->Arg(1)->Arg(0)->Unit(benchmark::kNanosecond);

// Deletes of keys that are not stored: nothing is written, the statement
// itself is the cost.
void BM_BaselineKeyedDeleteAbsent(benchmark::State& state)
{
    BenchDir dir;
    BaselineEventSqlDataFormatter formatter;
    auto store = FilledStore(dir, formatter);
    const auto keys = LookupKeys(formatter, kLookupRows);
    size_t i = 0;
    for (auto _ : state)
    {
        const auto result = store->Delete(BaselineEventSqlDataFormatter::kTableName, keys[i++ % keys.size()]);
        benchmark::DoNotOptimize(result.success);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BaselineKeyedDeleteAbsent)->Unit(benchmark::kNanosecond);

void BM_BaselineStatementRound(benchmark::State& state)
{
    constexpr size_t kRound = 100;
    BenchDir dir;
    BaselineEventSqlDataFormatter formatter;
    auto store = FilledStore(dir, formatter);
    const auto stored = LookupKeys(formatter, 0);
    const auto absent = LookupKeys(formatter, kLookupRows);
    const char* table = BaselineEventSqlDataFormatter::kTableName;
    size_t i = 0;
    const auto round = [&]
    {
        for (size_t n = 0; n < kRound; ++n, ++i)
        {
            const auto& key = stored[i % stored.size()];
            benchmark::DoNotOptimize(store->Read(table, key).rows.data());
            benchmark::DoNotOptimize(
                store->Write(table, {{key, formatter.FormatRecord(key, "READ_FAILURE")}}));
            benchmark::DoNotOptimize(store->Delete(table, absent[i % absent.size()]));
        }
    };
    for (auto _ : state)
    {
        if (state.range(0) != 0)
        {
            store->RunInTransaction(round);
        }
        else
        {
            round();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRound));
}
BENCHMARK(BM_BaselineStatementRound)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
