#pragma once

// The host agent's end of the daemon's agent socket, for tests that run the
// real corvid-edr binary inside a DaemonHarness: it listens at the fixed
// socket path, starts the daemon, accepts its connection and sends it
// commands. A daemon still running on destruction is killed.

#include <chrono>
#include <string>
#include <sys/types.h>

namespace vantor::test
{

class AgentEndpoint
{
public:
    AgentEndpoint() = default;
    ~AgentEndpoint();
    AgentEndpoint(const AgentEndpoint&) = delete;
    AgentEndpoint& operator=(const AgentEndpoint&) = delete;

    // Each fails the test on error.
    void Listen();
    // Starts the daemon and answers once its launcher has returned (the
    // detached daemon is then a child of this process).
    void StartDaemon();
    // Accepts the daemon's connection and checks that it is the daemon started.
    void AcceptDaemon();
    void Send(const std::string& text);

    // Closes the connection; StopListening also removes the socket.
    void Close();
    void StopListening();

    // The daemon's exit status, or -1 if it still runs after timeout.
    int WaitForExit(std::chrono::milliseconds timeout);
    bool IsRunning() const;
    pid_t DaemonPid() const { return m_daemonPid; }

private:
    int m_listenFd = -1;
    int m_agentFd = -1;
    pid_t m_daemonPid = 0;
};

} // namespace vantor::test
