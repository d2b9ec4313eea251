#include "edr/EventRuleEngine.h"

#include "common/Logging.h"

#include <exception>
#include <stdexcept>

namespace vantor::edr
{

namespace
{

// Marks the calling thread as the one running handlers for as long as it
// lives.
class DispatchScope
{
public:
    explicit DispatchScope(std::atomic<std::thread::id>& owner)
        : m_owner(owner)
    {
        m_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }

    ~DispatchScope() { m_owner.store(std::thread::id(), std::memory_order_relaxed); }

    DispatchScope(const DispatchScope&) = delete;
    DispatchScope& operator=(const DispatchScope&) = delete;

private:
    std::atomic<std::thread::id>& m_owner;
};

// Answers whether the call returned normally.
template <typename Call>
bool CallGuarded(Call&& call)
{
    try
    {
        call();
        return true;
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Exception: " << e.what());
    }
    catch (...)
    {
        EDR_LOG_ERROR("Exception: unknown");
    }
    return false;
}

} // namespace

EventRuleEngine::EventRuleEngine() = default;

EventRuleEngine::~EventRuleEngine() = default;

void EventRuleEngine::RegisterEventHandlers(const std::string& tag,
                                            RuleMatchedEventHandler ruleMatchedEventHandler,
                                            InvalidatedEventHandler invalidatedEventHandler)
{
    if (tag.empty())
    {
        throw std::runtime_error("EventRuleEngine::RegisterEventHandlers: 'tag' is empty");
    }
    if (!ruleMatchedEventHandler)
    {
        throw std::runtime_error(
            "EventRuleEngine::RegisterEventHandlers: 'ruleMatchedEventHandler' is invalid");
    }
    if (!invalidatedEventHandler)
    {
        throw std::runtime_error(
            "EventRuleEngine::RegisterEventHandlers: 'invalidatedEventHandler' is invalid");
    }
    ThrowIfCalledFromHandler("EventRuleEngine::RegisterEventHandlers");

    std::lock_guard lock(m_mutex);
    auto [it, added] = m_handlers.try_emplace(tag);
    if (added)
    {
        EDR_LOG_INFO("EventRuleEngine::RegisterEventHandlers: Adding event handlers for '" << tag << "'");
    }
    else
    {
        EDR_LOG_INFO("EventRuleEngine::RegisterEventHandlers: Replacing event handlers for '" << tag << "'");
    }
    it->second.ruleMatched = std::move(ruleMatchedEventHandler);
    it->second.invalidated = std::move(invalidatedEventHandler);
}

void EventRuleEngine::UnregisterEventHandlers(const std::string& tag)
{
    if (tag.empty())
    {
        throw std::runtime_error("EventRuleEngine::UnregisterEventHandlers: 'tag' is empty");
    }
    ThrowIfCalledFromHandler("EventRuleEngine::UnregisterEventHandlers");

    std::lock_guard lock(m_mutex);
    const auto it = m_handlers.find(tag);
    if (it == m_handlers.end())
    {
        EDR_LOG_INFO("EventRuleEngine::UnregisterEventHandlers: No event handlers found for '" << tag << "'");
        return;
    }
    EDR_LOG_INFO("EventRuleEngine::UnregisterEventHandlers: Removing event handlers for '" << tag << "'");
    m_handlers.erase(it);
}

bool EventRuleEngine::HasEventHandlers(const std::string& tag) const
{
    std::lock_guard lock(m_mutex);
    return m_handlers.find(tag) != m_handlers.end();
}

void EventRuleEngine::DispatchEvent(const Tags& tags, Event& event)
{
    std::lock_guard lock(m_mutex);
    DispatchScope scope(m_dispatchingThread);
    for (const auto& tag : tags)
    {
        const auto it = m_handlers.find(tag);
        if (it != m_handlers.end())
        {
            if (!CallGuarded([&] { it->second.ruleMatched(event); }))
            {
                m_handlerFailures.fetch_add(1, std::memory_order_relaxed);
            }
        }
    }
}

void EventRuleEngine::InvalidateEventHandlers()
{
    std::lock_guard lock(m_mutex);
    DispatchScope scope(m_dispatchingThread);
    for (auto& entry : m_handlers)
    {
        CallGuarded([&entry] { entry.second.invalidated(); });
    }
}

void EventRuleEngine::ThrowIfCalledFromHandler(const char* operation) const
{
    if (m_dispatchingThread.load(std::memory_order_relaxed) == std::this_thread::get_id())
    {
        throw std::logic_error(std::string(operation) + ": called from an event handler");
    }
}

} // namespace vantor::edr
