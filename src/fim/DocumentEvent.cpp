#include "fim/DocumentEvent.h"

#include "edr/EventException.h"

namespace vantor::fim::internal
{

template <typename T, typename Getter>
void DocumentEvent::Take(Field field, T& value, Getter getter, std::string* error)
{
    try
    {
        value = getter();
        m_known |= field;
    }
    catch (const std::exception& e)
    {
        if (error != nullptr)
        {
            *error = e.what();
        }
    }
}

DocumentEvent::DocumentEvent(const edr::Event& event)
{
    // The mandatory fields rarely fail: their texts are kept aside then.
    Errors errors;
    Take(
        kSuccess, m_success, [&] { return event.IsSuccessful(); }, &errors.success);
    Take(
        kTimestamp, m_timestamp, [&] { return event.GetTimestamp(); }, &errors.timestamp);
    Take(
        kEventId, m_eventId, [&] { return event.GetEventId(); }, &errors.eventId);
    if ((m_known & (kSuccess | kTimestamp | kEventId)) != (kSuccess | kTimestamp | kEventId))
    {
        m_errors = std::make_unique<Errors>(std::move(errors));
    }
    if (event.HasFileStat())
    {
        Take(kFileSize, m_fileSize, [&] { return event.GetFileSize(); });
    }
    Take(kProcessId, m_processId, [&] { return event.GetActorProcessId(); });
    Take(kUserName, m_userName, [&] { return event.GetActorUserName(); });
    Take(kUserId, m_userId, [&] { return event.GetActorUserId(); });
    Take(kLoginName, m_loginName, [&] { return event.GetActorLoginName(); });
    Take(kAuid, m_auid, [&] { return event.GetActorAuid(); });
    Take(kCommandLine, m_title, [&] { return event.GetCommandLine(); });
    if ((m_known & kCommandLine) == 0)
    {
        Take(kImage, m_title, [&] { return event.GetImage(); });
    }
}

template <typename T>
const T& DocumentEvent::Known(Field field, const T& value, const std::string* error) const
{
    if ((m_known & field) == 0)
    {
        throw edr::EventException(error != nullptr ? *error : "Unknown");
    }
    return value;
}

bool DocumentEvent::IsSuccessful() const
{
    return Known(kSuccess, m_success, m_errors ? &m_errors->success : nullptr);
}

uint64_t DocumentEvent::GetTimestamp() const
{
    return Known(kTimestamp, m_timestamp, m_errors ? &m_errors->timestamp : nullptr);
}

uint32_t DocumentEvent::GetEventId() const
{
    return Known(kEventId, m_eventId, m_errors ? &m_errors->eventId : nullptr);
}

uint64_t DocumentEvent::GetFileSize() const
{
    return Known(kFileSize, m_fileSize);
}

pid_t DocumentEvent::GetActorProcessId() const
{
    return Known(kProcessId, m_processId);
}

std::string DocumentEvent::GetActorUserName() const
{
    return Known(kUserName, m_userName);
}

uint32_t DocumentEvent::GetActorUserId() const
{
    return Known(kUserId, m_userId);
}

std::string DocumentEvent::GetActorLoginName() const
{
    return Known(kLoginName, m_loginName);
}

uint32_t DocumentEvent::GetActorAuid() const
{
    return Known(kAuid, m_auid);
}

std::string DocumentEvent::GetCommandLine() const
{
    return Known(kCommandLine, m_title);
}

std::string DocumentEvent::GetImage() const
{
    return Known(kImage, m_title);
}

} // namespace vantor::fim::internal
