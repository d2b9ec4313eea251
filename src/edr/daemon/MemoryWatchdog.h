#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>

namespace vantor::edr
{

// Turns the daemon's memory use into strikes: three checks above the hard
// limit, at least three minutes apart and not interrupted by a check below the
// soft limit, mean the daemon must stop.
class MemoryWatchdog
{
public:
    struct Limits
    {
        uint64_t softKb;
        uint64_t hardKb;
    };

    using SteadyClock = std::function<std::chrono::steady_clock::time_point()>;
    using UsagePercent = std::function<float()>;
    using Trim = std::function<int()>;

    static constexpr std::chrono::nanoseconds kCheckInterval{180'000'000'000};
    static constexpr uint32_t kStrikesToStop = 3;

    // total × percent ≤ 40959999 gives 400 MiB; otherwise total × percent / 100
    // capped at 2 GiB; the hard limit is 1.5 × the soft one.
    static Limits ComputeLimits(uint64_t totalMemoryKb, uint64_t memoryLimitPercent);

    MemoryWatchdog(uint64_t totalMemoryKb, uint64_t memoryLimitPercent, UsagePercent usage,
                   SteadyClock clock = {}, Trim trim = {});

    // Remembers now as the time of the last check (the main loop's start).
    void Reset();
    // One pass of the watchdog; answers whether the daemon must stop.
    bool Check();

    const Limits& GetLimits() const { return m_limits; }
    uint32_t Strikes() const { return m_strikes; }
    // Strikes since the watchdog was made, resets aside; readable from any
    // thread.
    uint64_t TotalStrikes() const { return m_totalStrikes.load(std::memory_order_relaxed); }

private:
    std::chrono::steady_clock::time_point Now() const;

    uint64_t m_totalMemoryKb;
    Limits m_limits;
    UsagePercent m_usage;
    SteadyClock m_clock;
    Trim m_trim;
    uint32_t m_strikes = 0;
    std::atomic<uint64_t> m_totalStrikes{0};
    std::chrono::steady_clock::time_point m_lastCheck;
};

} // namespace vantor::edr
