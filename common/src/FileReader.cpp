#include "common/FileReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace vantor::common
{
namespace
{

std::string Describe(FileReadException::Stage stage, const std::string& path, int error)
{
    using Stage = FileReadException::Stage;
    switch (stage)
    {
    case Stage::NotRegular:
        return "Not a regular file: " + path;
    case Stage::TooLarge:
        return "File too large: " + path;
    case Stage::Open:
        return "Failed to open " + path + ": " + std::strerror(error);
    case Stage::Stat:
        return "Failed to stat " + path + ": " + std::strerror(error);
    case Stage::Read:
        break;
    }
    return "Failed to read " + path + ": " + std::strerror(error);
}

} // namespace

FileReadException::FileReadException(Stage stage, const std::string& path, int error)
    : std::runtime_error(Describe(stage, path, error))
    , m_stage(stage)
    , m_error(error)
{
}

FileReader::FileReader(std::string path, Links links)
    : m_path(std::move(path))
{
    const int flags =
        O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (links == Links::NoFollow ? O_NOFOLLOW : 0);
    m_fd.Reset(::open(m_path.c_str(), flags));
    if (!m_fd)
    {
        throw FileReadException(FileReadException::Stage::Open, m_path, errno);
    }
    struct stat st
    {
    };
    if (::fstat(m_fd.Get(), &st) != 0)
    {
        throw FileReadException(FileReadException::Stage::Stat, m_path, errno);
    }
    if (!S_ISREG(st.st_mode))
    {
        throw FileReadException(FileReadException::Stage::NotRegular, m_path, 0);
    }
    m_size = static_cast<std::uint64_t>(st.st_size);
    m_inode = st.st_ino;
}

void FileReader::RequireAtMost(std::uint64_t maxSize) const
{
    if (m_size > maxSize)
    {
        throw FileReadException(FileReadException::Stage::TooLarge, m_path, EFBIG);
    }
}

std::size_t FileReader::ReadSome(char* buffer, std::size_t size)
{
    for (;;)
    {
        const ssize_t n = ::read(m_fd.Get(), buffer, size);
        if (n >= 0)
        {
            return static_cast<std::size_t>(n);
        }
        if (errno != EINTR)
        {
            throw FileReadException(FileReadException::Stage::Read, m_path, errno);
        }
    }
}

std::uint64_t FileReader::ReadUpTo(std::string& out, std::uint64_t maxBytes)
{
    out.resize(static_cast<std::size_t>(maxBytes));
    std::uint64_t got = 0;
    try
    {
        while (got < maxBytes)
        {
            const std::size_t n = ReadSome(out.data() + got, static_cast<std::size_t>(maxBytes - got));
            if (n == 0)
            {
                break;
            }
            got += n;
        }
    }
    catch (...)
    {
        out.clear();
        throw;
    }
    out.resize(static_cast<std::size_t>(got));
    return got;
}

std::uint64_t FileReader::ForEachChunk(const std::function<bool(std::string_view)>& sink,
                                       std::uint64_t maxTotal)
{
    // On the heap: readers run on threads with small stacks too.
    const auto buffer = std::make_unique<char[]>(kChunkSize);
    std::uint64_t total = 0;
    for (;;)
    {
        const std::size_t n = ReadSome(buffer.get(), kChunkSize);
        if (n == 0)
        {
            return total;
        }
        total += n;
        if (total > maxTotal)
        {
            throw FileReadException(FileReadException::Stage::TooLarge, m_path, EFBIG);
        }
        if (!sink(std::string_view(buffer.get(), n)))
        {
            return total;
        }
    }
}

} // namespace vantor::common
