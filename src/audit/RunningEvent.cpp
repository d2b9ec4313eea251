#include "audit/RunningEvent.h"

#include "audit/AbsolutePath.h"
#include "audit/ProcessInfo.h"
#include "common/Logging.h"
#include "common/StatHelper.h"

#include <sys/syscall.h>

namespace vantor::audit::internal
{

RunningEvent::RunningEvent(auparse_state_t* au, const SetAsideRecords& aside)
    : SyscallEvent(au, aside, AuditRecords::kPath | AuditRecords::kCwd | AuditRecords::kExecve)
{
    if (GetSyscall() != SYS_execve)
    {
        throw edr::EventException("Invalid syscall for Running event: " + std::to_string(GetSyscall()));
    }
    if (m_records.cwdCount > 1)
    {
        throw edr::EventException("Too many CWD records in Running event");
    }
    if (m_records.paths.empty() || !m_records.paths.front().hasName)
    {
        throw edr::EventException("Missing or invalid path for Running event");
    }
    const PathRecord& object = m_records.paths.front();
    if (AbsolutePath::IsRelative(object.name))
    {
        if (m_records.cwdCount == 0)
        {
            throw edr::EventException("Missing CWD with relative path");
        }
        m_executable = AbsolutePath::Join(m_records.Cwd(), object.name);
    }
    else
    {
        m_executable = object.name;
    }

    // The image is the executed file, or for a script its interpreter, which
    // the kernel records as a further PATH record. Compare by identity only
    // when the names do not already agree; the answer only feeds a debug
    // line, so the stat is spared when that level is off.
    if (!common::Logging::Edr().is(Poco::Message::PRIO_DEBUG))
    {
        return;
    }
    const std::string image(m_records.Exe());
    bool same = image == m_executable;
    for (size_t i = 1; !same && i < m_records.paths.size(); ++i)
    {
        same = m_records.paths[i].name == image;
    }
    if (!same)
    {
        try
        {
            const auto st = common::StatHelper::TryStat(image, true);
            for (const auto& path : m_records.paths)
            {
                same = same || (st && st->st_ino == path.inode && st->st_dev == path.device);
            }
        }
        catch (const common::StatHelperException&)
        {
        }
        if (!same)
        {
            EDR_LOG_DEBUG("Process image path " << image << " differs from the object of the audit event.");
        }
    }
}

std::unique_ptr<edr::Event> RunningEvent::Clone() const
{
    return std::make_unique<RunningEvent>(*this);
}

edr::EventType RunningEvent::GetType() const
{
    return edr::EventType::Running;
}

std::string RunningEvent::GetActionName() const
{
    return "Execve";
}

std::vector<std::string> RunningEvent::GetActorProcessArguments() const
{
    return m_records.arguments;
}

std::string RunningEvent::GetCommandLine() const
{
    return ProcessInfo::JoinArguments(m_records.arguments);
}

uint32_t RunningEvent::GetCategory() const
{
    return static_cast<uint32_t>(edr::EventCategory::Process);
}

std::string RunningEvent::GetCwd() const
{
    return std::string(m_records.Cwd());
}

std::string RunningEvent::GetSecondaryImage() const
{
    return m_executable;
}

bool RunningEvent::HasProcess() const
{
    return true;
}

} // namespace vantor::audit::internal
