#include "audit/EventRouter.h"

#include <algorithm>
#include <stdexcept>

namespace vantor::audit
{

namespace
{

constexpr auto kAbnormalEnd = static_cast<edr::EventRule::Action>(edr::EventType::AbnormalEnd);

bool IsAbsolute(std::string_view path)
{
    return !path.empty() && path.front() == '/';
}

} // namespace

EventRouter::EventRouter() = default;

EventRouter::~EventRouter() = default;

std::vector<edr::EventRule::Action> EventRouter::RoutedActions(const Route& route)
{
    if (edr::EventRule::IsPathRule(route.ruleType))
    {
        return {};
    }
    std::vector<edr::EventRule::Action> actions(route.actions.begin(), route.actions.end());
    if (route.ruleType == edr::EventRule::ProcessRule)
    {
        // A process that ends abnormally matters to whoever follows processes.
        actions.push_back(kAbnormalEnd);
    }
    return actions;
}

void EventRouter::AddRoute(const std::string& ruleId, Route route)
{
    if (route.tag.empty())
    {
        throw std::invalid_argument("EventRouter::AddRoute: 'tag' is empty for rule " + ruleId);
    }
    if (edr::EventRule::IsPathRule(route.ruleType))
    {
        for (const auto& path : route.paths)
        {
            if (!IsAbsolute(path))
            {
                throw std::invalid_argument("EventRouter::AddRoute: path '" + path + "' of rule " + ruleId +
                                            " is not absolute");
            }
        }
    }
    std::lock_guard lock(m_mutex);
    auto touched = RoutedActions(route);
    const auto it = m_routes.find(ruleId);
    if (it != m_routes.end())
    {
        const auto old = RoutedActions(it->second);
        touched.insert(touched.end(), old.begin(), old.end());
        const Route replaced = std::move(it->second);
        m_routes.erase(it);
        RemoveFromTrie(ruleId, replaced);
    }
    AddToTrie(route);
    m_routes.emplace(ruleId, std::move(route));
    RebuildActionRoutes(touched);
}

bool EventRouter::RemoveRoute(const std::string& ruleId)
{
    std::lock_guard lock(m_mutex);
    const auto it = m_routes.find(ruleId);
    if (it == m_routes.end())
    {
        return false;
    }
    const Route removed = std::move(it->second);
    m_routes.erase(it);
    RemoveFromTrie(ruleId, removed);
    RebuildActionRoutes(RoutedActions(removed));
    return true;
}

void EventRouter::AddToTrie(const Route& route)
{
    if (!edr::EventRule::IsPathRule(route.ruleType))
    {
        return;
    }
    for (const auto& path : route.paths)
    {
        m_trie.Insert(path, route.tag);
    }
}

void EventRouter::RemoveFromTrie(const std::string& ruleId, const Route& route)
{
    if (!edr::EventRule::IsPathRule(route.ruleType))
    {
        return;
    }
    for (const auto& path : route.paths)
    {
        const bool stillRouted = std::any_of(m_routes.begin(), m_routes.end(),
                                             [&](const auto& entry)
                                             {
                                                 const Route& other = entry.second;
                                                 return entry.first != ruleId && other.tag == route.tag &&
                                                        edr::EventRule::IsPathRule(other.ruleType) &&
                                                        std::find(other.paths.begin(), other.paths.end(),
                                                                  path) != other.paths.end();
                                             });
        if (!stillRouted)
        {
            m_trie.Delete(path, route.tag);
        }
    }
}

void EventRouter::RebuildActionRoutes(const std::vector<edr::EventRule::Action>& actions)
{
    for (const auto action : actions)
    {
        auto tags = std::make_shared<Tags>();
        for (const auto& [id, route] : m_routes)
        {
            const auto routed = RoutedActions(route);
            if (std::find(routed.begin(), routed.end(), action) != routed.end())
            {
                tags->insert(route.tag);
            }
        }
        m_actionRoutes[action] = tags->empty() ? nullptr : std::move(tags);
    }
}

EventRouter::TagsPtr EventRouter::GetTags(const edr::Event& event) const
{
    const edr::EventType type = event.GetType();
    if (edr::IsFileEventType(type))
    {
        return GetFileTags(event);
    }
    const auto action = static_cast<uint32_t>(type);
    if (action >= kActionSlots)
    {
        return nullptr;
    }
    std::lock_guard lock(m_mutex);
    return m_actionRoutes[action];
}

EventRouter::TagsPtr EventRouter::GetFileTags(const edr::Event& event) const
{
    const std::string file = event.GetFile();
    const std::string newFile =
        event.GetType() == edr::EventType::Rename ? event.GetNewFile() : std::string();
    Tags tags;
    {
        std::lock_guard lock(m_mutex);
        if (IsAbsolute(file))
        {
            tags = m_trie.GetValues(file);
        }
        if (IsAbsolute(newFile))
        {
            const auto more = m_trie.GetValues(newFile);
            tags.insert(more.begin(), more.end());
        }
    }
    if (tags.empty())
    {
        return nullptr;
    }
    return std::make_shared<const Tags>(std::move(tags));
}

bool EventRouter::RoutesPath(std::string_view path) const
{
    if (!IsAbsolute(path))
    {
        return false;
    }
    std::lock_guard lock(m_mutex);
    return m_trie.HasValues(path);
}

edr::Trie::Values EventRouter::GetPathTags(std::string_view path) const
{
    std::lock_guard lock(m_mutex);
    return m_trie.GetValues(path);
}

} // namespace vantor::audit
