#pragma once

// The stand-in host agent (corvid-outpost) as a child of the test, starting
// the real daemon. Its pid is known before it runs, so that the daemon's
// configuration can name it as outpost_pid; the configuration file's name is
// handed over once written. Run inside a DaemonHarness.

#include "tests/support/ChildProcess.h"

#include <string>
#include <sys/types.h>

namespace vantor::test
{

class AgentProcess
{
public:
    // The agent's output (and the daemon's start-up output) is appended to
    // output; an earlier agent's lines there are not read. A socket path
    // replaces the default agent socket for the agent and its daemon.
    explicit AgentProcess(const std::string& output, const std::string& socketPath = {});
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    pid_t Pid() const { return m_pid; }

    // Lets the agent start the daemon with the configuration file.
    void Start(const std::string& configFile);

    // The daemon's pid, once it has connected; 0 when it did not.
    pid_t DaemonPid();

    // Has the agent send "exit"; answers the agent's status (the daemon's),
    // -1 when it did not end in time.
    int Exit();

private:
    std::string m_output;
    size_t m_outputMark = 0;
    pid_t m_pid = -1;
    pid_t m_daemonPid = 0;
    int m_go = -1;
    int m_control = -1;
};

} // namespace vantor::test
