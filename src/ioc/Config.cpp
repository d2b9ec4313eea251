#include "ioc/Config.h"

#include "common/Logging.h"
#include "common/util/Json.h"

#include <stdexcept>

namespace vantor::ioc::Ioc
{

namespace
{

uint64_t GetUnsigned(const rapidjson::Value& json, const char* key)
{
    const auto it = json.FindMember(key);
    return it != json.MemberEnd() && it->value.IsUint64() ? it->value.GetUint64() : 0;
}

std::vector<Config::Manifest> GetManifestList(const rapidjson::Value& json)
{
    std::vector<Config::Manifest> manifests;
    const auto it = json.FindMember("manifests");
    if (it == json.MemberEnd())
    {
        return manifests;
    }
    if (!it->value.IsArray())
    {
        EDR_LOG_ERROR("Ioc::Config: 'manifests' is not an array; no manifest is configured");
        return manifests;
    }
    for (const auto& entry : it->value.GetArray())
    {
        if (!entry.IsObject() || !entry.HasMember("manifest_path") || !entry["manifest_path"].IsString())
        {
            EDR_LOG_ERROR("Ioc::Config: Ignoring a 'manifests' entry without a 'manifest_path' string");
            continue;
        }
        manifests.push_back({std::string(util::GetString(entry, "manifest_path")),
                             std::string(util::GetString(entry, "manifest_type"))});
    }
    return manifests;
}

} // namespace

Config::Config(std::string_view json)
{
    if (!Read(json, m_values))
    {
        throw std::invalid_argument("Ioc::Config: Invalid json");
    }
}

Config::Config(const rapidjson::Value& json)
{
    if (!Read(json, m_values))
    {
        throw std::invalid_argument("Ioc::Config: Invalid json");
    }
}

bool Config::Update(std::string_view json)
{
    Values values;
    if (!Read(json, values))
    {
        EDR_LOG_ERROR("Ioc::Config::Update: Invalid json");
        return false;
    }
    std::lock_guard lock(m_mutex);
    m_values = std::move(values);
    return true;
}

bool Config::Read(std::string_view text, Values& values)
{
    rapidjson::Document json;
    return util::ParseJson(json, text) && Read(json, values);
}

bool Config::Read(const rapidjson::Value& json, Values& values)
{
    if (!json.IsObject())
    {
        return false;
    }
    values.eventFileName = util::GetString(json, "event_file_name");
    values.eventFilePath = util::GetString(json, "event_file_path");
    values.maxDiskSizeMb = GetUnsigned(json, "max_disk_size_mb");
    values.maxFileAgeSec = GetUnsigned(json, "max_file_age_sec");
    values.maxFileSizeKb = GetUnsigned(json, "max_file_size_kb");
    values.serviceUrl = util::GetString(json, "service_url");
    values.uploadInterval = GetUnsigned(json, "upload_interval");
    const auto quarantined = json.FindMember("host_quarantined");
    values.hostQuarantined = quarantined != json.MemberEnd() && quarantined->value.IsTrue();
    values.manifests = GetManifestList(json);
    return true;
}

} // namespace vantor::ioc::Ioc
