#pragma once

#include "ioc/protobuf/Event.h"

namespace vantor::ioc::internal::protobuf
{

// Process events ("processEvent": running, clone, exit, abnormal end) of the
// acting process, from its TTL-tree information when given, else from the
// event: processName (the image's last component), processId,
// parentProcessId, creationTime, arguments (cut to kMaxArgumentsBytes),
// imagePath and uniqueImageId, userId and userName, elevated (effective
// uid 0), currentDirectory, priority and status (the state text), and
// agentMetaData when metadata is sent.
class ProcessEvent : public Event
{
public:
    // A command line can be far longer than a batch should be.
    static constexpr std::size_t kMaxArgumentsBytes = 16 * 1024;

    ProcessEvent();

    std::optional<Added> AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const override;
};

} // namespace vantor::ioc::internal::protobuf
