#pragma once

#include "common/IOChannel.h"

#include <string>
#include <sys/un.h>
#include <vector>

namespace vantor::common
{

// System-call helpers shared by the Unix stream socket channels.
class UnixSocket
{
public:
    // Copies at most 107 bytes of the path; answers the address length.
    static socklen_t MakeAddress(const std::string& path, sockaddr_un& address);
    static IOChannel::Error MapErrno(int error);
    // Reads what is available (at most bufSize bytes). End of file answers
    // Success with nothing read.
    static IOChannel::Error ReadAvailable(int fd, size_t bufSize, std::vector<uint8_t>& data,
                                          const char* what);
    // Writes every byte; a broken pipe is a failure, never SIGPIPE.
    static IOChannel::Error WriteAll(int fd, const std::vector<uint8_t>& data, const char* what);
};

} // namespace vantor::common
