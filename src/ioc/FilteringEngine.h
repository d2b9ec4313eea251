#pragma once

#include "ioc/Engine.h"

#include <memory>
#include <vector>

namespace vantor::ioc
{
class TtlProcessTree;
}

namespace vantor::ioc::internal
{

class Rule;

// Decides by the policy's rules whether an event goes into an upload:
// "Unknown" (report it) or "Clean" (drop it), in this order:
//
//  1. An exit or abnormal end matches no rule: it is "Unknown" when its
//     process is reported, so that the end of a reported process reaches
//     the upload with its other events, and "Clean" otherwise (the end of a
//     process nobody was told about says nothing).
//  2. A file event of a reported process is "Unknown".
//  3. An event of a process not yet reported that a WhitelistGlobal rule
//     covers is "Clean", and the process gets the tag "Excluded" in the
//     process tree; whitelist rules do not apply to reported processes.
//  4. Otherwise "Unknown" when any other rule matches, else "Clean".
//
// A rule list swapped in by SetRules applies from the next verdict on; the
// engine's mutex covers both. Callable from any thread.
class FilteringEngine : public Engine
{
public:
    using Rules = std::vector<std::shared_ptr<Rule>>;

    // The tree must outlive the engine.
    explicit FilteringEngine(TtlProcessTree& tree);

    void SetRules(std::shared_ptr<const Rules> rules);

    Verdict GetVerdict(const EventPtr& event) override;

private:
    Verdict Match(const edr::Event& event, pid_t pid, bool reported);

    TtlProcessTree& m_tree;
    std::shared_ptr<const Rules> m_rules;
};

} // namespace vantor::ioc::internal
