#include "audit/AuparseFeed.h"

#include "audit/AuparseField.h"
#include "common/Logging.h"

#include <libaudit.h>

#include <array>
#include <cstring>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <string_view>

namespace vantor::audit
{

namespace
{

constexpr long long kHighestSyscall = 316;

// x86-64 system call number to event class; 0 means no class. The table is
// deliberately limited: accept and execveat, for instance, are not handled.
constexpr auto MakeSyscallTable()
{
    std::array<uint8_t, kHighestSyscall + 1> table{};
    const auto set = [&table](AuditEventClass eventClass, std::initializer_list<int> numbers)
    {
        for (const int number : numbers)
        {
            table[static_cast<size_t>(number)] = static_cast<uint8_t>(static_cast<uint8_t>(eventClass) + 1);
        }
    };
    set(AuditEventClass::ReadWrite, {0, 1, 2, 17, 18, 19, 20, 76, 77, 257, 295, 296, 304});
    set(AuditEventClass::Network, {42, 49});
    set(AuditEventClass::Clone, {56, 57, 58});
    set(AuditEventClass::Running, {59});
    set(AuditEventClass::Rename, {82, 264, 316});
    set(AuditEventClass::Create, {83, 85, 86, 88, 133, 258, 259, 265, 266});
    set(AuditEventClass::Delete, {84, 87, 263});
    set(AuditEventClass::Attribute,
        {90, 91, 92, 93, 94, 132, 188, 189, 190, 197, 198, 199, 235, 260, 261, 268, 280});
    set(AuditEventClass::Exit, {231});
    return table;
}

constexpr auto kSyscallTable = MakeSyscallTable();

// auditd's dispatcher appends the interpreted names of some fields (ARCH=,
// SYSCALL=, UID=, SADDR=...) after this byte. Nothing reads them: numbers
// are read raw, and libauparse interprets the fields itself without them.
constexpr char kEnrichmentSeparator = '\x1d';

} // namespace

std::optional<AuditEventClass> AuparseFeed::ClassOfSyscall(long long number)
{
    if (number < 0 || number > kHighestSyscall || kSyscallTable[static_cast<size_t>(number)] == 0)
    {
        return std::nullopt;
    }
    return static_cast<AuditEventClass>(kSyscallTable[static_cast<size_t>(number)] - 1);
}

AuparseFeed::AuparseFeed(EventBuilder& builder, Tally* tally, Grouping grouping)
    : m_builder(builder)
    , m_tally(tally != nullptr ? *tally : m_ownTally)
    , m_grouping(grouping)
    , m_regrouper([this](std::string_view records, const SetAsideRecords& aside, bool endsItself)
                  { FeedEvent(records, aside, endsItself); })
{
    m_state = ::auparse_init(AUSOURCE_FEED, nullptr);
    if (m_state == nullptr)
    {
        throw std::runtime_error("AuparseFeed: Failed to initialise auparse");
    }
    ::auparse_set_escape_mode(m_state, AUPARSE_ESC_RAW);
    ::auparse_add_callback(m_state, &AuparseFeed::OnEventReady, this, nullptr);
}

AuparseFeed::~AuparseFeed()
{
    ::auparse_destroy(m_state);
}

AuparseFeed::Events AuparseFeed::TakeCompleted()
{
    Events events = std::move(m_completed);
    m_completed.clear();
    // Room for as many as last time: one allocation rather than a growth
    // per doubling.
    m_completed.reserve(events.size());
    return events;
}

void AuparseFeed::FeedRaw(const char* data, size_t size)
{
    if (size > 0 && ::auparse_feed(m_state, data, size) < 0)
    {
        throw std::runtime_error("Failed to feed to auparse");
    }
}

AuparseFeed::Events AuparseFeed::Feed(const uint8_t* bytes, size_t size)
{
    const char* begin = reinterpret_cast<const char*>(bytes);
    const char* const end = begin + size;
    if (!m_pending.empty() || m_skippingLine)
    {
        const auto* lineEnd = static_cast<const char*>(std::memchr(begin, '\n', size));
        if (lineEnd == nullptr)
        {
            HoldUnfinished(begin, end);
            return TakeCompleted();
        }
        if (!m_skippingLine)
        {
            m_pending.append(begin, lineEnd + 1);
            FeedLines(m_pending.data(), m_pending.data() + m_pending.size());
        }
        m_pending.clear();
        m_skippingLine = false;
        begin = lineEnd + 1;
    }
    const auto* lastLineEnd =
        static_cast<const char*>(::memrchr(begin, '\n', static_cast<size_t>(end - begin)));
    if (lastLineEnd != nullptr)
    {
        FeedLines(begin, lastLineEnd + 1);
        begin = lastLineEnd + 1;
    }
    HoldUnfinished(begin, end);
    return TakeCompleted();
}

void AuparseFeed::HoldUnfinished(const char* begin, const char* end)
{
    if (m_skippingLine || begin == end)
    {
        return;
    }
    if (m_pending.size() + static_cast<size_t>(end - begin) > kMaxLineLength)
    {
        EDR_LOG_WARNING("AuparseFeed: Dropping an audit text line longer than " << kMaxLineLength
                                                                                << " bytes");
        m_tally.overlongLines.fetch_add(1, std::memory_order_relaxed);
        m_pending.clear();
        m_skippingLine = true;
        return;
    }
    m_pending.append(begin, end);
}

void AuparseFeed::FeedLines(const char* begin, const char* end)
{
    if (m_grouping == Grouping::AsReceived)
    {
        FeedAsReceived(begin, end);
        return;
    }
    for (const char* line = begin; line < end;)
    {
        const auto* lineEnd =
            static_cast<const char*>(std::memchr(line, '\n', static_cast<size_t>(end - line)));
        const char* next = lineEnd != nullptr ? lineEnd + 1 : end;
        // The enrichment is cut off (the regrouper ends the line anew):
        // libauparse would otherwise parse its fields for every record.
        const auto* enrichment = static_cast<const char*>(
            std::memchr(line, kEnrichmentSeparator, static_cast<size_t>(next - line)));
        // A line that carries an event stamp but no record type makes
        // libauparse lose memory; such a line is no audit record, so it is
        // left out.
        const std::string_view text(line,
                                    static_cast<size_t>((enrichment != nullptr ? enrichment : next) - line));
        if (text.find("type=") != std::string_view::npos)
        {
            m_regrouper.Add(text);
        }
        line = next;
    }
    // libauparse looks at its last line only once more bytes follow; an
    // empty line (which it skips) lets the last event complete now.
    FeedRaw("\n", 1);
}

void AuparseFeed::FeedEvent(std::string_view records, const SetAsideRecords& aside, bool endsItself)
{
    // The values stand only while this event is fed, also when feeding throws.
    struct Feeding
    {
        const SetAsideRecords*& current;
        ~Feeding() { current = nullptr; }
    } const feeding{m_aside};
    m_aside = &aside;
    FeedRaw(records.data(), records.size());
    if (!endsItself)
    {
        // libauparse holds nothing else: flushing completes this event only.
        FeedRaw("\n", 1);
        ::auparse_flush_feed(m_state);
    }
}

void AuparseFeed::FeedAsReceived(const char* begin, const char* end)
{
    // A line that carries an event stamp but no record type makes libauparse
    // lose memory; such a line is no audit record, so it is left out.
    const char* run = begin;
    for (const char* line = begin; line < end;)
    {
        const auto* lineEnd =
            static_cast<const char*>(std::memchr(line, '\n', static_cast<size_t>(end - line)));
        const char* next = lineEnd != nullptr ? lineEnd + 1 : end;
        if (::memmem(line, static_cast<size_t>(next - line), "type=", 5) == nullptr)
        {
            FeedRaw(run, static_cast<size_t>(line - run));
            run = next;
        }
        else if (auto endOfEvent =
                     m_loneRecords.EndOfEventFor(std::string_view(line, static_cast<size_t>(next - line))))
        {
            FeedRaw(run, static_cast<size_t>(next - run));
            if (lineEnd == nullptr)
            {
                FeedRaw("\n", 1);
            }
            endOfEvent->push_back('\n');
            FeedRaw(endOfEvent->data(), endOfEvent->size());
            run = next;
        }
        line = next;
    }
    FeedRaw(run, static_cast<size_t>(end - run));
    FeedRaw("\n", 1);
}

AuparseFeed::Events AuparseFeed::Flush()
{
    if (!m_pending.empty())
    {
        // A last record without its line end is still a record.
        m_pending.push_back('\n');
        FeedLines(m_pending.data(), m_pending.data() + m_pending.size());
        m_pending.clear();
    }
    m_skippingLine = false;
    m_regrouper.Flush();
    ::auparse_flush_feed(m_state);
    return TakeCompleted();
}

AuparseFeed::Events AuparseFeed::Age()
{
    m_regrouper.Age(std::time(nullptr));
    ::auparse_feed_age_events(m_state);
    return TakeCompleted();
}

void AuparseFeed::OnEventReady(auparse_state_t* state, auparse_cb_event_t type, void* self)
{
    if (type != AUPARSE_CB_EVENT_READY)
    {
        return;
    }
    // Called from inside libauparse: nothing may be thrown through it.
    try
    {
        static_cast<AuparseFeed*>(self)->OnEvent(state);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("AuparseFeed: Failed to handle audit event: " << e.what());
    }
    catch (...)
    {
        EDR_LOG_ERROR("AuparseFeed: Failed to handle audit event: unknown error");
    }
}

bool AuparseFeed::IsFailedCall(auparse_state_t* state)
{
    if (::auparse_first_record(state) <= 0 || ::auparse_get_type(state) != AUDIT_SYSCALL ||
        ::auparse_find_field(state, "success") == nullptr)
    {
        return false;
    }
    const char* success = ::auparse_get_field_str(state);
    return success != nullptr && std::strcmp(success, "no") == 0;
}

void AuparseFeed::OnEvent(auparse_state_t* state)
{
    if (::auparse_first_record(state) <= 0)
    {
        EDR_LOG_ERROR("Failed to fetch first record from event");
        return;
    }
    const int recordType = ::auparse_get_type(state);
    if (recordType == AUDIT_EOE)
    {
        // What is left of an event whose records came before: nothing to say.
        return;
    }
    const unsigned long serial = ::auparse_get_serial(state);
    EDR_LOG_EVENT_TRACE("Received complete event: " << serial);

    m_scratch.clear();
    try
    {
        switch (recordType)
        {
        case AUDIT_SYSCALL:
        {
            const char* text =
                ::auparse_find_field(state, "syscall") != nullptr ? ::auparse_get_field_str(state) : nullptr;
            const std::optional<long long> number =
                text != nullptr ? internal::AuparseField::Number<long long>(std::string_view(text))
                                : std::nullopt;
            const std::optional<AuditEventClass> eventClass =
                number ? ClassOfSyscall(*number) : std::optional<AuditEventClass>();
            if (!eventClass)
            {
                m_tally.unsupportedSyscalls.fetch_add(1, std::memory_order_relaxed);
                EDR_LOG_TRACE("Unsupported syscall in event: " << (text != nullptr ? text : "(none)"));
                return;
            }
            // The builder reads the event from its first record.
            ::auparse_first_record(state);
            static const SetAsideRecords kNothingSetAside;
            m_builder.BuildSyscallEvent(*eventClass, state, m_aside != nullptr ? *m_aside : kNothingSetAside,
                                        m_scratch);
            break;
        }
        case AUDIT_ANOM_ABEND:
            m_builder.BuildAbendEvent(state, m_scratch);
            break;
        default:
            m_tally.otherRecords.fetch_add(1, std::memory_order_relaxed);
            EDR_LOG_TRACE("Ignoring event with ID: " << serial << " record type: " << recordType);
            return;
        }
    }
    catch (const std::exception& e)
    {
        EDR_LOG_DEBUG("Dropping audit event with ID: " << serial << ": " << e.what());
        // A call that failed often lacks what its class needs (a failed
        // execve names no file): that is the host at work, not bad input.
        (IsFailedCall(state) ? m_tally.failedCalls : m_tally.malformedEvents)
            .fetch_add(1, std::memory_order_relaxed);
        m_scratch.clear();
        return;
    }
    for (auto& event : m_scratch)
    {
        if (event)
        {
            m_completed.push_back(std::move(event));
        }
    }
    m_scratch.clear();
}

} // namespace vantor::audit
