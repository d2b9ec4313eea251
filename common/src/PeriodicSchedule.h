#pragma once

#include "common/Schedule.h"

#include <functional>
#include <mutex>

namespace vantor::common
{

// A schedule that runs every interval; the first run is one interval after
// registration. Derived classes implement Run().
class PeriodicSchedule : public Schedule
{
public:
    using Clock = std::function<SystemTimePoint()>;

    explicit PeriodicSchedule(std::chrono::seconds interval, Clock clock = {});

    void InitializeNextScheduleTime() override;
    bool IsDue(SystemTimePoint now) const override;
    SystemTimePoint NextDue() const override;
    void Execute() override;

    void SetInterval(std::chrono::seconds interval);
    std::chrono::seconds Interval() const;

protected:
    virtual void Run() = 0;

private:
    SystemTimePoint Now() const;

    mutable std::mutex m_mutex;
    std::chrono::seconds m_interval;
    Clock m_clock;
    SystemTimePoint m_next{};
};

} // namespace vantor::common
