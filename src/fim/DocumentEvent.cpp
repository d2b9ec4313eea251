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
    std::string userName;
    std::string loginName;
    std::string title;
    Take(kProcessId, m_processId, [&] { return event.GetActorProcessId(); });
    Take(kUserName, userName, [&] { return event.GetActorUserName(); });
    Take(kUserId, m_userId, [&] { return event.GetActorUserId(); });
    Take(kLoginName, loginName, [&] { return event.GetActorLoginName(); });
    Take(kAuid, m_auid, [&] { return event.GetActorAuid(); });
    Take(kCommandLine, title, [&] { return event.GetCommandLine(); });
    if ((m_known & kCommandLine) == 0)
    {
        Take(kImage, title, [&] { return event.GetImage(); });
    }
    // Exactly as long as the texts: no room left over while the document
    // waits.
    m_text.reserve(userName.size() + loginName.size() + title.size());
    m_text += userName;
    m_userNameEnd = static_cast<uint32_t>(m_text.size());
    m_text += loginName;
    m_loginNameEnd = static_cast<uint32_t>(m_text.size());
    m_text += title;
}

void DocumentEvent::Require(Field field, const std::string* error) const
{
    if ((m_known & field) == 0)
    {
        throw edr::EventException(error != nullptr ? *error : "Unknown");
    }
}

template <typename T>
const T& DocumentEvent::Known(Field field, const T& value, const std::string* error) const
{
    Require(field, error);
    return value;
}

std::string DocumentEvent::KnownText(Field field, size_t begin, size_t end) const
{
    Require(field);
    return m_text.substr(begin, end - begin);
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
    return KnownText(kUserName, 0, m_userNameEnd);
}

uint32_t DocumentEvent::GetActorUserId() const
{
    return Known(kUserId, m_userId);
}

std::string DocumentEvent::GetActorLoginName() const
{
    return KnownText(kLoginName, m_userNameEnd, m_loginNameEnd);
}

uint32_t DocumentEvent::GetActorAuid() const
{
    return Known(kAuid, m_auid);
}

std::string DocumentEvent::GetCommandLine() const
{
    return KnownText(kCommandLine, m_loginNameEnd, m_text.size());
}

std::string DocumentEvent::GetImage() const
{
    return KnownText(kImage, m_loginNameEnd, m_text.size());
}

} // namespace vantor::fim::internal
