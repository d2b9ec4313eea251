#include "fim/ContentReader.h"

#include "common/util/Digest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

namespace vantor::fim::internal
{

namespace
{

struct FdCloser
{
    int fd;
    ~FdCloser()
    {
        if (fd >= 0)
        {
            ::close(fd);
        }
    }
};

} // namespace

const char* ContentReader::ContentStatusText(ContentStatus status)
{
    switch (status)
    {
    case ContentStatus::ReadSuccessful:
        return "READ_SUCCESSFUL";
    case ContentStatus::MaxSizeLimitReached:
        return "MAX_SIZE_LIMIT_REACHED";
    case ContentStatus::ReadFailure:
        break;
    }
    return "READ_FAILURE";
}

ContentReader::Content ContentReader::Read(const std::string& path, bool wantData, bool wantHash)
{
    Content content;
    FdCloser file{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY)};
    struct stat info
    {
    };
    if (file.fd < 0 || ::fstat(file.fd, &info) != 0 || !S_ISREG(info.st_mode))
    {
        return content;
    }
    std::optional<util::Digest> digest;
    if (wantHash)
    {
        try
        {
            digest.emplace(util::Digest::Algorithm::Sha256);
        }
        catch (const std::exception&)
        {
            return content; // no digest context: the content cannot be vouched for
        }
    }
    // Not zeroed: only what read() fills is used.
    std::array<char, 65536> buffer;
    if (wantData)
    {
        content.data.reserve(static_cast<size_t>(std::min<uint64_t>(
            static_cast<uint64_t>(std::max<off_t>(info.st_size, 0)), kMaxContentSize + 1)));
    }
    for (;;)
    {
        // Without a hash nothing past the limit is needed.
        if (!wantHash && content.size > kMaxContentSize)
        {
            break;
        }
        const ssize_t n = ::read(file.fd, buffer.data(), buffer.size());
        if (n < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            content.data.clear();
            content.sha256.clear();
            content.status = ContentStatus::ReadFailure;
            return content;
        }
        if (n == 0)
        {
            break;
        }
        if (wantData && content.size <= kMaxContentSize)
        {
            content.data.append(buffer.data(), static_cast<size_t>(std::min<uint64_t>(n, kMaxContentSize + 1 -
                                                                                             content.size)));
        }
        content.size += static_cast<uint64_t>(n);
        if (digest)
        {
            digest->Update(std::string_view(buffer.data(), static_cast<size_t>(n)));
        }
    }
    if (content.size > kMaxContentSize)
    {
        content.status = ContentStatus::MaxSizeLimitReached;
        content.data.clear();
    }
    else
    {
        content.status = ContentStatus::ReadSuccessful;
    }
    if (digest)
    {
        content.sha256 = digest->FinishHex();
    }
    return content;
}

} // namespace vantor::fim::internal
