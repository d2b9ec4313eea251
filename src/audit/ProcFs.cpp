#include "audit/ProcFs.h"

#include "audit/ProcessInfo.h"
#include "common/util/SmallFile.h"

#include <charconv>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace vantor::audit
{

namespace
{

// A command line or status is never this long.
bool ReadProcFile(const std::string& path, std::string& text)
{
    return util::ReadSmallFile(path, text, 1U << 20);
}

constexpr std::string_view kDeletedSuffix = " (deleted)";

template <typename T>
bool ParseNumber(std::string_view text, T& value)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    {
        text.remove_prefix(1);
    }
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end != text.data();
}

// The value after "<key>:" on the line that starts with the key.
std::optional<std::string_view> Field(std::string_view text, std::string_view key)
{
    size_t pos = 0;
    while (pos < text.size())
    {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos)
        {
            end = text.size();
        }
        std::string_view line = text.substr(pos, end - pos);
        if (line.size() > key.size() && line.substr(0, key.size()) == key && line[key.size()] == ':')
        {
            line.remove_prefix(key.size() + 1);
            while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
            {
                line.remove_prefix(1);
            }
            return line;
        }
        pos = end + 1;
    }
    return std::nullopt;
}

} // namespace

ProcFs::ProcFs(std::string root)
    : m_root(std::move(root))
{
    const long ticks = ::sysconf(_SC_CLK_TCK);
    if (ticks > 0)
    {
        m_ticksPerSecond = ticks;
    }
    std::string text;
    if (!ReadProcFile(m_root + "/stat", text))
    {
        throw std::runtime_error("ProcFs: Failed to read " + m_root + "/stat");
    }
    // "btime" is a line of its own, not a "key:" line.
    const size_t pos = text.find("\nbtime ");
    if (pos == std::string::npos || !ParseNumber(std::string_view(text).substr(pos + 7), m_bootTime))
    {
        throw std::runtime_error("ProcFs: Failed to find btime in " + m_root + "/stat");
    }
}

std::string ProcFs::PidPath(pid_t pid, const char* entry) const
{
    return m_root + "/" + std::to_string(pid) + "/" + entry;
}

std::optional<ProcFs::Stat> ProcFs::ReadStat(pid_t pid) const
{
    std::string text;
    if (pid <= 0 || !ReadProcFile(PidPath(pid, "stat"), text))
    {
        return std::nullopt;
    }
    return edr::ProcessStat::Parse(text);
}

std::optional<ProcFs::Status> ProcFs::ReadStatus(pid_t pid) const
{
    std::string text;
    if (pid <= 0 || !ReadProcFile(PidPath(pid, "status"), text))
    {
        return std::nullopt;
    }
    Status status;
    const auto name = Field(text, "Name");
    const auto tgid = Field(text, "Tgid");
    const auto ppid = Field(text, "PPid");
    const auto uid = Field(text, "Uid");
    if (!name || !tgid || !ppid || !uid || !ParseNumber(*tgid, status.tgid) ||
        !ParseNumber(*ppid, status.parentPid) || !ParseNumber(*uid, status.uid))
    {
        return std::nullopt;
    }
    status.name = std::string(*name);
    // "Uid:" holds real, effective, saved and file-system ids.
    std::string_view ids = *uid;
    const size_t gap = ids.find_first_of(" \t");
    if (gap == std::string_view::npos || !ParseNumber(ids.substr(gap), status.euid))
    {
        status.euid = status.uid;
    }
    return status;
}

std::optional<std::string> ProcFs::ReadImage(pid_t pid) const
{
    if (pid <= 0)
    {
        return std::nullopt;
    }
    const std::string link = PidPath(pid, "exe");
    std::string target(256, '\0');
    for (;;)
    {
        const ssize_t n = ::readlink(link.c_str(), target.data(), target.size());
        if (n <= 0)
        {
            return std::nullopt;
        }
        if (static_cast<size_t>(n) < target.size())
        {
            target.resize(static_cast<size_t>(n));
            break;
        }
        if (target.size() >= 65536)
        {
            return std::nullopt;
        }
        target.resize(target.size() * 2);
    }
    if (target.size() > kDeletedSuffix.size() &&
        std::string_view(target).substr(target.size() - kDeletedSuffix.size()) == kDeletedSuffix)
    {
        target.resize(target.size() - kDeletedSuffix.size());
    }
    return target;
}

std::vector<std::string> ProcFs::ReadArguments(pid_t pid) const
{
    std::vector<std::string> arguments;
    std::string text;
    if (pid <= 0 || !ReadProcFile(PidPath(pid, "cmdline"), text))
    {
        return arguments;
    }
    size_t pos = 0;
    while (pos < text.size())
    {
        size_t end = text.find('\0', pos);
        if (end == std::string::npos)
        {
            end = text.size();
        }
        arguments.emplace_back(text, pos, end - pos);
        pos = end + 1;
    }
    return arguments;
}

uint32_t ProcFs::ReadLoginUid(pid_t pid) const
{
    std::string text;
    uint32_t auid = ProcessInfo::kUnsetAuid;
    if (pid > 0 && ReadProcFile(PidPath(pid, "loginuid"), text) && ParseNumber(std::string_view(text), auid))
    {
        return auid;
    }
    return ProcessInfo::kUnsetAuid;
}

bool ProcFs::HasTask(pid_t tgid, pid_t tid) const
{
    struct stat st
    {
    };
    return tgid > 0 && tid > 0 &&
           ::stat((m_root + "/" + std::to_string(tgid) + "/task/" + std::to_string(tid)).c_str(), &st) == 0;
}

ProcFs::TimePoint ProcFs::CreationTime(uint64_t startTicks) const
{
    const auto ticks = static_cast<int64_t>(startTicks);
    return TimePoint(std::chrono::seconds(m_bootTime)) +
           std::chrono::milliseconds(ticks * 1000 / m_ticksPerSecond);
}

} // namespace vantor::audit
