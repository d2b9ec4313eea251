#pragma once

#include "ioc/SnapshotFiles.h"
#include "ioc/protobuf/Event.h"

namespace vantor::ioc::internal::protobuf
{

// File events ("fileEvent"): fileName, fullPath (the new path of a rename),
// oldPath (the old path of a rename), extension, parentDirectoryId (the
// RowID of the parent directory's row, which is made when missing), size,
// the four times, type (FileTypeIdentifier), md5, sha1 and sha256.
//
// - The times and size come from the event's stat; a file that is gone
//   keeps what its snapshot row holds. The creation time is the event time
//   of a create, else what the row holds (Linux keeps none).
// - Hashes: not for a delete or when the caller forbids them ("Ignoring
//   content hash for event with ID <id>"; a delete reports the row's), not
//   for what is no regular file, not for a file larger than
//   maxFileSizeToProcess ("File size being truncated for file <path>: <size>",
//   which is not typed either). A file gone before it could be read logs
//   "Failed to hash content of <path> for short-lived file".
// - A delete of a file without a snapshot row was never reported and is
//   dropped ("Dropping delete event for unreported file: <path>").
// - UpdateSnapshot writes the file's row (a delete removes it, a rename
//   moves it to the new path); a failure logs "Failed to update 'File'
//   table in snapshot DB for file <path>" and the event is still reported.
class FileEvent : public Event
{
public:
    FileEvent();

    std::optional<Added> AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const override;

    // oldRowId: the row id of the event's (old) path; row carries the new.
    static void UpdateSnapshot(SnapshotFiles& files, pb::EventAction action, const std::string& oldRowId,
                               const std::string& path, SnapshotFiles::FileRow row);

private:
    void Fill(pb::FileEvent& message, const Input& input, Context& context, pb::EventAction action,
              const std::string& oldPath, const std::string& path,
              const std::optional<SnapshotFiles::FileRow>& stored, SnapshotFiles::FileRow& row) const;
};

} // namespace vantor::ioc::internal::protobuf
