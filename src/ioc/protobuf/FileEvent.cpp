#include "ioc/protobuf/FileEvent.h"

#include "common/FileReader.h"
#include "common/Logging.h"
#include "common/StatHelper.h"
#include "common/util/Digest.h"
#include "edr/PathEscape.h"
#include "ioc/EventFields.h"
#include "ioc/FileTypeIdentifier.h"
#include "ioc/protobuf/DirectoryEvent.h"

#include <sys/stat.h>

#include <cerrno>

namespace vantor::ioc::internal::protobuf
{

namespace
{

struct Hashes
{
    std::string md5;
    std::string sha1;
    std::string sha256;
};

// The three digests in one read of the file; nothing when it cannot be read.
std::optional<Hashes> HashContent(const std::string& path, uint64_t maxSize)
{
    try
    {
        common::FileReader reader(path, common::FileReader::Links::NoFollow);
        reader.RequireAtMost(maxSize);
        util::Digest md5(util::Digest::Algorithm::Md5);
        util::Digest sha1(util::Digest::Algorithm::Sha1);
        util::Digest sha256(util::Digest::Algorithm::Sha256);
        reader.ForEachChunk(
            [&](std::string_view chunk)
            {
                md5.Update(chunk);
                sha1.Update(chunk);
                sha256.Update(chunk);
                return true;
            },
            maxSize);
        return Hashes{md5.FinishHex(), sha1.FinishHex(), sha256.FinishHex()};
    }
    catch (const common::FileReadException& e)
    {
        if (e.Error() == ENOENT)
        {
            EDR_LOG_DEBUG("Failed to hash content of " << path << " for short-lived file");
        }
        else
        {
            EDR_LOG_DEBUG("Failed to hash content of " << path << ": " << e.what());
        }
    }
    catch (const std::runtime_error& e)
    {
        EDR_LOG_DEBUG("Failed to hash content of " << path << ": " << e.what());
    }
    return std::nullopt;
}

std::string_view ExtensionOf(std::string_view name)
{
    const auto dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot + 1);
}

} // namespace

FileEvent::FileEvent()
    : Event("fileEvent", "file")
{
}

std::optional<Added> FileEvent::AddTo(pb::IoCEvent& batch, const Input& input, Context& context) const
{
    const auto action = EventActions::ActionOf(input.event.GetType());
    const auto oldPath = EventFields::File(input.event);
    if (!oldPath)
    {
        throw std::runtime_error("the event names no file");
    }
    std::optional<std::string> newPath;
    if (action == pb::RENAME)
    {
        newPath = EventFields::NewFile(input.event);
    }
    const std::string& path = newPath ? *newPath : *oldPath;
    // The row ids are digests of the paths: each is made once per event.
    const std::string oldRowId = SnapshotFiles::RowIdOf(*oldPath);
    const auto stored = context.files.ReadFile(oldRowId);
    if (action == pb::DELETE && !stored)
    {
        EDR_LOG_DEBUG("Dropping delete event for unreported file: " << path);
        return std::nullopt;
    }
    SnapshotFiles::FileRow row;
    row.rowId = path == *oldPath ? oldRowId : SnapshotFiles::RowIdOf(path);
    const Added added = Add(*batch.mutable_fileevent(), [&](pb::FileEvent& message)
                            { Fill(message, input, context, action, *oldPath, path, stored, row); });
    UpdateSnapshot(context.files, action, oldRowId, path, std::move(row));
    return added;
}

void FileEvent::Fill(pb::FileEvent& message, const Input& input, Context& context, pb::EventAction action,
                     const std::string& oldPath, const std::string& path,
                     const std::optional<SnapshotFiles::FileRow>& stored, SnapshotFiles::FileRow& row) const
{
    const edr::Event& event = input.event;
    FillCommon(message, input, context, action);
    edr::PathEscape::EscapeTo(path, *message.mutable_fullpath());
    const std::string_view name = BaseName(path);
    edr::PathEscape::EscapeTo(name, *message.mutable_filename());
    const std::string_view extension = ExtensionOf(name);
    if (!extension.empty())
    {
        edr::PathEscape::EscapeTo(extension, *message.mutable_extension());
    }
    if (action == pb::RENAME)
    {
        edr::PathEscape::EscapeTo(oldPath, *message.mutable_oldpath());
    }
    FillMetadata(*message.mutable_agentmetadata(), input, context);

    if (stored)
    {
        row.size = stored->size;
        row.times = stored->times;
    }
    const std::string_view parent = ParentOf(path);
    try
    {
        row.parentId = DirectoryEvent::EnsureRow(context.files, parent);
        message.set_parentdirectoryid(row.parentId);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Failed to generate directory ID for: " << parent);
        EDR_LOG_DEBUG("Failed to generate directory ID: " << e.what());
    }

    // A file that was gone when the event was made has no size or times:
    // the stored row's stay.
    std::optional<edr::Event::TimePoint> modified;
    std::optional<edr::Event::TimePoint> changed;
    if (event.HasFileStat())
    {
        row.size =
            static_cast<int64_t>(EventFields::Try([&] { return event.GetFileSize(); }).value_or(row.size));
        modified = EventFields::Try([&] { return event.GetFileModificationTime(); });
        if (modified)
        {
            row.times.lastWrite = Millis(*modified);
        }
        if (const auto accessed = EventFields::Try([&] { return event.GetFileAccessTime(); }))
        {
            row.times.lastAccess = Millis(*accessed);
        }
        changed = EventFields::Try([&] { return event.GetFileChangeTime(); });
        if (changed)
        {
            row.times.lastChange = Millis(*changed);
        }
    }
    if (action == pb::CREATE)
    {
        row.times.creation = static_cast<int64_t>(event.GetTimestamp());
    }
    message.set_size(row.size);
    message.set_creationtime(row.times.creation);
    message.set_lastwritetime(row.times.lastWrite);
    message.set_lastaccesstime(row.times.lastAccess);
    message.set_lastchangetime(row.times.lastChange);

    const uint32_t mode = EventFields::Try([&] { return event.GetFileType(); }).value_or(0);
    const uint64_t limit = context.maxFileSizeToProcess;
    const bool tooLarge = limit != 0 && static_cast<uint64_t>(row.size) > limit;
    if (tooLarge)
    {
        EDR_LOG_DEBUG("File size being truncated for file " << path << ": " << row.size);
    }
    // The event's stat names the content's version; without it the file is
    // described afresh.
    std::optional<FileTypeIdentifier::Version> version;
    if (modified && changed)
    {
        version = FileTypeIdentifier::Version{modified->time_since_epoch().count(),
                                              changed->time_since_epoch().count(), row.size};
    }
    message.set_type(tooLarge || action == pb::DELETE ? FileTypeIdentifier::KindText(mode)
                                                      : context.types.Identify(path, mode, version));

    if (!input.hashContent || action == pb::DELETE)
    {
        EDR_LOG_DEBUG("Ignoring content hash for event with ID " << event.GetEventId());
        // A deleted file is reported with what it last held.
        if (stored && action == pb::DELETE)
        {
            row.md5 = stored->md5;
            row.sha1 = stored->sha1;
            row.sha256 = stored->sha256;
        }
    }
    else if ((mode & S_IFMT) == S_IFREG && !tooLarge)
    {
        const uint64_t maxSize = limit != 0 ? limit : common::StatHelper::kDefaultMaxContentSize;
        if (auto hashes = HashContent(path, maxSize))
        {
            row.md5 = std::move(hashes->md5);
            row.sha1 = std::move(hashes->sha1);
            row.sha256 = std::move(hashes->sha256);
        }
    }
    message.set_md5(row.md5);
    message.set_sha1(row.sha1);
    message.set_sha256(row.sha256);
}

void FileEvent::UpdateSnapshot(SnapshotFiles& files, pb::EventAction action, const std::string& oldRowId,
                               const std::string& path, SnapshotFiles::FileRow row)
{
    const bool stored = UpdateRow(
        action, [&] { return files.DeleteFile(oldRowId); }, [&] { return files.WriteFile(std::move(row)); });
    if (!stored)
    {
        EDR_LOG_ERROR("Failed to update 'File' table in snapshot DB for file " << path);
    }
}

} // namespace vantor::ioc::internal::protobuf
