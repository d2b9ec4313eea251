// The IOC TTL process tree at 100,000 processes, each with three cached
// events: the cost of adding a process from its running event, of looking
// one up (a copy of its information, and its ancestors), of a sweep that
// deletes half of them, and of saving the tree to the snapshot database;
// and the memory the tree holds (resident set growth while it is built, and
// the peak of the whole run). Also the verdicts of the engines that read the
// tree per event, for a build lineage six deep with 2 KB command lines; and
// the file type of a reported file (one that is gone, one described before).
#include "bench/BenchDir.h"
#include "bench/ResourceUsage.h"
#include "common/Logging.h"
#include "common/SqlStorage.h"
#include "edr/Event.h"
#include "edr/LibMagicWrapper.h"
#include "ioc/FileTypeIdentifier.h"
#include "ioc/HeuristicsEngine.h"
#include "ioc/SnapshotSqlDataFormatter.h"
#include "ioc/TaggingEngine.h"
#include "ioc/TtlProcessTree.h"

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace
{

using vantor::ioc::TtlProcessTree;
using namespace std::chrono_literals;

constexpr pid_t kProcesses = 100000;
constexpr uint32_t kEventsPerProcess = 3;

// A process-running or file event with what the tree reads.
class BenchEvent : public vantor::edr::Event
{
public:
    BenchEvent(pid_t pid, pid_t parentPid, uint32_t id)
        : m_pid(pid)
        , m_parentPid(parentPid)
        , m_id(id)
        , m_file("/home/user/project/src/module-" + std::to_string(id % 97) + "/file.cpp")
    {
    }
    std::unique_ptr<Event> Clone() const override { return std::make_unique<BenchEvent>(*this); }
    vantor::edr::EventType GetType() const override { return vantor::edr::EventType::Running; }
    uint32_t GetEventId() const override { return m_id; }
    pid_t GetActorProcessId() const override { return m_pid; }
    pid_t GetActorParentProcessId() const override { return m_parentPid; }
    std::vector<std::string> GetActorProcessArguments() const override
    {
        return {"/usr/bin/python3", "-u", "/opt/service/bin/worker.py", "--queue",
                "jobs-" + std::to_string(m_pid)};
    }
    std::string GetImage() const override { return "/usr/bin/python3"; }
    // What the process ran, as audit names it: the image itself.
    std::string GetSecondaryImage() const override { return "/usr/bin/python3"; }
    std::string GetCwd() const override { return "/opt/service"; }
    std::string GetFile() const override { return m_file; }
    uint32_t GetActorUserId() const override { return 1000; }
    uint32_t GetActorEuid() const override { return 1000; }
    uint32_t GetActorAuid() const override { return 1000; }
    uint64_t GetTimestamp() const override { return 1700000000000ULL + m_id; }

private:
    pid_t m_pid;
    pid_t m_parentPid;
    uint32_t m_id;
    std::string m_file;
};

// A bench directory with a proc root where no process runs: start times
// come from the events, and /proc reads fail fast.
class BenchDir : public vantor::bench::BenchDir
{
public:
    BenchDir()
    {
        std::filesystem::create_directories(Path() + "/proc");
        std::ofstream(Path() + "/proc/stat") << "btime 1700000000\n";
    }
};

uint64_t CurrentRssKb()
{
    std::ifstream statm("/proc/self/statm");
    uint64_t size = 0;
    uint64_t resident = 0;
    statm >> size >> resident;
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

// Processes 2..kProcesses+1, each the child of the one before (every 50th of
// process 1), each with its cached events.
std::unique_ptr<TtlProcessTree> BuildTree(const BenchDir& dir, TtlProcessTree::Clock clock)
{
    auto tree = std::make_unique<TtlProcessTree>(dir.Path() + "/proc", 300s, std::move(clock));
    for (pid_t pid = 2; pid < kProcesses + 2; ++pid)
    {
        const pid_t parent = pid % 50 == 0 ? 1 : pid - 1;
        tree->AddOrUpdate(BenchEvent(pid, parent, static_cast<uint32_t>(pid)));
        for (uint32_t e = 0; e < kEventsPerProcess; ++e)
        {
            tree->CacheEvent(std::make_shared<BenchEvent>(pid, parent, static_cast<uint32_t>(pid) * 4 + e));
        }
    }
    return tree;
}

void Quiet()
{
    vantor::common::Logging::Edr().setLevel(Poco::Message::PRIO_FATAL);
}

void BM_TtlTreeAddWithEvents(benchmark::State& state)
{
    Quiet();
    BenchDir dir;
    uint64_t growthKb = 0;
    for (auto _ : state)
    {
        const uint64_t before = CurrentRssKb();
        auto tree = BuildTree(dir, std::chrono::steady_clock::now);
        // The first build shows the growth; later ones reuse the freed heap.
        growthKb = std::max(growthKb, CurrentRssKb() - before);
        benchmark::DoNotOptimize(tree->Size());
        state.PauseTiming();
        tree.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kProcesses);
    state.counters["tree_rss_kb"] = static_cast<double>(growthKb);
    state.counters["bytes_per_process"] = static_cast<double>(growthKb) * 1024 / kProcesses;
    state.counters["peak_rss_kb"] = static_cast<double>(vantor::bench::ResourceUsage::PeakRssKb());
}
BENCHMARK(BM_TtlTreeAddWithEvents)->Unit(benchmark::kMillisecond)->Iterations(2);

// Runs a query on pids spread over the whole tree.
template <typename Query>
void QueryPids(benchmark::State& state, Query query)
{
    Quiet();
    BenchDir dir;
    auto tree = BuildTree(dir, std::chrono::steady_clock::now);
    pid_t pid = 2;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(query(*tree, pid));
        pid = pid * 7919 % kProcesses + 2;
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_TtlTreeLookup(benchmark::State& state)
{
    QueryPids(state, [](const TtlProcessTree& tree, pid_t pid) { return tree.GetProcessInfo(pid); });
}
BENCHMARK(BM_TtlTreeLookup);

void BM_TtlTreeAncestors(benchmark::State& state)
{
    // Up to 49 ancestors: the chains run from process 1 in steps of 50.
    QueryPids(state, [](const TtlProcessTree& tree, pid_t pid) { return tree.GetAncestors(pid); });
}
BENCHMARK(BM_TtlTreeAncestors);

// A process start of a process that runs, with the host's /proc: its stat
// and boot time, and its image's attributes (python3's, or nothing where
// there is none).
void BM_TtlTreeStartOfARunningProcess(benchmark::State& state)
{
    Quiet();
    TtlProcessTree tree("/proc");
    const BenchEvent start(getpid(), getppid(), 1);
    for (auto _ : state)
    {
        tree.AddOrUpdate(start);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TtlTreeStartOfARunningProcess);

void BM_TtlTreeSweepHalfExpired(benchmark::State& state)
{
    Quiet();
    BenchDir dir;
    auto now = std::chrono::steady_clock::time_point(std::chrono::hours(1));
    for (auto _ : state)
    {
        state.PauseTiming();
        auto tree = BuildTree(dir, [&now] { return now; });
        for (pid_t pid = 2; pid < kProcesses + 2; pid += 2)
        {
            tree->MarkTerminated(pid);
        }
        now += 301s;
        state.ResumeTiming();
        tree->DeleteStaleProcesses();
        benchmark::DoNotOptimize(tree->Size());
        state.PauseTiming();
        tree.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kProcesses);
}
BENCHMARK(BM_TtlTreeSweepHalfExpired)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_TtlTreeSave(benchmark::State& state)
{
    Quiet();
    BenchDir dir;
    auto tree = BuildTree(dir, std::chrono::steady_clock::now);
    vantor::common::SqlStorage storage(dir.Path(), "SnapshotEdr.db",
                                       std::make_unique<vantor::ioc::internal::SnapshotSqlDataFormatter>(),
                                       false);
    pid_t pid = 2;
    for (auto _ : state)
    {
        // One change, so that the save writes the whole tree.
        tree->AddTag(pid++, "Execution", 1);
        tree->Save(storage);
    }
    state.SetItemsProcessed(state.iterations() * kProcesses);
    state.counters["db_kb"] =
        static_cast<double>(std::filesystem::file_size(dir.Path() + "/SnapshotEdr.db")) / 1024;
}
BENCHMARK(BM_TtlTreeSave)->Unit(benchmark::kMillisecond)->Iterations(3);

// A save a second on a busy host, of 100,000 processes: 2,000 rows that
// changed (a tag each; argument 0), or 2,000 rows of processes whose TTL
// ran out (argument 1).
void BM_TtlTreeSaveChangedRows(benchmark::State& state)
{
    Quiet();
    BenchDir dir;
    const bool expire = state.range(0) != 0;
    auto now = std::chrono::steady_clock::time_point(std::chrono::hours(1));
    auto tree = BuildTree(dir, [&now] { return now; });
    vantor::common::SqlStorage storage(dir.Path(), "SnapshotEdr.db",
                                       std::make_unique<vantor::ioc::internal::SnapshotSqlDataFormatter>(),
                                       false);
    tree->Save(storage);
    constexpr pid_t kChanged = 2000;
    pid_t pid = 2;
    for (auto _ : state)
    {
        state.PauseTiming();
        for (pid_t i = 0; i < kChanged && tree->Size() > 1; ++i, pid = pid % kProcesses + 2)
        {
            expire ? tree->MarkTerminated(pid) : static_cast<void>(tree->AddTag(pid, "Execution", 1));
        }
        if (expire)
        {
            // The exits are saved; then their TTL runs out.
            tree->Save(storage);
            now += 301s;
            tree->DeleteStaleProcesses();
        }
        state.ResumeTiming();
        tree->Save(storage);
    }
    state.SetItemsProcessed(state.iterations() * kChanged);
}
BENCHMARK(BM_TtlTreeSaveChangedRows)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(20);

// make -> sh -> gcc -> ...: process 2 to kLineageDepth + 1, each the child of
// the one before, each run with 2 KB of arguments; the file events are the
// last one's.
constexpr pid_t kLineageDepth = 6;

class LineageEvent : public vantor::edr::Event
{
public:
    LineageEvent(vantor::edr::EventType type, pid_t pid, uint32_t id)
        : m_type(type)
        , m_pid(pid)
        , m_id(id)
    {
    }
    vantor::edr::EventType GetType() const override { return m_type; }
    std::string GetActionName() const override { return "Write"; }
    uint32_t GetEventId() const override { return m_id; }
    pid_t GetActorProcessId() const override { return m_pid; }
    pid_t GetActorParentProcessId() const override { return m_pid - 1; }
    std::vector<std::string> GetActorProcessArguments() const override
    {
        return {GetImage(), std::string(2048, static_cast<char>('a' + m_pid))};
    }
    std::string GetImage() const override { return "/usr/bin/tool-" + std::to_string(m_pid); }
    std::string GetCwd() const override { return "/home/user/project"; }
    std::string GetFile() const override
    {
        return "/home/user/project/obj/unit-" + std::to_string(m_id % 97) + ".o";
    }
    uint64_t GetTimestamp() const override { return 1700000000000ULL + m_id; }

private:
    vantor::edr::EventType m_type;
    pid_t m_pid;
    uint32_t m_id;
};

// Asks engine for verdicts on the write events of the lineage's last process.
template <typename Engine, typename Configure>
void LineageVerdicts(benchmark::State& state, Configure configure)
{
    Quiet();
    BenchDir dir;
    TtlProcessTree tree(dir.Path() + "/proc");
    for (pid_t pid = 2; pid < kLineageDepth + 2; ++pid)
    {
        tree.AddOrUpdate(LineageEvent(vantor::edr::EventType::Running, pid, 0));
    }
    Engine engine(tree);
    configure(engine);
    std::vector<vantor::ioc::internal::Engine::EventPtr> events;
    for (uint32_t id = 1; id <= 97; ++id)
    {
        events.push_back(
            std::make_shared<LineageEvent>(vantor::edr::EventType::Write, kLineageDepth + 1, id));
    }
    size_t next = 0;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(engine.GetVerdict(events[next]));
        next = (next + 1) % events.size();
    }
    state.SetItemsProcessed(state.iterations());
}

struct Heuristics : vantor::ioc::internal::HeuristicsEngine
{
    explicit Heuristics(TtlProcessTree& tree)
        : HeuristicsEngine(tree, true)
    {
    }
};

void BM_HeuristicsVerdictDeepLineage(benchmark::State& state)
{
    LineageVerdicts<Heuristics>(state, [](auto&) {});
}
BENCHMARK(BM_HeuristicsVerdictDeepLineage);

void BM_TaggingVerdictDeepLineage(benchmark::State& state)
{
    LineageVerdicts<vantor::ioc::internal::TaggingEngine>(
        state,
        [](auto& engine)
        {
            engine.ApplySettings(R"({"thresholdScore": 100, "CredentialAccess": {"score": 1},
                "DefenseEvasion": {"score": 1}, "Execution": {"score": 1}, "Exfiltration": {"score": 1},
                "Persistence": {"score": 1}, "PrivilegeEscalation": {"score": 1}})");
        });
}
BENCHMARK(BM_TaggingVerdictDeepLineage);

// A build's make with thousands of children: the verdict on each child's
// start, which looks for tags to inherit from its kin. With Arg(1) one
// process elsewhere in the tree carries a tag.
void BM_TaggingVerdictBusyParentStart(benchmark::State& state)
{
    constexpr pid_t kParent = 100;
    constexpr pid_t kChildren = 5000;
    struct ChildEvent : LineageEvent
    {
        using LineageEvent::LineageEvent;
        pid_t GetActorParentProcessId() const override { return kParent; }
    };
    Quiet();
    BenchDir dir;
    TtlProcessTree tree(dir.Path() + "/proc");
    tree.AddOrUpdate(LineageEvent(vantor::edr::EventType::Running, kParent, 0));
    std::vector<vantor::ioc::internal::Engine::EventPtr> starts;
    for (pid_t pid = kParent + 1; pid <= kParent + kChildren; ++pid)
    {
        starts.push_back(std::make_shared<ChildEvent>(vantor::edr::EventType::Running, pid, 0));
        tree.AddOrUpdate(*starts.back());
    }
    if (state.range(0) != 0)
    {
        tree.AddOrUpdate(LineageEvent(vantor::edr::EventType::Running, 50, 0));
        tree.AddTag(50, "Execution", 1);
    }
    vantor::ioc::internal::TaggingEngine engine(tree);
    engine.ApplySettings(R"({"thresholdScore": 100, "Execution": {"score": 1}})");
    size_t next = 0;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(engine.GetVerdict(starts[next]));
        next = (next + 1) % starts.size();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TaggingVerdictBusyParentStart)->Arg(0)->Arg(1);

// The type of a reported regular file: Arg(0) one that is gone (the event
// had no stat), Arg(1) one whose version was described before. The malloc
// tuning is the daemon's: libmagic's read buffer is mapped per call.
void BM_FileTypeOfAReportedFile(benchmark::State& state)
{
    Quiet();
    ::mallopt(M_MMAP_THRESHOLD, 4194304);
    vantor::bench::BenchDir dir;
    const std::string present = dir.Path() + "/script.sh";
    std::ofstream(present) << "#!/bin/sh\necho 1\n";
    const vantor::ioc::internal::FileTypeIdentifier types(
        std::make_shared<const vantor::edr::LibMagicWrapper>("/usr/share/misc/magic.mgc"));
    const bool gone = state.range(0) == 0;
    const std::string path = gone ? dir.Path() + "/gone.tmp" : present;
    std::optional<vantor::ioc::internal::FileTypeIdentifier::Version> version;
    if (!gone)
    {
        version = vantor::ioc::internal::FileTypeIdentifier::Version{1, 2, 17};
    }
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(types.Identify(path, S_IFREG, version));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FileTypeOfAReportedFile)->Arg(0)->Arg(1);

} // namespace

BENCHMARK_MAIN();
