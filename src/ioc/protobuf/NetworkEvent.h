#pragma once

#include "ioc/protobuf/Event.h"

namespace vantor::ioc::internal::protobuf
{

// Network events ("networkEvent"): the one endpoint the event carries is
// the remote one of a connect or accept (remoteAddress, remotePort) and the
// local one of a bind (localAddress, localPort); processId and
// uniqueProcessId of the actor, and agentMetaData when metadata is sent.
class NetworkEvent : public Event
{
public:
    NetworkEvent();

    std::optional<Added> AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const override;
};

} // namespace vantor::ioc::internal::protobuf
