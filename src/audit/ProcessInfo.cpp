#include "audit/ProcessInfo.h"

#include "audit/CloneEvent.h"
#include "edr/Event.h"

#include <stdexcept>

namespace vantor::audit
{

ProcessInfo::ProcessInfo(const edr::Event& event, TimePoint creationTime)
    : m_creationTime(creationTime)
{
    const edr::EventType type = event.GetType();
    if (type != edr::EventType::Running && type != edr::EventType::Clone)
    {
        throw std::runtime_error("ProcessInfo can only be created from a Process Exec or Clone event");
    }
    if (type == edr::EventType::Clone)
    {
        // The caller made the child: the child is the call's result, and it
        // runs the caller's image with the caller's arguments.
        const auto* clone = dynamic_cast<const internal::CloneEvent*>(&event);
        if (clone == nullptr || clone->GetChildProcessId() <= 0)
        {
            throw std::runtime_error("ProcessInfo cannot find the new process of the Clone event");
        }
        m_pid = clone->GetChildProcessId();
        m_parentPid = event.GetActorProcessId();
    }
    else
    {
        m_pid = event.GetActorProcessId();
        m_parentPid = event.GetActorParentProcessId();
    }
    m_image = event.GetImage();
    if (m_image.empty())
    {
        throw std::runtime_error("ProcessInfo cannot find image information for PID:" +
                                 std::to_string(m_pid));
    }
    try
    {
        m_arguments = event.GetActorProcessArguments();
    }
    catch (const edr::EventException&)
    {
        // A clone whose caller is unknown and whose title was not recorded.
    }
    m_uid = event.GetActorUserId();
    m_euid = event.GetActorEuid();
    m_auid = event.GetActorAuid();
}

ProcessInfo::ProcessInfo(const ProcFs& procFs, pid_t pid)
    : m_pid(pid)
{
    const auto stat = procFs.ReadStat(pid);
    const auto status = procFs.ReadStatus(pid);
    if (!stat || !status)
    {
        throw std::runtime_error("no readable stat and status");
    }
    auto image = procFs.ReadImage(pid);
    if (!image || image->empty())
    {
        throw std::runtime_error("ProcessInfo cannot find image information for PID:" + std::to_string(pid));
    }
    m_image = std::move(*image);
    m_parentPid = stat->parentPid;
    m_creationTime = procFs.CreationTime(stat->startTicks);
    m_arguments = procFs.ReadArguments(pid);
    m_uid = status->uid;
    m_euid = status->euid;
    m_auid = procFs.ReadLoginUid(pid);
}

std::string_view ProcessInfo::GetName() const
{
    std::string_view image(m_image);
    const size_t slash = image.rfind('/');
    return slash == std::string_view::npos ? image : image.substr(slash + 1);
}

std::string ProcessInfo::JoinArguments(const std::vector<std::string>& arguments)
{
    std::string line;
    for (size_t i = 0; i < arguments.size(); ++i)
    {
        if (i > 0)
        {
            line.push_back(' ');
        }
        line.append(arguments[i]);
    }
    return line;
}

void ProcessInfo::Update(const edr::Event& /*event*/)
{
    throw std::runtime_error("Update is not implemented");
}

} // namespace vantor::audit
