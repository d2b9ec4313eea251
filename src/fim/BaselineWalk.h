#pragma once

#include "edr/Event.h"
#include "fim/BaselineEventSqlDataFormatter.h"
#include "fim/EventRuleManager.h"

#include <cstddef>
#include <functional>
#include <string>

namespace vantor::common
{
class SqlStorage;
}

namespace vantor::fim::internal
{

// The baseline pass over the path of a baseline pseudo event: every regular
// file below it (not through symlinks, down to the deepest level a rule can
// report, at most kMaxEntries entries per watched directory) that a FIM rule
// reaches gets its content status stored in the baseline store and an event
// document, with the pseudo event's action, handed to the sink.
//
// Runs on the caller's thread; not for two threads at once.
class BaselineWalk
{
public:
    using DocumentSink = std::function<void(std::string document)>;

    static constexpr size_t kMaxEntries = 100000;

    // The manager must outlive the walk; baseline may be null (no store).
    BaselineWalk(const EventRuleManager& ruleManager, common::SqlStorage* baseline, DocumentSink sink);

    // Failures are logged, never thrown.
    void Run(const edr::Event& event);

private:
    void RecordFile(const std::string& path, const edr::Event& event, const EventRuleManager::RuleSet& rules);

    const EventRuleManager& m_ruleManager;
    common::SqlStorage* m_baseline;
    BaselineEventSqlDataFormatter m_formatter;
    DocumentSink m_sink;
};

} // namespace vantor::fim::internal
