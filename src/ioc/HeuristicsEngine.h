#pragma once

#include "edr/LRUCache.h"
#include "ioc/Engine.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

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
// Two events are the same behaviour when
//  - their event parts are equal: for network events (accept, connect,
//    bind) action name, address and port; for file events the file's path;
//    for other events (process running, clone, exit, abnormal end) the
//    action name;
//  - and so are, for the process and each ancestor the process tree knows,
//    its executable path and its arguments. Pids are left out on purpose:
//    each run of a command is a new pid, and the run is the behaviour that
//    repeats. A process the tree does not know has only its executable path.
//
// The key is a 128-bit digest of those texts, not the texts: a build
// lineage carries kilobytes of command lines, which must not be copied and
// hashed per event. Each text enters as its std::hash (the tree keeps its
// processes' hashes, see TtlProcessTree::CommandHashes), and the sequence is
// folded into two 64-bit values by two different bijective mixes, so the
// digest is as distinct as the texts' 64-bit hashes are. Mistaking a new
// behaviour for a counted one takes a 64-bit hash collision with one of the
// cache's at most 320,000 keys: a chance of about 2e-14 per new behaviour.
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
    // The digest of one behaviour, built by Add()ing its parts in order.
    struct Key
    {
        uint64_t a = 0x243f6a8885a308d3ULL;
        uint64_t b = 0x13198a2e03707344ULL;

        void Add(uint64_t value);
        void Add(std::string_view text) { Add(static_cast<uint64_t>(std::hash<std::string_view>()(text))); }
        bool operator==(const Key&) const = default;
    };
    struct KeyHash
    {
        // a is already mixed.
        size_t operator()(const Key& key) const { return static_cast<size_t>(key.a); }
    };
    using Cache = edr::LRUCache<Key, Entry, KeyHash>;

    static uint64_t CheckMaxCount(uint64_t maxCount);
    Key BuildKey(const edr::Event& event) const;
    Verdict Count(const Key& key);

    TtlProcessTree& m_tree;
    const Clock m_clock;
    bool m_enabled;
    uint64_t m_maxCount;
    std::unique_ptr<Cache> m_cache;
};

} // namespace vantor::ioc::internal
