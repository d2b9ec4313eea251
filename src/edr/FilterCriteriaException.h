#pragma once

#include <stdexcept>

namespace vantor::edr
{

// Raised when a rule's filter criteria cannot be set up.
class FilterCriteriaException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::edr
