#include "fim/PendingDocuments.h"

#include <algorithm>

namespace vantor::fim::internal
{

void PendingDocuments::Add(PendingDocument document, bool settles, Clock::time_point now,
                           Clock::duration settleTime)
{
    const std::string path = document.objectPath;
    auto [it, added] = m_groups.try_emplace(path);
    Pending& group = it->second;
    if (added)
    {
        group.first = now;
        group.due = now;
        group.sequence = ++m_sequence;
    }
    else
    {
        m_byDue.erase({{group.due, group.sequence}, path});
    }
    if (settles)
    {
        group.due =
            std::max(group.due, std::min(now + settleTime, group.first + kMaxHoldFactor * settleTime));
    }
    m_byDue.insert({{group.due, group.sequence}, path});
    group.documents.push_back(std::move(document));
    ++m_size;
}

std::optional<PendingDocuments::Group> PendingDocuments::TakeDue(Clock::time_point now)
{
    if (m_byDue.empty() || m_byDue.begin()->first.first > now)
    {
        return std::nullopt;
    }
    return Take(m_byDue.begin());
}

std::optional<PendingDocuments::Group> PendingDocuments::TakeFirst()
{
    if (m_byDue.empty())
    {
        return std::nullopt;
    }
    return Take(m_byDue.begin());
}

std::optional<PendingDocuments::Clock::time_point> PendingDocuments::NextDue() const
{
    if (m_byDue.empty())
    {
        return std::nullopt;
    }
    return m_byDue.begin()->first.first;
}

PendingDocuments::Group PendingDocuments::Take(std::set<std::pair<DueKey, std::string>>::iterator it)
{
    const auto group = m_groups.find(it->second);
    Group out{it->second, std::move(group->second.documents)};
    m_size -= out.documents.size();
    m_groups.erase(group);
    m_byDue.erase(it);
    return out;
}

} // namespace vantor::fim::internal
