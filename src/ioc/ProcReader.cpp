#include "ioc/ProcReader.h"

#include "common/Logging.h"
#include "common/util/SmallFile.h"
#include "common/util/WholeNumber.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <set>
#include <sstream>

namespace vantor::ioc::internal
{

namespace
{

// The whole of a proc file: a memory map may run to megabytes.
constexpr std::size_t kNoBound = std::string::npos;

// The value after a "Name:" line's label, e.g. the four ids of "Uid:".
std::optional<std::vector<std::string>> LineFields(const std::string& text, const std::string& label)
{
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line))
    {
        if (line.compare(0, label.size(), label) == 0)
        {
            std::istringstream fields(line.substr(label.size()));
            std::vector<std::string> values;
            for (std::string field; fields >> field;)
            {
                values.push_back(field);
            }
            return values;
        }
    }
    return std::nullopt;
}

bool IsLibrary(const std::string& path)
{
    const auto slash = path.rfind('/');
    const std::string name = path.substr(slash == std::string::npos ? 0 : slash + 1);
    const auto so = name.find(".so");
    return so != std::string::npos && (so + 3 == name.size() || name[so + 3] == '.');
}

} // namespace

ProcReader::ProcReader(std::string root)
    : m_root(std::move(root))
    , m_ticksPerSecond(sysconf(_SC_CLK_TCK) > 0 ? sysconf(_SC_CLK_TCK) : 100)
{
}

std::string ProcReader::PidPath(pid_t pid, const char* entry) const
{
    return m_root + "/" + std::to_string(pid) + "/" + entry;
}

std::optional<int64_t> ProcReader::BootTime() const
{
    std::string text;
    if (!util::ReadSmallFile(m_root + "/stat", text, kNoBound))
    {
        EDR_LOG_ERROR("Failed to find bootTime: cannot read " << m_root << "/stat");
        return std::nullopt;
    }
    const auto fields = LineFields(text, "btime");
    if (!fields)
    {
        EDR_LOG_ERROR("Failed to find bootTime: no btime line in " << m_root << "/stat");
        return std::nullopt;
    }
    int64_t bootTime = 0;
    if (fields->size() != 1 || !util::ParseWholeNumber(fields->front(), bootTime))
    {
        EDR_LOG_ERROR("Failed to parse bootTime: " << (fields->empty() ? std::string() : fields->front()));
        return std::nullopt;
    }
    return bootTime;
}

std::optional<ProcReader::Stat> ProcReader::ReadStat(pid_t pid) const
{
    std::string text;
    if (!util::ReadSmallFile(PidPath(pid, "stat"), text, kNoBound))
    {
        return std::nullopt;
    }
    auto stat = Stat::Parse(text);
    if (!stat)
    {
        EDR_LOG_ERROR("Failed to parse startTime: malformed " << PidPath(pid, "stat"));
    }
    return stat;
}

std::optional<int64_t> ProcReader::StartTime(pid_t pid) const
{
    const auto stat = ReadStat(pid);
    return stat ? StartTimeOf(*stat) : std::nullopt;
}

std::optional<int64_t> ProcReader::RecentBootTime() const
{
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard lock(m_bootMutex);
    if (!m_bootTime || now - m_bootTimeReadAt >= std::chrono::seconds(1))
    {
        m_bootTime = BootTime();
        m_bootTimeReadAt = now;
    }
    return m_bootTime;
}

std::optional<int64_t> ProcReader::StartTimeOf(const Stat& stat) const
{
    const auto bootTime = RecentBootTime();
    if (!bootTime)
    {
        return std::nullopt;
    }
    const int64_t startTime =
        *bootTime * 1000 +
        static_cast<int64_t>(stat.startTicks * 1000 / static_cast<uint64_t>(m_ticksPerSecond));
    EDR_LOG_DEBUG("Read process start time as " << startTime);
    return startTime;
}

std::optional<std::string> ProcReader::ReadLink(const std::string& path) const
{
    std::string target(PATH_MAX, '\0');
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0)
    {
        return std::nullopt;
    }
    target.resize(static_cast<size_t>(length));
    return target;
}

std::optional<std::string> ProcReader::ReadImage(pid_t pid) const
{
    auto image = ReadLink(PidPath(pid, "exe"));
    if (!image)
    {
        EDR_LOG_DEBUG("Failed to get real file path: " << PidPath(pid, "exe"));
        return std::nullopt;
    }
    constexpr std::string_view kDeleted = " (deleted)";
    if (image->size() > kDeleted.size() &&
        image->compare(image->size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0)
    {
        image->resize(image->size() - kDeleted.size());
    }
    return image;
}

std::optional<std::vector<std::string>> ProcReader::ReadArguments(pid_t pid) const
{
    std::string text;
    if (!util::ReadSmallFile(PidPath(pid, "cmdline"), text, kNoBound))
    {
        EDR_LOG_ERROR("Failed to read process arguments from " << PidPath(pid, "cmdline"));
        return std::nullopt;
    }
    std::vector<std::string> arguments;
    for (size_t start = 0; start < text.size();)
    {
        const auto end = text.find('\0', start);
        arguments.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        start = end == std::string::npos ? text.size() : end + 1;
    }
    return arguments;
}

std::optional<std::string> ProcReader::ReadCwd(pid_t pid) const
{
    return ReadLink(PidPath(pid, "cwd"));
}

std::optional<ProcReader::Ids> ProcReader::ReadIds(pid_t pid) const
{
    const std::string path = PidPath(pid, "status");
    std::string text;
    if (!util::ReadSmallFile(path, text, kNoBound))
    {
        EDR_LOG_ERROR("Failed to read uid and gid of process from " << path);
        return std::nullopt;
    }
    const auto uids = LineFields(text, "Uid:");
    Ids ids;
    if (!uids || uids->size() < 2 || !util::ParseWholeNumber((*uids)[0], ids.uid) ||
        !util::ParseWholeNumber((*uids)[1], ids.euid))
    {
        EDR_LOG_ERROR("Failed to parse Uid of process: " << path);
        return std::nullopt;
    }
    const auto gids = LineFields(text, "Gid:");
    if (!gids || gids->empty() || !util::ParseWholeNumber(gids->front(), ids.gid))
    {
        EDR_LOG_ERROR("Failed to parse Gid of process: " << path);
        return std::nullopt;
    }
    EDR_LOG_DEBUG("Read uid=" << ids.uid << ", gid=" << ids.gid << " from " << path);
    return ids;
}

std::optional<int64_t> ProcReader::ReadLoginUid(pid_t pid) const
{
    std::string text;
    int64_t auid = 0;
    if (!util::ReadSmallFile(PidPath(pid, "loginuid"), text, kNoBound) || !util::ParseWholeNumber(text, auid))
    {
        return std::nullopt;
    }
    return auid;
}

std::optional<std::vector<std::string>> ProcReader::ReadLibraries(pid_t pid) const
{
    std::string text;
    if (!util::ReadSmallFile(PidPath(pid, "maps"), text, kNoBound))
    {
        EDR_LOG_ERROR("Failed to read library path from " << PidPath(pid, "maps"));
        return std::nullopt;
    }
    std::vector<std::string> libraries;
    std::set<std::string> seen;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
    {
        // address perms offset dev inode path
        const auto slash = line.find('/');
        if (slash == std::string::npos)
        {
            continue;
        }
        const std::string path = line.substr(slash);
        if (IsLibrary(path) && seen.insert(path).second)
        {
            EDR_LOG_TRACE("Added library path " << path << " in list for processing");
            libraries.push_back(path);
        }
    }
    return libraries;
}

} // namespace vantor::ioc::internal
