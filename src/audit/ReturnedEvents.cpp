#include "audit/ReturnedEvents.h"

#include <iterator>

namespace vantor::audit
{

void ReturnedEvents::Return(std::unique_ptr<edr::Event> event) noexcept
{
    if (!event)
    {
        return;
    }
    // Called from a shared pointer's deleter, which must not throw: without
    // room to keep it, the event is destroyed here after all.
    try
    {
        std::lock_guard lock(m_mutex);
        m_events.push_back(std::move(event));
    }
    catch (const std::exception&)
    {
    }
}

void ReturnedEvents::MoveTo(Events& out)
{
    std::lock_guard lock(m_mutex);
    if (out.empty())
    {
        out.swap(m_events);
        return;
    }
    out.insert(out.end(), std::make_move_iterator(m_events.begin()), std::make_move_iterator(m_events.end()));
    m_events.clear();
}

} // namespace vantor::audit
