#include "ioc/protobuf/Event.h"

#include "edr/PathEscape.h"
#include "ioc/EventFields.h"
#include "ioc/SnapshotFiles.h"
#include "ioc/TtlProcessTree.h"

#include <google/protobuf/io/coded_stream.h>
#include <rapidjson/writer.h>

#include <charconv>

namespace vantor::ioc::internal::protobuf
{

namespace
{

// A rapidjson output stream that appends to a std::string.
struct TextStream
{
    using Ch = char;
    std::string& text;
    void Put(char c) { text.push_back(c); }
    void Flush() {}
};

} // namespace

Event::Event(const char* kind, const char* noun)
    : m_kind(kind)
    , m_noun(noun)
{
}

Event::~Event() = default;

void Event::UniqueProcessIdTo(pid_t pid, int64_t creationTime, std::string& out)
{
    char text[24];
    out.assign(text, std::to_chars(text, text + sizeof(text), pid).ptr);
    out += '-';
    out.append(text, std::to_chars(text, text + sizeof(text), creationTime).ptr);
}

pb::Actor* Event::SpareActor(Context& context)
{
    if (!context.spareActors || context.spareActors->empty())
    {
        return nullptr;
    }
    pb::Actor* actor = context.spareActors->back().release();
    context.spareActors->pop_back();
    actor->Clear();
    return actor;
}

int64_t Event::Millis(edr::Event::TimePoint time)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

std::string_view Event::BaseName(std::string_view path)
{
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view Event::ParentOf(std::string_view path)
{
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos)
    {
        return {};
    }
    return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

std::size_t Event::Framed(std::size_t size)
{
    // One tag byte (field numbers below 16) and the length.
    return 1 + google::protobuf::io::CodedOutputStream::VarintSize64(size) + size;
}

void Event::FillActor(pb::Actor& actor, const Input& input, Context& context)
{
    const edr::Event& event = input.event;
    if (input.actor)
    {
        const ProcessInfo& info = *input.actor;
        actor.set_processid(info.pid);
        actor.set_creationtime(info.creationTime);
        UniqueProcessIdTo(info.pid, info.creationTime, *actor.mutable_uniqueprocessid());
        actor.set_userid(std::to_string(info.uid));
        if (!info.image.path.empty())
        {
            edr::PathEscape::EscapeTo(info.image.path, *actor.mutable_imagepath());
            actor.set_uniqueimageid(context.files.RecurringRowIdOf(info.image.path));
        }
    }
    else
    {
        if (const auto pid = EventFields::ProcessId(event))
        {
            actor.set_processid(*pid);
        }
        if (const auto uid = EventFields::Try([&] { return event.GetActorUserId(); }))
        {
            actor.set_userid(std::to_string(*uid));
        }
        if (const auto image = EventFields::Image(event))
        {
            edr::PathEscape::EscapeTo(*image, *actor.mutable_imagepath());
            actor.set_uniqueimageid(context.files.RecurringRowIdOf(*image));
        }
    }
    if (const auto user = EventFields::Try([&] { return event.GetActorUserName(); }))
    {
        edr::PathEscape::EscapeTo(*user, *actor.mutable_username());
    }
}

void Event::FillMetadata(std::string& out, const Input& input, const Context& context)
{
    if (!context.sendMetadata || !input.actor || (input.actor->tags.empty() && input.actor->verdicts.empty()))
    {
        return;
    }
    // Straight into the message's text, whose capacity the batch keeps.
    out.clear();
    TextStream stream{out};
    rapidjson::Writer<TextStream> writer(stream);
    writer.StartObject();
    writer.Key("tags");
    writer.StartObject();
    for (const auto& [tag, score] : input.actor->tags)
    {
        // States such as "Reported" say how IOC handled the process, not
        // what it did.
        if (TtlProcessTree::IsStateTag(tag))
        {
            continue;
        }
        writer.Key(tag.c_str(), static_cast<rapidjson::SizeType>(tag.size()));
        writer.Int64(score);
    }
    writer.EndObject();
    writer.Key("verdicts");
    writer.StartObject();
    for (const auto& [engine, verdict] : input.actor->verdicts)
    {
        writer.Key(engine.c_str(), static_cast<rapidjson::SizeType>(engine.size()));
        writer.Int(verdict);
    }
    writer.EndObject();
    writer.EndObject();
}

} // namespace vantor::ioc::internal::protobuf
