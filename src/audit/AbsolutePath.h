#pragma once

#include <string>
#include <string_view>

namespace vantor::audit::internal
{

// Joins a relative PATH name to the CWD record's directory, dropping "."
// components. ".." is kept: it cannot be resolved without the file system.
class AbsolutePath
{
public:
    static bool IsRelative(std::string_view name) { return name.empty() || name.front() != '/'; }
    static std::string Join(std::string_view cwd, std::string_view name);
};

} // namespace vantor::audit::internal
