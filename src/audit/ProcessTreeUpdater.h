#pragma once

#include "audit/ProcessTree.h"
#include "edr/Event.h"

#include <chrono>
#include <memory>
#include <optional>

namespace vantor::audit
{

// The step that keeps the process tree up to date with every event before
// the event is routed, so that handlers find the event's actor, and that
// cleans the tree of terminated processes from time to time.
//
// Without a tree (null) events carry only their own data and clones are of
// no use to anyone.
//
// Not thread-safe: the event processing thread is its one caller. The tree
// itself is locked by its own lock, as components read it too.
class ProcessTreeUpdater
{
public:
    using EventPtr = std::unique_ptr<edr::Event>;
    using Events = ProcessTree::Events;

    // Interval between two cleanings of the tree.
    static constexpr std::chrono::seconds kCleanInterval{60};
    // Interval between two removals of the terminated entries in between:
    // a busy host starts thousands of short processes a second, and keeping
    // the ended ones for a whole clean interval costs megabytes.
    static constexpr std::chrono::seconds kSweepInterval{2};

    explicit ProcessTreeUpdater(std::shared_ptr<ProcessTree> tree,
                                std::chrono::steady_clock::duration cleanInterval = kCleanInterval);

    // Brings the tree up to date with the event; may rewrite a thread id in
    // the event to its process id. Pseudo events that must be routed ahead of
    // the event are appended. Answers false when the event goes no further: a
    // clone is kept for its child (the pointer is then left empty). With a
    // tree, lineageMatch, lineageMatched and released are passed on (see
    // ProcessTree::UpdateFromEvent).
    bool Update(EventPtr& event, Events& pseudoEvents, const ProcessTree::Match* lineageMatch = nullptr,
                std::optional<bool>* lineageMatched = nullptr, Events* released = nullptr);

    // Cleans the tree when the clean interval has passed since the last cleaning.
    // Answers whether it did; the pseudo terminate events of processes that
    // ended without an exit event are appended. In between, removes the
    // terminated entries every sweep interval (RemoveTerminated).
    bool CleanIfDue(Events& terminated);

    const std::shared_ptr<ProcessTree>& GetProcessTree() const { return m_tree; }

private:
    const std::shared_ptr<ProcessTree> m_tree;
    const std::chrono::steady_clock::duration m_cleanInterval;
    std::chrono::steady_clock::time_point m_lastClean;
    std::chrono::steady_clock::time_point m_lastSweep;
};

} // namespace vantor::audit
