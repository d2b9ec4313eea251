#pragma once

#include <stdexcept>
#include <string>

namespace vantor::audit
{

// Failure to build, install or remove kernel audit rules.
class RuleEngineException : public std::runtime_error
{
public:
    explicit RuleEngineException(const std::string& what)
        : std::runtime_error(what)
    {
    }
};

} // namespace vantor::audit
