#pragma once

#include "audit/EventRouter.h"
#include "audit/OutpostProcessFollower.h"
#include "audit/ProcessTree.h"
#include "audit/ProcessTreeUpdater.h"
#include "edr/Event.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace vantor::audit
{

// The event side of the audit rule engine: takes each assembled event, drops
// unsuccessful calls, brings the process tree up to date with it (which
// names the event's acting process), keeps the host agent's exclusion rules
// on the agent's process, drops what the daemon and the host agent's tools
// did, asks the router for the tags that want it and hands it to their
// handlers (the dispatch function).
//
// Runs without an audit socket, so that event handling can be used and
// exercised on its own.
//
// Not thread-safe: the event processing thread is its one caller. The router
// and the tree lock themselves; nothing here holds a lock while the dispatch
// function runs.
class AuditEventProcessor
{
public:
    using EventPtr = std::unique_ptr<edr::Event>;
    using Tags = EventRouter::Tags;
    // Calls the handlers of the tags with the event.
    using Dispatch = std::function<void(const Tags& tags, edr::Event& event)>;

    // processTree may be null: events then carry only their own data. The
    // router, and the outpost target when given, must outlive the processor;
    // without that target the agent's process is not followed.
    AuditEventProcessor(
        std::shared_ptr<ProcessTree> processTree, pid_t ownPid, const EventRouter& router, Dispatch dispatch,
        std::chrono::steady_clock::duration cleanInterval = ProcessTreeUpdater::kCleanInterval,
        OutpostProcessFollower::Target* outpost = nullptr);

    // Processes one event. Throws std::invalid_argument
    // "RuleEngine::ProcessEvent: 'event' is nullptr"; failures while handling
    // the event are logged. With spent given, the event (unless kept: a clone
    // waiting for its child) and the cached clones it made of no further use
    // are appended to it for the caller to destroy; without, they are
    // destroyed here.
    void ProcessEvent(EventPtr event, std::vector<EventPtr>* spent = nullptr);

    // False for events of the host agent's tools (or their descendants) and
    // of this daemon, which must not be reported. ours, when known, is the
    // process tree's answer for the event's actor and lineage (see
    // ProcessTree::UpdateFromEvent), which spares a second look.
    bool ShouldProcessEvent(const edr::Event& event, std::optional<bool> ours = std::nullopt);

    // Whether the image is one of the host agent's tools: a tool name in one
    // of the directories the tools are installed in.
    static bool IsOutpostTool(std::string_view image);

    // A file event that cannot be examined yet; it is refreshed and processed
    // before the next event.
    void CacheFileEvent(EventPtr event);
    void ProcessCachedFileEvents();
    size_t CachedFileEventCount() const { return m_cachedFileEvents.size(); }

    const std::shared_ptr<ProcessTree>& GetProcessTree() const { return m_treeUpdater.GetProcessTree(); }

    // Whether a path rule routes events about the path; thread-safe.
    bool RoutesPath(std::string_view path) const { return m_router.RoutesPath(path); }
    // Events whose handling failed (logged); readable from any thread.
    uint64_t GetFailedEventCount() const { return m_failedEvents.load(std::memory_order_relaxed); }

private:
    // Filters, then routes.
    void Handle(edr::Event& event, std::optional<bool> ours = std::nullopt);
    bool IsOurs(const ProcessInfo& process) const;
    void Route(edr::Event& event);
    void CleanProcessTree();

    ProcessTreeUpdater m_treeUpdater;
    std::optional<OutpostProcessFollower> m_outpost;
    const pid_t m_ownPid;
    const EventRouter& m_router;
    const Dispatch m_dispatch;
    // IsOurs, made once.
    const ProcessTree::Match m_isOurs;

    std::vector<EventPtr> m_cachedFileEvents;
    ProcessTree::Events m_pseudoEvents;
    std::atomic<uint64_t> m_failedEvents{0};
};

} // namespace vantor::audit
