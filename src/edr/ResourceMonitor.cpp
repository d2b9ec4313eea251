#include "edr/ResourceMonitor.h"

#include "common/util/Json.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace vantor::edr
{

namespace
{
std::optional<std::string> ReadWholeFile(const std::string& path)
{
    std::string text;
    if (!util::ReadFile(path, text))
    {
        return std::nullopt;
    }
    return text;
}

ResourceMonitor::Sources DefaultSources()
{
    ResourceMonitor::Sources s;
    s.clock = [] { return std::chrono::steady_clock::now(); };
    s.readFile = ReadWholeFile;
    s.procDir = "/proc/" + std::to_string(::getpid()) + "/";
    s.meminfo = "/proc/meminfo";
    return s;
}
} // namespace

ResourceMonitor::ResourceMonitor(uint64_t cpuThreshold, uint64_t memoryThreshold)
    : ResourceMonitor(cpuThreshold, memoryThreshold, DefaultSources())
{
}

ResourceMonitor::ResourceMonitor(uint64_t cpuThreshold, uint64_t memoryThreshold, Sources sources)
    : m_cpuThreshold(cpuThreshold)
    , m_memoryThreshold(memoryThreshold)
    , m_sources(std::move(sources))
{
    if (cpuThreshold > 100)
    {
        throw std::invalid_argument("CPU usage threshold percentage cannot be greater than 100%");
    }
    if (memoryThreshold > 100)
    {
        throw std::invalid_argument("Memory usage threshold percentage cannot be greater than 100%");
    }
    if (m_sources.processors <= 0)
    {
        m_sources.processors = ::sysconf(_SC_NPROCESSORS_CONF);
    }
    if (m_sources.ticksPerSecond <= 0)
    {
        m_sources.ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    }
    m_totalMemoryKb = ReadTotalMemory();
}

std::chrono::steady_clock::time_point ResourceMonitor::Now() const
{
    return m_sources.clock();
}

uint64_t ResourceMonitor::ReadTotalMemory() const
{
    const auto text = m_sources.readFile(m_sources.meminfo);
    if (!text)
    {
        throw std::runtime_error("Failed to read total system memory from proc fs");
    }
    const auto pos = text->find("MemTotal:");
    std::string value =
        pos == std::string::npos ? *text : text->substr(pos + 9, text->find('\n', pos) - pos - 9);
    const char* begin = value.c_str();
    char* end = nullptr;
    errno = 0;
    const unsigned long long kb = std::strtoull(begin, &end, 10);
    if (pos == std::string::npos || end == begin || errno != 0 || kb == 0)
    {
        throw std::runtime_error("Failed to parse system memory: '" + value + "'");
    }
    return kb;
}

uint64_t ResourceMonitor::ReadResidentSetKb() const
{
    const auto text = m_sources.readFile(m_sources.procDir + "smaps");
    if (!text)
    {
        return 0;
    }
    uint64_t total = 0;
    size_t pos = 0;
    while (pos < text->size())
    {
        const size_t eol = text->find('\n', pos);
        const size_t lineEnd = eol == std::string::npos ? text->size() : eol;
        if (text->compare(pos, 4, "Rss:") == 0)
        {
            total += std::strtoull(text->c_str() + pos + 4, nullptr, 10);
        }
        pos = lineEnd + 1;
    }
    return total;
}

float ResourceMonitor::CpuUsage()
{
    const auto now = Now();
    if (m_lastCpuSample && now - *m_lastCpuSample < std::chrono::nanoseconds(1'001'000'000))
    {
        return m_lastCpuUsage;
    }
    const auto text = m_sources.readFile(m_sources.procDir + "stat");
    if (!text)
    {
        throw std::runtime_error("Failed to read CPU usage info from /proc/stat");
    }
    const auto paren = text->rfind(')');
    if (paren == std::string::npos)
    {
        throw std::runtime_error("Unknown error when parsing /proc/stat for CPU usage");
    }
    // After the command name: state, then fields 4..13; utime and stime are
    // fields 14 and 15 of the whole line.
    std::istringstream in(text->substr(paren + 1));
    std::string field;
    for (int i = 0; i < 11 && in >> field; ++i)
    {
    }
    std::string userText;
    std::string systemText;
    if (!(in >> userText >> systemText))
    {
        throw std::runtime_error("Failed to parse /proc/stat for CPU usage");
    }
    uint64_t user = 0;
    uint64_t system = 0;
    try
    {
        user = std::stoull(userText);
        system = std::stoull(systemText);
    }
    catch (const std::exception&)
    {
        throw std::runtime_error("Failed to parse /proc/stat for CPU usage");
    }
    if (m_lastCpuSample)
    {
        const auto elapsedMs =
            std::chrono::duration_cast<std::chrono::milliseconds>(now - *m_lastCpuSample).count();
        const uint64_t ticks = (user + system) - (m_prevUser + m_prevSystem);
        if (elapsedMs > 0)
        {
            m_lastCpuUsage = static_cast<float>(ticks * 1000 / m_sources.ticksPerSecond) * 100.0f /
                             static_cast<float>(elapsedMs) / static_cast<float>(m_sources.processors);
        }
    }
    m_prevUser = user;
    m_prevSystem = system;
    m_lastCpuSample = now;
    return m_lastCpuUsage;
}

std::optional<uint64_t> ResourceMonitor::SampleMemory()
{
    const auto now = Now();
    if (m_lastMemorySample && now - *m_lastMemorySample <= std::chrono::seconds(60))
    {
        return std::nullopt;
    }
    const uint64_t rss = ReadResidentSetKb();
    if (rss == 0)
    {
        return std::nullopt;
    }
    m_lastMemorySample = now;
    return rss;
}

float ResourceMonitor::MemoryUsage()
{
    const auto rss = SampleMemory();
    if (!rss)
    {
        return m_lastMemoryUsage;
    }
    m_lastMemoryUsage = static_cast<float>(*rss) * 100.0f / static_cast<float>(m_totalMemoryKb);
    m_memorySamples.Insert(*rss);
    return m_lastMemoryUsage;
}

float ResourceMonitor::AverageMemoryUsage()
{
    const auto rss = SampleMemory();
    if (!rss)
    {
        return m_averageMemoryUsage;
    }
    const auto n = static_cast<float>(m_memorySamples.Size());
    if (m_memorySamples.Size() < kAveragingSpan)
    {
        m_averageMemoryKb = (m_averageMemoryKb * n + static_cast<float>(*rss)) / (n + 1);
    }
    else
    {
        const auto oldest = static_cast<float>(m_memorySamples.Front());
        m_averageMemoryKb =
            (m_averageMemoryKb * kAveragingSpan - oldest + static_cast<float>(*rss)) / kAveragingSpan;
    }
    m_memorySamples.Insert(*rss);
    m_averageMemoryUsage = m_averageMemoryKb * 100.0f / static_cast<float>(m_totalMemoryKb);
    m_lastMemoryUsage = static_cast<float>(*rss) * 100.0f / static_cast<float>(m_totalMemoryKb);
    return m_averageMemoryUsage;
}

} // namespace vantor::edr
