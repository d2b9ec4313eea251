#pragma once

#include "edr/Event.h"
#include "ioc/ProcessInfo.h"
#include "ioc/protobuf/EventActions.h"

#include <google/protobuf/repeated_field.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::ioc::internal
{
class FileTypeIdentifier;
class SnapshotFiles;
} // namespace vantor::ioc::internal

namespace vantor::ioc::internal::protobuf
{

// What a converter may use besides the event: the snapshot's file rows, the
// file type identifier and the policy's settings at the time of the batch.
struct Context
{
    SnapshotFiles& files;
    const FileTypeIdentifier& types;
    // Files larger than this are neither hashed nor typed.
    uint64_t maxFileSizeToProcess = 0;
    // Whether the actor's tags and verdicts go along as agentMetaData.
    bool sendMetadata = false;
    // Actors of an earlier batch to fill again (a cleared message frees its
    // actor, and with it the capacity of its texts); may be null.
    std::vector<std::unique_ptr<pb::Actor>>* spareActors = nullptr;
};

// One event to convert.
struct Input
{
    const edr::Event& event;
    // The acting process as the TTL tree knows it; null when it does not,
    // and the actor is then made of what the event carries.
    const ProcessInfo* actor = nullptr;
    // False when the event's content must not be hashed (the caller knows
    // it is not worth it or not allowed).
    bool hashContent = true;
};

// What one conversion added to the batch.
struct Added
{
    std::size_t messages = 0;
    // The batch's serialized growth.
    std::size_t bytes = 0;
};

// The base of the per-kind converters, which turn one captured event into
// the message of its kind and add it to a batch (IoCEvent). Every message
// gets eventAction, timestamp (the event's time, milliseconds since the
// epoch), uniqueId (the event id as decimal text) and actor. Host texts
// (paths, names, arguments) are written in edr::PathEscape's form, since
// string fields must be valid UTF-8. A converter that throws leaves the
// batch as it was.
//
// Converters are stateless; the batch and the context are the caller's.
class Event
{
public:
    // kind: the batch kind ("fileEvent", ...); noun: how logs name it
    // ("file", "loaded-module", ...).
    Event(const char* kind, const char* noun);
    virtual ~Event();

    const char* Kind() const { return m_kind; }
    const char* Noun() const { return m_noun; }

    // Adds the event's message(s); nothing when the event is dropped (the
    // reason is logged). Throws std::exception when it cannot convert.
    virtual std::optional<Added> AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const = 0;

    // "<pid>-<start time in ms>": a process across pid reuse.
    static void UniqueProcessIdTo(pid_t pid, int64_t creationTime, std::string& out);
    static int64_t Millis(edr::Event::TimePoint time);
    // The last path component.
    static std::string_view BaseName(std::string_view path);
    static std::string_view ParentOf(std::string_view path);

protected:
    // Fills the four fields every event message has.
    template <typename Message>
    static void FillCommon(Message& message, const Input& input, Context& context, pb::EventAction action)
    {
        message.set_eventaction(action);
        message.set_timestamp(static_cast<int64_t>(input.event.GetTimestamp()));
        message.set_uniqueid(std::to_string(input.event.GetEventId()));
        if (pb::Actor* spare = SpareActor(context))
        {
            message.set_allocated_actor(spare);
        }
        FillActor(*message.mutable_actor(), input, context);
    }
    // A cleared actor from context.spareActors, owned by the caller; null
    // when there is none.
    static pb::Actor* SpareActor(Context& context);
    static void FillActor(pb::Actor& actor, const Input& input, Context& context);
    // The actor's tags and verdicts as a JSON object, when they are to be
    // sent and there are any.
    static void FillMetadata(std::string& out, const Input& input, const Context& context);

    // Adds a message to a repeated field and fills it; on an exception the
    // message is taken out again. Answers the batch's growth.
    template <typename Message, typename Fill>
    static Added Add(google::protobuf::RepeatedPtrField<Message>& field, Fill fill)
    {
        Message* message = field.Add();
        try
        {
            fill(*message);
        }
        catch (...)
        {
            field.RemoveLast();
            throw;
        }
        return {1, Framed(message->ByteSizeLong())};
    }
    // Brings the snapshot row of an event's object up to date: a delete or a
    // rename removes the row of the old path, anything but a delete writes
    // the row of the new one. Answers whether every step succeeded.
    template <typename RemoveOld, typename WriteNew>
    static bool UpdateRow(pb::EventAction action, RemoveOld removeOld, WriteNew writeNew)
    {
        bool stored = true;
        if (action == pb::DELETE || action == pb::RENAME)
        {
            stored = removeOld();
        }
        if (action != pb::DELETE)
        {
            stored = writeNew() && stored;
        }
        return stored;
    }
    // The bytes a nested message of this size takes in its parent.
    static std::size_t Framed(std::size_t size);

private:
    const char* m_kind;
    const char* m_noun;
};

} // namespace vantor::ioc::internal::protobuf
