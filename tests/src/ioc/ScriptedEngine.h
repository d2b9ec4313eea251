#pragma once

#include "edr/Event.h"
#include "ioc/Engine.h"

#include <functional>
#include <vector>

namespace vantor::ioc::test
{

// An engine that answers what the test scripts and records the ids of the
// events it was asked about.
class ScriptedEngine : public internal::Engine
{
public:
    Verdict verdict = Verdict::Unknown;
    // Runs before answering, e.g. to throw.
    std::function<void()> before;

    Verdict GetVerdict(const EventPtr& event) override
    {
        std::lock_guard lock(m_mutex);
        seen.push_back(event->GetEventId());
        if (before)
        {
            before();
        }
        return verdict;
    }

    std::vector<uint32_t> seen;
};

} // namespace vantor::ioc::test
