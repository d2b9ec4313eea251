#pragma once

#include <rapidjson/document.h>

#include <optional>
#include <string>
#include <string_view>

namespace vantor::edr
{

// One message of the host agent, read from the daemon's pending buffer: the
// whole buffer must be one JSON object (trailing whitespace or NUL bytes
// aside), whose string "command" says what to do. The daemon acts on the
// kind; nothing here reads a file or changes state, so any bytes may be
// given.
//
// Not thread-safe; immutable once built.
class AgentCommand
{
public:
    enum class Kind
    {
        Invalid, // not one JSON object
        Unnamed, // no "command", or not a string: ignored without a message
        FimStatus,
        IocStatus,
        Config,
        Exit,
        Unknown // any other command text
    };

    explicit AgentCommand(std::string_view buffer);

    AgentCommand(const AgentCommand&) = delete;
    AgentCommand& operator=(const AgentCommand&) = delete;

    Kind GetKind() const { return m_kind; }
    // The "command" text (any bytes); empty unless it is a string.
    std::string_view Name() const { return m_name; }
    // "config_file" when it is a string.
    std::optional<std::string> ConfigFile() const;

private:
    rapidjson::Document m_message;
    Kind m_kind = Kind::Invalid;
    std::string_view m_name;
};

} // namespace vantor::edr
