#include "edr/Config.h"

#include <stdexcept>

namespace vantor::edr::EDR
{

namespace
{
bool HasUint(const rapidjson::Value& json, const char* key)
{
    const auto it = json.FindMember(key);
    return it != json.MemberEnd() && it->value.IsUint64();
}
} // namespace

Config::Config(const rapidjson::Value& json)
{
    if (!IsValid(json))
    {
        throw std::invalid_argument("EDR::Config: Invalid json");
    }
    Take(json);
}

void Config::Update(const rapidjson::Value& json)
{
    if (!IsValid(json))
    {
        throw std::invalid_argument("EDR::Config::Update: Invalid json");
    }
    std::lock_guard lock(m_mutex);
    Take(json);
}

bool Config::IsValid(const rapidjson::Value& json)
{
    if (!json.IsObject() || !HasUint(json, "audit_backlog_limit") || !HasUint(json, "cpu_limit") ||
        !HasUint(json, "memory_limit"))
    {
        return false;
    }
    const auto path = json.FindMember("dispatcher_socket_path");
    const auto interval = json.FindMember("status_upload_interval");
    return (path == json.MemberEnd() || path->value.IsString()) &&
           (interval == json.MemberEnd() || interval->value.IsUint64());
}

void Config::Take(const rapidjson::Value& json)
{
    m_auditBacklogLimit = json["audit_backlog_limit"].GetUint64();
    m_cpuLimit = json["cpu_limit"].GetUint64();
    m_memoryLimit = json["memory_limit"].GetUint64();
    const auto path = json.FindMember("dispatcher_socket_path");
    m_dispatcherSocketPath = path == json.MemberEnd()
                                 ? std::string()
                                 : std::string(path->value.GetString(), path->value.GetStringLength());
    const auto interval = json.FindMember("status_upload_interval");
    m_statusUploadInterval = interval == json.MemberEnd() ? 0 : interval->value.GetUint64();
}

uint64_t Config::AuditBacklogLimit() const
{
    std::lock_guard lock(m_mutex);
    return m_auditBacklogLimit;
}

uint64_t Config::CpuLimit() const
{
    std::lock_guard lock(m_mutex);
    return m_cpuLimit;
}

uint64_t Config::MemoryLimit() const
{
    std::lock_guard lock(m_mutex);
    return m_memoryLimit;
}

std::string Config::DispatcherSocketPath() const
{
    std::lock_guard lock(m_mutex);
    return m_dispatcherSocketPath;
}

uint64_t Config::StatusUploadInterval() const
{
    std::lock_guard lock(m_mutex);
    return m_statusUploadInterval;
}

bool Config::UseDispatcher() const
{
    std::lock_guard lock(m_mutex);
    return !m_dispatcherSocketPath.empty();
}

} // namespace vantor::edr::EDR
