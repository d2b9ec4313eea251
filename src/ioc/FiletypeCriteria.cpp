#include "ioc/FiletypeCriteria.h"

#include "common/Logging.h"
#include "ioc/EventFields.h"
#include "ioc/EventRuleException.h"

#include <sys/stat.h>

#include <algorithm>

namespace vantor::ioc::internal
{

FiletypeCriteria::FiletypeCriteria(const rapidjson::Value& filter, uint64_t maxFileSizeToProcess)
    : m_maxFileSizeToProcess(maxFileSizeToProcess)
{
    EDR_LOG_TRACE("Setting FileType Filters");
    if (!filter.IsObject() || !filter.HasMember("patterns") || !filter["patterns"].IsArray())
    {
        throw EventRuleException("Failed to parse file type filters");
    }
    for (const auto& pattern : filter["patterns"].GetArray())
    {
        if (!pattern.IsString())
        {
            throw EventRuleException("Invalid value for FileType patterns");
        }
        if (pattern.GetStringLength() == 0)
        {
            throw EventRuleException("FileType Pattern cannot be empty");
        }
        m_patterns.emplace_back(pattern.GetString(), pattern.GetStringLength());
    }
}

bool FiletypeCriteria::Match(const edr::Event& event) const
{
    EDR_LOG_TRACE("Matching FileType Filters");
    if (!EventFields::IsFileEvent(event.GetType()))
    {
        EDR_LOG_TRACE("Cannot match FileType criteria: Not a file event");
        return false;
    }
    const auto type = FileTypeOf(event, m_maxFileSizeToProcess);
    if (!type)
    {
        EDR_LOG_TRACE("Cannot match FileType criteria: Missing file type information");
        return false;
    }
    return std::any_of(m_patterns.begin(), m_patterns.end(),
                       [&](const std::string& pattern) { return PatternMatch(pattern, *type); });
}

std::optional<std::string> FiletypeCriteria::FileTypeOf(const edr::Event& event,
                                                        uint64_t maxFileSizeToProcess)
{
    const std::string path = EventFields::File(event).value_or("");
    try
    {
        const uint32_t type = event.GetFileType();
        if (type != S_IFREG && type != S_IFLNK)
        {
            EDR_LOG_DEBUG("File is not regular or symlink. Skipping file type: " << path);
            return std::nullopt;
        }
    }
    catch (const edr::EventException&)
    {
        EDR_LOG_DEBUG("File is not regular or symlink. Skipping file type: " << path);
        return std::nullopt;
    }
    // A file without a stat has no size to ask for.
    const auto known =
        event.HasFileStat() ? EventFields::Try([&] { return event.GetFileSize(); }) : std::nullopt;
    if (!known)
    {
        EDR_LOG_DEBUG("Failed to load file for finding file size: " << path);
        return std::nullopt;
    }
    const uint64_t size = *known;
    if (size == 0)
    {
        EDR_LOG_DEBUG("Skipping the file with size 0B");
        return std::nullopt;
    }
    if (size > maxFileSizeToProcess)
    {
        EDR_LOG_DEBUG(" File size for" << path << " is more than max limit. Skipping it");
        return std::nullopt;
    }
    try
    {
        return event.GetFileTypeDesc();
    }
    catch (const edr::EventException& e)
    {
        EDR_LOG_DEBUG(e.what());
        return std::nullopt;
    }
}

} // namespace vantor::ioc::internal
