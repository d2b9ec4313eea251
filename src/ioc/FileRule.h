#pragma once

#include "ioc/FiletypeCriteria.h"
#include "ioc/Rule.h"

#include <cstdint>

namespace vantor::ioc::internal
{

// A "File" or "Directory" rule: watches one absolute "path" (a file, or a
// directory with everything below it).
//
//   {"ruleId": "...", "ruleType": "Directory", "path": "/etc",
//    "notify": ["write", "attribute", "directoryCreate"],
//    "exclusionFilters": [...], "inclusionFilters": [...],
//    "fileTypeToInclude": [{"patterns": ["ELF*"]}]}
//
// Notify words: for the watched files "create", "delete", "rename", "write",
// "attribute", "read"; a directory rule also takes "directoryCreate",
// "directoryDelete", "directoryRename" and "directoryAttribute" for
// directories themselves, below or at its path.
//
// For the audit rule engine a file rule is a path rule (type 1), a directory
// rule a directory path rule (type 2) whose second action set holds the
// directory actions.
class FileRule : public Rule
{
public:
    // Throws EventRuleException: "Invalid Rule" for a missing, empty or
    // relative path, "Invalid file action in notify", the notify and filter
    // texts, "Not an array of fileTypeToInclude filters" and FiletypeCriteria's
    // texts. maxFileSizeToProcess limits the files that are typed.
    FileRule(const rapidjson::Value& json, uint64_t maxFileSizeToProcess);

    uint32_t GetType() const override;
    std::vector<std::string> GetPaths() const override { return {m_path}; }
    const ActionSet& GetActions() const override { return m_fileActions; }
    const ActionSet& GetDirectoryActions() const override;

    std::string GetPath() const override { return m_path; }
    const ActionSet& GetFileActions() const override { return m_fileActions; }
    const ActionSet& GetProcessActions() const override;
    const ActionSet& GetNetworkActions() const override;
    const RegexPatterns& GetApplyTo() const override;
    const std::vector<FiletypeCriteria>& GetFileTypeFilters() const override { return m_fileTypes; }

    bool IsDirectoryRule() const { return m_directory; }

protected:
    bool IsNotified(const edr::Event& event) const override;
    bool MatchesFileType(const edr::Event& event) const override;
    const char* MatchingMessage() const override { return "Matching File Rule"; }

private:
    // Whether the event's file (or a rename's new name) is the rule's path
    // or, for a directory rule, below it.
    bool Covers(const edr::Event& event) const;
    bool CoversPath(const std::string& path) const;

    bool m_directory;
    std::string m_path;
    ActionSet m_fileActions;
    ActionSet m_directoryActions;
    std::vector<FiletypeCriteria> m_fileTypes;
};

} // namespace vantor::ioc::internal
