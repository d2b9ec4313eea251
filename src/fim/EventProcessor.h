#pragma once

#include "edr/Event.h"
#include "fim/BaselineWalk.h"
#include "fim/DocumentBuilder.h"
#include "fim/DocumentThread.h"
#include "fim/EventRuleManager.h"
#include "fim/FileStateStore.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vantor::common
{
class SpoolStorage;
class SqlStorage;
} // namespace vantor::common

namespace vantor::fim::internal
{

// The FIM rule-matched handler: re-checks the event against every FIM rule
// whose path covers it (PostProcessor), and hands an event that still
// matches, with the state of its object as seen now, to the document thread,
// which builds its JSON event document (DocumentBuilder, EventDocument) once
// the object has settled and queues it to the spool. Events of the baseline
// kind start the baseline pass (BaselineWalk) over their path instead.
//
// A rename is reported under its source path when a rule watches the
// source, otherwise under its destination; its content is read at the
// destination.
//
// HandleEvent is called on the event processing thread; the other
// operations may be called from any thread.
class EventProcessor
{
public:
    // Event category of the baseline pseudo event.
    static constexpr uint32_t kBaselineCategory = 15;

    struct Settings
    {
        // How long after the last event on a path its content is read.
        std::chrono::milliseconds settleTime{1000};
        uint64_t baselineFilesPerSecond = DocumentThread::kDefaultBaselineRate;
        size_t maxPending = DocumentThread::kDefaultMaxPending;
        // The daemon's own directories, left out of the baseline pass.
        std::vector<std::string> ownDirectories;
    };

    // The manager and the spool must outlive the processor; baseline may be
    // null (no baseline store). The document thread runs from here on.
    EventProcessor(const EventRuleManager& ruleManager, common::SpoolStorage& spool,
                   common::SqlStorage* baseline, Settings settings);
    // With the default settings.
    EventProcessor(const EventRuleManager& ruleManager, common::SpoolStorage& spool,
                   common::SqlStorage* baseline);
    ~EventProcessor();

    EventProcessor(const EventProcessor&) = delete;
    EventProcessor& operator=(const EventProcessor&) = delete;

    // Failures are logged, never thrown.
    void HandleEvent(edr::Event& event);

    // Queues the baseline pass over the paths.
    void StartBaseline(std::vector<std::string> roots);
    // Drops the baseline work not done yet.
    void StopBaseline();

    // Builds every waiting document now; returns once they are queued to
    // the spool.
    void Flush();

    // Builds what waits and stops the document thread; documents of later
    // events are built on the caller's thread.
    void Stop();

    void UpdateSettings(std::chrono::milliseconds settleTime, uint64_t baselineFilesPerSecond);

    // Adds that found every pending place taken (their documents were built
    // early).
    uint64_t GetOverflowCount() const { return m_thread.GetOverflowCount(); }
    // Documents that wait for their file to settle.
    size_t GetPendingCount() const { return m_thread.GetPendingCount(); }
    // Objects whose content could not be read for a document.
    uint64_t GetUnreadableCount() const { return m_builder.GetUnreadableCount(); }
    // Events and documents lost on the way to the spool: handling that
    // failed, documents that could not be built or written.
    uint64_t GetFailedCount() const;
    bool HasBaselineWork() const { return m_baselineWalk.HasWork(); }

private:
    void Spool(std::string document);

    const EventRuleManager& m_ruleManager;
    common::SpoolStorage& m_spool;
    std::atomic<uint64_t> m_failedEvents{0};
    // Shared with the spool's write callbacks, which may run after the
    // processor has gone (the spool's last flush).
    const std::shared_ptr<std::atomic<uint64_t>> m_failedWrites = std::make_shared<std::atomic<uint64_t>>(0);
    FileStateStore m_store;
    DocumentBuilder m_builder;
    BaselineWalk m_baselineWalk;
    // Last: stopped (and drained) before the parts it uses go.
    DocumentThread m_thread;
};

} // namespace vantor::fim::internal
