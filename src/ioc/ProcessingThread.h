#pragma once

#include "common/SynchronizedQueue.h"
#include "common/ThreadedClass.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace vantor::edr
{
class Event;
}

namespace vantor::ioc::internal
{

class EventProcessor;

// The IOC side's own thread ("EdrProcessingThread"): takes every queued
// event at once and runs each, in queue order, through the event processor,
// so that the capture thread that enqueues never waits for verdicts, hashes
// or serialization.
//
// Queue limits: at most `capacity` events wait. An event that finds the
// queue full holds the enqueuing (capture) thread back until the worker has
// taken the queue, for at most `fullWait`: a burst is paced back to the
// parser's queue, whose own bound counts what it drops, instead of being
// dropped here. Should the worker not take the queue in that time (an engine
// or the disk stuck), the event is dropped and counted (DroppedCount), the
// first drop logs an error, and until the queue has drained below
// `resumeBelow` every event that finds it full is dropped at once, so that
// capture is stalled once per episode, not once per event. The episode ends
// with a log line giving how many were dropped.
//
// While events keep coming, a pass waits for a batch of them (or a few
// milliseconds) before it starts, instead of waking for each event that
// finds the thread caught up.
//
// After each pass (and at least once a second while idle) `afterPass` is
// called with false, so that a batch can be closed by size or age; at Stop
// the thread first processes what is still queued (those events are owed)
// and then calls `afterPass` with true. Restartable: Start after Stop goes
// on with the same queue.
//
// Enqueue, DroppedCount and QueuedCount may be called from any thread.
class ProcessingThread : public common::ThreadedClass
{
public:
    using EventPtr = std::shared_ptr<const edr::Event>;
    using AfterPass = std::function<void(bool stopping)>;

    static constexpr const char* kThreadName = "EdrProcessingThread";
    // A burst of this many events waits for the engines (about 2 KiB each);
    // beyond it the capture side must not grow memory without bound.
    static constexpr size_t kDefaultCapacity = 20000;
    static constexpr size_t kDefaultResumeBelow = 10000;
    // A pass over a full queue takes a fraction of this on a busy host.
    static constexpr std::chrono::milliseconds kDefaultFullWait{1000};

    ProcessingThread(EventProcessor& processor, AfterPass afterPass, size_t capacity = kDefaultCapacity,
                     size_t resumeBelow = kDefaultResumeBelow,
                     std::chrono::milliseconds fullWait = kDefaultFullWait);
    ~ProcessingThread() override;

    // False when the queue stayed full and the event was dropped.
    bool Enqueue(EventPtr event);
    uint64_t DroppedCount() const { return m_dropped.load(std::memory_order_relaxed); }
    size_t QueuedCount() const { return m_queue.Size(); }

protected:
    void Run() override;
    void OnStop() override;

private:
    void ProcessQueued();

    EventProcessor& m_processor;
    const AfterPass m_afterPass;
    const size_t m_capacity;
    const size_t m_resumeBelow;
    const std::chrono::milliseconds m_fullWait;
    common::SynchronizedQueue<const edr::Event> m_queue;
    std::atomic<uint64_t> m_dropped{0};
    // Set by the enqueuer at the first drop, cleared by the worker.
    std::atomic<bool> m_dropping{false};
    uint64_t m_droppedAtEpisodeStart = 0;
};

} // namespace vantor::ioc::internal
