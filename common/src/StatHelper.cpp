#include "common/StatHelper.h"

#include "common/FileReader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits.h>

namespace vantor::common
{
namespace
{

std::string Describe(const char* what, const std::string& path, int error)
{
    std::string text(what);
    text.append(path).append(": ").append(std::strerror(error));
    return text;
}

} // namespace

std::optional<struct stat> StatHelper::TryStat(const std::string& path, bool followLinks)
{
    struct stat st
    {
    };
    const int rc = followLinks ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st);
    if (rc == 0)
    {
        return st;
    }
    const int error = errno;
    if (error == ENOENT || error == ENOTDIR)
    {
        return std::nullopt;
    }
    throw StatHelperException(Describe(followLinks ? "Failed to stat " : "Failed to lstat ", path, error),
                              error);
}

struct stat StatHelper::Stat(const std::string& path)
{
    struct stat st
    {
    };
    if (::stat(path.c_str(), &st) != 0)
    {
        const int error = errno;
        throw StatHelperException(Describe("Failed to stat ", path, error), error);
    }
    return st;
}

struct stat StatHelper::Lstat(const std::string& path)
{
    struct stat st
    {
    };
    if (::lstat(path.c_str(), &st) != 0)
    {
        const int error = errno;
        throw StatHelperException(Describe("Failed to lstat ", path, error), error);
    }
    return st;
}

std::string StatHelper::ReadLink(const std::string& path)
{
    char buffer[PATH_MAX];
    const ssize_t n = ::readlink(path.c_str(), buffer, sizeof buffer);
    if (n < 0)
    {
        const int error = errno;
        throw StatHelperException(Describe("Failed to resolve link ", path, error), error);
    }
    if (static_cast<size_t>(n) == sizeof buffer)
    {
        throw StatHelperException("Failed to resolve link " + path + ": target too long", ENAMETOOLONG);
    }
    return std::string(buffer, static_cast<size_t>(n));
}

StatHelper::ReadResult StatHelper::ReadContent(const std::string& path, std::string& content,
                                               std::uint64_t maxSize, ino_t* inode)
{
    try
    {
        FileReader reader(path, FileReader::Links::Follow);
        if (inode != nullptr)
        {
            *inode = reader.Inode();
        }
        // The size may change while reading; the limit is what bounds memory.
        reader.ReadUpTo(content, std::min(reader.Size(), maxSize));
        return reader.Size() > maxSize ? ReadResult::SizeLimitReached : ReadResult::Complete;
    }
    catch (const FileReadException& e)
    {
        throw StatHelperException(e.what(), e.Error());
    }
}

} // namespace vantor::common
