#pragma once

#include "ioc/ProcessInfo.h"
#include "ioc/RegexPatterns.h"

#include <rapidjson/document.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vantor::edr
{
class Event;
}

namespace vantor::ioc::internal
{

// One attack tactic that an event of a process can show. A tag that applies
// is added to the process with the tag's score (see TaggingEngine).
//
// Settings (one member of the "tags" object):
//   {"score": 5, "exclusions": ["^/usr/bin/vim$"],
//    "pathRegex": "...", "processRegex": "..."}
// - "score": unsigned 32-bit integer; 0 disables the tag ("Disabling <tag>
//   tag with score 0").
// - "exclusions" (optional): patterns of executable paths that never
//   receive the tag. An element that is no string ("Invalid exclusion at
//   index <i>") or does not compile ("Invalid regex in exclusion at index
//   <i> for <tag>") is skipped, the others stay.
// - the patterns a tag declares ("pathRegex", "processRegex"): a missing,
//   empty or invalid one logs "<key> is empty or invalid. Using default
//   regex." and the default is used. Keys a tag does not declare are
//   ignored.
// A missing or invalid score, or "exclusions" that is not an array, fails
// the whole settings: "Failed to update <tag> tag: <reason>", and the
// previous settings stay. Patterns are Perl-compatible and match the whole
// text.
//
// A new tag is disabled and uses its defaults. Not thread-safe: the tagging
// engine's mutex guards its tags.
class Tag
{
public:
    virtual ~Tag() = default;
    Tag(const Tag&) = delete;
    Tag& operator=(const Tag&) = delete;

    // The name in settings, logs and the process's tags.
    const std::string& Name() const { return m_name; }
    int64_t Score() const { return m_score; }
    bool IsEnabled() const { return m_score > 0; }
    void Disable() { m_score = 0; }

    // Whether an exclusion matches the process's executable path.
    bool IsExcluded(const ProcessInfo& process) const;

    // Answers whether the settings were taken. Settings that are no object
    // log "Invalid setting json for <tag>" and disable the tag.
    bool ApplySettings(const rapidjson::Value& settings);

    // Whether the event (of the given process) shows the tactic; score and
    // exclusions are not looked at here.
    virtual bool IsApplicable(const edr::Event& event, const ProcessInfo& process) const = 0;

protected:
    explicit Tag(std::string name);

    // Declares a pattern that settings may replace under key; answers the
    // slot that Matches takes.
    size_t AddPattern(const char* key, const char* defaultPattern);
    bool Matches(size_t slot, const std::string& value) const;

    // Reads what a tag holds beyond the shared settings; called once these
    // were taken, so it must log and fall back rather than fail.
    virtual void ApplyOwnSettings(const rapidjson::Value& settings);

private:
    struct PatternSlot
    {
        const char* key;
        RegexPatterns defaultPattern;
        RegexPatterns pattern;
    };

    int64_t ReadScore(const rapidjson::Value& settings) const;
    RegexPatterns ReadExclusions(const rapidjson::Value& settings) const;
    RegexPatterns ReadPattern(const rapidjson::Value& settings, const PatternSlot& slot) const;

    const std::string m_name;
    int64_t m_score = 0;
    RegexPatterns m_exclusions;
    std::vector<PatternSlot> m_patterns;
};

} // namespace vantor::ioc::internal
