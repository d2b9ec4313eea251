#include "edr/daemon/MemoryWatchdog.h"
#include "edr/ResourceMonitor.h"
#include "tests/support/ExpectThrowText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

using vantor::edr::MemoryWatchdog;
using vantor::edr::ResourceMonitor;
using namespace std::chrono_literals;

TEST(MemoryWatchdogTest, LimitArithmetic)
{
    // The 400 MiB floor for small machines or 0 %, the 2 GiB cap for large ones.
    const struct
    {
        uint64_t totalKb, percent, softKb, hardKb;
    } cases[] = {
        {8'000'000, 0, 409600, 614400},    {4'095'999, 10, 409600, 614400},
        {4'096'000, 10, 409600, 614400},   {8'000'000, 10, 800000, 1200000},
        {8'000'001, 15, 1200000, 1800000}, {64'000'000, 50, 2097152, 3145728},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(std::to_string(c.totalKb) + " KB at " + std::to_string(c.percent) + "%");
        const auto limits = MemoryWatchdog::ComputeLimits(c.totalKb, c.percent);
        EXPECT_EQ(limits.softKb, c.softKb);
        EXPECT_EQ(limits.hardKb, c.hardKb);
    }
}

namespace
{
// 10,000,000 KB of memory with a 10 % limit: soft 1,000,000 KB, hard 1,500,000 KB.
struct Harness
{
    std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
    float percent = 0;
    int trims = 0;
    int usageReads = 0;
    MemoryWatchdog watchdog{10'000'000, 10, [this] { return ++usageReads, percent; }, [this] { return now; },
                            [this] { return ++trims, 0; }};

    // Sets usage in KB and lets a check run after the interval.
    bool CheckAt(uint64_t usageKb)
    {
        percent = static_cast<float>(usageKb) * 100.0f / 10'000'000.0f;
        now += 181s;
        return watchdog.Check();
    }
};
constexpr uint64_t kAboveHard = 1'600'000;
constexpr uint64_t kBetween = 1'200'000;
constexpr uint64_t kBelowSoft = 500'000;
} // namespace

TEST(MemoryWatchdogTest, StrikeSequence)
{
    Harness h;
    EXPECT_FALSE(h.CheckAt(kAboveHard));
    EXPECT_FALSE(h.CheckAt(kAboveHard));
    EXPECT_FALSE(h.CheckAt(kBetween)) << "between the limits keeps the count";
    EXPECT_EQ(h.watchdog.Strikes(), 2u);
    EXPECT_TRUE(h.CheckAt(kAboveHard)) << "third strike stops the daemon";

    Harness reset;
    reset.CheckAt(kAboveHard);
    reset.CheckAt(kAboveHard);
    EXPECT_FALSE(reset.CheckAt(kBelowSoft));
    EXPECT_EQ(reset.watchdog.Strikes(), 0u) << "below the soft limit clears the strikes";
    EXPECT_FALSE(reset.CheckAt(kAboveHard));
    EXPECT_FALSE(reset.CheckAt(kAboveHard));
    EXPECT_TRUE(reset.CheckAt(kAboveHard));

    Harness exact;
    EXPECT_FALSE(exact.CheckAt(1'500'000)) << "exactly the hard limit is not over it";
    EXPECT_EQ(exact.watchdog.Strikes(), 0u);
}

TEST(MemoryWatchdogTest, ChecksAndTrimsAtMostEvery180Seconds)
{
    Harness h;
    h.percent = 20; // far above the hard limit
    for (int i = 0; i < 180; ++i)
    {
        h.now += 1s; // the main loop runs about once a second
        EXPECT_FALSE(h.watchdog.Check());
    }
    EXPECT_EQ(h.trims, 0);
    EXPECT_EQ(h.usageReads, 0);
    for (int i = 0; i < 3 * 181; ++i)
    {
        h.now += 1s;
        h.watchdog.Check();
    }
    EXPECT_EQ(h.trims, 3);
    EXPECT_EQ(h.usageReads, 3);
    EXPECT_EQ(h.watchdog.Strikes(), 3u);
    EXPECT_TRUE(h.watchdog.Check()) << "in between checks the answer stays";
}

namespace
{
struct FakeProc
{
    std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
    std::map<std::string, std::string> files{
        {"/p/meminfo", "MemTotal:       16000000 kB\nMemFree: 1 kB\n"},
        {"/p/self/smaps", "00400000-00452000 r-xp\nRss:                 800 kB\nPss: 1 kB\nRss:  800 kB\n"},
        {"/p/self/stat", "42 (corvid edr) S 1 2 3 4 5 6 7 8 9 10 100 50 0 0\n"}};
    std::map<std::string, int> reads;

    ResourceMonitor::Sources Sources()
    {
        ResourceMonitor::Sources s;
        s.clock = [this] { return now; };
        s.readFile = [this](const std::string& path) -> std::optional<std::string>
        {
            ++reads[path];
            const auto it = files.find(path);
            return it == files.end() ? std::nullopt : std::optional<std::string>(it->second);
        };
        s.procDir = "/p/self/";
        s.meminfo = "/p/meminfo";
        s.processors = 2;
        s.ticksPerSecond = 100;
        return s;
    }
};
} // namespace

TEST(ResourceMonitorTest, ThresholdsAndTotalMemory)
{
    FakeProc proc;
    EXPECT_NO_THROW(ResourceMonitor(100, 100, proc.Sources()));
    EXPECT_THAT([&] { ResourceMonitor(101, 10, proc.Sources()); },
                testing::ThrowsMessage<std::invalid_argument>(
                    testing::StrEq("CPU usage threshold percentage cannot be greater than 100%")));
    EXPECT_THAT([&] { ResourceMonitor(10, 101, proc.Sources()); },
                testing::ThrowsMessage<std::invalid_argument>(
                    testing::StrEq("Memory usage threshold percentage cannot be greater than 100%")));
    EXPECT_EQ(ResourceMonitor(1, 1, proc.Sources()).TotalMemoryKb(), 16'000'000u);
    proc.files["/p/meminfo"] = "MemTotal: lots\n";
    vantor::test::ExpectThrowText<std::runtime_error>([&] { ResourceMonitor(1, 1, proc.Sources()); },
                                                      "Failed to parse system memory: '");
    proc.files.erase("/p/meminfo");
    EXPECT_THROW(ResourceMonitor(1, 1, proc.Sources()), std::runtime_error);
}

TEST(ResourceMonitorTest, MemoryIsSampledAtMostOnceAMinute)
{
    FakeProc proc;
    ResourceMonitor monitor(10, 10, proc.Sources());
    EXPECT_FLOAT_EQ(monitor.MemoryUsage(), 1600.0f * 100 / 16'000'000);
    proc.files["/p/self/smaps"] = "Rss: 3200 kB\n";
    proc.now += 60s;
    EXPECT_FLOAT_EQ(monitor.MemoryUsage(), 1600.0f * 100 / 16'000'000) << "within the minute: the last value";
    EXPECT_EQ(proc.reads["/p/self/smaps"], 1);
    proc.now += 1s;
    EXPECT_FLOAT_EQ(monitor.MemoryUsage(), 3200.0f * 100 / 16'000'000);
    EXPECT_EQ(proc.reads["/p/self/smaps"], 2);
    proc.files["/p/self/smaps"] = "Rss: 0 kB\n";
    proc.now += 61s;
    EXPECT_FLOAT_EQ(monitor.MemoryUsage(), 3200.0f * 100 / 16'000'000) << "a zero reading is ignored";
}

TEST(ResourceMonitorTest, AverageOverTheLastTenSamples)
{
    FakeProc proc;
    proc.files["/p/meminfo"] = "MemTotal: 1000 kB\n";
    ResourceMonitor monitor(10, 10, proc.Sources());
    for (int i = 1; i <= 10; ++i)
    {
        proc.files["/p/self/smaps"] = "Rss: " + std::to_string(i * 10) + " kB\n";
        proc.now += 61s;
        monitor.AverageMemoryUsage();
    }
    proc.now += 61s;
    proc.files["/p/self/smaps"] = "Rss: 210 kB\n"; // replaces the sample of 10
    // (10+...+100 - 10 + 210) / 10 = 75 KB of 1000 KB.
    EXPECT_NEAR(monitor.AverageMemoryUsage(), 7.5f, 0.001f);
}

TEST(ResourceMonitorTest, CpuUsageFromTicksAndRateLimited)
{
    FakeProc proc;
    ResourceMonitor monitor(10, 10, proc.Sources());
    EXPECT_FLOAT_EQ(monitor.CpuUsage(), 0.0f); // first sample only sets the base
    proc.files["/p/self/stat"] = "42 (corvid edr) S 1 2 3 4 5 6 7 8 9 10 200 50 0 0\n";
    proc.now += 500ms;
    EXPECT_FLOAT_EQ(monitor.CpuUsage(), 0.0f) << "within a second: no new read";
    EXPECT_EQ(proc.reads["/p/self/stat"], 1);
    proc.now += 1500ms;
    // 100 ticks = 1000 ms of CPU in 2000 ms on 2 processors: 25 %.
    EXPECT_FLOAT_EQ(monitor.CpuUsage(), 25.0f);
    proc.files["/p/self/stat"] = "42 (x) S garbage\n";
    proc.now += 2s;
    EXPECT_THROW(monitor.CpuUsage(), std::runtime_error);
}
