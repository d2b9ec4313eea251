#include "tests/support/TmpfsMount.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <unistd.h>

namespace vantor::test
{

namespace
{
constexpr const char* kFiller = "/filler";
} // namespace

std::string TmpfsMount::Mount(const std::string& path, std::size_t sizeKb)
{
    std::filesystem::create_directories(path);
    const std::string options = "size=" + std::to_string(sizeKb) + "k,mode=0700";
    if (::mount("tmpfs", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
    {
        const int error = errno;
        if (error == EPERM)
        {
            return "mounting a tmpfs needs root";
        }
        ADD_FAILURE() << "mount tmpfs on " << path << ": " << std::strerror(error);
        return {};
    }
    m_path = path;
    m_mounted = true;
    return {};
}

TmpfsMount::~TmpfsMount()
{
    if (m_mounted)
    {
        EXPECT_EQ(::umount2(m_path.c_str(), MNT_DETACH), 0) << m_path << ": " << std::strerror(errno);
    }
}

void TmpfsMount::Fill()
{
    const int fd = ::open((m_path + kFiller).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    const std::string chunk(4096, 'f');
    while (::write(fd, chunk.data(), chunk.size()) > 0)
    {
    }
    EXPECT_EQ(errno, ENOSPC);
    // The last partial page as well.
    while (::write(fd, chunk.data(), 1) > 0)
    {
    }
    ::close(fd);
}

void TmpfsMount::Free()
{
    std::filesystem::remove(m_path + kFiller);
}

std::size_t TmpfsMount::Usage(const std::string& directory)
{
    std::size_t bytes = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory, error))
    {
        std::error_code sizeError;
        const auto size = entry.is_regular_file(sizeError) ? entry.file_size(sizeError) : 0;
        bytes += sizeError ? 0 : size;
    }
    return bytes;
}

} // namespace vantor::test
