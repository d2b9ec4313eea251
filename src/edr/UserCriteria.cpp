#include "edr/UserCriteria.h"

#include "common/Logging.h"
#include "edr/FilterCriteriaException.h"

#include <algorithm>

namespace vantor::edr
{

void UserCriteria::Set(const std::vector<std::string>& patterns)
{
    EDR_LOG_TRACE("Setting Actor Users Filters");
    if (std::any_of(patterns.begin(), patterns.end(), [](const std::string& p) { return p.empty(); }))
    {
        throw FilterCriteriaException("Filter pattern cannot be empty");
    }
    m_patterns = patterns;
}

bool UserCriteria::Match(const Event& event) const
{
    if (m_patterns.empty())
    {
        return true;
    }
    EDR_LOG_TRACE("Matching Actor User Criteria");
    const std::string user = event.GetActorUserName();
    return std::any_of(m_patterns.begin(), m_patterns.end(),
                       [&](const std::string& pattern) { return PatternMatch(pattern, user, 0); });
}

} // namespace vantor::edr
