#include "edr/FilterCriteriaException.h"
#include "edr/TimeCriteria.h"
#include "edr/UserCriteria.h"

#include "common/Logging.h"
#include "common/util/Json.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

using vantor::edr::Event;
using vantor::edr::FilterCriteria;
using vantor::edr::FilterCriteriaException;
using vantor::edr::TimeCriteria;
using vantor::edr::UserCriteria;

using vantor::test::ExpectThrowText;

namespace
{

class ActorEvent : public Event
{
public:
    ActorEvent(std::string user, uint64_t timestampMs)
        : m_user(std::move(user))
        , m_timestamp(timestampMs)
    {
    }
    std::string GetActorUserName() const override { return m_user; }
    uint64_t GetTimestamp() const override { return m_timestamp; }

private:
    std::string m_user;
    uint64_t m_timestamp;
};

// 2024-03-05 00:00:00 UTC in milliseconds.
constexpr uint64_t kMidnightMs = 1709596800ULL * 1000;

uint64_t At(int h, int m, int s, int ms = 0)
{
    return kMidnightMs + (static_cast<uint64_t>(h) * 3600 + m * 60 + s) * 1000 + ms;
}

} // namespace

TEST(TimeCriteriaTest, SettingRejectsBadSpans)
{
    TimeCriteria criteria;
    const struct
    {
        std::string start, end;
        const char* error;
    } cases[] = {
        {"", "06:00:00", "Empty argument passed"},
        {"06:00:00", "", "Empty argument passed"},
        {"22:00:00", "06:00:00", "Start time cannot be later than End time"},
        {"8:00", "09:00:00", "Invalid start time"},
        {"08:00:00", "9", "Invalid end time"},
        {"08:00:00x", "09:00:00", "Invalid start time"},
        {"25:00:00", "26:00:00", "Invalid start time"},
        {std::string("08:00:00\0x", 10), "09:00:00", "Invalid start time"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.start + " - " + c.end);
        ExpectThrowText<FilterCriteriaException>([&] { criteria.Set(c.start, c.end); }, c.error);
    }

    // A failed set keeps the span that was there.
    criteria.Set("01:02:03", "04:05:06");
    ExpectThrowText<FilterCriteriaException>([&] { criteria.Set("02:00:00", "bad"); }, "Invalid end time");
    EXPECT_EQ(criteria.GetStart(), 3723);
    EXPECT_EQ(criteria.GetEnd(), 14706);
}

TEST(TimeCriteriaTest, BoundsAreInclusiveInUtcAndUnsetOrEqualBoundsLetEverythingPass)
{
    TimeCriteria criteria;
    EXPECT_TRUE(criteria.Match(ActorEvent("root", At(3, 0, 0))));
    criteria.Set("08:00:00", "08:00:00");
    EXPECT_TRUE(criteria.Match(ActorEvent("root", At(23, 59, 59))));
    criteria.Set("09:00:00", "17:59:59");
    EXPECT_FALSE(criteria.Match(ActorEvent("root", At(8, 59, 59, 999))));
    EXPECT_TRUE(criteria.Match(ActorEvent("root", At(9, 0, 0))));
    EXPECT_TRUE(criteria.Match(ActorEvent("root", At(12, 30, 0))));
    EXPECT_TRUE(criteria.Match(ActorEvent("root", At(17, 59, 59, 999))));
    EXPECT_FALSE(criteria.Match(ActorEvent("root", At(18, 0, 0))));
    // The date does not matter, only the time of day.
    EXPECT_TRUE(criteria.Match(ActorEvent("root", At(12, 0, 0) + 40ULL * 86400 * 1000)));
}

TEST(UserCriteriaTest, GlobPatternsOnTheActorName)
{
    UserCriteria criteria;
    EXPECT_TRUE(criteria.Match(ActorEvent("anyone", 0)));

    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    criteria.Set({"root", "adm*"});
    EXPECT_TRUE(criteria.Match(ActorEvent("admin", 0)));
    EXPECT_TRUE(criteria.Match(ActorEvent("root", 0)));
    EXPECT_FALSE(criteria.Match(ActorEvent("nobody", 0)));
    EXPECT_FALSE(criteria.Match(ActorEvent("rooted", 0)));
    EXPECT_TRUE(log.Contains("Pattern: adm* not matched with value: nobody"));

    criteria.Set({"us?r[0-9]"});
    EXPECT_TRUE(criteria.Match(ActorEvent("user7", 0)));
    EXPECT_FALSE(criteria.Match(ActorEvent("user", 0)));
}

TEST(UserCriteriaTest, HostileNamesAndPatternsNeverThrow)
{
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    UserCriteria criteria;
    criteria.Set({"[a-", "ro*"});
    EXPECT_TRUE(criteria.Match(ActorEvent("root", 0)));
    EXPECT_TRUE(log.Contains("Pattern: [a- is invalid"));
    EXPECT_FALSE(criteria.Match(ActorEvent("\xff\xfe\x80", 0)));
    EXPECT_FALSE(criteria.Match(ActorEvent(std::string("xo\0ot", 5) + "\xc3", 0)));

    const std::vector<std::string> withEmpty{"root", ""};
    ExpectThrowText<FilterCriteriaException>([&] { criteria.Set(withEmpty); },
                                             "Filter pattern cannot be empty");
    EXPECT_EQ(criteria.GetPatterns().size(), 2U);
}

TEST(FilterCriteriaTest, PatternsFromJson)
{
    rapidjson::Document doc;
    ASSERT_TRUE(
        vantor::util::ParseJson(doc, R"({"ok":["b*","a","c?"],"num":["a",1],"empty":["a",""],"obj":{}})"));
    EXPECT_EQ(FilterCriteria::ParsePatterns(doc["ok"]), (std::vector<std::string>{"b*", "a", "c?"}));
    ExpectThrowText<FilterCriteriaException>([&] { FilterCriteria::ParsePatterns(doc["num"]); },
                                             "Invalid value for filter patterns");
    ExpectThrowText<FilterCriteriaException>([&] { FilterCriteria::ParsePatterns(doc["obj"]); },
                                             "Invalid value for filter patterns");
    ExpectThrowText<FilterCriteriaException>([&] { FilterCriteria::ParsePatterns(doc["empty"]); },
                                             "Filter pattern cannot be empty");
}
