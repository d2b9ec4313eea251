#include "ioc/FileCriteria.h"

#include "ioc/EventFields.h"

namespace vantor::ioc::internal
{

FileCriteria::FileCriteria(const rapidjson::Value& patterns)
    : PatternCriteria(patterns, "Setting File Patterns")
{
}

std::optional<std::string> FileCriteria::Subject(const edr::Event& event) const
{
    return EventFields::File(event);
}

} // namespace vantor::ioc::internal
