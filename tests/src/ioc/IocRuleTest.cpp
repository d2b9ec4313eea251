#include "ioc/EventRuleException.h"
#include "ioc/FileRule.h"
#include "ioc/NetworkRule.h"
#include "ioc/ProcessRule.h"
#include "ioc/WhitelistGlobalRule.h"
#include "tests/src/ioc/IocTestJson.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"

#include "common/Logging.h"
#include "common/util/Json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

using namespace vantor;
using ioc::internal::EventRuleException;
using ioc::internal::FileRule;
using ioc::internal::NetworkRule;
using ioc::internal::ProcessRule;
using ioc::internal::Rule;
using ioc::internal::WhitelistGlobalRule;
using ioc::test::Json;
using testing::ElementsAre;

namespace
{

constexpr uint64_t kMaxSize = 1024;

// A rule object of the type with the given members after "ruleId".
std::string RuleText(const std::string& type, const std::string& members)
{
    return R"({"ruleId": "r1", "ruleType": ")" + type + "\"" + (members.empty() ? "" : ", " + members) + "}";
}

std::shared_ptr<Rule> Make(const std::string& type, const std::string& members)
{
    const auto json = Json(RuleText(type, members));
    if (type == "File" || type == "Directory")
    {
        return std::make_shared<FileRule>(json, kMaxSize);
    }
    if (type == "Process")
    {
        return std::make_shared<ProcessRule>(json);
    }
    if (type == "Network")
    {
        return std::make_shared<NetworkRule>(json);
    }
    return std::make_shared<WhitelistGlobalRule>(json);
}

std::string Filters(const std::string& filter)
{
    return R"("notify": ["start"], "exclusionFilters": [{"filterType": [)" + filter + "]}]";
}

std::string NetworkFilter(const std::string& members)
{
    return R"("notify": ["establish"], "inclusionFilters": [{"filterType": [{"objectType": "network", )" +
           members + "}]}]";
}

} // namespace

TEST(IocRuleParseTest, MalformedRulesAreRefusedWithTheirText)
{
    const std::string noNotify = "Invalid rule.No notify action provided for the rule";
    const std::string path = R"("path": "/etc")";
    const std::string fileTypes = R"("path": "/tmp", "notify": ["create"], "fileTypeToInclude": )";
    const std::string whitelist = R"("ruleClass": "WhitelistGlobal", "applyTo": )";
    struct Refusal
    {
        std::string type;
        std::string members;
        std::string text;
    };
    const auto tcp = [](const std::string& members)
    { return NetworkFilter(R"("protocol": "tcp", )" + members); };
    const std::string badPort = "Invalid Port numbers in manifest";
    std::vector<Refusal> cases{
        // Unknown notify words, refused with their class's text; directory
        // words belong to directory rules only.
        {"Process", R"("notify": ["start", "launch"])", "Invalid process action in notify"},
        {"Network", R"("notify": ["connect"])", "Invalid network action in notify"},
        {"File", R"("path": "/etc/passwd", "notify": ["modify"])", "Invalid file action in notify"},
        {"File", R"("path": "/etc/passwd", "notify": ["directoryCreate"])", "Invalid file action in notify"},
        {"Process", R"("notify": [9])", "Invalid process action in notify"},
        // File rules need an absolute path.
        {"File", R"("notify": ["write"])", "Invalid Rule"},
        {"Directory", R"("path": "", "notify": ["write"])", "Invalid Rule"},
        {"Directory", R"("path": "etc", "notify": ["write"])", "Invalid Rule"},
        // Filter groups, member by member.
        {"Process", R"("notify": ["start"], "exclusionFilters": {})", "Not an array of filters"},
        {"Process", R"("notify": ["start"], "inclusionFilters": [{}])",
         "Missing or invalid filter type array"},
        {"Process", R"("notify": ["start"], "inclusionFilters": [{"filterType": []}])",
         "Missing or invalid filter type array"},
        {"Process", Filters(R"({"patterns": ["x"]})"), "Missing or invalid object type in filterType"},
        {"Process", Filters(R"({"objectType": "registryKey", "patterns": ["x"]})"),
         "Unsupported value: registryKey provided in filterType"},
        {"Process", Filters(R"({"objectType": "file"})"), "Missing or invalid patterns in filterType"},
        {"Process", Filters(R"({"objectType": "directory", "patterns": "x"})"),
         "Missing or invalid patterns in filterType"},
        {"Process", Filters(R"({"objectType": "file", "patterns": [""]})"), "Filter pattern cannot be empty"},
        {"Process", Filters(R"({"objectType": "process", "patterns": ["x"]})"),
         "Missing or invalid actorProcess in filterType"},
        {"Process", Filters(R"({"objectType": "parentProcess", "parentProcesses": ["x"]})"),
         "Missing or invalid parentProcesses in filterType"},
        {"Process", Filters(R"({"objectType": "parentProcess", "parentProcess": ["(unclosed"]})"),
         "Invalid pattern provided"},
        {"Process", Filters(R"({"objectType": "user", "patterns": [7]})"),
         "Invalid value for filter patterns"},
        {"Process", Filters(R"({"objectType": "time", "startTime": "22:00:00", "endTime": "06:00:00"})"),
         "Start time cannot be later than End time"},
        // Network filters, member by member.
        {"Network", NetworkFilter(R"("localPort": [{"number": 22}])"),
         "Missing or invalid protocol in filterType"},
        {"Network", NetworkFilter(R"("protocol": "icmp")"), "Unsupported value: icmp provided in filterType"},
        {"Network", tcp(R"("localPort": {"number": 22})"), "Missing or invalid localPort in filterType"},
        {"Network", tcp(R"("remotePort": [22])"), "Missing or invalid remotePort in filterType"},
        {"Network", tcp(R"("localIPAddress": "10.0.0.1")"),
         "Missing or invalid localIPAddress in filterType"},
        {"Network", tcp(R"("remoteIPAddress": ["10.(0"])"),
         "Missing or invalid remoteIPAddress in filterType"},
        {"Network", tcp(R"("remotePort": [{"range": [443, 80]}])"), "Invalid Port Range"},
        {"Network", tcp(R"("remotePort": [{"number": 65536}])"), badPort},
        {"Network", tcp(R"("remotePort": [{"number": -1}])"), badPort},
        {"Network", tcp(R"("remotePort": [{"range": [1]}])"), badPort},
        {"Network", tcp(R"("remotePort": [{}])"), "Empty port object in manifest"},
        // File type filters.
        {"Directory", fileTypes + R"({"patterns": ["ELF*"]})", "Not an array of fileTypeToInclude filters"},
        {"Directory", fileTypes + R"([{"pattern": ["ELF*"]}])", "Failed to parse file type filters"},
        {"Directory", fileTypes + R"(["ELF*"])", "Failed to parse file type filters"},
        {"Directory", fileTypes + R"([{"patterns": [5]}])", "Invalid value for FileType patterns"},
        {"Directory", fileTypes + R"([{"patterns": [""]}])", "FileType Pattern cannot be empty"},
        // Whitelist rules need their class and a valid applyTo.
        {"EDR", R"("ruleClass": "Blacklist")", "Invalid ruleClass for EDR rule type"},
        {"EDR", "", "Invalid ruleClass for EDR rule type"},
        {"EDR", whitelist + R"("/usr/bin/dpkg")", "applyTo is not array"},
        {"EDR", whitelist + R"(["/usr/bin/[dpkg"])", "Invalid pattern provided inside applyTo"},
    };
    for (const char* type : {"File", "Directory", "Process", "Network"})
    {
        for (const std::string notify : {R"(, "notify": [])", "", R"(, "notify": "write")"})
        {
            cases.push_back({type, path + notify, noNotify});
        }
    }
    test::LogCapture log(common::Logging::Edr());
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.type + ": " + c.members);
        test::ExpectThrowText<EventRuleException>([&] { Make(c.type, c.members); }, c.text);
    }
    EXPECT_TRUE(log.Contains("Empty Rule Path for id: r1"));
    test::ExpectThrowText<EventRuleException>([] { FileRule(Json(R"([1])"), kMaxSize); }, "Invalid Rule");
    test::ExpectThrowText<EventRuleException>(
        [] {
            FileRule(Json(R"({"ruleId": 5, "ruleType": "File", "path": "/etc", "notify": ["write"]})"),
                     kMaxSize);
        },
        "Missing or invalid ruleId");
}

TEST(IocRuleParseTest, ValidFiltersAndApplyToAreKept)
{
    // The edges of the valid range and a one-port range are fine.
    EXPECT_NO_THROW(
        Make("Network", NetworkFilter(R"("protocol": "udp", "localPort": [{"range": [0, 65535]}, )"
                                      R"({"range": [80, 80]}, {"number": 0}])")));
    const auto rule = Make("Directory", R"("path": "/tmp", "notify": ["create"], "fileTypeToInclude": )"
                                        R"([{"patterns": ["ELF*"]}, {"patterns": ["*script*", "PE32*"]}])");
    ASSERT_EQ(rule->GetFileTypeFilters().size(), 2u);
    EXPECT_THAT(rule->GetFileTypeFilters()[1].GetPatterns(), ElementsAre("*script*", "PE32*"));
    const auto whitelist = Make("EDR", R"("ruleClass": "WhitelistGlobal", "applyTo": ["/usr/bin/apt.*"])");
    EXPECT_EQ(whitelist->GetApplyTo().Size(), 1u);
    EXPECT_EQ(whitelist->GetType(), 0u) << "never a kernel rule";
}

TEST(IocRuleParseTest, NotifyWordsBecomeTheActionsTheKernelNeeds)
{
    using edr::EventType;
    const auto a = [](EventType type) { return static_cast<edr::EventRule::Action>(type); };

    const auto directory =
        Make("Directory", R"("path": "/var/tmp/", "notify": ["write", "directoryCreate", "read"])");
    EXPECT_EQ(directory->GetType(), edr::EventRule::DirectoryPathRule);
    EXPECT_THAT(directory->GetPaths(), ElementsAre("/var/tmp")) << "trailing slash dropped";
    EXPECT_THAT(directory->GetActions(), ElementsAre(a(EventType::Read), a(EventType::Write)));
    EXPECT_THAT(directory->GetDirectoryActions(), ElementsAre(a(EventType::Create)));

    const auto file = Make("File", R"("path": "/etc/shadow", "notify": ["attribute"])");
    EXPECT_EQ(file->GetType(), edr::EventRule::FilePathRule);
    EXPECT_THAT(file->GetFileActions(), ElementsAre(a(EventType::Attribute)));

    // Abnormal ends need no system call; the rule still asks for them.
    const auto process = Make("Process", R"("notify": ["start", "fork", "exit", "abnormalEnd"])");
    EXPECT_EQ(process->GetType(), edr::EventRule::ProcessRule);
    EXPECT_THAT(process->GetActions(),
                ElementsAre(a(EventType::Running), a(EventType::Clone), a(EventType::Exit)));
    EXPECT_EQ(process->GetProcessActions().count(a(EventType::AbnormalEnd)), 1u);

    const auto network = Make("Network", R"("notify": ["establish", "listen", "close"])");
    EXPECT_THAT(network->GetActions(),
                ElementsAre(a(EventType::Accept), a(EventType::Connect), a(EventType::Bind)));
    const auto closing = Make("Network", R"("notify": ["close"])");
    EXPECT_TRUE(closing->GetActions().empty());
}

TEST(IocRuleParseTest, EveryRuleRefusesWhatItsClassDoesNotOffer)
{
    const std::vector<std::pair<std::function<void()>, std::string>> refusals{
        {[] { Make("File", R"("path": "/etc/passwd", "notify": ["write"])")->GetNetworkActions(); },
         "Function not defined for file rule"},
        {[] { Make("Process", R"("notify": ["start"])")->GetPaths(); },
         "Fetching path not supported for process rule"},
        {[] { Make("Network", R"("notify": ["listen"])")->GetFileActions(); },
         "Fetching File actions for rule that is neither file nor directory"},
        {[] { Make("EDR", R"("ruleClass": "WhitelistGlobal")")->GetActions(); },
         "Function not defined for whitelistglobal EDR rule"}};
    for (const auto& [call, text] : refusals)
    {
        SCOPED_TRACE(text);
        test::ExpectThrowText<EventRuleException>(call, text);
    }
}
