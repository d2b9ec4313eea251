#include "ioc/ProcessInfo.h"

#include "common/Logging.h"
#include "edr/Event.h"
#include "ioc/ProcReader.h"

#include <array>
#include <numeric>
#include <stdexcept>
#include <string_view>

namespace vantor::ioc
{

namespace
{

template <typename T, typename Get>
T Optional(Get get, T fallback = T())
{
    try
    {
        return get();
    }
    catch (const std::exception&)
    {
        // The event does not carry it.
        return fallback;
    }
}

bool IsInterpreter(const std::string& image)
{
    const auto slash = image.rfind('/');
    const std::string_view name = std::string_view(image).substr(slash == std::string::npos ? 0 : slash + 1);
    static const std::array<std::string_view, 12> kPrefixes{"python", "perl", "ruby", "node", "php", "bash",
                                                            "sh",     "dash", "zsh",  "ksh",  "lua", "tclsh"};
    for (const auto prefix : kPrefixes)
    {
        if (name.compare(0, prefix.size(), prefix) == 0 &&
            (name.size() == prefix.size() || isdigit(static_cast<unsigned char>(name[prefix.size()])) ||
             name[prefix.size()] == '.'))
        {
            return true;
        }
    }
    return false;
}

bool IsSameFile(const ImageFile& a, const ImageFile& b)
{
    return a.path == b.path || (a.inode != 0 && a.inode == b.inode && a.deviceId == b.deviceId);
}

} // namespace

ProcessInfo ProcessInfo::FromEvent(const edr::Event& event, int64_t creationTime)
{
    ProcessInfo info;
    info.pid = event.GetActorProcessId();
    info.parentPid = event.GetActorParentProcessId();
    info.creationTime = creationTime;
    const auto arguments =
        Optional<std::vector<std::string>>([&] { return event.GetActorProcessArguments(); });
    info.arguments = JoinArguments(arguments);
    info.cwd = Optional<std::string>([&] { return event.GetCwd(); });
    info.uid = Optional<int64_t>([&] { return event.GetActorUserId(); });
    info.euid = Optional<int64_t>([&] { return event.GetActorEuid(); });
    info.auid = Optional<int64_t>([&] { return event.GetActorAuid(); });
    info.image = ImageFile::FromPath(Optional<std::string>([&] { return event.GetImage(); }));
    // The executed file is the script when the kernel ran an interpreter for
    // it; when it is the interpreter itself (also under another name, as
    // /bin/bash for /usr/bin/bash), the script is among the arguments.
    // Mostly the executed file is the image under its own name: then there
    // is nothing to examine (a stat per process start).
    const std::string executed = Optional<std::string>([&] { return event.GetSecondaryImage(); });
    if (!executed.empty() && executed != info.image.path)
    {
        info.secondaryImage = ImageFile::FromPath(executed);
    }
    if (executed.empty() || executed == info.image.path || IsSameFile(info.secondaryImage, info.image))
    {
        info.secondaryImage = ImageFile::FromPath(ScriptOf(info.image.path, arguments));
    }
    info.state = State::Running;
    if (info.arguments.empty() || info.cwd.empty())
    {
        EDR_LOG_DEBUG("Setting empty args/Cwd: " << info.pid);
    }
    if (info.image.path.empty() || info.secondaryImage.path.empty())
    {
        EDR_LOG_DEBUG("Setting empty image/secondary image: " << info.pid);
    }
    return info;
}

ProcessInfo ProcessInfo::FromProc(const internal::ProcReader& proc, pid_t pid)
{
    const auto stat = proc.ReadStat(pid);
    const auto startTime = stat ? proc.StartTimeOf(*stat) : std::nullopt;
    if (!stat || !startTime)
    {
        throw std::runtime_error("Failed to update process info: process " + std::to_string(pid) +
                                 " does not run");
    }
    ProcessInfo info;
    info.pid = pid;
    info.parentPid = stat->parentPid;
    info.creationTime = *startTime;
    info.state = StateOf(stat->state);
    info.priority = stat->priority;
    const auto arguments = proc.ReadArguments(pid).value_or(std::vector<std::string>());
    info.arguments = JoinArguments(arguments);
    EDR_LOG_DEBUG("Process arguments: " << info.arguments);
    info.cwd = proc.ReadCwd(pid).value_or(std::string());
    if (const auto ids = proc.ReadIds(pid))
    {
        info.uid = ids->uid;
        info.euid = ids->euid;
        info.gid = ids->gid;
    }
    info.auid = proc.ReadLoginUid(pid).value_or(0);
    info.image = ImageFile::FromPath(proc.ReadImage(pid).value_or(std::string()));
    info.secondaryImage = ImageFile::FromPath(ScriptOf(info.image.path, arguments));
    info.libraries = proc.ReadLibraries(pid).value_or(std::vector<std::string>());
    if (info.arguments.empty() || info.cwd.empty())
    {
        EDR_LOG_DEBUG("Setting empty args/Cwd: " << pid);
    }
    if (info.image.path.empty() || info.secondaryImage.path.empty())
    {
        EDR_LOG_DEBUG("Setting empty image/secondary image: " << pid);
    }
    return info;
}

int64_t ProcessInfo::Score() const
{
    return std::accumulate(tags.begin(), tags.end(), int64_t{0},
                           [](int64_t sum, const auto& tag) { return sum + tag.second; });
}

const char* ProcessInfo::StateText(State state)
{
    switch (state)
    {
    case State::Waiting:
        return "Waiting";
    case State::Running:
        return "Running";
    case State::Sleeping:
        return "Sleeping";
    case State::Traced:
        return "Traced";
    case State::Paging:
        return "Paging";
    case State::Zombie:
        return "Zombie";
    case State::Unknown:
        break;
    }
    return "Unknown";
}

ProcessInfo::State ProcessInfo::StateOf(char letter)
{
    switch (letter)
    {
    case 'D':
        return State::Waiting;
    case 'R':
        return State::Running;
    case 'S':
    case 'I':
        return State::Sleeping;
    case 'T':
    case 't':
        return State::Traced;
    case 'W':
        return State::Paging;
    case 'Z':
        return State::Zombie;
    default:
        return State::Unknown;
    }
}

std::string ProcessInfo::ScriptOf(const std::string& image, const std::vector<std::string>& arguments)
{
    if (!IsInterpreter(image))
    {
        return {};
    }
    // The first argument after the interpreter's own options; "-c" runs a
    // command text, not a file.
    for (size_t i = 1; i < arguments.size(); ++i)
    {
        if (arguments[i] == "-c" || arguments[i] == "-e" || arguments[i] == "-m")
        {
            return {};
        }
        if (!arguments[i].empty() && arguments[i][0] != '-')
        {
            return arguments[i];
        }
    }
    return {};
}

std::string ProcessInfo::JoinArguments(const std::vector<std::string>& arguments)
{
    size_t size = 0;
    for (const auto& argument : arguments)
    {
        size += argument.size() + 1;
    }
    std::string text;
    text.reserve(size);
    for (const auto& argument : arguments)
    {
        if (!text.empty())
        {
            text += ' ';
        }
        text += argument;
    }
    return text;
}

} // namespace vantor::ioc
