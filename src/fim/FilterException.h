#pragma once

#include <stdexcept>

namespace vantor::fim::internal
{

// Raised when an inclusion or exclusion filter of a rule cannot be parsed.
class FilterException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::fim::internal
