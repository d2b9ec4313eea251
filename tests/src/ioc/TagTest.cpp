// The tactic tags on their own: which events each one applies to under its
// default patterns (oddities included), and how one tag takes, refuses or
// falls back from its settings.

#include "ioc/CredentialAccessTag.h"
#include "ioc/DefenseEvasionTag.h"
#include "ioc/ExecutionTag.h"
#include "ioc/ExfiltrationTag.h"
#include "ioc/PersistenceTag.h"
#include "ioc/PrivilegeEscalationTag.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/src/ioc/IocTestJson.h"
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
using ioc::internal::DefenseEvasionTag;
using ioc::internal::Tag;
using ioc::test::IocTestEvent;
using ioc::test::Json;
using testing::ElementsAre;

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

} // namespace
