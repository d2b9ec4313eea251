#pragma once

#include "audit/AuditEventProcessor.h"
#include "audit/CaptureCounters.h"
#include "common/AsyncTask.h"
#include "edr/Event.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace vantor::audit
{

// Takes finished events from the parser thread and hands them, ordered, to
// the audit rule engine's event processor on a thread of its own.
//
// Two vectors are swapped under the lock (double buffering): the producer
// appends to the buffer queue, the worker takes the whole buffer as its
// active batch, sorts it by timestamp, then serial, and processes it without
// the lock. The buffer is bounded by a count of events; a producer that finds
// it full blocks until the worker has drained it, so nothing is dropped here
// and back-pressure reaches the parser's own byte-bounded queue. The worker
// pauses while the process's CPU use is above the threshold. Stop() returns
// after the event in hand; the rest of the batch is dropped, and counted, as
// are events whose processing failed and the CPU pauses.
//
// Wakes are kept to what is needed: the worker is notified when the buffer
// goes from empty to non-empty (it waits for nothing else), a blocked
// producer when the worker has finished the batch it was waiting behind.
//
// Events are destroyed on the thread that made them, so that their memory
// goes back to the producer's malloc arena without contention on its lock:
// the worker hands a processed batch back (with the cached clones the
// process tree let go meanwhile) under the lock it takes anyway, and the
// producer's next Enqueue() takes these spent events and destroys them
// outside the lock. At most two batches wait so. When no producer comes
// back within kSpentWait the worker destroys them itself (one wake after
// activity ends); Stop() destroys what is left.
class EventProcessingThread : private common::AsyncTask
{
public:
    using Events = std::vector<std::unique_ptr<edr::Event>>;
    // Current CPU use of the process, percent.
    using CpuUsage = std::function<float()>;

    static constexpr size_t kMinQueueSize = 10000;
    static constexpr size_t kMaxQueueSize = 100000;
    // Serials closer than this across the 32-bit wrap are ordered as wrapped.
    static constexpr uint32_t kSerialWrapWindow = 200000;
    // How long processed events wait for the producer to destroy them.
    static constexpr std::chrono::milliseconds kSpentWait{200};

    // cpuUsage may be empty: no throttling.
    EventProcessingThread(AuditEventProcessor& processor, uint64_t cpuThreshold, CpuUsage cpuUsage);
    ~EventProcessingThread() override;

    void Start();
    void Stop();

    // Appends the events in their order; blocks while the buffer is full.
    // Destroys the events processed since the last call (see above).
    void Enqueue(Events&& events);

    // memoryBudget: the configured share of the limiter's memory figure
    // (percent × memory / 100). The capacity is 30% of it, in events, kept
    // between 10,000 and 100,000.
    void SetQueueSize(uint64_t memoryBudget);
    size_t GetQueueSize() const;

    // Adds this thread's counts (failed and dropped events, CPU pauses) to
    // counters; callable from any thread.
    void AddCounters(CaptureCounters& counters) const;

    // Sorts a batch in processing order: timestamp, then serial, a serial
    // just past the 32-bit wrap after one just before it. Pseudo events
    // (serial 0) keep their place next to the event that preceded them.
    static void SortBatch(Events& events);

private:
    void DoWork() override;
    void OnCancel() override;
    void Run();
    void PauseWhileBusy();
    // Hands the processed batch back for the producer to destroy.
    void HandBack();

    AuditEventProcessor& m_processor;
    const uint64_t m_cpuThreshold;
    const CpuUsage m_cpuUsage;

    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    Events m_bufferQueue;
    size_t m_capacity = kMaxQueueSize;
    bool m_stop = false;
    // Producers waiting for the buffer to drain; set under the lock, read
    // by the worker after a batch to skip needless notifications.
    std::atomic<uint32_t> m_blockedProducers{0};
    // Processed events waiting for the producer to destroy them.
    Events m_spent;
    // Touched by the worker only: the batch in hand and what it has
    // processed of it.
    Events m_activeQueue;
    Events m_processed;

    std::atomic<uint64_t> m_failedEvents{0};
    std::atomic<uint64_t> m_droppedAtStop{0};
    std::atomic<uint64_t> m_cpuPauses{0};
    std::atomic<uint64_t> m_pausedMs{0};
};

} // namespace vantor::audit
