// A burst of file work on the real kernel, through the real daemon in both
// channel modes, on a host whose audit state the daemon did not make: audit
// already enabled, rules of others in the kernel (a watch, a system call
// rule and an exclusion identical to the daemon's own in meaning). Every
// operation of the burst must arrive as a document, and after "exit" the
// kernel must hold exactly the rules it held before the daemon started, with
// the enabled flag as it was.

#include "tests/support/ChildProcess.h"
#include "tests/support/FimEndToEndFixture.h"
#include "tests/support/PrivateAuditd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <thread>
#include <unistd.h>

namespace vantor::fim
{
namespace
{

using namespace std::chrono_literals;
using test::RunCommand;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

constexpr int kBurstFiles = 10000;
// An administrator's EOE exclusion: the same meaning as the daemon's own.
const std::string kForeignEoeRule = "-a always,exclude -F msgtype=EOE";

enum class Channel
{
    Kernel,
    Dispatcher
};

std::string ChannelName(const testing::TestParamInfo<Channel>& info)
{
    return info.param == Channel::Kernel ? "Kernel" : "Dispatcher";
}

// What arrived for the burst's files: per path, the actions in arrival order.
struct BurstTally
{
    std::map<std::string, std::vector<std::string>> actions;
    size_t documents = 0;
    size_t otherActor = 0;
};

class FimBurstProcessTest : public test::FimEndToEndFixture, public testing::WithParamInterface<Channel>
{
protected:
    void SetUp() override
    {
        FimEndToEndFixture::SetUp();
        if (IsSkipped() || HasFatalFailure())
        {
            return;
        }
        if (GetParam() == Channel::Dispatcher)
        {
            if (const std::string why = test::PrivateAuditd::WhyUnavailable(); !why.empty())
            {
                GTEST_SKIP() << why;
            }
        }
        PlantForeignState();
    }

    void TearDown() override
    {
        // The daemon goes before the audit daemon it reads.
        m_agent.reset();
        m_auditd.reset();
        FimEndToEndFixture::TearDown();
        // Ours to remove: the fixture puts back only what the daemon may have
        // changed.
        RemoveForeignRules();
    }

    // Audit on, and rules that belong to somebody else.
    void PlantForeignState()
    {
        m_foreignDir = m_harness.Dir() + "/foreign";
        std::filesystem::create_directory(m_foreignDir);
        m_foreignKey = "foreign_probe_" + std::to_string(::getpid());
        RunCommand("auditctl -e 1");
        RunCommand("auditctl -w " + m_foreignDir + " -p wa -k " + m_foreignKey);
        RunCommand("auditctl -a always,exit -F arch=b64 -S fchownat -F key=" + m_foreignKey);
        RunCommand("auditctl " + kForeignEoeRule);
        m_foreignRules = test::ListRules();
        ASSERT_EQ(test::RulesContaining(m_foreignKey).size(), 2u) << RunCommand("auditctl -l");
        ASSERT_EQ(test::StatusValue("enabled"), 1);
    }

    void RemoveForeignRules()
    {
        if (m_foreignKey.empty())
        {
            return;
        }
        RunCommand("auditctl -W " + m_foreignDir + " -p wa -k " + m_foreignKey);
        RunCommand("auditctl -d always,exit -F arch=b64 -S fchownat -F key=" + m_foreignKey);
        // Only the one planted here: the list held as many before.
        const auto before = m_state ? m_state->rules : std::vector<std::string>{};
        const auto count = [&](const std::vector<std::string>& rules)
        { return std::count(rules.begin(), rules.end(), kForeignEoeRule); };
        if (count(test::ListRules()) > count(before))
        {
            RunCommand("auditctl -d always,exclude -F msgtype=EOE");
        }
        EXPECT_TRUE(test::RulesContaining(m_foreignKey).empty());
    }

    // The daemon's log with the files it rotated out (a burst logs much).
    std::string WholeLog() const
    {
        std::string log;
        for (int i = 9; i >= 0; --i)
        {
            log += test::ReadText(m_harness.LogFile() + "." + std::to_string(i));
        }
        return log + m_harness.Log();
    }

    // The rules planted here, in list order.
    std::vector<std::string> Planted(const std::vector<std::string>& rules) const
    {
        std::vector<std::string> planted;
        std::copy_if(rules.begin(), rules.end(), std::back_inserter(planted),
                     [&](const std::string& rule)
                     { return rule.find(m_foreignKey) != std::string::npos || rule == kForeignEoeRule; });
        return planted;
    }

    // Room for the whole burst in the spool, and few files to upload.
    static void RoomForTheBurst(rapidjson::Document& config)
    {
        auto& fim = config["fim_config"];
        fim["max_disk_size_mb"].SetUint(256);
        fim["max_file_size_kb"].SetUint(4096);
    }

    // Each file created with content, rewritten and deleted, by a child
    // process of its own; answers its pid.
    pid_t Burst()
    {
        const std::string dir = m_watched;
        const pid_t pid = ::fork();
        if (pid == 0)
        {
            for (int i = 0; i < kBurstFiles; ++i)
            {
                const std::string path = dir + "/burst-" + std::to_string(i);
                int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
                if (fd < 0 || ::write(fd, "first\n", 6) != 6 || ::close(fd) != 0)
                {
                    ::_exit(1);
                }
                fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
                if (fd < 0 || ::write(fd, "second\n", 7) != 7 || ::close(fd) != 0 ||
                    ::unlink(path.c_str()) != 0)
                {
                    ::_exit(2);
                }
            }
            ::_exit(0);
        }
        EXPECT_EQ(test::WaitForChild(pid, 120s), 0);
        return pid;
    }

    BurstTally Tally(pid_t actor)
    {
        BurstTally tally;
        const std::string prefix = m_watched + "/burst-";
        for (const auto& doc : Received())
        {
            if (doc.path.rfind(prefix, 0) != 0)
            {
                continue;
            }
            ++tally.documents;
            tally.otherActor += doc.actor != actor || doc.rules != std::vector<std::string>{kRuleId} ? 1 : 0;
            tally.actions[doc.path].push_back(doc.action);
        }
        return tally;
    }

    // Starts the daemon in the mode of the test, through a private auditd
    // in dispatcher mode, and waits until records reach it.
    void StartCapture(const std::function<void(rapidjson::Document&)>& change)
    {
        std::string socket;
        if (GetParam() == Channel::Dispatcher)
        {
            const std::string auditdDir = m_harness.Dir() + "/auditd";
            std::filesystem::create_directory(auditdDir);
            m_auditd = std::make_unique<test::PrivateAuditd>(auditdDir);
            const std::string problem = m_auditd->WaitReady();
            ASSERT_TRUE(problem.empty()) << problem;
            socket = m_auditd->Socket();
        }
        ASSERT_NO_FATAL_FAILURE(StartDaemon(socket, change));
        if (GetParam() == Channel::Dispatcher)
        {
            ASSERT_NO_FATAL_FAILURE(AwaitDispatcherDelivery());
        }
    }

    void RunBurst()
    {
        ASSERT_NO_FATAL_FAILURE(StartCapture(RoomForTheBurst));

        const pid_t actor = Burst();
        const size_t expected = 3 * static_cast<size_t>(kBurstFiles);
        // Waits while documents keep coming: a slow host takes longer, a lost
        // one never comes.
        BurstTally tally;
        auto lastProgress = std::chrono::steady_clock::now();
        for (size_t seen = 0; tally.documents < expected;)
        {
            std::this_thread::sleep_for(500ms);
            tally = Tally(actor);
            const auto now = std::chrono::steady_clock::now();
            if (tally.documents > seen)
            {
                seen = tally.documents;
                lastProgress = now;
            }
            else if (now - lastProgress > 20s)
            {
                break;
            }
        }
        // Every file once created, once rewritten and once deleted, in
        // that order, by the burst's process under the rule.
        const std::vector<std::string> lifecycle{"create", "modifyContent", "delete"};
        EXPECT_EQ(tally.documents, expected);
        EXPECT_EQ(tally.actions.size(), static_cast<size_t>(kBurstFiles));
        EXPECT_EQ(tally.otherActor, 0u);
        size_t wrong = 0;
        for (const auto& [path, actions] : tally.actions)
        {
            if (actions != lifecycle && wrong++ < 5)
            {
                ADD_FAILURE() << path << ": " << testing::PrintToString(actions);
            }
        }
        EXPECT_EQ(wrong, 0u);
        EXPECT_EQ(UnreadablePayloads(), 0u);

        ASSERT_NO_FATAL_FAILURE(ExitDaemon());
        // Nothing lost on the way, nor counted as lost (the channel sums up
        // at its stop).
        const std::string log = WholeLog();
        EXPECT_EQ(log.find("were lost"), std::string::npos);
        EXPECT_EQ(log.find("Audit parser queue threshold hit"), std::string::npos);
        // What the daemon found: the foreign rules in their order, audit
        // still on (none of its own rules: the fixture checks that).
        EXPECT_EQ(Planted(test::ListRules()), Planted(m_foreignRules)) << RunCommand("auditctl -l");
        EXPECT_EQ(test::StatusValue("enabled"), 1);
        if (HasFailure())
        {
            std::cerr << "daemon log tail:\n"
                      << log.substr(log.size() > 4000 ? log.size() - 4000 : 0) << "\n";
        }
        m_auditd.reset();
    }

    std::unique_ptr<test::PrivateAuditd> m_auditd;
    std::string m_foreignDir;
    std::string m_foreignKey;
    std::vector<std::string> m_foreignRules;
};

TEST_P(FimBurstProcessTest, EveryOperationOfABurstArrivesAndExitLeavesTheAuditStateAsFound)
{
    RunBurst();
}

INSTANTIATE_TEST_SUITE_P(Channels, FimBurstProcessTest, testing::Values(Channel::Kernel, Channel::Dispatcher),
                         ChannelName);

} // namespace
} // namespace vantor::fim
