// Insert rate of the FIM baseline store: one record per write (each its own
// transaction, as the baseline pass writes them) against many records in one
// write (one transaction). Rates are per wall-clock second: the disk sync
// at each commit is the cost that matters.
#include "bench/BenchDir.h"
#include "common/Logging.h"
#include "common/SqlStorage.h"
#include "fim/BaselineEventSqlDataFormatter.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

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

} // namespace

BENCHMARK_MAIN();
