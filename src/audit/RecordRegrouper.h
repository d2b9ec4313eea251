#pragma once

#include "audit/SetAsideRecords.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::audit
{

// Sorts raw audit record lines into their events ahead of libauparse, so that
// libauparse gets each event's records together and holds (almost) nothing
// while it parses: in feed mode it compares every record with every event it
// still builds, so records of many unfinished events, or one that never
// finishes, make every later record dearer.
//
// An event is keyed, as libauparse keys it, by its stamp
// "audit(<seconds>.<millis>:<serial>)" and node. It is handed on when
// libauparse would end it too, so that every event keeps exactly its records:
//  - its last record is of a type that ends an event (PROCTITLE, EOE, the
//    user-space and anomaly ranges, KERNEL): the event "ends itself";
//  - a record two seconds newer than the event (by whole seconds) arrives,
//    or Age() finds it two seconds older than now, or Flush(): handed on as
//    "cut", libauparse has to be told that it is complete.
// A record of the kernel's range that starts an event but is no SYSCALL
// record (a rule change or multicast join by a process whose calls are not
// audited, a record a call logs before its SYSCALL record) would wait for an
// end that never comes; it is handed on alone, cut, at once. Should its
// call's SYSCALL record come later, that starts the event the intake builds.
//
// Lines without a readable stamp are handed on at once as they are (cut):
// libauparse skips them. No more than kMaxPending events are held; beyond
// that the oldest is cut.
//
// The records of an event that a SYSCALL record started are kept as
// RecordTrimmer trims them: without the records and fields that no builder
// reads. Its PATH records, while each is trimmed and none was kept as a line
// of its own, go into the line of the SYSCALL record: their fields follow
// its own, each record's starting with "item" (which the kernel writes in no
// SYSCALL record). libauparse, whose cost is much per record, then parses
// one record where it parsed several; AuditRecords reads them back in their
// order. Its first CWD record and its PROCTITLE record, when each is one
// field written as the kernel writes it, are not kept but set aside: their
// values go along with the records (SetAsideRecords). An event whose
// PROCTITLE was set aside is handed on as cut, since libauparse no longer
// sees the record that ends it. Records handed on alone are kept as they
// came.
//
// Events are handed on in the order they complete (cut ones by time); the
// records of one event keep their order. Buffers are reused: in the steady
// state a record costs no allocation. Not thread-safe.
class RecordRegrouper
{
public:
    // One event's record lines, each with its line end, and the values set
    // aside from them. The views are valid during the call only.
    using Sink = std::function<void(std::string_view records, const SetAsideRecords& aside, bool endsItself)>;

    static constexpr size_t kMaxPending = 4096;
    // libauparse's wait for the end of an event, in seconds of record time.
    static constexpr uint64_t kEndTimeoutSeconds = 2;

    explicit RecordRegrouper(Sink sink);

    // One record line, with or without its line end.
    void Add(std::string_view line);
    // Hands on the events that have reached the time-out at now.
    void Age(std::time_t now);
    // Hands on every event still held.
    void Flush();

    size_t PendingEvents() const { return m_pending; }

private:
    struct Stamp
    {
        uint64_t seconds = 0;
        uint32_t millis = 0;
        uint64_t serial = 0;
        std::string_view node;
        std::string_view text; // "audit(...)"
        size_t fieldsAt = 0;   // just past it
    };
    struct Slot
    {
        uint64_t seconds = 0;
        uint32_t millis = 0;
        uint64_t serial = 0;
        std::string node;
        std::string records;
        std::string cwd;
        std::string proctitle;
        // Where the SYSCALL line ends in records (its line end), while PATH
        // records may still go into it; npos once they may not.
        size_t pathsAt = std::string::npos;
        int32_t nextInBucket = -1;
        bool used = false;
        bool sawCwd = false;
        bool hasCwd = false;
        bool hasProctitle = false;
    };

    static bool ParseStamp(std::string_view line, size_t typeAt, Stamp& stamp);
    int32_t Find(const Stamp& stamp) const;
    int32_t Open(const Stamp& stamp);
    // Hands the slot's event on and frees the slot.
    void Close(int32_t index, bool endsItself);
    // Whether the record's value went aside instead of into the records.
    static bool SetAside(Slot& slot, int type, std::string_view line, size_t fieldsAt);
    // Whether the PATH record's fields went into the SYSCALL line.
    bool JoinPath(Slot& slot, std::string_view line, size_t fieldsAt);
    // Cuts the events of the given second and before.
    void CutUpTo(uint64_t seconds);
    void CutOldest();
    void Rehash(size_t buckets);
    size_t BucketOf(uint64_t serial) const { return static_cast<size_t>(serial) & (m_buckets.size() - 1); }
    void Emit(std::string_view records, bool endsItself);

    Sink m_sink;
    std::string m_pathFields;
    std::vector<Slot> m_slots;
    std::vector<int32_t> m_free;
    std::vector<int32_t> m_buckets;
    std::vector<int32_t> m_due;
    size_t m_pending = 0;
    // No pending event is older (seconds); may lag behind after a close.
    uint64_t m_oldestSeconds = UINT64_MAX;
    // A line handed on alone when it lacks its line end.
    std::string m_line;
};

} // namespace vantor::audit
