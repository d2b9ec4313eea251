#pragma once

// The local HTTPS upload receiver, run in a child process: its server threads
// would keep a test from leaving its private mount namespace.

#include "tools/HostileAnswer.h"

#include <string>
#include <sys/types.h>

namespace vantor::test
{

class ReceiverProcess
{
public:
    // Certificates go to dir/certs, received payloads to dir/received; uploads
    // must be signed with hmacKey. Fails the test when it does not start.
    ReceiverProcess(const std::string& dir, const std::string& hmacKey);
    ~ReceiverProcess();
    ReceiverProcess(const ReceiverProcess&) = delete;
    ReceiverProcess& operator=(const ReceiverProcess&) = delete;

    // Each returns once the receiver has done it: stop or start serving,
    // answer 503 from now on, answer normally again.
    void Down();
    void Up();
    void Fail();
    void Heal();
    // Answers every request in that hostile way from now on (None: as a
    // well-behaved back end again); returns once the receiver has switched.
    void Misbehave(tools::HostileAnswer::Mode mode);

    std::string Url(const std::string& path) const;
    const std::string& CaFile() const { return m_caFile; }
    const std::string& Output() const { return m_output; }
    // One line per request (TestReceiver::Options::requestLog).
    const std::string& RequestLog() const { return m_requestLog; }
    pid_t Pid() const { return m_pid; }

private:
    // One byte a command over a pipe, one byte of answer.
    void Tell(char c);

    std::string m_output;
    std::string m_caFile;
    std::string m_requestLog;
    pid_t m_pid = -1;
    int m_command = -1;
    int m_answer = -1;
    uint16_t m_port = 0;
};

} // namespace vantor::test
