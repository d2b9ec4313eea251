#pragma once

#include "edr/Event.h"

#include <memory>
#include <mutex>
#include <vector>

namespace vantor::audit
{

// Events that a handler kept past their dispatch (a queue for another
// thread), given back when the handler lets go of them. The processing thread
// hands them to the producer with its spent events, so that they too are
// destroyed by the thread that made them: destroyed where they were let go,
// their memory would go back to the producer's malloc arena under its lock,
// against the producer's own allocations.
//
// Thread-safe.
class ReturnedEvents
{
public:
    using Events = std::vector<std::unique_ptr<edr::Event>>;

    // Never throws: an event it cannot keep is destroyed at once.
    void Return(std::unique_ptr<edr::Event> event) noexcept;
    // Appends what was returned to out and forgets it.
    void MoveTo(Events& out);

private:
    std::mutex m_mutex;
    Events m_events;
};

} // namespace vantor::audit
