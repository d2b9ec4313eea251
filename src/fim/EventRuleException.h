#pragma once

#include <stdexcept>

namespace vantor::fim::internal
{

// Raised when one manifest rule cannot be built; the rule is skipped.
class EventRuleException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::fim::internal
