#pragma once

#include "ioc/Verdict.h"

#include <memory>
#include <mutex>

namespace vantor::edr
{
class Event;
}

namespace vantor::ioc::internal
{

// One link of the verdict chain the event processor asks for every event.
//
// Thread-safety: the processing thread asks for verdicts while the
// configuration update thread re-configures; each engine takes its own
// m_mutex in both paths, so that a verdict never sees half of a new
// configuration. Engines never call each other while holding it.
class Engine
{
public:
    using EventPtr = std::shared_ptr<const edr::Event>;

    Engine() = default;
    virtual ~Engine() = default;
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    virtual Verdict GetVerdict(const EventPtr& event) = 0;

protected:
    std::mutex m_mutex;
};

} // namespace vantor::ioc::internal
