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
    std::vector<std::string> cwds;
    // The PROCTITLE record's command line, one entry per argument; empty
    // when the event had none. The kernel keeps at most 128 bytes of it.
    std::vector<std::string> proctitle;
    std::optional<uint32_t> argc;
    std::vector<std::string> arguments;
    std::optional<SockAddr> sockaddr;
    bool sockaddrInvalid = false;

    // The arguments of a PROCTITLE value: hex-encoded bytes with NUL between
    // the arguments, or a quoted text when it holds no special character.
    static std::vector<std::string> DecodeProctitle(std::string_view raw);

private:
    void ParseExecve(auparse_state_t* au);
    void ParseSockaddr(auparse_state_t* au);
};

} // namespace vantor::audit::internal
