#include "fim/BaselineWalk.h"

#include "common/Logging.h"
#include "fim/PostProcessor.h"

#include <sys/stat.h>

#include <algorithm>

namespace vantor::fim::internal
{

namespace
{

bool IsBelowOrSame(const std::string& path, const std::string& root)
{
    if (root == "/")
    {
        return true;
    }
    return path == root ||
           (path.size() > root.size() && path.compare(0, root.size(), root) == 0 && path[root.size()] == '/');
}

std::vector<std::string> WithoutTrailingSlash(std::vector<std::string> paths)
{
    for (auto& path : paths)
    {
        while (path.size() > 1 && path.back() == '/')
        {
            path.pop_back();
        }
    }
    return paths;
}

} // namespace

BaselineWalk::BaselineWalk(const EventRuleManager& ruleManager, DocumentBuilder& builder,
                           std::vector<std::string> skippedDirectories)
    : m_ruleManager(ruleManager)
    , m_builder(builder)
    , m_skipped(WithoutTrailingSlash(std::move(skippedDirectories)))
{
}

void BaselineWalk::Add(std::vector<std::string> roots)
{
    roots = WithoutTrailingSlash(std::move(roots));
    std::sort(roots.begin(), roots.end());
    std::lock_guard lock(m_mutex);
    std::vector<std::string> kept;
    for (const auto& root : roots)
    {
        const auto covers = [&root](const std::string& other) { return IsBelowOrSame(root, other); };
        if (root.empty() || std::any_of(kept.begin(), kept.end(), covers) ||
            std::find(m_roots.begin(), m_roots.end(), root) != m_roots.end())
        {
            continue;
        }
        kept.push_back(root);
    }
    m_roots.insert(m_roots.end(), kept.begin(), kept.end());
}

bool BaselineWalk::HasWork() const
{
    std::lock_guard lock(m_mutex);
    return !m_roots.empty() || m_walking;
}

size_t BaselineWalk::Abandon()
{
    std::lock_guard lock(m_mutex);
    const size_t left = m_roots.size() + (m_walking ? 1 : 0);
    m_roots.clear();
    m_walking = false;
    return left;
}

bool BaselineWalk::NextRoot()
{
    std::lock_guard lock(m_mutex);
    if (m_roots.empty())
    {
        m_walking = false;
        return false;
    }
    m_root = std::move(m_roots.front());
    m_roots.pop_front();
    m_walking = true;
    return true;
}

bool BaselineWalk::Skipped(const std::string& path) const
{
    return std::any_of(m_skipped.begin(), m_skipped.end(),
                       [&path](const std::string& skipped) { return IsBelowOrSame(path, skipped); });
}

bool BaselineWalk::Step()
{
    namespace fs = std::filesystem;
    {
        // Abandoned while a root was being walked.
        std::lock_guard lock(m_mutex);
        if (!m_walking)
        {
            m_current.reset();
        }
    }
    for (size_t looked = 0; looked < kEntriesPerStep; ++looked)
    {
        if (!m_current)
        {
            if (!NextRoot())
            {
                return false;
            }
            struct stat info
            {
            };
            if (::lstat(m_root.c_str(), &info) != 0)
            {
                EDR_LOG_WARNING("Event Path: " << m_root << " does not exist");
                continue;
            }
            if (!S_ISDIR(info.st_mode))
            {
                if (S_ISREG(info.st_mode) && !Skipped(m_root) && Record(m_root))
                {
                    return true;
                }
                continue;
            }
            std::error_code ec;
            m_current.emplace(m_root, fs::directory_options::skip_permission_denied, ec);
            m_seen = 0;
            if (ec)
            {
                EDR_LOG_WARNING("Baseline of " << m_root << " failed: " << ec.message());
                m_current.reset();
                continue;
            }
        }
        auto& it = *m_current;
        if (it == fs::recursive_directory_iterator())
        {
            m_current.reset();
            continue;
        }
        if (++m_seen > kMaxEntries)
        {
            EDR_LOG_WARNING("Baseline of " << m_root << " stopped after " << kMaxEntries << " entries");
            m_current.reset();
            continue;
        }
        std::error_code ec;
        const std::string path = it->path().string();
        const bool directory = it->is_directory(ec) && !it->is_symlink(ec);
        // Recursion stops at the deepest level any rule can report, and at
        // the daemon's own files.
        const bool skipped = Skipped(path);
        if (directory && (skipped || it.depth() >= EventRule::kMaxDepth))
        {
            it.disable_recursion_pending();
        }
        const bool recorded = !skipped && it->is_regular_file(ec) && !it->is_symlink(ec) && Record(path);
        it.increment(ec);
        if (ec)
        {
            EDR_LOG_WARNING("Baseline of " << m_root << " stopped: " << ec.message());
            m_current.reset();
        }
        if (recorded)
        {
            return true;
        }
    }
    return false;
}

bool BaselineWalk::Record(const std::string& path)
{
    const auto rules = m_ruleManager.GetRules();
    std::vector<const EventRule*> reaching;
    for (const auto& rule : rules->rules)
    {
        if (PostProcessor::PassesForBaseline(*rule, path, false))
        {
            reaching.push_back(rule.get());
        }
    }
    if (reaching.empty())
    {
        return false;
    }
    m_builder.BuildBaseline(path, reaching, rules->collectHashes);
    return true;
}

} // namespace vantor::fim::internal
