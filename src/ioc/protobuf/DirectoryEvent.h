#pragma once

#include "ioc/SnapshotFiles.h"
#include "ioc/protobuf/Event.h"

namespace vantor::ioc::internal::protobuf
{

// Directory events ("directoryEvent"): path (the new path of a rename) and
// the four times (from the event's stat; a directory that is gone keeps its
// row's, Linux keeps no creation time: the event time of a create, else the
// row's).
//
// - An event without a path logs "Skip adding directory event:<path> in
//   protobuf" and is dropped.
// - A delete of a directory without a snapshot row was never reported and
//   is dropped ("Dropping delete event for unreported directory: <path>").
// - UpdateSnapshot writes the directory's row (a delete removes it, a rename
//   moves it); a failure logs "Failed to update 'Directory' table in
//   snapshot for <path>" and the event is still reported.
class DirectoryEvent : public Event
{
public:
    DirectoryEvent();

    std::optional<Added> AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const override;

    static void UpdateSnapshot(SnapshotFiles& files, pb::EventAction action, const std::string& oldPath,
                               const SnapshotFiles::DirectoryRow& row);

    // The RowID of the directory's row, made (with the directory's times as
    // it is now) when missing. Throws std::runtime_error when the path is
    // empty or the row can be neither read nor written.
    static std::string EnsureRow(SnapshotFiles& files, std::string_view path);
};

} // namespace vantor::ioc::internal::protobuf
