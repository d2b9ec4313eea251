#include "common/UniqueFd.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vantor::common
{

UniqueFd::UniqueFd(int fd) noexcept
    : m_fd(fd < 0 ? -1 : fd)
{
}

UniqueFd::~UniqueFd()
{
    Reset();
}

UniqueFd::UniqueFd(UniqueFd&& other) noexcept
    : m_fd(other.Release())
{
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept
{
    if (this != &other)
    {
        Reset(other.Release());
    }
    return *this;
}

int UniqueFd::Release() noexcept
{
    return std::exchange(m_fd, -1);
}

void UniqueFd::Reset(int fd) noexcept
{
    const int old = std::exchange(m_fd, fd < 0 ? -1 : fd);
    if (old >= 0 && old != m_fd)
    {
        ::close(old);
    }
}

int UniqueFd::Close() noexcept
{
    const int fd = Release();
    if (fd < 0 || ::close(fd) == 0)
    {
        return 0;
    }
    return errno;
}

} // namespace vantor::common
