#include "common/StatHelper.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace vantor::common
{
namespace
{

TEST(StatHelperTest, StatsFollowsOrNotAndReadsBounded)
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
}

} // namespace
} // namespace vantor::common
