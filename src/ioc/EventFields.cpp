#include "ioc/EventFields.h"

#include <sys/stat.h>

#include <sstream>

namespace vantor::ioc::internal
{

namespace
{

std::optional<std::string> NonEmpty(std::optional<std::string> text)
{
    if (text && text->empty())
    {
        return std::nullopt;
    }
    return text;
}

} // namespace

std::optional<std::string> EventFields::File(const edr::Event& event)
{
    return NonEmpty(Try([&] { return event.GetFile(); }));
}

std::optional<std::string> EventFields::NewFile(const edr::Event& event)
{
    return NonEmpty(Try([&] { return event.GetNewFile(); }));
}

std::optional<std::string> EventFields::Image(const edr::Event& event)
{
    return NonEmpty(Try([&] { return event.GetImage(); }));
}

std::optional<pid_t> EventFields::ProcessId(const edr::Event& event)
{
    return Try([&] { return event.GetActorProcessId(); });
}

std::optional<std::string> EventFields::NetworkAddress(const edr::Event& event)
{
    return NonEmpty(Try([&] { return event.GetNetworkAddress(); }));
}

std::optional<uint16_t> EventFields::NetworkPort(const edr::Event& event)
{
    return Try([&] { return event.GetNetworkPort(); });
}

std::optional<pid_t> EventFields::ParentProcessId(const edr::Event& event)
{
    return Try([&] { return event.GetActorParentProcessId(); });
}

bool EventFields::IsFileEvent(edr::EventType type)
{
    return edr::IsFileEventType(type);
}

bool EventFields::IsNetworkEvent(edr::EventType type)
{
    return type == edr::EventType::Connect || type == edr::EventType::Accept || type == edr::EventType::Bind;
}

bool EventFields::IsDirectory(const edr::Event& event)
{
    return Try([&] { return event.GetFileType(); }) == static_cast<uint32_t>(S_IFDIR);
}

bool EventFields::IsSuccessful(const edr::Event& event)
{
    return Try([&] { return event.IsSuccessful(); }).value_or(true);
}

std::string EventFields::ProcessName(const edr::Event& event)
{
    const std::string image = Image(event).value_or("");
    return image.substr(image.rfind('/') + 1);
}

std::string EventFields::Describe(const edr::Event& event)
{
    std::ostringstream text;
    text << Try([&] { return event.GetActionName(); }).value_or("Unknown") << " event "
         << Try([&] { return event.GetEventId(); }).value_or(0) << " of process ";
    const auto pid = ProcessId(event);
    if (pid)
    {
        text << *pid;
    }
    else
    {
        text << "?";
    }
    text << " (" << Image(event).value_or("") << ")";
    return text.str();
}

} // namespace vantor::ioc::internal
