#include "tests/support/PrivateAuditd.h"

#include "tests/src/audit/AuditKernelState.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vantor::test
{

using namespace std::chrono_literals;

std::string PrivateAuditd::WhyUnavailable()
{
    if (StatusValue("pid").value_or(0) != 0)
    {
        return "an audit daemon is already running";
    }
    if (::access("/usr/sbin/auditd", X_OK) != 0)
    {
        return "auditd is not installed";
    }
    return {};
}

PrivateAuditd::PrivateAuditd(const std::string& dir)
    : m_dir(dir)
    , m_socket(dir + "/events.sock")
{
    ::mkdir((dir + "/plugins.d").c_str(), 0700);
    // The largest dispatcher queue auditd takes, so that a burst waits for a
    // slow reader instead of being dropped on the way.
    std::ofstream(dir + "/auditd.conf") << "local_events = yes\nwrite_logs = no\nlog_file = " << dir
                                        << "/audit.log\nlog_format = ENRICHED\nflush = NONE\n"
                                           "space_left = 2\nspace_left_action = IGNORE\n"
                                           "admin_space_left = 1\nadmin_space_left_action = IGNORE\n"
                                           "disk_full_action = IGNORE\ndisk_error_action = IGNORE\n"
                                           "priority_boost = 0\nq_depth = 99999\nplugin_dir = "
                                        << dir << "/plugins.d\n";
    std::ofstream(dir + "/plugins.d/af_unix.conf")
        << "active = yes\ndirection = out\npath = builtin_af_unix\ntype = builtin\nargs = 0600 " << m_socket
        << "\nformat = string\n";
    ::chmod((dir + "/auditd.conf").c_str(), 0640);
    ::chmod((dir + "/plugins.d/af_unix.conf").c_str(), 0640);

    m_pid = ::fork();
    if (m_pid == 0)
    {
        const int out = ::open((dir + "/auditd.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(out, 1);
        ::dup2(out, 2);
        ::execl("/usr/sbin/auditd", "auditd", "-f", "-c", dir.c_str(), "-s", "nochange", nullptr);
        ::_exit(127);
    }
}

PrivateAuditd::~PrivateAuditd()
{
    if (m_pid <= 0)
    {
        return;
    }
    ::kill(m_pid, SIGTERM);
    for (int i = 0; i < 500; ++i)
    {
        if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid)
        {
            return;
        }
        std::this_thread::sleep_for(10ms);
    }
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
}

std::string PrivateAuditd::WaitReady() const
{
    for (int i = 0; i < 500; ++i)
    {
        struct stat info
        {
        };
        if (::stat(m_socket.c_str(), &info) == 0 && S_ISSOCK(info.st_mode))
        {
            return {};
        }
        if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid)
        {
            break;
        }
        std::this_thread::sleep_for(10ms);
    }
    std::ifstream in(m_dir + "/auditd.out");
    return "auditd did not open its dispatcher socket: " +
           std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

} // namespace vantor::test
