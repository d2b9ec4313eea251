#include "fim/ContentReader.h"
#include "tests/support/TempDir.h"

#include "common/util/Sha256.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

using vantor::fim::internal::ContentReader;
using Status = ContentReader::ContentStatus;

namespace
{

constexpr const char* kSha256Empty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* kSha256Abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

TEST(FimContentReaderTest, LimitIsInclusive)
{
    vantor::test::TempDir dir;
    const std::string exact = dir.Write("exact", std::string(51200, 'a'));
    const std::string over = dir.Write("over", std::string(51201, 'a'));
    auto content = ContentReader::Read(exact, true, true);
    EXPECT_EQ(content.status, Status::ReadSuccessful);
    EXPECT_EQ(content.data.size(), 51200u);
    EXPECT_EQ(content.sha256, vantor::util::Sha256Hex(std::string(51200, 'a')));
    content = ContentReader::Read(over, true, true);
    EXPECT_EQ(content.status, Status::MaxSizeLimitReached);
    EXPECT_TRUE(content.data.empty());
    EXPECT_EQ(content.size, 51201u);
    EXPECT_EQ(content.sha256, vantor::util::Sha256Hex(std::string(51201, 'a')));
}

TEST(FimContentReaderTest, ReadsOnlyWhatIsAskedFor)
{
    vantor::test::TempDir dir;
    const std::string small = dir.Write("small", "abc");
    auto content = ContentReader::Read(small, false, true);
    EXPECT_EQ(content.status, Status::ReadSuccessful);
    EXPECT_EQ(content.size, 3u);
    EXPECT_TRUE(content.data.empty());
    EXPECT_EQ(content.sha256, kSha256Abc);

    content = ContentReader::Read(small, true, false);
    EXPECT_EQ(content.data, "abc");
    EXPECT_TRUE(content.sha256.empty());

    content = ContentReader::Read(dir.Write("empty", ""), true, true);
    EXPECT_EQ(content.status, Status::ReadSuccessful);
    EXPECT_EQ(content.sha256, kSha256Empty);

    // Without a hash the read stops past the limit; the status still tells.
    content = ContentReader::Read(dir.Write("big", std::string(300000, 'b')), true, false);
    EXPECT_EQ(content.status, Status::MaxSizeLimitReached);
    EXPECT_GT(content.size, ContentReader::kMaxContentSize);
    EXPECT_TRUE(content.data.empty());
}

TEST(FimContentReaderTest, AnythingButARegularFileIsAReadFailure)
{
    vantor::test::TempDir dir;
    const std::string file = dir.Write("file", "x");
    std::filesystem::create_symlink(file, dir.File("link"));
    ASSERT_EQ(::mkfifo(dir.File("fifo").c_str(), 0600), 0);
    // Neither the FIFO (no writer) nor the link may be waited on or followed.
    for (const auto& path : {dir.File("missing"), dir.File("link"), dir.File("fifo"), dir.Path()})
    {
        const auto content = ContentReader::Read(path, true, true);
        EXPECT_EQ(content.status, Status::ReadFailure) << path;
        EXPECT_TRUE(content.sha256.empty()) << path;
    }
}

} // namespace
