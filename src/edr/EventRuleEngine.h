#pragma once

#include "edr/Event.h"
#include "edr/EventRule.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace vantor::edr
{

// Routing table from a tag (the name of one watcher, such as a FIM or IOC
// rule set) to that watcher's two handlers:
//  - the rule-matched handler receives every event that matched a rule of the
//    tag;
//  - the invalidated handler is told that the engine's rules were lost (for
//    example the kernel rules were flushed), so that its owner re-submits them.
//
// Design:
//  - The audit rule engine derives from this class. Its router keeps the
//    path trie under the router's own lock and answers the tags of an event's
//    path, which the engine hands to DispatchEvent(); when its rules become
//    invalid it calls InvalidateEventHandlers(). It must not hold a lock of
//    its own while doing so, because invalidated handlers re-submit rules.
//  - Handlers are called while this engine's mutex is held. That is what
//    makes unregistering safe: once UnregisterEventHandlers() returns, no
//    handler of the tag runs any more, so its owner may be destroyed. The
//    flip side is that a handler must not register or unregister handlers;
//    doing so from inside a handler throws std::logic_error instead of
//    deadlocking.
//  - A handler that throws never keeps the other tags from getting the event.
class EventRuleEngine
{
public:
    using RuleMatchedEventHandler = std::function<void(Event&)>;
    using InvalidatedEventHandler = std::function<void()>;
    using Tags = std::unordered_set<std::string>;
    using Rules = std::vector<std::shared_ptr<EventRule>>;

    EventRuleEngine();
    virtual ~EventRuleEngine();

    EventRuleEngine(const EventRuleEngine&) = delete;
    EventRuleEngine& operator=(const EventRuleEngine&) = delete;

    // Adds the handlers of a tag, or replaces those the tag already has.
    // Throws std::runtime_error for an empty tag or an empty handler.
    void RegisterEventHandlers(const std::string& tag, RuleMatchedEventHandler ruleMatchedEventHandler,
                               InvalidatedEventHandler invalidatedEventHandler);

    // Removes the handlers of a tag; an unknown tag is only logged.
    void UnregisterEventHandlers(const std::string& tag);

    bool HasEventHandlers(const std::string& tag) const;

    // Installs what the rules need to see their events (kernel audit rules,
    // path entries) under the tag, so that matching events reach the tag's
    // handlers. A rule that cannot be installed is logged and skipped; an
    // empty tag throws.
    virtual void AddRules(const Rules& rules, const std::string& tag) = 0;

    // Removes everything AddRules installed under the tag.
    virtual void DeleteRules(const std::string& tag) = 0;

    // Handler calls that threw (logged, and the event lost to that handler);
    // readable from any thread.
    uint64_t GetHandlerFailureCount() const { return m_handlerFailures.load(std::memory_order_relaxed); }

protected:
    // Calls the rule-matched handler of every tag in the set that has one.
    void DispatchEvent(const Tags& tags, Event& event);

    // Calls the invalidated handler of every registered tag.
    void InvalidateEventHandlers();

private:
    struct Handlers
    {
        RuleMatchedEventHandler ruleMatched;
        InvalidatedEventHandler invalidated;
    };

    void ThrowIfCalledFromHandler(const char* operation) const;

    mutable std::mutex m_mutex;
    std::unordered_map<std::string, Handlers> m_handlers;
    // The thread that is running handlers right now (only one can, as they run
    // under m_mutex); lets a re-entrant call fail instead of deadlocking.
    std::atomic<std::thread::id> m_dispatchingThread{};
    std::atomic<uint64_t> m_handlerFailures{0};
};

} // namespace vantor::edr
