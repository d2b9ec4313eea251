#pragma once

#include "edr/Event.h"
#include "fim/BaselineWalk.h"
#include "fim/EventRuleManager.h"

#include <cstdint>
#include <string>

namespace vantor::common
{
class SpoolStorage;
class SqlStorage;
} // namespace vantor::common

namespace vantor::fim::internal
{

// The FIM rule-matched handler: re-checks the event against every FIM rule
// whose path covers it (PostProcessor), turns an event that still matches
// into one JSON event document (EventDocument) and queues it to the spool.
// Events of the baseline kind run the baseline pass (BaselineWalk) instead.
//
// Called on the event processing thread (and for a baseline on the caller's
// thread); it keeps nothing between calls.
class EventProcessor
{
public:
    // Event category of the baseline pseudo event.
    static constexpr uint32_t kBaselineCategory = 15;

    // The manager and the spool must outlive the processor; baseline may be
    // null (no baseline store).
    EventProcessor(const EventRuleManager& ruleManager, common::SpoolStorage& spool,
                   common::SqlStorage* baseline);
    ~EventProcessor();

    EventProcessor(const EventProcessor&) = delete;
    EventProcessor& operator=(const EventProcessor&) = delete;

    // Failures are logged, never thrown.
    void HandleEvent(edr::Event& event);

private:
    void Spool(std::string document);

    const EventRuleManager& m_ruleManager;
    common::SpoolStorage& m_spool;
    BaselineWalk m_baselineWalk;
};

} // namespace vantor::fim::internal
