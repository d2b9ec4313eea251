#pragma once

#include "edr/Event.h"

#include <cstdint>
#include <memory>
#include <string>

namespace vantor::fim::internal
{

// What an event document reads of an event, taken when the event is handled:
// a document that waits for its file to settle holds these few values rather
// than a copy of the whole event. Each operation answers as the event did
// when it was taken: the value, or an EventException. The failures of
// IsSuccessful, GetTimestamp and GetEventId keep the event's error text
// (a document logs it); the others only that they failed.
//
// The actor's process title is kept once: GetCommandLine answers the
// command line, and only when the event had none, GetImage answers the
// image (as the document falls back to it). Other operations are not
// implemented.
//
// Immutable once taken; callable from any thread.
class DocumentEvent final : public edr::Event
{
public:
    explicit DocumentEvent(const edr::Event& event);

    bool IsSuccessful() const override;
    uint64_t GetTimestamp() const override;
    uint32_t GetEventId() const override;
    uint64_t GetFileSize() const override;
    bool HasFileStat() const override { return (m_known & kFileSize) != 0; }
    pid_t GetActorProcessId() const override;
    std::string GetActorUserName() const override;
    uint32_t GetActorUserId() const override;
    std::string GetActorLoginName() const override;
    uint32_t GetActorAuid() const override;
    std::string GetCommandLine() const override;
    std::string GetImage() const override;

private:
    enum Field : uint16_t
    {
        kSuccess = 1 << 0,
        kTimestamp = 1 << 1,
        kEventId = 1 << 2,
        kFileSize = 1 << 3,
        kProcessId = 1 << 4,
        kUserName = 1 << 5,
        kUserId = 1 << 6,
        kLoginName = 1 << 7,
        kAuid = 1 << 8,
        kCommandLine = 1 << 9,
        kImage = 1 << 10
    };
    // The error texts of the mandatory fields; only events that failed one
    // carry them.
    struct Errors
    {
        std::string success;
        std::string timestamp;
        std::string eventId;
    };

    template <typename T, typename Getter>
    void Take(Field field, T& value, Getter getter, std::string* error = nullptr);
    // Throws the EventException with the kept error text (or "Unknown")
    // unless the event answered field.
    void Require(Field field, const std::string* error = nullptr) const;
    template <typename T>
    const T& Known(Field field, const T& value, const std::string* error = nullptr) const;
    // The text between begin and end of m_text, when field is known.
    std::string KnownText(Field field, size_t begin, size_t end) const;

    // The user name, the login name and the command line (or the image when
    // there is none) one after the other, in one block: many documents wait.
    std::string m_text;
    uint32_t m_userNameEnd = 0;
    uint32_t m_loginNameEnd = 0;
    std::unique_ptr<Errors> m_errors;
    uint64_t m_timestamp = 0;
    uint64_t m_fileSize = 0;
    uint32_t m_eventId = 0;
    pid_t m_processId = 0;
    uint32_t m_userId = 0;
    uint32_t m_auid = 0;
    uint16_t m_known = 0;
    bool m_success = false;
};

} // namespace vantor::fim::internal
