#include "ioc/FilteringEngine.h"
#include "ioc/HashMatchingEngine.h"
#include "ioc/HeuristicsEngine.h"
#include "ioc/NetworkRule.h"
#include "ioc/ProcessRule.h"
#include "ioc/TtlProcessTree.h"
#include "ioc/Verdict.h"
#include "ioc/WhitelistGlobalRule.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/src/ioc/IocTestJson.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/HashGeneratorException.h"
#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

using namespace vantor;
using ioc::TtlProcessTree;
using ioc::Verdict;
using ioc::internal::FilteringEngine;
using ioc::internal::HashMatchingEngine;
using ioc::internal::HeuristicsEngine;
using ioc::test::IocTestEvent;
using ioc::test::Json;

namespace
{

TEST(VerdictTest, TextsRoundTripOrderRanksBadnessAndOutsideTheScaleFails)
{
    const char* texts[] = {"Clean", "CleanWithoutHash", "Unknown", "Suspicious", "Malicious"};
    for (int value = 1; value <= 5; ++value)
    {
        const Verdict verdict = ioc::VerdictFromInt(value);
        EXPECT_STREQ(texts[value - 1], ioc::ToString(verdict));
        EXPECT_EQ(verdict, ioc::VerdictFromString(texts[value - 1]));
    }
    EXPECT_LT(Verdict::CleanWithoutHash, Verdict::Unknown);
    EXPECT_LT(Verdict::Suspicious, Verdict::Malicious);

    for (int value : {0, 6, -1})
    {
        vantor::test::ExpectThrowText<ioc::VerdictException>(
            [&] { ioc::ToString(static_cast<Verdict>(value)); },
            "Cannot convert verdict " + std::to_string(value) + " to string");
        EXPECT_THROW(ioc::VerdictFromInt(value), ioc::VerdictException);
    }
    // The whole text is compared: a longer one would show as a mismatch.
    for (const char* text : {"clean", "", "Clean ", "Bad"})
    {
        EXPECT_THAT([&] { ioc::VerdictFromString(text); },
                    testing::ThrowsMessage<ioc::VerdictException>(
                        testing::StrEq(std::string("Unknown verdict string: ") + text)))
            << text;
    }
}

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

class HeuristicsEngineTest : public testing::Test
{
protected:
    HeuristicsEngineTest()
    {
        Start(1, 0, "/sbin/init");
        Start(2, 0, "/usr/sbin/cron");
        for (const pid_t pid : {10, 11})
        {
            Start(pid, 1, "/usr/bin/tool");
        }
        Start(12, 2, "/usr/bin/tool");
        // Parents that differ from process 1 in one text only.
        Start(3, 0, "/sbin/init", {"/sbin/init", "--other"});
        Start(4, 0, "/sbin/init2", {"/sbin/init", "--run"});
        Start(13, 3, "/usr/bin/tool");
        Start(14, 4, "/usr/bin/tool");
        // A parent the tree does not know: the lineage is one process long.
        Start(15, 99, "/usr/bin/tool");
    }

    void Start(pid_t pid, pid_t parent, const std::string& image, std::vector<std::string> arguments = {})
    {
        if (arguments.empty())
        {
            arguments = {image, "--run"};
        }
        m_tree.AddOrUpdate(ioc::test::RunningEvent(pid, parent, image, std::move(arguments)));
    }

    Verdict Judge(const IocTestEvent& event)
    {
        return m_engine.GetVerdict(std::make_shared<IocTestEvent>(event));
    }

    ioc::test::FakeProc m_proc;
    ioc::TtlProcessTree m_tree{m_proc.Root()};
    HeuristicsEngine m_engine{m_tree, true, 1};
};

IocTestEvent Connect(pid_t pid, const std::string& address, uint16_t port)
{
    return ioc::test::By(pid, ioc::test::NetworkEvent(edr::EventType::Connect, address, port));
}

IocTestEvent Write(pid_t pid, const std::string& path)
{
    return ioc::test::By(pid, ioc::test::FileEvent(edr::EventType::Write, path));
}

TEST_F(HeuristicsEngineTest, OneBehaviourIsOneEventOfOneCommandLineageWhateverItsPids)
{
    const std::vector<std::tuple<const char*, IocTestEvent, IocTestEvent, bool>> cases{
        {"same connection", Connect(10, "10.0.0.1", 443), Connect(10, "10.0.0.1", 443), true},
        {"other port", Connect(10, "10.0.0.1", 443), Connect(10, "10.0.0.1", 80), false},
        {"other address", Connect(10, "10.0.0.1", 443), Connect(10, "10.0.0.2", 443), false},
        {"other file", Write(10, "/tmp/a"), Write(10, "/tmp/b"), false},
        {"another run of the command", Write(10, "/tmp/a"), Write(11, "/tmp/a"), true},
        {"the command under another parent", Write(10, "/tmp/a"), Write(12, "/tmp/a"), false},
        {"a parent with other arguments", Write(10, "/tmp/a"), Write(13, "/tmp/a"), false},
        {"a parent with another image", Write(10, "/tmp/a"), Write(14, "/tmp/a"), false},
        {"a shorter lineage", Write(10, "/tmp/a"), Write(15, "/tmp/a"), false},
        {"an unknown process", Write(10, "/tmp/a"), Write(77, "/tmp/a"), false},
        {"other kind of event", Write(10, "/tmp/a"),
         ioc::test::By(10, ioc::test::ProcessEvent(edr::EventType::Exit, "/usr/bin/tool")), false}};
    for (const auto& [name, first, second, same] : cases)
    {
        m_engine.Reconfigure(true, 1);
        EXPECT_EQ(Judge(first), Verdict::Unknown) << name;
        EXPECT_EQ(Judge(second), same ? Verdict::Clean : Verdict::Unknown) << name;
    }
    EXPECT_EQ(m_tree.GetProcessInfo(11).verdicts.at(HeuristicsEngine::kVerdictKey),
              static_cast<int>(Verdict::Clean));
}

TEST_F(HeuristicsEngineTest, AProcessThatRunsAnotherCommandLineCountsUnderItsNewLineage)
{
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Unknown);
    Start(10, 1, "/usr/bin/tool", {"/usr/bin/tool", "--again"});
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Unknown) << "a new behaviour";
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Clean);
    EXPECT_EQ(Judge(Write(11, "/tmp/a")), Verdict::Clean) << "the old lineage keeps its count";
    Start(1, 0, "/sbin/init", {"/sbin/init", "--single"});
    EXPECT_EQ(Judge(Write(11, "/tmp/a")), Verdict::Unknown) << "an ancestor ran another command line";
}

TEST_F(HeuristicsEngineTest, SwitchedOffItCountsNothingAndAZeroMaxCountChangesNothing)
{
    m_engine.Reconfigure(false);
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Unknown);
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Unknown);
    EXPECT_EQ(m_engine.GetCacheSize(), 0u);

    const std::string zero = "maxCount cannot be set to 0 on the heuristics engine";
    test::ExpectThrowText<std::invalid_argument>([&] { HeuristicsEngine engine(m_tree, true, 0); }, zero);
    m_engine.Reconfigure(true, 1);
    Judge(Write(10, "/tmp/a"));
    test::ExpectThrowText<std::invalid_argument>([&] { m_engine.Reconfigure(false, 0); }, zero);
    EXPECT_EQ(Judge(Write(10, "/tmp/a")), Verdict::Clean) << "settings and counts stay";
}

class HashMatchingEngineTest : public testing::Test
{
protected:
    Verdict Start(pid_t pid, pid_t parent, const std::string& image)
    {
        const auto event = ioc::test::RunningEvent(pid, parent, image);
        m_tree.AddOrUpdate(event);
        return m_engine.GetVerdict(std::make_shared<IocTestEvent>(event));
    }

    Verdict FileEvent(pid_t pid, edr::EventType type, const std::string& file,
                      const std::string& newFile = "")
    {
        auto event = ioc::test::By(pid, ioc::test::FileEvent(type, file));
        event.newFile = newFile;
        return m_engine.GetVerdict(std::make_shared<IocTestEvent>(event));
    }

    void Store(pid_t pid, Verdict verdict)
    {
        m_tree.AddOrUpdate(ioc::test::RunningEvent(pid, 1, "/usr/bin/stored"));
        ASSERT_TRUE(m_tree.SetVerdict(pid, HashMatchingEngine::kVerdictKey, static_cast<int>(verdict)));
    }

    ioc::test::FakeProc m_proc;
    ioc::TtlProcessTree m_tree{m_proc.Root()};
    // Path -> times hashed; a path in m_unreadable cannot be hashed.
    std::map<std::string, int> m_hashed;
    std::set<std::string> m_unreadable;
    HashMatchingEngine m_engine{m_tree, [this](const std::string& path, uint64_t)
                                {
                                    if (m_unreadable.count(path) != 0)
                                    {
                                        throw std::runtime_error("unreadable");
                                    }
                                    return "hash of " + path + std::to_string(++m_hashed[path]);
                                }};
};

TEST_F(HashMatchingEngineTest, AnExecutableIsHashedOncePerPathUntilAFileEventChangesIt)
{
    test::LogCapture log(common::Logging::Edr());
    EXPECT_EQ(Start(10, 1, "/usr/bin/a"), Verdict::Unknown) << "a first sighting";
    EXPECT_TRUE(log.Contains("Adding verdict: Unknown. Hash not found for process: 10"));
    EXPECT_EQ(Start(11, 1, "/usr/bin/a"), Verdict::Clean);
    EXPECT_TRUE(log.Contains("Adding verdict: Clean. Hash found for process: 11"));
    EXPECT_EQ(m_hashed["/usr/bin/a"], 1);
    EXPECT_EQ(m_engine.GetHash("/usr/bin/a"), "hash of /usr/bin/a1");

    FileEvent(11, edr::EventType::Read, "/usr/bin/a");
    FileEvent(11, edr::EventType::Attribute, "/usr/bin/a");
    EXPECT_EQ(Start(12, 1, "/usr/bin/a"), Verdict::Clean) << "reading or chmod changes no content";

    FileEvent(11, edr::EventType::Write, "/usr/bin/a");
    EXPECT_FALSE(m_engine.GetHash("/usr/bin/a"));
    EXPECT_EQ(Start(13, 1, "/usr/bin/a"), Verdict::Unknown);
    FileEvent(11, edr::EventType::Rename, "/tmp/new", "/usr/bin/a");
    EXPECT_EQ(Start(14, 1, "/usr/bin/a"), Verdict::Unknown) << "renamed over";
    EXPECT_EQ(m_hashed["/usr/bin/a"], 3);
}

TEST_F(HashMatchingEngineTest, ParentsPassOnUnknownOrWorseAndAStoredVerdictNeverGoesDown)
{
    Start(5, 1, "/usr/bin/hashed");
    test::LogCapture log(common::Logging::Edr());

    Store(10, Verdict::Malicious);
    EXPECT_EQ(Start(11, 10, "/usr/bin/hashed"), Verdict::Malicious);
    EXPECT_TRUE(log.Contains("Adding verdict: Malicious from parent process: 10"));
    EXPECT_EQ(FileEvent(11, edr::EventType::Write, "/tmp/x"), Verdict::Malicious) << "kept on the process";

    Store(20, Verdict::Clean);
    EXPECT_EQ(Start(21, 20, "/usr/bin/hashed"), Verdict::Clean);
    EXPECT_EQ(Start(22, 20, "/usr/bin/new"), Verdict::Unknown) << "judged on its own hash";

    Store(30, Verdict::Suspicious);
    EXPECT_EQ(Start(30, 1, "/usr/bin/hashed"), Verdict::Suspicious) << "a new image of the same process";
    EXPECT_TRUE(log.Contains("Adding verdict: Suspicious from existing process"));
    EXPECT_EQ(FileEvent(30, edr::EventType::Read, "/etc/hosts"), Verdict::Suspicious);

    Store(40, static_cast<Verdict>(7));
    test::ExpectThrowText<ioc::VerdictException>([&] { FileEvent(40, edr::EventType::Read, "/etc/hosts"); },
                                                 "Cannot convert verdict 7 to string");
}

TEST_F(HashMatchingEngineTest, KnownExecutablesAreCleanWithoutHashButMustBeHashable)
{
    Start(5, 1, "/usr/bin/seen");
    m_engine.Reset({"/usr/bin/known", "/usr/bin/broken"}, 1024);
    EXPECT_FALSE(m_engine.GetHash("/usr/bin/seen")) << "a reset forgets the hashes";
    EXPECT_EQ(Start(10, 1, "/usr/bin/known"), Verdict::CleanWithoutHash);
    EXPECT_EQ(m_hashed["/usr/bin/known"], 1);

    m_unreadable = {"/usr/bin/broken", "/usr/bin/other"};
    test::ExpectThrowText<common::HashGeneratorException>(
        [&] { Start(11, 1, "/usr/bin/broken"); },
        "Failed to generate hash for known process: /usr/bin/broken: unreadable");
    EXPECT_EQ(Start(12, 1, "/usr/bin/other"), Verdict::Unknown) << "only a known executable must be hashable";
}

TEST(HashMatchingEngineDigestTest, TakesTheSha256OfTheFileWithinTheSizeLimit)
{
    test::TempDir dir;
    const std::string path = dir.Write("tool", "abc");
    EXPECT_EQ(HashMatchingEngine::DefaultHash(path, 3),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_THROW(HashMatchingEngine::DefaultHash(path, 2), std::runtime_error);
}

} // namespace
