#pragma once

// The local HTTPS upload receiver, run in a child process: its server threads
// would keep a test from leaving its private mount namespace.

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

    std::string Url(const std::string& path) const;
    const std::string& CaFile() const { return m_caFile; }
    const std::string& Output() const { return m_output; }
    pid_t Pid() const { return m_pid; }

private:
    // One byte a command over a pipe, one byte of answer.
    void Tell(char c);

    std::string m_output;
    std::string m_caFile;
    pid_t m_pid = -1;
    int m_command = -1;
    int m_answer = -1;
    uint16_t m_port = 0;
};

} // namespace vantor::test
