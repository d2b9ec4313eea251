#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace vantor::audit
{

// libauparse completes an event of the kernel's record range (1300-2099, but
// for its own record 2000) on its PROCTITLE or end-of-event (EOE) record,
// otherwise only once a record at least three seconds newer arrives, and it
// hands events on in order: a record that no PROCTITLE or EOE follows holds
// back every later event. The kernel sends such records: a rule change or a
// multicast join by a process whose calls are not audited (the daemon's own
// calls are all excluded), an abnormal end logged outside a call; and the
// EOE records are excluded anyway.
//
// The records of an audited call follow its SYSCALL record; records that a
// call logs while it runs (CONFIG_CHANGE, AVC, ...) come before it. So a
// record of that range whose event has shown no SYSCALL record yet starts an
// event of its own that nothing will complete: it gets an EOE line right
// behind it. Should the call's SYSCALL record come later, libauparse starts
// an event with it, which is the one the intake builds from anyway.
//
// Looks at each record line once, in order. Not thread-safe.
class LoneRecordCloser
{
public:
    // How many recent SYSCALL events are remembered.
    static constexpr size_t kRemembered = 4096;

    // The EOE line that must follow the record line (without its line end),
    // or nothing.
    std::optional<std::string> EndOfEventFor(std::string_view line);

private:
    // Looks a stamp up without copying it.
    struct StampHash
    {
        using is_transparent = void;
        size_t operator()(std::string_view stamp) const { return std::hash<std::string_view>{}(stamp); }
    };

    void Remember(std::string_view stamp);

    // The stamps ("audit(<time>:<serial>)") of recent SYSCALL records.
    std::unordered_set<std::string, StampHash, std::equal_to<>> m_syscallStamps;
    std::deque<std::string> m_order;
};

} // namespace vantor::audit
