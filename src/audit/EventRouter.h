#pragma once

#include "audit/ProcessTree.h"
#include "edr/Event.h"
#include "edr/EventRule.h"
#include "edr/EventRuleEngine.h"
#include "edr/Trie.h"

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace vantor::audit
{

// The event side of the audit rule engine: takes each assembled event, keeps
// the process tree up to date with it, drops what must not be reported and
// hands the rest to the handlers of the tags that asked for it.
//
// Routing: file events go to the tags whose path rules cover the event's path
// (and, for a rename, its destination); process events (running, clone,
// exit) to the tags whose process rule holds the event's action, abnormal
// ends to every tag with a process rule; network events (accept, connect,
// bind) to the tags whose network rule holds the action. The routes follow
// the rules that the derived RuleEngine installs in the kernel.
//
// Kept apart from the kernel side so that event handling can run (and be
// exercised) without an audit socket. ProcessEvent is called by one thread,
// the event processing thread.
class EventRouter : public edr::EventRuleEngine
{
public:
    using EventPtr = std::unique_ptr<edr::Event>;

    // Interval between two cleanings of the process tree.
    static constexpr std::chrono::seconds kCleanInterval{60};

    // processTree may be null: events then carry only their own data.
    explicit EventRouter(std::shared_ptr<ProcessTree> processTree, pid_t ownPid);
    ~EventRouter() override;

    // Processes one event and destroys it. Throws std::invalid_argument
    // "RuleEngine::ProcessEvent: 'event' is nullptr"; failures while handling
    // the event are logged.
    void ProcessEvent(EventPtr event);

    // False for events of the host agent's tools (or their descendants) and
    // of this daemon, which must not be reported.
    bool ShouldProcessEvent(const edr::Event& event);

    // A file event that cannot be examined yet; it is refreshed and processed
    // before the next event.
    void CacheFileEvent(EventPtr event);
    void ProcessCachedFileEvents();
    size_t CachedFileEventCount() const { return m_cachedFileEvents.size(); }

    // Tags whose path rules cover the path.
    edr::Trie::Values GetPathTags(std::string_view path) const;

    const std::shared_ptr<ProcessTree>& GetProcessTree() const { return m_processTree; }

protected:
    // Adds/removes the routes of one installed rule under its tag.
    void AddRoute(const std::string& tag, uint32_t ruleType, const edr::EventRule::ActionSet& actions,
                  const std::vector<std::string>& paths);
    void RemoveRoute(const std::string& tag, uint32_t ruleType, const edr::EventRule::ActionSet& actions,
                     const std::vector<std::string>& paths);

private:
    using TagsPtr = std::shared_ptr<const Tags>;
    // Action values are one byte; the table is indexed by them.
    static constexpr size_t kActionSlots = 256;

    void Handle(edr::Event& event);
    void Dispatch(edr::Event& event);
    void CleanProcessTree();
    void ChangeActionRoute(const std::string& tag, uint8_t action, int delta);

    const std::shared_ptr<ProcessTree> m_processTree;
    const pid_t m_ownPid;

    // Touched by the processing thread only.
    std::vector<EventPtr> m_cachedFileEvents;
    std::chrono::steady_clock::time_point m_lastClean;
    ProcessTree::Events m_pseudoEvents;

    // Routes change on the threads that add rules; lookups come from the
    // processing thread.
    mutable std::mutex m_routeMutex;
    edr::Trie m_trie;
    // (action, tag) -> number of installed rules giving that route.
    std::map<std::pair<uint8_t, std::string>, int> m_actionRouteCounts;
    // Tags per action, replaced whole on change so that a lookup only copies
    // a pointer.
    std::array<TagsPtr, kActionSlots> m_actionRoutes;
};

} // namespace vantor::audit
