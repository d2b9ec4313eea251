#pragma once

#include "audit/AuparseFeed.h"
#include "audit/CaptureCounters.h"
#include "audit/EventBuilder.h"
#include "common/WorkerThread.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

namespace vantor::audit
{

// Carries raw audit text from the receiving channel to libauparse on a thread
// of its own. The queue between them is bounded by bytes: when it reaches its
// maximum, queueing is switched off and incoming text is dropped until the
// queue has drained below the resume threshold (half the maximum). After each
// buffer the thread pauses, a second at a time, while the process's CPU usage
// is above the configured threshold. After a second without text it ages the
// events still held back (AuparseFeed::Age), so that a quiet stream
// delivers what it carried.
//
// Events are handed on in batches: while more text is already queued, the
// events of a buffer wait for those of the next ones (up to a batch limit),
// so that the consumer is woken once per batch rather than once per buffer.
// Whatever is held is handed on as soon as the queue runs dry, before a CPU
// pause and at stop, so an idle stream adds no delay.
//
// What it drops (text refused by the queue or discarded at stop, what the
// feed leaves out) and its CPU pauses are counted, readable from any thread.
class ParserThread
{
public:
    using Events = EventBuilder::Events;
    // Receives the events completed by one buffer, in the order they completed.
    using EventSink = std::function<void(Events)>;
    // Answers the process's CPU usage in percent.
    using CpuUsageSource = std::function<double()>;

    static constexpr uint64_t kDefaultMaxQueueBytes = 1024ull * 1024 * 1024;
    // Events gathered at most before they are handed on while text is queued.
    static constexpr size_t kHandOverEvents = 512;

    // The builder must outlive the thread. A threshold of 100 or more never
    // pauses.
    ParserThread(EventBuilder& builder, EventSink sink, CpuUsageSource cpuUsage, uint64_t cpuThreshold);
    ~ParserThread();

    ParserThread(const ParserThread&) = delete;
    ParserThread& operator=(const ParserThread&) = delete;

    void Start();
    // Stops the thread at once (also out of a CPU pause), hands on the events
    // the feed still holds and discards text not yet parsed.
    void Stop();

    // Called by the receiving channel's thread. The queue counts the bytes
    // of text queued; a buffer holding much more memory than text is
    // trimmed first, so that the count stays the memory it takes.
    void Enqueue(std::vector<uint8_t> buffer);

    // Sizes the queue from a memory budget in KB (the configured memory
    // percentage multiplied by the total memory in KB): half of it, between
    // 100 MiB and 1 GiB.
    void SetQueueSize(uint64_t memoryBudgetKb);
    void SetCpuThreshold(uint64_t percent) { m_cpuThreshold = percent; }

    uint64_t QueuedBytes() const { return m_queuedBytes.load(std::memory_order_relaxed); }
    uint64_t MaxQueueBytes() const;
    uint64_t ResumeThresholdBytes() const;
    bool IsQueueingDisabled() const;
    bool IsRunning() const;

    // Adds this thread's counts (queue, intake, CPU pauses) to counters.
    void AddCounters(CaptureCounters& counters) const;

private:
    void Run();
    void ProcessLoop(class AuparseFeed& feed);
    void PauseWhileCpuIsHigh();
    void Deliver(Events events);
    void Hold(Events events);
    void DeliverHeld();

    EventBuilder& m_builder;
    EventSink m_sink;
    // Events not yet handed on; touched by the parser thread only.
    Events m_held;
    CpuUsageSource m_cpuUsage;
    std::atomic<uint64_t> m_cpuThreshold;

    std::deque<std::vector<uint8_t>> m_queue;
    std::atomic<uint64_t> m_queuedBytes{0};
    uint64_t m_maxQueueBytes = kDefaultMaxQueueBytes;
    uint64_t m_resumeThresholdBytes = kDefaultMaxQueueBytes / 2;
    bool m_queueingDisabled = false;
    bool m_stop = false;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;

    std::atomic<uint64_t> m_droppedBuffers{0};
    std::atomic<uint64_t> m_droppedBytes{0};
    std::atomic<uint64_t> m_discardedBytes{0};
    std::atomic<uint64_t> m_feedErrors{0};
    std::atomic<uint64_t> m_cpuPauses{0};
    std::atomic<uint64_t> m_pausedMs{0};
    AuparseFeed::Tally m_feedTally;

    std::mutex m_startStopMutex;
    common::WorkerThread m_thread{"ParserThread"};
};

} // namespace vantor::audit
