#pragma once

#include "common/ThreadedClass.h"
#include "fim/BaselineWalk.h"
#include "fim/DocumentBuilder.h"
#include "fim/PendingDocuments.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

namespace vantor::fim::internal
{

// The thread that builds FIM documents off the event thread: it holds the
// documents of each object path until the path has settled
// (PendingDocuments), builds them (DocumentBuilder), and between them runs
// the baseline pass at a bounded rate (BaselineWalk).
//
// At most maxPending documents wait. An Add that finds them all taken is
// counted as an overflow, makes the thread build the first groups at once,
// before their time, until a quarter of the room is free, and waits for
// room: nothing is dropped. Stop builds every
// waiting document before the thread ends (the rest of a baseline pass is
// dropped and logged); afterwards Add builds on the caller's thread.
//
// Due documents are built in rounds, the next at most kMaxRoundGap after the
// last, so that a stream of them wakes the thread a few times a second; a
// flush and a stop build in rounds too. The store statements of a round run
// in one transaction (DocumentBuilder::InOneTransaction).
//
// Add, Flush, the setters and the counters may be called from any thread.
class DocumentThread : public common::ThreadedClass
{
public:
    using Clock = PendingDocuments::Clock;

    static constexpr size_t kDefaultMaxPending = 10000;

    // The builder and the walk must outlive the thread.
    DocumentThread(DocumentBuilder& builder, BaselineWalk& baseline, size_t maxPending = kDefaultMaxPending);
    ~DocumentThread() override;

    // Queues one document; settles: whether it waits for its path to settle.
    void Add(PendingDocument document, bool settles);

    // Builds every waiting document now and returns once they are built.
    void Flush();

    // Wakes the thread for queued baseline work.
    void WakeBaseline();

    void SetSettleTime(std::chrono::milliseconds settleTime);
    // Files of the baseline pass per second; 0 takes the default.
    void SetBaselineRate(uint64_t filesPerSecond);

    static constexpr uint64_t kDefaultBaselineRate = 200;
    // The longest that a due document waits for the next round of building
    // (a twentieth of the settle time, at most this).
    static constexpr std::chrono::milliseconds kMaxRoundGap{50};
    // The most groups that one round of a flush builds.
    static constexpr size_t kMaxFlushRound = 256;

    uint64_t GetOverflowCount() const { return m_overflows.load(); }
    // Groups of documents and baseline steps that failed (logged).
    uint64_t GetFailedCount() const { return m_failed.load(std::memory_order_relaxed); }
    size_t GetPendingCount() const;

protected:
    void Run() override;
    void OnStop() override;

private:
    void Build(PendingDocuments::Group& group);
    // Builds the groups of m_round with the lock released; m_building tells
    // Flush meanwhile.
    void BuildUnlocked(std::unique_lock<std::mutex>& lock);
    void Wake();

    DocumentBuilder& m_builder;
    BaselineWalk& m_baseline;
    const size_t m_maxPending;

    mutable std::mutex m_mutex;
    // Wakes the thread: new documents, baseline work, flush or stop.
    std::condition_variable m_wake;
    // Wakes waiters: room, or everything built.
    std::condition_variable m_done;
    PendingDocuments m_pending;
    // Until when the thread sleeps; min() while it is awake. An Add wakes it
    // only for a document due before then: most are due later, and waking
    // the thread for each of them costs two context switches.
    Clock::time_point m_sleepsUntil = Clock::time_point::min();
    // Before this, due documents wait for the next round of building.
    Clock::time_point m_nextRound = Clock::time_point::min();
    bool m_building = false;
    // The groups taken to be built now; touched by the thread only.
    std::vector<PendingDocuments::Group> m_round;
    unsigned m_flushes = 0;
    // Adds that found no room since the thread last made some.
    uint64_t m_earlyBuilds = 0;
    Clock::duration m_settleTime = std::chrono::milliseconds(1000);
    Clock::duration m_baselineInterval;
    std::atomic<uint64_t> m_overflows{0};
    std::atomic<uint64_t> m_failed{0};
};

} // namespace vantor::fim::internal
