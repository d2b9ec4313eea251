// Sustained throughput of the whole capture path, as the daemon runs it:
// a Unix stream socket (the bench plays the audit dispatcher and writes the
// corpus) -> DispatcherIOChannel -> ParserThread (AuparseFeed +
// AuditEventBuilder) -> EventProcessingThread -> the rule engine's event
// processor and router (no kernel) -> a handler that does nothing, with routes
// for the corpus's paths, process actions and network actions.
//
// The corpus is 100,000 events replicated from the records captured on this
// kernel. Each pass writes it once, followed by an end marker event; the pass
// ends when the handler sees the marker. Reported: events per second (wall),
// CPU seconds per 100k events (getrusage, every thread of the process,
// including the writer), voluntary context switches per 10k events, and, printed at the end, the peak RSS and
// the bare libauparse floor over the same text for comparison.
//
// Arg process_tree 0: no process tree (clone events then go nowhere); 1: with
// the process tree over /proc. Arg interleaved 1: the records of every 8
// events mixed, as a busy host sends them.

#include "bench/AuditCorpus.h"
#include "bench/AuparseFloor.h"
#include "bench/ResourceUsage.h"

#include "audit/AuditEventBuilder.h"
#include "audit/AuditEventProcessor.h"
#include "audit/DispatcherIOChannel.h"
#include "audit/EventProcessingThread.h"
#include "audit/EventRouter.h"
#include "audit/ParserThread.h"
#include "audit/ProcessTree.h"
#include "edr/LibMagicWrapper.h"

#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <string>

namespace
{

using vantor::audit::AuditEventProcessor;
using vantor::audit::EventRouter;
using vantor::bench::AuditCorpus;
using vantor::bench::AuparseFloor;
using vantor::bench::ResourceUsage;

constexpr size_t kEvents = 100000;
constexpr uint32_t kFirstSerial = 1000;
constexpr const char* kMagicDatabase = "/usr/share/misc/magic.mgc";
constexpr const char* kTag = "bench";

constexpr size_t kInterleave = 8;

struct Corpus
{
    AuditCorpus corpus{CORVID_SOURCE_DIR "/tests/fixtures/audit"};
    // One pass: the events and the end marker.
    std::string texts[2] = {corpus.Generate(kEvents, kFirstSerial) + corpus.EndMarker(kEvents, kFirstSerial),
                            corpus.Generate(kEvents, kFirstSerial, kInterleave) +
                                corpus.EndMarker(kEvents, kFirstSerial)};
    uint32_t endSerial = corpus.EndMarkerSerial(kEvents, kFirstSerial);
};

const Corpus& TheCorpus()
{
    static const Corpus corpus;
    return corpus;
}

// Routes for everything the corpus holds: files below the workload's data
// directory, process starts, clones and exits, connects and binds.
void AddRoutes(EventRouter& router, const std::string& dataDir)
{
    using vantor::edr::EventRule;
    router.AddRoute("files", {kTag, EventRule::DirectoryPathRule, {}, {dataDir}});
    router.AddRoute("processes", {kTag, EventRule::ProcessRule, {9, 10, 11}, {}});
    router.AddRoute("network", {kTag, EventRule::NetworkRule, {12, 13}, {}});
}

// The dispatcher's end: a listening Unix stream socket in a temporary
// directory, one accepted client.
class DispatcherSocket
{
public:
    DispatcherSocket()
    {
        char pattern[] = "/tmp/corvid-dispatch-XXXXXX";
        if (::mkdtemp(pattern) == nullptr)
        {
            throw std::runtime_error("DispatcherSocket: mkdtemp failed");
        }
        m_dir = pattern;
        m_path = m_dir + "/dispatch.sock";
        m_listen = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
        if (m_listen < 0 || ::bind(m_listen, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(m_listen, 1) != 0)
        {
            throw std::runtime_error(std::string("DispatcherSocket: ") + std::strerror(errno));
        }
    }
    ~DispatcherSocket()
    {
        if (m_client >= 0)
        {
            ::close(m_client);
        }
        ::close(m_listen);
        ::unlink(m_path.c_str());
        ::rmdir(m_dir.c_str());
    }
    DispatcherSocket(const DispatcherSocket&) = delete;
    DispatcherSocket& operator=(const DispatcherSocket&) = delete;

    const std::string& Path() const { return m_path; }

    // After the channel has connected.
    void Accept()
    {
        m_client = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (m_client < 0)
        {
            throw std::runtime_error(std::string("DispatcherSocket: accept: ") + std::strerror(errno));
        }
    }

    void Send(const std::string& text)
    {
        for (size_t at = 0; at < text.size();)
        {
            const ssize_t n = ::send(m_client, text.data() + at, text.size() - at, MSG_NOSIGNAL);
            if (n < 0)
            {
                if (errno == EINTR)
                {
                    continue;
                }
                throw std::runtime_error(std::string("DispatcherSocket: send: ") + std::strerror(errno));
            }
            at += static_cast<size_t>(n);
        }
    }

private:
    std::string m_dir;
    std::string m_path;
    int m_listen = -1;
    int m_client = -1;
};

// Counts what reaches the handler and tells when a pass's end marker did.
class EndWatch
{
public:
    explicit EndWatch(uint32_t endSerial)
        : m_endSerial(endSerial)
    {
    }
    void OnEvent(vantor::edr::Event& event)
    {
        m_handled.fetch_add(1, std::memory_order_relaxed);
        if (event.GetEventId() == m_endSerial)
        {
            std::lock_guard lock(m_mutex);
            ++m_ends;
            m_changed.notify_all();
        }
    }
    // False when the marker did not come within the time.
    bool WaitForEnds(uint64_t count, std::chrono::seconds timeout)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_ends >= count; });
    }
    uint64_t Handled() const { return m_handled.load(std::memory_order_relaxed); }

private:
    const uint32_t m_endSerial;
    std::atomic<uint64_t> m_handled{0};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    uint64_t m_ends = 0;
};

double g_floorNsPerEvent = 0;
// By process tree, then by corpus.
double g_pipelineNsPerEvent[2][2] = {{0, 0}, {0, 0}};

void BM_CapturePipeline(benchmark::State& state)
{
    const bool withTree = state.range(0) != 0;
    const auto interleaved = static_cast<size_t>(state.range(1));
    const Corpus& corpus = TheCorpus();
    auto tree = withTree ? std::make_shared<vantor::audit::ProcessTree>() : nullptr;
    EventRouter router;
    AddRoutes(router, corpus.corpus.DataDir());
    EndWatch watch(corpus.endSerial);
    AuditEventProcessor processor(tree, ::getpid(), router,
                                  [&](const AuditEventProcessor::Tags& tags, vantor::edr::Event& event)
                                  {
                                      if (tags.count(kTag) != 0)
                                      {
                                          watch.OnEvent(event);
                                      }
                                  });

    vantor::audit::AuditEventBuilder builder(
        std::make_shared<const vantor::edr::LibMagicWrapper>(kMagicDatabase));
    vantor::audit::EventProcessingThread processing(processor, 100, {});
    vantor::audit::ParserThread parser(
        builder, [&](vantor::audit::ParserThread::Events events) { processing.Enqueue(std::move(events)); },
        [] { return 0.0; }, 100);
    DispatcherSocket dispatcher;
    vantor::audit::DispatcherIOChannel channel(dispatcher.Path(), -1);
    channel.SetDataCallback([&](std::vector<uint8_t> data) { parser.Enqueue(std::move(data)); });
    channel.SetErrorCallback([](vantor::common::IOChannel::Error) {});
    processing.Start();
    parser.Start();
    channel.Start();
    dispatcher.Accept();

    uint64_t passes = 0;
    bool stalled = false;
    const double cpuBefore = ResourceUsage::CpuSeconds();
    const uint64_t switchesBefore = ResourceUsage::VoluntarySwitches();
    for (auto _ : state)
    {
        dispatcher.Send(corpus.texts[interleaved]);
        if (!watch.WaitForEnds(++passes, std::chrono::seconds(60)))
        {
            stalled = true;
            state.SkipWithError("the end marker did not come through");
            break;
        }
    }
    const double cpu = ResourceUsage::CpuSeconds() - cpuBefore;
    const auto switches = static_cast<double>(ResourceUsage::VoluntarySwitches() - switchesBefore);
    channel.Stop();
    parser.Stop();
    processing.Stop();

    const double events = static_cast<double>(kEvents + 1) * static_cast<double>(passes);
    if (!stalled && passes > 0)
    {
        g_pipelineNsPerEvent[withTree ? 1 : 0][interleaved] = cpu * 1e9 / events;
    }
    state.SetItemsProcessed(static_cast<int64_t>(events));
    state.counters["cpu_s_per_100k"] = cpu * 100000.0 / events;
    state.counters["vol_cs_per_10k"] = switches * 10000.0 / events;
    state.counters["handled_per_pass"] =
        passes > 0 ? static_cast<double>(watch.Handled()) / static_cast<double>(passes) : 0;
    state.counters["peak_rss_MB"] = static_cast<double>(ResourceUsage::PeakRssKb()) / 1024.0;
}

void BM_AuparseFloor(benchmark::State& state)
{
    g_floorNsPerEvent = vantor::bench::AuparseFloor::Measure(state, TheCorpus().texts[0], kEvents + 1);
}

BENCHMARK(BM_AuparseFloor)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_CapturePipeline)
    ->ArgNames({"process_tree", "interleaved"})
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(3.0);

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
    {
        return 1;
    }
    const Corpus& corpus = TheCorpus();
    std::printf(
        "corpus: %zu events + end marker per pass, %.1f MB of text; peak RSS with the corpus: %llu KB\n",
        kEvents, static_cast<double>(corpus.texts[0].size()) / 1e6,
        static_cast<unsigned long long>(ResourceUsage::PeakRssKb()));
    benchmark::RunSpecifiedBenchmarks();
    for (int tree = 0; tree < 2; ++tree)
    {
        for (int interleaved = 0; interleaved < 2; ++interleaved)
        {
            const double pipeline = g_pipelineNsPerEvent[tree][interleaved];
            if (g_floorNsPerEvent > 0 && pipeline > 0)
            {
                std::printf("CPU per event (%s process tree, %s): pipeline %.0f ns, libauparse floor %.0f ns "
                            "(contiguous), ratio %.2f\n",
                            tree != 0 ? "with" : "without", interleaved != 0 ? "interleaved" : "contiguous",
                            pipeline, g_floorNsPerEvent, pipeline / g_floorNsPerEvent);
            }
        }
    }
    std::printf("peak RSS: %llu KB\n", static_cast<unsigned long long>(ResourceUsage::PeakRssKb()));
    benchmark::Shutdown();
    return 0;
}
