// Replays a captured audit corpus into the shipped daemon and compares its
// cost with the bare libauparse walk over the same text.
//
// The daemon (corvid-edr, started by the stand-in agent with the default
// configuration and manifests, dispatcher mode) connects to a socket this
// program serves, as it would to auditd's af_unix plugin. Runs:
//  - floor: AuparseFloor over the corpus in this process;
//  - fim, fim+ioc: the corpus unpaced (as fast as the daemon reads) with the
//    FIM manifest only, then with FIM and IOC;
//  - paced (FIM and IOC), paced-fim (FIM only): at --rate events/s, VmRSS
//    sampled as it runs, then --idle seconds without input for the idle CPU.
// A replay is done when the daemon has read every byte and its CPU stayed
// below 2% of a core for 3.5 s (longer than a CPU-limit pause: the parser
// waits 1 s at a time while the usage, sampled at most once a second, is
// high, so one pause can last two waits);
// the daemon is then stopped, and its health-status records must show that
// nothing was still queued at the stop. Figures: events per CPU-second of
// the daemon (utime + stime from /proc, start-up excluded) against the floor,
// peak RSS (VmHWM), steady RSS, idle CPU, and the losses the health-status
// records hold.
//
// The daemon installs its kernel rules: run under flock /tmp/work/kernel.lock.

#include "bench/AuparseFloor.h"
#include "bench/BenchDir.h"
#include "bench/DaemonUnderTest.h"
#include "bench/ReplayCorpus.h"
#include "bench/ResourceUsage.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{

using vantor::bench::AuparseFloor;
using vantor::bench::DaemonUnderTest;
using vantor::bench::ReplayCorpus;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr size_t kUnpacedChunk = 256 * 1024;
constexpr double kQuietSeconds = 3.5;
constexpr double kQuietShare = 0.02;
constexpr double kDoneTimeoutSeconds = 900;
constexpr double kMb = 1024.0;

struct Flags
{
    std::string corpus = ReplayCorpus::DefaultPath();
    std::string buildDir = CORVID_BINARY_DIR;
    std::set<std::string> runs = {"floor", "fim", "fim+ioc", "paced"};
    double rate = 30000;
    double idleSeconds = 20;
    int cpuLimit = -1;
    std::string perfOutput; // perf record -g of the fim+ioc run, or else of the fim run
    int perfHz = 250;
};

void Usage()
{
    std::fprintf(
        stderr,
        "usage: ReplayBench [--corpus FILE] [--build DIR] [--runs floor,fim,fim+ioc,paced,paced-fim]\n"
        "                   [--rate EVENTS_PER_S] [--idle SECONDS] [--cpu-limit PERCENT]\n"
        "                   [--perf FILE] [--perf-hz N]\n"
        "Default corpus: $%s, else DIR/bench/corpus/capture.audit.xz, else the sample.\n"
        "--cpu-limit overrides the shipped configuration's cpu_limit; --perf records the\n"
        "daemon with perf record -g during the fim+ioc run (the fim run when fim+ioc is\n"
        "not asked), sampling N times a second (250 unless given).\n",
        ReplayCorpus::kPathVariable);
}

std::optional<Flags> ParseFlags(int argc, char** argv)
{
    Flags flags;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        if (i + 1 >= argc)
        {
            return std::nullopt;
        }
        const std::string value = argv[++i];
        if (arg == "--corpus")
        {
            flags.corpus = value;
        }
        else if (arg == "--build")
        {
            flags.buildDir = value;
        }
        else if (arg == "--runs")
        {
            flags.runs.clear();
            std::istringstream in(value);
            for (std::string run; std::getline(in, run, ',');)
            {
                flags.runs.insert(run);
            }
        }
        else if (arg == "--rate")
        {
            flags.rate = std::stod(value);
        }
        else if (arg == "--idle")
        {
            flags.idleSeconds = std::stod(value);
        }
        else if (arg == "--cpu-limit")
        {
            flags.cpuLimit = std::stoi(value);
        }
        else if (arg == "--perf")
        {
            flags.perfOutput = value;
        }
        else if (arg == "--perf-hz")
        {
            flags.perfHz = std::stoi(value);
        }
        else
        {
            return std::nullopt;
        }
    }
    if (flags.rate <= 0 || flags.idleSeconds < 0 || flags.perfHz <= 0)
    {
        return std::nullopt;
    }
    return flags;
}

// perf record -g of one process, from construction to destruction.
class PerfRecord
{
public:
    PerfRecord(pid_t target, const std::string& output, int hz)
    {
        const std::string pid = std::to_string(target);
        const std::string frequency = std::to_string(hz);
        m_pid = ::fork();
        if (m_pid == 0)
        {
            // DWARF unwinding: the build keeps no frame pointers, so -g alone
            // loses the callers in user space.
            ::execlp("perf", "perf", "record", "-q", "-F", frequency.c_str(), "--call-graph", "dwarf,8192", "-p",
                     pid.c_str(), "-o", output.c_str(), nullptr);
            ::_exit(127);
        }
        // perf attaches before the replay starts.
        std::this_thread::sleep_for(1s);
    }
    ~PerfRecord()
    {
        if (m_pid > 0)
        {
            ::kill(m_pid, SIGINT);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    PerfRecord(const PerfRecord&) = delete;
    PerfRecord& operator=(const PerfRecord&) = delete;

private:
    pid_t m_pid = -1;
};

struct Floor
{
    uint64_t events = 0;
    uint64_t records = 0;
    double eventsPerCpuSecond = 0;
};

Floor RunFloor(const std::string& text)
{
    Floor floor;
    double best = 0;
    // The best of three: the floor is what libauparse needs at the least.
    for (int i = 0; i < 3; ++i)
    {
        const double before = vantor::bench::ResourceUsage::ProcessCpuSeconds();
        const auto result = AuparseFloor::Run(text);
        const double cpu = vantor::bench::ResourceUsage::ProcessCpuSeconds() - before;
        floor.events = result.events;
        floor.records = result.records;
        best = i == 0 ? cpu : std::min(best, cpu);
    }
    floor.eventsPerCpuSecond = static_cast<double>(floor.events) / best;
    return floor;
}

struct Replay
{
    double cpuSeconds = 0;
    double wallSeconds = 0;
    uint64_t peakRssKb = 0;
    uint64_t steadyRssKb = 0; // paced only: median VmRSS of the second half
    uint64_t maxSampledRssKb = 0;
    double idleCorePercent = -1;
    uint64_t parserQueueMaxKb = 0;
    std::map<std::string, uint64_t> health;
    bool done = false;
};

uint64_t Median(std::vector<uint64_t> values)
{
    if (values.empty())
    {
        return 0;
    }
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

// Sends the text at rate events/s, in 10 ms slices of whole lines, with
// linesPerEvent records per event on average; samples VmRSS every 250 ms.
void SendPaced(DaemonUnderTest& daemon, const std::string& text, double rate, double linesPerEvent,
               std::vector<uint64_t>& rssSamples)
{
    const auto start = Clock::now();
    auto nextSample = start;
    size_t at = 0;
    double linesSent = 0;
    while (at < text.size())
    {
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        const double due = elapsed * rate * linesPerEvent;
        size_t end = at;
        while (linesSent < due && end < text.size())
        {
            const void* newline = std::memchr(text.data() + end, '\n', text.size() - end);
            end = newline == nullptr
                      ? text.size()
                      : static_cast<size_t>(static_cast<const char*>(newline) - text.data()) + 1;
            ++linesSent;
        }
        daemon.Send(std::string_view(text).substr(at, end - at));
        at = end;
        if (Clock::now() >= nextSample)
        {
            rssSamples.push_back(daemon.StatusKb("VmRSS"));
            nextSample += 250ms;
        }
        std::this_thread::sleep_for(10ms);
    }
}

Replay RunReplay(const Flags& flags, const std::string& text, bool withIoc, std::optional<double> pacedRate,
                 double linesPerEvent, bool profile)
{
    vantor::bench::BenchDir dir;
    DaemonUnderTest daemon({flags.buildDir, CORVID_SOURCE_DIR, dir.Path(), withIoc, flags.cpuLimit});
    Replay replay;
    // Start-up (the process tree over /proc, rule installation) is not the
    // replay's cost.
    daemon.WaitQuiet(kQuietSeconds, kQuietShare, 60);
    std::optional<PerfRecord> perf;
    if (profile)
    {
        perf.emplace(daemon.Pid(), flags.perfOutput, flags.perfHz);
    }
    const double cpuBefore = daemon.CpuSeconds();
    const auto start = Clock::now();
    std::vector<uint64_t> rss;
    if (pacedRate)
    {
        SendPaced(daemon, text, *pacedRate, linesPerEvent, rss);
    }
    else
    {
        for (size_t at = 0; at < text.size(); at += kUnpacedChunk)
        {
            daemon.Send(std::string_view(text).substr(at, kUnpacedChunk));
        }
    }
    while (daemon.Unread() != 0 && Clock::now() - start < 900s)
    {
        std::this_thread::sleep_for(50ms);
    }
    replay.done = daemon.WaitQuiet(kQuietSeconds, kQuietShare, kDoneTimeoutSeconds);
    // The quiet window is not part of the replay.
    replay.wallSeconds = std::chrono::duration<double>(Clock::now() - start).count() - kQuietSeconds;
    replay.cpuSeconds = daemon.CpuSeconds() - cpuBefore;
    perf.reset();
    replay.peakRssKb = daemon.StatusKb("VmHWM");
    if (!rss.empty())
    {
        replay.steadyRssKb =
            Median(std::vector<uint64_t>(rss.begin() + static_cast<long>(rss.size() / 2), rss.end()));
        replay.maxSampledRssKb = *std::max_element(rss.begin(), rss.end());
    }
    if (pacedRate && flags.idleSeconds > 0)
    {
        const double idleBefore = daemon.RunningSeconds();
        std::this_thread::sleep_for(std::chrono::duration<double>(flags.idleSeconds));
        replay.idleCorePercent = (daemon.RunningSeconds() - idleBefore) * 100.0 / flags.idleSeconds;
    }
    replay.parserQueueMaxKb = daemon.ParserQueueMaxKb();
    const int status = daemon.Stop();
    if (status != 0)
    {
        std::printf("  note: the agent ended with status %d (see %s)\n", status, dir.Path().c_str());
    }
    replay.health = daemon.HealthTotals();
    return replay;
}

// Events the daemon had to parse: the corpus less what the parser queue
// dropped, in proportion to the bytes (drops are counted in bytes).
double ParsedEvents(const Replay& replay, const Floor& floor, size_t textBytes)
{
    const auto dropped = replay.health.find("audit.parser.queue/3004/bytes");
    const double droppedBytes = dropped == replay.health.end() ? 0 : static_cast<double>(dropped->second);
    return static_cast<double>(floor.events) * (1.0 - droppedBytes / static_cast<double>(textBytes));
}

// Done, or why not: what the stop found still queued was never measured.
const char* Outcome(const Replay& replay)
{
    if (!replay.done)
    {
        return "NOT DONE (timed out)";
    }
    for (const auto& [key, value] : replay.health)
    {
        if (value != 0 && key.find("AtStop") != std::string::npos)
        {
            return "NOT DONE (events still queued at the stop)";
        }
    }
    return "done";
}

void Print(const char* name, const Replay& replay, const Floor& floor, size_t textBytes)
{
    const double parsed = ParsedEvents(replay, floor, textBytes);
    const double perCpu = parsed / replay.cpuSeconds;
    std::printf("%s: %s; wall %.1f s, daemon CPU %.2f s, %.0f events parsed -> %.0f events/CPU-s", name,
                Outcome(replay), replay.wallSeconds, replay.cpuSeconds, parsed, perCpu);
    if (floor.eventsPerCpuSecond > 0)
    {
        std::printf(", %.2fx the floor", perCpu / floor.eventsPerCpuSecond);
    }
    std::printf("\n  peak RSS (VmHWM) %.1f MB; parser queue max %.1f MB; peak - queue max %.1f MB\n",
                replay.peakRssKb / kMb, replay.parserQueueMaxKb / kMb,
                (static_cast<double>(replay.peakRssKb) - static_cast<double>(replay.parserQueueMaxKb)) / kMb);
    if (replay.steadyRssKb != 0)
    {
        std::printf(
            "  steady RSS (median VmRSS, second half of the replay) %.1f MB, highest sample %.1f MB\n",
            replay.steadyRssKb / kMb, replay.maxSampledRssKb / kMb);
    }
    if (replay.idleCorePercent >= 0)
    {
        std::printf("  idle CPU after the replay: %.3f%% of one core\n", replay.idleCorePercent);
    }
    std::printf("  health-status totals (non-zero):");
    bool any = false;
    for (const auto& [key, value] : replay.health)
    {
        if (value != 0)
        {
            std::printf("%s %s=%llu", any ? "," : "", key.c_str(), static_cast<unsigned long long>(value));
            any = true;
        }
    }
    std::printf("%s\n", any ? "" : " none");
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    const auto flags = ParseFlags(argc, argv);
    if (!flags)
    {
        Usage();
        return 2;
    }
    try
    {
        const ReplayCorpus corpus(flags->corpus);
        const std::string& text = corpus.Text();
        std::printf("corpus: %s, %.1f MB, %zu records\n", corpus.Path().c_str(), text.size() / 1e6,
                    corpus.Lines());
        // The event count comes from libauparse in any case; the floor's
        // speed only when asked.
        Floor floor = flags->runs.count("floor") != 0 ? RunFloor(text) : Floor{};
        if (floor.events == 0)
        {
            const auto counted = AuparseFloor::Run(text);
            floor.events = counted.events;
            floor.records = counted.records;
        }
        std::printf("libauparse: %llu events, %llu records", static_cast<unsigned long long>(floor.events),
                    static_cast<unsigned long long>(floor.records));
        if (floor.eventsPerCpuSecond > 0)
        {
            std::printf("; floor %.0f events/CPU-s", floor.eventsPerCpuSecond);
        }
        std::printf("\n");
        std::fflush(stdout);
        const double linesPerEvent = static_cast<double>(corpus.Lines()) / static_cast<double>(floor.events);
        const bool profileFim = !flags->perfOutput.empty() && flags->runs.count("fim+ioc") == 0;
        if (flags->runs.count("fim") != 0)
        {
            Print("unpaced, FIM", RunReplay(*flags, text, false, std::nullopt, linesPerEvent, profileFim),
                  floor, text.size());
        }
        if (flags->runs.count("fim+ioc") != 0)
        {
            Print("unpaced, FIM+IOC",
                  RunReplay(*flags, text, true, std::nullopt, linesPerEvent, !flags->perfOutput.empty()),
                  floor, text.size());
        }
        for (const bool withIoc : {true, false})
        {
            if (flags->runs.count(withIoc ? "paced" : "paced-fim") != 0)
            {
                const std::string name = "paced " + std::to_string(static_cast<long>(flags->rate)) +
                                         " ev/s, " + (withIoc ? "FIM+IOC" : "FIM");
                Print(name.c_str(), RunReplay(*flags, text, withIoc, flags->rate, linesPerEvent, false),
                      floor, text.size());
            }
        }
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "ReplayBench: %s\n", e.what());
        return 1;
    }
    return 0;
}
