#include "common/StatHelper.h"

#include <fcntl.h>
#include <unistd.h>

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

// Closes the descriptor on every path out of ReadContent.
class FdCloser
{
public:
    explicit FdCloser(int fd)
        : m_fd(fd)
    {
    }
    ~FdCloser() { ::close(m_fd); }
    FdCloser(const FdCloser&) = delete;
    FdCloser& operator=(const FdCloser&) = delete;

private:
    int m_fd;
};

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
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
    {
        const int error = errno;
        throw StatHelperException(Describe("Failed to open ", path, error), error);
    }
    FdCloser closer(fd);
    struct stat st
    {
    };
    if (::fstat(fd, &st) != 0)
    {
        const int error = errno;
        throw StatHelperException(Describe("Failed to stat ", path, error), error);
    }
    if (!S_ISREG(st.st_mode))
    {
        throw StatHelperException("Not a regular file: " + path, 0);
    }
    if (inode != nullptr)
    {
        *inode = st.st_ino;
    }
    // The size may change while reading; the limit is what bounds memory.
    const std::uint64_t want = std::min<std::uint64_t>(static_cast<std::uint64_t>(st.st_size), maxSize);
    content.clear();
    content.resize(want);
    std::uint64_t got = 0;
    while (got < want)
    {
        const ssize_t n = ::read(fd, content.data() + got, want - got);
        if (n < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            const int error = errno;
            throw StatHelperException(Describe("Failed to read ", path, error), error);
        }
        if (n == 0)
        {
            break;
        }
        got += static_cast<std::uint64_t>(n);
    }
    content.resize(got);
    return static_cast<std::uint64_t>(st.st_size) > maxSize ? ReadResult::SizeLimitReached
                                                            : ReadResult::Complete;
}

} // namespace vantor::common
