#pragma once

#include <sys/types.h>

#include <cstddef>
#include <set>
#include <unordered_map>

namespace vantor::ioc::internal
{

// The pids of the processes that carry a tactic tag, by the parent pid that
// each names: a starting process finds the tagged siblings it may inherit
// from without walking a busy parent's thousands of untagged children.
// Not thread-safe: its owner's lock guards it.
class TacticChildren
{
public:
    void Add(pid_t parentPid, pid_t pid);
    void Remove(pid_t parentPid, pid_t pid);
    // The pids under parentPid in pid order; null when there are none.
    const std::set<pid_t>* Of(pid_t parentPid) const;
    size_t Size() const { return m_size; }
    void Clear();

private:
    std::unordered_map<pid_t, std::set<pid_t>> m_byParent;
    size_t m_size = 0;
};

} // namespace vantor::ioc::internal
