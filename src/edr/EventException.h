#pragma once

#include <stdexcept>

namespace vantor::edr
{

// Raised by an Event operation that the event's class does not support, and
// by event construction failures.
class EventException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::edr
