#include "ioc/protobuf/ProcessEvent.h"

#include "edr/PathEscape.h"
#include "ioc/EventFields.h"
#include "ioc/SnapshotFiles.h"

namespace vantor::ioc::internal::protobuf
{

namespace
{

// Cuts escaped text to at most limit bytes without splitting a UTF-8
// sequence.
void Truncate(std::string& text, std::size_t limit)
{
    if (text.size() <= limit)
    {
        return;
    }
    std::size_t end = limit;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
    {
        --end;
    }
    text.resize(end);
}

} // namespace

ProcessEvent::ProcessEvent()
    : Event("processEvent", "process")
{
}

std::optional<Added> ProcessEvent::AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const
{
    const edr::Event& event = input.event;
    const auto action = EventActions::ActionOf(event.GetType());
    return Add(*batch.mutable_processevent(),
               [&](pb::ProcessEvent& message)
               {
                   FillCommon(message, input, context, action);
                   std::string image;
                   if (input.actor)
                   {
                       const ProcessInfo& info = *input.actor;
                       image = info.image.path;
                       message.set_processid(info.pid);
                       message.set_parentprocessid(info.parentPid);
                       message.set_creationtime(info.creationTime);
                       edr::PathEscape::EscapeTo(info.arguments, *message.mutable_arguments());
                       message.set_userid(std::to_string(info.uid));
                       message.set_elevated(info.euid == 0);
                       edr::PathEscape::EscapeTo(info.cwd, *message.mutable_currentdirectory());
                       message.set_priority(static_cast<int32_t>(info.priority));
                       message.set_status(ProcessInfo::StateText(info.state));
                   }
                   else
                   {
                       image = EventFields::Image(event).value_or(std::string());
                       message.set_processid(EventFields::ProcessId(event).value_or(0));
                       message.set_parentprocessid(EventFields::ParentProcessId(event).value_or(0));
                       if (const auto arguments =
                               EventFields::Try([&] { return event.GetActorProcessArguments(); }))
                       {
                           edr::PathEscape::EscapeTo(ProcessInfo::JoinArguments(*arguments),
                                                     *message.mutable_arguments());
                       }
                       if (const auto uid = EventFields::Try([&] { return event.GetActorUserId(); }))
                       {
                           message.set_userid(std::to_string(*uid));
                       }
                       if (const auto euid = EventFields::Try([&] { return event.GetActorEuid(); }))
                       {
                           message.set_elevated(*euid == 0);
                       }
                       if (const auto cwd = EventFields::Try([&] { return event.GetCwd(); }))
                       {
                           edr::PathEscape::EscapeTo(*cwd, *message.mutable_currentdirectory());
                       }
                   }
                   Truncate(*message.mutable_arguments(), kMaxArgumentsBytes);
                   if (!image.empty())
                   {
                       edr::PathEscape::EscapeTo(image, *message.mutable_imagepath());
                       edr::PathEscape::EscapeTo(BaseName(image), *message.mutable_processname());
                       message.set_uniqueimageid(context.files.RecurringRowIdOf(image));
                   }
                   if (!message.actor().username().empty())
                   {
                       message.set_username(message.actor().username());
                   }
                   FillMetadata(*message.mutable_agentmetadata(), input, context);
               });
}

} // namespace vantor::ioc::internal::protobuf
