#pragma once

#include <chrono>

namespace vantor::common
{

using SystemTimePoint = std::chrono::system_clock::time_point;

// Something the Scheduler runs when it is due. The Scheduler holds schedules
// only weakly: an owner ends a schedule by releasing it.
class Schedule
{
public:
    virtual ~Schedule() = default;

    // Called once when the schedule is registered.
    virtual void InitializeNextScheduleTime() {}
    virtual bool IsDue(SystemTimePoint now) const = 0;
    virtual SystemTimePoint NextDue() const = 0;
    virtual void Execute() = 0;
};

} // namespace vantor::common
