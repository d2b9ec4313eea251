#pragma once

#include "ioc/PatternCriteria.h"

namespace vantor::ioc::internal
{

// Matches the executable of the acting process ("actorProcess") against glob
// patterns.
class ProcessCriteria : public PatternCriteria
{
public:
    // Throws edr::FilterCriteriaException for invalid patterns.
    explicit ProcessCriteria(const rapidjson::Value& patterns);

protected:
    std::optional<std::string> Subject(const edr::Event& event) const override;
    const char* MatchingMessage() const override { return "Matching Actor Process Filters"; }
};

} // namespace vantor::ioc::internal
