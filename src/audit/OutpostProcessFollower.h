#pragma once

#include "audit/ProcessTree.h"
#include "edr/Event.h"

#include <memory>
#include <string>
#include <sys/types.h>

namespace vantor::audit
{

// Keeps the host agent's exclusion rules on the agent's process as it exits
// and is replaced, between the agent's own reports of its pid.
//
// The agent's exit is audited (its exit rule stands in front of its
// exclusion rule), so its exit event tells that the pid is free: the rules
// are removed, since whatever process gets the pid next must be audited. The
// same happens when a periodic check finds the pid gone (a process killed by
// a signal never calls exit_group). A process that starts running the agent's
// image while no agent process runs is the agent's replacement: the rules
// move to it.
//
// Not thread-safe: the event processing thread is its one caller. The target
// serialises its own rule changes.
class OutpostProcessFollower
{
public:
    // Where the agent's pid and rules live: the audit rule engine.
    class Target
    {
    public:
        virtual ~Target() = default;
        virtual pid_t GetOutpostPid() const = 0;
        virtual std::string GetOutpostPath() const = 0;
        // Moves the agent's exclusion rules to the pid; pid 0 removes them.
        // Answers whether the rules are as asked.
        virtual bool RefreshOutpostExclusionRules(pid_t pid, const std::string& path) = 0;
    };

    // Without a tree the agent's replacement cannot be recognised and the
    // periodic check cannot look at /proc; exits are still followed.
    OutpostProcessFollower(Target& target, std::shared_ptr<ProcessTree> tree);

    // Looks at one event after the process tree has taken it in.
    void Follow(const edr::Event& event);

    // Releases the rules when the agent's pid no longer exists.
    void CheckAlive();

private:
    void FollowEvent(const edr::Event& event);
    void Release(pid_t pid, const char* why);
    bool IsAlive(pid_t pid) const;

    Target& m_target;
    const std::shared_ptr<ProcessTree> m_tree;
};

} // namespace vantor::audit
