#include "fim/Config.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <optional>
#include <stdexcept>

namespace vantor::fim
{

namespace
{

std::string GetString(const rapidjson::Value& json, const char* key)
{
    const auto it = json.FindMember(key);
    if (it == json.MemberEnd() || !it->value.IsString())
    {
        return {};
    }
    return {it->value.GetString(), it->value.GetStringLength()};
}

// A missing, negative or non-integer value reads as 0, which the spool
// turns into its default; a hostile value must never abort the daemon.
uint64_t GetInteger(const rapidjson::Value& json, const char* key)
{
    const auto it = json.FindMember(key);
    if (it == json.MemberEnd() || !it->value.IsInt64() || it->value.GetInt64() < 0)
    {
        return 0;
    }
    return static_cast<uint64_t>(it->value.GetInt64());
}

// A value that is not a non-negative integer reads as missing.
std::optional<uint64_t> GetOptionalInteger(const rapidjson::Value& json, const char* key)
{
    const auto it = json.FindMember(key);
    if (it == json.MemberEnd() || !it->value.IsInt64() || it->value.GetInt64() < 0)
    {
        return std::nullopt;
    }
    return static_cast<uint64_t>(it->value.GetInt64());
}

} // namespace

Config::Config(const rapidjson::Value& json)
{
    if (!json.IsObject())
    {
        throw std::invalid_argument("Fim::Config: Invalid json");
    }
    m_values = Read(json);
}

void Config::Update(const rapidjson::Value& json)
{
    if (!json.IsObject())
    {
        throw std::invalid_argument("Fim::Config::Update: Invalid json");
    }
    Values values = Read(json);
    std::lock_guard lock(m_mutex);
    m_values = std::move(values);
}

Config::Values Config::Read(const rapidjson::Value& json)
{
    Values values;
    values.eventFileName = GetString(json, "event_file_name");
    values.eventFilePath = GetString(json, "event_file_path");
    values.maxDiskSizeMb = GetInteger(json, "max_disk_size_mb");
    values.maxFileAgeSec = GetInteger(json, "max_file_age_sec");
    values.maxFileSizeKb = GetInteger(json, "max_file_size_kb");
    values.serviceUrl = GetString(json, "service_url");
    values.uploadInterval = GetInteger(json, "upload_interval");
    const auto manifests = json.FindMember("manifests");
    if (manifests != json.MemberEnd() && manifests->value.IsArray())
    {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        manifests->value.Accept(writer);
        values.manifests.assign(buffer.GetString(), buffer.GetSize());
    }
    values.manifestPath = GetString(json, "manifest_path");
    values.manifestType = GetString(json, "manifest_type");
    values.contentSettleTimeMs =
        GetOptionalInteger(json, "content_settle_time_ms").value_or(kDefaultSettleTimeMs);
    values.baselineFilesPerSec = GetInteger(json, "baseline_files_per_sec");
    return values;
}

std::string Config::EventFileName() const
{
    std::lock_guard lock(m_mutex);
    return m_values.eventFileName;
}

std::string Config::EventFilePath() const
{
    std::lock_guard lock(m_mutex);
    return m_values.eventFilePath;
}

uint64_t Config::MaxDiskSizeMb() const
{
    std::lock_guard lock(m_mutex);
    return m_values.maxDiskSizeMb;
}

uint64_t Config::MaxFileAgeSec() const
{
    std::lock_guard lock(m_mutex);
    return m_values.maxFileAgeSec;
}

uint64_t Config::MaxFileSizeKb() const
{
    std::lock_guard lock(m_mutex);
    return m_values.maxFileSizeKb;
}

std::string Config::ServiceUrl() const
{
    std::lock_guard lock(m_mutex);
    return m_values.serviceUrl;
}

uint64_t Config::UploadInterval() const
{
    std::lock_guard lock(m_mutex);
    return m_values.uploadInterval;
}

std::string Config::ManifestPath() const
{
    std::lock_guard lock(m_mutex);
    return m_values.manifestPath;
}

std::string Config::ManifestType() const
{
    std::lock_guard lock(m_mutex);
    return m_values.manifestType;
}

uint64_t Config::ContentSettleTimeMs() const
{
    std::lock_guard lock(m_mutex);
    return m_values.contentSettleTimeMs;
}

uint64_t Config::BaselineFilesPerSec() const
{
    std::lock_guard lock(m_mutex);
    return m_values.baselineFilesPerSec;
}

void Config::ToJson(rapidjson::Document& out) const
{
    Values values;
    {
        std::lock_guard lock(m_mutex);
        values = m_values;
    }
    out.SetObject();
    auto& a = out.GetAllocator();
    auto str = [&](const std::string& s)
    { return rapidjson::Value(s.c_str(), static_cast<rapidjson::SizeType>(s.size()), a); };
    out.AddMember("event_file_name", str(values.eventFileName), a);
    out.AddMember("event_file_path", str(values.eventFilePath), a);
    out.AddMember("max_disk_size_mb", values.maxDiskSizeMb, a);
    out.AddMember("max_file_age_sec", values.maxFileAgeSec, a);
    out.AddMember("max_file_size_kb", values.maxFileSizeKb, a);
    out.AddMember("service_url", str(values.serviceUrl), a);
    out.AddMember("upload_interval", values.uploadInterval, a);
    rapidjson::Document manifests(&a);
    manifests.Parse(values.manifests.c_str(), values.manifests.size());
    if (manifests.HasParseError() || !manifests.IsArray())
    {
        manifests.SetArray();
    }
    out.AddMember("manifests", rapidjson::Value(manifests, a), a);
    out.AddMember("manifest_path", str(values.manifestPath), a);
    out.AddMember("manifest_type", str(values.manifestType), a);
}

} // namespace vantor::fim
