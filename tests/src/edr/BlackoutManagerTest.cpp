#include "edr/BlackoutManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

using ::testing::ElementsAre;
using vantor::edr::BlackoutManager;

namespace
{

// "%FT%TZ" as a time point; 2024-05-06 is a Monday.
BlackoutManager::TimePoint At(const char* text)
{
    std::tm tm{};
    EXPECT_NE(::strptime(text, "%Y-%m-%dT%H:%M:%SZ", &tm), nullptr) << text;
    return std::chrono::system_clock::from_time_t(::timegm(&tm));
}

BlackoutManager Make(const std::string& json)
{
    return BlackoutManager(BlackoutManager::kKind, json);
}

} // namespace

TEST(BlackoutManagerTest, WithoutPeriodsThereIsNoBlackoutAndNowComesFromTheClock)
{
    for (const char* json : {"", "[]", "null"})
    {
        const auto manager = Make(json);
        EXPECT_EQ(manager.PeriodCount(), 0u) << json;
        EXPECT_TRUE(manager.Problems().empty()) << json;
        EXPECT_FALSE(manager.IsBlackout()) << json;
    }
    // Without a time given, now comes from the clock.
    auto now = At("2024-05-06T10:00:00Z");
    const BlackoutManager manager(BlackoutManager::kKind, R"([{"start": "09:00", "end": "11:00"}])",
                                  [&] { return now; });
    EXPECT_TRUE(manager.IsBlackout());
    now = At("2024-05-06T11:00:00Z");
    EXPECT_FALSE(manager.IsBlackout());
}

TEST(BlackoutManagerTest, OneOffPeriodsInEpochSecondsOrUtcTexts)
{
    const auto start = At("2024-05-06T10:00:00Z");
    const auto seconds = std::chrono::system_clock::to_time_t(start);
    const auto manager =
        Make("[{\"start\": " + std::to_string(seconds) + ", \"end\": " + std::to_string(seconds + 3600) +
             R"(}, {"start": "2024-12-24T18:00:00Z", "end": "2024-12-26T06:00:00Z"}])");
    EXPECT_EQ(manager.PeriodCount(), 2u);
    EXPECT_FALSE(manager.IsBlackout(start - std::chrono::seconds(1)));
    EXPECT_TRUE(manager.IsBlackout(start));
    EXPECT_TRUE(manager.IsBlackout(At("2024-05-06T10:59:59Z")));
    EXPECT_FALSE(manager.IsBlackout(At("2024-05-06T11:00:00Z"))); // the end is not in it
    EXPECT_TRUE(manager.IsBlackout(At("2024-12-25T12:00:00Z")));
    EXPECT_FALSE(manager.IsBlackout(At("2024-12-26T06:00:00Z")));
}

TEST(BlackoutManagerTest, DailyPeriodsOnTheirDays)
{
    const auto office = Make(R"([{"start": "09:00", "end": "17:30",
                                  "days": ["Mon", "Tue", "Wed", "Thu", "Fri"]}])");
    EXPECT_TRUE(office.IsBlackout(At("2024-05-06T09:00:00Z")));  // Monday
    EXPECT_TRUE(office.IsBlackout(At("2024-05-10T17:29:59Z")));  // Friday
    EXPECT_FALSE(office.IsBlackout(At("2024-05-10T17:30:00Z"))); // Friday, after
    EXPECT_FALSE(office.IsBlackout(At("2024-05-11T10:00:00Z"))); // Saturday
    EXPECT_FALSE(office.IsBlackout(At("2024-05-06T08:59:59Z"))); // Monday, before

    // Past midnight: the morning belongs to the period that began the day
    // before.
    const auto night = Make(R"([{"start": "22:00", "end": "06:00", "days": ["Fri"]}])");
    EXPECT_TRUE(night.IsBlackout(At("2024-05-10T23:00:00Z")));  // Friday night
    EXPECT_TRUE(night.IsBlackout(At("2024-05-11T05:59:00Z")));  // Saturday morning
    EXPECT_FALSE(night.IsBlackout(At("2024-05-11T22:30:00Z"))); // Saturday night
    EXPECT_FALSE(night.IsBlackout(At("2024-05-10T05:00:00Z"))); // Friday morning: Thursday's

    const auto everyDay = Make(R"([{"start": "00:00", "end": "00:30"}])");
    EXPECT_TRUE(everyDay.IsBlackout(At("2024-05-12T00:10:00Z"))); // Sunday
    EXPECT_TRUE(everyDay.IsBlackout(At("1969-12-31T00:10:00Z"))); // before the epoch
    EXPECT_FALSE(everyDay.IsBlackout(At("2024-05-12T00:30:00Z")));
}

TEST(BlackoutManagerTest, UnusablePeriodsAreReportedAndSkipped)
{
    const auto manager = Make(R"([
        "09:00",
        {"start": "09:00"},
        {"start": 5, "end": "10:00"},
        {"start": "24:00", "end": "06:00"},
        {"start": "2024-05-06T10:00:00", "end": "2024-05-06T11:00:00Z"},
        {"start": 20, "end": 10},
        {"start": "10:00", "end": "10:00"},
        {"start": "10:00", "end": "11:00", "days": ["Monday"]},
        {"start": 1, "end": 2, "days": ["Mon"]},
        {"start": -1, "end": 2},
        {"start": "10:00", "end": "11:00", "days": ["Sun"]}
    ])");
    EXPECT_EQ(manager.PeriodCount(), 1u);
    EXPECT_TRUE(manager.IsBlackout(At("2024-05-12T10:30:00Z")));
    const auto& problems = manager.Problems();
    ASSERT_EQ(problems.size(), 10u);
    EXPECT_EQ(
        problems[0],
        "BlackoutManager: Ignoring period 1 of Blackout_Events: not an object with \"start\" and \"end\"");
    EXPECT_THAT(problems[2],
                ::testing::HasSubstr("period 3 of Blackout_Events: \"start\" and \"end\" must both"));
    EXPECT_THAT(problems[3], ::testing::HasSubstr("must both be \"HH:MM\" or both \"%FT%TZ\""));
    EXPECT_THAT(problems[4], ::testing::HasSubstr("period 5 "));
    EXPECT_THAT(problems[5],
                ::testing::HasSubstr("period 6 of Blackout_Events: \"end\" is not after \"start\""));
    EXPECT_THAT(problems[6], ::testing::HasSubstr("are the same time of day"));
    EXPECT_THAT(problems[7], ::testing::HasSubstr("period 8 of Blackout_Events: \"days\" needs"));
    EXPECT_THAT(problems[8], ::testing::HasSubstr("period 9 of Blackout_Events: \"days\" needs"));
    EXPECT_THAT(problems[9], ::testing::HasSubstr("period 10 "));

    const auto notAList = Make(R"({"start": 1, "end": 2})");
    EXPECT_EQ(notAList.PeriodCount(), 0u);
    EXPECT_THAT(
        notAList.Problems(),
        ElementsAre("BlackoutManager: Blackout_Events is not an array of periods; no blackout applies"));
    EXPECT_FALSE(Make("[{").IsBlackout());
}
