#include "common/FileStorage.h"
#include "common/UniqueFd.h"
#include "tests/common/src/CommonTestHelpers.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <filesystem>
#include <utility>

using ::testing::HasSubstr;
using vantor::common::FileStorage;
using vantor::common::FileStorageException;
using vantor::common::UniqueFd;

namespace
{

class FileStorageTest : public ::testing::Test
{
protected:
    vantor::test::TempDir m_tmp;
    const std::string m_dir = m_tmp.Path();
};

const auto ErrorOf = vantor::test::ErrorOf<FileStorageException>;

TEST_F(FileStorageTest, CreateReplacesWholeFileAndLeavesNoTemporary)
{
    const std::string path = m_dir + "/f";
    const ino_t first = FileStorage::Create(path, "first content");
    const ino_t second = FileStorage::Create(path, std::string("a\0b", 3));

    std::string data = "stale";
    EXPECT_EQ(FileStorage::Read(path, data), second);
    EXPECT_EQ(data, std::string("a\0b", 3));
    EXPECT_NE(first, 0u);
    EXPECT_FALSE(std::filesystem::exists(path + std::string(FileStorage::kTempSuffix)));
    EXPECT_EQ((std::filesystem::status(path).permissions() & std::filesystem::perms::others_read),
              std::filesystem::perms::none);

    const FileStorage::Stat st = FileStorage::GetStat(path);
    EXPECT_EQ(st.size, 3u);
    EXPECT_EQ(st.inode, second);
    EXPECT_TRUE(st.regular);
}

TEST_F(FileStorageTest, AppendChecksTheFileIdentity)
{
    const std::string path = m_dir + "/f";
    const ino_t inode = FileStorage::Create(path, "abc");
    FileStorage::Append(path, "def", inode);
    std::string data;
    FileStorage::Read(path, data);
    EXPECT_EQ(data, "abcdef");

    // Replaced behind our back (the old file is kept so that its inode
    // cannot be reused): the append must not go into the new file.
    std::filesystem::rename(path, path + ".old");
    FileStorage::Create(path, "zzz");
    EXPECT_EQ(ErrorOf([&] { FileStorage::Append(path, "ghi", inode); }),
              "Storage: Failed to append data, file " + path + " was changed/replaced outside");
    FileStorage::Read(path, data);
    EXPECT_EQ(data, "zzz");

    EXPECT_THAT(ErrorOf([&] { FileStorage::Append(m_dir + "/missing", "x", inode); }),
                HasSubstr("Storage: Failed to append data to " + m_dir + "/missing"));
}

TEST_F(FileStorageTest, ErrorsNameTheOperationAndThePath)
{
    std::string data;
    EXPECT_THAT(ErrorOf([&] { FileStorage::Read(m_dir + "/missing", data); }),
                HasSubstr("Storage: Failed to read from " + m_dir + "/missing"));
    EXPECT_THAT(ErrorOf([&] { FileStorage::GetStat(m_dir + "/missing"); }),
                HasSubstr("Storage: Failed to stat file " + m_dir + "/missing"));
    EXPECT_THAT(ErrorOf([&] { FileStorage::Create(m_dir + "/no/such/dir", "x"); }),
                HasSubstr("Storage: Failed to create " + m_dir + "/no/such/dir"));

    // A symbolic link or a FIFO under a spool name is never read through.
    FileStorage::Create(m_dir + "/target", "secret");
    std::filesystem::create_symlink(m_dir + "/target", m_dir + "/link");
    EXPECT_THAT(ErrorOf([&] { FileStorage::Read(m_dir + "/link", data); }),
                HasSubstr("Storage: Failed to read from"));
    EXPECT_FALSE(FileStorage::GetStat(m_dir + "/link").regular);
    ASSERT_EQ(::mkfifo((m_dir + "/fifo").c_str(), 0600), 0);
    EXPECT_THAT(ErrorOf([&] { FileStorage::Read(m_dir + "/fifo", data); }), HasSubstr("not a regular file"));

    // Size limit: refused before anything is loaded.
    FileStorage::Create(m_dir + "/big", std::string(100, 'x'));
    EXPECT_THAT(
        [&] { FileStorage::Read(m_dir + "/big", data, 99); },
        testing::Throws<FileStorageException>(testing::Property(&FileStorageException::Error, EFBIG)));
    EXPECT_NO_THROW(FileStorage::Read(m_dir + "/big", data, 100));
}

bool IsOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

int OpenNull()
{
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    return fd;
}

// A second close would hit whatever file reused the number in between.
TEST(UniqueFdTest, ClosesOnlyWhatItOwnsAndNeverTwice)
{
    const int fd = OpenNull();
    int reused = -1;
    {
        UniqueFd first(fd);
        {
            UniqueFd second(std::move(first));
            EXPECT_FALSE(first.Valid());
            EXPECT_EQ(second.Get(), fd);
        }
        EXPECT_FALSE(IsOpen(fd));
        reused = OpenNull();
        ASSERT_EQ(reused, fd) << "the lowest free number is handed out again";
    }
    EXPECT_TRUE(IsOpen(reused)) << "the moved-from owner closed a descriptor it no longer owns";

    UniqueFd target(reused);
    UniqueFd source(OpenNull());
    const int b = source.Get();
    target = std::move(source);
    EXPECT_FALSE(IsOpen(reused)) << "move assignment closes the previous descriptor";
    EXPECT_EQ(target.Get(), b);
    UniqueFd& alias = target;
    target = std::move(alias);
    EXPECT_TRUE(IsOpen(b)) << "self-assignment keeps the descriptor";

    UniqueFd none(-5);
    EXPECT_FALSE(none);
    EXPECT_EQ(none.Get(), -1);
    EXPECT_EQ(none.Close(), 0) << "closing nothing is no failure";
}

TEST(UniqueFdTest, ReleaseResetAndCloseReportTheirOutcome)
{
    const int fd = OpenNull();
    UniqueFd owner(fd);
    const int released = owner.Release();
    EXPECT_EQ(released, fd);
    EXPECT_FALSE(owner.Valid());
    EXPECT_TRUE(IsOpen(fd)) << "a released descriptor stays open";

    owner.Reset(released);
    owner.Reset(released);
    EXPECT_TRUE(IsOpen(fd)) << "resetting to the owned descriptor keeps it";
    const int other = OpenNull();
    owner.Reset(other);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(owner.Close(), 0);
    EXPECT_FALSE(IsOpen(other));
    EXPECT_FALSE(owner.Valid());

    UniqueFd stale(other); // already closed above
    EXPECT_EQ(stale.Close(), EBADF);
    EXPECT_FALSE(stale.Valid());
}

} // namespace
