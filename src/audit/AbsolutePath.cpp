#include "audit/AbsolutePath.h"

namespace vantor::audit::internal
{

std::string AbsolutePath::Join(std::string_view cwd, std::string_view name)
{
    std::string result;
    result.reserve(cwd.size() + name.size() + 1);
    result.append(cwd);
    while (!name.empty())
    {
        const auto slash = name.find('/');
        const std::string_view part = name.substr(0, slash);
        name.remove_prefix(slash == std::string_view::npos ? name.size() : slash + 1);
        if (part.empty() || part == ".")
        {
            continue;
        }
        if (result.empty() || result.back() != '/')
        {
            result.push_back('/');
        }
        result.append(part);
    }
    if (result.empty())
    {
        result.push_back('/');
    }
    return result;
}

} // namespace vantor::audit::internal
