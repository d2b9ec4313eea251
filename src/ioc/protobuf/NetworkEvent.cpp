#include "ioc/protobuf/NetworkEvent.h"

#include "edr/PathEscape.h"
#include "ioc/EventFields.h"

namespace vantor::ioc::internal::protobuf
{

NetworkEvent::NetworkEvent()
    : Event("networkEvent", "network")
{
}

std::optional<Added> NetworkEvent::AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const
{
    const edr::Event& event = input.event;
    const auto action = EventActions::ActionOf(event.GetType());
    return Add(*batch.mutable_networkevent(),
               [&](pb::NetworkEvent& message)
               {
                   FillCommon(message, input, context, action);
                   const auto address = EventFields::Try([&] { return event.GetNetworkAddress(); });
                   const auto port = EventFields::Try([&] { return event.GetNetworkPort(); });
                   const bool local = action == pb::LISTEN;
                   if (address)
                   {
                       edr::PathEscape::EscapeTo(*address, local ? *message.mutable_localaddress()
                                                                 : *message.mutable_remoteaddress());
                   }
                   if (port)
                   {
                       local ? message.set_localport(*port) : message.set_remoteport(*port);
                   }
                   message.set_processid(message.actor().processid());
                   message.set_uniqueprocessid(message.actor().uniqueprocessid());
                   FillMetadata(*message.mutable_agentmetadata(), input, context);
               });
}

} // namespace vantor::ioc::internal::protobuf
