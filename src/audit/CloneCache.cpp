#include "audit/CloneCache.h"

#include <utility>

namespace vantor::audit
{

CloneCache::CloneCache(size_t limit)
    : m_limit(limit)
{
}

void CloneCache::Release(EventPtr clone, Events* released)
{
    if (released != nullptr && clone)
    {
        released->push_back(std::move(clone));
    }
}

void CloneCache::Put(pid_t child, EventPtr clone, Events* released)
{
    auto [it, inserted] = m_clones.try_emplace(child);
    Release(std::exchange(it->second, std::move(clone)), released);
    if (inserted)
    {
        m_order.push_back(child);
    }
    while (m_clones.size() > m_limit && !m_order.empty())
    {
        Drop(m_order.front(), released);
        m_order.pop_front();
    }
    // The order list may hold pids whose clones were taken; keep it short.
    if (m_order.size() > 2 * m_limit)
    {
        std::deque<pid_t> kept;
        for (const pid_t pid : m_order)
        {
            if (m_clones.count(pid) != 0)
            {
                kept.push_back(pid);
            }
        }
        m_order.swap(kept);
    }
}

bool CloneCache::Take(pid_t pid, EventPtr& clone)
{
    const auto it = m_clones.find(pid);
    if (it == m_clones.end())
    {
        return false;
    }
    clone = std::move(it->second);
    m_clones.erase(it);
    return true;
}

void CloneCache::Drop(pid_t pid, Events* released)
{
    const auto it = m_clones.find(pid);
    if (it == m_clones.end())
    {
        return;
    }
    Release(std::move(it->second), released);
    m_clones.erase(it);
}

} // namespace vantor::audit
