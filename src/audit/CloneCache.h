#pragma once

#include "edr/Event.h"

#include <cstddef>
#include <deque>
#include <memory>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

namespace vantor::audit
{

// Clone events of the process tree, kept by child pid until the child's
// first event needs them, at most a limit of them: beyond it the oldest goes.
//
// A clone that leaves the cache without being taken goes to the released
// list given to the call, when one is given (its owner destroys it on the
// thread that made it), else it is destroyed here.
//
// Not thread-safe: the process tree calls it under its own lock.
class CloneCache
{
public:
    using EventPtr = std::unique_ptr<edr::Event>;
    using Events = std::vector<EventPtr>;

    explicit CloneCache(size_t limit);

    // Keeps the clone under the child's pid, replacing one kept before.
    void Put(pid_t child, EventPtr clone, Events* released);
    // Takes the clone of the pid out; answers false when none is kept (clone
    // is then left untouched).
    bool Take(pid_t pid, EventPtr& clone);
    // Lets the clone of the pid go, if one is kept.
    void Drop(pid_t pid, Events* released);

    size_t Size() const { return m_clones.size(); }

private:
    static void Release(EventPtr clone, Events* released);

    const size_t m_limit;
    std::unordered_map<pid_t, EventPtr> m_clones;
    // Child pids in the order of their first clone; may hold pids whose clone
    // was taken since.
    std::deque<pid_t> m_order;
};

} // namespace vantor::audit
