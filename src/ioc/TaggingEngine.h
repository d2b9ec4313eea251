#pragma once

#include "ioc/Engine.h"
#include "ioc/ProcessInfo.h"

#include <rapidjson/document.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vantor::ioc
{
class TtlProcessTree;
}

namespace vantor::ioc::internal
{

class Tag;

// Scores processes by the attack tactics their events show and judges a
// process "Suspicious" once its tags' scores reach the threshold; otherwise
// "Clean".
//
// The tags, always examined in this order: CredentialAccess,
// DefenseEvasion, Execution, Exfiltration, Persistence,
// PrivilegeEscalation. For one event:
// - a process-running event first gives the process the tags its parent
//   carries and, when the parent pid is above 1, those its siblings carry;
// - then, while the process's score is below the threshold, each enabled
//   tag that the process does not carry and whose exclusions do not match
//   its executable is asked; one that applies is stored on the process in
//   the tree and handed on to the process's children and, when the parent
//   pid is above 1, to its siblings.
// A process that receives a tag (inherited or handed on) stores it with the
// tag's current score, so its score grows like the giver's; an excluded
// process or a disabled tag is passed over. A carried tag is never added
// again: scores only grow. Only the six tactic tags count towards the
// score; state tags such as "Excluded" and "Reported" never do.
//
// Settings (the "tags" object of the manifest): "thresholdScore"
// (unsigned integer; missing, not an integer or 0 switches tagging off) and
// one member per tag name (see Tag); a tag without a member is disabled.
// While tagging is off every verdict is "Clean".
//
// Thread-safety: the engine's mutex covers settings and verdicts, so that a
// verdict never mixes two configurations; the tree's own lock guards the
// tags stored in processes. The tree is never asked to call back into the
// engine.
class TaggingEngine : public Engine
{
public:
    static constexpr size_t kTagCount = 6;

    // Starts switched off, every tag disabled with its default patterns.
    // The tree must outlive the engine.
    explicit TaggingEngine(TtlProcessTree& tree);
    ~TaggingEngine() override;

    // The "tags" object as JSON text; empty or invalid text switches tagging
    // off. Answers whether tagging is on.
    bool ApplySettings(const std::string& tagsJson);
    bool ApplySettings(const rapidjson::Value& tags);

    // "Suspicious" when the event's process carries enough tag score, else
    // "Clean". A process the tree does not hold throws
    // TtlProcessTreeException.
    Verdict GetVerdict(const EventPtr& event) override;

    bool IsEnabled() const;
    uint64_t GetThreshold() const;

private:
    bool ApplyLocked(const rapidjson::Value& tags);
    bool Reached(int64_t score) const;
    // The index of the first tag from first on that the process may receive
    // and that applies to the event, while the score stays below the
    // threshold; kTagCount when none. Calls nothing of the tree.
    size_t NextApplicableLocked(const edr::Event& event, const ProcessInfo& process, int64_t score,
                                size_t first) const;
    // The tactic tags' scores of a process.
    int64_t ScoreOf(const ProcessInfo& process) const;
    // The index of a tactic tag by name; kTagCount for another tag (a state).
    size_t TagIndex(const std::string& name) const;
    void InheritLocked(ProcessInfo& process);
    // Adds the tag to the process; answers whether it was added.
    bool AddLocked(ProcessInfo& process, const Tag& tag);
    void SpreadLocked(const ProcessInfo& giver, const Tag& tag);
    void GiveLocked(const ProcessInfo& giver, const Tag& tag, const std::vector<pid_t>& receivers);

    TtlProcessTree& m_tree;
    const std::array<std::unique_ptr<Tag>, kTagCount> m_tags;
    // Written under the engine's mutex; atomic for the accessors.
    std::atomic<bool> m_enabled = false;
    std::atomic<uint64_t> m_threshold = 0;
    // The process of the verdict under way, when it needs a copy; reused so
    // that a copy seldom allocates.
    ProcessInfo m_process;
};

} // namespace vantor::ioc::internal
