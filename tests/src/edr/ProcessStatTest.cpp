// The fields of /proc/<pid>/stat that capture and IOC share, and the texts
// that give none.

#include "edr/ProcessStat.h"

#include <gtest/gtest.h>

#include <string>

namespace vantor::edr
{
namespace
{

// Fields 5..21 between the parent pid and the start time, the priority
// (field 18) among them.
std::string Stat(const std::string& head, const std::string& priority = "20",
                 const std::string& startTicks = "7300")
{
    return head + " 1 1 0 -1 4194304 0 0 0 0 0 0 0 0 " + priority + " 0 1 0 " + startTicks + " 0 0\n";
}

TEST(ProcessStatTest, FieldsFollowTheLastParenthesisOfTheName)
{
    const auto stat = ProcessStat::Parse(Stat("42 (a) (b) S 7 x) R 9", "-2"));
    ASSERT_TRUE(stat);
    EXPECT_EQ(*stat, (ProcessStat{'R', 9, -2, 7300}));

    // Only the first 22 fields are needed: a stat cut after them is enough.
    const auto shortest = ProcessStat::Parse("1 (init) S 0 1 1 0 -1 4194304 0 0 0 0 0 0 0 0 20 0 1 0 55");
    ASSERT_TRUE(shortest);
    EXPECT_EQ(shortest->startTicks, 55U);
}

TEST(ProcessStatTest, AMalformedTextGivesNothing)
{
    const struct
    {
        const char* why;
        std::string text;
    } cases[] = {
        {"no name", "42 S 1 1 1 0 -1 4194304 0 0 0 0 0 0 0 0 20 0 1 0 7300"},
        {"too few fields", "42 (sh) S 1 1 1\n"},
        {"a state of two letters", Stat("42 (sh) SR 1")},
        {"a parent that is not a number", Stat("42 (sh) S x1")},
        {"a priority that is not a number", Stat("42 (sh) S 1", "2O")},
        {"a start time past 64 bits", Stat("42 (sh) S 1", "20", "99999999999999999999")},
        {"empty", ""},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.why);
        EXPECT_FALSE(ProcessStat::Parse(c.text));
    }
}

} // namespace
} // namespace vantor::edr
