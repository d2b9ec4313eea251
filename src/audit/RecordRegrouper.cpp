#include "audit/RecordRegrouper.h"

#include "audit/AuditTables.h"
#include "audit/AuparseField.h"
#include "audit/RecordTrimmer.h"

#include <libaudit.h>

#include <algorithm>
#include <charconv>
#include <tuple>
#include <utility>

namespace vantor::audit
{

namespace
{

constexpr size_t kInitialBuckets = 256;

// The record types after which libauparse takes an event as complete.
bool EndsEvent(int type)
{
    return type == AUDIT_PROCTITLE || type == AUDIT_EOE || type < AUDIT_FIRST_EVENT ||
           type >= AUDIT_FIRST_ANOM_MSG || type == AUDIT_KERNEL ||
           (type >= AUDIT_MAC_UNLBL_ALLOW && type <= AUDIT_MAC_CALIPSO_DEL);
}

template <typename Number>
bool ParseNumber(std::string_view text, size_t& at, char end, Number& value)
{
    const char* const first = text.data() + at;
    const auto [next, error] = std::from_chars(first, text.data() + text.size(), value);
    if (error != std::errc() || next == first || next == text.data() + text.size() || *next != end)
    {
        return false;
    }
    at = static_cast<size_t>(next - text.data()) + 1;
    return true;
}

} // namespace

RecordRegrouper::RecordRegrouper(Sink sink)
    : m_sink(std::move(sink))
    , m_buckets(kInitialBuckets, -1)
{
}

bool RecordRegrouper::ParseStamp(std::string_view line, size_t typeAt, Stamp& stamp)
{
    // "[node=<name> ]type=<NAME> msg=audit(<seconds>.<millis>:<serial>): ..."
    constexpr std::string_view kOpen = "msg=audit(";
    const size_t open = line.find(kOpen, typeAt);
    if (open == std::string_view::npos)
    {
        return false;
    }
    size_t at = open + kOpen.size();
    if (!ParseNumber(line, at, '.', stamp.seconds) || !ParseNumber(line, at, ':', stamp.millis) ||
        !ParseNumber(line, at, ')', stamp.serial))
    {
        return false;
    }
    stamp.fieldsAt = at;
    stamp.node = {};
    if (line.starts_with("node="))
    {
        const size_t space = line.find(' ');
        stamp.node = line.substr(5, (space == std::string_view::npos ? line.size() : space) - 5);
    }
    return true;
}

void RecordRegrouper::Add(std::string_view line)
{
    const size_t typeAt = line.find("type=");
    Stamp stamp;
    if (typeAt == std::string_view::npos || !ParseStamp(line, typeAt, stamp))
    {
        Emit(line, false);
        return;
    }
    const size_t nameAt = typeAt + 5;
    const size_t nameEnd = line.find(' ', nameAt);
    const int type = AuditTables::RecordType(
        line.substr(nameAt, (nameEnd == std::string_view::npos ? line.size() : nameEnd) - nameAt));

    if (const int32_t index = Find(stamp); index >= 0)
    {
        Slot& slot = m_slots[static_cast<size_t>(index)];
        if (SetAside(slot, type, line, stamp.fieldsAt))
        {
            if (type == AUDIT_PROCTITLE)
            {
                Close(index, false);
            }
        }
        else if (type != AUDIT_PATH || !JoinPath(slot, line, stamp.fieldsAt))
        {
            const bool ends = EndsEvent(type);
            // What no builder reads goes no further, unless it ends the event.
            if (ends || RecordTrimmer::IsRead(type))
            {
                RecordTrimmer::Append(type, line, stamp.fieldsAt, slot.records);
            }
            if (type == AUDIT_PATH)
            {
                // A later one after this line keeps the order of the paths.
                slot.pathsAt = std::string::npos;
            }
            if (ends)
            {
                Close(index, true);
            }
        }
    }
    else if (EndsEvent(type))
    {
        Emit(line, true);
    }
    else if (type != AUDIT_SYSCALL)
    {
        // Nothing would end it: alone, at once.
        Emit(line, false);
    }
    else
    {
        Slot& slot = m_slots[static_cast<size_t>(Open(stamp))];
        if (RecordTrimmer::Append(type, line, stamp.fieldsAt, slot.records))
        {
            slot.pathsAt = slot.records.size() - 1;
        }
    }

    // libauparse ends what is two seconds older than any record.
    if (m_pending > 0 && m_oldestSeconds + kEndTimeoutSeconds <= stamp.seconds)
    {
        CutUpTo(stamp.seconds - kEndTimeoutSeconds);
    }
}

void RecordRegrouper::Age(std::time_t now)
{
    const auto seconds = static_cast<uint64_t>(std::max<std::time_t>(now, 0));
    if (m_pending > 0 && m_oldestSeconds + kEndTimeoutSeconds <= seconds)
    {
        CutUpTo(seconds - kEndTimeoutSeconds);
    }
}

void RecordRegrouper::Flush()
{
    if (m_pending > 0)
    {
        CutUpTo(UINT64_MAX);
    }
}

int32_t RecordRegrouper::Find(const Stamp& stamp) const
{
    for (int32_t index = m_buckets[BucketOf(stamp.serial)]; index >= 0;)
    {
        const Slot& slot = m_slots[static_cast<size_t>(index)];
        if (slot.serial == stamp.serial && slot.seconds == stamp.seconds && slot.millis == stamp.millis &&
            slot.node == stamp.node)
        {
            return index;
        }
        index = slot.nextInBucket;
    }
    return -1;
}

int32_t RecordRegrouper::Open(const Stamp& stamp)
{
    if (m_pending >= kMaxPending)
    {
        CutOldest();
    }
    int32_t index = 0;
    if (!m_free.empty())
    {
        index = m_free.back();
        m_free.pop_back();
    }
    else
    {
        index = static_cast<int32_t>(m_slots.size());
        m_slots.emplace_back();
    }
    Slot& slot = m_slots[static_cast<size_t>(index)];
    slot.seconds = stamp.seconds;
    slot.millis = stamp.millis;
    slot.serial = stamp.serial;
    slot.node.assign(stamp.node);
    slot.records.clear();
    slot.pathsAt = std::string::npos;
    slot.used = true;
    slot.sawCwd = false;
    slot.hasCwd = false;
    slot.hasProctitle = false;
    ++m_pending;
    m_oldestSeconds = std::min(m_oldestSeconds, stamp.seconds);
    if (m_pending * 2 > m_buckets.size())
    {
        Rehash(m_buckets.size() * 2);
    }
    else
    {
        int32_t& head = m_buckets[BucketOf(stamp.serial)];
        slot.nextInBucket = head;
        head = index;
    }
    return index;
}

void RecordRegrouper::Close(int32_t index, bool endsItself)
{
    Slot& slot = m_slots[static_cast<size_t>(index)];
    for (int32_t* link = &m_buckets[BucketOf(slot.serial)]; *link >= 0;
         link = &m_slots[static_cast<size_t>(*link)].nextInBucket)
    {
        if (*link == index)
        {
            *link = slot.nextInBucket;
            break;
        }
    }
    slot.used = false;
    --m_pending;
    m_free.push_back(index);
    SetAsideRecords aside;
    aside.serial = slot.serial;
    if (slot.hasCwd)
    {
        aside.cwd = slot.cwd;
    }
    if (slot.hasProctitle)
    {
        aside.proctitle = slot.proctitle;
    }
    m_sink(slot.records, aside, endsItself);
    slot.records.clear();
}

bool RecordRegrouper::SetAside(Slot& slot, int type, std::string_view line, size_t fieldsAt)
{
    if (type == AUDIT_CWD)
    {
        // Only the first: a later one would come before it for libauparse.
        if (std::exchange(slot.sawCwd, true))
        {
            return false;
        }
        const auto value = RecordTrimmer::SoleValue(line, fieldsAt, "cwd");
        if (!value || !internal::AuparseField::DecodesAlone(*value))
        {
            return false;
        }
        slot.cwd.assign(*value);
        slot.hasCwd = true;
        return true;
    }
    if (type == AUDIT_PROCTITLE)
    {
        const auto value = RecordTrimmer::SoleValue(line, fieldsAt, "proctitle");
        if (!value)
        {
            return false;
        }
        slot.proctitle.assign(*value);
        slot.hasProctitle = true;
        return true;
    }
    return false;
}

bool RecordRegrouper::JoinPath(Slot& slot, std::string_view line, size_t fieldsAt)
{
    if (slot.pathsAt == std::string::npos)
    {
        return false;
    }
    m_pathFields.clear();
    if (!RecordTrimmer::AppendPathFields(line, fieldsAt, m_pathFields))
    {
        return false;
    }
    slot.records.insert(slot.pathsAt, m_pathFields);
    slot.pathsAt += m_pathFields.size();
    return true;
}

void RecordRegrouper::CutUpTo(uint64_t seconds)
{
    m_due.clear();
    uint64_t oldestKept = UINT64_MAX;
    for (size_t i = 0; i < m_slots.size(); ++i)
    {
        const Slot& slot = m_slots[i];
        if (!slot.used)
        {
            continue;
        }
        if (slot.seconds <= seconds)
        {
            m_due.push_back(static_cast<int32_t>(i));
        }
        else
        {
            oldestKept = std::min(oldestKept, slot.seconds);
        }
    }
    m_oldestSeconds = oldestKept;
    const auto byTime = [this](int32_t a, int32_t b)
    {
        const Slot& x = m_slots[static_cast<size_t>(a)];
        const Slot& y = m_slots[static_cast<size_t>(b)];
        return std::tie(x.seconds, x.millis, x.serial) < std::tie(y.seconds, y.millis, y.serial);
    };
    std::sort(m_due.begin(), m_due.end(), byTime);
    for (const int32_t index : m_due)
    {
        Close(index, false);
    }
}

void RecordRegrouper::CutOldest()
{
    int32_t oldest = -1;
    for (size_t i = 0; i < m_slots.size(); ++i)
    {
        const Slot& slot = m_slots[i];
        if (!slot.used)
        {
            continue;
        }
        if (oldest < 0)
        {
            oldest = static_cast<int32_t>(i);
            continue;
        }
        const Slot& best = m_slots[static_cast<size_t>(oldest)];
        if (std::tie(slot.seconds, slot.millis, slot.serial) <
            std::tie(best.seconds, best.millis, best.serial))
        {
            oldest = static_cast<int32_t>(i);
        }
    }
    if (oldest >= 0)
    {
        Close(oldest, false);
    }
}

void RecordRegrouper::Rehash(size_t buckets)
{
    m_buckets.assign(buckets, -1);
    for (size_t i = 0; i < m_slots.size(); ++i)
    {
        Slot& slot = m_slots[i];
        if (slot.used)
        {
            int32_t& head = m_buckets[BucketOf(slot.serial)];
            slot.nextInBucket = head;
            head = static_cast<int32_t>(i);
        }
    }
}

void RecordRegrouper::Emit(std::string_view records, bool endsItself)
{
    if (!records.empty() && records.back() == '\n')
    {
        m_sink(records, SetAsideRecords{}, endsItself);
        return;
    }
    m_line.assign(records);
    m_line.push_back('\n');
    m_sink(m_line, SetAsideRecords{}, endsItself);
}

} // namespace vantor::audit
