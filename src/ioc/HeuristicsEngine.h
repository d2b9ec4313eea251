#pragma once

#include "edr/LRUCache.h"
#include "ioc/Engine.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

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
// processes' hashes, see TtlProcessTree::CommandHashes), and the digest is
// two std::hash values of that sequence of hashes. Mistaking a new
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
    // The digest of one behaviour.
    struct Key
    {
        uint64_t a = 0;
        uint64_t b = 0;

        bool operator==(const Key&) const = default;
    };
    struct KeyHash
    {
        size_t operator()(const Key& key) const { return static_cast<size_t>(key.a); }
    };
    // The parts of one behaviour in order, each a 64-bit value (a text by
    // its std::hash). The digest is std::hash of the parts' bytes, twice:
    // once as they are and once with one more word, so that the halves are
    // two hashes of different inputs.
    class KeyParts
    {
    public:
        void clear() { m_words.clear(); }
        void Add(uint64_t value) { m_words.push_back(value); }
        void Add(std::string_view text) { Add(static_cast<uint64_t>(std::hash<std::string_view>()(text))); }
        Key Digest()
        {
            const std::hash<std::string_view> hash;
            Key key;
            key.a = hash(Bytes());
            m_words.push_back(kSecondHalf);
            key.b = hash(Bytes());
            return key;
        }

    private:
        static constexpr uint64_t kSecondHalf = 0x9e3779b97f4a7c15ULL;
        std::string_view Bytes() const
        {
            return {reinterpret_cast<const char*>(m_words.data()), m_words.size() * sizeof(uint64_t)};
        }
        // Reused for every key: a lookup allocates nothing once it has grown.
        std::vector<uint64_t> m_words;
    };
    using Cache = edr::LRUCache<Key, Entry, KeyHash>;

    static uint64_t CheckMaxCount(uint64_t maxCount);
    Key BuildKey(const edr::Event& event);
    Verdict Count(const Key& key);

    TtlProcessTree& m_tree;
    const Clock m_clock;
    bool m_enabled;
    uint64_t m_maxCount;
    std::unique_ptr<Cache> m_cache;
    KeyParts m_parts;
};

} // namespace vantor::ioc::internal
