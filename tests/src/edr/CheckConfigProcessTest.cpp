// corvid-outpost --check-config: the shipped sample files load; each broken
// file is named with the daemon's own text for it, every error of a run is
// printed (not only the first), and the exit status says whether all load.

#include "tests/support/DaemonHarness.h"
#include "tests/support/TempDir.h"

#include "common/util/Json.h"

#include <gtest/gtest.h>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>
#include <cstdio>
#include <functional>
#include <sys/wait.h>

namespace vantor::edr
{
namespace
{

std::string Text(const rapidjson::Document& document)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    document.Accept(writer);
    return buffer.GetString();
}

rapidjson::Document Sample(const char* name)
{
    rapidjson::Document document;
    EXPECT_TRUE(util::ParseJson(document, test::ReadText(std::string(CORVID_SOURCE_DIR "/config/") + name)));
    return document;
}

// The sample files, pointed at one another in a directory of the test.
struct Files
{
    rapidjson::Document config = Sample("corvid-edr.json");
    rapidjson::Document fim = Sample("fim_manifest.json");
    rapidjson::Document ioc = Sample("ioc_manifest.json");
    std::string logging = test::ReadText(CORVID_SOURCE_DIR "/config/logging.properties");
    bool writeLogging = true;
};

struct ToolRun
{
    int status = -1;
    std::string output;
};

ToolRun CheckConfig(const std::string& file)
{
    ToolRun run;
    const std::string command = CORVID_BINARY_DIR "/corvid-outpost --check-config '" + file + "' 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr)
    {
        return run;
    }
    std::array<char, 4096> buffer{};
    size_t n = 0;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
    {
        run.output.append(buffer.data(), n);
    }
    const int status = ::pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

struct Case
{
    const char* name;
    std::function<void(Files&)> change;
    // Lines "error: <file>: <text>" expected, by file name in the directory
    // and the text's beginning.
    std::vector<std::pair<const char*, const char*>> errors;
};

TEST(CheckConfigProcessTest, PrintsEveryErrorWithTheDaemonsText)
{
    const Case cases[] = {
        {"SamplesLoad", {}, {}},
        {"EveryBrokenFileIsNamed",
         [](Files& f)
         {
             f.config["edr_config"]["cpu_limit"].SetDouble(50.5);
             f.config["common_config"].RemoveMember("use_sudo");
             test::SetString(f.fim, f.fim["data"]["fim"], "policyVersion", "2.0");
             test::SetString(f.ioc, f.ioc, "policyVersion", "2.x");
         },
         {{"corvid-edr.json", "EDR::Config: Invalid json"},
          {"corvid-edr.json", "CommonConfig: Invalid json"},
          {"fim_manifest.json", "Unknown version [2.0] of FIM manifest. Skipping."},
          {"ioc_manifest.json", "Exception in converting manifest policyVersion to integer, error: "}}},
        {"LimitsAboveAHundredPercent",
         [](Files& f) { f.config["edr_config"]["memory_limit"].SetUint(101); },
         {{"corvid-edr.json", "Memory usage threshold percentage cannot be greater than 100%"}}},
        {"ARuleTheDaemonWouldSkip",
         [](Files& f)
         {
             auto& notify = f.fim["data"]["fim"]["rules"][0]["notify"];
             notify.PushBack(rapidjson::Value("sometimes"), f.fim.GetAllocator());
         },
         {{"fim_manifest.json", "Rule parsing failed: Invalid Notify Flag"}}},
        {"NoLoggingConfiguration",
         [](Files& f) { f.writeLogging = false; },
         {{"logging.properties", "Error:corvid-edr:log config is invalid."}}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        const test::TempDir dir;
        Files files;
        auto& common = files.config["common_config"];
        test::SetString(files.config, common, "log_config_file", dir.File("logging.properties"));
        test::SetString(files.config, common, "agent_install_path", dir.Path());
        test::SetString(files.config, files.config["fim_config"], "manifest_path",
                        dir.File("fim_manifest.json"));
        test::SetString(files.config, files.config["ioc_config"]["manifests"][0], "manifest_path",
                        dir.File("ioc_manifest.json"));
        const std::string shippedLog = "/var/log/corvid/edr.log";
        files.logging.replace(files.logging.find(shippedLog), shippedLog.size(), dir.File("log/edr.log"));
        if (c.change)
        {
            c.change(files);
        }
        dir.Write("corvid-edr.json", Text(files.config));
        dir.Write("fim_manifest.json", Text(files.fim));
        dir.Write("ioc_manifest.json", Text(files.ioc));
        if (files.writeLogging)
        {
            dir.Write("logging.properties", files.logging);
        }

        const ToolRun run = CheckConfig(dir.File("corvid-edr.json"));
        EXPECT_EQ(run.status, c.errors.empty() ? 0 : 1) << run.output;
        for (const auto& [file, text] : c.errors)
        {
            EXPECT_NE(run.output.find("error: " + dir.File(file) + ": " + text), std::string::npos)
                << "missing: " << text << "\n"
                << run.output;
        }
        if (c.errors.empty())
        {
            EXPECT_EQ(run.output.find("error: "), std::string::npos) << run.output;
        }
    }
}

TEST(CheckConfigFileTest, AnUnreadableConfigurationIsTheOneError)
{
    const test::TempDir dir;
    const ToolRun run = CheckConfig(dir.File("absent.json"));
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("error: " + dir.File("absent.json") +
                              ": Failed to read config file: " + dir.File("absent.json")),
              std::string::npos)
        << run.output;
}

// Writing a parsed value out again recurses once per level: a file nested
// deeper than any real one is refused as it is read, never a stack overflow.
TEST(CheckConfigFileTest, FilesNestedTooDeeplyAreRefusedWithoutACrash)
{
    const test::TempDir dir;
    const std::string deep = std::string(200000, '[') + std::string(200000, ']');
    dir.Write("corvid-edr.json", R"({"fim_config": {"manifests": )" + deep + "}}");
    const ToolRun run = CheckConfig(dir.File("corvid-edr.json"));
    EXPECT_EQ(run.status, 1) << run.output;
    EXPECT_NE(run.output.find("error: " + dir.File("corvid-edr.json")), std::string::npos) << run.output;
}

} // namespace
} // namespace vantor::edr
