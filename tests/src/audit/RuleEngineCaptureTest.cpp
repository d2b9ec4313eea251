#include "common/Logging.h"
#include "tests/src/audit/AuditKernelState.h"
#include "tests/src/audit/TestEvent.h"
#include "tests/src/audit/TestRule.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "audit/RuleEngine.h"
#include "audit/RuleEngineException.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sys/wait.h>

namespace vantor::audit
{
namespace
{

using test::MakeRule;
using test::RulesContaining;
using testing::HasSubstr;
using Rule = edr::EventRule;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

constexpr const char* kTag = "corvid_test_tag";

size_t IndexOf(const std::vector<std::string>& lines, const std::string& text)
{
    for (size_t i = 0; i < lines.size(); ++i)
    {
        if (lines[i].find(text) != std::string::npos)
        {
            return i;
        }
    }
    return lines.size();
}

class RuleEngineCaptureTest : public test::AuditCaptureFixture
{
protected:
    void SetUp() override
    {
        AuditCaptureFixture::SetUp();
        if (IsSkipped())
        {
            return;
        }
        std::filesystem::create_directories(m_dir.Path() + "/watched/sub");
        m_file = m_dir.Write("watched.txt", "x");
        m_directory = m_dir.Path() + "/watched";
    }

    std::unique_ptr<RuleEngine> MakeEngine(uint64_t backlogLimit = 0)
    {
        return std::make_unique<RuleEngine>(::getppid(), "/usr/sbin/outpost", backlogLimit, m_dir.Path());
    }

    test::TempDir m_dir;
    std::string m_file;
    std::string m_directory;
};

TEST_F(RuleEngineCaptureTest, FixedRulesAreInstalledInOrderAndRemovedByTheDestructor)
{
    const std::string self = std::to_string(::getpid());
    const std::string outpost = std::to_string(::getppid());
    const auto eoeBefore = RulesContaining("msgtype=EOE");
    {
        auto engine = MakeEngine();
        const auto lines = test::ListRules();
        const size_t outpostExit = IndexOf(lines, "key=corvid_exit_rule_outpost");
        const size_t outpostIgnore = IndexOf(lines, "key=corvid_ignore_rule_outpost");
        const size_t selfExit = IndexOf(lines, "key=corvid_exit_rule_self");
        const size_t selfIgnore = IndexOf(lines, "key=corvid_ignore_rule_self");
        const size_t thread = IndexOf(lines, "key=corvid_ignore_thread_events_rule");
        ASSERT_LT(thread, lines.size());
        // Prepended one after the other: each exit rule stands in front of
        // its exclusion rule, the last pair installed comes first.
        EXPECT_LT(outpostExit, outpostIgnore);
        EXPECT_LT(outpostIgnore, selfExit);
        EXPECT_LT(selfExit, selfIgnore);
        EXPECT_LT(selfIgnore, thread);
        EXPECT_EQ(lines[selfExit], "-a always,exit -F arch=b64 -S exit_group -F pid=" + self +
                                       " -F key=corvid_exit_rule_self");
        EXPECT_EQ(lines[selfIgnore],
                  "-a never,exit -F arch=b64 -S all -F pid=" + self + " -F key=corvid_ignore_rule_self");
        EXPECT_THAT(lines[outpostIgnore], HasSubstr("-F pid=" + outpost + " "));
        EXPECT_EQ(lines[thread], "-a never,exit -F arch=b64 -S clone -F a0&0x10000 -F "
                                 "key=corvid_ignore_thread_events_rule");
        // Beside any of somebody else's, told apart by its mark.
        EXPECT_EQ(RulesContaining(test::OwnEoeRuleLine()).size(), 1u);
        EXPECT_EQ(RulesContaining("msgtype=EOE").size(), eoeBefore.size() + 1);

        engine->AddRules(
            {MakeRule("p1", Rule::ProcessRule, {}, {9}), MakeRule("f1", Rule::FilePathRule, {m_file}, {5})},
            kTag);
        EXPECT_EQ(RulesContaining(kTag).size(), 2u);
    }
    EXPECT_TRUE(RulesContaining("key=corvid_").empty());
    EXPECT_TRUE(RulesContaining(kTag).empty());
    EXPECT_EQ(RulesContaining("msgtype=EOE"), eoeBefore);
}

TEST_F(RuleEngineCaptureTest, PathRulesWatchWithThePermissionsOfBothActionSets)
{
    auto engine = MakeEngine();
    // read + write + attribute on a file: a read rule for login users and a
    // write/attribute watch.
    engine->AddRules({MakeRule("file", Rule::FilePathRule, {m_file}, {4, 5, 7}),
                      // nothing for the files below, create for directories
                      MakeRule("dir", Rule::DirectoryPathRule, {m_directory}, {}, {2})},
                     kTag);
    const auto fileRules = RulesContaining(m_file);
    EXPECT_THAT(fileRules, testing::UnorderedElementsAre("-a always,exit -S all -F path=" + m_file +
                                                             " -F perm=r -F auid!=-1 -F key=" + kTag,
                                                         "-w " + m_file + " -p wa -k " + kTag));
    EXPECT_THAT(RulesContaining(m_directory + " "),
                testing::ElementsAre("-w " + m_directory + " -p w -k " + kTag));

    EXPECT_EQ(engine->GetPathTags(m_file), (edr::Trie::Values{kTag}));
    EXPECT_EQ(engine->GetPathTags(m_directory + "/sub/new.txt"), (edr::Trie::Values{kTag}));
    EXPECT_TRUE(engine->GetPathTags(m_dir.Path() + "/other").empty());

    EXPECT_TRUE(engine->DeleteRuleFromAudit("file"));
    EXPECT_TRUE(RulesContaining(m_file).empty());
    EXPECT_TRUE(engine->GetPathTags(m_file).empty());
    EXPECT_FALSE(engine->DeleteRuleFromAudit("file"));
    EXPECT_EQ(RulesContaining(m_directory + " ").size(), 1u);
}

TEST_F(RuleEngineCaptureTest, RulesThatCannotBeInstalledAreRefusedOneByOne)
{
    auto engine = MakeEngine();
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    const std::string missing = m_dir.Path() + "/missing";
    engine->AddRules({MakeRule("missing", Rule::FilePathRule, {missing}, {5}),
                      MakeRule("p1", Rule::ProcessRule, {}, {9, 10, 11}),
                      MakeRule("p2", Rule::ProcessRule, {}, {9}), nullptr, MakeRule("odd", 7, {}, {5}),
                      MakeRule("p1", Rule::ProcessRule, {}, {9, 10, 11})},
                     kTag);
    EXPECT_TRUE(log.Contains("Ignoring rule missing as path " + missing + " does not exist"));
    EXPECT_TRUE(RulesContaining(missing).empty());
    EXPECT_FALSE(engine->IsRuleInstalled("missing"));
    EXPECT_TRUE(log.Contains("Cannot add more than 1 process rule for '" + std::string(kTag) + "'"));
    EXPECT_FALSE(engine->IsRuleInstalled("p2"));
    EXPECT_TRUE(log.Contains("RuleEngine::AddRules: 'rule' is nullptr"));
    EXPECT_TRUE(log.Contains("CreateRules: Unsupported rule type for rule id odd"));
    EXPECT_TRUE(log.Contains("Rule p1 already exists"));
    EXPECT_EQ(log.Count("RuleEngine::AddRules: Added rule with ID "), 1u);

    const auto process = RulesContaining(kTag);
    ASSERT_EQ(process.size(), 1u);
    for (const char* call : {"execve", "clone", "fork", "vfork", "exit_group"})
    {
        EXPECT_THAT(process[0], testing::ContainsRegex(std::string("-S ([a-z_]+,)*") + call + "[ ,]"));
    }
    // Another tag may have its own process rule; this one may again once its
    // rule is gone.
    engine->AddRules({MakeRule("p3", Rule::ProcessRule, {}, {11})}, "corvid_test_other");
    EXPECT_TRUE(engine->IsRuleInstalled("p3"));
    engine->DeleteRules(kTag);
    engine->AddRules({MakeRule("p2", Rule::ProcessRule, {}, {9})}, kTag);
    EXPECT_TRUE(engine->IsRuleInstalled("p2"));
    EXPECT_THROW(engine->AddRules({}, ""), RuleEngineException);
}

TEST_F(RuleEngineCaptureTest, RulesLeftByACrashedRunAreDeletedFirst)
{
    // What a killed daemon leaves behind: its fixed rules for another pid and
    // a detection rule of a tag.
    test::Auditctl("-a", "always,exit -F arch=b64 -S exit_group -F pid=1 -F key=corvid_exit_rule_self");
    test::Auditctl("-a", "never,exit -F arch=b64 -S all -F pid=1 -F key=corvid_ignore_rule_self");
    test::Auditctl("-a",
                   "never,exit -F arch=b64 -S clone -F a0&0x10000 -F key=corvid_ignore_thread_events_rule");
    test::Auditctl("-w", m_file + " -p wa -k " + kTag);
    // Its marked EOE exclusion, which has no key; one of somebody else's
    // without the mark must survive.
    const std::string plainEoe = "-a always,exclude -F msgtype=EOE";
    const auto lines = test::ListRules();
    const bool plainBefore = std::find(lines.begin(), lines.end(), plainEoe) != lines.end();
    test::Auditctl("-a", test::OwnEoeRuleLine().substr(3));
    test::Auditctl("-a", plainEoe.substr(3));
    const auto foreign = RulesContaining("msgtype=EOE").size() - 1;
    ASSERT_EQ(RulesContaining("pid=1 ").size(), 2u);
    ASSERT_EQ(RulesContaining(kTag).size(), 1u);
    ASSERT_EQ(RulesContaining(test::OwnEoeRuleLine()).size(), 1u);

    auto engine = MakeEngine();
    EXPECT_TRUE(RulesContaining("pid=1 ").empty());
    EXPECT_EQ(RulesContaining("key=corvid_ignore_thread_events_rule").size(), 1u);
    EXPECT_EQ(RulesContaining("key=corvid_ignore_rule_self").size(), 1u);
    EXPECT_EQ(RulesContaining(test::OwnEoeRuleLine()).size(), 1u) << "the old one replaced, not doubled";

    engine->AddRules({MakeRule("f1", Rule::FilePathRule, {m_file}, {5})}, kTag);
    EXPECT_TRUE(engine->IsRuleInstalled("f1"));
    EXPECT_EQ(RulesContaining(kTag).size(), 1u);
    engine.reset();
    EXPECT_TRUE(RulesContaining("key=corvid_").empty());
    EXPECT_EQ(RulesContaining("msgtype=EOE").size(), foreign);
    EXPECT_TRUE(RulesContaining(test::OwnEoeRuleLine()).empty());
    if (!plainBefore)
    {
        test::Auditctl("-d", plainEoe.substr(3));
    }
}

TEST_F(RuleEngineCaptureTest, RulesSomebodyElseRemovedAreInstalledAgainWhole)
{
    const auto sortedOurs = []
    {
        std::vector<std::string> lines;
        for (const auto& line : test::ListRules())
        {
            if (test::IsOurRule(line) || line.find(kTag) != std::string::npos)
            {
                lines.push_back(line);
            }
        }
        std::sort(lines.begin(), lines.end());
        return lines;
    };
    auto engine = MakeEngine();
    engine->AddRules(
        {MakeRule("p1", Rule::ProcessRule, {}, {9}), MakeRule("f1", Rule::FilePathRule, {m_file}, {5})},
        kTag);
    const auto installed = sortedOurs();
    const auto nothingMissing = engine->RestoreMissingRules();
    ASSERT_TRUE(nothingMissing);
    EXPECT_EQ(nothingMissing->missing, 0u);

    // One fixed rule and one of the tag's two: each set comes back whole,
    // in front of the rules of others where it stood.
    test::DeleteRules(
        [&](const std::string& line)
        {
            return line.find("corvid_ignore_thread_events_rule") != std::string::npos ||
                   line.find(m_file) != std::string::npos;
        });
    const auto repair = engine->RestoreMissingRules();
    ASSERT_TRUE(repair);
    EXPECT_EQ(repair->missing, 2u);
    EXPECT_EQ(repair->reinstalled, installed.size());
    EXPECT_EQ(sortedOurs(), installed);
    const auto lines = test::ListRules();
    EXPECT_LT(IndexOf(lines, "corvid_ignore_thread_events_rule"), IndexOf(lines, m_file));

    engine->RemoveKernelRules();
    const auto afterShutdown = engine->RestoreMissingRules();
    ASSERT_TRUE(afterShutdown);
    EXPECT_EQ(afterShutdown->reinstalled, 0u);
    EXPECT_TRUE(RulesContaining("key=corvid_").empty());
}

TEST_F(RuleEngineCaptureTest, LeftoverRulesAreRemovedByKeyWithoutAnEngine)
{
    const std::string foreignKey = "foreign_leftover_test_" + std::to_string(::getpid());
    test::Auditctl("-w", m_directory + " -p wa -k " + foreignKey);
    test::Auditctl("-a", "never,exit -F arch=b64 -S all -F pid=1 -F key=corvid_ignore_rule_self");
    test::Auditctl("-w", m_file + " -p wa -k " + kTag);
    test::Auditctl("-a", test::OwnEoeRuleLine().substr(3));

    EXPECT_EQ(KernelRuleInstaller::RemoveLeftoverRules({kTag}), 3u);
    EXPECT_TRUE(RulesContaining("key=corvid_").empty());
    EXPECT_TRUE(RulesContaining(kTag).empty());
    EXPECT_TRUE(RulesContaining(test::OwnEoeRuleLine()).empty());
    EXPECT_EQ(RulesContaining(foreignKey).size(), 1u);
    test::Auditctl("-W", m_directory + " -p wa -k " + foreignKey);
}

TEST_F(RuleEngineCaptureTest, InvalidateAndRemovingTheKernelRulesTakeOffWhatTheyShould)
{
    const std::string foreignKey = "foreign_engine_test_" + std::to_string(::getpid());
    test::Auditctl("-w", m_directory + " -p wa -k " + foreignKey);
    const auto before = test::ListRules();
    auto engine = MakeEngine();
    int invalidated = 0;
    engine->RegisterEventHandlers(
        kTag, [](edr::Event&) {}, [&] { ++invalidated; });

    // Invalidate removes the detection rules and asks for them again; the
    // fixed rules stay.
    engine->AddRules({MakeRule("f1", Rule::FilePathRule, {m_file}, {5})}, kTag);
    ASSERT_EQ(RulesContaining(kTag).size(), 1u);
    engine->Invalidate();
    EXPECT_TRUE(RulesContaining(kTag).empty());
    EXPECT_FALSE(engine->IsRuleInstalled("f1"));
    EXPECT_TRUE(engine->GetPathTags(m_file).empty());
    EXPECT_EQ(invalidated, 1);
    EXPECT_EQ(RulesContaining("key=corvid_ignore_rule_self").size(), 1u);

    // Removing the kernel rules leaves only foreign ones and installs no more.
    engine->AddRules(
        {MakeRule("f1", Rule::FilePathRule, {m_file}, {5}), MakeRule("p1", Rule::ProcessRule, {}, {9})},
        kTag);
    ASSERT_EQ(RulesContaining(kTag).size(), 2u);

    engine->RemoveKernelRules();
    EXPECT_EQ(test::ListRules(), before);
    EXPECT_FALSE(engine->IsRuleInstalled("f1"));
    EXPECT_TRUE(engine->GetPathTags(m_file).empty());

    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    engine->AddRules({MakeRule("f2", Rule::FilePathRule, {m_file}, {5})}, kTag);
    EXPECT_FALSE(engine->IsRuleInstalled("f2"));
    EXPECT_FALSE(engine->RefreshOutpostExclusionRules(::getpid(), "/usr/sbin/outpost"));
    EXPECT_TRUE(log.Contains("The audit rules are removed for shutdown"));
    // Owners unregister as usual; the destructor has nothing left to remove.
    engine->DeleteRules(kTag);
    engine->UnregisterEventHandlers(kTag);
    engine.reset();
    EXPECT_EQ(test::ListRules(), before);
    test::Auditctl("-W", m_directory + " -p wa -k " + foreignKey);
}

TEST_F(RuleEngineCaptureTest, BacklogLimitIsRaisedAndNeverLowered)
{
    const auto initial = test::StatusValue("backlog_limit");
    ASSERT_TRUE(initial);
    const uint64_t raised = static_cast<uint64_t>(*initial) + 1234;
    {
        auto engine = MakeEngine(raised);
        EXPECT_EQ(engine->GetAuditBacklogLimit(), raised);
    }
    EXPECT_EQ(test::StatusValue("backlog_limit"), static_cast<long long>(raised));
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    auto engine = MakeEngine(10);
    EXPECT_EQ(test::StatusValue("backlog_limit"), static_cast<long long>(raised));
    EXPECT_FALSE(log.Contains("Failed to set audit backlog limit"));
}

TEST_F(RuleEngineCaptureTest, AgentRestartReplacesItsExclusionRules)
{
    auto engine = MakeEngine();
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0)
    {
        ::pause();
        ::_exit(0);
    }
    EXPECT_TRUE(engine->RefreshOutpostExclusionRules(child, "/usr/sbin/outpost-new"));
    const auto rules = RulesContaining("_rule_outpost");
    EXPECT_EQ(rules.size(), 2u);
    for (const auto& rule : rules)
    {
        EXPECT_THAT(rule, HasSubstr("-F pid=" + std::to_string(child) + " "));
    }
    EXPECT_EQ(engine->GetOutpostPid(), child);
    EXPECT_EQ(engine->GetOutpostPath(), "/usr/sbin/outpost-new");
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

} // namespace
} // namespace vantor::audit
