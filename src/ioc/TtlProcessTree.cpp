#include "ioc/TtlProcessTree.h"

#include "common/Logging.h"
#include "common/SqlStorage.h"
#include "edr/Event.h"
#include "ioc/TtlProcessTable.h"

#include <algorithm>
#include <cstdlib>

namespace vantor::ioc
{

using internal::TtlProcessTable;

TtlProcessTree::TtlProcessTree(std::string procRoot, std::chrono::seconds ttl, Clock clock)
    : m_proc(std::move(procRoot))
    , m_ttl(ttl)
    , m_clock(std::move(clock))
{
}

TtlProcessTree::Entry* TtlProcessTree::FindLocked(pid_t pid)
{
    const auto it = m_entries.find(pid);
    return it == m_entries.end() ? nullptr : &it->second;
}

void TtlProcessTree::TagsChangedLocked(Entry& entry)
{
    m_changed.insert(entry.info.pid);
    const bool tactic = std::any_of(entry.info.tags.begin(), entry.info.tags.end(),
                                    [](const auto& tag) { return !IsStateTag(tag.first); });
    if (!tactic)
    {
        ForgetTacticLocked(entry);
    }
    else if (!entry.tactic)
    {
        entry.tactic = true;
        m_tactic.Add(entry.info.parentPid, entry.info.pid);
    }
}

void TtlProcessTree::ForgetTacticLocked(Entry& entry)
{
    if (!entry.tactic)
    {
        return;
    }
    entry.tactic = false;
    m_tactic.Remove(entry.info.parentPid, entry.info.pid);
}

const std::set<pid_t>* TtlProcessTree::ChildrenLocked(pid_t parentPid) const
{
    if (const auto parent = m_entries.find(parentPid); parent != m_entries.end())
    {
        return &parent->second.info.children;
    }
    const auto waiting = m_waitingChildren.find(parentPid);
    return waiting == m_waitingChildren.end() ? nullptr : &waiting->second;
}

void TtlProcessTree::AddOrUpdate(const edr::Event& event)
{
    const pid_t pid = event.GetActorProcessId();
    if (pid <= 0)
    {
        throw TtlProcessTreeException(std::to_string(pid) + " cannot be added as actor process information");
    }
    // One read of the process's stat gives the start time and the rest;
    // capture's reading for this event stands when it made one.
    const auto stat = event.HasActorProcessStat() ? event.GetActorProcessStat() : m_proc.ReadStat(pid);
    const auto startTime = stat ? m_proc.StartTimeOf(*stat) : std::nullopt;
    auto process =
        ProcessInfo::FromEvent(event, startTime ? *startTime : static_cast<int64_t>(event.GetTimestamp()));
    if (startTime)
    {
        process.priority = stat->priority;
        process.state = ProcessInfo::StateOf(stat->state);
    }

    std::lock_guard lock(m_mutex);
    Entry* entry = FindLocked(pid);
    if (entry && !SameStart(entry->info.creationTime, process.creationTime))
    {
        EDR_LOG_DEBUG("Reuse of pid detected for " << pid);
        DeleteLocked(pid);
        entry = nullptr;
    }
    if (!entry)
    {
        AddLocked(std::move(process));
        return;
    }
    // The same process ran another image: what the engines gave it stays.
    process.children = std::move(entry->info.children);
    process.tags = std::move(entry->info.tags);
    process.verdicts = std::move(entry->info.verdicts);
    process.creationTime = entry->info.creationTime;
    const pid_t oldParent = entry->info.parentPid;
    ForgetTacticLocked(*entry);
    entry->SetInfo(std::move(process));
    TagsChangedLocked(*entry);
    if (oldParent != entry->info.parentPid)
    {
        EDR_LOG_DEBUG("Updating Parent of PID: " << pid << "Old Parent PID:"
                                                 << " " << oldParent << "New Parent PID:"
                                                 << " " << entry->info.parentPid);
        UnlinkFromParentLocked(pid, oldParent);
        LinkToParentLocked(pid, entry->info.parentPid);
    }
}

void TtlProcessTree::Add(ProcessInfo process)
{
    std::lock_guard lock(m_mutex);
    if (m_entries.count(process.pid) != 0)
    {
        throw TtlProcessTreeException("Process with pid " + std::to_string(process.pid) +
                                      " already exists in the process tree");
    }
    AddLocked(std::move(process));
}

void TtlProcessTree::AddLocked(ProcessInfo process)
{
    const pid_t pid = process.pid;
    const pid_t parentPid = process.parentPid;
    m_changed.insert(pid);
    m_removed.erase(pid);
    auto& entry = m_entries[pid];
    ForgetTacticLocked(entry);
    entry = Entry{};
    entry.SetInfo(std::move(process));
    TagsChangedLocked(entry);
    // Children that named this pid as their parent before it was known.
    if (const auto waiting = m_waitingChildren.find(pid); waiting != m_waitingChildren.end())
    {
        for (const pid_t child : waiting->second)
        {
            const Entry* known = FindLocked(child);
            if (known && known->info.parentPid == pid && child != pid)
            {
                entry.info.children.insert(child);
            }
        }
        m_waitingChildren.erase(waiting);
    }
    LinkToParentLocked(pid, parentPid);
    if (entry.info.HasTag(kTerminated))
    {
        entry.terminatedAt = m_clock();
    }
}

void TtlProcessTree::LinkToParentLocked(pid_t pid, pid_t parentPid)
{
    if (parentPid <= 0 || parentPid == pid)
    {
        return;
    }
    if (Entry* parent = FindLocked(parentPid))
    {
        parent->info.children.insert(pid);
        m_changed.insert(parentPid);
    }
    else
    {
        EDR_LOG_TRACE("Ppid: " << parentPid << " does not exist for process: " << pid);
        m_waitingChildren[parentPid].insert(pid);
    }
}

void TtlProcessTree::UnlinkFromParentLocked(pid_t pid, pid_t parentPid)
{
    if (Entry* parent = FindLocked(parentPid))
    {
        if (parent->info.children.erase(pid) != 0)
        {
            m_changed.insert(parentPid);
        }
    }
    else if (const auto waiting = m_waitingChildren.find(parentPid); waiting != m_waitingChildren.end())
    {
        waiting->second.erase(pid);
        if (waiting->second.empty())
        {
            m_waitingChildren.erase(waiting);
        }
    }
}

void TtlProcessTree::Delete(pid_t pid)
{
    if (pid <= 0)
    {
        throw TtlProcessTreeException("ProcessTree::Delete: 'pid' is invalid");
    }
    std::lock_guard lock(m_mutex);
    if (m_entries.count(pid) == 0)
    {
        throw TtlProcessTreeException("Process PID: " + std::to_string(pid) + " not found.");
    }
    DeleteLocked(pid);
}

void TtlProcessTree::DeleteLocked(pid_t pid)
{
    const auto it = m_entries.find(pid);
    if (it == m_entries.end())
    {
        EDR_LOG_ERROR("Process PID: " << pid << " not found.");
        return;
    }
    UnlinkFromParentLocked(pid, it->second.info.parentPid);
    for (const pid_t child : it->second.info.children)
    {
        // The children stay; their parent link names a pid the tree no
        // longer knows, as after any exit.
        if (!FindLocked(child))
        {
            EDR_LOG_DEBUG("Child process with PID: " << child
                                                     << " not found while deleting for Process PID: " << pid);
        }
    }
    ForgetTacticLocked(it->second);
    m_entries.erase(it);
    m_removed.insert(pid);
    m_changed.erase(pid);
}

bool TtlProcessTree::Contains(pid_t pid) const
{
    std::lock_guard lock(m_mutex);
    return m_entries.count(pid) != 0;
}

size_t TtlProcessTree::Size() const
{
    std::lock_guard lock(m_mutex);
    return m_entries.size();
}

ProcessInfo TtlProcessTree::GetProcessInfo(pid_t pid) const
{
    ProcessInfo info;
    GetProcessInfo(pid, info);
    return info;
}

void TtlProcessTree::GetProcessInfo(pid_t pid, ProcessInfo& into) const
{
    if (!VisitProcess(pid, [&into](const ProcessInfo& process) { into = process; }))
    {
        throw TtlProcessTreeException("ProcessInfo for pid " + std::to_string(pid) + " does not exist");
    }
}

std::vector<pid_t> TtlProcessTree::GetAncestors(pid_t pid) const
{
    if (pid <= 0)
    {
        throw TtlProcessTreeException("TtlProcessTree::GetAncestors: 'pid' is invalid");
    }
    std::lock_guard lock(m_mutex);
    std::vector<pid_t> ancestors;
    std::set<pid_t> seen{pid};
    const auto collect = [&](const Entry& entry)
    {
        const ProcessInfo& process = entry.info;
        if (process.pid == pid)
        {
            return true;
        }
        // A loop of stale links ends the walk.
        if (!seen.insert(process.pid).second)
        {
            return false;
        }
        ancestors.push_back(process.pid);
        return true;
    };
    WalkLineageLocked(pid, collect);
    return ancestors;
}

bool TtlProcessTree::CacheEvent(EventPtr event)
{
    if (!event)
    {
        return false;
    }
    const pid_t pid = event->GetActorProcessId();
    const uint32_t id = event->GetEventId();
    std::lock_guard lock(m_mutex);
    Entry* entry = FindLocked(pid);
    if (!entry)
    {
        return false;
    }
    entry->events[id] = std::move(event);
    return true;
}

std::vector<TtlProcessTree::EventPtr> TtlProcessTree::TakeCachedEvents(pid_t pid)
{
    std::lock_guard lock(m_mutex);
    std::vector<EventPtr> events;
    Entry* entry = FindLocked(pid);
    if (!entry || entry->events.empty())
    {
        return events;
    }
    EDR_LOG_DEBUG("Adding Events from cache for PID: " << pid);
    events.reserve(entry->events.size());
    for (auto& [id, event] : entry->events)
    {
        events.push_back(std::move(event));
    }
    entry->events.clear();
    return events;
}

size_t TtlProcessTree::CachedEventCount() const
{
    std::lock_guard lock(m_mutex);
    size_t count = 0;
    for (const auto& [pid, entry] : m_entries)
    {
        count += entry.events.size();
    }
    return count;
}

bool TtlProcessTree::AddTag(pid_t pid, const std::string& tag, int64_t score)
{
    std::lock_guard lock(m_mutex);
    Entry* entry = FindLocked(pid);
    if (!entry)
    {
        return false;
    }
    if (tag == kReported)
    {
        // A reported process is reported whatever excluded it before.
        entry->info.tags.erase(kExcluded);
    }
    entry->info.tags[tag] = score;
    TagsChangedLocked(*entry);
    return true;
}

bool TtlProcessTree::RemoveTag(pid_t pid, const std::string& tag)
{
    std::lock_guard lock(m_mutex);
    Entry* entry = FindLocked(pid);
    if (!entry || entry->info.tags.erase(tag) == 0)
    {
        EDR_LOG_DEBUG("Failed to remove tag " << tag << " from process " << pid);
        return false;
    }
    TagsChangedLocked(*entry);
    return true;
}

bool TtlProcessTree::HasTag(pid_t pid, const std::string& tag) const
{
    std::lock_guard lock(m_mutex);
    const auto it = m_entries.find(pid);
    return it != m_entries.end() && it->second.info.HasTag(tag);
}

bool TtlProcessTree::SetVerdict(pid_t pid, const std::string& engine, int verdict)
{
    std::lock_guard lock(m_mutex);
    Entry* entry = FindLocked(pid);
    if (!entry)
    {
        return false;
    }
    entry->info.verdicts[engine] = verdict;
    return true;
}

void TtlProcessTree::MarkTerminated(pid_t pid)
{
    std::lock_guard lock(m_mutex);
    if (Entry* entry = FindLocked(pid))
    {
        MarkTerminatedLocked(*entry);
    }
}

void TtlProcessTree::MarkTerminatedLocked(Entry& entry)
{
    if (!entry.info.HasTag(kTerminated))
    {
        entry.info.tags[kTerminated] = 0;
        entry.terminatedAt = m_clock();
        m_changed.insert(entry.info.pid);
    }
}

bool TtlProcessTree::DeleteStaleProcesses()
{
    std::lock_guard lock(m_mutex);
    const auto now = m_clock();
    if (m_lastSweep != std::chrono::steady_clock::time_point{} && now - m_lastSweep < kSweepInterval)
    {
        return false;
    }
    m_lastSweep = now;
    std::vector<pid_t> expired;
    for (auto& [pid, entry] : m_entries)
    {
        if (entry.info.HasTag(kTerminated) && now - entry.terminatedAt >= m_ttl)
        {
            entry.info.tags[kTtlExpired] = 0;
            expired.push_back(pid);
        }
    }
    for (const pid_t pid : expired)
    {
        EDR_LOG_DEBUG("DeleteStaleProcesses: Deleting ProcessInfo for PID: " << pid);
        DeleteLocked(pid);
    }
    return true;
}

void TtlProcessTree::EnsureInitLocked()
{
    if (m_entries.count(1) != 0)
    {
        return;
    }
    try
    {
        AddLocked(ProcessInfo::FromProc(m_proc, 1));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR(e.what());
    }
}

bool TtlProcessTree::Save(common::SqlStorage& snapshot)
{
    common::SqlStorage::Records records;
    std::unordered_set<pid_t> changed;
    std::set<pid_t> removed;
    {
        std::lock_guard lock(m_mutex);
        EnsureInitLocked();
        if (m_changed.empty() && m_removed.empty())
        {
            // Nothing that the rows hold has changed since the last save.
            return true;
        }
        EDR_LOG_DEBUG("Saving Ttl Process Tree to db");
        // Only the rows that changed: a busy host changes a few processes a
        // second, not the whole tree.
        changed.swap(m_changed);
        records.reserve(changed.size());
        for (const pid_t pid : changed)
        {
            if (const Entry* entry = FindLocked(pid))
            {
                records.push_back(TtlProcessTable::Record(entry->info));
            }
        }
        removed = m_removed;
    }
    std::set<pid_t> deleted;
    const bool saved = TtlProcessTable::Store(snapshot, records, removed, deleted);
    std::lock_guard lock(m_mutex);
    for (const pid_t pid : deleted)
    {
        m_removed.erase(pid);
    }
    if (!saved)
    {
        // Written again next time, unless they left meanwhile.
        for (const pid_t pid : changed)
        {
            if (m_entries.count(pid) != 0)
            {
                m_changed.insert(pid);
            }
        }
    }
    return saved;
}

void TtlProcessTree::Clear()
{
    std::lock_guard lock(m_mutex);
    m_entries.clear();
    m_waitingChildren.clear();
    m_removed.clear();
    m_changed.clear();
    m_tactic.Clear();
}

void TtlProcessTree::Load(common::SqlStorage& snapshot)
{
    EDR_LOG_INFO("Loading up processes from TtlProcesses table.");
    auto read = TtlProcessTable::ReadAll(snapshot);
    if (!read || read->empty())
    {
        return;
    }
    auto& stored = *read;

    // Without a stored process 1 the rows cannot be tied to this boot.
    const auto init = std::find_if(stored.begin(), stored.end(), [](const auto& p) { return p.pid == 1; });
    const auto initStart = m_proc.StartTime(1);
    if (init == stored.end() || !initStart || !SameStart(init->creationTime, *initStart))
    {
        if (init != stored.end())
        {
            const auto slash = init->image.path.rfind('/');
            EDR_LOG_DEBUG("Start time for PID: 1 Process: " << init->image.path.substr(slash + 1)
                                                            << " differs from stored start time.");
        }
        EDR_LOG_INFO("System reboot detected. Clearing the TtlProcessTree.");
        Clear();
        TtlProcessTable::Clear(snapshot);
        return;
    }

    std::lock_guard lock(m_mutex);
    for (auto& process : stored)
    {
        const pid_t pid = process.pid;
        const auto liveStart = m_proc.StartTime(pid);
        if (liveStart && !SameStart(*liveStart, process.creationTime))
        {
            EDR_LOG_DEBUG(pid << " creation time from SnapshotDB differs with Proc creation time");
            m_removed.insert(pid);
            continue;
        }
        // Children are linked again from the parents the rows name.
        process.children.clear();
        if (m_entries.count(pid) != 0)
        {
            DeleteLocked(pid);
        }
        AddLocked(std::move(process));
        Entry& entry = m_entries.at(pid);
        if (!liveStart)
        {
            EDR_LOG_DEBUG("ProcessID: " << pid << " exited.");
            MarkTerminatedLocked(entry);
        }
        else if (const auto stat = m_proc.ReadStat(pid))
        {
            entry.info.state = ProcessInfo::StateOf(stat->state);
            entry.info.priority = stat->priority;
        }
    }
}

std::vector<pid_t> TtlProcessTree::GetSiblings(pid_t pid) const
{
    std::lock_guard lock(m_mutex);
    std::vector<pid_t> siblings;
    const auto it = m_entries.find(pid);
    if (it != m_entries.end() && it->second.info.parentPid > 0)
    {
        ForEachSiblingLocked(pid, it->second.info.parentPid,
                             [&siblings](const Entry& sibling) { siblings.push_back(sibling.info.pid); });
    }
    return siblings;
}

std::vector<pid_t> TtlProcessTree::AddTagToProcesses(const std::vector<pid_t>& pids, const std::string& tag,
                                                     int64_t score,
                                                     const std::function<bool(const ProcessInfo&)>& accept)
{
    std::lock_guard lock(m_mutex);
    std::vector<pid_t> receivers;
    for (const pid_t pid : pids)
    {
        Entry* entry = FindLocked(pid);
        if (entry && !entry->info.HasTag(tag) && (!accept || accept(entry->info)))
        {
            entry->info.tags[tag] = score;
            receivers.push_back(pid);
            TagsChangedLocked(*entry);
        }
    }
    return receivers;
}

} // namespace vantor::ioc
