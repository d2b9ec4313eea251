#pragma once

#include "edr/Event.h"
#include "edr/EventRule.h"
#include "edr/EventRuleEngine.h"
#include "edr/Trie.h"

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vantor::audit
{

// Which tags an event goes to, following the rules the audit rule engine has
// installed.
//
// File events (create, delete, read, write, attribute, rename) go to the tags
// whose path rules cover the event's path, and for a rename its destination,
// looked up in a path trie. Process events (running, clone, exit) go to the
// tags whose process rule holds the event's action, abnormal ends to every
// tag with a process rule; network events (accept, connect, bind) to the tags
// whose network rule holds the action.
//
// Routes are kept per rule id, so that two rules of one tag that share a path
// or an action keep it until the last of them is gone.
//
// Thread-safe: routes change on the threads that add rules while the
// processing thread looks events up. One lock, held only inside these calls;
// an action lookup copies one pointer.
class EventRouter
{
public:
    using Tags = edr::EventRuleEngine::Tags;
    using TagsPtr = std::shared_ptr<const Tags>;

    // What one installed rule routes: a path rule its paths (the actions do
    // not matter), a process or network rule its actions.
    struct Route
    {
        std::string tag;
        uint32_t ruleType = 0;
        edr::EventRule::ActionSet actions;
        std::vector<std::string> paths;
    };

    EventRouter();
    ~EventRouter();

    EventRouter(const EventRouter&) = delete;
    EventRouter& operator=(const EventRouter&) = delete;

    // Adds the route of a rule, replacing the one the rule id had. Throws
    // std::invalid_argument, changing nothing, for an empty tag or a path
    // that is not absolute.
    void AddRoute(const std::string& ruleId, Route route);

    // Removes the route of the rule id; answers whether it had one.
    bool RemoveRoute(const std::string& ruleId);

    // The tags the event goes to; null when none.
    TagsPtr GetTags(const edr::Event& event) const;

    // Tags whose path rules cover the path.
    edr::Trie::Values GetPathTags(std::string_view path) const;
    // Whether any path rule covers the path (false for one not absolute);
    // cheaper than GetPathTags, for a question asked of every file event.
    bool RoutesPath(std::string_view path) const;

private:
    // Action values are one byte; the table is indexed by them.
    static constexpr size_t kActionSlots = 256;

    static std::vector<edr::EventRule::Action> RoutedActions(const Route& route);
    TagsPtr GetFileTags(const edr::Event& event) const;
    void AddToTrie(const Route& route);
    void RemoveFromTrie(const std::string& ruleId, const Route& route);
    void RebuildActionRoutes(const std::vector<edr::EventRule::Action>& actions);

    mutable std::mutex m_mutex;
    std::unordered_map<std::string, Route> m_routes;
    edr::Trie m_trie;
    // Tags per action, replaced whole on change.
    std::array<TagsPtr, kActionSlots> m_actionRoutes;
};

} // namespace vantor::audit
