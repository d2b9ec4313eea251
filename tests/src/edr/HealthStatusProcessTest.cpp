// Health-status records from the shipped binary on the real kernel: a parser
// queue overflow and kernel rules removed by others reach the receiver.

#include "audit/KernelRuleWatchdog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/FimEndToEndFixture.h"
#include "tests/support/StatusRecords.h"

#include "edr/AHSRecord.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <unistd.h>

namespace vantor::edr
{
namespace
{

using namespace std::chrono_literals;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

class HealthStatusProcessTest : public test::FimEndToEndFixture
{
protected:
    std::vector<test::StatusRecord> StatusRecords() const
    {
        return test::ReadStatusRecords(m_receiver->Output());
    }

    static bool Has(const std::vector<test::StatusRecord>& records, const char* contextId, int64_t statusCode)
    {
        return std::any_of(records.begin(), records.end(),
                           [&](const test::StatusRecord& r)
                           { return r.contextId == contextId && r.statusCode == statusCode; });
    }

    // Opens a watched file for writing until killed or the time is up.
    pid_t Flood(std::chrono::seconds duration)
    {
        const std::string path = m_watched + "/flood";
        const pid_t pid = ::fork();
        if (pid == 0)
        {
            for (const auto end = std::chrono::steady_clock::now() + duration;
                 std::chrono::steady_clock::now() < end;)
            {
                ::close(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
            }
            ::_exit(0);
        }
        return pid;
    }
};

TEST_F(HealthStatusProcessTest, ParserQueueOverflowArrivesAsAStatusRecord)
{
    ASSERT_NO_FATAL_FAILURE(StartDaemon({},
                                        [](rapidjson::Document& config)
                                        {
                                            auto& edr = config["edr_config"];
                                            edr["cpu_limit"].SetUint(1);
                                            edr["memory_limit"].SetUint(1);
                                            edr.AddMember("status_upload_interval", 2, config.GetAllocator());
                                        }));
    const pid_t flood = Flood(60s);
    const bool dropped = test::Eventually(
        [&]
        {
            return test::Total(StatusRecords(), AHSContext::kParserQueue, AHSStatusCode::kParserQueueDropped,
                               "bytes") > 0;
        },
        120s);
    ::kill(flood, SIGKILL);
    test::WaitForChild(flood, 10s);
    ASSERT_TRUE(dropped) << m_harness.Log().substr(0, 4000);
    EXPECT_TRUE(m_harness.LogContains("Audit parser queue threshold hit. Disabling queueing of events."));

    const auto records = StatusRecords();
    EXPECT_TRUE(Has(records, AHSContext::kDaemonConfig, AHSStatusCode::kConfigLoaded));
    EXPECT_TRUE(Has(records, AHSContext::kFimManifest, AHSStatusCode::kConfigLoaded));
    for (const auto& record : records)
    {
        if (record.contextId == AHSContext::kParserQueue)
        {
            EXPECT_GT(record.fields["buffers"].GetUint64(), 0u);
        }
    }
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

// auditd's rule loader begins with -D, and so may an operator: the kernel
// loses the daemon's rules without telling it. Within the watchdog's
// interval they are back, in the same number and form, and a record says so.
TEST_F(HealthStatusProcessTest, KernelRulesRemovedBySomebodyElseComeBackAndAreRecorded)
{
    ASSERT_NO_FATAL_FAILURE(
        StartDaemon({}, [](rapidjson::Document& config)
                    { config["edr_config"].AddMember("status_upload_interval", 1, config.GetAllocator()); }));
    // Ours and nobody else's, as -D would take them.
    const auto daemonRule = [](const std::string& line)
    {
        return test::IsOurRule(line) || line.find("key=FIM") != std::string::npos ||
               line.find("key=IOC") != std::string::npos;
    };
    const auto daemonRules = [&]
    {
        std::vector<std::string> lines;
        for (const auto& line : test::ListRules())
        {
            if (daemonRule(line))
            {
                lines.push_back(line);
            }
        }
        std::sort(lines.begin(), lines.end());
        return lines;
    };
    const auto installed = daemonRules();
    ASSERT_FALSE(test::RulesContaining(m_watched).empty());

    test::DeleteRules(daemonRule);
    const auto deadline = std::chrono::seconds(audit::KernelRuleWatchdog::kInterval) + 5s;
    EXPECT_TRUE(test::Eventually([&] { return daemonRules() == installed; }, deadline))
        << test::RunCommand("auditctl -l");
    EXPECT_TRUE(test::Eventually(
        [&]
        {
            const auto records = StatusRecords();
            return std::any_of(records.begin(), records.end(),
                               [&](const test::StatusRecord& r)
                               {
                                   return r.contextId == AHSContext::kKernelRules && r.fields.IsObject() &&
                                          r.fields["missing"].GetUint64() == installed.size() &&
                                          r.fields["reinstalled"].GetUint64() == installed.size();
                               });
        },
        30s))
        << m_harness.Log().substr(0, 4000);
    EXPECT_TRUE(m_harness.LogContains(std::to_string(installed.size()) +
                                      " audit rules of ours were removed from the kernel"));
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

} // namespace
} // namespace vantor::edr
