#include "audit/EventRouter.h"

#include "audit/AuditTables.h"
#include "common/Logging.h"

#include <stdexcept>

namespace vantor::audit
{

namespace
{

constexpr auto kAbnormalEnd = static_cast<uint8_t>(edr::EventType::AbnormalEnd);

// Unsuccessful calls still matter for these event categories.
bool KeepsUnsuccessful(uint32_t category)
{
    return category == 1 || category == 2;
}

// Pseudo events carry no SYSCALL record and do not answer every question;
// what they cannot answer takes these defaults.
bool IsSuccessful(const edr::Event& event)
{
    try
    {
        return event.IsSuccessful();
    }
    catch (const edr::EventException&)
    {
        return true;
    }
}

uint32_t CategoryOf(const edr::Event& event)
{
    try
    {
        return event.GetCategory();
    }
    catch (const edr::EventException&)
    {
        return 0;
    }
}

uint32_t EventIdOf(const edr::Event& event)
{
    try
    {
        return event.GetEventId();
    }
    catch (const std::exception&)
    {
        return 0;
    }
}

std::string ActionNameOf(const edr::Event& event)
{
    try
    {
        return event.GetActionName();
    }
    catch (const std::exception&)
    {
        return {};
    }
}

bool IsFileEvent(edr::EventType type)
{
    switch (type)
    {
    case edr::EventType::Create:
    case edr::EventType::Delete:
    case edr::EventType::Read:
    case edr::EventType::Write:
    case edr::EventType::Attribute:
    case edr::EventType::Rename:
        return true;
    default:
        return false;
    }
}

} // namespace

EventRouter::EventRouter(std::shared_ptr<ProcessTree> processTree, pid_t ownPid)
    : m_processTree(std::move(processTree))
    , m_ownPid(ownPid)
    , m_lastClean(std::chrono::steady_clock::now())
{
}

EventRouter::~EventRouter() = default;

void EventRouter::ProcessEvent(EventPtr event)
{
    if (!event)
    {
        throw std::invalid_argument("RuleEngine::ProcessEvent: 'event' is nullptr");
    }
    EDR_LOG_TRACE("RuleEngine::ProcessEvent: Procesing event with ID " << EventIdOf(*event));
    ProcessCachedFileEvents();

    if (!IsSuccessful(*event) && !KeepsUnsuccessful(CategoryOf(*event)))
    {
        EDR_LOG_TRACE("RuleEngine::ProcessEvent: Dropping unsuccessful "
                      << ActionNameOf(*event) << " event with ID " << EventIdOf(*event));
        return;
    }

    const edr::EventType type = event->GetType();
    const uint32_t id = EventIdOf(*event);
    try
    {
        if (type == edr::EventType::Clone && !m_processTree)
        {
            return; // only the process tree has a use for a clone
        }
        if (m_processTree)
        {
            m_pseudoEvents.clear();
            const bool goesOn = m_processTree->UpdateFromEvent(event, m_pseudoEvents);
            for (auto& pseudo : m_pseudoEvents)
            {
                Handle(*pseudo);
            }
            m_pseudoEvents.clear();
            if (!goesOn)
            {
                CleanProcessTree();
                return;
            }
        }
        Handle(*event);
    }
    catch (const std::exception& e)
    {
        if (type == edr::EventType::Exit)
        {
            EDR_LOG_ERROR("Failed to process exit event: " << e.what());
        }
        else
        {
            EDR_LOG_ERROR("Failed to process event with ID " << id << ": " << e.what());
        }
    }
    CleanProcessTree();
}

void EventRouter::Handle(edr::Event& event)
{
    if (!ShouldProcessEvent(event))
    {
        return;
    }
    Dispatch(event);
}

bool EventRouter::ShouldProcessEvent(const edr::Event& event)
{
    const edr::EventType type = event.GetType();
    if (type == edr::EventType::AbnormalEnd)
    {
        return true;
    }
    pid_t pid = 0;
    try
    {
        pid = event.GetActorProcessId();
    }
    catch (const edr::EventException&)
    {
        return true;
    }
    const auto& tools = AuditTables::OutpostToolNames();
    const auto isOurs = [&](const ProcessInfo& process)
    { return process.GetPid() == m_ownPid || tools.count(std::string(process.GetName())) != 0; };
    const bool ours = pid == m_ownPid || (m_processTree && m_processTree->AnyInLineage(pid, isOurs));
    if (ours)
    {
        EDR_LOG_DEBUG("AuditRuleEngine::ShouldProcessEvent: Dropping Corvid generated event with ID: "
                      << EventIdOf(event));
        return false;
    }
    return true;
}

void EventRouter::Dispatch(edr::Event& event)
{
    const edr::EventType type = event.GetType();
    if (IsFileEvent(type))
    {
        Tags tags;
        {
            std::lock_guard lock(m_routeMutex);
            const std::string file = event.GetFile();
            if (!file.empty() && file.front() == '/')
            {
                tags = m_trie.GetValues(file);
            }
            if (type == edr::EventType::Rename)
            {
                const std::string newFile = event.GetNewFile();
                if (!newFile.empty() && newFile.front() == '/')
                {
                    const auto more = m_trie.GetValues(newFile);
                    tags.insert(more.begin(), more.end());
                }
            }
        }
        if (!tags.empty())
        {
            DispatchEvent(tags, event);
        }
        return;
    }
    const auto action = static_cast<uint32_t>(type);
    if (action >= kActionSlots)
    {
        return;
    }
    TagsPtr tags;
    {
        std::lock_guard lock(m_routeMutex);
        tags = m_actionRoutes[action];
    }
    if (tags && !tags->empty())
    {
        DispatchEvent(*tags, event);
    }
}

void EventRouter::CacheFileEvent(EventPtr event)
{
    if (event)
    {
        m_cachedFileEvents.push_back(std::move(event));
    }
}

void EventRouter::ProcessCachedFileEvents()
{
    if (m_cachedFileEvents.empty())
    {
        return;
    }
    // Handlers may hold back events again; those wait for the next round.
    std::vector<EventPtr> events;
    events.swap(m_cachedFileEvents);
    for (auto& event : events)
    {
        try
        {
            event->Refresh();
            Handle(*event);
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("Failed to process cached file event with ID " << EventIdOf(*event) << ": "
                                                                         << e.what());
        }
    }
}

void EventRouter::CleanProcessTree()
{
    if (!m_processTree)
    {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastClean < kCleanInterval)
    {
        return;
    }
    m_lastClean = now;
    auto terminated = m_processTree->Clean();
    for (auto& event : terminated)
    {
        try
        {
            Dispatch(*event);
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("Failed to process exit event: " << e.what());
        }
    }
    EDR_LOG_DEBUG("FileEventCache size:"
                  << m_cachedFileEvents.size() << " events, ProcessTree size:" << m_processTree->Size()
                  << " processes, CloneCache size:" << m_processTree->CloneCacheSize() << " events");
}

edr::Trie::Values EventRouter::GetPathTags(std::string_view path) const
{
    std::lock_guard lock(m_routeMutex);
    return m_trie.GetValues(path);
}

void EventRouter::AddRoute(const std::string& tag, uint32_t ruleType,
                           const edr::EventRule::ActionSet& actions, const std::vector<std::string>& paths)
{
    std::lock_guard lock(m_routeMutex);
    if (edr::EventRule::IsPathRule(ruleType))
    {
        for (const auto& path : paths)
        {
            m_trie.Insert(path, tag);
        }
        return;
    }
    for (const auto action : actions)
    {
        ChangeActionRoute(tag, action, +1);
    }
    if (ruleType == edr::EventRule::ProcessRule)
    {
        ChangeActionRoute(tag, kAbnormalEnd, +1);
    }
}

void EventRouter::RemoveRoute(const std::string& tag, uint32_t ruleType,
                              const edr::EventRule::ActionSet& actions, const std::vector<std::string>& paths)
{
    std::lock_guard lock(m_routeMutex);
    if (edr::EventRule::IsPathRule(ruleType))
    {
        for (const auto& path : paths)
        {
            m_trie.Delete(path, tag);
        }
        return;
    }
    for (const auto action : actions)
    {
        ChangeActionRoute(tag, action, -1);
    }
    if (ruleType == edr::EventRule::ProcessRule)
    {
        ChangeActionRoute(tag, kAbnormalEnd, -1);
    }
}

void EventRouter::ChangeActionRoute(const std::string& tag, uint8_t action, int delta)
{
    int& count = m_actionRouteCounts[{action, tag}];
    const bool had = count > 0;
    count += delta;
    const bool has = count > 0;
    if (count <= 0)
    {
        m_actionRouteCounts.erase({action, tag});
    }
    if (had == has)
    {
        return;
    }
    auto tags =
        m_actionRoutes[action] ? std::make_shared<Tags>(*m_actionRoutes[action]) : std::make_shared<Tags>();
    if (has)
    {
        tags->insert(tag);
    }
    else
    {
        tags->erase(tag);
    }
    m_actionRoutes[action] = std::move(tags);
}

} // namespace vantor::audit
