#pragma once

#include "edr/Event.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace vantor::ioc::internal
{

// What IOC reads of an event, without the exceptions: every event class
// answers only what it carries (the others throw edr::EventException), and
// a question an event cannot answer must count as "no value", never fail
// the event.
class EventFields
{
public:
    // The file a file event is about, and the new name of a rename; empty
    // when the event has none.
    static std::optional<std::string> File(const edr::Event& event);
    static std::optional<std::string> NewFile(const edr::Event& event);
    // The executable of the acting process.
    static std::optional<std::string> Image(const edr::Event& event);
    static std::optional<pid_t> ProcessId(const edr::Event& event);
    // The remote (or, for a bind, local) end of a network event.
    static std::optional<std::string> NetworkAddress(const edr::Event& event);
    static std::optional<uint16_t> NetworkPort(const edr::Event& event);
    static std::optional<pid_t> ParentProcessId(const edr::Event& event);

    static bool IsFileEvent(edr::EventType type);
    static bool IsNetworkEvent(edr::EventType type);
    // Whether the object of a file event is a directory.
    static bool IsDirectory(const edr::Event& event);

    // Whether the call succeeded; an event without a success flag counts as
    // successful.
    static bool IsSuccessful(const edr::Event& event);
    // The base name of the acting process's executable, for log lines.
    static std::string ProcessName(const edr::Event& event);

    // "<action> event <id> of process <pid> (<executable>)" for log lines.
    static std::string Describe(const edr::Event& event);

    // What read() answers, or nothing when the event does not carry it.
    template <typename Read>
    static auto Try(Read read) -> std::optional<decltype(read())>
    {
        try
        {
            return read();
        }
        catch (const edr::EventException&)
        {
            return std::nullopt;
        }
    }
};

} // namespace vantor::ioc::internal
