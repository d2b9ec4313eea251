#pragma once

#include <stdexcept>

namespace vantor::common
{

// A spool refused an argument or failed an operation on its files.
class SpoolStorageException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::common
