#include "common/StatHelper.h"
#include "common/util/Digest.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace vantor::common
{
using util::Digest;

namespace
{

TEST(StatHelperTest, StatsReadsBoundedAndHashesWithKnownDigests)
{
    vantor::test::TempDir dir;
    const std::string file = dir.Write("a.txt", "abc");
    ASSERT_EQ(::symlink(file.c_str(), (dir.Path() + "/link").c_str()), 0);
    EXPECT_TRUE(S_ISREG(StatHelper::Stat(dir.Path() + "/link").st_mode));
    EXPECT_TRUE(S_ISLNK(StatHelper::Lstat(dir.Path() + "/link").st_mode));
    EXPECT_EQ(StatHelper::ReadLink(dir.Path() + "/link"), file);
    EXPECT_FALSE(StatHelper::TryStat(dir.Path() + "/missing", true));
    EXPECT_THROW(StatHelper::Stat(dir.Path() + "/missing"), StatHelperException);

    std::string content;
    EXPECT_EQ(StatHelper::ReadContent(file, content, 100), StatHelper::ReadResult::Complete);
    EXPECT_EQ(content, "abc");
    EXPECT_EQ(StatHelper::ReadContent(file, content, 2), StatHelper::ReadResult::SizeLimitReached);
    EXPECT_EQ(content, "ab");

    EXPECT_EQ(Digest::HexOfFile(Digest::Algorithm::Md5, file, 100), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(Digest::HexOfFile(Digest::Algorithm::Sha1, file, 100),
              "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(Digest::HexOf(Digest::Algorithm::Sha256, "abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_THROW(Digest::HexOfFile(Digest::Algorithm::Md5, file, 2), std::runtime_error);
}

} // namespace
} // namespace vantor::common
