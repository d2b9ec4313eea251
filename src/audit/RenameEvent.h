#pragma once

#include "audit/FileEvent.h"

namespace vantor::audit::internal
{

// A rename: GetFile is the source, GetNewFile the destination.
class RenameEvent : public FileEvent
{
public:
    // A gate that routes none of its paths spares the stat (see SetObject).
    RenameEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic, const StatGate& gate = {});

    std::unique_ptr<edr::Event> Clone() const override;
    edr::EventType GetType() const override;
    std::string GetActionName() const override;
    // The source; file state (stat, content) is the destination's.
    std::string GetFile() const override;
    std::string GetNewFile() const override;
    uint64_t GetParentInode() const override;
    uint64_t GetParentDeviceID() const override;

    // The target replaced by the rename, if there was one.
    const PathRecord* GetReplaced() const { return m_replaced != kNoPath ? &PathAt(m_replaced) : nullptr; }

protected:
    std::string MissingStatText() const override;

private:
    // Places of the records in the event's PATH records.
    size_t m_source = kNoPath;
    size_t m_destination = kNoPath;
    size_t m_destinationParent = kNoPath;
    size_t m_replaced = kNoPath;
};

} // namespace vantor::audit::internal
