#pragma once

// What the tests that run the real corvid-edr binary share: a private mount
// namespace with its own /run (the agent socket's default path is there) and,
// on request, its own /dev whose /dev/log the test reads, so that the
// daemon's syslog lines can be checked exactly; the shipped configuration
// and logging configuration rewritten into the test's directory.
//
// The namespace is left and the directory removed on destruction. Entering
// needs a single-threaded process (unshare and setns of a mount namespace
// refuse a shared file-system context), so start threads only after Enter
// and stop them before the harness goes.

#include "common/UniqueFd.h"
#include "tests/support/Eventually.h"

#include <rapidjson/document.h>

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>

namespace vantor::test
{

std::string ReadText(const std::string& path);
// One agent command as the agent sends it: {"command":...,"config_file":...}.
std::string AgentCommand(const char* command, const std::string& configFile = {});
// Parent pid of a process from /proc/<pid>/stat, with its command name in
// comm; -1 when it is gone.
pid_t ParentOf(pid_t pid, std::string& comm);
// A child of this process with that command name, or -1.
pid_t FindChild(const std::string& name);

// Sets a string member of a configuration object.
void SetString(rapidjson::Document& config, rapidjson::Value& object, const char* key,
               const std::string& value);

class DaemonHarness
{
public:
    static constexpr const char* kAgentSocket = "/var/run/corvid/outpost/sock/agent_edr.sock";
    static constexpr const char* kDaemon = CORVID_BINARY_DIR "/corvid-edr";
    static constexpr const char* kOutpost = CORVID_BINARY_DIR "/corvid-outpost";
    static constexpr const char* kMagicDatabase = "/etc/corvid/outpost/magic.mgc";

    DaemonHarness() = default;
    ~DaemonHarness();
    DaemonHarness(const DaemonHarness&) = delete;
    DaemonHarness& operator=(const DaemonHarness&) = delete;

    // Makes the directory, becomes subreaper (the daemon detaches) and
    // enters a private mount namespace with an empty /run. Answers why the
    // test has to be skipped, empty when all is set; fails the test on an
    // unexpected error.
    std::string Enter();

    // Why a daemon could not capture here (no usable or a locked audit
    // subsystem, no magic database); empty when it can.
    static std::string CaptureProblem();
    // A /dev with the few nodes the daemon opens and our own syslog socket.
    void MountPrivateDev();
    // For a test that runs a capturing daemon: CaptureProblem(), Enter() and
    // MountPrivateDev() in one. Answers why the test has to be skipped; check
    // for a fatal failure as well.
    std::string EnterForCapture();

    // The shipped default configuration, pointed at the directory (logging at
    // debug level into Dir()/edr.log unless logFile says otherwise), after
    // change has edited it; outpost_pid is this process unless changed.
    void WriteConfiguration(const std::function<void(rapidjson::Document&)>& change = {},
                            const std::string& logFile = {});

    const std::string& Dir() const { return m_dir; }
    const std::string& ConfigFile() const { return m_configFile; }
    const std::string& LogFile() const { return m_logFile; }
    const std::string& LogConfig() const { return m_logConfig; }

    std::string Log() const { return ReadText(m_logFile); }
    // Whether the log or one of its rotated archives holds text.
    bool LogContains(const std::string& text) const;
    // Every syslog line received so far, one per line.
    std::string Syslog();
    bool SyslogContains(const std::string& text);

private:
    std::string m_dir;
    std::string m_configFile;
    std::string m_logFile;
    std::string m_logConfig;
    common::UniqueFd m_originalNamespace;
    common::UniqueFd m_syslogFd;
    std::string m_syslog;
};

} // namespace vantor::test
