#pragma once

#include "fim/DocumentBuilder.h"
#include "fim/EventRuleManager.h"

#include <cstddef>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vantor::fim::internal
{

// The baseline pass over watched paths, taken one file at a time so that
// its owner can bound its rate. Every regular file below a queued root (not
// through symlinks, down to the deepest level a rule can report, at most
// kMaxEntries entries per root) that a FIM rule reaches (path, depth and the
// path parts of its filters) gets its state and content status stored and a
// baseline document (DocumentBuilder::BuildBaseline). The daemon's own files
// (the skipped directories) are left out.
//
// Add, HasWork and Abandon may be called from any thread; Step from one
// thread at a time.
class BaselineWalk
{
public:
    static constexpr size_t kMaxEntries = 100000;
    // Entries looked at by one Step at most, so that a step of a tree with
    // few reported files stays short.
    static constexpr size_t kEntriesPerStep = 512;

    // The manager and the builder must outlive the walk.
    BaselineWalk(const EventRuleManager& ruleManager, DocumentBuilder& builder,
                 std::vector<std::string> skippedDirectories = {});

    // Queues the pass over the roots; a root below another root of the same
    // call, or already queued, is walked once.
    void Add(std::vector<std::string> roots);
    bool HasWork() const;

    // Walks on until one file is recorded or kEntriesPerStep entries were
    // looked at; answers whether a file was recorded. Failures are logged.
    bool Step();

    // Drops the rest of the pass; answers how many roots were left.
    size_t Abandon();

private:
    // Takes the next root into m_current; false when none is left.
    bool NextRoot();
    bool Record(const std::string& path);
    bool Skipped(const std::string& path) const;

    const EventRuleManager& m_ruleManager;
    DocumentBuilder& m_builder;
    const std::vector<std::string> m_skipped;

    mutable std::mutex m_mutex;
    std::deque<std::string> m_roots;
    bool m_walking = false;

    // Step's own state.
    std::string m_root;
    std::optional<std::filesystem::recursive_directory_iterator> m_current;
    size_t m_seen = 0;
};

} // namespace vantor::fim::internal
