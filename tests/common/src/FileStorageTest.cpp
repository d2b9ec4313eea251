#include "common/FileStorage.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

using ::testing::HasSubstr;
using vantor::common::FileStorage;
using vantor::common::FileStorageException;

namespace
{

class FileStorageTest : public ::testing::Test
{
protected:
    vantor::test::TempDir m_tmp;
    const std::string m_dir = m_tmp.Path();
};

template <typename F>
std::string ErrorOf(F&& f)
{
    try
    {
        f();
    }
    catch (const FileStorageException& e)
    {
        return e.what();
    }
    return "no error";
}

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
    try
    {
        FileStorage::Read(m_dir + "/big", data, 99);
        FAIL() << "no error";
    }
    catch (const FileStorageException& e)
    {
        EXPECT_EQ(e.Error(), EFBIG);
    }
    EXPECT_NO_THROW(FileStorage::Read(m_dir + "/big", data, 100));
}

} // namespace
