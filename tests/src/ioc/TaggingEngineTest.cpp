#include "ioc/TaggingEngine.h"
#include "ioc/CredentialAccessTag.h"
#include "ioc/DefenseEvasionTag.h"
#include "ioc/ExecutionTag.h"
#include "ioc/ExfiltrationTag.h"
#include "ioc/PersistenceTag.h"
#include "ioc/PrivilegeEscalationTag.h"
#include "ioc/TtlProcessTree.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/src/ioc/IocTestJson.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <functional>
#include <map>
#include <memory>

using namespace vantor;
using edr::EventType;
using ioc::ProcessInfo;
using ioc::TtlProcessTree;
using ioc::Verdict;
using ioc::internal::DefenseEvasionTag;
using ioc::internal::Tag;
using ioc::internal::TaggingEngine;
using ioc::test::IocTestEvent;
using ioc::test::Json;
using testing::ElementsAre;
using testing::Pair;

namespace
{

constexpr pid_t kPid = 7;

std::unique_ptr<Tag> MakeTag(const std::string& name)
{
    using namespace ioc::internal;
    const std::map<std::string, std::function<std::unique_ptr<Tag>()>> makers{
        {"CredentialAccess", [] { return std::make_unique<CredentialAccessTag>(); }},
        {"DefenseEvasion", [] { return std::make_unique<DefenseEvasionTag>(); }},
        {"Execution", [] { return std::make_unique<ExecutionTag>(); }},
        {"Exfiltration", [] { return std::make_unique<ExfiltrationTag>(); }},
        {"Persistence", [] { return std::make_unique<PersistenceTag>(); }},
        {"PrivilegeEscalation", [] { return std::make_unique<PrivilegeEscalationTag>(); }}};
    return makers.at(name)();
}

struct Case
{
    const char* tag;
    EventType type;
    std::string image;
    std::string file;
    bool applies;
    std::string newFile = "";
    std::vector<std::string> arguments = {};
    std::string script = "";
    std::string cwd = "";
};

IocTestEvent EventOf(const Case& c)
{
    IocTestEvent event;
    event.type = c.type;
    event.pid = kPid;
    event.image = c.image;
    event.file = c.file;
    event.newFile = c.newFile;
    event.arguments = c.arguments;
    return event;
}

ProcessInfo ProcessOf(const Case& c)
{
    ProcessInfo process;
    process.pid = kPid;
    process.image.path = c.image;
    process.secondaryImage.path = c.script;
    process.cwd = c.cwd;
    return process;
}

TEST(TagTest, EachTagAppliesToTheEventsItsDefaultPatternsDescribe)
{
    const std::vector<Case> cases{
        {"CredentialAccess", EventType::Read, "/usr/bin/vim", "/etc/shadow", true},
        {"CredentialAccess", EventType::Rename, "/bin/mv", "/etc/shadow", true, "/tmp/s"},
        {"CredentialAccess", EventType::Read, "/usr/bin/less", "/var/log/syslog.1", true},
        // "[ba|z|k|da]sh" is one character before "sh": zsh is a reader, bash
        // is not.
        {"CredentialAccess", EventType::Read, "/bin/zsh", "/etc/shadow", true},
        {"CredentialAccess", EventType::Read, "/bin/bash", "/etc/shadow", false},
        // The unescaped "." before "bash_history" takes any character.
        {"CredentialAccess", EventType::Read, "/bin/cat", "/home/al/.xbash_history", true},
        {"CredentialAccess", EventType::Read, "/usr/bin/vim", "/etc/motd", false},
        {"CredentialAccess", EventType::Connect, "/usr/bin/vim", "/etc/shadow", false},
        {"Execution", EventType::Running, "/usr/bin/python3", "", true, "", {}, "/tmp/x.py"},
        {"Execution", EventType::Running, "/usr/bin/python3", "", true, "", {}, "x.py", "/var/tmp"},
        {"Execution", EventType::Running, "/usr/bin/python3", "", false, "", {}, "/home/al/x.py"},
        {"Execution", EventType::Running, "/bin/bash", "", true, "", {"bash", "--rcfile", "/home/al/rc"}},
        {"Execution", EventType::Running, "/bin/bash", "", true, "", {"bash", "--init-file", "/home/al/rc"}},
        {"Execution", EventType::Running, "/bin/bash", "", false, "", {"bash", "--norc"}},
        {"Execution", EventType::Running, "/usr/bin/vim", "", false, "", {"vim"}, "/tmp/x"},
        {"Execution", EventType::Write, "/usr/bin/python3", "/tmp/x.py", false, "", {}, "/tmp/x.py"},
        {"Exfiltration", EventType::Connect, "/usr/bin/curl", "", true},
        {"Exfiltration", EventType::Running, "/usr/bin/scp", "", true},
        {"Exfiltration", EventType::Running, "/usr/bin/vim", "", false},
        {"Persistence", EventType::Create, "/usr/bin/vim", "/etc/cron.d/job", true},
        {"Persistence", EventType::Write, "/usr/bin/vim", "/home/al/.bashrc", true},
        {"Persistence", EventType::Rename, "/bin/mv", "/tmp/x", true, "/etc/rc.local"},
        {"Persistence", EventType::Rename, "/bin/mv", "/etc/rc.local", false, "/tmp/x"},
        {"Persistence", EventType::Read, "/usr/bin/vim", "/etc/cron.d/job", false},
        {"PrivilegeEscalation", EventType::Read, "/usr/bin/gdb", "/proc/42/mem", true},
        {"PrivilegeEscalation", EventType::Read, "/usr/bin/gdb", "/proc/42/map_files/7f00-7f10", true},
        {"PrivilegeEscalation", EventType::Read, "/usr/bin/gdb", "/proc/7/maps", false},
        {"PrivilegeEscalation", EventType::Read, "/usr/bin/gdb", "/proc/42/status", false},
        {"DefenseEvasion", EventType::Create, "/bin/touch", "/tmp/.hidden", true},
        {"DefenseEvasion", EventType::Create, "/bin/touch", "/tmp/visible", false},
        {"DefenseEvasion", EventType::Create, "/bin/mkdir", "/tmp/..", false},
        {"DefenseEvasion", EventType::Rename, "/bin/mv", "/tmp/a", true, "/tmp/.a"},
        {"DefenseEvasion", EventType::Rename, "/bin/mv", "/tmp/.a", false, "/tmp/.b"},
        {"DefenseEvasion", EventType::Write, "/bin/vi", "/tmp/.hidden", false},
    };
    for (const auto& c : cases)
    {
        const auto tag = MakeTag(c.tag);
        EXPECT_EQ(tag->IsApplicable(EventOf(c), ProcessOf(c)), c.applies)
            << c.tag << " " << c.image << " " << c.file << " " << c.newFile << " " << c.script;
    }
}

TEST(TagTest, AWholeSettingsFailureKeepsThePreviousSettings)
{
    const std::vector<std::pair<std::string, std::string>> cases{
        {R"({})", "Failed to update Exfiltration tag: Score is absent or invalid for Exfiltration tag"},
        {R"({"score": "5"})", "Score is absent or invalid for Exfiltration tag"},
        {R"({"score": -1})", "Score is absent or invalid for Exfiltration tag"},
        {R"({"score": 1, "exclusions": "^/usr/bin/curl$"})",
         "Failed to update Exfiltration tag: Exfiltration tag has invalid exclusions definition"},
    };
    for (const auto& [settings, text] : cases)
    {
        const auto tag = MakeTag("Exfiltration");
        ASSERT_TRUE(tag->ApplySettings(Json(R"({"score": 7, "processRegex": "^/opt/x$"})")));
        test::LogCapture log(common::Logging::Edr());
        EXPECT_FALSE(tag->ApplySettings(Json(settings)));
        EXPECT_TRUE(log.Contains(text)) << settings;
        EXPECT_EQ(tag->Score(), 7) << settings;
        ProcessInfo process;
        process.image.path = "/opt/x";
        EXPECT_TRUE(tag->IsApplicable(IocTestEvent(), process)) << "the previous pattern stays: " << settings;
    }

    const auto tag = MakeTag("Exfiltration");
    ASSERT_TRUE(tag->ApplySettings(Json(R"({"score": 7})")));
    test::LogCapture log(common::Logging::Edr());
    EXPECT_FALSE(tag->ApplySettings(Json("[]")));
    EXPECT_TRUE(log.Contains("Invalid setting json forExfiltration"));
    EXPECT_FALSE(tag->IsEnabled()) << "settings that are no object disable the tag";
}

TEST(TagTest, BadExclusionsAreSkippedAndTheOthersExclude)
{
    const auto tag = MakeTag("CredentialAccess");
    test::LogCapture log(common::Logging::Edr());
    ASSERT_TRUE(tag->ApplySettings(Json(R"({"score": 3, "exclusions": [5, "(", "^/usr/bin/vim$"]})")));
    EXPECT_TRUE(log.Contains("Invalid exclusion at index 0"));
    EXPECT_TRUE(log.Contains("Invalid regex in exclusion at index 1 for CredentialAccess"));
    ProcessInfo vim;
    vim.image.path = "/usr/bin/vim";
    ProcessInfo less;
    less.image.path = "/usr/bin/less";
    EXPECT_TRUE(tag->IsExcluded(vim));
    EXPECT_FALSE(tag->IsExcluded(less));
    EXPECT_EQ(tag->Score(), 3);

    ASSERT_TRUE(tag->ApplySettings(Json(R"({"score": 0})")));
    EXPECT_TRUE(log.Contains("Disabling CredentialAccess tag with score 0"));
    EXPECT_FALSE(tag->IsEnabled());
    EXPECT_FALSE(tag->IsExcluded(vim)) << "new settings without exclusions exclude nothing";
}

TEST(TagTest, APatternSettingReplacesTheDefaultUnlessEmptyOrInvalid)
{
    IocTestEvent shadow = ioc::test::FileEvent(EventType::Read, "/etc/shadow");
    IocTestEvent secret = ioc::test::FileEvent(EventType::Read, "/srv/secret");
    ProcessInfo cat;
    cat.image.path = "/bin/cat";

    const auto tag = MakeTag("CredentialAccess");
    ASSERT_TRUE(tag->ApplySettings(Json(R"({"score": 1, "pathRegex": "^/srv/secret$"})")));
    EXPECT_TRUE(tag->IsApplicable(secret, cat));
    EXPECT_FALSE(tag->IsApplicable(shadow, cat));

    for (const char* bad : {R"("")", R"("(")", "5"})
    {
        test::LogCapture log(common::Logging::Edr());
        ASSERT_TRUE(tag->ApplySettings(Json(std::string(R"({"score": 1, "pathRegex": )") + bad + "}")));
        EXPECT_TRUE(log.Contains("pathRegex is empty or invalid. Using default regex.")) << bad;
        EXPECT_TRUE(tag->IsApplicable(shadow, cat)) << bad;
        EXPECT_FALSE(tag->IsApplicable(secret, cat)) << bad;
    }
}

TEST(TagTest, SuspiciousPermissionsComeFromSettingsOrTheDefaults)
{
    DefenseEvasionTag tag;
    EXPECT_THAT(tag.Permissions(), ElementsAre(04000, 02000, 02));

    test::LogCapture log(common::Logging::Edr());
    ASSERT_TRUE(
        tag.ApplySettings(Json(R"({"score": 1, "permissions": ["4000", 7, "9", "0", "77777", "0777"]})")));
    EXPECT_TRUE(log.Contains("Error reading permission at index 1"));
    for (const char* index : {"2", "3", "4"})
    {
        EXPECT_TRUE(log.Contains(std::string("Invalid permission found at index ") + index)) << index;
    }
    EXPECT_THAT(tag.Permissions(), ElementsAre(04000, 0777));

    ASSERT_TRUE(tag.ApplySettings(Json(R"({"score": 1, "permissions": "4000"})")));
    EXPECT_TRUE(log.Contains(
        "Expected an array of suspicious permissions for DefenseEvasion tag. Using default permissions ..."));
    EXPECT_THAT(tag.Permissions(), ElementsAre(04000, 02000, 02));
}

TEST(TagTest, AnAttributeChangeThatLeavesASuspiciousModeIsDefenseEvasion)
{
    test::TempDir dir;
    ProcessInfo process;
    process.pid = kPid;
    const auto attributeOf = [&](mode_t mode)
    {
        const std::string path = dir.Write("f" + std::to_string(mode), "x");
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return ioc::test::FileEvent(EventType::Attribute, path);
    };

    DefenseEvasionTag tag;
    EXPECT_TRUE(tag.IsApplicable(attributeOf(04755), process)) << "set-user-ID";
    EXPECT_TRUE(tag.IsApplicable(attributeOf(02755), process)) << "set-group-ID";
    EXPECT_TRUE(tag.IsApplicable(attributeOf(0666), process)) << "world-writable";
    EXPECT_FALSE(tag.IsApplicable(attributeOf(0755), process));
    EXPECT_FALSE(tag.IsApplicable(ioc::test::FileEvent(EventType::Attribute, dir.File("gone")), process));

    ASSERT_TRUE(tag.ApplySettings(Json(R"({"score": 1, "permissions": ["0750"]})")));
    EXPECT_TRUE(tag.IsApplicable(attributeOf(0751), process)) << "every bit of an entry is set";
    EXPECT_FALSE(tag.IsApplicable(attributeOf(0740), process));
    EXPECT_FALSE(tag.IsApplicable(attributeOf(04700), process)) << "the settings replace the defaults";
}

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

TEST_F(TaggingEngineTest, AChildOfAnExecutionProcessStartsWithItAndOnlyTacticTagsCount)
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

    // Only tactic tags count towards the score.
    Add(10, 1, "/usr/bin/vim");
    ASSERT_TRUE(m_tree->AddTag(10, TtlProcessTree::kExcluded, 50));
    ASSERT_TRUE(m_tree->AddTag(10, TtlProcessTree::kReported, 50));
    EXPECT_EQ(Read(10, "/etc/motd"), Verdict::Clean);

    test::ExpectThrowText<ioc::TtlProcessTreeException>([&] { Read(99, "/etc/motd"); },
                                                        "ProcessInfo for pid 99 does not exist");
}

} // namespace
