// Health-status records from the shipped binary on the real kernel: the
// loaded configuration and kernel rules removed by others reach the receiver.

#include "audit/KernelRuleWatchdog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/FimEndToEndFixture.h"
#include "tests/support/StatusRecords.h"

#include "edr/AHSRecord.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

namespace vantor::edr
{
namespace
{

using namespace std::chrono_literals;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

class HealthStatusProcessTest : public test::FimEndToEndFixture
{
protected:
    // Every status record the receiver took so far.
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
};

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
            for (const auto& record : StatusRecords())
            {
                if (record.contextId == AHSContext::kKernelRules && record.fields.IsObject() &&
                    record.fields["missing"].GetUint64() == installed.size() &&
                    record.fields["reinstalled"].GetUint64() == installed.size())
                {
                    return true;
                }
            }
            return false;
        },
        30s))
        << m_harness.Log().substr(0, 4000);
    EXPECT_TRUE(m_harness.LogContains(std::to_string(installed.size()) +
                                      " audit rules of ours were removed from the kernel"));
    const auto records = StatusRecords();
    EXPECT_TRUE(Has(records, AHSContext::kDaemonConfig, AHSStatusCode::kConfigLoaded));
    EXPECT_TRUE(Has(records, AHSContext::kFimManifest, AHSStatusCode::kConfigLoaded));
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

} // namespace
} // namespace vantor::edr
