#include "audit/AuditEventProcessor.h"

#include "audit/AuditTables.h"
#include "audit/Event.h"
#include "common/Logging.h"

#include <algorithm>
#include <stdexcept>

namespace vantor::audit
{

namespace
{

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

} // namespace

AuditEventProcessor::AuditEventProcessor(std::shared_ptr<ProcessTree> processTree, pid_t ownPid,
                                         const EventRouter& router, Dispatch dispatch,
                                         std::chrono::steady_clock::duration cleanInterval,
                                         OutpostProcessFollower::Target* outpost)
    : m_treeUpdater(std::move(processTree), cleanInterval)
    , m_ownPid(ownPid)
    , m_router(router)
    , m_dispatch(std::move(dispatch))
    , m_isOurs([this](const ProcessInfo& process) { return IsOurs(process); })
{
    if (!m_dispatch)
    {
        throw std::invalid_argument("AuditEventProcessor: 'dispatch' is invalid");
    }
    if (outpost != nullptr)
    {
        m_outpost.emplace(*outpost, m_treeUpdater.GetProcessTree());
    }
}

void AuditEventProcessor::ProcessEvent(EventPtr event, std::vector<EventPtr>* spent)
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
        if (spent != nullptr)
        {
            spent->push_back(std::move(event));
        }
        return;
    }

    const edr::EventType type = event->GetType();
    const uint32_t id = EventIdOf(*event);
    try
    {
        m_pseudoEvents.clear();
        std::optional<bool> ours;
        const bool goesOn = m_treeUpdater.Update(event, m_pseudoEvents, &m_isOurs, &ours, spent);
        for (auto& pseudo : m_pseudoEvents)
        {
            Handle(*pseudo);
        }
        m_pseudoEvents.clear();
        if (goesOn)
        {
            if (m_outpost)
            {
                m_outpost->Follow(*event);
            }
            Handle(*event, ours);
        }
    }
    catch (const std::exception& e)
    {
        m_pseudoEvents.clear();
        m_failedEvents.fetch_add(1, std::memory_order_relaxed);
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
    if (spent != nullptr && event)
    {
        spent->push_back(std::move(event));
    }
}

void AuditEventProcessor::Handle(edr::Event& event, std::optional<bool> ours)
{
    if (ShouldProcessEvent(event, ours))
    {
        Route(event);
    }
}

bool AuditEventProcessor::IsOurs(const ProcessInfo& process) const
{
    return process.GetPid() == m_ownPid || IsOutpostTool(process.GetImage());
}

bool AuditEventProcessor::ShouldProcessEvent(const edr::Event& event, std::optional<bool> ours)
{
    if (event.GetType() == edr::EventType::AbnormalEnd)
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
    const auto& tree = GetProcessTree();
    const auto lineageIsOurs = [&]
    {
        if (ours)
        {
            return *ours;
        }
        // The actor the tree named for this event; for an exit it is
        // already marked terminated in the tree.
        const auto* auditEvent = dynamic_cast<const internal::Event*>(&event);
        const internal::Event::ProcessPtr actor =
            auditEvent != nullptr ? auditEvent->GetActorProcess() : nullptr;
        return tree && (actor ? tree->AnyInLineage(*actor, m_isOurs) : tree->AnyInLineage(pid, m_isOurs));
    };
    if (pid == m_ownPid || lineageIsOurs())
    {
        EDR_LOG_DEBUG("AuditRuleEngine::ShouldProcessEvent: Dropping Corvid generated event with ID: "
                      << EventIdOf(event));
        return false;
    }
    return true;
}

bool AuditEventProcessor::IsOutpostTool(std::string_view image)
{
    const size_t slash = image.rfind('/');
    if (slash == std::string_view::npos)
    {
        return false;
    }
    // Asked for every ancestor of every event: the directory, which rules
    // out nearly every image, is compared before a name is built.
    const std::string_view directory = image.substr(0, slash);
    const auto& directories = AuditTables::ToolDirectories();
    return std::find(directories.begin(), directories.end(), directory) != directories.end() &&
           AuditTables::OutpostToolNames().count(std::string(image.substr(slash + 1))) != 0;
}

void AuditEventProcessor::Route(edr::Event& event)
{
    const auto tags = m_router.GetTags(event);
    if (tags && !tags->empty())
    {
        m_dispatch(*tags, event);
    }
}

void AuditEventProcessor::CacheFileEvent(EventPtr event)
{
    if (event)
    {
        m_cachedFileEvents.push_back(std::move(event));
    }
}

void AuditEventProcessor::ProcessCachedFileEvents()
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
            m_failedEvents.fetch_add(1, std::memory_order_relaxed);
            EDR_LOG_ERROR("Failed to process cached file event with ID " << EventIdOf(*event) << ": "
                                                                         << e.what());
        }
    }
}

void AuditEventProcessor::CleanProcessTree()
{
    ProcessTree::Events terminated;
    if (!m_treeUpdater.CleanIfDue(terminated))
    {
        return;
    }
    if (m_outpost)
    {
        m_outpost->CheckAlive();
    }
    // Processes that ended unseen are announced to whoever follows exits.
    for (auto& event : terminated)
    {
        try
        {
            Route(*event);
        }
        catch (const std::exception& e)
        {
            m_failedEvents.fetch_add(1, std::memory_order_relaxed);
            EDR_LOG_ERROR("Failed to process exit event: " << e.what());
        }
    }
    const auto& tree = GetProcessTree();
    EDR_LOG_DEBUG("FileEventCache size:"
                  << m_cachedFileEvents.size() << " events, ProcessTree size:" << tree->Size()
                  << " processes, CloneCache size:" << tree->CloneCacheSize() << " events");
}

} // namespace vantor::audit
