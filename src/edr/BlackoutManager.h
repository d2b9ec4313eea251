#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vantor::edr
{

// Reduced-activity periods ("blackouts") from the agent's common
// configuration, in which a component holds back its uploads. The value is
// an array of periods, each an object with "start" and "end":
//   - two numbers: seconds since the epoch, a one-off period [start, end);
//   - two texts "%FT%TZ" (2024-12-24T18:00:00Z): the same, in UTC;
//   - two texts "HH:MM": a period every day, in UTC, that runs past midnight
//     when end is earlier than start; an optional "days" array
//     ("Mon" ... "Sun") names the days on which the period begins.
// An unusable period is logged with its position and skipped, so that one
// typing error does not stop uploads for good nor stop the daemon.
//
// Immutable after construction; IsBlackout may be called from any thread.
class BlackoutManager
{
public:
    // The key under which the common configuration holds the periods.
    static constexpr const char* kKind = "Blackout_Events";

    using TimePoint = std::chrono::system_clock::time_point;
    using Clock = std::function<TimePoint()>;

    // eventsJson: the JSON text of the value, empty when there is none. kind
    // names the periods in log lines. clock defaults to the system clock.
    BlackoutManager(std::string kind, const std::string& eventsJson, Clock clock = {});

    // Whether now (by the clock) lies in a period.
    bool IsBlackout() const;
    bool IsBlackout(TimePoint when) const;

    const std::string& Kind() const { return m_kind; }
    std::size_t PeriodCount() const { return m_periods.size(); }
    // Why periods were skipped, one text each, in order.
    const std::vector<std::string>& Problems() const { return m_problems; }

private:
    struct Period
    {
        bool daily = false;
        // One-off: seconds since the epoch. Daily: minutes after midnight.
        int64_t start = 0;
        int64_t end = 0;
        uint8_t days = 0x7f; // bit 0 Sunday ... bit 6 Saturday
    };

    void Parse(const std::string& eventsJson);
    void Refuse(std::size_t position, const std::string& reason);
    bool Covers(const Period& period, TimePoint when) const;

    const std::string m_kind;
    const Clock m_clock;
    std::vector<Period> m_periods;
    std::vector<std::string> m_problems;
};

} // namespace vantor::edr
