#pragma once

#include <stdexcept>

namespace vantor::common
{

// Raised when an SQL data formatter is misused or asked for something it
// cannot express.
class SqlDataFormatterException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::common
