#pragma once

#include "common/SpoolStorage.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::common::internal
{

// The records handed to a spool and not yet in its cache. Writers append to
// one pending batch; the writer that opens a batch asks the spool to drain
// it, so that a record costs a vector slot and no task of its own. A batch
// opened by WriteAsync is drained kAsyncDrainDelay later, so that a burst of
// records wakes the spool's thread once instead of once per record; a Write
// has its batch drained at once. While the
// pending records hold more than the limit, writers wait: a slow disk holds
// back the producers instead of growing memory without bound.
//
// WriteAsync, Write and FailAll may be called from any thread; TakeBatch and
// CompleteBatch only from the spool's task, one batch at a time.
class SpoolWriteQueue
{
public:
    using Result = SpoolStorage::WriteResult;
    using Callback = SpoolStorage::WriteCallback;
    // Queues a drain of the new batch on the spool's task, to run after delay
    // (zero: now); answers false once the spool takes no more tasks.
    using ScheduleDrain = std::function<bool(std::chrono::steady_clock::duration delay)>;
    // The bytes that may wait before writers are held back.
    using Limit = std::function<std::size_t()>;

    struct Waiter;

    static constexpr std::chrono::milliseconds kAsyncDrainDelay{10};

    struct Pending
    {
        std::string data;
        Callback callback;        // may be empty
        Waiter* waiter = nullptr; // set for Write
        bool own = false;         // SpoolStorage::Origin::Own
    };

    SpoolWriteQueue(ScheduleDrain scheduleDrain, Limit limit);
    ~SpoolWriteQueue();

    SpoolWriteQueue(const SpoolWriteQueue&) = delete;
    SpoolWriteQueue& operator=(const SpoolWriteQueue&) = delete;

    void WriteAsync(std::string data, Callback callback, bool own);
    // Waits until the record has been drained or failed. Must not be called
    // from a write callback, which runs on the drain task.
    Result Write(std::string data);

    // Takes the records queued so far and lets waiting writers go on.
    std::vector<Pending>& TakeBatch();
    // Completes every write of the taken batch with its result (in order),
    // then forgets the batch. Callbacks run here, outside the spool's lock,
    // as they may call back into the spool; one that throws is logged.
    void CompleteBatch(const std::vector<Result>& results);

    // Fails every queued write: the spool is shutting down.
    void FailAll();

private:
    void Enqueue(Pending write);
    static void Complete(Pending& write, const Result& result);

    const ScheduleDrain m_scheduleDrain;
    const Limit m_limit;

    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::size_t m_pendingBytes = 0;
    std::vector<Pending> m_pending;
    enum class Drain
    {
        None,
        Later, // kAsyncDrainDelay from when it was queued
        Now,
    };
    Drain m_drainQueued = Drain::None;
    std::vector<Pending> m_draining; // the drain task's batch
};

} // namespace vantor::common::internal
