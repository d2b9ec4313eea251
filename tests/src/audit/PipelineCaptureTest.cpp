#include "tests/src/audit/AuditKernelState.h"
#include "tests/src/audit/TestRule.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "audit/AuditRuleBuilder.h"
#include "audit/CapturePipeline.h"
#include "audit/KernelIOChannel.h"
#include "audit/ProcessInfo.h"
#include "audit/ProcessTree.h"
#include "audit/RuleEngine.h"
#include "common/Logging.h"
#include "edr/LibMagicWrapper.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <sys/types.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

// The capture path as the daemon assembles it, on the real kernel: kernel
// channel -> parser thread -> processing thread -> rule engine -> handler;
// what handlers learn of the acting process, and the host agent's exclusion
// rules following its process.

namespace vantor::audit
{
namespace
{

using namespace std::chrono_literals;
using Rule = edr::EventRule;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

// A process that waits on a pipe and then runs a command. It is detached
// (double fork): the daemon drops the activity of its own descendants, and a
// real host agent or workload is not the daemon's child either.
class DetachedCommand
{
public:
    explicit DetachedCommand(std::vector<std::string> argv)
    {
        int go[2];
        int report[2];
        if (::pipe(go) != 0 || ::pipe(report) != 0)
        {
            throw std::runtime_error("pipe failed");
        }
        const pid_t middle = ::fork();
        if (middle == 0)
        {
            const pid_t worker = ::fork();
            if (worker == 0)
            {
                ::close(go[1]);
                // Wait until the middle process is gone and this one belongs to init.
                while (::getppid() == middle)
                {
                    ::usleep(1000);
                }
                char byte = 0;
                if (::read(go[0], &byte, 1) == 1)
                {
                    std::vector<char*> args;
                    for (auto& a : argv)
                    {
                        args.push_back(a.data());
                    }
                    args.push_back(nullptr);
                    ::execv(args[0], args.data());
                }
                ::_exit(127);
            }
            [[maybe_unused]] const auto n = ::write(report[1], &worker, sizeof worker);
            ::_exit(0);
        }
        ::close(go[0]);
        ::close(report[1]);
        if (::read(report[0], &m_pid, sizeof m_pid) != sizeof m_pid)
        {
            m_pid = -1;
        }
        ::close(report[0]);
        ::waitpid(middle, nullptr, 0);
        m_go = go[1];
    }
    ~DetachedCommand()
    {
        if (m_go >= 0)
        {
            ::close(m_go); // a command never started ends here
        }
    }
    pid_t Pid() const { return m_pid; }
    // Starts the command and waits until the process is gone.
    void Run()
    {
        const char byte = 1;
        [[maybe_unused]] const auto n = ::write(m_go, &byte, 1);
        ::close(m_go);
        m_go = -1;
        for (int i = 0; i < 500 && ::kill(m_pid, 0) == 0; ++i)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

private:
    pid_t m_pid = -1;
    int m_go = -1;
};

inline pid_t RunDetached(const std::vector<std::string>& argv)
{
    DetachedCommand command(argv);
    command.Run();
    return command.Pid();
}

constexpr const char* kTag = "corvid_pipeline_test";

// What a handler saw of one event.
struct Seen
{
    edr::EventType type = edr::EventType::Accept;
    pid_t pid = 0;
    pid_t ppid = 0;
    std::string image;
    std::string file;
    uint32_t uid = 0;
    std::string userName;
    bool hasProcess = false;
    // Of a known acting process: its arguments and title.
    std::vector<std::string> arguments;
    std::string title;
};

class PipelineCaptureTest : public test::AuditCaptureFixture
{
protected:
    void SetUp() override
    {
        AuditCaptureFixture::SetUp();
        if (IsSkipped())
        {
            return;
        }
        m_watched = m_dir.Path() + "/watched";
        std::filesystem::create_directories(m_watched);
    }

    void TearDown() override
    {
        m_capture.reset();
        m_engine.reset();
        if (HasFailure())
        {
            for (const auto& line : m_log.Lines())
            {
                std::cerr << line << "\n";
            }
            std::lock_guard lock(m_mutex);
            for (const auto& seen : m_seen)
            {
                std::cerr << "seen type " << static_cast<int>(seen.type) << " pid " << seen.pid << " "
                          << seen.file << "\n";
            }
        }
        AuditCaptureFixture::TearDown();
    }

    // The rule engine (the agent at agentPid, image "/usr/sbin/outpost") with
    // a directory rule on the watched directory and a process rule, fed from
    // the kernel.
    void StartPipeline(pid_t agentPid)
    {
        m_engine = std::make_unique<RuleEngine>(agentPid, "/usr/sbin/outpost",
                                                std::make_shared<ProcessTree>(), 0, m_dir.Path());
        m_engine->RegisterEventHandlers(
            kTag, [this](edr::Event& event) { Record(event); }, [] {});
        m_engine->AddRules(
            {test::MakeRule("pipeline-files", Rule::DirectoryPathRule, {m_watched}, {2, 3, 5, 7, 8}, {2, 3}),
             test::MakeRule("pipeline-processes", Rule::ProcessRule, {}, {9, 10, 11})},
            kTag);

        auto channel = std::make_unique<KernelIOChannel>();
        channel->SetEnableAudit(true);
        m_capture = std::make_unique<CapturePipeline>(
            std::move(channel), std::make_shared<const edr::LibMagicWrapper>("/usr/share/misc/magic.mgc"),
            m_engine->GetEventProcessor(), CapturePipeline::Limits{});
        m_capture->Start();
    }

    std::vector<Seen> SeenBy(pid_t pid) const
    {
        std::lock_guard lock(m_mutex);
        std::vector<Seen> out;
        std::copy_if(m_seen.begin(), m_seen.end(), std::back_inserter(out),
                     [pid](const Seen& seen) { return seen.pid == pid; });
        return out;
    }

    std::optional<Seen> SeenFile(edr::EventType type, const std::string& file) const
    {
        std::lock_guard lock(m_mutex);
        const auto it =
            std::find_if(m_seen.begin(), m_seen.end(),
                         [&](const Seen& seen) { return seen.type == type && seen.file == file; });
        return it != m_seen.end() ? std::optional<Seen>(*it) : std::nullopt;
    }

    // Whether the kernel holds an agent exclusion rule for the pid (other
    // engines on this host may hold rules under the same key).
    bool KernelExcludes(pid_t pid) const
    {
        const std::string key = AuditRuleBuilder::IgnoreRuleKey(AuditRuleBuilder::kOutpostSuffix);
        for (const auto& rule : m_engine->GetRulesFromAudit())
        {
            const audit_rule_data* data = rule.Get();
            for (uint32_t i = 0; rule.HasKey(key) && i < data->field_count; ++i)
            {
                if (data->fields[i] == AUDIT_PID && data->values[i] == static_cast<uint32_t>(pid))
                {
                    return true;
                }
            }
        }
        return false;
    }

    template <typename Pred>
    static bool WaitFor(Pred pred, std::chrono::milliseconds limit = std::chrono::milliseconds(8000))
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!pred())
        {
            if (std::chrono::steady_clock::now() > end)
            {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

    test::LogCapture m_log{common::Logging::Edr(), Poco::Message::PRIO_DEBUG};
    test::TempDir m_dir;
    std::string m_watched;
    std::unique_ptr<RuleEngine> m_engine;
    std::unique_ptr<CapturePipeline> m_capture;
    mutable std::mutex m_mutex;
    std::vector<Seen> m_seen;

private:
    void Record(edr::Event& event)
    {
        Seen seen;
        seen.type = event.GetType();
        seen.pid = event.GetActorProcessId();
        seen.ppid = event.GetActorParentProcessId();
        seen.image = event.GetImage();
        seen.uid = event.GetActorUserId();
        seen.userName = event.GetActorUserName();
        seen.hasProcess = event.HasProcess();
        if (seen.hasProcess)
        {
            seen.arguments = event.GetActorProcessArguments();
            seen.title = event.GetCommandLine();
        }
        if (event.GetCategory() == static_cast<uint32_t>(edr::EventCategory::File))
        {
            seen.file = event.GetFile();
        }
        std::lock_guard lock(m_mutex);
        m_seen.push_back(std::move(seen));
    }
};

bool Has(const std::vector<Seen>& seen, edr::EventType type, const std::string& file = {})
{
    for (const auto& s : seen)
    {
        if (s.type == type && (file.empty() || s.file == file))
        {
            return true;
        }
    }
    return false;
}

// The kernel keeps the first 128 bytes of a process title.
void ExpectTitleOf(const Seen& seen, const std::vector<std::string>& arguments)
{
    const std::string full = ProcessInfo::JoinArguments(arguments);
    EXPECT_EQ(seen.arguments, arguments);
    EXPECT_TRUE(full.starts_with(seen.title)) << seen.title;
    EXPECT_GE(seen.title.size(), std::min<size_t>(full.size(), 100)) << seen.title;
}

TEST_F(PipelineCaptureTest, ProcessAndFileEventsReachTheHandlerWithTheirActorAndItsTitle)
{
    DetachedCommand agent({"/usr/bin/touch", m_watched + "/by-agent.txt"});
    StartPipeline(agent.Pid());

    const std::string created = m_watched + "/by-child.txt";
    const pid_t child = RunDetached({"/usr/bin/touch", created});
    ASSERT_TRUE(WaitFor(
        [&]
        {
            const auto seen = SeenBy(child);
            return Has(seen, edr::EventType::Running) && Has(seen, edr::EventType::Create, created) &&
                   Has(seen, edr::EventType::Exit);
        }))
        << "events of pid " << child << " did not all arrive";

    for (const auto& s : SeenBy(child))
    {
        if (s.type == edr::EventType::Exit)
        {
            continue; // an exit carries the process as it ended
        }
        EXPECT_EQ(s.image, "/usr/bin/touch");
        EXPECT_NE(s.ppid, ::getpid()) << "a detached process";
        EXPECT_GT(s.ppid, 0);
        EXPECT_EQ(s.uid, ::getuid());
        EXPECT_EQ(s.userName, "root");
    }
    const std::string changed = m_watched + "/by-child.txt";
    const pid_t chmodder = RunDetached({"/usr/bin/chmod", "600", changed});
    const pid_t remover = RunDetached({"/usr/bin/rm", changed});
    EXPECT_TRUE(WaitFor([&] { return Has(SeenBy(chmodder), edr::EventType::Attribute, changed); }));
    EXPECT_TRUE(WaitFor([&] { return Has(SeenBy(remover), edr::EventType::Delete, changed); }));

    // The shell writes one file itself and runs touch for the other.
    const std::string written = m_watched + "/by-shell.txt";
    const std::string touched = m_watched + "/by-touch.txt";
    const std::vector<std::string> shell{"/bin/sh", "-c",
                                         "echo text > " + written + "; /usr/bin/touch " + touched};
    RunDetached(shell);
    std::optional<Seen> byShell;
    std::optional<Seen> byTouch;
    ASSERT_TRUE(WaitFor(
        [&]
        {
            byShell = SeenFile(edr::EventType::Create, written);
            byTouch = SeenFile(edr::EventType::Create, touched);
            return byShell && byTouch;
        }));
    EXPECT_TRUE(byShell->hasProcess);
    ExpectTitleOf(*byShell, shell);
    EXPECT_TRUE(byTouch->hasProcess);
    ExpectTitleOf(*byTouch, {"/usr/bin/touch", touched});
}

TEST_F(PipelineCaptureTest, OwnAndAgentActivityNeverArrivesAndTheAgentsExitLiftsItsExclusion)
{
    DetachedCommand agent({"/usr/bin/touch", m_watched + "/by-agent.txt"});
    const pid_t agentPid = agent.Pid();
    StartPipeline(agentPid);
    ASSERT_TRUE(KernelExcludes(agentPid));

    // This process plays the daemon: its own work is excluded in the kernel.
    std::ofstream(m_watched + "/by-self.txt") << "self";
    agent.Run();
    // A marker afterwards: once its event is in, the earlier ones would be too.
    const std::string marker = m_watched + "/marker.txt";
    const pid_t markerPid = RunDetached({"/usr/bin/touch", marker});
    ASSERT_TRUE(WaitFor([&] { return Has(SeenBy(markerPid), edr::EventType::Create, marker); }));
    std::this_thread::sleep_for(300ms);

    EXPECT_TRUE(SeenBy(::getpid()).empty()) << "the daemon's own activity was reported";
    // Only the agent's exit passes its exclusion, deliberately: the process
    // tree must learn that the agent ended.
    for (const auto& s : SeenBy(agentPid))
    {
        EXPECT_EQ(s.type, edr::EventType::Exit) << "the agent's activity was reported: " << s.file;
    }
    EXPECT_TRUE(WaitFor([&] { return m_engine->GetOutpostPid() == 0; }));
    EXPECT_FALSE(KernelExcludes(agentPid)) << "a later process with the agent's pid would go unaudited";
    EXPECT_TRUE(m_log.Contains("Host agent process " + std::to_string(agentPid) +
                               " exited; removing its exclusion rules"));
}

} // namespace
} // namespace vantor::audit
