#pragma once

#include "edr/EventRule.h"
#include "fim/RuleFilter.h"

#include <rapidjson/document.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vantor::fim::internal
{

// One rule of the FIM manifest. "file" rules are file path rules, "directory"
// and "symlink" rules directory path rules (a symlink rule also stands for
// the targets of the links in its directory, which get rules of their own).
//
// The notify words keep their own codes (modifyMetadata is 6, which is no
// event type); the kernel sees them as event types: both metadata and
// security-setting changes are attribute events (7), and a metadata change
// also asks for writes (5), as a touch shows only as an open for writing.
class EventRule : public edr::EventRule
{
public:
    enum class Kind
    {
        File,
        Directory,
        Symlink
    };

    static constexpr Action kCreate = 2;
    static constexpr Action kDelete = 3;
    static constexpr Action kRead = 4;
    static constexpr Action kModifyContent = 5;
    static constexpr Action kModifyMetadata = 6;
    static constexpr Action kModifySecuritySettings = 7;
    static constexpr Action kRename = 8;
    static constexpr uint8_t kMaxDepth = 10;

    // Builds the rule from one element of "rules". Throws EventRuleException
    // (FilterException for filters, logged and turned into
    // EventRuleException).
    explicit EventRule(const rapidjson::Value& json);

    // The same rule watching another path (a resolved symlink target). Its
    // registration id is made unique; GetRuleId() stays the manifest's.
    EventRule(const EventRule& other, const std::string& resolvedPath);

    // Registration id: the manifest id, or for a resolved rule the id with
    // the resolved path, so that the engine can hold both.
    const std::string& GetId() const override { return m_registrationId; }
    uint32_t GetType() const override;
    std::vector<std::string> GetPaths() const override { return {m_path}; }
    const ActionSet& GetActions() const override;
    const ActionSet& GetDirectoryActions() const override;

    // Action sets of the other rule families; FIM rules have none.
    const ActionSet& GetProcessActions() const;
    const ActionSet& GetNetworkActions() const;

    const std::string& GetRuleId() const { return m_id; }
    Kind GetKind() const { return m_kind; }
    bool IsDirectoryRule() const { return m_kind != Kind::File; }
    const std::string& GetPath() const { return m_path; }
    uint8_t GetRecursiveDepth() const { return m_depth; }
    bool TracksContentChange() const { return m_trackContentChange; }
    // The notify codes as written in the manifest.
    const ActionSet& GetNotifyActions() const { return m_notify; }
    const std::vector<RuleFilter>& GetInclusionFilters() const { return m_inclusions; }
    const std::vector<RuleFilter>& GetExclusionFilters() const { return m_exclusions; }

    // "all" 10, "none" 0, a number reduced to one byte and capped at 10.
    // Throws EventRuleException.
    static uint8_t ParseRecursiveDepth(const rapidjson::Value& json);
    // Throws EventRuleException.
    static ActionSet ParseNotify(const rapidjson::Value& json);

private:
    static void ParseFilters(const rapidjson::Value& rule, const char* plural, const char* singular,
                             const char* failure, std::vector<RuleFilter>& out);

    std::string m_id;
    std::string m_registrationId;
    Kind m_kind = Kind::File;
    std::string m_path;
    bool m_trackContentChange = false;
    uint8_t m_depth = 0;
    ActionSet m_notify;
    ActionSet m_kernelActions;
    std::vector<RuleFilter> m_inclusions;
    std::vector<RuleFilter> m_exclusions;
};

} // namespace vantor::fim::internal
