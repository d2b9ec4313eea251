// The shipped daemon on a hostile host, on the real kernel: an unprivileged
// user floods a watched tree with file and process work while the daemon
// runs on a small CPU and memory budget, and file names and process titles
// carry every awkward byte. The daemon must stay inside its memory limit,
// keep running, count every loss in its health status, and what it does
// report must be right: valid documents and batches with the escaped names.

#include "edr/AHSRecord.h"
#include "edr/daemon/MemoryWatchdog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/HostileWorkload.h"
#include "tests/support/IocEndToEndFixture.h"
#include "tests/support/StatusRecords.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vantor::edr
{
namespace
{

using namespace std::chrono_literals;
using test::FimDocument;
using test::IocEvent;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

constexpr auto kFloodTime = 3s;
// Every place that can lose watched work, with the field that counts it.
struct LossCounter
{
    const char* context;
    int64_t code;
    const char* field;
};
constexpr LossCounter kLossCounters[] = {
    {AHSContext::kKernelAudit, AHSStatusCode::kKernelLost, "lost"},
    {AHSContext::kKernelChannel, AHSStatusCode::kChannelOverflow, "overflows"},
    {AHSContext::kKernelChannel, AHSStatusCode::kChannelDecodeDropped, "bytes"},
    {AHSContext::kParserQueue, AHSStatusCode::kParserQueueDropped, "buffers"},
    {AHSContext::kIntake, AHSStatusCode::kIntakeMalformed, "events"},
    {AHSContext::kIntake, AHSStatusCode::kIntakeMalformed, "lines"},
    {AHSContext::kIntake, AHSStatusCode::kIntakeMalformed, "feedErrors"},
    {AHSContext::kProcessing, AHSStatusCode::kProcessingDropped, "failed"},
    {AHSContext::kProcessing, AHSStatusCode::kProcessingDropped, "handlerFailures"},
    {AHSContext::kIocQueue, AHSStatusCode::kIocQueueDropped, "events"},
    {AHSContext::kFimSpool, AHSStatusCode::kSpoolEvicted, "files"},
    {AHSContext::kFimDocuments, AHSStatusCode::kDocumentFailed, "documents"},
    {AHSContext::kIocQueue, AHSStatusCode::kIocBatchLost, "events"},
};

// Every process start, and (when a path is given) file creations below it.
std::string Manifest(const std::string& watched = {})
{
    return R"({"policyVersion": "2.0.0", "policyId": "hostile", "productId": "corvid-edr",
        "globalSettings": {"maxFileSizeToProcess": 52428800, "tags": {"thresholdScore": 0}}, "rules": [
        {"ruleId": "hostile-starts", "ruleType": "Process", "notify": ["start"]})" +
           (watched.empty() ? ""
                            : R"(, {"ruleId": "hostile-files", "ruleType": "Directory", "path": ")" +
                                  watched + R"(", "notify": ["create"]})") +
           "]}";
}

class HostileHostProcessTest : public test::IocEndToEndFixture
{
protected:
    std::vector<test::StatusRecord> StatusRecords() const
    {
        return test::ReadStatusRecords(m_receiver->Output());
    }

    // Each documented loss summed over the records received, with "context/
    // field = n" for the nonzero ones.
    std::pair<uint64_t, std::string> Losses() const
    {
        const auto records = StatusRecords();
        std::pair<uint64_t, std::string> losses;
        for (const auto& counter : kLossCounters)
        {
            const uint64_t total = test::Total(records, counter.context, counter.code, counter.field);
            losses.first += total;
            losses.second += total == 0 ? ""
                                        : std::string(counter.context) + "/" + counter.field + " = " +
                                              std::to_string(total) + "\n";
        }
        return losses;
    }

    std::vector<FimDocument> Under(const std::string& prefix)
    {
        auto documents = Received();
        documents.erase(std::remove_if(documents.begin(), documents.end(),
                                       [&](const FimDocument& doc)
                                       { return doc.path.rfind(prefix, 0) != 0; }),
                        documents.end());
        return documents;
    }
};

// The flood's files: paths near PATH_MAX with a space, which the kernel
// writes in hex, so that each record is large.
std::string FloodStem(const std::string& dir)
{
    return dir + "/" + std::string(180, 'f') + " ";
}

struct FloodReport
{
    pid_t pid;
    uint64_t lifecycles; // of watched files
};

bool Lifecycle(const std::string& path, const char* suffix)
{
    const std::string from = path + suffix;
    const std::string to = path + " moved" + suffix;
    const int fd = ::open(from.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
    return fd >= 0 && ::write(fd, "flood\n", 6) == 6 && ::close(fd) == 0 &&
           ::rename(from.c_str(), to.c_str()) == 0 && ::unlink(to.c_str()) == 0;
}

// One worker of the flood until the time is up: each turn the lifecycle of
// a file that the rule excludes (its records cost the capture as much,
// the rest of the daemon little), every 8th turn that of a watched file,
// every 64th turn a program started. Reports its pid and the watched
// lifecycles through the pipe.
int FloodTurns(const std::string& stem, int pipe)
{
    const auto end = std::chrono::steady_clock::now() + kFloodTime;
    FloodReport report{::getpid(), 0};
    for (uint64_t turn = 0; std::chrono::steady_clock::now() < end; ++turn)
    {
        const std::string path = stem + std::to_string(turn);
        if (!Lifecycle(path, ".tmp") || (turn % 8 == 0 && !Lifecycle(path, "")))
        {
            return 1;
        }
        report.lifecycles += turn % 8 == 0 ? 1 : 0;
        if (turn % 64 == 0)
        {
            const pid_t child = ::fork();
            if (child == 0)
            {
                ::execl("/usr/bin/true", "true", static_cast<char*>(nullptr));
                ::_exit(127);
            }
            ::waitpid(child, nullptr, 0);
        }
    }
    return ::write(pipe, &report, sizeof report) == sizeof report ? 0 : 2;
}

// Two workers in the flood's directory, which then is the working directory
// that every record carries too.
int Flood(const std::string& dir, int pipe)
{
    if (::chdir(dir.c_str()) != 0)
    {
        return 3;
    }
    const pid_t sibling = ::fork();
    if (sibling == 0)
    {
        ::_exit(FloodTurns(FloodStem(dir) + "b", pipe));
    }
    const int own = FloodTurns(FloodStem(dir) + "a", pipe);
    int status = 0;
    return ::waitpid(sibling, &status, 0) == sibling && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? own
                                                                                                      : 4;
}

TEST_F(HostileHostProcessTest, UnprivilegedFloodStaysInBudgetIsCountedAndLeavesCaptureCorrect)
{
    // The unprivileged workload must reach the watched tree.
    std::filesystem::permissions(m_harness.Dir(), std::filesystem::perms(0711));
    const auto lostBefore = test::StatusValue("lost");
    ASSERT_TRUE(lostBefore);
    // Deeper than a rule reaches below its path: a rule of its own.
    const std::string floodDir = test::NestedDirectory(m_watched + "/flood here", 3800);
    ASSERT_EQ(::chown(floodDir.c_str(), test::kNobody, test::kNobody), 0);
    const std::string floodRule = "hostile-flood";
    WatchAlso(floodRule, floodDir);
    constexpr unsigned kMemoryLimitPercent = 1;
    ASSERT_NO_FATAL_FAILURE(StartIocDaemon(Manifest(),
                                           [&](rapidjson::Document& config)
                                           {
                                               auto& edr = config["edr_config"];
                                               edr["cpu_limit"].SetUint(1);
                                               edr["memory_limit"].SetUint(kMemoryLimitPercent);
                                               edr.AddMember("status_upload_interval", 1,
                                                             config.GetAllocator());
                                           }));

    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    const pid_t flooder = test::ForkUnprivileged([&] { return Flood(floodDir, pipe[1]); });
    ::close(pipe[1]);
    std::set<long long> workers;
    uint64_t lifecycles = 0;
    for (FloodReport report{}; ::read(pipe[0], &report, sizeof report) == sizeof report;)
    {
        workers.insert(report.pid);
        lifecycles += report.lifecycles;
    }
    ::close(pipe[0]);
    ASSERT_EQ(test::WaitForChild(flooder, 30s), 0);
    ASSERT_EQ(workers.size(), 2u);

    // Root's marker after the flood: the daemon captures again once its
    // queue has drained, and the first marker that arrives is right.
    std::map<std::string, pid_t> markers;
    std::vector<FimDocument> arrived;
    const bool captured = test::Eventually(
        [&]
        {
            const std::string path = m_watched + "/marker-" + std::to_string(markers.size());
            markers[path] = test::RunProgram({"/usr/bin/touch", path});
            return test::Eventually(
                [&]
                {
                    arrived = Under(m_watched + "/marker-");
                    return !arrived.empty();
                },
                1s);
        },
        30s);
    ASSERT_TRUE(captured) << Losses().second;
    const FimDocument& marker = arrived.front();
    EXPECT_EQ(marker.action, "create");
    EXPECT_EQ(marker.actor, markers[marker.path]) << test::Describe(arrived);
    EXPECT_EQ(marker.userId, 0);
    EXPECT_EQ(marker.rules, std::vector<std::string>{kRuleId});

    // What arrives and what is counted settles once the drained capture and
    // the next status samples are through.
    const auto settled = [&] { return std::make_pair(Under(FloodStem(floodDir)).size(), Losses().first); };
    const auto giveUp = std::chrono::steady_clock::now() + 15s;
    for (auto last = settled(), now = last; std::this_thread::sleep_for(3s),
              (now = settled()) != last && std::chrono::steady_clock::now() < giveUp;)
    {
        last = now;
    }
    // The kernel's own count, as auditctl shows it, is in the records too.
    EXPECT_TRUE(test::Eventually(
        [&]
        {
            return test::Total(StatusRecords(), AHSContext::kKernelAudit, AHSStatusCode::kKernelLost,
                               "lost") == static_cast<uint64_t>(*test::StatusValue("lost") - *lostBefore);
        },
        5s));

    // Alive, inside its memory limit, never struck by its watchdog.
    ASSERT_EQ(::kill(m_daemonPid, 0), 0);
    const long long peakKb = test::StatusKb(m_daemonPid, "VmHWM");
    // "MemTotal:" is the first line.
    const auto limits = MemoryWatchdog::ComputeLimits(std::stoull(test::ReadText("/proc/meminfo").substr(9)),
                                                      kMemoryLimitPercent);
    EXPECT_GT(peakKb, 0);
    EXPECT_LE(static_cast<uint64_t>(peakKb), limits.softKb);
    EXPECT_EQ(
        test::Total(StatusRecords(), AHSContext::kDaemonMemory, AHSStatusCode::kMemoryStrike, "strikes"), 0u);

    // Whatever of the flood arrived is the flood's, as nobody, under the
    // rule: a create under the first name, a rename to the second, a delete
    // under the second; whatever did not arrive is counted somewhere.
    const auto documents = Under(FloodStem(floodDir));
    size_t wrong = 0;
    for (const auto& doc : documents)
    {
        const auto moved = [](const std::string& path)
        { return path.size() > 6 && path.compare(path.size() - 6, 6, " moved") == 0; };
        const bool rightAction = doc.action == "create" ? !moved(doc.path)
                                 : doc.action == "delete"
                                     ? moved(doc.path)
                                     : doc.action == "rename" && moved(doc.newPath) &&
                                           (doc.path == doc.newPath || doc.path + " moved" == doc.newPath);
        if ((!rightAction || workers.count(doc.actor) == 0 || doc.userId != test::kNobody ||
             doc.rules != std::vector<std::string>{floodRule}) &&
            wrong++ < 5)
        {
            ADD_FAILURE() << test::Describe({doc}) << "uid " << doc.userId;
        }
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(UnreadablePayloads(), 0u);
    size_t starts = 0;
    for (const IocEvent& event : Events())
    {
        if (event.kind == "processEvent" && workers.count(event.parent) != 0)
        {
            ++starts;
            EXPECT_EQ(event.target, "/usr/bin/true") << test::Describe({event});
        }
    }

    const auto [lost, losses] = Losses();
    const size_t expected = 3 * lifecycles;
    std::cerr << "flood: " << lifecycles << " watched lifecycles, " << documents.size() << " of " << expected
              << " documents, " << starts << " program starts, peak " << peakKb << " KB of " << limits.softKb
              << " KB, losses:\n"
              << losses;
    // The flood itself must have been too much: the host's own noise (events
    // of other programs that the capture refuses) does not count.
    const auto records = StatusRecords();
    EXPECT_GT(test::Total(records, AHSContext::kParserQueue, AHSStatusCode::kParserQueueDropped, "buffers") +
                  test::Total(records, AHSContext::kKernelAudit, AHSStatusCode::kKernelLost, "lost"),
              0u)
        << "the flood did not overwhelm the budget: it proves nothing";
    if (documents.size() < expected)
    {
        EXPECT_GT(lost, 0u) << expected - documents.size() << " documents missing and no loss counted";
    }
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

// Each hostile name as a file created in the watched tree by a program whose
// executable bears the same name, and a file whose path is near PATH_MAX:
// every document is valid JSON with the path in its escaped form and the
// acting process's title readable; every batch is taken by the receiver
// and holds the escaped image, arguments and path.
TEST_F(HostileHostProcessTest, HostileNamesAndTitlesArriveEscapedInValidDocumentsAndBatches)
{
    const std::string names = m_watched + "/names";
    const std::string programs = m_harness.Dir() + "/programs";
    std::filesystem::create_directories(names);
    std::filesystem::create_directories(programs);
    // Deeper than a rule reaches below its path: a rule of its own.
    const std::string deepDir = test::NestedDirectory(m_watched + "/deep", 3900);
    const std::string deepFile = deepDir + "/" + std::string(4090 - deepDir.size() - 1, 'z');
    WatchAlso("hostile-deep", deepDir);
    ASSERT_NO_FATAL_FAILURE(StartIocDaemon(Manifest(m_watched)));

    const auto& table = test::HostileNames();
    std::vector<pid_t> pids;
    for (size_t i = 0; i < table.size(); ++i)
    {
        const std::string program = programs + "/" + table[i].raw;
        test::CopyExecutable("/usr/bin/touch", program, std::to_string(i));
        pids.push_back(test::RunProgram({program, names + "/" + table[i].raw}));
    }
    const pid_t deepPid = test::RunProgram({"/usr/bin/touch", deepFile});

    const auto find = [](const auto& items, const auto& pick)
    {
        const auto found = std::find_if(items.begin(), items.end(), pick);
        return found == items.end() ? nullptr : &*found;
    };
    const auto document = [&](const std::vector<FimDocument>& documents, const std::string& path)
    {
        return find(documents,
                    [&](const FimDocument& doc) { return doc.path == path && doc.action == "create"; });
    };
    const auto event = [&](const std::vector<IocEvent>& events, const char* kind, long long pid)
    { return find(events, [&](const IocEvent& e) { return e.kind == kind && e.pid == pid; }); };
    ASSERT_TRUE(test::EventuallyWithTraffic(
        [&]
        {
            const auto documents = Received();
            const auto events = Events();
            bool all = document(documents, deepFile) != nullptr;
            for (size_t i = 0; i < table.size(); ++i)
            {
                all = all && document(documents, names + "/" + table[i].escaped) &&
                      event(events, "processEvent", pids[i]) && event(events, "fileEvent", pids[i]);
            }
            return all;
        },
        Nudge))
        << test::Describe(Received()) << test::Describe(Events());

    const auto documents = Received();
    const auto events = Events();
    EXPECT_EQ(UnreadablePayloads(), 0u);
    const auto* deep = document(documents, deepFile);
    EXPECT_EQ(deep->actor, deepPid);
    EXPECT_EQ(deep->rules, std::vector<std::string>{"hostile-deep"});
    for (size_t i = 0; i < table.size(); ++i)
    {
        SCOPED_TRACE(table[i].label);
        const std::string path = names + "/" + table[i].escaped;
        const std::string program = programs + "/" + table[i].escaped;
        const auto* doc = document(documents, path);
        EXPECT_EQ(doc->actor, pids[i]);
        EXPECT_EQ(doc->rules, std::vector<std::string>{kRuleId});
        // The kernel keeps the first 128 bytes of a title.
        EXPECT_EQ(doc->procTitle.rfind(programs + "/", 0), 0u) << doc->procTitle;
        const auto* start = event(events, "processEvent", pids[i]);
        EXPECT_EQ(start->target, program);
        EXPECT_NE(start->arguments.find(path), std::string::npos) << start->arguments;
        const auto* file = event(events, "fileEvent", pids[i]);
        EXPECT_EQ(file->target, path);
        EXPECT_EQ(file->image, program);
    }
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

} // namespace
} // namespace vantor::edr
