#pragma once

#include "edr/FilterCriteria.h"

#include <rapidjson/document.h>

#include <optional>
#include <string>
#include <vector>

namespace vantor::ioc::internal
{

// Base of the criteria that match one text of an event (a path, an
// executable) against glob patterns; the event matches when any pattern
// does. An event without that text never matches.
//
// Immutable after construction, so it may be matched from any thread.
class PatternCriteria : public edr::FilterCriteria
{
public:
    bool Match(const edr::Event& event) const final;

    const std::vector<std::string>& GetPatterns() const { return m_patterns; }

protected:
    // Throws edr::FilterCriteriaException "Invalid value for filter patterns"
    // or "Filter pattern cannot be empty". settingMessage is traced first.
    PatternCriteria(const rapidjson::Value& patterns, const char* settingMessage);

    // The text the patterns are matched against; empty when the event has
    // none.
    virtual std::optional<std::string> Subject(const edr::Event& event) const = 0;
    virtual const char* MatchingMessage() const = 0;

private:
    std::vector<std::string> m_patterns;
};

} // namespace vantor::ioc::internal
