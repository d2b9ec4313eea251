#pragma once

#include "edr/EventRuleEngine.h"
#include "fim/EventRule.h"

#include <rapidjson/document.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vantor::fim::internal
{

// Turns the FIM manifest into event rules and keeps the kernel watches of
// the FIM tag in step with them.
//
// The event thread reads the rules while a "config" command may load a new
// manifest; readers take the current rule set as one shared snapshot, so a
// reload never changes a set that an event is being checked against.
class EventRuleManager
{
public:
    struct RuleSet
    {
        std::vector<std::shared_ptr<EventRule>> rules;
        bool collectHashes = false;
    };

    // The engine must outlive the manager.
    EventRuleManager(edr::EventRuleEngine& ruleEngine, std::string tag);
    ~EventRuleManager();

    EventRuleManager(const EventRuleManager&) = delete;
    EventRuleManager& operator=(const EventRuleManager&) = delete;

    // Reads the manifest, builds its rules (a failing rule is logged and
    // skipped) and registers them under the tag in place of the previous
    // ones. Answers the reason when the manifest cannot be used (logged as
    // "EventRuleManager: Disabling FIM: ..."); the caller disables FIM.
    std::optional<std::string> LoadManifest(const std::string& path);

    // Builds the rules of a parsed manifest; symlink rules are not resolved
    // here. Throws ManifestException for an unusable envelope.
    static RuleSet ParseManifest(const rapidjson::Value& manifest, const std::string& name);

    // For a symlink rule, a rule for every link target in its directory
    // (down to the rule's depth).
    static std::vector<std::shared_ptr<EventRule>> ResolveSymlinks(const EventRule& rule);

    std::shared_ptr<const RuleSet> GetRules() const;

    // Removes the kernel watches of the tag and forgets the rules.
    void Clear();

    // The invalidated handler: the engine lost its rules, submit them again.
    void OnInvalidated();

private:
    void Register(const std::shared_ptr<const RuleSet>& rules);

    edr::EventRuleEngine& m_ruleEngine;
    const std::string m_tag;
    mutable std::mutex m_mutex;
    std::shared_ptr<const RuleSet> m_rules;
};

} // namespace vantor::fim::internal
