#pragma once

#include "edr/FilterCriteria.h"

#include <cstdint>
#include <string>

namespace vantor::edr
{

// Lets through events whose time of day, in UTC, lies within [start, end],
// both ends included. The span cannot wrap past midnight. An unset span, or
// one whose start equals its end, lets every event through.
class TimeCriteria : public FilterCriteria
{
public:
    // Both texts as "%H:%M:%S". Throws FilterCriteriaException; on failure the
    // previous span stays.
    void Set(const std::string& start, const std::string& end);

    bool Match(const Event& event) const override;

    int64_t GetStart() const { return m_start; }
    int64_t GetEnd() const { return m_end; }

private:
    // Seconds since midnight.
    int64_t m_start = 0;
    int64_t m_end = 0;
};

} // namespace vantor::edr
