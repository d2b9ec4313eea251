#pragma once

#include "audit/AuditEventClass.h"
#include "audit/EventBuilder.h"
#include "audit/LoneRecordCloser.h"
#include "audit/RecordRegrouper.h"

#include <auparse.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vantor::audit
{

// Owns one libauparse state in feed mode. Raw audit text goes in, in chunks
// cut anywhere; every audit event that libauparse reports complete is turned
// into typed events by the builder, chosen by the first record's type and the
// system call. Not thread-safe: one thread feeds and flushes.
class AuparseFeed
{
public:
    using Events = EventBuilder::Events;

    enum class Grouping
    {
        // The records are sorted into their events first (RecordRegrouper)
        // and each event goes to libauparse whole, without the enrichment
        // that auditd's dispatcher appends to a record and without what no
        // builder reads (RecordTrimmer); events come out in the order they
        // complete.
        ByEvent,
        // The text goes to libauparse as it came, lone records closed by
        // LoneRecordCloser; libauparse sorts the records. Kept as the
        // yardstick that the grouped intake is measured and checked against.
        AsReceived,
    };

    // What the feed left out (see CaptureCounters); bumped by the feeding
    // thread, readable from any thread.
    struct Tally
    {
        std::atomic<uint64_t> unsupportedSyscalls{0};
        std::atomic<uint64_t> otherRecords{0};
        std::atomic<uint64_t> malformedEvents{0};
        std::atomic<uint64_t> failedCalls{0};
        std::atomic<uint64_t> overlongLines{0};
    };

    // A line longer than this is not audit text (a kernel record is at most
    // 8970 bytes, the enriched form of it a few times that); the rest of such
    // a line is dropped so that a stream without line ends cannot grow the
    // parser's buffer without bound.
    static constexpr size_t kMaxLineLength = 1024 * 1024;

    // Throws std::runtime_error "AuparseFeed: Failed to initialise auparse".
    // tally, when given, must outlive the feed; otherwise the feed counts
    // into its own.
    explicit AuparseFeed(EventBuilder& builder, Tally* tally = nullptr,
                         Grouping grouping = Grouping::ByEvent);
    ~AuparseFeed();

    AuparseFeed(const AuparseFeed&) = delete;
    AuparseFeed& operator=(const AuparseFeed&) = delete;

    // Feeds one chunk; answers the events it completed, in the order
    // libauparse reported them. Throws std::runtime_error "Failed to feed to
    // auparse" when libauparse fails.
    Events Feed(const uint8_t* data, size_t size);
    Events Feed(const std::vector<uint8_t>& data) { return Feed(data.data(), data.size()); }

    // Completes whatever libauparse still holds and answers those events.
    Events Flush();

    // Completes the events held for more than about two seconds of
    // wall-clock time and answers them with what they let through. An event
    // that its PROCTITLE or EOE record does not end is otherwise complete
    // only when a record two seconds newer arrives, which a quiet
    // host may not send for long. Call when no text has come for a while.
    Events Age();

    // The event class of an x86-64 system call, or nothing when the call is
    // not one the intake builds events for.
    static std::optional<AuditEventClass> ClassOfSyscall(long long number);

    const Tally& GetTally() const { return m_tally; }

private:
    static void OnEventReady(auparse_state_t* state, auparse_cb_event_t type, void* self);
    void OnEvent(auparse_state_t* state);
    // Whether the state's current event is a system call that failed.
    static bool IsFailedCall(auparse_state_t* state);
    void FeedRaw(const char* data, size_t size);
    // Feeds complete lines (end must follow a line end).
    void FeedLines(const char* begin, const char* end);
    void FeedAsReceived(const char* begin, const char* end);
    // One event's records from the regrouper.
    void FeedEvent(std::string_view records, const SetAsideRecords& aside, bool endsItself);
    // Keeps the start of a line until its end arrives.
    void HoldUnfinished(const char* begin, const char* end);
    Events TakeCompleted();

    EventBuilder& m_builder;
    Tally m_ownTally;
    Tally& m_tally;
    auparse_state_t* m_state = nullptr;
    Events m_completed;
    // The values set aside for the event being fed, while it is.
    const SetAsideRecords* m_aside = nullptr;
    // Reused for each event, so that a rejected event leaves nothing behind.
    Events m_scratch;
    // The unfinished last line: libauparse gets whole lines only.
    std::string m_pending;
    // Set while the rest of an over-long line is being skipped.
    bool m_skippingLine = false;
    const Grouping m_grouping;
    // Ends the events of lone records, which libauparse would hold (as
    // received only).
    LoneRecordCloser m_loneRecords;
    RecordRegrouper m_regrouper;
};

} // namespace vantor::audit
