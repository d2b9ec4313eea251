#pragma once

#include "audit/PathRecord.h"
#include "audit/SyscallRecord.h"

#include <auparse.h>

#include <cstdint>
#include <optional>
#include <string>
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

    // Visits every record of the current event. Throws EventException for a
    // missing or repeated SYSCALL record and for unreadable records.
    void Parse(auparse_state_t* au, unsigned wanted);

    SyscallRecord syscall;
    std::vector<PathRecord> paths;
    // The first CWD record's directory, and how many there were.
    std::string cwd;
    unsigned cwdCount = 0;
    // The PROCTITLE record's command line, its arguments separated by NUL
    // bytes (see DecodeProctitle); empty when the event had none. The kernel
    // keeps at most 128 bytes of it. One text rather than one per argument:
    // it is built for every event and seldom read.
    std::string proctitle;
    std::optional<uint32_t> argc;
    std::vector<std::string> arguments;
    std::optional<SockAddr> sockaddr;
    bool sockaddrInvalid = false;

    // Replaces out with the bytes of a PROCTITLE value (hex-encoded bytes
    // with NUL between the arguments, or a quoted text when it holds no
    // special character), without the empty arguments it may end on.
    static void DecodeProctitle(std::string_view raw, std::string& out);
    // The arguments of such bytes; none for an empty text.
    static std::vector<std::string> SplitArguments(std::string_view text);

private:
    void ParseExecve(auparse_state_t* au);
    void ParseSockaddr(auparse_state_t* au);
};

} // namespace vantor::audit::internal
