#include "audit/ProcessTreeUpdater.h"

#include <iterator>

namespace vantor::audit
{

ProcessTreeUpdater::ProcessTreeUpdater(std::shared_ptr<ProcessTree> tree,
                                       std::chrono::steady_clock::duration cleanInterval)
    : m_tree(std::move(tree))
    , m_cleanInterval(cleanInterval)
    , m_lastClean(std::chrono::steady_clock::now())
    , m_lastSweep(m_lastClean)
{
}

bool ProcessTreeUpdater::Update(EventPtr& event, Events& pseudoEvents, const ProcessTree::Match* lineageMatch,
                                std::optional<bool>* lineageMatched, Events* released)
{
    if (!m_tree)
    {
        return event->GetType() != edr::EventType::Clone;
    }
    return m_tree->UpdateFromEvent(event, pseudoEvents, lineageMatch, lineageMatched, released);
}

bool ProcessTreeUpdater::CleanIfDue(Events& terminated)
{
    if (!m_tree)
    {
        return false;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastClean < m_cleanInterval)
    {
        if (now - m_lastSweep >= kSweepInterval)
        {
            m_lastSweep = now;
            m_tree->RemoveTerminated();
        }
        return false;
    }
    m_lastClean = now;
    m_lastSweep = now;
    auto ended = m_tree->Clean();
    terminated.insert(terminated.end(), std::make_move_iterator(ended.begin()),
                      std::make_move_iterator(ended.end()));
    return true;
}

} // namespace vantor::audit
