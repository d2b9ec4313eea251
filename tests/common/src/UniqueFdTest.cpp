#include "common/UniqueFd.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vantor::common
{
namespace
{

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

TEST(UniqueFdTest, ClosesOnDestructionAndOwnsNothingWhenNegative)
{
    const int fd = OpenNull();
    {
        UniqueFd owner(fd);
        EXPECT_TRUE(owner.Valid());
        EXPECT_EQ(owner.Get(), fd);
    }
    EXPECT_FALSE(IsOpen(fd));

    UniqueFd none(-5);
    EXPECT_FALSE(none);
    EXPECT_EQ(none.Get(), -1);
    EXPECT_EQ(none.Close(), 0) << "closing nothing is no failure";
}

// A second close would hit whatever file reused the number in between.
TEST(UniqueFdTest, MovedFromOwnerNeverClosesTheDescriptorAgain)
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
    ::close(reused);
}

TEST(UniqueFdTest, MoveAssignmentClosesThePreviousDescriptorOnly)
{
    const int a = OpenNull();
    const int b = OpenNull();
    UniqueFd target(a);
    UniqueFd source(b);
    target = std::move(source);
    EXPECT_FALSE(IsOpen(a));
    EXPECT_TRUE(IsOpen(b));
    EXPECT_EQ(target.Get(), b);

    UniqueFd& alias = target;
    target = std::move(alias);
    EXPECT_TRUE(IsOpen(b)) << "self-assignment keeps the descriptor";
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
} // namespace vantor::common
