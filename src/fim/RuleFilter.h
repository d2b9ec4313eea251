#pragma once

#include "edr/FilterCriteria.h"
#include "edr/TimeCriteria.h"
#include "edr/UserCriteria.h"

#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace vantor::fim::internal
{

// One inclusion or exclusion filter of a FIM rule: an object type with path
// patterns, and optionally the acting process, the acting user and a daily
// time span (UTC). An event matches when every part that is set matches.
//
// Patterns: one without a "/" names an entry anywhere and gets "*/" in
// front; a directory pattern covers the directory itself and everything
// below it ("/*" appended).
class RuleFilter : public edr::FilterCriteria
{
public:
    enum class ObjectType
    {
        File,
        Directory
    };

    // Throws FilterException with the filter's error text.
    explicit RuleFilter(const rapidjson::Value& json);

    bool Match(const edr::Event& event) const override;
    // The same with the event's path and kind already known.
    bool Match(const edr::Event& event, const std::string& path, bool isDirectory) const;

    // The path part alone (object type and patterns).
    bool MatchPath(const std::string& path, bool isDirectory) const;
    // Whether the filter also asks about the actor or the time, which a
    // file found on disk (the baseline pass) has not.
    bool HasEventCriteria() const;

    ObjectType GetObjectType() const { return m_objectType; }
    const std::vector<std::string>& GetPatterns() const { return m_patterns; }
    const std::vector<std::string>& GetProcesses() const { return m_processes; }

    // Parses the filters of one rule key: an array of filter objects or one
    // filter object. Throws FilterException.
    static void ParseList(const rapidjson::Value& json, std::vector<RuleFilter>& out);

private:
    bool MatchProcess(const edr::Event& event) const;

    ObjectType m_objectType = ObjectType::File;
    std::vector<std::string> m_patterns;
    std::vector<std::string> m_processes;
    edr::UserCriteria m_users;
    edr::TimeCriteria m_time;
};

} // namespace vantor::fim::internal
