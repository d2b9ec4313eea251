#pragma once

#include <stdexcept>

namespace vantor::fim::internal
{

// Raised when the FIM manifest as a whole cannot be used; FIM is then disabled.
class ManifestException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace vantor::fim::internal
