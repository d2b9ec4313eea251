#pragma once

#include "edr/FilterCriteria.h"

#include <rapidjson/document.h>

#include <memory>
#include <vector>

namespace vantor::ioc::internal
{

// One group of a rule's "exclusionFilters" or "inclusionFilters". A group is
// an object whose "filterType" array lists typed filters, each named by its
// "objectType"; the group matches an event when every one of its filters
// does:
//
//   {"objectType": "file",          "patterns": [globs of the file path]}
//   {"objectType": "directory",     "patterns": [globs of "<directory>/*"]}
//   {"objectType": "process",       "actorProcess": [globs of the actor's executable]}
//   {"objectType": "parentProcess", "parentProcess": [regexes of the parent's executable]}
//   {"objectType": "user",          "patterns": [globs of the actor's user name]}
//   {"objectType": "time",          "startTime": "08:00:00", "endTime": "18:00:00"} (UTC)
//   {"objectType": "network", ...}  see NetworkCriteria
//
// A filter whose question the event cannot answer (an event without a user
// name, a process event against a file filter) does not match.
//
// Immutable after parsing; matching is safe from any thread.
class FilterGroup
{
public:
    // Throws EventRuleException with the text of the first problem: "Missing
    // or invalid filter type array" (also for an empty one, which would match
    // everything), "Missing or invalid object type in filterType",
    // "Unsupported value: <type> provided in filterType", "Missing or invalid
    // <member> in filterType" and the criteria's own texts.
    static FilterGroup Parse(const rapidjson::Value& group);

    // The groups of rule member "exclusionFilters" or "inclusionFilters"; none
    // when the member is absent. Throws EventRuleException "Not an array of
    // filters" when it is not an array, and Parse's texts.
    static std::vector<FilterGroup> ParseList(const rapidjson::Value& rule, const char* member);

    bool Match(const edr::Event& event) const;

    size_t Size() const { return m_criteria.size(); }

private:
    static std::shared_ptr<const edr::FilterCriteria> ParseFilter(const rapidjson::Value& filter);

    std::vector<std::shared_ptr<const edr::FilterCriteria>> m_criteria;
};

} // namespace vantor::ioc::internal
