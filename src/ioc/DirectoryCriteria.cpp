#include "ioc/DirectoryCriteria.h"

#include "ioc/EventFields.h"

namespace vantor::ioc::internal
{

DirectoryCriteria::DirectoryCriteria(const rapidjson::Value& patterns)
    : PatternCriteria(patterns, "Setting Directory Patterns")
{
}

std::optional<std::string> DirectoryCriteria::Subject(const edr::Event& event) const
{
    const auto file = EventFields::File(event);
    if (!file)
    {
        return std::nullopt;
    }
    const auto slash = file->rfind('/');
    if (slash == std::string::npos)
    {
        return std::nullopt;
    }
    return file->substr(0, slash) + "/*";
}

} // namespace vantor::ioc::internal
