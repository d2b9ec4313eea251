#include "ioc/FileRule.h"

#include "common/Logging.h"
#include "ioc/EventFields.h"
#include "ioc/EventRuleException.h"

#include <algorithm>

namespace vantor::ioc::internal
{

namespace
{

using edr::EventType;

std::string ReadPath(const rapidjson::Value& json, const std::string& id)
{
    const auto it = json.FindMember("path");
    const std::string path = it != json.MemberEnd() && it->value.IsString()
                                 ? std::string(it->value.GetString(), it->value.GetStringLength())
                                 : std::string();
    if (path.empty())
    {
        EDR_LOG_ERROR("Empty Rule Path for id:"
                      << " " << id);
        throw EventRuleException("Invalid Rule");
    }
    if (path.front() != '/')
    {
        EDR_LOG_ERROR("Rule path is not absolute for id: " << id);
        throw EventRuleException("Invalid Rule");
    }
    // "/etc/" and "/etc" watch the same directory.
    return path.size() > 1 && path.back() == '/' ? path.substr(0, path.find_last_not_of('/') + 1) : path;
}

} // namespace

FileRule::FileRule(const rapidjson::Value& json, uint64_t maxFileSizeToProcess)
    : Rule(json, RuleTypeOf(json))
    , m_directory(GetRuleType() == "Directory")
{
    static const ActionWords kFileWords{
        {"create", {ActionOf(EventType::Create)}},       {"delete", {ActionOf(EventType::Delete)}},
        {"rename", {ActionOf(EventType::Rename)}},       {"write", {ActionOf(EventType::Write)}},
        {"attribute", {ActionOf(EventType::Attribute)}}, {"read", {ActionOf(EventType::Read)}}};
    static const ActionWords kDirectoryWords{{"directoryCreate", {ActionOf(EventType::Create)}},
                                             {"directoryDelete", {ActionOf(EventType::Delete)}},
                                             {"directoryRename", {ActionOf(EventType::Rename)}},
                                             {"directoryAttribute", {ActionOf(EventType::Attribute)}}};
    EDR_LOG_DEBUG("Parsing File Rule");
    m_path = ReadPath(json, GetId());
    std::vector<std::pair<const ActionWords*, ActionSet*>> tables{{&kFileWords, &m_fileActions}};
    if (m_directory)
    {
        tables.emplace_back(&kDirectoryWords, &m_directoryActions);
    }
    ReadNotify(json, tables, "Invalid file action in notify");
    ReadFilters(json);

    const auto fileTypes = json.FindMember("fileTypeToInclude");
    if (fileTypes != json.MemberEnd())
    {
        EDR_LOG_DEBUG("Reading fileTypeToInclude");
        if (!fileTypes->value.IsArray())
        {
            throw EventRuleException("Not an array of fileTypeToInclude filters");
        }
        for (const auto& filter : fileTypes->value.GetArray())
        {
            m_fileTypes.emplace_back(filter, maxFileSizeToProcess);
        }
    }
}

uint32_t FileRule::GetType() const
{
    return m_directory ? DirectoryPathRule : FilePathRule;
}

const edr::EventRule::ActionSet& FileRule::GetDirectoryActions() const
{
    if (!m_directory)
    {
        throw EventRuleException("Fetching Directory actions for non-directory rule");
    }
    return m_directoryActions;
}

const edr::EventRule::ActionSet& FileRule::GetProcessActions() const
{
    throw EventRuleException("No process actions defined for file rule");
}

const edr::EventRule::ActionSet& FileRule::GetNetworkActions() const
{
    throw EventRuleException("Function not defined for file rule");
}

const RegexPatterns& FileRule::GetApplyTo() const
{
    throw EventRuleException("Function not defined for neither file nor directory");
}

bool FileRule::CoversPath(const std::string& path) const
{
    if (path == m_path)
    {
        return true;
    }
    if (!m_directory || !path.starts_with(m_path))
    {
        return false;
    }
    return m_path == "/" || path[m_path.size()] == '/';
}

bool FileRule::Covers(const edr::Event& event) const
{
    const auto file = EventFields::File(event);
    if (file && CoversPath(*file))
    {
        return true;
    }
    const auto newFile =
        event.GetType() == edr::EventType::Rename ? EventFields::NewFile(event) : std::nullopt;
    return newFile && CoversPath(*newFile);
}

bool FileRule::IsNotified(const edr::Event& event) const
{
    if (!Covers(event))
    {
        EDR_LOG_TRACE("Event path is not covered by the path of rule " << GetId());
        return false;
    }
    const edr::EventType type = event.GetType();
    if (m_directory && EventFields::IsDirectory(event))
    {
        if (HasAction(m_directoryActions, type))
        {
            return true;
        }
        if (type == edr::EventType::Create)
        {
            EDR_LOG_TRACE("Dropping directory create event");
        }
        else
        {
            EDR_LOG_TRACE("Event action not found in directory notify actions");
        }
        return false;
    }
    if (!HasAction(m_fileActions, type))
    {
        EDR_LOG_TRACE("Event action not found in file notify actions");
        return false;
    }
    return true;
}

bool FileRule::MatchesFileType(const edr::Event& event) const
{
    if (m_fileTypes.empty())
    {
        return true;
    }
    const bool matched = std::any_of(m_fileTypes.begin(), m_fileTypes.end(),
                                     [&](const FiletypeCriteria& filter) { return filter.Match(event); });
    if (matched)
    {
        EDR_LOG_TRACE("File type Inclusion criteria matched");
    }
    return matched;
}

} // namespace vantor::ioc::internal
