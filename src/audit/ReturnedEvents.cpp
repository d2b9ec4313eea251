#include "audit/ReturnedEvents.h"

#include <iterator>

namespace vantor::audit
{

void ReturnedEvents::Return(std::unique_ptr<edr::Event> event)
{
    if (!event)
    {
        return;
    }
    std::lock_guard lock(m_mutex);
    m_events.push_back(std::move(event));
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
