#include "ioc/HeuristicsEngine.h"

#include "common/Logging.h"
#include "ioc/EventFields.h"
#include "ioc/TtlProcessTree.h"

#include <stdexcept>

namespace vantor::ioc::internal
{

HeuristicsEngine::HeuristicsEngine(TtlProcessTree& tree, bool enabled, uint64_t maxCount, Clock clock)
    : m_tree(tree)
    , m_clock(std::move(clock))
    , m_enabled(enabled)
    , m_maxCount(CheckMaxCount(maxCount))
    , m_cache(std::make_unique<Cache>(kCacheCapacity))
{
}

uint64_t HeuristicsEngine::CheckMaxCount(uint64_t maxCount)
{
    if (maxCount == 0)
    {
        throw std::invalid_argument("maxCount cannot be set to 0 on the heuristics engine");
    }
    return maxCount;
}

void HeuristicsEngine::Reconfigure(bool enabled, uint64_t maxCount)
{
    CheckMaxCount(maxCount);
    auto cache = std::make_unique<Cache>(kCacheCapacity);
    std::lock_guard lock(m_mutex);
    m_enabled = enabled;
    m_maxCount = maxCount;
    m_cache = std::move(cache);
}

size_t HeuristicsEngine::GetCacheSize()
{
    std::lock_guard lock(m_mutex);
    return m_cache->Size();
}

Verdict HeuristicsEngine::GetVerdict(const EventPtr& event)
{
    std::lock_guard lock(m_mutex);
    if (!m_enabled)
    {
        return Verdict::Unknown;
    }
    const Verdict verdict = Count(BuildKey(*event));
    EDR_LOG_TRACE("Adding heuristics verdict '" << ToString(verdict) << "'");
    m_tree.SetVerdict(event->GetActorProcessId(), kVerdictKey, static_cast<int>(verdict));
    return verdict;
}

namespace
{

// The kinds of event part, so that parts of different kinds never match.
enum class Part : uint64_t
{
    Network = 1,
    File,
    Action
};

// Ends the key of a process the tree does not know; a known lineage ends
// with its length, which is never this.
constexpr uint64_t kUnknownProcess = ~uint64_t{0};

} // namespace

HeuristicsEngine::Key HeuristicsEngine::BuildKey(const edr::Event& event)
{
    KeyParts& key = m_parts;
    key.clear();
    const edr::EventType type = event.GetType();
    if (EventFields::IsNetworkEvent(type))
    {
        key.Add(static_cast<uint64_t>(Part::Network));
        key.Add(event.GetActionName());
        key.Add(EventFields::NetworkAddress(event).value_or(""));
        key.Add(uint64_t{EventFields::NetworkPort(event).value_or(0)});
    }
    else if (EventFields::IsFileEvent(type))
    {
        key.Add(static_cast<uint64_t>(Part::File));
        key.Add(EventFields::File(event).value_or(""));
    }
    else
    {
        key.Add(static_cast<uint64_t>(Part::Action));
        key.Add(event.GetActionName());
    }
    uint64_t depth = 0;
    const auto add = [&](const TtlProcessTree::CommandHashes& command)
    {
        key.Add(command.image);
        key.Add(command.arguments);
        ++depth;
    };
    const pid_t pid = event.GetActorProcessId();
    if (pid > 0 && m_tree.VisitLineageCommands(pid, add))
    {
        key.Add(depth);
    }
    else
    {
        key.Add(EventFields::Image(event).value_or(""));
        key.Add(kUnknownProcess);
    }
    return key.Digest();
}

Verdict HeuristicsEngine::Count(const Key& key)
{
    const int64_t now =
        std::chrono::duration_cast<std::chrono::nanoseconds>(m_clock().time_since_epoch()).count();
    Entry* entry = m_cache->Find(key);
    if (entry == nullptr)
    {
        m_cache->PutAbsent(Key(key), Entry{1, now});
        return Verdict::Unknown;
    }
    if (now - entry->firstSeen > std::chrono::nanoseconds(kCountPeriod).count())
    {
        *entry = Entry{1, now};
        return Verdict::Unknown;
    }
    if (entry->count >= m_maxCount)
    {
        return Verdict::Clean;
    }
    ++entry->count;
    return Verdict::Unknown;
}

} // namespace vantor::ioc::internal
