#pragma once

#include <string>
#include <sys/types.h>

namespace vantor::test
{

// An audit daemon of our own in the foreground, with a private configuration
// in dir whose af_unix plugin writes the "string" format to dir/events.sock.
// Stopped (SIGTERM, then SIGKILL) on destruction.
class PrivateAuditd
{
public:
    // Why no private auditd can run here (an audit daemon already runs, or
    // auditd is not installed); empty when one can.
    static std::string WhyUnavailable();

    explicit PrivateAuditd(const std::string& dir);
    ~PrivateAuditd();
    PrivateAuditd(const PrivateAuditd&) = delete;
    PrivateAuditd& operator=(const PrivateAuditd&) = delete;

    // Waits for the plugin's socket; answers what went wrong otherwise.
    std::string WaitReady() const;

    const std::string& Socket() const { return m_socket; }
    pid_t Pid() const { return m_pid; }

private:
    std::string m_dir;
    std::string m_socket;
    pid_t m_pid = -1;
};

} // namespace vantor::test
