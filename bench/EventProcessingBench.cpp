#include "bench/ResourceUsage.h"
// Throughput of the event path: EventProcessingThread -> the rule engine's
// event processor, routing by path tag -> a handler that does nothing, with
// synthetic events and no process tree.

#include "audit/AuditEventProcessor.h"
#include "audit/EventProcessingThread.h"
#include "audit/EventRouter.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <ctime>
#include <string>
#include <thread>

namespace
{

using vantor::audit::AuditEventProcessor;
using vantor::audit::EventProcessingThread;
using vantor::audit::EventRouter;

class SyntheticEvent : public vantor::edr::Event
{
public:
    SyntheticEvent(uint32_t id, uint64_t timestamp)
        : m_id(id)
        , m_timestamp(timestamp)
    {
    }
    vantor::edr::EventType GetType() const override { return vantor::edr::EventType::Write; }
    uint32_t GetEventId() const override { return m_id; }
    uint64_t GetTimestamp() const override { return m_timestamp; }
    pid_t GetActorProcessId() const override { return 4242; }
    uint32_t GetCategory() const override { return 1; }
    bool IsSuccessful() const override { return true; }
    std::string GetFile() const override { return "/var/lib/app/data/file.db"; }

private:
    uint32_t m_id;
    uint64_t m_timestamp;
};

void BM_EventProcessing(benchmark::State& state)
{
    const auto batchSize = static_cast<uint32_t>(state.range(0));
    constexpr uint32_t kEventsPerIteration = 100000;
    EventRouter router;
    router.AddRoute("bench", {"bench", vantor::edr::EventRule::DirectoryPathRule, {}, {"/var/lib/app"}});
    std::atomic<uint64_t> handled{0};
    AuditEventProcessor processor(nullptr, 1, router,
                                  [&](const AuditEventProcessor::Tags&, vantor::edr::Event&)
                                  { handled.fetch_add(1, std::memory_order_relaxed); });
    EventProcessingThread thread(processor, 100, {});
    thread.SetQueueSize(1000000);
    thread.Start();

    uint32_t serial = 4294967295U - 50000; // crosses the wrap during the run
    double cpu = 0;
    const uint64_t switchesBefore = vantor::bench::ResourceUsage::VoluntarySwitches();
    for (auto _ : state)
    {
        const double cpuBefore = vantor::bench::ResourceUsage::ProcessCpuSeconds();
        const uint64_t target = handled.load() + kEventsPerIteration;
        for (uint32_t sent = 0; sent < kEventsPerIteration; sent += batchSize)
        {
            EventProcessingThread::Events batch;
            batch.reserve(batchSize);
            // Slightly out of order, as the parser hands them over.
            for (uint32_t i = 0; i < batchSize; ++i)
            {
                const uint32_t id = serial + (i ^ 1U);
                batch.push_back(std::make_unique<SyntheticEvent>(id, 1700000000000ULL + (id >> 4)));
            }
            serial += batchSize;
            thread.Enqueue(std::move(batch));
        }
        while (handled.load() < target)
        {
            std::this_thread::yield();
        }
        cpu += vantor::bench::ResourceUsage::ProcessCpuSeconds() - cpuBefore;
    }
    const auto switches =
        static_cast<double>(vantor::bench::ResourceUsage::VoluntarySwitches() - switchesBefore);
    thread.Stop();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kEventsPerIteration);
    state.counters["cpu_s_per_100k"] = cpu / static_cast<double>(state.iterations());
    state.counters["vol_cs_per_10k"] =
        switches * 10000.0 / (static_cast<double>(state.iterations()) * kEventsPerIteration);
}

BENCHMARK(BM_EventProcessing)->Arg(1)->Arg(64)->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
