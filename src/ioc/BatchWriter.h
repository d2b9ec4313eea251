#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace vantor::edr
{
class Event;
}

namespace vantor::ioc
{
struct ProcessInfo;
}

namespace vantor::ioc::internal
{

namespace protobuf
{
class DataFormatter;
}

// Decides when the open event batch is closed and spooled: when it holds
// kMaxEvents messages or reaches the formatter's byte limit (a spool file
// must hold a whole batch), when its first event is kMaxAge old, and at
// stop. Small batches within kMaxAge keep the number of uploads down; the
// age bounds how late a reported event reaches the back end.
//
// Not thread-safe (but LostEvents): used only by the processing thread.
class BatchWriter
{
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    static constexpr std::size_t kMaxEvents = 1000;
    static constexpr std::chrono::seconds kMaxAge{5};

    explicit BatchWriter(protobuf::DataFormatter& formatter, Clock clock = std::chrono::steady_clock::now);

    // Opens a batch when none is open and appends the event's message (and,
    // for a process start, the modules the process has loaded); throws what
    // the formatter throws.
    void Append(const edr::Event& event, const ProcessInfo* actor);
    // Closes the batch when it is due (force: whenever it holds anything).
    void FinishIfDue(bool force);

    // Messages of batches the spool refused or that could not be
    // serialized; read from any thread.
    uint64_t LostEvents() const { return m_lostEvents.load(std::memory_order_relaxed); }

private:
    void Finish();

    protobuf::DataFormatter& m_formatter;
    const Clock m_clock;
    std::chrono::steady_clock::time_point m_opened{};
    std::atomic<uint64_t> m_lostEvents{0};
};

} // namespace vantor::ioc::internal
