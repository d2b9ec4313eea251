#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <mutex>
#include <string>

namespace vantor::edr::EDR
{

// The daemon's own settings ("edr_config"), fixed for the life of the process.
class Config
{
public:
    // Throws std::invalid_argument "EDR::Config: Invalid json".
    explicit Config(const rapidjson::Value& json);

    // Throws std::invalid_argument "EDR::Config::Update: Invalid json".
    void Update(const rapidjson::Value& json);

    uint64_t AuditBacklogLimit() const;
    uint64_t CpuLimit() const;
    uint64_t MemoryLimit() const;
    std::string DispatcherSocketPath() const;
    bool UseDispatcher() const;
    // Seconds between health-status uploads (optional
    // "status_upload_interval"); 0 when not given.
    uint64_t StatusUploadInterval() const;

private:
    static bool IsValid(const rapidjson::Value& json);
    void Take(const rapidjson::Value& json);

    mutable std::mutex m_mutex;
    uint64_t m_auditBacklogLimit = 0;
    uint64_t m_cpuLimit = 0;
    uint64_t m_memoryLimit = 0;
    std::string m_dispatcherSocketPath;
    uint64_t m_statusUploadInterval = 0;
};

} // namespace vantor::edr::EDR
