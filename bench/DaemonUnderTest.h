#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace vantor::bench
{

// The shipped corvid-edr, started by the stand-in agent (corvid-outpost) with
// the default configuration and manifests, in dispatcher mode: this object
// listens on the dispatcher socket and plays auditd's part, so the daemon
// reads its audit text from here rather than from the kernel. It still
// installs its kernel rules (wrap runs in flock /tmp/work/kernel.lock).
//
// Everything lives in a directory of its own (configuration, agent socket,
// spools, logs, the health-status database); the upload URLs point at a port
// where nothing listens. Not thread-safe.
class DaemonUnderTest
{
public:
    struct Options
    {
        std::string buildDir;  // holds corvid-edr and corvid-outpost
        std::string sourceDir; // holds config/
        std::string workDir;   // empty, made by the caller
        bool withIoc = true;   // false: the IOC component gets no manifest
        int cpuLimit = -1;     // percent; -1 keeps the shipped configuration's
    };

    // Writes the configuration, starts the agent, which starts the daemon,
    // and waits (up to a minute) for the daemon's dispatcher connection.
    // Throws std::runtime_error when any of it fails.
    explicit DaemonUnderTest(Options options);
    // Stops the daemon (Stop) when still running.
    ~DaemonUnderTest();

    DaemonUnderTest(const DaemonUnderTest&) = delete;
    DaemonUnderTest& operator=(const DaemonUnderTest&) = delete;

    pid_t Pid() const { return m_daemonPid; }

    // Writes all of data, blocking while the daemon does not read.
    void Send(std::string_view data);
    // Bytes sent that the daemon has not read yet.
    uint64_t Unread() const;

    // The daemon's CPU time so far (user + system, every thread, those that
    // ended too), in clock ticks.
    double CpuSeconds() const;
    // On-CPU time of the daemon's live threads, to the nanosecond
    // (schedstat): for spans too short or quiet for clock ticks.
    double RunningSeconds() const;
    // A line of /proc/PID/status in KB ("VmRSS", "VmHWM"); 0 when absent.
    uint64_t StatusKb(const char* key) const;
    // Waits until the daemon's CPU use over a window of quiet seconds stays
    // below quietShare of one core; false after timeoutSeconds.
    bool WaitQuiet(double quiet, double quietShare, double timeoutSeconds) const;

    // Asks the agent to stop the daemon, waits for both, closes the
    // dispatcher socket. Answers the agent's exit status.
    int Stop();

    // Totals of the health-status records the daemon wrote (read after
    // Stop, which writes the last ones), keyed "context/code/field".
    std::map<std::string, uint64_t> HealthTotals() const;

    // The configured parser queue maximum, from the daemon's log line.
    uint64_t ParserQueueMaxKb() const;

private:
    void WriteConfiguration() const;
    void StartAgent();
    void AcceptDaemon();

    Options m_options;
    int m_listen = -1;
    int m_client = -1;
    pid_t m_agentPid = -1;
    pid_t m_daemonPid = -1;
};

} // namespace vantor::bench
