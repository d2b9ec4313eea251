#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <initializer_list>
#include <string>

namespace vantor::edr
{

// The configuration file the agent names in its "config" command: read and
// parsed whole, then asked for its sections and the agent's identity. The
// caller words the failures, which differ between start-up (syslog) and a
// later "config" (the daemon's log).
//
// Not thread-safe; one object per command.
class ConfigurationFile
{
public:
    enum class Status
    {
        Ok,
        Unreadable, // the file cannot be read
        Invalid     // not a JSON object
    };

    Status Load(const std::string& path);

    const rapidjson::Document& Root() const { return m_root; }

    // Whether each of the keys holds a JSON object.
    bool HasSections(std::initializer_list<const char*> names) const;

    // "outpost_pid" (any JSON number, taken as a 32-bit integer) and
    // "outpost_path"; answers false when either is missing or of another type.
    bool ReadOutpost(int32_t& pid, std::string& path) const;

private:
    rapidjson::Document m_root;
};

} // namespace vantor::edr
