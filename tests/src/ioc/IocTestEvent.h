#pragma once

#include "tests/src/audit/TestEvent.h"

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantor::ioc::test
{

// The settable test event with what IOC's rules read besides: the file's
// type, size and description, the network endpoint and the user name. A
// field left empty throws like an event that does not carry it.
class IocTestEvent : public vantor::test::TestEvent
{
public:
    std::optional<uint32_t> fileType = S_IFREG;
    std::optional<uint64_t> fileSize = 100;
    std::optional<std::string> fileTypeDesc = "ASCII text";
    std::optional<std::string> address;
    uint16_t port = 0;
    std::optional<std::string> user = "alice";
    // The file a process start executed.
    std::optional<std::string> executed;

    std::unique_ptr<Event> Clone() const override { return std::make_unique<IocTestEvent>(*this); }
    uint32_t GetFileType() const override { return Require(fileType, "GetFileType"); }
    uint64_t GetFileSize() const override { return Require(fileSize, "GetFileSize"); }
    std::string GetFileTypeDesc() const override { return Require(fileTypeDesc, "GetFileTypeDesc"); }
    std::string GetNetworkAddress() const override { return Require(address, "GetNetworkAddress"); }
    uint16_t GetNetworkPort() const override
    {
        Require(address, "GetNetworkPort");
        return port;
    }
    std::string GetActorUserName() const override { return Require(user, "GetActorUserName"); }
    std::string GetSecondaryImage() const override { return Require(executed, "GetSecondaryImage"); }

private:
    template <typename T>
    static T Require(const std::optional<T>& value, const char* operation)
    {
        if (!value)
        {
            throw edr::EventException(std::string(operation) + " is not implemented");
        }
        return *value;
    }
};

inline IocTestEvent FileEvent(edr::EventType type, std::string file)
{
    IocTestEvent event;
    event.type = type;
    event.file = std::move(file);
    event.category = static_cast<uint32_t>(edr::EventCategory::File);
    return event;
}

inline IocTestEvent NetworkEvent(edr::EventType type, std::string address, uint16_t port)
{
    IocTestEvent event;
    event.type = type;
    event.address = std::move(address);
    event.port = port;
    event.file.clear();
    event.category = static_cast<uint32_t>(edr::EventCategory::Network);
    return event;
}

inline IocTestEvent ProcessEvent(edr::EventType type, std::string image)
{
    IocTestEvent event;
    event.type = type;
    event.image = std::move(image);
    event.file.clear();
    event.category = static_cast<uint32_t>(edr::EventCategory::Process);
    return event;
}

// A process-running event of pid, started by parent.
inline IocTestEvent RunningEvent(pid_t pid, pid_t parent, std::string image,
                                 std::vector<std::string> arguments = {})
{
    IocTestEvent event = ProcessEvent(edr::EventType::Running, std::move(image));
    event.pid = pid;
    event.ppid = parent;
    event.arguments = std::move(arguments);
    return event;
}

// The event, done by the process pid.
inline IocTestEvent By(pid_t pid, IocTestEvent event)
{
    event.pid = pid;
    return event;
}

} // namespace vantor::ioc::test
