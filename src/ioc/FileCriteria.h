#pragma once

#include "ioc/PatternCriteria.h"

namespace vantor::ioc::internal
{

// Matches the path of the file an event is about against glob patterns.
class FileCriteria : public PatternCriteria
{
public:
    // Throws edr::FilterCriteriaException for invalid patterns.
    explicit FileCriteria(const rapidjson::Value& patterns);

protected:
    std::optional<std::string> Subject(const edr::Event& event) const override;
    const char* MatchingMessage() const override { return "Matching File Filters"; }
};

} // namespace vantor::ioc::internal
