#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::ioc::Ioc
{

// The IOC settings ("ioc_config"). Read by the component and its spool on
// their own threads while a later "config" command updates them, so every
// accessor takes the lock and answers a copy.
//
// A key that is missing or of another type takes its default: the texts
// empty (the component then chooses its own spool name and place), the
// numbers 0 (the spool then takes its own defaults), "host_quarantined"
// false (true only for the literal true), "manifests" empty. A "manifests"
// entry without a string "manifest_path" is logged and left out.
class Config
{
public:
    struct Manifest
    {
        std::string path;
        std::string type;

        bool operator==(const Manifest&) const = default;
    };

    // Throws std::invalid_argument "Ioc::Config: Invalid json" when the text
    // is not a JSON object.
    explicit Config(std::string_view json);
    // The same from a parsed value (the daemon's "ioc_config" section).
    explicit Config(const rapidjson::Value& json);

    // Takes the values of a new text. Logs "Ioc::Config::Update: Invalid
    // json" and answers false when the text is not a JSON object; the
    // previous values then stay.
    bool Update(std::string_view json);

    std::string EventFileName() const { return Get(&Values::eventFileName); }
    std::string EventFilePath() const { return Get(&Values::eventFilePath); }
    uint64_t MaxDiskSizeMb() const { return Get(&Values::maxDiskSizeMb); }
    uint64_t MaxFileAgeSec() const { return Get(&Values::maxFileAgeSec); }
    uint64_t MaxFileSizeKb() const { return Get(&Values::maxFileSizeKb); }
    std::string ServiceUrl() const { return Get(&Values::serviceUrl); }
    uint64_t UploadInterval() const { return Get(&Values::uploadInterval); }
    bool HostQuarantined() const { return Get(&Values::hostQuarantined); }
    // A copy of the configured list, in its order.
    std::vector<Manifest> GetManifests() const { return Get(&Values::manifests); }

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
        bool hostQuarantined = false;
        std::vector<Manifest> manifests;
    };

    // False when the text or value is not a JSON object.
    static bool Read(std::string_view json, Values& values);
    static bool Read(const rapidjson::Value& json, Values& values);

    template <typename T>
    T Get(T Values::*member) const
    {
        std::lock_guard lock(m_mutex);
        return m_values.*member;
    }

    mutable std::mutex m_mutex;
    Values m_values;
};

} // namespace vantor::ioc::Ioc
