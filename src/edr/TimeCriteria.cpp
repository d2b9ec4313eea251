#include "edr/TimeCriteria.h"

#include "common/Logging.h"
#include "edr/FilterCriteriaException.h"

#include <ctime>
#include <optional>

namespace vantor::edr
{

namespace
{

std::optional<int64_t> ParseTimeOfDay(const std::string& text)
{
    std::tm tm{};
    const char* end = strptime(text.c_str(), "%H:%M:%S", &tm);
    // The whole text must be the time; trailing characters (or a NUL inside
    // the string) make it invalid.
    if (end == nullptr || end != text.c_str() + text.size())
    {
        EDR_LOG_TRACE("Failed to convert time string to time tm struct");
        return std::nullopt;
    }
    return static_cast<int64_t>(tm.tm_hour) * 3600 + tm.tm_min * 60 + tm.tm_sec;
}

} // namespace

void TimeCriteria::Set(const std::string& start, const std::string& end)
{
    EDR_LOG_TRACE("Setting time span start and end filters");
    if (start.empty() || end.empty())
    {
        throw FilterCriteriaException("Empty argument passed");
    }
    const auto startSeconds = ParseTimeOfDay(start);
    if (!startSeconds)
    {
        throw FilterCriteriaException("Invalid start time");
    }
    const auto endSeconds = ParseTimeOfDay(end);
    if (!endSeconds)
    {
        throw FilterCriteriaException("Invalid end time");
    }
    if (*startSeconds > *endSeconds)
    {
        throw FilterCriteriaException("Start time cannot be later than End time");
    }
    m_start = *startSeconds;
    m_end = *endSeconds;
}

bool TimeCriteria::Match(const Event& event) const
{
    if (m_start == m_end)
    {
        return true;
    }
    EDR_LOG_TRACE("Matching Time filters");
    // Deliberately UTC, not the host's local time.
    const auto seconds = static_cast<time_t>(event.GetTimestamp() / 1000);
    std::tm tm{};
    if (gmtime_r(&seconds, &tm) == nullptr)
    {
        return false;
    }
    const int64_t timeOfDay = static_cast<int64_t>(tm.tm_hour) * 3600 + tm.tm_min * 60 + tm.tm_sec;
    return m_start <= timeOfDay && timeOfDay <= m_end;
}

} // namespace vantor::edr
