#include "fim/EventRule.h"

#include "common/Logging.h"
#include "fim/EventRuleException.h"
#include "fim/FilterException.h"

#include <Poco/NumberParser.h>
#include <Poco/String.h>

#include <map>

namespace vantor::fim::internal
{

namespace
{

const std::string& GetStringMember(const rapidjson::Value& json, const char* key, std::string& out)
{
    const auto it = json.FindMember(key);
    if (it == json.MemberEnd() || !it->value.IsString())
    {
        throw EventRuleException("Invalid Rule json values");
    }
    out.assign(it->value.GetString(), it->value.GetStringLength());
    return out;
}

} // namespace

EventRule::EventRule(const rapidjson::Value& json)
{
    if (!json.IsObject())
    {
        throw EventRuleException("Invalid Rule json values");
    }
    GetStringMember(json, "ruleId", m_id);
    m_registrationId = m_id;
    EDR_LOG_DEBUG("Parsing Rule with id: " << m_id);

    std::string type;
    GetStringMember(json, "ruleType", type);
    if (type == "file")
    {
        m_kind = Kind::File;
    }
    else if (type == "directory")
    {
        m_kind = Kind::Directory;
    }
    else if (type == "symlink")
    {
        m_kind = Kind::Symlink;
    }
    else
    {
        throw EventRuleException("Rule type is invalid");
    }

    GetStringMember(json, "imagePath", m_path);
    if (m_path.empty())
    {
        throw EventRuleException("Cannot create rule: Path is empty.");
    }
    // The trie and the depth computation compare whole components.
    while (m_path.size() > 1 && m_path.back() == '/')
    {
        m_path.pop_back();
    }

    const auto track = json.FindMember("trackContentChange");
    if (track != json.MemberEnd())
    {
        if (!track->value.IsBool())
        {
            throw EventRuleException("Invalid Rule json values");
        }
        m_trackContentChange = track->value.GetBool();
    }

    const auto depth = json.FindMember("recursiveDepth");
    EDR_LOG_DEBUG("Recursive depth for rule:" << m_id);
    if (depth != json.MemberEnd())
    {
        m_depth = ParseRecursiveDepth(depth->value);
    }

    const auto notify = json.FindMember("notify");
    if (notify == json.MemberEnd())
    {
        throw EventRuleException("No Actions in Notify List");
    }
    m_notify = ParseNotify(notify->value);
    for (const Action action : m_notify)
    {
        if (action == kModifyMetadata)
        {
            // Attribute calls, and opens for writing: touch opens the file
            // and sets its times through the descriptor, which the kernel
            // reports only as the open.
            m_kernelActions.insert(kModifySecuritySettings);
            m_kernelActions.insert(kModifyContent);
            continue;
        }
        m_kernelActions.insert(action);
    }

    if (m_trackContentChange && !m_notify.count(kCreate) && !m_notify.count(kDelete) &&
        !m_notify.count(kRename) && !m_notify.count(kModifyContent))
    {
        m_trackContentChange = false;
        EDR_LOG_WARNING("Required actions like modifyContent, delete, rename, create are not enabled"
                        << " so trackcontentchange cannot be enable for this rule: " << m_id);
    }

    EDR_LOG_DEBUG("Reading Inclusion Filters");
    ParseFilters(json, "inclusionFilters", "inclusionFilter", "Failed to parse inclusion filters",
                 m_inclusions);
    EDR_LOG_DEBUG("Reading Exclusion Filters");
    ParseFilters(json, "exclusionFilters", "exclusionFilter", "Failed to parse exclusion filters",
                 m_exclusions);
    EDR_LOG_DEBUG("Parsed rule with id: " << m_id);
}

EventRule::EventRule(const EventRule& other, const std::string& resolvedPath)
    : EventRule(other)
{
    if (resolvedPath.empty())
    {
        throw EventRuleException("Cannot create rule: Path is empty.");
    }
    m_path = resolvedPath;
    m_registrationId = other.m_id + "@" + resolvedPath;
}

void EventRule::ParseFilters(const rapidjson::Value& rule, const char* plural, const char* singular,
                             const char* failure, std::vector<RuleFilter>& out)
{
    try
    {
        for (const char* key : {plural, singular})
        {
            const auto it = rule.FindMember(key);
            if (it != rule.MemberEnd())
            {
                RuleFilter::ParseList(it->value, out);
            }
        }
    }
    catch (const FilterException& e)
    {
        EDR_LOG_ERROR(failure << ": " << e.what());
        throw EventRuleException(std::string(failure) + ": " + e.what());
    }
}

uint8_t EventRule::ParseRecursiveDepth(const rapidjson::Value& json)
{
    if (!json.IsString())
    {
        throw EventRuleException("Recursive Depth: string is expected");
    }
    const std::string text(json.GetString(), json.GetStringLength());
    if (Poco::icompare(text, "all") == 0)
    {
        return kMaxDepth;
    }
    if (Poco::icompare(text, "none") == 0)
    {
        return 0;
    }
    Poco::Int64 value = 0;
    if (!Poco::NumberParser::tryParse64(text, value))
    {
        throw EventRuleException("Cannot convert from string 'value': " + text);
    }
    // The byte reduction comes first: "256" is 0, "257" is 1, "25" is 10.
    const auto reduced = static_cast<uint8_t>(static_cast<uint64_t>(value) & 0xFFu);
    return reduced > kMaxDepth ? kMaxDepth : reduced;
}

edr::EventRule::ActionSet EventRule::ParseNotify(const rapidjson::Value& json)
{
    static const std::map<std::string, Action, std::less<>> kWords = {
        {"create", kCreate},
        {"delete", kDelete},
        {"read", kRead},
        {"modifyContent", kModifyContent},
        {"modifyMetadata", kModifyMetadata},
        {"modifySecuritySettings", kModifySecuritySettings},
        {"rename", kRename}};
    if (!json.IsArray())
    {
        throw EventRuleException("Invalid Rule json values");
    }
    if (json.Empty())
    {
        throw EventRuleException("No Actions in Notify List");
    }
    ActionSet actions;
    for (const auto& word : json.GetArray())
    {
        if (!word.IsString())
        {
            throw EventRuleException("Notify value not string");
        }
        const auto it = kWords.find(std::string_view(word.GetString(), word.GetStringLength()));
        if (it == kWords.end())
        {
            throw EventRuleException("Invalid Notify Flag");
        }
        actions.insert(it->second);
    }
    return actions;
}

uint32_t EventRule::GetType() const
{
    return m_kind == Kind::File ? FilePathRule : DirectoryPathRule;
}

const edr::EventRule::ActionSet& EventRule::GetActions() const
{
    return m_kernelActions;
}

const edr::EventRule::ActionSet& EventRule::GetDirectoryActions() const
{
    if (m_kind == Kind::File)
    {
        throw EventRuleException("Fetching Directory actions for non-directory rule");
    }
    return m_kernelActions;
}

const edr::EventRule::ActionSet& EventRule::GetProcessActions() const
{
    throw EventRuleException("Fetching Process actions for non-process rule");
}

const edr::EventRule::ActionSet& EventRule::GetNetworkActions() const
{
    throw EventRuleException("Not implemented for non-network rule");
}

} // namespace vantor::fim::internal
