#pragma once

#include "edr/Event.h"

#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace vantor::edr
{

// A filter that a FIM or IOC rule applies to the events of its paths: each
// derived class answers whether one event passes. Wildcards are those of
// Poco::Glob ("*", "?", bracket classes).
class FilterCriteria
{
public:
    // Glob match of the value against the pattern; a miss is traced.
    virtual bool PatternMatch(const std::string& pattern, const std::string& value, int options = 0) const;

    virtual ~FilterCriteria();

    virtual bool Match(const Event& event) const = 0;

    // The patterns of a JSON array, in array order. Throws
    // FilterCriteriaException for a value that is not an array of strings or
    // for an empty pattern.
    static std::vector<std::string> ParsePatterns(const rapidjson::Value& patterns);
};

} // namespace vantor::edr
