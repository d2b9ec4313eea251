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
    BuildKey(*event);
    const Verdict verdict = Count();
    EDR_LOG_TRACE("Adding heuristics verdict '" << ToString(verdict) << "'");
    m_tree.SetVerdict(event->GetActorProcessId(), kVerdictKey, static_cast<int>(verdict));
    return verdict;
}

void HeuristicsEngine::BuildKey(const edr::Event& event)
{
    m_key.clear();
    const edr::EventType type = event.GetType();
    if (EventFields::IsNetworkEvent(type))
    {
        m_key.append(event.GetActionName()).append(":");
        m_key.append(EventFields::NetworkAddress(event).value_or("")).append(":");
        m_key.append(std::to_string(EventFields::NetworkPort(event).value_or(0))).append(";");
    }
    else if (EventFields::IsFileEvent(type))
    {
        m_key.append(EventFields::File(event).value_or("")).append(";");
    }
    else
    {
        m_key.append(event.GetActionName()).append(":");
    }
    const auto append = [this](const ProcessInfo& process)
    {
        m_key.append(process.image.path).push_back('\0');
        m_key.append(process.arguments).push_back('\0');
        return true;
    };
    const pid_t pid = event.GetActorProcessId();
    if (pid <= 0 || !m_tree.VisitLineage(pid, append))
    {
        m_key.append(EventFields::Image(event).value_or("")).push_back('\0');
    }
}

Verdict HeuristicsEngine::Count()
{
    const int64_t now =
        std::chrono::duration_cast<std::chrono::nanoseconds>(m_clock().time_since_epoch()).count();
    Entry* entry = m_cache->Find(m_key);
    if (entry == nullptr)
    {
        m_cache->PutAbsent(std::move(m_key), Entry{1, now});
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
