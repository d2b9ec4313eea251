// One IOC batch of 200 reported file writes, from Start to the spool file:
// the messages filled, the snapshot rows read and held, the batch
// serialized and written. The files sit in 20 directories whose rows the
// snapshot holds after the first batch; their content is not hashed (that
// is paid once per version elsewhere). Also the examination of a process's
// image, against the bare stat it cannot do without.
#include "bench/BenchDir.h"
#include "common/Logging.h"
#include "common/Scheduler.h"
#include "common/SpoolRawDataFormatter.h"
#include "common/SpoolStorage.h"
#include "common/SqlStorage.h"
#include "ioc/ClientInformation.h"
#include "ioc/Config.h"
#include "ioc/EventRuleManager.h"
#include "ioc/ImageFile.h"
#include "ioc/SequenceNumber.h"
#include "ioc/SnapshotSqlDataFormatter.h"
#include "ioc/protobuf/DataFormatter.h"
#include "tests/src/ioc/IocTestEvent.h"

#include <benchmark/benchmark.h>

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

namespace
{

using namespace vantor;
using namespace vantor::ioc::internal;

constexpr int kEventsPerBatch = 200;
constexpr int kDirectories = 20;

// A file write as the capture reports it: with the file's stat.
class StatEvent : public ioc::test::IocTestEvent
{
public:
    TimePoint GetFileModificationTime() const override { return TimePoint(std::chrono::seconds(1700000000)); }
    TimePoint GetFileAccessTime() const override { return TimePoint(std::chrono::seconds(1700000001)); }
    TimePoint GetFileChangeTime() const override { return TimePoint(std::chrono::seconds(1700000002)); }
};

void BM_BatchOfFileWrites(benchmark::State& state)
{
    common::Logging::Edr().setLevel(Poco::Message::PRIO_FATAL);
    bench::BenchDir dir;
    common::Scheduler scheduler;
    common::SpoolStorage spool(scheduler, dir.Path(), "ioc",
                               std::make_unique<common::SpoolRawDataFormatter>(),
                               common::SpoolStorage::Settings{4096, 0, 0}, 10000);
    common::SqlStorage snapshot(dir.Path(), "SnapshotEdr.db", std::make_unique<SnapshotSqlDataFormatter>(),
                                false);
    ClientInformation::Write(snapshot, "BootTime", "1700000000");
    SequenceNumber sequence(snapshot);
    const ioc::Ioc::Config config("{}");
    EventRuleManager rules;
    protobuf::AgentIdentity identity;
    identity.customerId = "customer-1";
    identity.agentId = "agent-1";
    protobuf::DataFormatter formatter(
        identity, protobuf::DataFormatter::Services{snapshot, sequence, spool, config, rules, nullptr});

    std::vector<StatEvent> events(kEventsPerBatch);
    for (int i = 0; i < kEventsPerBatch; ++i)
    {
        auto& event = events[i];
        event.type = edr::EventType::Write;
        event.id = 1000 + i;
        event.pid = 4242;
        event.image = "/usr/lib/jvm/java-17-openjdk-amd64/bin/java";
        event.file = "/home/user/project/build/module-" + std::to_string(i % kDirectories) + "/classes/File" +
                     std::to_string(i) + ".class";
    }
    for (auto _ : state)
    {
        formatter.Start();
        for (const auto& event : events)
        {
            formatter.Append(event, nullptr, false);
        }
        benchmark::DoNotOptimize(formatter.Finish());
    }
    state.SetItemsProcessed(state.iterations() * kEventsPerBatch);
}
BENCHMARK(BM_BatchOfFileWrites)->Unit(benchmark::kMicrosecond);

// Arg(0): ImageFile::FromPath of an executable; Arg(1): its stat alone.
void BM_ImageOfAProcess(benchmark::State& state)
{
    const std::string path = "/bin/sh";
    for (auto _ : state)
    {
        if (state.range(0) == 0)
        {
            benchmark::DoNotOptimize(ioc::ImageFile::FromPath(path));
        }
        else
        {
            struct stat st
            {
            };
            benchmark::DoNotOptimize(::stat(path.c_str(), &st));
        }
    }
}
BENCHMARK(BM_ImageOfAProcess)->Arg(0)->Arg(1);

} // namespace

BENCHMARK_MAIN();
