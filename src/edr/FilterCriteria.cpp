#include "edr/FilterCriteria.h"

#include "common/Logging.h"
#include "edr/FilterCriteriaException.h"

#include <Poco/Exception.h>
#include <Poco/Glob.h>

namespace vantor::edr
{

FilterCriteria::~FilterCriteria() = default;

bool FilterCriteria::PatternMatch(const std::string& pattern, const std::string& value, int options) const
{
    try
    {
        Poco::Glob glob(pattern, options);
        if (glob.match(value))
        {
            return true;
        }
    }
    catch (const Poco::SyntaxException& e)
    {
        // A malformed bracket class in a rule must not fail every event.
        EDR_LOG_ERROR("Pattern: " << pattern << " is invalid: " << e.displayText());
        return false;
    }
    EDR_LOG_TRACE("Pattern: " << pattern << " not matched with value: " << value);
    return false;
}

std::vector<std::string> FilterCriteria::ParsePatterns(const rapidjson::Value& patterns)
{
    if (!patterns.IsArray())
    {
        throw FilterCriteriaException("Invalid value for filter patterns");
    }
    std::vector<std::string> result;
    result.reserve(patterns.Size());
    for (const auto& pattern : patterns.GetArray())
    {
        if (!pattern.IsString())
        {
            throw FilterCriteriaException("Invalid value for filter patterns");
        }
        if (pattern.GetStringLength() == 0)
        {
            throw FilterCriteriaException("Filter pattern cannot be empty");
        }
        result.emplace_back(pattern.GetString(), pattern.GetStringLength());
    }
    return result;
}

} // namespace vantor::edr
