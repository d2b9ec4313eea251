#include "edr/BlackoutManager.h"

#include "common/Logging.h"
#include "common/util/Json.h"
#include "common/util/WholeNumber.h"

#include <ctime>
#include <optional>
#include <string_view>

namespace vantor::edr
{

namespace
{

constexpr int64_t kSecondsPerDay = 86400;
// 1970-01-01 was a Thursday (Sunday is 0).
constexpr int64_t kEpochWeekday = 4;
constexpr const char* kDayNames[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

int64_t FloorDiv(int64_t value, int64_t divisor)
{
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

std::optional<int> TwoDigits(std::string_view text)
{
    int value = 0;
    return text.size() == 2 && util::ParseWholeNumber(text, value) ? std::optional<int>(value) : std::nullopt;
}

// "HH:MM" as minutes after midnight.
std::optional<int64_t> ParseTimeOfDay(std::string_view text)
{
    if (text.size() != 5 || text[2] != ':')
    {
        return std::nullopt;
    }
    const auto hours = TwoDigits(text.substr(0, 2));
    const auto minutes = TwoDigits(text.substr(3, 2));
    if (!hours || !minutes || *hours > 23 || *minutes > 59)
    {
        return std::nullopt;
    }
    return *hours * 60 + *minutes;
}

// "%FT%TZ" as seconds since the epoch.
std::optional<int64_t> ParseIsoTime(const std::string& text)
{
    std::tm tm{};
    const char* end = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &tm);
    if (end == nullptr || *end != '\0')
    {
        return std::nullopt;
    }
    return static_cast<int64_t>(::timegm(&tm));
}

std::optional<uint8_t> ParseDays(const rapidjson::Value& days)
{
    if (!days.IsArray() || days.Empty())
    {
        return std::nullopt;
    }
    uint8_t mask = 0;
    for (const auto& day : days.GetArray())
    {
        if (!day.IsString())
        {
            return std::nullopt;
        }
        const std::string_view name(day.GetString(), day.GetStringLength());
        bool known = false;
        for (int i = 0; i < 7; ++i)
        {
            if (name == kDayNames[i])
            {
                mask = static_cast<uint8_t>(mask | (1u << i));
                known = true;
            }
        }
        if (!known)
        {
            return std::nullopt;
        }
    }
    return mask;
}

} // namespace

BlackoutManager::BlackoutManager(std::string kind, const std::string& eventsJson, Clock clock)
    : m_kind(std::move(kind))
    , m_clock(clock ? std::move(clock) : Clock([] { return std::chrono::system_clock::now(); }))
{
    Parse(eventsJson);
    EDR_LOG_INFO("BlackoutManager: " << m_periods.size() << " blackout period(s) in " << m_kind);
}

void BlackoutManager::Refuse(std::size_t position, const std::string& reason)
{
    std::string text =
        "BlackoutManager: Ignoring period " + std::to_string(position) + " of " + m_kind + ": " + reason;
    EDR_LOG_ERROR(text);
    m_problems.push_back(std::move(text));
}

void BlackoutManager::Parse(const std::string& eventsJson)
{
    if (eventsJson.empty())
    {
        return;
    }
    rapidjson::Document document;
    if (!util::ParseJson(document, eventsJson) || !(document.IsArray() || document.IsNull()))
    {
        std::string text = "BlackoutManager: " + m_kind + " is not an array of periods; no blackout applies";
        EDR_LOG_ERROR(text);
        m_problems.push_back(std::move(text));
        return;
    }
    if (document.IsNull())
    {
        return;
    }
    std::size_t position = 0;
    for (const auto& entry : document.GetArray())
    {
        ++position;
        if (!entry.IsObject() || !entry.HasMember("start") || !entry.HasMember("end"))
        {
            Refuse(position, "not an object with \"start\" and \"end\"");
            continue;
        }
        const auto& start = entry["start"];
        const auto& end = entry["end"];
        Period period;
        if (start.IsUint64() && end.IsUint64() && start.GetUint64() <= INT64_MAX &&
            end.GetUint64() <= INT64_MAX)
        {
            period.start = static_cast<int64_t>(start.GetUint64());
            period.end = static_cast<int64_t>(end.GetUint64());
        }
        else if (start.IsString() && end.IsString())
        {
            const std::string startText(start.GetString(), start.GetStringLength());
            const std::string endText(end.GetString(), end.GetStringLength());
            const auto dailyStart = ParseTimeOfDay(startText);
            const auto dailyEnd = ParseTimeOfDay(endText);
            const auto onceStart = ParseIsoTime(startText);
            const auto onceEnd = ParseIsoTime(endText);
            if (dailyStart && dailyEnd)
            {
                period.daily = true;
                period.start = *dailyStart;
                period.end = *dailyEnd;
            }
            else if (onceStart && onceEnd)
            {
                period.start = *onceStart;
                period.end = *onceEnd;
            }
            else
            {
                Refuse(position, "\"start\" and \"end\" must both be \"HH:MM\" or both \"%FT%TZ\"");
                continue;
            }
        }
        else
        {
            Refuse(position, "\"start\" and \"end\" must both be seconds since the epoch or both texts");
            continue;
        }
        if (!period.daily && period.start >= period.end)
        {
            Refuse(position, "\"end\" is not after \"start\"");
            continue;
        }
        if (period.daily && period.start == period.end)
        {
            Refuse(position, "\"start\" and \"end\" are the same time of day");
            continue;
        }
        if (entry.HasMember("days"))
        {
            const auto days = ParseDays(entry["days"]);
            if (!period.daily || !days)
            {
                Refuse(position, "\"days\" needs daily times and a non-empty array of Mon, Tue, Wed, Thu, "
                                 "Fri, Sat, Sun");
                continue;
            }
            period.days = *days;
        }
        m_periods.push_back(period);
    }
}

bool BlackoutManager::IsBlackout() const
{
    return IsBlackout(m_clock());
}

bool BlackoutManager::IsBlackout(TimePoint when) const
{
    for (const auto& period : m_periods)
    {
        if (Covers(period, when))
        {
            return true;
        }
    }
    return false;
}

bool BlackoutManager::Covers(const Period& period, TimePoint when) const
{
    const int64_t seconds = std::chrono::duration_cast<std::chrono::seconds>(when.time_since_epoch()).count();
    if (!period.daily)
    {
        return seconds >= period.start && seconds < period.end;
    }
    const int64_t day = FloorDiv(seconds, kSecondsPerDay);
    const int64_t minute = (seconds - day * kSecondsPerDay) / 60;
    auto beginsOn = [&](int64_t d)
    {
        const int64_t weekday = ((d + kEpochWeekday) % 7 + 7) % 7;
        return ((period.days >> weekday) & 1) != 0;
    };
    if (period.start < period.end)
    {
        return minute >= period.start && minute < period.end && beginsOn(day);
    }
    // Past midnight: the evening part belongs to today, the morning part to
    // the period that began yesterday.
    return (minute >= period.start && beginsOn(day)) || (minute < period.end && beginsOn(day - 1));
}

} // namespace vantor::edr
