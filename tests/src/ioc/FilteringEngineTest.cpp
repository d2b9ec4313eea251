// The filtering engine: exits and file events of reported processes, the
// policy's rules, which a whitelist overrides only for unreported
// processes (see also the event processor's tests).

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
    tree.AddOrUpdate(ioc::test::RunningEvent(10, 1, "/usr/bin/curl"));
    tree.AddOrUpdate(ioc::test::RunningEvent(20, 1, "/usr/bin/curl"));
    tree.AddTag(20, TtlProcessTree::kReported);

    // A connection to 10.0.0.8:80, or an event of another type on /etc/hosts.
    const auto event = [](edr::EventType type, pid_t pid, const std::string& image = "/usr/bin/curl")
    {
        auto made =
            ioc::test::By(pid, type == edr::EventType::Connect ? ioc::test::NetworkEvent(type, "10.0.0.8", 80)
                                                               : ioc::test::FileEvent(type, "/etc/hosts"));
        made.type = type;
        made.image = image;
        return std::make_shared<IocTestEvent>(made);
    };
    using edr::EventType;
    const std::vector<std::tuple<const char*, std::shared_ptr<IocTestEvent>, Verdict>> cases{
        {"exit of an unreported process", event(EventType::Exit, 10), Verdict::Clean},
        {"exit of a reported process", event(EventType::Exit, 20), Verdict::Unknown},
        {"abnormal end of a reported process", event(EventType::AbnormalEnd, 20), Verdict::Unknown},
        {"file event no rule asks for", event(EventType::Write, 10), Verdict::Clean},
        {"file event of a reported process", event(EventType::Write, 20), Verdict::Unknown},
        {"start the process rule matches", event(EventType::Running, 10), Verdict::Unknown},
        {"start outside the process rule", event(EventType::Running, 10, "/opt/tool"), Verdict::Clean},
        {"whitelisted connection of a reported process", event(EventType::Connect, 20), Verdict::Unknown},
        {"connection the whitelist does not cover", event(EventType::Connect, 10, "/usr/bin/wget"),
         Verdict::Unknown}};
    test::LogCapture log(common::Logging::Edr());
    for (const auto& [name, subject, verdict] : cases)
    {
        EXPECT_EQ(engine.GetVerdict(subject), verdict) << name;
    }
    EXPECT_FALSE(tree.HasTag(10, TtlProcessTree::kExcluded));
    EXPECT_TRUE(log.Contains("Adding verdict 'Unknown' to Test event for process (wget (ID: 10) matches with "
                             "rule IDconnects"));

    engine.SetRules(nullptr);
    EXPECT_EQ(engine.GetVerdict(event(EventType::Connect, 10, "/usr/bin/wget")), Verdict::Clean)
        << "no policy, no report";
}

} // namespace
