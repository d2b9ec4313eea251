#include "ioc/Manifest.h"

#include "common/Logging.h"
#include "common/util/Json.h"
#include "ioc/EventRuleException.h"
#include "ioc/FileRule.h"
#include "ioc/ManifestException.h"
#include "ioc/NetworkRule.h"
#include "ioc/ProcessRule.h"
#include "ioc/WhitelistGlobalRule.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <utility>

namespace vantor::ioc::internal
{

namespace
{

std::string ToText(const rapidjson::Value& value)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

const rapidjson::Value& Mandatory(const rapidjson::Value& document, const char* name, bool object)
{
    const auto it = document.FindMember(name);
    if (it == document.MemberEnd() || (object ? !it->value.IsObject() : !it->value.IsString()))
    {
        throw ManifestException(std::string("Missing mandatory element: ") + name);
    }
    return it->value;
}

// (major, minor) as the version check reads them.
std::pair<int, int> SplitVersion(const std::string& version)
{
    const auto dot = version.find('.');
    const int major = dot == std::string::npos ? 0 : std::stoi(version.substr(0, dot));
    const int minor = std::stoi(version.substr(dot == std::string::npos ? 0 : dot + 1));
    return {major, minor};
}

} // namespace

Manifest Manifest::Parse(std::string_view text)
{
    EDR_LOG_INFO("Reading Manifest");
    rapidjson::Document document;
    if (!util::ParseJson(document, text) || !document.IsObject())
    {
        throw ManifestException("Parsing failed. Manifest is not a JSON object");
    }
    Manifest manifest;
    manifest.policyVersion = Mandatory(document, "policyVersion", false).GetString();
    manifest.policyId = Mandatory(document, "policyId", false).GetString();
    manifest.productId = Mandatory(document, "productId", false).GetString();
    const auto& settings = Mandatory(document, "globalSettings", true);

    CheckVersion(manifest.policyVersion);
    manifest.ReadGlobalSettings(settings);

    const auto rules = document.FindMember("rules");
    if (rules == document.MemberEnd() || !rules->value.IsArray())
    {
        throw ManifestException("Parsing failed. 'rules' section is not an array.");
    }
    manifest.ReadRules(rules->value);

    const auto heuristics = document.FindMember("heuristicsEnabled");
    if (heuristics != document.MemberEnd() && heuristics->value.IsBool())
    {
        manifest.heuristicsEnabled = heuristics->value.IsTrue();
    }
    return manifest;
}

void Manifest::CheckVersion(const std::string& version)
{
    std::pair<int, int> supported;
    std::pair<int, int> given;
    try
    {
        supported = SplitVersion(kSupportedVersion);
        given = SplitVersion(version);
    }
    catch (const std::exception& e)
    {
        const std::string message =
            std::string("Exception in converting manifest policyVersion to integer, error: ") + e.what();
        EDR_LOG_ERROR("\"" << message << "\"");
        throw ManifestException(message);
    }
    if (supported.second > given.second)
    {
        EDR_LOG_ERROR("Manifest version not supported. Supported version: "
                      << kSupportedVersion << ", Provided manifest version: " << version);
        throw ManifestException("Parsing failed. Unsupported manifest version provided");
    }
}

void Manifest::ReadGlobalSettings(const rapidjson::Value& settings)
{
    const auto gateway = settings.FindMember("gateway_url");
    if (gateway != settings.MemberEnd() && gateway->value.IsString() && gateway->value.GetStringLength() > 0)
    {
        gatewayUrl.emplace(gateway->value.GetString(), gateway->value.GetStringLength());
    }
    const auto maxSize = settings.FindMember("maxFileSizeToProcess");
    if (maxSize != settings.MemberEnd())
    {
        if (maxSize->value.IsUint64())
        {
            maxFileSizeToProcess = maxSize->value.GetUint64();
        }
        else
        {
            EDR_LOG_ERROR("Invalid value in manifest for maxFileSizeToProcess: expected an unsigned integer");
        }
    }
    const auto metadata = settings.FindMember("sendMetadata");
    if (metadata != settings.MemberEnd())
    {
        if (metadata->value.IsBool())
        {
            sendMetadata = metadata->value.IsTrue();
        }
        else
        {
            EDR_LOG_ERROR("Invalid value in manifest for sendMetadata: expected a bool");
        }
    }
    ReadKnownProcessPaths(settings);
    ReadTags(settings);
    if (!gatewayUrl)
    {
        EDR_LOG_WARNING("Gateway URL is not present in the Manifest");
    }
}

void Manifest::ReadKnownProcessPaths(const rapidjson::Value& settings)
{
    const auto paths = settings.FindMember("knownProcessPaths");
    if (paths == settings.MemberEnd())
    {
        return;
    }
    EDR_LOG_DEBUG("Reading KnownProcessPaths");
    if (!paths->value.IsArray())
    {
        EDR_LOG_ERROR("knownProcessPaths is not an array of string.");
        return;
    }
    for (const auto& path : paths->value.GetArray())
    {
        if (!path.IsString())
        {
            EDR_LOG_ERROR("knownProcessPaths contains non-string value");
            continue;
        }
        knownProcessPaths.emplace_back(path.GetString(), path.GetStringLength());
    }
}

void Manifest::ReadTags(const rapidjson::Value& settings)
{
    const auto tagSettings = settings.FindMember("tags");
    if (tagSettings == settings.MemberEnd())
    {
        EDR_LOG_INFO("Tagging is disabled.");
        return;
    }
    EDR_LOG_DEBUG("Reading tagging settings");
    if (!tagSettings->value.IsObject())
    {
        EDR_LOG_ERROR("Invalid value in manifest for tags: expected an object");
        EDR_LOG_INFO("Tagging is disabled.");
        return;
    }
    tags = ToText(tagSettings->value);
    // Only a threshold that can be reached switches tagging on.
    const auto threshold = tagSettings->value.FindMember("thresholdScore");
    taggingEnabled = threshold != tagSettings->value.MemberEnd() && threshold->value.IsUint64() &&
                     threshold->value.GetUint64() > 0;
    if (!taggingEnabled)
    {
        EDR_LOG_INFO("Tagging is disabled.");
    }
}

void Manifest::ReadRules(const rapidjson::Value& ruleList)
{
    const uint64_t maxSize = maxFileSizeToProcess.value_or(kDefaultMaxFileSizeToProcess);
    for (const auto& json : ruleList.GetArray())
    {
        EDR_LOG_DEBUG("Parsing Rule: " << ToText(json));
        if (!json.IsObject() || !json.HasMember("ruleType") || !json["ruleType"].IsString())
        {
            throw ManifestException("Parsing failed. 'rule' section does not contain ruleType as string");
        }
        const std::string type(util::GetString(json, "ruleType"));
        try
        {
            if (type == "File" || type == "Directory")
            {
                rules.push_back(std::make_shared<FileRule>(json, maxSize));
            }
            else if (type == "Process")
            {
                rules.push_back(std::make_shared<ProcessRule>(json));
            }
            else if (type == "Network")
            {
                rules.push_back(std::make_shared<NetworkRule>(json));
            }
            else if (type == "EDR")
            {
                rules.push_back(std::make_shared<WhitelistGlobalRule>(json));
            }
            else
            {
                EDR_LOG_WARNING(type << " ruleType is not supported in edr");
            }
        }
        catch (const EventRuleException& e)
        {
            EDR_LOG_ERROR("Rule parsing failed: " << e.what());
        }
    }
}

} // namespace vantor::ioc::internal
