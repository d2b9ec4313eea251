#pragma once

#include "audit/CloneCache.h"
#include "audit/ProcFs.h"
#include "audit/ProcessInfo.h"
#include "edr/Event.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace vantor::audit::internal
{
class Event;
}

namespace vantor::audit
{

// The processes that the audit capture has seen, keyed by pid, so that every
// event can name its acting process even when its start was not audited.
//
// Entries come from execve events, from clone events (kept in a clone cache
// by child pid until the child is needed), and from the proc file system for
// processes that started before the daemon or unaudited. A thread id seen as
// an event's pid is mapped to its process. Exits mark entries terminated;
// Clean() removes them and detects processes that vanished or whose pid was
// reused (their creation time differs from the one /proc reports now).
//
// Pseudo events: a container runtime process is announced once with a pseudo
// running event, and a process found gone without an exit event is announced
// with a pseudo terminate event. Their classes are supplied by the factories;
// an empty factory makes none. The factories run under the tree's lock and
// must not call back into the tree.
//
// Thread-safe; the event processing thread writes, components read.
class ProcessTree
{
public:
    using Events = std::vector<std::unique_ptr<edr::Event>>;
    using PseudoEventFactory = std::function<std::unique_ptr<edr::Event>(const ProcessInfo&)>;
    using ProcessPtr = std::shared_ptr<const ProcessInfo>;

    // Clone events kept at most; the oldest is dropped beyond.
    static constexpr size_t kCloneCacheLimit = 8192;

    // Reads the boot time from <procRoot>/stat; throws std::runtime_error when
    // it cannot.
    explicit ProcessTree(std::string procRoot = "/proc", PseudoEventFactory makeRunningEvent = {},
                         PseudoEventFactory makeTerminateEvent = {});

    // Host boot time, seconds since the epoch ("btime").
    uint64_t GetBootTime() const { return m_procFs.BootTime(); }
    const ProcFs& GetProcFs() const { return m_procFs; }

    // Brings the tree up to date with one event before any handler sees it;
    // may rewrite a thread id in the event to its process id, and attaches
    // the acting process's entry to an audit event. Answers false when the
    // event goes no further (a clone, kept for its child). Pseudo events that
    // must be processed ahead of the event are appended. A clone event is
    // moved into the clone cache under the new process, the call's result
    // (the pointer is left empty); the caller's entry goes with it.
    //
    // With lineageMatch and lineageMatched given, an event that goes on also
    // gets the answer AnyInLineage would give for its actor (the entry
    // attached to an audit event, else the live entry of its pid), under the
    // same lock; it stays empty when the event has no pid.
    //
    // With released given, the cached clones that the update lets go (used
    // up, or evicted beyond the limit) are appended to it instead of being
    // destroyed here, so that the thread that made them can destroy them.
    using Match = std::function<bool(const ProcessInfo&)>;
    bool UpdateFromEvent(std::unique_ptr<edr::Event>& event, Events& pseudoEvents,
                         const Match* lineageMatch = nullptr, std::optional<bool>* lineageMatched = nullptr,
                         Events* released = nullptr);

    // The live entry of a pid, or null.
    ProcessPtr GetProcess(pid_t pid) const;

    // The process and its ancestors, nearest first, following parent pids. A
    // parent missing from the tree is looked up in /proc and added; the walk
    // stops at a parent that cannot be found, that is younger than its child
    // (its pid was reused) or at pid 1. A pid unknown to the tree gives an
    // empty list.
    std::vector<ProcessPtr> GetAncestors(pid_t pid);

    // Whether the process or one of its ancestors satisfies the predicate;
    // same walk as GetAncestors, without building the list. The second form
    // starts from a process record (an event's actor, which may be marked
    // terminated already when the event is its exit).
    bool AnyInLineage(pid_t pid, const Match& match);
    bool AnyInLineage(const ProcessInfo& process, const Match& match);

    // Marks vanished and pid-reused entries terminated, then removes the
    // terminated entries that no live entry names as parent (the chain of a
    // live process is kept whole). Answers pseudo terminate events for the
    // processes that ended without an exit event.
    Events Clean();
    // The cheap half of Clean(), without asking /proc: removes the entries
    // that were already terminated at the previous call and that no live
    // entry names as parent. Answers how many went.
    size_t RemoveTerminated();

    size_t Size() const;
    size_t CloneCacheSize() const;
    size_t ThreadCount() const;

private:
    // graceful: an entry goes at the second call that finds it terminated.
    size_t RemoveTerminatedLocked(bool graceful);
    struct Entry
    {
        ProcessPtr info;
        bool terminated = false;
        bool announced = false;
        // Found terminated by a RemoveTerminated() that kept it: the next one
        // removes it, so that an event straggling behind its process's exit
        // still finds the entry.
        bool sweptOnce = false;
    };

    // Live entry of the pid, creating it (from /proc, then the event, then
    // the clone cache) when missing. May rewrite the event's pid from a
    // thread id. Null when nothing could be made.
    Entry* FindOrCreateActor(pid_t pid, edr::Event& event, bool processStart);
    Entry* CreateFromProc(pid_t pid);
    Entry* CreateFromEvent(pid_t pid, const edr::Event& event);
    Entry* CreateFromCloneCache(pid_t pid);
    Entry* Insert(ProcessPtr info);
    Entry* FindLive(pid_t pid);
    // auditEvent: the event as capture's class, null for any other event.
    void AttachActor(internal::Event* auditEvent, pid_t pid);
    const ProcessInfo* ParentInLineage(const ProcessInfo& child);
    bool WalkLineage(const ProcessInfo& process, const Match& match);
    std::optional<bool> ActorLineageMatches(const edr::Event& event, const internal::Event* auditEvent,
                                            const Match& match);
    void AddRunning(const edr::Event& event, internal::Event* auditEvent);
    void CacheClone(std::unique_ptr<edr::Event> clone, pid_t child);
    void AnnounceContainer(Entry& entry, Events& pseudoEvents);
    ProcessInfo::TimePoint CreationTimeOf(pid_t pid, const edr::Event& event) const;
    ProcessInfo::TimePoint CreationTimeOf(const std::optional<ProcFs::Stat>& stat,
                                          const edr::Event& event) const;

    ProcFs m_procFs;
    PseudoEventFactory m_makeRunningEvent;
    PseudoEventFactory m_makeTerminateEvent;

    mutable std::mutex m_mutex;
    std::unordered_map<pid_t, Entry> m_processes;
    // Pids that /proc did not know when last asked (parents that ended,
    // processes gone before their events arrived). Asking again for every
    // event of their descendants would cost failed reads per event; the set
    // is emptied by Clean() and a pid leaves it when it is seen anew.
    std::unordered_set<pid_t> m_notInProc;
    // Thread id -> process id, for threads seen as an event's pid.
    std::unordered_map<pid_t, pid_t> m_threads;
    CloneCache m_clones{kCloneCacheLimit};
    // Where UpdateFromEvent puts the clones it drops; set during the call.
    Events* m_released = nullptr;
};

} // namespace vantor::audit
