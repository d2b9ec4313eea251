#include "audit/FileEvent.h"

#include "audit/AbsolutePath.h"
#include "common/Logging.h"
#include "common/StatHelper.h"
#include "common/util/Digest.h"

#include <stdexcept>

namespace vantor::audit::internal
{
namespace
{

edr::Event::TimePoint ToTimePoint(const struct timespec& ts)
{
    return edr::Event::TimePoint(std::chrono::duration_cast<edr::Event::TimePoint::duration>(
        std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec)));
}

} // namespace

FileEvent::FileEvent(auparse_state_t* au, const SetAsideRecords& aside, Magic magic)
    : SyscallEvent(au, aside, AuditRecords::kPath | AuditRecords::kCwd)
    , m_magic(std::move(magic))
{
    if (m_records.cwdCount > 1)
    {
        throw edr::EventException("Multiple CWD records found in event");
    }
    unsigned relative = 0;
    for (const auto& path : m_records.paths)
    {
        relative += path.hasName && AbsolutePath::IsRelative(path.name) ? 1 : 0;
    }
    if (relative > 0 && m_records.cwdCount == 0)
    {
        throw edr::EventException(relative == 1 ? "Missing CWD with relative path"
                                                : "Missing CWD with relative paths");
    }
    for (auto& path : m_records.paths)
    {
        if (path.hasName && AbsolutePath::IsRelative(path.name))
        {
            path.name = AbsolutePath::Join(m_records.Cwd(), path.name);
        }
    }
}

FileEvent::Counts FileEvent::CountPaths() const
{
    Counts counts;
    for (const auto& path : m_records.paths)
    {
        switch (path.nameType)
        {
        case PathRecord::NameType::Normal:
            ++counts.normal;
            break;
        case PathRecord::NameType::Create:
            ++counts.create;
            break;
        case PathRecord::NameType::Delete:
            ++counts.remove;
            break;
        case PathRecord::NameType::Parent:
            ++counts.parent;
            break;
        case PathRecord::NameType::Unknown:
            ++counts.other;
            break;
        }
    }
    return counts;
}

const PathRecord* FileEvent::FindPath(PathRecord::NameType type) const
{
    for (const auto& path : m_records.paths)
    {
        if (path.nameType == type)
        {
            return &path;
        }
    }
    return nullptr;
}

const PathRecord* FileEvent::FindLastPath(PathRecord::NameType type) const
{
    for (auto it = m_records.paths.rbegin(); it != m_records.paths.rend(); ++it)
    {
        if (it->nameType == type)
        {
            return &*it;
        }
    }
    return nullptr;
}

size_t FileEvent::IndexOf(const PathRecord* record) const
{
    return IndexIn(m_records.paths, record);
}

size_t FileEvent::IndexIn(const std::vector<PathRecord>& paths, const PathRecord* record)
{
    if (record == nullptr)
    {
        return kNoPath;
    }
    if (record < paths.data() || record >= paths.data() + paths.size())
    {
        throw std::logic_error("FileEvent: a PATH record of another event");
    }
    return static_cast<size_t>(record - paths.data());
}

const PathRecord& FileEvent::PathAt(size_t index) const
{
    static const PathRecord kEmpty;
    return index < m_records.paths.size() ? m_records.paths[index] : kEmpty;
}

void FileEvent::SetObjectPath(const PathRecord& object, const PathRecord* parent)
{
    m_object = IndexOf(&object);
    m_parent = IndexOf(parent);
    m_statMode = StatMode::None;
    m_stat.reset();
}

void FileEvent::SetObject(const PathRecord& object, const PathRecord* parent, StatMode mode,
                          const StatGate& gate, const PathRecord* alsoRouted)
{
    if (!object.hasName)
    {
        throw edr::EventException("Missing path for child");
    }
    SetObjectPath(object, parent);
    const auto routed = [&gate](const PathRecord* record)
    { return record != nullptr && gate(PathOf(*record)); };
    if (gate && !routed(&object) && !routed(alsoRouted))
    {
        return;
    }
    m_statMode = mode;
    if (mode == StatMode::None)
    {
        return;
    }
    const std::string& path = ObjectPath();
    try
    {
        m_stat = common::StatHelper::TryStat(path, mode == StatMode::Follow);
    }
    catch (const common::StatHelperException& e)
    {
        throw edr::EventException(e.what());
    }
    if (m_stat && (m_stat->st_ino != object.inode || m_stat->st_dev != object.device))
    {
        throw edr::EventException("File " + path + " differs from the object of the audit event with ID " +
                                  std::to_string(GetEventId()));
    }
}

std::string FileEvent::MissingStatText() const
{
    if (m_statMode == StatMode::None)
    {
        return "File stat information is not available";
    }
    return "File stat does not exist for " + GetActionName() + " event with ID " +
           std::to_string(GetEventId());
}

const struct stat& FileEvent::RequireStat() const
{
    if (!m_stat)
    {
        throw edr::EventException(MissingStatText());
    }
    return *m_stat;
}

std::string FileEvent::GetFile() const
{
    return ObjectPath();
}

edr::Event::TimePoint FileEvent::GetFileAccessTime() const
{
    return ToTimePoint(RequireStat().st_atim);
}

edr::Event::TimePoint FileEvent::GetFileChangeTime() const
{
    return ToTimePoint(RequireStat().st_ctim);
}

edr::Event::TimePoint FileEvent::GetFileModificationTime() const
{
    return ToTimePoint(RequireStat().st_mtim);
}

uint64_t FileEvent::GetFileSize() const
{
    return static_cast<uint64_t>(RequireStat().st_size);
}

uint32_t FileEvent::GetFileType() const
{
    // An object that is gone (deleted, or removed before the event was
    // built) keeps the type the kernel recorded in its PATH record.
    const mode_t type =
        (m_stat || (Object().mode & S_IFMT) == 0 ? RequireStat().st_mode : Object().mode) & S_IFMT;
    if (type != S_IFREG && type != S_IFDIR && type != S_IFLNK)
    {
        throw edr::EventException("Unsupported file type for " + GetActionName() + " event");
    }
    return type;
}

std::string FileEvent::GetFileTypeDesc() const
{
    if (!m_magic)
    {
        throw edr::EventException("Failed to find type description for " + ObjectPath());
    }
    try
    {
        return m_magic->Describe(ObjectPath());
    }
    catch (const std::runtime_error& e)
    {
        throw edr::EventException(e.what());
    }
}

std::string FileEvent::GetFileContent() const
{
    const struct stat& st = RequireStat();
    std::string content;
    try
    {
        ino_t inode = 0;
        const auto result = common::StatHelper::ReadContent(
            ObjectPath(), content, common::StatHelper::kDefaultMaxContentSize, &inode);
        EDR_LOG_DEBUG("Reading file content from " << ObjectPath() << " (stat: " << st.st_size
                                                   << " bytes. Content: " << content.size() << " bytes)");
        if (inode != st.st_ino)
        {
            m_readStatus = edr::FileReadStatus::ReadFailure;
            throw edr::EventException("The file at " + ObjectPath() + " has been replaced");
        }
        m_readStatus = result == common::StatHelper::ReadResult::SizeLimitReached
                           ? edr::FileReadStatus::MaxSizeLimitReached
                           : edr::FileReadStatus::ReadSuccessful;
    }
    catch (const common::StatHelperException& e)
    {
        m_readStatus = edr::FileReadStatus::ReadFailure;
        throw edr::EventException("Failed to read contents of file " + ObjectPath() + ": " + e.what());
    }
    return content;
}

std::string FileEvent::GetFileContentHash(edr::HashType type) const
{
    util::Digest::Algorithm algorithm{};
    const char* failure = nullptr;
    switch (type)
    {
    case edr::HashType::Md5:
        algorithm = util::Digest::Algorithm::Md5;
        failure = "Failed to generate MD5 for ";
        break;
    case edr::HashType::Sha1:
        algorithm = util::Digest::Algorithm::Sha1;
        failure = "Failed to generate sha1 for ";
        break;
    case edr::HashType::Sha256:
        algorithm = util::Digest::Algorithm::Sha256;
        failure = "Failed to generate sha256 for ";
        break;
    default:
        throw edr::EventException("Unsupported type of content hash requested: " +
                                  std::to_string(static_cast<int>(type)));
    }
    try
    {
        return util::Digest::HexOfFile(algorithm, ObjectPath(), common::StatHelper::kDefaultMaxContentSize);
    }
    catch (const std::runtime_error& e)
    {
        throw edr::EventException(failure + ObjectPath() + ": " + e.what());
    }
}

uint32_t FileEvent::GetCategory() const
{
    return static_cast<uint32_t>(edr::EventCategory::File);
}

uint64_t FileEvent::GetParentInode() const
{
    if (m_parent == kNoPath)
    {
        throw edr::EventException("Failed to get parent inode/deviceid for " + GetActionName() + " event");
    }
    return PathAt(m_parent).inode;
}

uint64_t FileEvent::GetParentDeviceID() const
{
    if (m_parent == kNoPath)
    {
        throw edr::EventException("Failed to get parent inode/deviceid for " + GetActionName() + " event");
    }
    return PathAt(m_parent).device;
}

std::string FileEvent::GetCwd() const
{
    return std::string(m_records.Cwd());
}

edr::FileReadStatus FileEvent::GetFileReadStatus() const
{
    return m_readStatus;
}

bool FileEvent::IsSymlink() const
{
    return S_ISLNK(Object().mode);
}

void FileEvent::Refresh()
{
    if (m_statMode == StatMode::None)
    {
        return;
    }
    try
    {
        m_stat = common::StatHelper::TryStat(ObjectPath(), m_statMode == StatMode::Follow);
    }
    catch (const common::StatHelperException& e)
    {
        throw edr::EventException(e.what());
    }
    m_readStatus = edr::FileReadStatus::NotRead;
}

} // namespace vantor::audit::internal
