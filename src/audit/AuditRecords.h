#pragma once

#include "audit/PathRecord.h"
#include "audit/SetAsideRecords.h"
#include "audit/SyscallRecord.h"

#include <auparse.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::audit::internal
{

// The records of one audit event that an event class asked for, copied out
// of libauparse. Only the wanted record types are decoded.
class AuditRecords
{
public:
    enum Wanted : unsigned
    {
        kPath = 1U << 0,
        kCwd = 1U << 1,
        kProctitle = 1U << 2,
        kExecve = 1U << 3,
        kSockaddr = 1U << 4
    };

    struct SockAddr
    {
        std::string family;
        std::string address;
        std::optional<uint16_t> port;
    };

    // Visits every record of the current event, and takes the values set
    // aside for it (those of another serial are ignored). Throws
    // EventException for a missing or repeated SYSCALL record and for
    // unreadable records.
    void Parse(auparse_state_t* au, unsigned wanted, const SetAsideRecords& aside = {});

    SyscallRecord syscall;
    std::vector<PathRecord> paths;
    // The texts that nearly every event carries live in one buffer: one
    // allocation per event rather than one each (or one per argument).
    // The SYSCALL record's executable.
    std::string_view Exe() const { return TextAt(syscall.exeAt, syscall.exeSize); }
    // The first CWD record's directory (empty without one), and how many
    // CWD records there were.
    std::string_view Cwd() const { return TextAt(m_cwdAt, m_cwdSize); }
    unsigned cwdCount = 0;
    // The PROCTITLE record's command line, its arguments separated by NUL
    // bytes (see DecodeProctitle); empty when the event had none. The kernel
    // keeps at most 128 bytes of it. Kept raw and decoded on each call: few
    // events are ever asked for it.
    std::string Proctitle() const;
    std::optional<uint32_t> argc;
    std::vector<std::string> arguments;
    std::optional<SockAddr> sockaddr;
    bool sockaddrInvalid = false;

    // Appends to out the bytes of a PROCTITLE value (hex-encoded bytes with
    // NUL between the arguments, or a quoted text when it holds no special
    // character), without the empty arguments it may end on.
    static void DecodeProctitle(std::string_view raw, std::string& out);
    // The arguments of such bytes; none for an empty text.
    static std::vector<std::string> SplitArguments(std::string_view text);

private:
    // Decodes the event's CWD value from a raw text or from the state's
    // current field.
    template <typename Source>
    void KeepCwd(const Source& source);
    void KeepProctitle(std::string_view raw);
    // Keeps the PATH record parse() reads, unless it names nothing.
    template <typename ParseOne>
    void AddPath(ParseOne&& parse);
    void ParseExecve(auparse_state_t* au);
    void ParseSockaddr(auparse_state_t* au);
    std::string_view TextAt(size_t at, size_t size) const
    {
        return std::string_view(m_text).substr(at, size);
    }

    // Places, not views, so that a copy of the records reads its own copy.
    std::string m_text;
    size_t m_cwdAt = 0;
    size_t m_cwdSize = 0;
    size_t m_proctitleAt = 0;
    size_t m_proctitleSize = 0;
};

} // namespace vantor::audit::internal
