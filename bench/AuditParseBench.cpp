// Cost of turning raw audit text into typed events, against the floor that
// libauparse itself sets.
//
// The corpus: 100,000 events replicated from the records captured on this
// kernel, renumbered, held in memory and fed in 64 KiB chunks; arg
// "interleaved" 1: the records of every 8 events mixed, as a busy host sends
// them.
//  - BM_AuparseFloor: libauparse in feed mode with a callback that only walks
//    every record and field (names and values read).
//  - BM_AuparseFeedBuilder: AuparseFeed + AuditEventBuilder, the real intake:
//    typed events built (paths resolved, stat of the objects) and destroyed;
//    arg "as_received" 1: the records fed to libauparse as they came
//    instead of grouped by event first.
//  - BM_AuparseFeedEnriched: the same intake (grouped by event) over the
//    contiguous corpus as auditd's dispatcher sends it, the interpreted
//    names after a 0x1d byte on SYSCALL, PATH and SOCKADDR records.
//  - BM_AuparseFeedCaptured: the same intake over the captured corpus of a
//    real host (bench/ReplayCorpus: the build tree's capture, else the
//    shipped sample), as the dispatcher sent it; per event is per SYSCALL
//    record there.
// After the runs the ratio of their CPU per event and the peak RSS are
// printed. Before them, the heap bytes that the typed events of the corpus
// hold while queued, what a clone of each (as IOC makes) adds, and the heap
// allocations (operator new, that is ours, not libauparse's) per event that
// building them took.

#include "bench/AuditCorpus.h"
#include "bench/AuparseFloor.h"
#include "bench/ReplayCorpus.h"
#include "bench/ResourceUsage.h"

#include "audit/AuditEventBuilder.h"
#include "audit/AuparseFeed.h"
#include "edr/LibMagicWrapper.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <map>
#include <memory>
#include <new>

namespace
{
// Allocations by operator new on this thread (the intake runs on the
// calling thread). The library's operator delete frees with free().
thread_local uint64_t t_allocations = 0;
} // namespace

// Not inlined: the compiler would otherwise pair its malloc with operator delete.
__attribute__((noinline)) void* operator new(std::size_t size)
{
    ++t_allocations;
    if (void* p = std::malloc(size != 0 ? size : 1))
    {
        return p;
    }
    throw std::bad_alloc();
}

namespace
{

using vantor::bench::AuditCorpus;
using vantor::bench::AuparseFloor;
using vantor::bench::ResourceUsage;

constexpr size_t kEvents = 100000;
constexpr uint32_t kFirstSerial = 1000;
constexpr const char* kMagicDatabase = "/usr/share/misc/magic.mgc";

constexpr size_t kInterleave = 8;

// The dispatcher's tail of a record, as this host's auditd writes it.
std::string_view EnrichmentOf(std::string_view line)
{
    if (line.starts_with("type=SYSCALL "))
    {
        return "\x1d"
               "ARCH=x86_64 SYSCALL=openat AUID=\"unset\" UID=\"root\" GID=\"root\" EUID=\"root\" "
               "SUID=\"root\" FSUID=\"root\" EGID=\"root\" SGID=\"root\" FSGID=\"root\"";
    }
    if (line.starts_with("type=PATH "))
    {
        return "\x1d"
               "OUID=\"root\" OGID=\"root\"";
    }
    if (line.starts_with("type=SOCKADDR "))
    {
        return "\x1d"
               "SADDR={ saddr_fam=inet laddr=127.0.0.1 lport=47011 }";
    }
    return {};
}

std::string Enriched(std::string_view text)
{
    std::string enriched;
    enriched.reserve(text.size() + text.size() / 4);
    while (!text.empty())
    {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        enriched.append(line).append(EnrichmentOf(line)).push_back('\n');
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return enriched;
}

struct Corpus
{
    AuditCorpus corpus{CORVID_SOURCE_DIR "/tests/fixtures/audit"};
    std::string texts[2] = {corpus.Generate(kEvents, kFirstSerial),
                            corpus.Generate(kEvents, kFirstSerial, kInterleave)};
    std::string enriched = Enriched(texts[0]);
};

const Corpus& TheCorpus()
{
    static const Corpus corpus;
    return corpus;
}

// CPU ns per corpus event of the last run of each benchmark, by corpus.
double g_floorNsPerEvent[2] = {0, 0};
// By corpus, then by grouping (0 by event, 1 as received).
double g_intakeNsPerEvent[2][2] = {{0, 0}, {0, 0}};

void BM_AuparseFloor(benchmark::State& state)
{
    const auto interleaved = static_cast<size_t>(state.range(0));
    g_floorNsPerEvent[interleaved] =
        vantor::bench::AuparseFloor::Measure(state, TheCorpus().texts[interleaved], kEvents);
}

// Feeds the text in chunks as the intake does; answers CPU ns per event
// (corpusEvents per pass).
double MeasureIntake(benchmark::State& state, const std::string& text,
                     vantor::audit::AuparseFeed::Grouping grouping, size_t corpusEvents = kEvents)
{
    auto magic = std::make_shared<const vantor::edr::LibMagicWrapper>(kMagicDatabase);
    vantor::audit::AuditEventBuilder builder(magic);
    const auto* data = reinterpret_cast<const uint8_t*>(text.data());
    uint64_t built = 0;
    double cpu = 0;
    const uint64_t allocationsBefore = t_allocations;
    for (auto _ : state)
    {
        const double before = vantor::bench::ResourceUsage::ProcessCpuSeconds();
        built = 0;
        vantor::audit::AuparseFeed feed(builder, nullptr, grouping);
        for (size_t at = 0; at < text.size(); at += AuparseFloor::kChunkSize)
        {
            built += feed.Feed(data + at, std::min(AuparseFloor::kChunkSize, text.size() - at)).size();
        }
        built += feed.Flush().size();
        cpu += vantor::bench::ResourceUsage::ProcessCpuSeconds() - before;
    }
    const auto events = static_cast<double>(corpusEvents) * static_cast<double>(state.iterations());
    state.SetItemsProcessed(static_cast<int64_t>(events));
    state.counters["cpu_ns_per_event"] = cpu * 1e9 / events;
    state.counters["typed_events"] = static_cast<double>(built);
    state.counters["allocs_per_event"] = static_cast<double>(t_allocations - allocationsBefore) / events;
    return cpu * 1e9 / events;
}

void BM_AuparseFeedBuilder(benchmark::State& state)
{
    const auto interleaved = static_cast<size_t>(state.range(0));
    const auto asReceived = static_cast<size_t>(state.range(1));
    g_intakeNsPerEvent[interleaved][asReceived] =
        MeasureIntake(state, TheCorpus().texts[interleaved],
                      asReceived != 0 ? vantor::audit::AuparseFeed::Grouping::AsReceived
                                      : vantor::audit::AuparseFeed::Grouping::ByEvent);
}

void BM_AuparseFeedEnriched(benchmark::State& state)
{
    MeasureIntake(state, TheCorpus().enriched, vantor::audit::AuparseFeed::Grouping::ByEvent);
}

void BM_AuparseFeedCaptured(benchmark::State& state)
{
    static const vantor::bench::ReplayCorpus captured(vantor::bench::ReplayCorpus::DefaultPath());
    static const size_t events = []
    {
        size_t count = 0;
        for (size_t at = captured.Text().find("type=SYSCALL "); at != std::string::npos;
             at = captured.Text().find("type=SYSCALL ", at + 1))
        {
            ++count;
        }
        return count;
    }();
    state.SetLabel(captured.Path());
    MeasureIntake(state, captured.Text(), vantor::audit::AuparseFeed::Grouping::ByEvent, events);
}

BENCHMARK(BM_AuparseFloor)
    ->ArgName("interleaved")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);
BENCHMARK(BM_AuparseFeedBuilder)
    ->ArgNames({"interleaved", "as_received"})
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);
BENCHMARK(BM_AuparseFeedEnriched)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_AuparseFeedCaptured)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(5.0);

// What the intake makes of the corpus, once, untimed, and the heap its
// typed events hold while all of them are alive (as in a full queue).
void PrintCorpus()
{
    const Corpus& corpus = TheCorpus();
    std::printf("corpus: %zu events (%zu distinct, %.1f records each), %.1f MB of text\n", kEvents,
                corpus.corpus.TemplateCount(), corpus.corpus.RecordsPerEvent(),
                static_cast<double>(corpus.texts[0].size()) / 1e6);
    vantor::audit::AuditEventBuilder builder(
        std::make_shared<const vantor::edr::LibMagicWrapper>(kMagicDatabase));
    vantor::audit::AuparseFeed::Events kept;
    kept.reserve(kEvents + kEvents / 2);
    const size_t heapBefore = ResourceUsage::HeapInUse();
    const uint64_t allocationsBefore = t_allocations;
    {
        vantor::audit::AuparseFeed feed(builder);
        const auto keep = [&](vantor::audit::AuparseFeed::Events events)
        {
            for (auto& event : events)
            {
                kept.push_back(std::move(event));
            }
        };
        const std::string& text = corpus.texts[0];
        const auto* data = reinterpret_cast<const uint8_t*>(text.data());
        for (size_t at = 0; at < text.size(); at += AuparseFloor::kChunkSize)
        {
            keep(feed.Feed(data + at, std::min(AuparseFloor::kChunkSize, text.size() - at)));
        }
        keep(feed.Flush());
    }
    const size_t heapEvents = ResourceUsage::HeapInUse();
    const uint64_t allocations = t_allocations - allocationsBefore;
    vantor::audit::AuparseFeed::Events clones;
    clones.reserve(kept.size());
    for (const auto& event : kept)
    {
        clones.push_back(event->Clone());
    }
    const size_t heapClones = ResourceUsage::HeapInUse();
    std::map<std::string, size_t> byAction;
    for (const auto& event : kept)
    {
        try
        {
            ++byAction[event->GetActionName()];
        }
        catch (const std::exception&)
        {
            ++byAction["(no action name)"];
        }
    }
    std::printf("typed events: %zu:", kept.size());
    for (const auto& [action, count] : byAction)
    {
        std::printf(" %s %zu", action.c_str(), count);
    }
    const auto perEvent = [&](size_t bytes)
    { return static_cast<double>(bytes) / static_cast<double>(kept.size()); };
    std::printf("\nheap per typed event: %.0f bytes held (event object and its members), clone %.0f bytes, "
                "%.2f allocations to build\n",
                perEvent(heapEvents - heapBefore), perEvent(heapClones - heapEvents), perEvent(allocations));
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
    {
        return 1;
    }
    PrintCorpus();
    benchmark::RunSpecifiedBenchmarks();
    for (size_t interleaved = 0; interleaved < 2; ++interleaved)
    {
        for (size_t asReceived = 0; asReceived < 2; ++asReceived)
        {
            const double intake = g_intakeNsPerEvent[interleaved][asReceived];
            if (g_floorNsPerEvent[0] > 0 && intake > 0)
            {
                std::printf("CPU per event (%s, %s): floor %.0f ns (contiguous), %.0f ns (same text), intake "
                            "%.0f ns, intake/contiguous floor %.2f\n",
                            interleaved != 0 ? "interleaved" : "contiguous",
                            asReceived != 0 ? "as received" : "grouped by event", g_floorNsPerEvent[0],
                            g_floorNsPerEvent[interleaved], intake, intake / g_floorNsPerEvent[0]);
            }
        }
    }
    std::printf("peak RSS: %llu KB\n", static_cast<unsigned long long>(ResourceUsage::PeakRssKb()));
    benchmark::Shutdown();
    return 0;
}
