#pragma once

#include "edr/Event.h"
#include "edr/EventRule.h"
#include "ioc/FilterGroup.h"

#include <rapidjson/document.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::ioc::internal
{

class FiletypeCriteria;
class RegexPatterns;

// Base of the IOC rules of a manifest (FileRule, ProcessRule, NetworkRule,
// WhitelistGlobalRule): the rule id, the exclusion and inclusion filter
// groups ("exclusionFilters", "inclusionFilters", see FilterGroup) and the
// matching order every rule follows:
//
//   1. the event's action must be one of the rule's notify actions;
//   2. when any exclusion group matches, the event does not match;
//   3. when the rule has file type filters, the file's type must match one;
//   4. a rule without inclusion groups matches; otherwise any inclusion
//      group must match.
//
// Every rule answers every operation below; one that its class does not
// offer throws EventRuleException with that class's text. As an
// edr::EventRule a rule tells the audit rule engine what the kernel must
// report for it.
//
// Immutable after construction: matched from any thread.
class Rule : public edr::EventRule
{
public:
    const std::string& GetId() const override { return m_id; }
    // The manifest's "ruleType" word.
    const std::string& GetRuleType() const { return m_ruleType; }

    // The watched path of a file or directory rule.
    virtual std::string GetPath() const = 0;
    // Notify actions on files, on directories themselves, of processes and
    // of network connections.
    virtual const ActionSet& GetFileActions() const = 0;
    virtual const ActionSet& GetProcessActions() const = 0;
    virtual const ActionSet& GetNetworkActions() const = 0;
    // The executables a whitelist rule applies to.
    virtual const RegexPatterns& GetApplyTo() const = 0;
    // The "fileTypeToInclude" filters of a file rule.
    virtual const std::vector<FiletypeCriteria>& GetFileTypeFilters() const = 0;

    // Whether the event matches the rule, in the order above. Questions the
    // event cannot answer count as no match.
    virtual bool Matches(const edr::Event& event) const;

    const std::vector<FilterGroup>& GetExclusions() const { return m_exclusions; }
    const std::vector<FilterGroup>& GetInclusions() const { return m_inclusions; }

protected:
    // A rule word and the actions it stands for.
    using ActionWords = std::map<std::string, ActionSet, std::less<>>;

    // Reads "ruleId"; throws EventRuleException "Invalid Rule" when json is
    // not an object and "Missing or invalid ruleId".
    Rule(const rapidjson::Value& json, std::string ruleType);
    // A rule made by the program, not read from a manifest.
    Rule(std::string id, std::string ruleType);

    // The actions of the "notify" words found in words (each word's actions
    // added to the set its table belongs to). Throws EventRuleException
    // unknownWord for a word in no table and "Invalid rule.No notify action
    // provided for the rule" for a missing or empty list.
    void ReadNotify(const rapidjson::Value& json,
                    const std::vector<std::pair<const ActionWords*, ActionSet*>>& tables,
                    const char* unknownWord) const;
    // Exclusion groups, then inclusion groups.
    void ReadFilters(const rapidjson::Value& json);

    // Step 1 with its messages.
    virtual bool IsNotified(const edr::Event& event) const = 0;
    // Step 3; rules without file type filters pass.
    virtual bool MatchesFileType(const edr::Event& event) const;
    virtual const char* MatchingMessage() const = 0;

    bool MatchesAnyExclusion(const edr::Event& event) const;

    // The "ruleType" word of a rule object; empty when there is none.
    static std::string RuleTypeOf(const rapidjson::Value& json);

    static constexpr Action ActionOf(edr::EventType type) { return static_cast<Action>(type); }
    static bool HasAction(const ActionSet& actions, edr::EventType type)
    {
        return actions.count(ActionOf(type)) != 0;
    }

private:
    std::string m_id;
    std::string m_ruleType;
    std::vector<FilterGroup> m_exclusions;
    std::vector<FilterGroup> m_inclusions;
};

} // namespace vantor::ioc::internal
