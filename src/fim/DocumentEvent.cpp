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

void DocumentEvent::Check(Field field, const std::string* error) const
{
    if ((m_known & field) == 0)
    {
        throw edr::EventException(error != nullptr ? *error : "Unknown");
    }
}

bool DocumentEvent::IsSuccessful() const
{
    Check(kSuccess, m_errors ? &m_errors->success : nullptr);
    return m_success;
}

uint64_t DocumentEvent::GetTimestamp() const
{
    Check(kTimestamp, m_errors ? &m_errors->timestamp : nullptr);
    return m_timestamp;
}

uint32_t DocumentEvent::GetEventId() const
{
    Check(kEventId, m_errors ? &m_errors->eventId : nullptr);
    return m_eventId;
}

uint64_t DocumentEvent::GetFileSize() const
{
    Check(kFileSize, nullptr);
    return m_fileSize;
}

pid_t DocumentEvent::GetActorProcessId() const
{
    Check(kProcessId, nullptr);
    return m_processId;
}

std::string DocumentEvent::GetActorUserName() const
{
    Check(kUserName, nullptr);
    return m_userName;
}

uint32_t DocumentEvent::GetActorUserId() const
{
    Check(kUserId, nullptr);
    return m_userId;
}

std::string DocumentEvent::GetActorLoginName() const
{
    Check(kLoginName, nullptr);
    return m_loginName;
}

uint32_t DocumentEvent::GetActorAuid() const
{
    Check(kAuid, nullptr);
    return m_auid;
}

std::string DocumentEvent::GetCommandLine() const
{
    Check(kCommandLine, nullptr);
    return m_title;
}

std::string DocumentEvent::GetImage() const
{
    Check(kImage, nullptr);
    return m_title;
}

} // namespace vantor::fim::internal
