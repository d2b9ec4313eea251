#pragma once

#include "edr/FilterCriteria.h"
#include "ioc/RegexPatterns.h"

#include <rapidjson/document.h>

#include <optional>
#include <string>
#include <sys/types.h>

namespace vantor::ioc::internal
{

// Matches the executable of the acting process's parent ("parentProcess")
// against regular expressions (whole-path matches, see RegexPatterns). The
// parent's executable is read from /proc/<ppid>/exe, so a parent that has
// already gone, or an event without a parent pid, does not match.
//
// Immutable after construction; matching is safe from any thread.
class GlobalCriteria : public edr::FilterCriteria
{
public:
    // Throws EventRuleException "Invalid pattern provided" for a value that
    // is not an array of non-empty strings or a pattern that does not compile.
    explicit GlobalCriteria(const rapidjson::Value& parentProcesses);

    bool Match(const edr::Event& event) const override;

    // The executable of a running process; empty when it cannot be read.
    static std::optional<std::string> ProcessImage(pid_t pid);

private:
    RegexPatterns m_parentProcesses;
};

} // namespace vantor::ioc::internal
