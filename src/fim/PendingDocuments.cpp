#include "fim/PendingDocuments.h"

#include <algorithm>

namespace vantor::fim::internal
{

void PendingDocuments::Add(PendingDocument document, bool settles, Clock::time_point now,
                           Clock::duration settleTime)
{
    auto it = m_groups.lower_bound(document.objectPath);
    const bool added = it == m_groups.end() || it->first != document.objectPath;
    if (added)
    {
        it = m_groups.emplace_hint(it, std::move(document.objectPath), Pending{});
    }
    // The group holds the path: the document lets its copy go.
    std::string().swap(document.objectPath);
    Pending& group = it->second;
    // A group that waits already moves its place in the due order (its node
    // is reused).
    decltype(m_byDue)::node_type place;
    if (added)
    {
        group.first = now;
        group.due = now;
        group.sequence = ++m_sequence;
    }
    else
    {
        place = m_byDue.extract({group.due, group.sequence});
    }
    if (settles)
    {
        group.due =
            std::max(group.due, std::min(now + settleTime, group.first + kMaxHoldFactor * settleTime));
    }
    if (place)
    {
        place.key() = {group.due, group.sequence};
        m_byDue.insert(std::move(place));
    }
    else
    {
        m_byDue.emplace(DueKey{group.due, group.sequence}, it);
    }
    group.documents.push_back(std::move(document));
    ++m_size;
}

std::optional<PendingDocuments::Group> PendingDocuments::TakeDue(Clock::time_point now)
{
    if (m_byDue.empty() || m_byDue.begin()->first.first > now)
    {
        return std::nullopt;
    }
    return Take();
}

std::optional<PendingDocuments::Group> PendingDocuments::TakeFirst()
{
    if (m_byDue.empty())
    {
        return std::nullopt;
    }
    return Take();
}

std::optional<PendingDocuments::Clock::time_point> PendingDocuments::NextDue() const
{
    if (m_byDue.empty())
    {
        return std::nullopt;
    }
    return m_byDue.begin()->first.first;
}

PendingDocuments::Group PendingDocuments::Take()
{
    const auto first = m_byDue.begin();
    auto group = m_groups.extract(first->second);
    m_byDue.erase(first);
    Group out{std::move(group.key()), std::move(group.mapped().documents)};
    m_size -= out.documents.size();
    return out;
}

} // namespace vantor::fim::internal
