#include "common/util/SmallFile.h"

#include "common/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vantor::util
{

bool ReadSmallFile(const std::string& path, std::string& text, std::size_t maxBytes)
{
    const common::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
    {
        return false;
    }
    text.clear();
    char buffer[4096];
    for (;;)
    {
        const ssize_t n = ::read(fd.Get(), buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR)
        {
            continue;
        }
        if (n < 0)
        {
            return false;
        }
        if (n == 0)
        {
            return true;
        }
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() > maxBytes)
        {
            return true;
        }
    }
}

} // namespace vantor::util
