#pragma once

#include "edr/FilterCriteria.h"

#include <string>
#include <vector>

namespace vantor::edr
{

// Lets through events whose acting user's name matches one of the patterns;
// with no patterns every event passes.
class UserCriteria : public FilterCriteria
{
public:
    // Throws FilterCriteriaException "Filter pattern cannot be empty" for an
    // empty pattern; the previous patterns then stay.
    void Set(const std::vector<std::string>& patterns);

    bool Match(const Event& event) const override;

    const std::vector<std::string>& GetPatterns() const { return m_patterns; }

private:
    std::vector<std::string> m_patterns;
};

} // namespace vantor::edr
