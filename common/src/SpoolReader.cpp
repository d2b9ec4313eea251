#include "common/SpoolReader.h"

#include "common/FileStorage.h"
#include "common/Logging.h"

#include <cerrno>

namespace vantor::common::internal
{
namespace
{

// The spool never writes a file near this size: anything larger was
// planted and is not loaded into memory.
constexpr std::uint64_t kMaxReadSize = SpoolStorage::kLimitMaxFileSizeKb * 1024 * 2;

// Errors that say nothing about the file itself: it is kept for a retry.
bool IsTransient(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR || error == EAGAIN;
}

} // namespace

SpoolReader::SpoolReader(SpoolFileIndex& files)
    : m_files(files)
{
}

SpoolStorage::ReadStatus SpoolReader::ReadOldest(SpoolStorage::File& file)
{
    while (SpoolFileIndex::Entry* oldest = m_files.Oldest())
    {
        file.path = m_files.FileName(oldest->index);
        EDR_LOG_DEBUG("SpoolStorage: Read file: " << file.path);
        try
        {
            const ino_t inode = FileStorage::Read(file.path, file.data, kMaxReadSize);
            if (inode != oldest->inode)
            {
                // Replaced outside the spool; what is there now is what goes.
                m_files.Replace(*oldest, inode, file.data.size());
            }
            file.index = oldest->index;
            file.inode = oldest->inode;
            file.id = oldest->id;
            EDR_LOG_DEBUG("SpoolStorage: Successfully read file: " << file.path);
            return SpoolStorage::ReadStatus::Ok;
        }
        catch (const FileStorageException& e)
        {
            EDR_LOG_ERROR("SpoolStorage: Failed to read file: " << file.path << " (" << e.what() << ")");
            const int error = e.Error();
            if (IsTransient(error))
            {
                return SpoolStorage::ReadStatus::Failed;
            }
            if (error != ENOENT && !SpoolFileIndex::Unlink(file.path))
            {
                return SpoolStorage::ReadStatus::Failed;
            }
            m_files.Forget(*oldest);
            if (error != ENOENT)
            {
                return SpoolStorage::ReadStatus::Failed;
            }
            // Gone already: go on with the next one.
        }
    }
    file = SpoolStorage::File{};
    return SpoolStorage::ReadStatus::Empty;
}

bool SpoolReader::Delete(const SpoolStorage::File& file)
{
    SpoolFileIndex::Entry* entry = m_files.FindIndex(file.index);
    if (entry == nullptr || entry->inode != file.inode || entry->id != file.id)
    {
        EDR_LOG_INFO("SpoolStorage: Files have been renamed. Searching for an inode match for " << file.path);
        entry = m_files.FindIdentity(file.inode, file.id);
    }
    if (entry == nullptr)
    {
        EDR_LOG_ERROR("Failed to delete file with index " << file.index);
        return false;
    }
    return m_files.Delete(*entry);
}

} // namespace vantor::common::internal
