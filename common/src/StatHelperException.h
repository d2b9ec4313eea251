#pragma once

#include <stdexcept>
#include <string>

namespace vantor::common
{

// A failed stat, lstat, readlink or content read. Error() is the errno of the
// failing call (0 when the failure is not a system error).
class StatHelperException : public std::runtime_error
{
public:
    StatHelperException(const std::string& what, int error)
        : std::runtime_error(what)
        , m_error(error)
    {
    }

    int Error() const { return m_error; }

private:
    int m_error;
};

} // namespace vantor::common
