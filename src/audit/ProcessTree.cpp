#include "audit/ProcessTree.h"

#include "audit/AuditTables.h"
#include "audit/CloneEvent.h"
#include "audit/Event.h"
#include "common/Logging.h"

#include <unordered_set>
#include <utility>

namespace vantor::audit
{

namespace
{

// Category of process-start events, whose actor is the parent.
constexpr uint32_t kProcessStartCategory = 3;
// Longest parent chain followed; guards against loops in stale data.
constexpr int kMaxLineageDepth = 256;

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

} // namespace

ProcessTree::ProcessTree(std::string procRoot, PseudoEventFactory makeRunningEvent,
                         PseudoEventFactory makeTerminateEvent)
    : m_procFs(std::move(procRoot))
    , m_makeRunningEvent(std::move(makeRunningEvent))
    , m_makeTerminateEvent(std::move(makeTerminateEvent))
{
}

bool ProcessTree::UpdateFromEvent(std::unique_ptr<edr::Event>& event, Events& pseudoEvents,
                                  const Match* lineageMatch, std::optional<bool>* lineageMatched,
                                  Events* released)
{
    const edr::EventType type = event->GetType();
    // Cast once: every step below reads or sets what only capture's events
    // carry (null for any other event).
    internal::Event* const auditEvent = dynamic_cast<internal::Event*>(event.get());
    std::lock_guard lock(m_mutex);
    // Other callers (lineage walks of other threads) must not see it.
    struct Unset
    {
        Events*& at;
        ~Unset() { at = nullptr; }
    } unset{m_released = released};
    // Answered last, when the tree knows the event's actor.
    const auto answerLineage = [&]
    {
        if (lineageMatch != nullptr && lineageMatched != nullptr)
        {
            *lineageMatched = ActorLineageMatches(*event, auditEvent, *lineageMatch);
        }
        return true;
    };
    if (type == edr::EventType::Clone)
    {
        const auto* clone = dynamic_cast<const internal::CloneEvent*>(event.get());
        if (clone == nullptr)
        {
            EDR_LOG_DEBUG("Clone event without its new process ignored");
            return false;
        }
        const pid_t child = clone->GetChildProcessId();
        if (child > 0)
        {
            // The caller's entry gives the child its arguments.
            AttachActor(auditEvent, event->GetActorProcessId());
            CacheClone(std::move(event), child);
        }
        return false;
    }
    if (type == edr::EventType::AbnormalEnd)
    {
        AttachActor(auditEvent, event->GetActorProcessId());
        return answerLineage();
    }
    if (type == edr::EventType::Exit)
    {
        const pid_t pid = event->GetActorProcessId();
        AttachActor(auditEvent, pid);
        if (const auto it = m_processes.find(pid); it != m_processes.end())
        {
            it->second.terminated = true;
        }
        m_clones.Drop(pid, m_released);
        return answerLineage();
    }

    const bool processStart = CategoryOf(*event) == kProcessStartCategory;
    const pid_t actor = processStart ? event->GetActorParentProcessId() : event->GetActorProcessId();
    if (actor > 0)
    {
        if (Entry* entry = FindOrCreateActor(actor, *event, processStart))
        {
            AnnounceContainer(*entry, pseudoEvents);
        }
    }
    if (type == edr::EventType::Running)
    {
        AddRunning(*event, auditEvent);
    }
    // A process start's own process is the one it made; any other event's
    // is the actor found above (its pid may have been rewritten from a
    // thread id).
    AttachActor(auditEvent, event->GetActorProcessId());
    return answerLineage();
}

std::optional<bool> ProcessTree::ActorLineageMatches(const edr::Event& event,
                                                     const internal::Event* auditEvent, const Match& match)
{
    // The actor the tree named for this event; for an exit it is already
    // marked terminated in the tree.
    if (const internal::Event::ProcessPtr actor =
            auditEvent != nullptr ? auditEvent->GetActorProcess() : nullptr)
    {
        return WalkLineage(*actor, match);
    }
    pid_t pid = 0;
    try
    {
        pid = event.GetActorProcessId();
    }
    catch (const edr::EventException&)
    {
        return std::nullopt;
    }
    const Entry* entry = FindLive(pid);
    return entry != nullptr && WalkLineage(*entry->info, match);
}

void ProcessTree::AttachActor(internal::Event* auditEvent, pid_t pid)
{
    if (auditEvent == nullptr || pid <= 0)
    {
        return;
    }
    if (const Entry* entry = FindLive(pid))
    {
        auditEvent->SetActorProcess(entry->info);
    }
}

ProcessTree::Entry* ProcessTree::FindOrCreateActor(pid_t pid, edr::Event& event, bool processStart)
{
    if (!processStart)
    {
        if (const auto thread = m_threads.find(pid); thread != m_threads.end())
        {
            event.UpdateActorProcessId(thread->second);
            pid = thread->second;
        }
    }
    if (Entry* entry = FindLive(pid))
    {
        return entry;
    }
    EDR_LOG_TRACE("Not found Actor PID: " << pid << " in process tree, creating actor process");

    // A pid that /proc did not know when last asked is not asked again
    // before the next cleaning: every event of a process gone unseen would
    // cost failed reads otherwise.
    if (!processStart && m_notInProc.count(pid) == 0)
    {
        // /proc answers a thread id too; its Tgid tells the process.
        if (const auto status = m_procFs.ReadStatus(pid); status && status->tgid > 0 && status->tgid != pid)
        {
            EDR_LOG_TRACE("Detected that Event has thread id " << pid << " instead of process id");
            EDR_LOG_TRACE("Updating Event with process id " << status->tgid);
            m_threads[pid] = status->tgid;
            event.UpdateActorProcessId(status->tgid);
            pid = status->tgid;
            if (Entry* entry = FindLive(pid))
            {
                return entry;
            }
        }
    }
    if (Entry* entry = CreateFromProc(pid))
    {
        return entry;
    }
    // The event describes its actor only when the actor is the event's own
    // process, never for a process start (whose actor is the parent), and
    // only an exec or a fork describes a process.
    const edr::EventType type = event.GetType();
    if (!processStart && event.GetActorProcessId() == pid &&
        (type == edr::EventType::Running || type == edr::EventType::Clone))
    {
        if (Entry* entry = CreateFromEvent(pid, event))
        {
            return entry;
        }
    }
    return CreateFromCloneCache(pid);
}

ProcessTree::Entry* ProcessTree::CreateFromProc(pid_t pid)
{
    if (m_notInProc.count(pid) != 0)
    {
        return nullptr;
    }
    EDR_LOG_TRACE("Creating actor process from ProcFS: " << pid);
    try
    {
        return Insert(std::make_shared<const ProcessInfo>(m_procFs, pid));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_DEBUG("Failed to create process for " << pid << " using ProcFS: " << e.what());
        m_notInProc.insert(pid);
        return nullptr;
    }
}

ProcessTree::Entry* ProcessTree::CreateFromEvent(pid_t pid, const edr::Event& event)
{
    EDR_LOG_TRACE("Creating process from Event data: " << pid);
    try
    {
        return Insert(std::make_shared<const ProcessInfo>(event, CreationTimeOf(pid, event)));
    }
    catch (const std::exception& e)
    {
        std::string action;
        try
        {
            action = event.GetActionName();
        }
        catch (const std::exception&)
        {
        }
        EDR_LOG_DEBUG("Failed to create process from " << action << " event for pid: " << pid << ": "
                                                       << e.what());
        return nullptr;
    }
}

ProcessTree::Entry* ProcessTree::CreateFromCloneCache(pid_t pid)
{
    EDR_LOG_TRACE("Creating process from Clone Cache: " << pid);
    std::unique_ptr<edr::Event> clone;
    if (!m_clones.Take(pid, clone))
    {
        EDR_LOG_DEBUG("Process with pid " << pid << " does not exist in Clone Cache");
        return nullptr;
    }
    if (!clone)
    {
        EDR_LOG_ERROR("Accessing key failed from cache memory");
        return nullptr;
    }
    Entry* entry = nullptr;
    try
    {
        entry = Insert(std::make_shared<const ProcessInfo>(*clone, CreationTimeOf(pid, *clone)));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_DEBUG("Failed to create process for " << pid << " using Clone Cache: " << e.what());
    }
    if (m_released != nullptr)
    {
        m_released->push_back(std::move(clone)); // destroyed by the thread that made it
    }
    return entry;
}

ProcessInfo::TimePoint ProcessTree::CreationTimeOf(pid_t pid, const edr::Event& event) const
{
    return CreationTimeOf(m_procFs.ReadStat(pid), event);
}

ProcessInfo::TimePoint ProcessTree::CreationTimeOf(const std::optional<ProcFs::Stat>& stat,
                                                   const edr::Event& event) const
{
    // The fork time that /proc reports is what later checks compare with; a
    // process already gone keeps the event's time.
    if (stat)
    {
        return m_procFs.CreationTime(stat->startTicks);
    }
    try
    {
        return ProcessInfo::TimePoint(std::chrono::milliseconds(event.GetTimestamp()));
    }
    catch (const edr::EventException&)
    {
        return std::chrono::system_clock::now();
    }
}

ProcessTree::Entry* ProcessTree::Insert(ProcessPtr info)
{
    const pid_t pid = info->GetPid();
    m_notInProc.erase(pid);
    // The process is known now; its fork is of no further use.
    m_clones.Drop(pid, m_released);
    Entry& entry = m_processes[pid];
    entry = Entry{std::move(info), false, false};
    return &entry;
}

ProcessTree::Entry* ProcessTree::FindLive(pid_t pid)
{
    const auto it = m_processes.find(pid);
    return it != m_processes.end() && !it->second.terminated ? &it->second : nullptr;
}

void ProcessTree::AddRunning(const edr::Event& event, internal::Event* auditEvent)
{
    const pid_t pid = event.GetActorProcessId();
    if (pid <= 0)
    {
        return;
    }
    try
    {
        const Entry* existing = FindLive(pid);
        // execve keeps the process: an entry of the same process keeps its
        // creation time; one of a reused pid does not.
        const auto stat = m_procFs.ReadStat(pid);
        if (auditEvent != nullptr)
        {
            // IOC needs the same reading; it is not read twice.
            auditEvent->SetActorProcessStat(stat);
        }
        auto creation = CreationTimeOf(stat, event);
        const bool announced =
            existing != nullptr && existing->announced && existing->info->GetCreationTime() == creation;
        Entry* entry = Insert(std::make_shared<const ProcessInfo>(event, creation));
        entry->announced = announced;
    }
    catch (const std::exception& e)
    {
        EDR_LOG_DEBUG("Failed to create process from Execve event for pid: " << pid << ": " << e.what());
    }
    m_clones.Drop(pid, m_released);
    m_threads.erase(pid); // a new process, not a thread any more
}

void ProcessTree::CacheClone(std::unique_ptr<edr::Event> clone, pid_t child)
{
    // A live entry much older than this fork belongs to an earlier process
    // that held the pid. (The child may have run execve before the fork
    // returned, so a young entry is the child itself.)
    if (Entry* stale = FindLive(child))
    {
        try
        {
            const ProcessInfo::TimePoint forked{std::chrono::milliseconds(clone->GetTimestamp())};
            if (stale->info->GetCreationTime() + std::chrono::seconds(1) < forked)
            {
                EDR_LOG_DEBUG("ProcessID: "
                              << child << " creation time from processInfo differs with Proc creation time");
                stale->terminated = true;
            }
        }
        catch (const edr::EventException&)
        {
        }
    }
    m_clones.Put(child, std::move(clone), m_released);
    EDR_LOG_TRACE("Added Clone event Pid: " << child << " to cache. Size = " << m_clones.Size());
}

void ProcessTree::AnnounceContainer(Entry& entry, Events& pseudoEvents)
{
    if (entry.announced)
    {
        return;
    }
    entry.announced = true;
    const std::string name(entry.info->GetName());
    if (!m_makeRunningEvent || !AuditTables::ContainerRuntimeNames().count(name))
    {
        return;
    }
    EDR_LOG_DEBUG("Creating pseudo event for container process " << name);
    try
    {
        if (auto pseudo = m_makeRunningEvent(*entry.info))
        {
            pseudoEvents.push_back(std::move(pseudo));
        }
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Failed to create pseudo event for container process " << name << ": " << e.what());
    }
}

ProcessTree::ProcessPtr ProcessTree::GetProcess(pid_t pid) const
{
    std::lock_guard lock(m_mutex);
    const auto it = m_processes.find(pid);
    return it != m_processes.end() && !it->second.terminated ? it->second.info : nullptr;
}

const ProcessInfo* ProcessTree::ParentInLineage(const ProcessInfo& child)
{
    const pid_t parentPid = child.GetParentPid();
    if (parentPid <= 0 || parentPid == child.GetPid())
    {
        return nullptr;
    }
    const auto it = m_processes.find(parentPid);
    // A terminated parent is still the parent of its orphans.
    const Entry* parent = it != m_processes.end() ? &it->second : CreateFromProc(parentPid);
    if (parent == nullptr || parent->info->GetCreationTime() > child.GetCreationTime())
    {
        return nullptr; // unknown, or a younger process holds the parent's pid now
    }
    return parent->info.get();
}

bool ProcessTree::AnyInLineage(pid_t pid, const Match& match)
{
    std::lock_guard lock(m_mutex);
    const Entry* entry = FindLive(pid);
    return entry != nullptr && WalkLineage(*entry->info, match);
}

bool ProcessTree::AnyInLineage(const ProcessInfo& process, const Match& match)
{
    std::lock_guard lock(m_mutex);
    return WalkLineage(process, match);
}

bool ProcessTree::WalkLineage(const ProcessInfo& process, const Match& match)
{
    const ProcessInfo* current = &process;
    for (int depth = 0; current != nullptr && depth < kMaxLineageDepth; ++depth)
    {
        if (match(*current))
        {
            return true;
        }
        current = ParentInLineage(*current);
    }
    return false;
}

std::vector<ProcessTree::ProcessPtr> ProcessTree::GetAncestors(pid_t pid)
{
    std::vector<ProcessPtr> lineage;
    std::lock_guard lock(m_mutex);
    const Entry* entry = FindLive(pid);
    if (entry == nullptr)
    {
        return lineage;
    }
    lineage.push_back(entry->info);
    for (int depth = 0; depth < kMaxLineageDepth; ++depth)
    {
        const ProcessInfo* parent = ParentInLineage(*lineage.back());
        if (parent == nullptr)
        {
            break;
        }
        lineage.push_back(m_processes.at(parent->GetPid()).info);
    }
    return lineage;
}

ProcessTree::Events ProcessTree::Clean()
{
    Events terminated;
    std::lock_guard lock(m_mutex);
    EDR_LOG_DEBUG("Cleaning process tree for terminated processes");
    m_notInProc.clear();
    for (auto& [pid, entry] : m_processes)
    {
        if (entry.terminated)
        {
            continue;
        }
        const auto stat = m_procFs.ReadStat(pid);
        if (stat && m_procFs.CreationTime(stat->startTicks) == entry.info->GetCreationTime())
        {
            continue;
        }
        if (stat)
        {
            EDR_LOG_DEBUG("ProcessID: " << pid
                                        << " creation time from processInfo differs with Proc creation time");
        }
        // Ended without an exit event reaching us.
        entry.terminated = true;
        if (m_makeTerminateEvent)
        {
            try
            {
                if (auto pseudo = m_makeTerminateEvent(*entry.info))
                {
                    terminated.push_back(std::move(pseudo));
                }
            }
            catch (const std::exception& e)
            {
                EDR_LOG_ERROR("Failed to create pseudo terminate event for pid " << pid << ": " << e.what());
            }
        }
    }

    RemoveTerminatedLocked(false);
    for (auto it = m_threads.begin(); it != m_threads.end();)
    {
        if (!FindLive(it->second) || !m_procFs.HasTask(it->second, it->first))
        {
            it = m_threads.erase(it);
        }
        else
        {
            ++it;
        }
    }
    return terminated;
}

size_t ProcessTree::RemoveTerminated()
{
    std::lock_guard lock(m_mutex);
    return RemoveTerminatedLocked(true);
}

size_t ProcessTree::RemoveTerminatedLocked(bool graceful)
{
    std::unordered_set<pid_t> parentsOfLive;
    for (const auto& [pid, entry] : m_processes)
    {
        if (!entry.terminated)
        {
            parentsOfLive.insert(entry.info->GetParentPid());
        }
    }
    size_t removed = 0;
    for (auto it = m_processes.begin(); it != m_processes.end();)
    {
        Entry& entry = it->second;
        if (entry.terminated && graceful && !entry.sweptOnce)
        {
            entry.sweptOnce = true;
            ++it;
        }
        else if (entry.terminated && !parentsOfLive.count(it->first))
        {
            EDR_LOG_DEBUG("ProcessID: " << it->first << " exited. ");
            it = m_processes.erase(it);
            ++removed;
        }
        else
        {
            ++it;
        }
    }
    return removed;
}

size_t ProcessTree::Size() const
{
    std::lock_guard lock(m_mutex);
    return m_processes.size();
}

size_t ProcessTree::CloneCacheSize() const
{
    std::lock_guard lock(m_mutex);
    return m_clones.Size();
}

size_t ProcessTree::ThreadCount() const
{
    std::lock_guard lock(m_mutex);
    return m_threads.size();
}

} // namespace vantor::audit
