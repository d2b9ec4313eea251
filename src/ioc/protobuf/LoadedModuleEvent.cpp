#include "ioc/protobuf/LoadedModuleEvent.h"

#include "edr/PathEscape.h"
#include "ioc/SnapshotFiles.h"

namespace vantor::ioc::internal::protobuf
{

LoadedModuleEvent::LoadedModuleEvent()
    : Event("loadedModule", "loaded-module")
{
}

std::optional<Added> LoadedModuleEvent::AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const
{
    if (!input.actor || input.actor->libraries.empty())
    {
        return std::nullopt;
    }
    auto& field = *batch.mutable_loadedmodule();
    const int before = field.size();
    Added total;
    try
    {
        for (const auto& library : input.actor->libraries)
        {
            const Added added = Add(field,
                                    [&](pb::LoadedModule& message)
                                    {
                                        FillCommon(message, input, context, pb::LOAD);
                                        edr::PathEscape::EscapeTo(library, *message.mutable_modulename());
                                        message.set_uniqueimageid(context.files.RecurringRowIdOf(library));
                                        message.set_processid(input.actor->pid);
                                    });
            total.messages += added.messages;
            total.bytes += added.bytes;
        }
    }
    catch (...)
    {
        // All of the process's modules or none.
        while (field.size() > before)
        {
            field.RemoveLast();
        }
        throw;
    }
    return total;
}

} // namespace vantor::ioc::internal::protobuf
