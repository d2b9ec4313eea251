// Spool append throughput: records/s and MB/s from the writer's side through
// to files on disk (the last write of each run waits for the queue).
#include "common/Scheduler.h"
#include "common/SpoolRawDataFormatter.h"
#include "common/SpoolStorage.h"

#include <Poco/Logger.h>
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>

using namespace vantor::common;

namespace
{

void SpoolAppend(benchmark::State& state, bool synchronous)
{
    char tmpl[] = "/tmp/corvid-spool-bench-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr)
    {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    const std::string dir = tmpl;
    const auto recordSize = static_cast<size_t>(state.range(0));
    const std::string record(recordSize, 'e');
    {
        Scheduler scheduler;
        // Default limits: 100 KiB files, 10 MiB quota (so the clean-up runs
        // in the steady state too).
        SpoolStorage spool(scheduler, dir, "bench", std::make_unique<SpoolRawDataFormatter>(), {}, 10000);
        for (auto _ : state)
        {
            if (synchronous)
            {
                spool.Write(record);
            }
            else
            {
                spool.WriteAsync(record, {});
            }
        }
        spool.Write(record); // waits for everything queued before it
        state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * recordSize));
        state.counters["files"] = static_cast<double>(spool.FileIndices().size());
    }
    std::filesystem::remove_all(dir);
}

void BM_SpoolWriteAsync(benchmark::State& state)
{
    SpoolAppend(state, false);
}

void BM_SpoolWrite(benchmark::State& state)
{
    SpoolAppend(state, true);
}

} // namespace

BENCHMARK(BM_SpoolWriteAsync)->Arg(256)->Arg(1024)->Arg(8192)->UseRealTime();
BENCHMARK(BM_SpoolWrite)->Arg(256)->Arg(1024)->Arg(8192)->UseRealTime();

int main(int argc, char** argv)
{
    // Measure the spool, not the console: the quota clean-up logs a warning
    // per deleted file.
    Poco::Logger::root().setLevel(Poco::Message::PRIO_ERROR);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
    {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
