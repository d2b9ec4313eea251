#include "ioc/PatternCriteria.h"

#include "common/Logging.h"

#include <algorithm>

namespace vantor::ioc::internal
{

PatternCriteria::PatternCriteria(const rapidjson::Value& patterns, const char* settingMessage)
{
    EDR_LOG_TRACE(settingMessage);
    m_patterns = ParsePatterns(patterns);
}

bool PatternCriteria::Match(const edr::Event& event) const
{
    EDR_LOG_TRACE(MatchingMessage());
    const auto subject = Subject(event);
    if (!subject)
    {
        return false;
    }
    return std::any_of(m_patterns.begin(), m_patterns.end(),
                       [&](const std::string& pattern) { return PatternMatch(pattern, *subject); });
}

} // namespace vantor::ioc::internal
