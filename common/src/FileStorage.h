#pragma once

#include <sys/types.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vantor::common
{

// A failed file operation. Error() is the errno of the failing call, or 0
// when the failure is not a system error (short read, replaced file).
class FileStorageException : public std::runtime_error
{
public:
    FileStorageException(const std::string& what, int error)
        : std::runtime_error(what)
        , m_error(error)
    {
    }

    int Error() const { return m_error; }

private:
    int m_error;
};

// The plain file layer beneath the spool: whole-file create, append, read and
// stat. Files are created under a temporary name and renamed into place, so
// that a reader (or a restart after a crash) never sees a partial file.
class FileStorage
{
public:
    struct Stat
    {
        std::uint64_t size = 0;
        ino_t inode = 0;
        bool regular = false;
    };

    // The temporary name a file is written under before it is renamed.
    static constexpr std::string_view kTempSuffix = ".tmp";

    // Writes data to path, replacing any file there, and makes it durable
    // (data and directory entry) before returning. Returns the new inode.
    static ino_t Create(const std::string& path, std::string_view data);

    // Appends to an existing file whose inode must still be expectedInode.
    static void Append(const std::string& path, std::string_view data, ino_t expectedInode);

    // Reads a whole regular file into data (its previous content is
    // replaced, its capacity reused). Symbolic links are not followed.
    // A file larger than maxSize is refused (EFBIG) rather than loaded.
    // Returns the inode of the file read.
    static ino_t Read(const std::string& path, std::string& data, std::uint64_t maxSize = UINT64_MAX);

    // lstat of path: a symbolic link is reported as not regular.
    static Stat GetStat(const std::string& path);
};

} // namespace vantor::common
