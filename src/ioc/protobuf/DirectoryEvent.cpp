#include "ioc/protobuf/DirectoryEvent.h"

#include "common/Logging.h"
#include "common/StatHelper.h"
#include "edr/PathEscape.h"
#include "ioc/EventFields.h"

#include <stdexcept>

namespace vantor::ioc::internal::protobuf
{

namespace
{

int64_t MillisOf(const struct timespec& time)
{
    return static_cast<int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

} // namespace

DirectoryEvent::DirectoryEvent()
    : Event("directoryEvent", "directory")
{
}

std::optional<Added> DirectoryEvent::AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const
{
    const edr::Event& event = input.event;
    const auto action = EventActions::ActionOf(event.GetType());
    const auto oldPath = EventFields::File(event);
    if (!oldPath)
    {
        EDR_LOG_DEBUG("Skip adding directory event:"
                      << EventFields::Try([&] { return event.GetFile(); }).value_or("") << " in protobuf");
        return std::nullopt;
    }
    const std::string path = action == pb::RENAME ? EventFields::NewFile(event).value_or(*oldPath) : *oldPath;
    const auto stored = context.files.ReadDirectory(SnapshotFiles::RowIdOf(*oldPath));
    if (action == pb::DELETE && !stored)
    {
        EDR_LOG_DEBUG("Dropping delete event for unreported directory: " << path);
        return std::nullopt;
    }
    SnapshotFiles::DirectoryRow row{SnapshotFiles::RowIdOf(path), path, {}};
    if (stored)
    {
        row.times = stored->times;
    }
    const Added added =
        Add(*batch.mutable_directoryevent(),
            [&](pb::DirectoryEvent& message)
            {
                FillCommon(message, input, context, action);
                edr::PathEscape::EscapeTo(path, *message.mutable_path());
                if (const auto time = EventFields::Try([&] { return event.GetFileModificationTime(); }))
                {
                    row.times.lastWrite = Event::Millis(*time);
                }
                if (const auto time = EventFields::Try([&] { return event.GetFileAccessTime(); }))
                {
                    row.times.lastAccess = Event::Millis(*time);
                }
                if (const auto time = EventFields::Try([&] { return event.GetFileChangeTime(); }))
                {
                    row.times.lastChange = Event::Millis(*time);
                }
                if (action == pb::CREATE)
                {
                    row.times.creation = static_cast<int64_t>(event.GetTimestamp());
                }
                message.set_creationtime(row.times.creation);
                message.set_lastwritetime(row.times.lastWrite);
                message.set_lastaccesstime(row.times.lastAccess);
                message.set_lastchangetime(row.times.lastChange);
            });
    UpdateSnapshot(context.files, action, *oldPath, row);
    return added;
}

void DirectoryEvent::UpdateSnapshot(SnapshotFiles& files, pb::EventAction action, const std::string& oldPath,
                                    const SnapshotFiles::DirectoryRow& row)
{
    const bool stored = UpdateRow(
        action, [&] { return files.DeleteDirectory(SnapshotFiles::RowIdOf(oldPath)); },
        [&] { return files.WriteDirectory(row); });
    if (!stored)
    {
        EDR_LOG_ERROR("Failed to update 'Directory' table in snapshot for " << row.path);
    }
}

std::string DirectoryEvent::EnsureRow(SnapshotFiles& files, std::string_view path)
{
    if (path.empty())
    {
        throw std::runtime_error("no directory path");
    }
    const std::string& rowId = files.RecurringRowIdOf(path);
    if (files.HasDirectory(rowId))
    {
        return rowId;
    }
    SnapshotFiles::DirectoryRow row{rowId, std::string(path), {}};
    if (const auto st = common::StatHelper::TryStat(row.path, true))
    {
        row.times = {0, MillisOf(st->st_mtim), MillisOf(st->st_atim), MillisOf(st->st_ctim)};
    }
    if (!files.WriteDirectory(row))
    {
        throw std::runtime_error("the row of " + row.path + " cannot be written");
    }
    return rowId;
}

} // namespace vantor::ioc::internal::protobuf
