#pragma once

#include "common/CircularBuffer.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace vantor::edr
{

// Samples this process's CPU and memory use from /proc at bounded rates: CPU
// at most about once a second, memory (smaps, which is costly) at most once a
// minute. In between, the last value is answered.
class ResourceMonitor
{
public:
    using SteadyClock = std::function<std::chrono::steady_clock::time_point()>;
    // Answers a file's content, or nothing when it cannot be read.
    using FileReader = std::function<std::optional<std::string>(const std::string& path)>;

    struct Sources
    {
        SteadyClock clock;
        FileReader readFile;
        std::string procDir; // "/proc/<pid>/"
        std::string meminfo; // "/proc/meminfo"
        long processors = 0; // 0: ask sysconf
        long ticksPerSecond = 0;
    };

    // Throws std::invalid_argument when a threshold is above 100, and
    // std::runtime_error when the total memory cannot be read.
    ResourceMonitor(uint64_t cpuThreshold, uint64_t memoryThreshold);
    ResourceMonitor(uint64_t cpuThreshold, uint64_t memoryThreshold, Sources sources);

    uint64_t TotalMemoryKb() const { return m_totalMemoryKb; }
    uint64_t CpuThreshold() const { return m_cpuThreshold; }
    uint64_t MemoryThreshold() const { return m_memoryThreshold; }

    // Percent of the whole machine (100: every processor busy with us).
    float CpuUsage();
    // Percent of total memory, instantaneous.
    float MemoryUsage();
    // Percent of total memory over the last 10 samples.
    float AverageMemoryUsage();

private:
    static constexpr uint64_t kAveragingSpan = 10;

    std::chrono::steady_clock::time_point Now() const;
    uint64_t ReadTotalMemory() const;
    uint64_t ReadResidentSetKb() const;
    // Answers the new resident set size when the minute has passed and a
    // non-zero size was read.
    std::optional<uint64_t> SampleMemory();

    uint64_t m_cpuThreshold;
    uint64_t m_memoryThreshold;
    Sources m_sources;
    float m_lastCpuUsage = 0;
    std::optional<std::chrono::steady_clock::time_point> m_lastCpuSample;
    uint64_t m_prevUser = 0;
    uint64_t m_prevSystem = 0;
    float m_lastMemoryUsage = 0;
    float m_averageMemoryKb = 0;
    float m_averageMemoryUsage = 0;
    std::optional<std::chrono::steady_clock::time_point> m_lastMemorySample;
    common::CircularBuffer<uint64_t> m_memorySamples{kAveragingSpan};
    uint64_t m_totalMemoryKb = 0;
};

} // namespace vantor::edr
