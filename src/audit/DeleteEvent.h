#pragma once

#include "audit/FileEvent.h"

namespace vantor::audit::internal
{

// A removed file system object; also the target that a rename replaced.
// The object is gone, so no stat is taken.
class DeleteEvent : public FileEvent
{
public:
    DeleteEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic);
    // The target that a rename replaced (its second DELETE record).
    DeleteEvent(const FileEvent& rename, const PathRecord& replaced);

    std::unique_ptr<edr::Event> Clone() const override;
    edr::EventType GetType() const override;
    std::string GetActionName() const override;
};

} // namespace vantor::audit::internal
