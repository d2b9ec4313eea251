#include "ioc/GlobalCriteria.h"

#include "common/Logging.h"
#include "ioc/EventFields.h"

#include <filesystem>

namespace vantor::ioc::internal
{

GlobalCriteria::GlobalCriteria(const rapidjson::Value& parentProcesses)
{
    EDR_LOG_TRACE("Setting parentProcess patterns");
    m_parentProcesses = RegexPatterns::Parse(parentProcesses, "Invalid pattern provided");
}

bool GlobalCriteria::Match(const edr::Event& event) const
{
    EDR_LOG_TRACE("Matching Parent Process Filters");
    const auto ppid = EventFields::ParentProcessId(event);
    const auto image = ppid ? ProcessImage(*ppid) : std::nullopt;
    if (!image)
    {
        EDR_LOG_TRACE("Parent process of the event is unknown");
        return false;
    }
    return m_parentProcesses.MatchesAny(*image);
}

std::optional<std::string> GlobalCriteria::ProcessImage(pid_t pid)
{
    if (pid <= 0)
    {
        return std::nullopt;
    }
    std::error_code ec;
    auto image = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
    if (ec || image.empty())
    {
        return std::nullopt;
    }
    return image.string();
}

} // namespace vantor::ioc::internal
