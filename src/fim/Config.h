#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <mutex>
#include <string>

namespace vantor::fim
{

// The FIM settings ("fim_config"). Read by the component, its spool and its
// upload schedule on their own threads while a later "config" command may
// update them, so every accessor takes the lock and answers a copy.
class Config
{
public:
    // Throws std::invalid_argument "Fim::Config: Invalid json".
    explicit Config(const rapidjson::Value& json);

    // Throws std::invalid_argument "Fim::Config::Update: Invalid json"; the
    // previous values then stay.
    void Update(const rapidjson::Value& json);

    std::string EventFileName() const;
    std::string EventFilePath() const;
    uint64_t MaxDiskSizeMb() const;
    uint64_t MaxFileAgeSec() const;
    uint64_t MaxFileSizeKb() const;
    std::string ServiceUrl() const;
    uint64_t UploadInterval() const;
    std::string ManifestPath() const;
    std::string ManifestType() const;

    // Two optional keys beyond the ten: "content_settle_time_ms", how long
    // after the last event on a path its content is read (missing:
    // kDefaultSettleTimeMs; 0 reads at once), and "baseline_files_per_sec",
    // the rate of the baseline pass (missing or 0: the default). Not written
    // back by ToJson, which keeps to the ten keys.
    static constexpr uint64_t kDefaultSettleTimeMs = 1000;
    uint64_t ContentSettleTimeMs() const;
    uint64_t BaselineFilesPerSec() const;

    // The ten keys as one JSON object (for the daemon's state reports).
    void ToJson(rapidjson::Document& out) const;

private:
    struct Values
    {
        std::string eventFileName;
        std::string eventFilePath;
        uint64_t maxDiskSizeMb = 0;
        uint64_t maxFileAgeSec = 0;
        uint64_t maxFileSizeKb = 0;
        std::string serviceUrl;
        uint64_t uploadInterval = 0;
        std::string manifests = "[]"; // JSON text of the array
        std::string manifestPath;
        std::string manifestType;
        uint64_t contentSettleTimeMs = kDefaultSettleTimeMs;
        uint64_t baselineFilesPerSec = 0;
    };

    static Values Read(const rapidjson::Value& json);

    mutable std::mutex m_mutex;
    Values m_values;
};

} // namespace vantor::fim
