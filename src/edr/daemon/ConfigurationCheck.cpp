#include "edr/daemon/ConfigurationCheck.h"

#include "common/HmacRequestSigner.h"
#include "common/Logging.h"
#include "common/util/Json.h"
#include "edr/CommonConfig.h"
#include "edr/Config.h"
#include "edr/ResourceMonitor.h"
#include "edr/daemon/ConfigurationFile.h"
#include "fim/Config.h"
#include "fim/EventRuleManager.h"
#include "fim/ManifestException.h"
#include "ioc/Config.h"
#include "ioc/Manifest.h"
#include "ioc/ManifestException.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Exception.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>

namespace vantor::edr
{

namespace
{

using Findings = std::vector<ConfigurationCheck::Finding>;

// Keeps what the parsers log at warning level and above while they run:
// the rules they skip are reported only there.
class FindingChannel : public Poco::Channel
{
public:
    FindingChannel(Findings& findings, std::string file)
        : m_findings(findings)
        , m_file(std::move(file))
    {
    }

    void log(const Poco::Message& message) override
    {
        std::string text = message.getText();
        // Lines start with the thread tag "[<id>]:".
        if (const auto end = text.find("]:"); !text.empty() && text[0] == '[' && end != std::string::npos)
        {
            text.erase(0, end + 2);
        }
        m_findings.push_back({message.getPriority() <= Poco::Message::PRIO_ERROR, m_file, std::move(text)});
    }

private:
    Findings& m_findings;
    const std::string m_file;
};

// Routes the daemon's logger into the findings of one file while it lives.
class LoggedFindings
{
public:
    LoggedFindings(Findings& findings, const std::string& file)
        : m_logger(common::Logging::Edr())
        , m_previousChannel(m_logger.getChannel(), true)
        , m_previousLevel(m_logger.getLevel())
    {
        m_logger.setChannel(new FindingChannel(findings, file));
        m_logger.setLevel(Poco::Message::PRIO_WARNING);
    }
    ~LoggedFindings()
    {
        m_logger.setChannel(m_previousChannel);
        m_logger.setLevel(m_previousLevel);
    }
    LoggedFindings(const LoggedFindings&) = delete;
    LoggedFindings& operator=(const LoggedFindings&) = delete;

private:
    Poco::Logger& m_logger;
    Poco::AutoPtr<Poco::Channel> m_previousChannel;
    int m_previousLevel;
};

// Runs one parser; a thrown text is an error of the file.
void Parse(Findings& findings, const std::string& file, const std::function<void()>& parse)
{
    try
    {
        parse();
    }
    catch (const std::exception& e)
    {
        findings.push_back({true, file, e.what()});
    }
}

void CheckFimManifest(Findings& findings, const std::string& path)
{
    std::string text;
    rapidjson::Document document;
    if (!util::ReadFile(path, text))
    {
        findings.push_back({true, path, "Failed to read manifest: " + path});
    }
    else if (!util::ParseJson(document, text))
    {
        findings.push_back({true, path, "Invalid manifest json format for: " + path});
    }
    else
    {
        const LoggedFindings logged(findings, path);
        Parse(findings, path, [&] { fim::internal::EventRuleManager::ParseManifest(document, path); });
    }
}

void CheckIocManifest(Findings& findings, const std::string& path)
{
    std::string text;
    if (!util::ReadFile(path, text))
    {
        findings.push_back({true, path, "Failed to read manifest file: " + path});
        return;
    }
    const LoggedFindings logged(findings, path);
    Parse(findings, path, [&] { ioc::internal::Manifest::Parse(text); });
}

void CheckLogging(Findings& findings, const std::string& path)
{
    try
    {
        common::Logging::Initialize(path);
    }
    catch (const Poco::Exception& e)
    {
        findings.push_back({true, path, "Error:corvid-edr:log config is invalid. (" + e.displayText() + ")"});
    }
    catch (const std::logic_error&)
    {
        // Set up already in this process: nothing to learn from a second try.
    }
}

} // namespace

std::vector<ConfigurationCheck::Finding> ConfigurationCheck::Run(const std::string& configFile)
{
    Findings findings;
    ConfigurationFile file;
    switch (file.Load(configFile))
    {
    case ConfigurationFile::Status::Unreadable:
        return {{true, configFile, "Failed to read config file: " + configFile}};
    case ConfigurationFile::Status::Invalid:
        return {{true, configFile, "Invalid configuration file."}};
    case ConfigurationFile::Status::Ok:
        break;
    }
    const auto& root = file.Root();
    // Each section on its own, so that every broken one is named.
    for (const char* section : {"common_config", "fim_config", "ioc_config", "edr_config"})
    {
        if (!file.HasSections({section}))
        {
            findings.push_back(
                {true, configFile,
                 "Incomplete configuration file " + configFile + " (no object \"" + section + "\")"});
        }
    }
    int32_t outpostPid = 0;
    std::string outpostPath;
    if (!file.ReadOutpost(outpostPid, outpostPath))
    {
        findings.push_back({true, configFile, "Invalid outpost pid and path information"});
    }

    std::unique_ptr<CommonConfig> common;
    std::unique_ptr<fim::Config> fim;
    std::unique_ptr<ioc::Ioc::Config> ioc;
    if (file.HasSections({"common_config"}))
    {
        Parse(findings, configFile, [&] { common = std::make_unique<CommonConfig>(root["common_config"]); });
    }
    if (file.HasSections({"fim_config"}))
    {
        Parse(findings, configFile, [&] { fim = std::make_unique<fim::Config>(root["fim_config"]); });
    }
    if (file.HasSections({"ioc_config"}))
    {
        const LoggedFindings logged(findings, configFile);
        Parse(findings, configFile, [&] { ioc = std::make_unique<ioc::Ioc::Config>(root["ioc_config"]); });
    }
    if (file.HasSections({"edr_config"}))
    {
        Parse(findings, configFile,
              [&]
              {
                  const EDR::Config edr(root["edr_config"]);
                  // The limits are checked when the daemon builds its monitor.
                  ResourceMonitor(edr.CpuLimit(), edr.MemoryLimit());
              });
    }

    if (fim)
    {
        CheckFimManifest(findings, fim->ManifestPath());
    }
    if (ioc)
    {
        for (const auto& manifest : ioc->GetManifests())
        {
            CheckIocManifest(findings, manifest.path);
        }
    }
    if (common)
    {
        try
        {
            common::HmacRequestSigner signer(common->HmacKeyPath());
        }
        catch (const std::runtime_error& e)
        {
            findings.push_back(
                {false, common->HmacKeyPath(), std::string(e.what()) + "; uploads go out unsigned"});
        }
        CheckLogging(findings, common->LogConfigFile());
    }
    return findings;
}

bool ConfigurationCheck::Loads(const std::vector<Finding>& findings)
{
    return std::none_of(findings.begin(), findings.end(), [](const Finding& f) { return f.error; });
}

std::string ConfigurationCheck::Format(const Finding& finding)
{
    return std::string(finding.error ? "error: " : "warning: ") + finding.file + ": " + finding.text;
}

} // namespace vantor::edr
