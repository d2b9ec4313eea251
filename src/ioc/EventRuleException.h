#pragma once

#include <stdexcept>

namespace vantor::ioc::internal
{

// One IOC rule that cannot be parsed, or an operation its class does not
// offer; its text says which.
class EventRuleException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::ioc::internal
