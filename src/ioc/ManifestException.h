#pragma once

#include <stdexcept>

namespace vantor::ioc::internal
{

// A manifest that cannot be used as a whole; its text says why.
class ManifestException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::ioc::internal
