#pragma once

#include <stdexcept>

namespace vantor::common
{

// A file digest that had to be computed could not be: the file is gone,
// unreadable or larger than the limit the caller set.
class HashGeneratorException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::common
