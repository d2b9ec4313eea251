#pragma once

#include "ioc/PatternCriteria.h"

namespace vantor::ioc::internal
{

// Matches the directory that holds an event's file, written as that
// directory with "/*" appended, against glob patterns: "/etc/*" covers every
// file in /etc and below it, "/etc/ssh/*" the files in /etc/ssh and below.
class DirectoryCriteria : public PatternCriteria
{
public:
    // Throws edr::FilterCriteriaException for invalid patterns.
    explicit DirectoryCriteria(const rapidjson::Value& patterns);

protected:
    std::optional<std::string> Subject(const edr::Event& event) const override;
    const char* MatchingMessage() const override { return "Matching Directory Filters"; }
};

} // namespace vantor::ioc::internal
