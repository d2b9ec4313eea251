// The filtering engine: exits and file events of reported processes, the
// policy's rules, and whitelist exclusions that mark their process.

#include "ioc/FilteringEngine.h"
#include "ioc/NetworkRule.h"
#include "ioc/ProcessRule.h"
#include "ioc/TtlProcessTree.h"
#include "ioc/WhitelistGlobalRule.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/src/ioc/IocTestJson.h"
#include "tests/support/LogCapture.h"

#include "common/Logging.h"

#include <gtest/gtest.h>

using namespace vantor;
using ioc::TtlProcessTree;
using ioc::Verdict;
using ioc::internal::FilteringEngine;
using ioc::test::IocTestEvent;
using ioc::test::Json;

namespace
{

std::shared_ptr<const FilteringEngine::Rules> Policy()
{
    return std::make_shared<const FilteringEngine::Rules>(FilteringEngine::Rules{
        std::make_shared<ioc::internal::ProcessRule>(
            Json(R"({"ruleId": "starts", "ruleType": "Process", "notify": ["start"], "inclusionFilters": [
                 {"filterType": [{"objectType": "process", "actorProcess": ["/usr/bin/*"]}]}]})")),
        std::make_shared<ioc::internal::WhitelistGlobalRule>(
            Json(R"({"ruleId": "quiet", "ruleType": "EDR", "ruleClass": "WhitelistGlobal",
                 "applyTo": ["/usr/bin/curl"], "exclusionFilters": [{"filterType": [{"objectType": "network",
                 "protocol": "any", "remotePort": [{"number": 80}]}]}]})")),
        std::make_shared<ioc::internal::NetworkRule>(
            Json(R"({"ruleId": "connects", "ruleType": "Network", "notify": ["establish"]})"))});
}

TEST(FilteringEngineTest, ReportsWhatTheRulesMatchAndEverythingOfReportedProcessesButWhitelistedEvents)
{
    ioc::test::FakeProc proc;
    TtlProcessTree tree(proc.Root());
    FilteringEngine engine(tree);
    engine.SetRules(Policy());
    for (const pid_t pid : {10, 20})
    {
        auto start = ioc::test::ProcessEvent(edr::EventType::Running, "/usr/bin/curl");
        start.pid = pid;
        tree.AddOrUpdate(start);
    }
    tree.AddTag(20, TtlProcessTree::kReported);

    const auto process = [](edr::EventType type, pid_t pid, const std::string& image)
    {
        auto event = ioc::test::ProcessEvent(type, image);
        event.pid = pid;
        return event;
    };
    const auto connect = [](pid_t pid, uint16_t port)
    {
        auto event = ioc::test::NetworkEvent(edr::EventType::Connect, "10.0.0.8", port);
        event.pid = pid;
        event.image = "/usr/bin/curl";
        return event;
    };
    const auto write = [](pid_t pid)
    {
        auto event = ioc::test::FileEvent(edr::EventType::Write, "/etc/hosts");
        event.pid = pid;
        return event;
    };
    const std::vector<std::tuple<const char*, IocTestEvent, Verdict>> cases{
        {"exit of an unreported process", process(edr::EventType::Exit, 10, "/usr/bin/curl"), Verdict::Clean},
        {"exit of a reported process", process(edr::EventType::Exit, 20, "/usr/bin/curl"), Verdict::Unknown},
        {"abnormal end of a reported process", process(edr::EventType::AbnormalEnd, 20, "/usr/bin/curl"),
         Verdict::Unknown},
        {"file event no rule asks for", write(10), Verdict::Clean},
        {"file event of a reported process", write(20), Verdict::Unknown},
        {"start the process rule matches", process(edr::EventType::Running, 10, "/usr/bin/curl"),
         Verdict::Unknown},
        {"start outside the process rule", process(edr::EventType::Running, 10, "/opt/tool"), Verdict::Clean},
        {"connection outside the whitelist", connect(10, 443), Verdict::Unknown},
        {"whitelisted connection of a reported process", connect(20, 80), Verdict::Unknown}};
    for (const auto& [name, event, verdict] : cases)
    {
        EXPECT_EQ(engine.GetVerdict(std::make_shared<IocTestEvent>(event)), verdict) << name;
    }
    EXPECT_FALSE(tree.HasTag(10, TtlProcessTree::kExcluded));

    test::LogCapture log(common::Logging::Edr());
    EXPECT_EQ(engine.GetVerdict(std::make_shared<IocTestEvent>(connect(10, 80))), Verdict::Clean);
    EXPECT_TRUE(tree.HasTag(10, TtlProcessTree::kExcluded));
    EXPECT_FALSE(tree.HasTag(20, TtlProcessTree::kExcluded));
    EXPECT_TRUE(
        log.Contains("Adding verdict 'Clean' to Test event for unreported process (curl ( pid: 10) as "
                     "WhitelistGlobal exclusion filter matched"));
    engine.GetVerdict(std::make_shared<IocTestEvent>(connect(10, 443)));
    EXPECT_TRUE(log.Contains("Adding verdict 'Unknown' to Test event for process (curl (ID: 10) matches with "
                             "rule IDconnects"));

    engine.SetRules(nullptr);
    EXPECT_EQ(engine.GetVerdict(std::make_shared<IocTestEvent>(connect(10, 443))), Verdict::Clean)
        << "no policy, no report";
}

} // namespace
