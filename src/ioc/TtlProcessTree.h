#pragma once

#include "ioc/ProcReader.h"
#include "ioc/ProcessInfo.h"
#include "ioc/TacticChildren.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace vantor::edr
{
class Event;
}

namespace vantor::common
{
class SqlStorage;
}

namespace vantor::ioc
{

class TtlProcessTreeException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// The IOC component's own memory of processes: for every process the engines
// have seen, its ProcessInfo with tags and verdicts, its parent and children,
// and the events cached for it (in event id order) until it is worth
// reporting.
//
// - A process-running event adds the process, or updates it when the pid is
//   known with the same start time; a different start time is a reused pid
//   and the new process replaces the old entry with nothing of its tags or
//   events. A changed parent re-parents the entry.
// - An exit marks the process "Terminated"; kTerminatedTtl later a sweep
//   marks it "TtlExpired" and deletes it with its cached events. Sweeps run
//   at most once a second.
// - Save writes the processes whose rows changed since the last save into
//   the snapshot's "TtlProcesses" in one transaction and then deletes the
//   rows of processes that left; a failed save keeps everything in memory
//   and is retried at the next save. Load
//   (at start-up) reads the rows back unless process 1 started anew (a
//   reboot), drops rows whose pid now belongs to another process, and marks
//   processes that no longer run "Terminated".
//
// Memory: one entry with typical paths and arguments and three small cached
// events takes about 1.8 KiB, so 100,000 processes stay within 180 MiB
// (measured by the tree bench); cached events of reported processes are
// taken out, and exited processes leave after kTerminatedTtl.
//
// Every operation locks the tree's one mutex; callable from any thread.
class TtlProcessTree
{
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    using EventPtr = std::shared_ptr<const edr::Event>;

    static constexpr const char* kExcluded = "Excluded";
    static constexpr const char* kReported = "Reported";
    static constexpr const char* kTerminated = "Terminated";
    static constexpr const char* kTtlExpired = "TtlExpired";
    // Whether a tag is one of the states above, not a tactic with a score.
    static bool IsStateTag(std::string_view tag)
    {
        return tag == kExcluded || tag == kReported || tag == kTerminated || tag == kTtlExpired;
    }

    // How long an exited process stays: long enough for its late events to
    // find it (the capture queues hold seconds of events) and for a
    // verdict's ancestor walk to see a short-lived parent, short enough that
    // a fork storm does not pile up exited entries.
    static constexpr std::chrono::seconds kTerminatedTtl{300};
    static constexpr std::chrono::seconds kSweepInterval{1};
    // Two readings of one process's start time may differ by the jitter of
    // the boot time the kernel reports.
    static constexpr int64_t kStartTimeToleranceMs = 1000;

    explicit TtlProcessTree(std::string procRoot = "/proc", std::chrono::seconds ttl = kTerminatedTtl,
                            Clock clock = std::chrono::steady_clock::now);

    // From a process-running event. The start time comes from /proc while
    // the process runs, else from the event's time stamp.
    void AddOrUpdate(const edr::Event& event);
    // Throws TtlProcessTreeException "Process with pid <pid> already exists
    // in the process tree".
    void Add(ProcessInfo process);
    // Throws TtlProcessTreeException "ProcessTree::Delete: 'pid' is invalid"
    // for a pid of 0 or below, "Process PID: <pid> not found." when absent.
    void Delete(pid_t pid);

    bool Contains(pid_t pid) const;
    size_t Size() const;
    // A copy; throws TtlProcessTreeException "ProcessInfo for pid <pid> does
    // not exist".
    ProcessInfo GetProcessInfo(pid_t pid) const;
    // The parent, its parent, ... as far as the tree knows them (a "parent"
    // that started after its child is a later process on a reused pid and
    // ends the walk). Throws
    // TtlProcessTreeException "TtlProcessTree::GetAncestors: 'pid' is
    // invalid" for a pid of 0 or below.
    std::vector<pid_t> GetAncestors(pid_t pid) const;
    // As GetProcessInfo, into a value whose buffers are reused: for callers
    // that need a copy per event.
    void GetProcessInfo(pid_t pid, ProcessInfo& into) const;
    // Calls visit (void(const ProcessInfo&)) with the pid's process and
    // answers true; false when the tree does not hold it. Nothing is copied:
    // visit runs under the tree's lock and must not call the tree.
    template <typename Visit>
    bool VisitProcess(pid_t pid, Visit&& visit) const
    {
        std::lock_guard lock(m_mutex);
        const auto it = m_entries.find(pid);
        if (it == m_entries.end())
        {
            return false;
        }
        visit(it->second.info);
        return true;
    }
    // Calls visit (bool(const ProcessInfo&)) with the process and then with
    // each ancestor, walked as GetAncestors walks them, until visit answers
    // false; answers whether the process is in the tree. Nothing is copied
    // or allocated: visit runs under the tree's lock and must not call the
    // tree.
    template <typename Visit>
    bool VisitLineage(pid_t pid, Visit&& visit) const
    {
        std::lock_guard lock(m_mutex);
        const auto visitInfo = [&visit](const Entry& entry) { return visit(entry.info); };
        return WalkLineageLocked(pid, visitInfo);
    }

    // std::hash of a process's executable path and of its arguments, kept
    // with the process and renewed whenever these change: a lineage's
    // command lines can run to kilobytes, too many to hash per event.
    struct CommandHashes
    {
        uint64_t image = 0;
        uint64_t arguments = 0;
    };
    // As VisitLineage, with visit (void(const CommandHashes&)) called for
    // every process of the lineage.
    template <typename Visit>
    bool VisitLineageCommands(pid_t pid, Visit&& visit) const
    {
        std::lock_guard lock(m_mutex);
        const auto visitCommand = [&visit](const Entry& entry)
        {
            visit(entry.command);
            return true;
        };
        return WalkLineageLocked(pid, visitCommand);
    }

    // Caches the event under its acting process (false when the process is
    // not in the tree); an event with an id already cached replaces it.
    bool CacheEvent(EventPtr event);
    // Takes the cached events of a pid, in event id order.
    std::vector<EventPtr> TakeCachedEvents(pid_t pid);
    size_t CachedEventCount() const;

    // False (and nothing changes) when the pid is not in the tree.
    bool AddTag(pid_t pid, const std::string& tag, int64_t score = 0);
    // Logs "Failed to remove tag <tag> from process <pid>" when the process
    // or the tag is missing.
    bool RemoveTag(pid_t pid, const std::string& tag);
    bool HasTag(pid_t pid, const std::string& tag) const;
    bool SetVerdict(pid_t pid, const std::string& engine, int verdict);

    // Marks the process "Terminated" and starts its TTL.
    void MarkTerminated(pid_t pid);
    // Deletes the processes whose TTL ran out; does nothing when the last
    // sweep was less than a second ago. Answers whether it swept.
    bool DeleteStaleProcesses();

    // Forgets every process (the rows stay until the caller clears them).
    void Clear();

    // Answers whether every statement succeeded. Only the rows that changed
    // since the last successful save are written.
    bool Save(common::SqlStorage& snapshot);
    void Load(common::SqlStorage& snapshot);

    // The other processes the tree knows under the pid's parent (also while
    // the parent itself is unknown), in pid order; empty for an unknown pid
    // or one without a parent.
    std::vector<pid_t> GetSiblings(pid_t pid) const;
    // Calls visit (void(const ProcessInfo&)) with the pid's parent and then,
    // when withSiblings, with its siblings in GetSiblings' order, skipping
    // those that carry no tag but the states: what a starting process may
    // inherit. Only the tagged children of the parent are looked at, so a
    // busy parent's thousands of untagged children cost nothing. Nothing is
    // copied: visit runs under the tree's lock and must not call the tree.
    template <typename Visit>
    void VisitTaggedKin(pid_t pid, bool withSiblings, Visit&& visit) const
    {
        std::lock_guard lock(m_mutex);
        const auto it = m_entries.find(pid);
        if (m_tactic.Size() == 0 || it == m_entries.end() || it->second.info.parentPid <= 0)
        {
            return;
        }
        const pid_t parentPid = it->second.info.parentPid;
        if (const auto parent = m_entries.find(parentPid); parent != m_entries.end() && parent->second.tactic)
        {
            visit(parent->second.info);
        }
        const std::set<pid_t>* tagged = m_tactic.Of(parentPid);
        const std::set<pid_t>* siblings = withSiblings ? ChildrenLocked(parentPid) : nullptr;
        if (tagged == nullptr || siblings == nullptr)
        {
            return;
        }
        for (const pid_t sibling : *tagged)
        {
            if (sibling != pid && siblings->count(sibling) != 0)
            {
                visit(m_entries.at(sibling).info);
            }
        }
    }
    // Adds the tag with its score, under one lock, to each of the pids that
    // the tree holds, that does not carry the tag yet and that accept (when
    // given) approves; a carried tag keeps its score, so scores only grow.
    // Answers the pids that received it, in the order given. accept runs
    // under the tree's lock and must not call the tree.
    std::vector<pid_t> AddTagToProcesses(const std::vector<pid_t>& pids, const std::string& tag,
                                         int64_t score,
                                         const std::function<bool(const ProcessInfo&)>& accept = {});

private:
    struct Entry
    {
        ProcessInfo info;
        // Of info; SetInfo keeps them together.
        CommandHashes command;
        std::map<uint32_t, EventPtr> events;
        std::chrono::steady_clock::time_point terminatedAt{};
        // Whether info carries a tag other than the states; TagsChangedLocked
        // keeps it and the tree's count of such entries.
        bool tactic = false;

        void SetInfo(ProcessInfo&& process)
        {
            info = std::move(process);
            command.image = std::hash<std::string_view>()(info.image.path);
            command.arguments = std::hash<std::string_view>()(info.arguments);
        }
    };

    void AddLocked(ProcessInfo process);
    void DeleteLocked(pid_t pid);
    void LinkToParentLocked(pid_t pid, pid_t parentPid);
    void UnlinkFromParentLocked(pid_t pid, pid_t parentPid);
    void MarkTerminatedLocked(Entry& entry);
    Entry* FindLocked(pid_t pid);
    // After any change of an entry's tags: its row must be saved, and its
    // tactic flag (with m_tactic) follows the tags.
    void TagsChangedLocked(Entry& entry);
    // Clears the entry's tactic flag (with m_tactic), before the entry goes
    // or its parent changes.
    void ForgetTacticLocked(Entry& entry);
    // The children the tree holds under parentPid (also while the parent
    // itself is unknown); null when there are none.
    const std::set<pid_t>* ChildrenLocked(pid_t parentPid) const;
    // visit: void(const Entry&), for each process the tree holds under
    // parentPid (also while the parent itself is unknown) but pid, in pid
    // order.
    template <typename Visit>
    void ForEachSiblingLocked(pid_t pid, pid_t parentPid, Visit&& visit) const;
    // visit: bool(const Entry&).
    template <typename Visit>
    bool WalkLineageLocked(pid_t pid, Visit& visit) const;
    // Whether two start times name the same process.
    static bool SameStart(int64_t a, int64_t b) { return std::llabs(a - b) <= kStartTimeToleranceMs; }
    // Process 1 as the snapshot needs it for reboot detection.
    void EnsureInitLocked();

    const internal::ProcReader m_proc;
    const std::chrono::seconds m_ttl;
    const Clock m_clock;

    mutable std::mutex m_mutex;
    std::unordered_map<pid_t, Entry> m_entries;
    // Parent pid -> children that named it while it was not in the tree.
    std::unordered_map<pid_t, std::set<pid_t>> m_waitingChildren;
    // Pids whose rows must go at the next save.
    std::set<pid_t> m_removed;
    std::chrono::steady_clock::time_point m_lastSweep{};
    // Pids whose rows changed since the last save (their own fields, tags
    // or children); a save writes only these.
    std::unordered_set<pid_t> m_changed;
    // The entries whose tactic flag is set.
    internal::TacticChildren m_tactic;
};

template <typename Visit>
void TtlProcessTree::ForEachSiblingLocked(pid_t pid, pid_t parentPid, Visit&& visit) const
{
    const std::set<pid_t>* children = ChildrenLocked(parentPid);
    if (children == nullptr)
    {
        return;
    }
    for (const pid_t child : *children)
    {
        if (const auto it = m_entries.find(child); child != pid && it != m_entries.end())
        {
            visit(it->second);
        }
    }
}

template <typename Visit>
bool TtlProcessTree::WalkLineageLocked(pid_t pid, Visit& visit) const
{
    auto it = m_entries.find(pid);
    if (it == m_entries.end())
    {
        return false;
    }
    // No lineage is longer than the tree; a loop of stale links ends there.
    for (size_t steps = 0; steps <= m_entries.size() && visit(it->second); ++steps)
    {
        const pid_t parent = it->second.info.parentPid;
        if (parent <= 0 || parent == it->first)
        {
            break;
        }
        const int64_t childStart = it->second.info.creationTime;
        it = m_entries.find(parent);
        // A parent that started after its child is a later process on the
        // parent's reused pid.
        if (it == m_entries.end() || it->second.info.creationTime > childStart + kStartTimeToleranceMs)
        {
            break;
        }
    }
    return true;
}

} // namespace vantor::ioc
