#include "fim/RuleFilter.h"

#include "edr/FilterCriteriaException.h"
#include "fim/FilterException.h"

#include <sys/stat.h>

namespace vantor::fim::internal
{

namespace
{

std::vector<std::string> ParseStrings(const rapidjson::Value& json, const char* notArray,
                                      const char* badElement)
{
    if (!json.IsArray())
    {
        throw FilterException(notArray);
    }
    std::vector<std::string> out;
    out.reserve(json.Size());
    for (const auto& element : json.GetArray())
    {
        if (!element.IsString() || element.GetStringLength() == 0)
        {
            throw FilterException(badElement);
        }
        out.emplace_back(element.GetString(), element.GetStringLength());
    }
    return out;
}

std::string_view BaseName(std::string_view path)
{
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

} // namespace

RuleFilter::RuleFilter(const rapidjson::Value& json)
{
    if (!json.IsObject())
    {
        throw FilterException("Missing or invalid filters.");
    }
    const auto type = json.FindMember("objectType");
    if (type == json.MemberEnd() || !type->value.IsString())
    {
        throw FilterException("Invalid object-type json");
    }
    const std::string typeName(type->value.GetString(), type->value.GetStringLength());
    if (typeName == "file")
    {
        m_objectType = ObjectType::File;
    }
    else if (typeName == "directory")
    {
        m_objectType = ObjectType::Directory;
    }
    else
    {
        throw FilterException("Unknown object type");
    }

    const auto patterns = json.FindMember("patterns");
    if (patterns == json.MemberEnd() || !patterns->value.IsArray())
    {
        throw FilterException("Missing or invalid patterns");
    }
    if (patterns->value.Empty())
    {
        throw FilterException("Expected array of patterns");
    }
    for (auto& pattern :
         ParseStrings(patterns->value, "Expected array of patterns", "Invalid value for patterns"))
    {
        if (pattern.find('/') == std::string::npos)
        {
            pattern.insert(0, "*/");
        }
        while (m_objectType == ObjectType::Directory && pattern.size() > 1 && pattern.back() == '/')
        {
            pattern.pop_back();
        }
        m_patterns.push_back(std::move(pattern));
    }

    const auto processes = json.FindMember("actorProcess");
    if (processes != json.MemberEnd())
    {
        if (!processes->value.IsArray())
        {
            throw FilterException("Invalid actor-process json");
        }
        m_processes = ParseStrings(processes->value, "Expected array of processes filter",
                                   "Invalid actor process name");
    }

    const auto users = json.FindMember("actorUsername");
    if (users != json.MemberEnd())
    {
        try
        {
            m_users.Set(
                ParseStrings(users->value, "Expected array of users filter", " Invalid actor user name"));
        }
        catch (const edr::FilterCriteriaException&)
        {
            throw FilterException(" Invalid actor user name");
        }
    }

    const auto start = json.FindMember("timespanStart");
    const auto end = json.FindMember("timespanEnd");
    const bool hasStart = start != json.MemberEnd();
    const bool hasEnd = end != json.MemberEnd();
    if (hasStart || hasEnd)
    {
        if (!hasStart || !hasEnd || !start->value.IsString() || !end->value.IsString())
        {
            throw FilterException("Invalid timespan filter");
        }
        try
        {
            m_time.Set(std::string(start->value.GetString(), start->value.GetStringLength()),
                       std::string(end->value.GetString(), end->value.GetStringLength()));
        }
        catch (const edr::FilterCriteriaException& e)
        {
            const std::string reason = e.what();
            if (reason == "Invalid end time")
            {
                throw FilterException("Invalid endTime ");
            }
            if (reason == "Start time cannot be later than End time")
            {
                throw FilterException("StartTime cannot be later than EndTime");
            }
            if (reason == "Empty argument passed")
            {
                throw FilterException("Invalid timespan filter");
            }
            throw FilterException("Invalid startTime ");
        }
    }
}

void RuleFilter::ParseList(const rapidjson::Value& json, std::vector<RuleFilter>& out)
{
    if (json.IsObject())
    {
        out.emplace_back(json);
        return;
    }
    if (!json.IsArray())
    {
        throw FilterException("Filters not array");
    }
    for (const auto& filter : json.GetArray())
    {
        out.emplace_back(filter);
    }
}

bool RuleFilter::Match(const edr::Event& event) const
{
    return Match(event, event.GetFile(), (event.GetFileType() & S_IFMT) == S_IFDIR);
}

bool RuleFilter::Match(const edr::Event& event, const std::string& path, bool isDirectory) const
{
    return MatchPath(path, isDirectory) && MatchProcess(event) && m_users.Match(event) && m_time.Match(event);
}

bool RuleFilter::MatchPath(const std::string& path, bool isDirectory) const
{
    for (const auto& pattern : m_patterns)
    {
        if (m_objectType == ObjectType::File)
        {
            if (!isDirectory && PatternMatch(pattern, path))
            {
                return true;
            }
        }
        else if (PatternMatch(pattern, path) || PatternMatch(pattern + "/*", path))
        {
            return true;
        }
    }
    return false;
}

bool RuleFilter::HasEventCriteria() const
{
    return !m_processes.empty() || !m_users.GetPatterns().empty() || m_time.GetStart() != m_time.GetEnd();
}

bool RuleFilter::MatchProcess(const edr::Event& event) const
{
    if (m_processes.empty())
    {
        return true;
    }
    const std::string image = event.GetImage();
    const std::string name(BaseName(image));
    for (const auto& process : m_processes)
    {
        if (PatternMatch(process, image) || PatternMatch(process, name))
        {
            return true;
        }
    }
    return false;
}

} // namespace vantor::fim::internal
