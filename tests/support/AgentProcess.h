#pragma once

// The stand-in agent (corvid-outpost) in a child process, starting the real
// daemon. Its pid is known before it runs, so that the configuration can name
// it as outpost_pid: it waits for Start() with the configuration file.

#include <string>
#include <sys/types.h>

namespace vantor::test
{

class AgentProcess
{
public:
    // The agent's output goes to output.
    explicit AgentProcess(const std::string& output);
    // Stops the agent and, if it went first, the daemon left to us as the
    // subreaper.
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    pid_t Pid() const { return m_pid; }

    // Lets the agent start the daemon with the configuration file.
    void Start(const std::string& configFile);
    // The daemon's pid, once it has connected; 0 when it does not.
    pid_t DaemonPid();
    // Has the agent send "exit"; answers the agent's status (the daemon's),
    // -1 when it has not ended within 15 seconds.
    int Exit();

private:
    std::string m_output;
    pid_t m_pid = -1;
    pid_t m_daemonPid = 0;
    int m_go = -1;
    int m_control = -1;
};

} // namespace vantor::test
