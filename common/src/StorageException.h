#pragma once

#include <stdexcept>

namespace vantor::common
{

// Raised by the storages for construction failures and failed queries.
class StorageException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::common
