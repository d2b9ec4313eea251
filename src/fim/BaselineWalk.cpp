#include "fim/BaselineWalk.h"

#include "common/Logging.h"
#include "common/SqlStorage.h"
#include "fim/ContentReader.h"
#include "fim/EventDocument.h"
#include "fim/PostProcessor.h"

#include <sys/stat.h>

#include <filesystem>

namespace vantor::fim::internal
{

BaselineWalk::BaselineWalk(const EventRuleManager& ruleManager, common::SqlStorage* baseline,
                           DocumentSink sink)
    : m_ruleManager(ruleManager)
    , m_baseline(baseline)
    , m_sink(std::move(sink))
{
}

void BaselineWalk::Run(const edr::Event& event)
{
    namespace fs = std::filesystem;
    const std::string root = event.GetFile();
    const auto rules = m_ruleManager.GetRules();
    struct stat info
    {
    };
    if (::lstat(root.c_str(), &info) != 0)
    {
        EDR_LOG_WARNING("Event Path: " << root << " does not exist");
        return;
    }
    if (!S_ISDIR(info.st_mode))
    {
        RecordFile(root, event, *rules);
        return;
    }
    std::error_code ec;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
    size_t seen = 0;
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
    {
        if (++seen > kMaxEntries)
        {
            EDR_LOG_WARNING("Baseline of " << root << " stopped after " << kMaxEntries << " entries");
            break;
        }
        // Recursion stops at the deepest level any rule can report.
        if (it.depth() >= EventRule::kMaxDepth)
        {
            it.disable_recursion_pending();
        }
        if (it->is_regular_file(ec) && !it->is_symlink(ec))
        {
            RecordFile(it->path().string(), event, *rules);
        }
    }
}

void BaselineWalk::RecordFile(const std::string& path, const edr::Event& event,
                              const EventRuleManager::RuleSet& rules)
{
    struct stat info
    {
    };
    if (::lstat(path.c_str(), &info) != 0)
    {
        EDR_LOG_WARNING("Stat Failed for: " << path);
        return;
    }
    EventDocument::Input input;
    input.path = path;
    input.collectHashes = rules.collectHashes;
    bool trackContent = false;
    for (const auto& rule : rules.rules)
    {
        if (PostProcessor::Covers(*rule, path) &&
            (!rule->IsDirectoryRule() ||
             PostProcessor::PathDepth(rule->GetPath(), path) <= rule->GetRecursiveDepth()))
        {
            input.rules.push_back(rule.get());
            trackContent = trackContent || rule->TracksContentChange();
        }
    }
    if (input.rules.empty())
    {
        return;
    }
    const auto content = ContentReader::Read(path, trackContent, rules.collectHashes);
    const char* status = ContentReader::ContentStatusText(content.status);
    if (m_baseline != nullptr)
    {
        const auto result = m_baseline->Write(BaselineEventSqlDataFormatter::kTableName,
                                              {{path, m_formatter.FormatRecord(path, status)}});
        if (!result.success)
        {
            EDR_LOG_ERROR("Failed to store baseline record for " << path << ": " << result.error);
        }
    }
    try
    {
        input.action = event.GetActionName();
        m_sink(EventDocument::Build(event, input, &content));
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Event exception: " << e.what());
    }
}

} // namespace vantor::fim::internal
