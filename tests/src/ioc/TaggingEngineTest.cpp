// The tagging engine over a TTL process tree: switching on and off by its
// settings, the walk of the tags up to the threshold, exclusions, tags
// inherited by new processes and handed on to children and siblings, and
// scores that only grow.

#include "ioc/TaggingEngine.h"
#include "ioc/TtlProcessTree.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"

#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

using namespace vantor;
using edr::EventType;
using ioc::ProcessInfo;
using ioc::TtlProcessTree;
using ioc::Verdict;
using ioc::internal::TaggingEngine;
using ioc::test::IocTestEvent;
using testing::ElementsAre;
using testing::Pair;

namespace
{

// Every tag with the given score, and the threshold; one tag's settings may
// be given instead.
std::string AllTags(int threshold, int score, const std::string& tag = "", const std::string& settings = "")
{
    std::string text = "{\"thresholdScore\": " + std::to_string(threshold);
    for (const std::string name : {"CredentialAccess", "DefenseEvasion", "Execution", "Exfiltration",
                                   "Persistence", "PrivilegeEscalation"})
    {
        text +=
            ", \"" + name + "\": " + (name == tag ? settings : "{\"score\": " + std::to_string(score) + "}");
    }
    return text + "}";
}

class TaggingEngineTest : public testing::Test
{
protected:
    TaggingEngineTest()
        : m_tree(std::make_shared<TtlProcessTree>(m_proc.Root()))
        , m_engine(*m_tree)
    {
    }

    void Add(pid_t pid, pid_t parentPid, const std::string& image)
    {
        ProcessInfo process;
        process.pid = pid;
        process.parentPid = parentPid;
        process.image.path = image;
        m_tree->Add(process);
    }

    Verdict Read(pid_t pid, const std::string& file)
    {
        auto event = std::make_shared<IocTestEvent>(ioc::test::FileEvent(EventType::Read, file));
        event->pid = pid;
        return m_engine.GetVerdict(event);
    }

    Verdict Running(pid_t pid, pid_t parentPid, std::vector<std::string> arguments = {})
    {
        auto event = std::make_shared<IocTestEvent>(
            ioc::test::ProcessEvent(EventType::Running, m_tree->GetProcessInfo(pid).image.path));
        event->pid = pid;
        event->ppid = parentPid;
        event->arguments = std::move(arguments);
        return m_engine.GetVerdict(event);
    }

    std::map<std::string, int64_t> TagsOf(pid_t pid) const { return m_tree->GetProcessInfo(pid).tags; }

    ioc::test::FakeProc m_proc;
    std::shared_ptr<TtlProcessTree> m_tree;
    TaggingEngine m_engine;
};

TEST_F(TaggingEngineTest, SettingsThatSwitchTaggingOffMakeEveryVerdictClean)
{
    const std::vector<std::pair<std::string, std::string>> cases{
        {AllTags(0, 5), "Tag score threshold is 0. Disabling tagging ..."},
        {R"({"CredentialAccess": {"score": 5}})", "Tag settings does not have threshold score"},
        {R"({"thresholdScore": "1", "CredentialAccess": {"score": 5}})", "Threshold score is not an integer"},
        {R"({"thresholdScore": -1, "CredentialAccess": {"score": 5}})", "Threshold score is not an integer"},
        {"[]", "Failed to apply tag settings"},
        {"{", "Failed to apply tag settings"},
    };
    Add(10, 1, "/usr/bin/vim");
    for (const auto& [settings, text] : cases)
    {
        ASSERT_TRUE(m_engine.ApplySettings(AllTags(1, 5)));
        test::LogCapture log(common::Logging::Edr());
        EXPECT_FALSE(m_engine.ApplySettings(settings)) << settings;
        EXPECT_TRUE(log.Contains(text)) << settings;
        EXPECT_EQ(Read(10, "/etc/shadow"), Verdict::Clean) << settings;
        EXPECT_TRUE(TagsOf(10).empty()) << settings;
    }
    EXPECT_FALSE(m_engine.ApplySettings(std::string())) << "no tag settings at all";
}

TEST_F(TaggingEngineTest, TagsAreWalkedInOrderOnlyUntilTheThresholdIsReached)
{
    // python3 writing /etc/shadow shows CredentialAccess, Exfiltration and
    // Persistence.
    Add(10, 1, "/usr/bin/python3");
    auto write = std::make_shared<IocTestEvent>(ioc::test::FileEvent(EventType::Write, "/etc/shadow"));
    write->pid = 10;

    ASSERT_TRUE(m_engine.ApplySettings(AllTags(20, 5)));
    EXPECT_EQ(m_engine.GetVerdict(write), Verdict::Clean) << "15 is below 20";
    EXPECT_THAT(TagsOf(10),
                ElementsAre(Pair("CredentialAccess", 5), Pair("Exfiltration", 5), Pair("Persistence", 5)));

    m_tree->Delete(10);
    Add(10, 1, "/usr/bin/python3");
    ASSERT_TRUE(m_engine.ApplySettings(AllTags(10, 5)));
    test::LogCapture log(common::Logging::Edr());
    EXPECT_EQ(m_engine.GetVerdict(write), Verdict::Suspicious);
    EXPECT_THAT(TagsOf(10), ElementsAre(Pair("CredentialAccess", 5), Pair("Exfiltration", 5)))
        << "the second tag reaches the threshold; no further tag is looked at";
    EXPECT_TRUE(log.Contains("Added Tag: Exfiltration, Updated Score: 10, for PID: 10"));
    EXPECT_FALSE(log.Contains("Checking for Persistence tag"));
    EXPECT_TRUE(log.Contains("Returning tag verdict 'Suspicious' to process (python3 (10) Threshold: 10"));
    EXPECT_EQ(Read(10, "/etc/motd"), Verdict::Suspicious) << "a later event of the process";
}

TEST_F(TaggingEngineTest, DisabledAndExcludedTagsAreNeverAdded)
{
    Add(10, 1, "/usr/bin/vim");
    Add(11, 1, "/usr/bin/less");
    Add(12, 1, "/usr/bin/curl");
    test::LogCapture log(common::Logging::Edr());
    ASSERT_TRUE(m_engine.ApplySettings(
        R"({"thresholdScore": 1, "CredentialAccess": {"score": 1, "exclusions": ["^/usr/bin/vim$"]},
            "Persistence": {"score": 0}, "DefenseEvasion": 5, "Execution": {"score": 1}})"));
    EXPECT_TRUE(log.Contains("Disabling Exfiltration tag as it is not configured"));
    EXPECT_TRUE(log.Contains("Invalid setting json forDefenseEvasion"));
    EXPECT_TRUE(log.Contains("Invalid setting for DefenseEvasion"));

    EXPECT_EQ(Read(10, "/etc/shadow"), Verdict::Clean) << "vim is excluded";
    EXPECT_EQ(Read(11, "/etc/shadow"), Verdict::Suspicious);
    auto connect =
        std::make_shared<IocTestEvent>(ioc::test::NetworkEvent(EventType::Connect, "10.0.0.1", 443));
    connect->pid = 12;
    EXPECT_EQ(m_engine.GetVerdict(connect), Verdict::Clean) << "Exfiltration is not configured";
    auto create = std::make_shared<IocTestEvent>(ioc::test::FileEvent(EventType::Create, "/etc/cron.d/.job"));
    create->pid = 12;
    EXPECT_EQ(m_engine.GetVerdict(create), Verdict::Clean)
        << "Persistence has score 0, DefenseEvasion is off";
    EXPECT_TRUE(TagsOf(10).empty());
    EXPECT_TRUE(TagsOf(12).empty());
}

TEST_F(TaggingEngineTest, NewProcessesInheritAndNewTagsSpreadToChildrenAndSiblings)
{
    ASSERT_TRUE(m_engine.ApplySettings(
        AllTags(100, 5, "CredentialAccess", R"({"score": 7, "exclusions": ["^/usr/bin/vim$"]})")));
    // bash 20 (under 10) with children 30 and the excluded vim 31, and its
    // sibling 21.
    Add(10, 1, "/usr/sbin/sshd");
    Add(20, 10, "/bin/zsh");
    Add(21, 10, "/bin/ls");
    Add(30, 20, "/bin/ls");
    Add(31, 20, "/usr/bin/vim");
    ASSERT_TRUE(m_tree->AddTag(30, "CredentialAccess", 9));

    test::LogCapture log(common::Logging::Edr());
    EXPECT_EQ(Read(20, "/etc/shadow"), Verdict::Clean);
    EXPECT_TRUE(log.Contains("Applying tag 'CredentialAccess' to child processes"));
    EXPECT_TRUE(log.Contains("Applying tag 'CredentialAccess' to sibling processes"));
    EXPECT_TRUE(
        log.Contains("Adding tag 'CredentialAccess' to process (ls (21) from related process (zsh (20))"));
    EXPECT_THAT(TagsOf(21), ElementsAre(Pair("CredentialAccess", 7))) << "the receiver's score grows";
    EXPECT_THAT(TagsOf(30), ElementsAre(Pair("CredentialAccess", 9))) << "a carried tag keeps its score";
    EXPECT_TRUE(TagsOf(31).empty()) << "an excluded process receives nothing";
    EXPECT_TRUE(TagsOf(10).empty()) << "the parent is not related this way";

    // A new child of 20 starts with its parent's tags, a new child of 10
    // with its siblings'.
    Add(32, 20, "/bin/cat");
    EXPECT_EQ(Running(32, 20), Verdict::Clean);
    EXPECT_THAT(TagsOf(32), ElementsAre(Pair("CredentialAccess", 7)));
    EXPECT_TRUE(
        log.Contains("Adding tag 'CredentialAccess' to process (cat (32) from parent process (zsh (20))"));
    Add(22, 10, "/bin/cat");
    EXPECT_EQ(Running(22, 10), Verdict::Clean);
    EXPECT_THAT(TagsOf(22), ElementsAre(Pair("CredentialAccess", 7)));
    EXPECT_TRUE(log.Contains(") from sibling process ("));
}

TEST_F(TaggingEngineTest, AChildOfAnExecutionProcessStartsWithExecution)
{
    ASSERT_TRUE(m_engine.ApplySettings(AllTags(10, 5)));
    Add(40, 1, "/bin/bash");
    Add(41, 1, "/bin/bash");
    EXPECT_EQ(Running(40, 1, {"bash", "--rcfile", "/home/al/rc"}), Verdict::Clean);
    EXPECT_THAT(TagsOf(40), ElementsAre(Pair("Execution", 5)));
    EXPECT_TRUE(TagsOf(41).empty()) << "processes under init are not siblings for tags";

    Add(42, 40, "/bin/ls");
    EXPECT_EQ(Running(42, 40, {"ls"}), Verdict::Clean);
    EXPECT_THAT(TagsOf(42), ElementsAre(Pair("Execution", 5)));
}

TEST_F(TaggingEngineTest, OnlyTacticTagsCountTowardsTheScore)
{
    ASSERT_TRUE(m_engine.ApplySettings(AllTags(10, 5)));
    Add(10, 1, "/usr/bin/vim");
    ASSERT_TRUE(m_tree->AddTag(10, TtlProcessTree::kExcluded, 50));
    ASSERT_TRUE(m_tree->AddTag(10, TtlProcessTree::kReported, 50));
    EXPECT_EQ(Read(10, "/etc/motd"), Verdict::Clean);

    test::ExpectThrowText<ioc::TtlProcessTreeException>([&] { Read(99, "/etc/motd"); },
                                                        "ProcessInfo for pid 99 does not exist");
}

} // namespace
