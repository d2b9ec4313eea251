#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace vantor::edr
{

// The detection rule that FIM and IOC rules implement and that the audit rule
// engine turns into kernel audit rules.
//
// Rule types (GetType):
//  1 FilePathRule:      watches each path of GetPaths() as it is. GetActions()
//                       are the actions reported for the watched files (a
//                       directory named here is watched as one object).
//  2 DirectoryPathRule: watches directories and what lies below them.
//                       GetActions() are the actions on the files below the
//                       directory; GetDirectoryActions() the actions on the
//                       directories themselves (a sub-directory created,
//                       deleted, renamed...). Either set may be empty, not both.
//  3 ProcessRule:       GetActions() holds process actions (9 running,
//                       10 clone, 11 exit).
//  4 NetworkRule:       GetActions() holds network actions (1 accept,
//                       12 connect, 13 bind).
//
// FIM maps its "file" rules to type 1 and its "directory"/"symlink" rules to
// type 2; IOC maps "File" to 1, "Directory" to 2, "Process" to 3 and
// "Network" to 4.
//
// Actions are the one-byte event type values (EventType in Event.h), kept as
// ordered sets. An accessor that does not apply to a rule's type may throw
// (the rule classes carry their own error texts); the audit rule engine only
// calls GetPaths() on types 1 and 2 and GetDirectoryActions() on type 2.
class EventRule
{
public:
    using Action = uint8_t;
    using ActionSet = std::set<Action>;

    enum Type : uint32_t
    {
        FilePathRule = 1,
        DirectoryPathRule = 2,
        ProcessRule = 3,
        NetworkRule = 4
    };

    virtual ~EventRule() = default;

    virtual const std::string& GetId() const = 0;
    // One of Type; any other value is refused by the audit rule engine.
    virtual uint32_t GetType() const = 0;
    // Absolute paths watched by a path rule.
    virtual std::vector<std::string> GetPaths() const = 0;
    // First action set; see the types above.
    virtual const ActionSet& GetActions() const = 0;
    // Second action set, used by directory path rules only.
    virtual const ActionSet& GetDirectoryActions() const = 0;

    static bool IsPathRule(uint32_t type) { return type == FilePathRule || type == DirectoryPathRule; }
};

} // namespace vantor::edr
