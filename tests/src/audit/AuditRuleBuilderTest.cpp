#include "common/Logging.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "audit/AuditRule.h"
#include "audit/AuditRuleBuilder.h"
#include "audit/AuditTables.h"
#include "audit/RuleEngineException.h"
#include "tests/src/audit/TestRule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libaudit.h>

#include <filesystem>

namespace vantor::audit
{
namespace
{

using Rule = edr::EventRule;
using test::TestRule;
using testing::ElementsAre;

// Names in the tables that libaudit does not know would make rules fail at
// install time on every host.
TEST(AuditTablesTest, ActionSyscallNamesAreKnownToLibaudit)
{
    for (const auto* table : {&AuditTables::ProcessActionSyscalls(), &AuditTables::NetworkActionSyscalls()})
    {
        for (const auto& [action, calls] : *table)
        {
            for (const auto& call : calls)
            {
                EXPECT_GE(audit_name_to_syscall(call.c_str(), MACH_86_64), 0) << call;
            }
        }
    }
}

TEST(AuditRuleBuilderTest, WatchPermissionsComeFromBothActionSets)
{
    const auto read = [](uint32_t type, Rule::ActionSet first, Rule::ActionSet second = {})
    { return AuditRuleBuilder::GetReadPermissions(TestRule("r", type, {}, first, second)); };
    const auto write = [](uint32_t type, Rule::ActionSet first, Rule::ActionSet second = {})
    { return AuditRuleBuilder::GetWritePermissions(TestRule("r", type, {}, first, second)); };

    EXPECT_EQ(read(Rule::FilePathRule, {4}), AUDIT_PERM_READ);
    EXPECT_EQ(write(Rule::FilePathRule, {4}), 0);
    for (Rule::Action action : {2, 3, 5, 8})
    {
        EXPECT_EQ(write(Rule::FilePathRule, {action}), AUDIT_PERM_WRITE) << int(action);
    }
    EXPECT_EQ(write(Rule::FilePathRule, {7}), AUDIT_PERM_ATTR);
    EXPECT_EQ(write(Rule::FilePathRule, {2, 7, 4}), AUDIT_PERM_WRITE | AUDIT_PERM_ATTR);
    // Only directory rules have a second set.
    EXPECT_EQ(write(Rule::FilePathRule, {}, {7}), 0);
    EXPECT_EQ(write(Rule::DirectoryPathRule, {}, {3, 7}), AUDIT_PERM_WRITE | AUDIT_PERM_ATTR);
    EXPECT_EQ(write(Rule::DirectoryPathRule, {5}, {7}), AUDIT_PERM_WRITE | AUDIT_PERM_ATTR);
    EXPECT_EQ(read(Rule::DirectoryPathRule, {}, {4}), 0);
}

TEST(AuditRuleBuilderTest, SyscallsOfProcessAndNetworkActions)
{
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    EXPECT_THAT(AuditRuleBuilder::GetProcessSyscalls(TestRule("p", Rule::ProcessRule, {}, {9, 10, 11, 42})),
                ElementsAre("execve", "clone", "fork", "vfork", "exit_group"));
    EXPECT_TRUE(log.Contains("AddProcessRules: Unsupported action 42"));
    EXPECT_THAT(AuditRuleBuilder::GetNetworkSyscalls(TestRule("n", Rule::NetworkRule, {}, {12, 1, 5})),
                ElementsAre("accept", "connect"));
    EXPECT_TRUE(log.Contains("AddNetworkRules: Unsupported network action 5"));
}

TEST(AuditRuleBuilderTest, RulesThatCannotBeBuiltThrow)
{
    const auto message = [](const Rule& rule)
    {
        try
        {
            AuditRuleBuilder::CreateRules(rule, "tag");
        }
        catch (const RuleEngineException& e)
        {
            return std::string(e.what());
        }
        return std::string("no exception");
    };
    EXPECT_EQ(message(TestRule("x", 0, {}, {5})), "CreateRules: Unsupported rule type for rule id x");
    EXPECT_EQ(message(TestRule("y", 5, {}, {5})), "CreateRules: Unsupported rule type for rule id y");
    EXPECT_EQ(message(TestRule("z", Rule::FilePathRule, {"/"}, {})),
              "AddPathRules: Failed to add rule without actions: z");
    EXPECT_EQ(message(TestRule("d", Rule::DirectoryPathRule, {"/"}, {}, {})),
              "AddPathRules: Failed to add rule without actions: d");
    EXPECT_EQ(message(TestRule("p", Rule::ProcessRule, {}, {42})),
              "CreateRules: No system calls for rule id p");
    EXPECT_EQ(message(TestRule("k", Rule::ProcessRule, {}, {9})), "no exception");
    const std::string longKey(AUDIT_MAX_KEY_LEN + 1, 'k');
    EXPECT_THROW(AuditRuleBuilder::CreateRules(TestRule("l", Rule::ProcessRule, {}, {9}), longKey),
                 RuleEngineException);
    EXPECT_THROW(AuditRuleBuilder::CreateProcessExclusionRule(0, "self"), RuleEngineException);
}

TEST(AuditRuleBuilderTest, PathRulesGetOneRecordPerPermissionKindAndSkipMissingPaths)
{
    test::TempDir dir;
    const std::string file = dir.Write("f", "x");
    std::filesystem::create_directory(dir.File("d"));
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    auto built = AuditRuleBuilder::CreateRules(
        TestRule("r", Rule::FilePathRule, {file, dir.File("missing"), dir.File("d")}, {4, 5}), "tag");
    EXPECT_TRUE(log.Contains("Ignoring rule r as path " + dir.File("missing") + " does not exist"));
    EXPECT_THAT(built.paths, ElementsAre(file, dir.File("d")));
    ASSERT_EQ(built.records.size(), 4u);
    for (const auto& record : built.records)
    {
        EXPECT_THAT(record.GetKeys(), ElementsAre("tag"));
        EXPECT_EQ(record.GetFlags(), AUDIT_FILTER_EXIT);
    }
    EXPECT_EQ(built.records[0].GetWatchPath(), file);
    EXPECT_EQ(built.records[3].GetWatchPath(), dir.File("d"));

    // A record survives the trip through its bytes, as read back from the kernel.
    const auto bytes = built.records[0].Serialize();
    AuditRule copy(reinterpret_cast<const audit_rule_data*>(bytes.data()), bytes.size());
    EXPECT_THAT(copy.GetKeys(), ElementsAre("tag"));
    EXPECT_EQ(copy.GetWatchPath(), file);
    EXPECT_THROW(AuditRule(reinterpret_cast<const audit_rule_data*>(bytes.data()), bytes.size() - 1),
                 std::runtime_error);
    EXPECT_THROW(AuditRule(nullptr, 0), std::runtime_error);

    // Bytes sent through a channel come back with their flags and action,
    // and only whole records do.
    const auto sent = AuditRule::Deserialize(bytes);
    EXPECT_EQ(sent.GetFlags(), AUDIT_FILTER_EXIT);
    EXPECT_EQ(sent.GetAction(), AUDIT_ALWAYS);
    EXPECT_EQ(sent.Serialize(), bytes);
    for (const size_t size : {size_t{0}, sizeof(audit_rule_data) - 1, bytes.size() - 1})
    {
        EXPECT_THROW(AuditRule::Deserialize(std::vector<uint8_t>(bytes.begin(), bytes.begin() + size)),
                     std::runtime_error)
            << size;
    }
    auto longer = bytes;
    longer.push_back(0);
    EXPECT_THROW(AuditRule::Deserialize(longer), std::runtime_error);

    EXPECT_TRUE(
        AuditRuleBuilder::CreateRules(TestRule("m", Rule::FilePathRule, {dir.File("missing")}, {5}), "tag")
            .records.empty());
}

TEST(AuditRuleBuilderTest, FixedRulesCarryTheirKeysListsAndActions)
{
    const auto exclusion = AuditRuleBuilder::CreateProcessExclusionRule(1234, "self");
    EXPECT_THAT(exclusion.GetKeys(), ElementsAre("corvid_ignore_rule_self"));
    EXPECT_EQ(exclusion.GetFlags(), AUDIT_FILTER_PREPEND | AUDIT_FILTER_EXIT);
    EXPECT_EQ(exclusion.GetAction(), AUDIT_NEVER);
    const auto exit = AuditRuleBuilder::CreateProcessExitRule(1234, "outpost");
    EXPECT_THAT(exit.GetKeys(), ElementsAre("corvid_exit_rule_outpost"));
    EXPECT_EQ(exit.GetAction(), AUDIT_ALWAYS);
    const auto thread = AuditRuleBuilder::CreateThreadExclusionRule();
    EXPECT_THAT(thread.GetKeys(), ElementsAre("corvid_ignore_thread_events_rule"));
    EXPECT_EQ(thread.GetAction(), AUDIT_NEVER);
    const auto eoe = AuditRuleBuilder::CreateMessageTypeRule(1320);
    EXPECT_EQ(eoe.GetFlags(), AUDIT_FILTER_PREPEND | AUDIT_FILTER_EXCLUDE);
    EXPECT_TRUE(eoe.GetKeys().empty());
    // No key on the exclude list: the mark tells it apart.
    EXPECT_TRUE(AuditRuleBuilder::IsOwnMessageTypeRule(eoe));
    EXPECT_FALSE(AuditRuleBuilder::IsOwnMessageTypeRule(thread));
    EXPECT_FALSE(AuditRuleBuilder::IsOwnMessageTypeRule(exclusion));
    AuditRule plain;
    char field[] = "msgtype=1320";
    ASSERT_EQ(::audit_rule_fieldpair_data(plain.Ptr(), field, AUDIT_FILTER_EXCLUDE), 0);
    plain.SetFlags(AUDIT_FILTER_EXCLUDE);
    EXPECT_FALSE(AuditRuleBuilder::IsOwnMessageTypeRule(plain)) << "somebody else's";
    EXPECT_EQ(eoe.KeyText(), "");
    EXPECT_EQ(thread.KeyText(), "corvid_ignore_thread_events_rule");
}

} // namespace
} // namespace vantor::audit
