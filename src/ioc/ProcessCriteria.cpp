#include "ioc/ProcessCriteria.h"

#include "ioc/EventFields.h"

namespace vantor::ioc::internal
{

ProcessCriteria::ProcessCriteria(const rapidjson::Value& patterns)
    : PatternCriteria(patterns, "Setting Actor Process Patterns")
{
}

std::optional<std::string> ProcessCriteria::Subject(const edr::Event& event) const
{
    return EventFields::Image(event);
}

} // namespace vantor::ioc::internal
