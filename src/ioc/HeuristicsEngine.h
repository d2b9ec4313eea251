#pragma once

#include "edr/LRUCache.h"
#include "ioc/Engine.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vantor::ioc
{
class TtlProcessTree;
}

namespace vantor::ioc::internal
{

// Drops behaviour seen often enough: an event whose behaviour key was seen
// maxCount times within 24 hours is "Clean" (the event processor drops it);
// every other event is "Unknown". Switched off, every event is "Unknown".
//
// The key names one behaviour of one process lineage:
//  - network events (accept, connect, bind): action name, ":", address,
//    ":", port, ";"; file events: the file's path and ";"; other events
//    (process running, clone, exit, abnormal end): action name and ":";
//  - then, for the process and each ancestor the process tree knows, its
//    executable path and its arguments, each ended by a NUL byte (no path
//    or argument holds one). Pids are left out on purpose: each run of a
//    command is a new pid, and the run is the behaviour that repeats. A
//    process the tree does not know adds only its executable path.
//
// Counts live in an LRU cache of kCacheCapacity (which evicts only at 32
// times that, see edr::LRUCache); a count's first sighting more than 24
// hours ago starts it again at 1. The verdict is kept on the process in the
// tree under kVerdictKey.
//
// Reconfigure and GetVerdict take the engine's mutex. Callable from any
// thread.
class HeuristicsEngine : public Engine
{
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    static constexpr const char* kVerdictKey = "Heuristics";
    static constexpr size_t kCacheCapacity = 10000;
    // Deliberately fixed: the policy does not set it.
    static constexpr uint64_t kMaxCount = 10;
    static constexpr std::chrono::hours kCountPeriod{24};

    struct Entry
    {
        uint64_t count = 1;
        // Steady-clock nanoseconds.
        int64_t firstSeen = 0;
    };

    // Throws std::invalid_argument "maxCount cannot be set to 0 on the
    // heuristics engine". The tree must outlive the engine.
    HeuristicsEngine(TtlProcessTree& tree, bool enabled, uint64_t maxCount = kMaxCount,
                     Clock clock = std::chrono::steady_clock::now);

    // Starts again with an empty cache. Throws as the constructor does, and
    // then keeps the previous settings and counts.
    void Reconfigure(bool enabled, uint64_t maxCount = kMaxCount);

    Verdict GetVerdict(const EventPtr& event) override;

    size_t GetCacheSize();

private:
    using Cache = edr::LRUCache<std::string, Entry>;

    static uint64_t CheckMaxCount(uint64_t maxCount);
    void BuildKey(const edr::Event& event);
    Verdict Count();

    TtlProcessTree& m_tree;
    const Clock m_clock;
    bool m_enabled;
    uint64_t m_maxCount;
    std::unique_ptr<Cache> m_cache;
    // Reused for every key, so that a lookup allocates nothing once it has
    // grown.
    std::string m_key;
};

} // namespace vantor::ioc::internal
