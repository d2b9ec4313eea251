#include "ioc/FileRule.h"
#include "ioc/GlobalCriteria.h"
#include "ioc/NetworkRule.h"
#include "ioc/ProcessRule.h"
#include "ioc/WhitelistGlobalRule.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/src/ioc/IocTestJson.h"
#include "tests/support/LogCapture.h"

#include "common/Logging.h"
#include "common/util/Json.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <memory>

using namespace vantor;
using edr::EventType;
using ioc::internal::FileRule;
using ioc::internal::NetworkRule;
using ioc::internal::ProcessRule;
using ioc::internal::WhitelistGlobalRule;
using ioc::test::FileEvent;
using ioc::test::IocTestEvent;
using ioc::test::Json;
using ioc::test::NetworkEvent;
using ioc::test::ProcessEvent;

namespace
{

FileRule Directory(const std::string& members, uint64_t maxSize = 1024)
{
    return FileRule(Json(R"({"ruleId": "d", "ruleType": "Directory", "path": "/data", )" + members + "}"),
                    maxSize);
}

NetworkRule Network(const std::string& inclusion)
{
    return NetworkRule(Json(R"({"ruleId": "n", "notify": ["establish", "listen"], "inclusionFilters": [)"
                            R"({"filterType": [{"objectType": "network", "protocol": "any", )" +
                            inclusion + "}]}]}"));
}

} // namespace

TEST(IocMatchTest, TheEventMustConcernTheRulePathAndOneOfItsActions)
{
    const auto rule = Directory(R"("notify": ["write", "rename"])");
    EXPECT_TRUE(rule.Matches(FileEvent(EventType::Write, "/data/a/b.txt")));
    EXPECT_TRUE(rule.Matches(FileEvent(EventType::Write, "/data")));
    EXPECT_FALSE(rule.Matches(FileEvent(EventType::Write, "/database/b.txt")))
        << "a sibling with the same prefix";
    EXPECT_FALSE(rule.Matches(FileEvent(EventType::Write, "/etc/b.txt")));
    test::LogCapture log(common::Logging::Edr());
    EXPECT_FALSE(rule.Matches(FileEvent(EventType::Delete, "/data/b.txt")));
    EXPECT_TRUE(log.Contains("Event action not found in file notify actions"));

    auto moved = FileEvent(EventType::Rename, "/tmp/x");
    moved.newFile = "/data/x";
    EXPECT_TRUE(rule.Matches(moved)) << "moved into the watched directory";

    const FileRule file(
        Json(R"({"ruleId": "f", "ruleType": "File", "path": "/etc/shadow", "notify": ["write"]})"), 10);
    EXPECT_TRUE(file.Matches(FileEvent(EventType::Write, "/etc/shadow")));
    EXPECT_FALSE(file.Matches(FileEvent(EventType::Write, "/etc/shadow/x")))
        << "a file rule covers its file only";
}

TEST(IocMatchTest, DirectoriesThemselvesNeedTheDirectoryWords)
{
    auto subdirectory = FileEvent(EventType::Create, "/data/new");
    subdirectory.fileType = S_IFDIR;
    test::LogCapture log(common::Logging::Edr());
    EXPECT_FALSE(Directory(R"("notify": ["create"])").Matches(subdirectory));
    EXPECT_TRUE(log.Contains("Dropping directory create event"));
    EXPECT_TRUE(Directory(R"("notify": ["create"])").Matches(FileEvent(EventType::Create, "/data/file")));
    EXPECT_TRUE(Directory(R"("notify": ["directoryCreate"])").Matches(subdirectory));
    EXPECT_FALSE(
        Directory(R"("notify": ["directoryCreate"])").Matches(FileEvent(EventType::Create, "/data/file")));

    subdirectory.type = EventType::Attribute;
    EXPECT_FALSE(Directory(R"("notify": ["directoryCreate"])").Matches(subdirectory));
    EXPECT_TRUE(log.Contains("Event action not found in directory notify actions"));
}

TEST(IocMatchTest, AnExclusionWinsOverAnInclusionAndWithoutInclusionsNoExclusionMeansAMatch)
{
    const auto rule = Directory(R"("notify": ["write"],
        "exclusionFilters": [{"filterType": [{"objectType": "file", "patterns": ["*.log"]}]}],
        "inclusionFilters": [{"filterType": [{"objectType": "directory", "patterns": ["/data/*"]}]}])");
    EXPECT_TRUE(rule.Matches(FileEvent(EventType::Write, "/data/report.txt")));
    test::LogCapture log(common::Logging::Edr());
    EXPECT_FALSE(rule.Matches(FileEvent(EventType::Write, "/data/app.log")));
    EXPECT_TRUE(log.Contains("Exclusion criteria matched"));
    EXPECT_FALSE(log.Contains("Inclusion criteria matched"));

    // Without inclusions, every notified event no exclusion catches matches.
    const auto noInclusions = Directory(R"("notify": ["write", "create"],
        "exclusionFilters": [{"filterType": [{"objectType": "user", "patterns": ["backup*"]}]}])");
    auto event = FileEvent(EventType::Create, "/data/x");
    EXPECT_TRUE(noInclusions.Matches(event));
    event.user = "backup-agent";
    EXPECT_FALSE(noInclusions.Matches(event));
    event.user.reset(); // an event without a user name cannot be excluded by one
    EXPECT_TRUE(noInclusions.Matches(event));
}

TEST(IocMatchTest, AnInclusionGroupNeedsAllItsFiltersAndAnyGroupWillDo)
{
    const auto rule = Directory(R"("notify": ["write"], "inclusionFilters": [
        {"filterType": [{"objectType": "process", "actorProcess": ["/usr/bin/vi*"]},
                        {"objectType": "directory", "patterns": ["/data/conf/*"]}]},
        {"filterType": [{"objectType": "file", "patterns": ["*.sh"]}]}])");
    auto event = FileEvent(EventType::Write, "/data/conf/app.ini");
    event.image = "/usr/bin/vim";
    EXPECT_TRUE(rule.Matches(event));
    event.image = "/usr/bin/nano";
    EXPECT_FALSE(rule.Matches(event)) << "one filter of the group fails";
    event.file = "/data/run.sh";
    EXPECT_TRUE(rule.Matches(event)) << "the second group";
    event.file = "/data/other/app.ini";
    event.image = "/usr/bin/vim";
    EXPECT_FALSE(rule.Matches(event));
}

TEST(IocMatchTest, OnlyFilesThatMayBeTypedMatchAFileTypeFilter)
{
    const auto rule =
        Directory(R"("notify": ["create", "write"], "fileTypeToInclude": [{"patterns": ["ELF*"]}])", 100);
    auto event = FileEvent(EventType::Write, "/data/payload");
    event.fileTypeDesc = "ELF 64-bit LSB executable, x86-64";
    EXPECT_TRUE(rule.Matches(event));

    test::LogCapture log(common::Logging::Edr());
    event.fileSize = 0;
    EXPECT_FALSE(rule.Matches(event)) << "a zero-byte file has no type";
    EXPECT_TRUE(log.Contains("Skipping the file with size 0B"));
    EXPECT_TRUE(log.Contains("Cannot match FileType criteria: Missing file type information"));

    event.fileSize = 101;
    EXPECT_FALSE(rule.Matches(event));
    EXPECT_TRUE(log.Contains(" File size for/data/payload is more than max limit. Skipping it"));
    event.fileSize = 100;
    EXPECT_TRUE(rule.Matches(event)) << "the limit itself is allowed";

    event.fileSize.reset();
    EXPECT_FALSE(rule.Matches(event));
    EXPECT_TRUE(log.Contains("Failed to load file for finding file size: /data/payload"));

    event.fileSize = 50;
    event.fileType = S_IFIFO;
    EXPECT_FALSE(rule.Matches(event));
    EXPECT_TRUE(log.Contains("File is not regular or symlink. Skipping file type: /data/payload"));
    event.fileType = S_IFLNK;
    EXPECT_TRUE(rule.Matches(event));

    event.fileTypeDesc = "ASCII text";
    EXPECT_FALSE(rule.Matches(event));
    event.fileTypeDesc.reset();
    EXPECT_FALSE(rule.Matches(event));
}

TEST(IocMatchTest, PortsAndAddressesAreMatchedOnTheSideTheEventCarries)
{
    const auto remote443 = Network(R"("remotePort": [{"number": 443}])");
    const auto local443 = Network(R"("localPort": [{"number": 443}])");
    EXPECT_TRUE(remote443.Matches(NetworkEvent(EventType::Connect, "127.0.0.1", 443)));
    EXPECT_TRUE(remote443.Matches(NetworkEvent(EventType::Accept, "10.1.1.1", 443)));
    EXPECT_FALSE(remote443.Matches(NetworkEvent(EventType::Connect, "127.0.0.1", 444)));
    EXPECT_FALSE(local443.Matches(NetworkEvent(EventType::Connect, "127.0.0.1", 443)))
        << "a connect carries no local port";
    EXPECT_TRUE(local443.Matches(NetworkEvent(EventType::Bind, "0.0.0.0", 443)));
    EXPECT_FALSE(remote443.Matches(NetworkEvent(EventType::Bind, "0.0.0.0", 443)));

    const auto range = Network(R"("remotePort": [{"range": [8000, 8100]}, {"number": 22}])");
    for (const uint16_t port : {8000, 8050, 8100, 22})
    {
        EXPECT_TRUE(range.Matches(NetworkEvent(EventType::Connect, "10.0.0.1", port))) << port;
    }
    for (const uint16_t port : {7999, 8101, 23})
    {
        EXPECT_FALSE(range.Matches(NetworkEvent(EventType::Connect, "10.0.0.1", port))) << port;
    }

    const auto addresses =
        Network(R"("remoteIPAddress": ["10\\.0\\..*", "::1"], "remotePort": [{"number": 22}])");
    EXPECT_TRUE(addresses.Matches(NetworkEvent(EventType::Connect, "10.0.3.4", 22)));
    EXPECT_TRUE(addresses.Matches(NetworkEvent(EventType::Connect, "::1", 22)));
    EXPECT_FALSE(addresses.Matches(NetworkEvent(EventType::Connect, "110.0.3.4", 22)))
        << "whole-address match";
    EXPECT_FALSE(addresses.Matches(NetworkEvent(EventType::Connect, "10.0.3.4", 23))) << "both conditions";

    auto noAddress = NetworkEvent(EventType::Connect, "", 0);
    noAddress.address.reset();
    EXPECT_FALSE(addresses.Matches(noAddress));
    EXPECT_FALSE(remote443.Matches(FileEvent(EventType::Write, "/data/x"))) << "not a network action";
}

TEST(IocMatchTest, ProcessRulesMatchTheirActionsActorsAndRunningParents)
{
    const ProcessRule rule(Json(R"({"ruleId": "p", "notify": ["start", "abnormalEnd"],
        "inclusionFilters": [{"filterType": [{"objectType": "process", "actorProcess": ["/usr/bin/*"]}]}]})"));
    EXPECT_TRUE(rule.Matches(ProcessEvent(EventType::Running, "/usr/bin/curl")));
    EXPECT_TRUE(rule.Matches(ProcessEvent(EventType::AbnormalEnd, "/usr/bin/curl")));
    EXPECT_FALSE(rule.Matches(ProcessEvent(EventType::Running, "/opt/tool")));
    test::LogCapture log(common::Logging::Edr());
    EXPECT_FALSE(rule.Matches(ProcessEvent(EventType::Exit, "/usr/bin/curl")));
    EXPECT_TRUE(log.Contains("Event action not found in process notify actions"));

    // Parent processes are matched by their running executable.
    const std::string self = ioc::internal::GlobalCriteria::ProcessImage(::getpid()).value_or("");
    ASSERT_FALSE(self.empty());
    const auto parentRule = [](const std::string& pattern)
    {
        return ProcessRule(
            Json(R"({"ruleId": "p", "notify": ["start"], "inclusionFilters": [{"filterType": [)"
                 R"({"objectType": "parentProcess", "parentProcess": [")" +
                 pattern + R"("]}]}]})"));
    };
    auto child = ProcessEvent(EventType::Running, "/usr/bin/true");
    child.ppid = ::getpid();
    EXPECT_TRUE(parentRule(".*/" + self.substr(self.rfind('/') + 1)).Matches(child));
    EXPECT_FALSE(parentRule("/usr/sbin/cron").Matches(child));
    child.ppid = 0;
    EXPECT_FALSE(parentRule(".*").Matches(child)) << "no parent";
}

TEST(IocMatchTest, TheWhitelistCoversItsProcessesWhereAnExclusionMatches)
{
    const WhitelistGlobalRule rule(Json(R"({"ruleId": "w", "ruleType": "EDR", "ruleClass": "WhitelistGlobal",
        "applyTo": ["/usr/bin/dpkg", "/usr/bin/apt.*"],
        "exclusionFilters": [{"filterType": [{"objectType": "directory", "patterns": ["/var/lib/dpkg/*"]}]}]})"));
    auto event = FileEvent(EventType::Write, "/var/lib/dpkg/status");
    event.image = "/usr/bin/dpkg";
    EXPECT_TRUE(rule.Matches(event));
    event.image = "/usr/bin/apt-get";
    EXPECT_TRUE(rule.Matches(event));
    event.image = "/usr/bin/vim";
    EXPECT_FALSE(rule.Matches(event)) << "not a process it applies to";
    event.image = "/usr/bin/dpkg";
    event.file = "/etc/passwd";
    EXPECT_FALSE(rule.Matches(event)) << "no exclusion matches";

    const WhitelistGlobalRule everyone(
        Json(R"({"ruleId": "w2", "ruleClass": "WhitelistGlobal", "exclusionFilters": [{"filterType": [)"
             R"({"objectType": "file", "patterns": ["/etc/passwd"]}]}]})"));
    event.image = "/usr/bin/vim";
    EXPECT_TRUE(everyone.Matches(event)) << "without applyTo it applies to every process";
}
