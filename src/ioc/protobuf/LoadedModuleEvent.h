#pragma once

#include "ioc/protobuf/Event.h"

namespace vantor::ioc::internal::protobuf
{

// Loaded modules ("loadedModule") of a running process: one LOAD message
// per library of the actor's TTL-tree information, with moduleName (the
// library's path), uniqueImageId (its RowID) and processId. Nothing is
// added without actor information or libraries.
class LoadedModuleEvent : public Event
{
public:
    LoadedModuleEvent();

    std::optional<Added> AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const override;
};

} // namespace vantor::ioc::internal::protobuf
