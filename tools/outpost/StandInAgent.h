#pragma once

#include <chrono>
#include <deque>
#include <string>
#include <sys/types.h>

namespace vantor::tools
{

// A stand-in for the host agent: it listens on the agent socket, names the
// configuration file to the daemon when it connects and forwards commands
// from its command line and from its control input. With a daemon binary it
// also starts the daemon and, as the subreaper of the detached daemon,
// reports its exit status.
class StandInAgent
{
public:
    struct Step
    {
        std::string command;
        std::chrono::milliseconds after{0};
    };

    struct Options
    {
        // The daemon's default, or CORVID_EDR_AGENT_SOCKET when set (see
        // DefaultSocketPath); a daemon started here is told the same path.
        std::string socketPath = DefaultSocketPath();
        std::string configFile;
        std::string daemonBinary;
        // Sent in order once the daemon has connected; each waits its own
        // delay after the previous one.
        std::deque<Step> steps;
        bool exitOnDisconnect = false;
    };

    // CORVID_EDR_AGENT_SOCKET when set and not empty, else the path the
    // daemon connects to by default.
    static std::string DefaultSocketPath();

    explicit StandInAgent(Options options);
    ~StandInAgent();

    StandInAgent(const StandInAgent&) = delete;
    StandInAgent& operator=(const StandInAgent&) = delete;

    // Runs until "quit", a termination signal, --exit-on-disconnect, or the
    // started daemon having exited. Answers the exit status for the tool:
    // the daemon's status when it was started here, otherwise 0 (1 on error).
    int Run();

private:
    bool Listen();
    void StopListening();
    void Accept();
    void Disconnect();
    void ReadFromDaemon();
    // Forwards one control word; "close", "listen" and "quit" are handled here.
    void Control(const std::string& word);
    bool Send(const std::string& command);
    bool StartDaemon();
    void ReapChildren();
    void StopDaemon();
    void ReadControlInput();
    int PollTimeoutMs() const;
    void RunDueSteps();

    Options m_options;
    int m_listenFd = -1;
    int m_clientFd = -1;
    pid_t m_daemonPid = 0;
    pid_t m_launcherPid = 0;
    bool m_quit = false;
    bool m_stdinOpen = true;
    std::string m_stdinBuffer;
    bool m_childrenLeft = false;
    int m_lastStatus = 0;
    std::chrono::steady_clock::time_point m_nextStepAt{};
};

} // namespace vantor::tools
