#include "audit/OutpostProcessFollower.h"

#include "common/Logging.h"

namespace vantor::audit
{

namespace
{

// The executed file of a process start, for a script its interpreter too.
bool RunsImage(const edr::Event& event, const std::string& path)
{
    if (event.GetImage() == path)
    {
        return true;
    }
    try
    {
        return event.GetSecondaryImage() == path;
    }
    catch (const edr::EventException&)
    {
        return false;
    }
}

} // namespace

OutpostProcessFollower::OutpostProcessFollower(Target& target, std::shared_ptr<ProcessTree> tree)
    : m_target(target)
    , m_tree(std::move(tree))
{
}

void OutpostProcessFollower::Follow(const edr::Event& event)
{
    try
    {
        FollowEvent(event);
    }
    catch (const std::exception& e)
    {
        // The event itself goes on to its handlers.
        EDR_LOG_ERROR("Failed to follow the host agent's process: " << e.what());
    }
}

void OutpostProcessFollower::FollowEvent(const edr::Event& event)
{
    const edr::EventType type = event.GetType();
    if (type != edr::EventType::Exit && type != edr::EventType::Running)
    {
        return;
    }
    const pid_t pid = event.GetActorProcessId();
    const pid_t outpostPid = m_target.GetOutpostPid();
    if (pid <= 0)
    {
        return;
    }
    if (type == edr::EventType::Exit)
    {
        if (pid == outpostPid)
        {
            Release(pid, "exited");
        }
        return;
    }

    const std::string path = m_target.GetOutpostPath();
    if (pid == outpostPid || path.empty() || !RunsImage(event, path))
    {
        return;
    }
    // A second process of the agent's image beside a running agent is one of
    // its helpers, not its replacement.
    if (outpostPid > 0 && IsAlive(outpostPid))
    {
        return;
    }
    const auto process = m_tree ? m_tree->GetProcess(pid) : nullptr;
    if (!process)
    {
        EDR_LOG_ERROR("Failed to find process information for pid:" << pid);
        return;
    }
    EDR_LOG_INFO("Host agent now runs as pid " << pid << "; moving its exclusion rules");
    if (!m_target.RefreshOutpostExclusionRules(pid, path))
    {
        EDR_LOG_ERROR("Failed to move the host agent's exclusion rules to pid " << pid);
    }
}

void OutpostProcessFollower::CheckAlive()
{
    const pid_t outpostPid = m_target.GetOutpostPid();
    if (outpostPid > 0 && m_tree && !IsAlive(outpostPid))
    {
        Release(outpostPid, "is gone");
    }
}

void OutpostProcessFollower::Release(pid_t pid, const char* why)
{
    EDR_LOG_INFO("Host agent process " << pid << " " << why << "; removing its exclusion rules");
    if (!m_target.RefreshOutpostExclusionRules(0, m_target.GetOutpostPath()))
    {
        EDR_LOG_ERROR("Failed to remove the exclusion rules of host agent process " << pid);
    }
}

bool OutpostProcessFollower::IsAlive(pid_t pid) const
{
    return m_tree && m_tree->GetProcFs().ReadStat(pid).has_value();
}

} // namespace vantor::audit
