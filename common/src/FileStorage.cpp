#include "common/FileStorage.h"

#include "common/FileReader.h"
#include "common/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vantor::common
{

namespace
{

[[noreturn]] void Fail(const std::string& what, const std::string& path, int error)
{
    std::string text = what + " " + path;
    if (error != 0)
    {
        text += ": ";
        text += std::strerror(error);
    }
    throw FileStorageException(text, error);
}

// Writes all of data; answers 0 or the errno of the failure.
int WriteAll(int fd, std::string_view data)
{
    while (!data.empty())
    {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            return errno;
        }
        data.remove_prefix(static_cast<size_t>(n));
    }
    return 0;
}

std::string DirectoryOf(const std::string& path)
{
    const auto slash = path.rfind('/');
    if (slash == std::string::npos)
    {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

ino_t FileStorage::Create(const std::string& path, std::string_view data)
{
    const std::string temp = path + std::string(kTempSuffix);
    UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd.Valid())
    {
        Fail("Storage: Failed to create", path, errno);
    }
    int error = WriteAll(fd.Get(), data);
    if (error == 0 && ::fdatasync(fd.Get()) != 0)
    {
        error = errno;
    }
    struct stat st
    {
    };
    if (error == 0 && ::fstat(fd.Get(), &st) != 0)
    {
        error = errno;
    }
    if (const int closeError = fd.Close(); closeError != 0 && error == 0)
    {
        error = closeError;
    }
    if (error != 0)
    {
        ::unlink(temp.c_str());
        Fail("Storage: Failed to write to", path, error);
    }
    if (::rename(temp.c_str(), path.c_str()) != 0)
    {
        error = errno;
        ::unlink(temp.c_str());
        Fail("Storage: Failed to create", path, error);
    }
    // The rename is durable only once the directory itself is synced.
    UniqueFd dir(::open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.Valid())
    {
        ::fsync(dir.Get());
    }
    return st.st_ino;
}

void FileStorage::Append(const std::string& path, std::string_view data, ino_t expectedInode)
{
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW));
    if (!fd.Valid())
    {
        Fail("Storage: Failed to append data to", path, errno);
    }
    struct stat st
    {
    };
    if (::fstat(fd.Get(), &st) != 0)
    {
        Fail("Storage: Failed to stat file", path, errno);
    }
    if (st.st_ino != expectedInode || !S_ISREG(st.st_mode))
    {
        throw FileStorageException(
            "Storage: Failed to append data, file " + path + " was changed/replaced outside", 0);
    }
    int error = WriteAll(fd.Get(), data);
    if (error == 0 && ::fdatasync(fd.Get()) != 0)
    {
        error = errno;
    }
    if (const int closeError = fd.Close(); closeError != 0 && error == 0)
    {
        error = closeError;
    }
    if (error != 0)
    {
        Fail("Storage: Failed to append data to", path, error);
    }
}

ino_t FileStorage::Read(const std::string& path, std::string& data, std::uint64_t maxSize)
{
    data.clear();
    try
    {
        FileReader reader(path, FileReader::Links::NoFollow);
        reader.RequireAtMost(maxSize);
        const std::uint64_t expected = reader.Size();
        const std::uint64_t got = reader.ReadUpTo(data, expected);
        if (got < expected)
        {
            data.clear();
            throw FileStorageException("Storage: Read upto" + std::to_string(got) + " bytes out of" +
                                           std::to_string(expected) + " from" + path,
                                       0);
        }
        return reader.Inode();
    }
    catch (const FileReadException& e)
    {
        switch (e.GetStage())
        {
        case FileReadException::Stage::Stat:
            Fail("Storage: Failed to stat file", path, e.Error());
        case FileReadException::Stage::NotRegular:
            throw FileStorageException("Storage: Failed to read from " + path + ": not a regular file", 0);
        case FileReadException::Stage::Open:
        case FileReadException::Stage::TooLarge:
        case FileReadException::Stage::Read:
            break;
        }
        Fail("Storage: Failed to read from", path, e.Error());
    }
}

FileStorage::Stat FileStorage::GetStat(const std::string& path)
{
    struct stat st
    {
    };
    if (::lstat(path.c_str(), &st) != 0)
    {
        Fail("Storage: Failed to stat file", path, errno);
    }
    Stat result;
    result.size = static_cast<std::uint64_t>(st.st_size);
    result.inode = st.st_ino;
    result.regular = S_ISREG(st.st_mode);
    return result;
}

} // namespace vantor::common
