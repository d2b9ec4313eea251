#include "tools/outpost/StandInAgent.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vantor::tools
{

namespace
{
// Signals reach the poll loop through this pipe.
int g_signalPipe[2] = {-1, -1};

void OnSignal(int signal)
{
    const int saved = errno;
    const char byte = static_cast<char>(signal);
    [[maybe_unused]] const ssize_t n = ::write(g_signalPipe[1], &byte, 1);
    errno = saved;
}

// The daemon reads the same variable (its socket path override).
constexpr const char* kSocketVariable = "CORVID_EDR_AGENT_SOCKET";

void Say(const std::string& text)
{
    std::cout << "corvid-outpost: " << text << std::endl;
}

std::string CommandJson(const std::string& command, const std::string& configFile)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("command");
    writer.String(command.c_str(), static_cast<rapidjson::SizeType>(command.size()));
    if (command == "config")
    {
        writer.Key("config_file");
        writer.String(configFile.c_str(), static_cast<rapidjson::SizeType>(configFile.size()));
    }
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}
} // namespace

StandInAgent::StandInAgent(Options options)
    : m_options(std::move(options))
{
}

StandInAgent::~StandInAgent()
{
    Disconnect();
    StopListening();
}

bool StandInAgent::Listen()
{
    if (m_listenFd >= 0)
    {
        return true;
    }
    const std::filesystem::path path(m_options.socketPath);
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    sockaddr_un address{};
    if (m_options.socketPath.size() >= sizeof(address.sun_path))
    {
        Say("socket path too long: " + m_options.socketPath);
        return false;
    }
    address.sun_family = AF_UNIX;
    m_options.socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ::unlink(m_options.socketPath.c_str());
    m_listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listenFd < 0 ||
        ::bind(m_listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(m_listenFd, 1) != 0)
    {
        Say("cannot listen on " + m_options.socketPath + ": " + std::strerror(errno));
        StopListening();
        return false;
    }
    Say("listening on " + m_options.socketPath);
    return true;
}

void StandInAgent::StopListening()
{
    if (m_listenFd >= 0)
    {
        ::close(m_listenFd);
        m_listenFd = -1;
        ::unlink(m_options.socketPath.c_str());
        Say("stopped listening");
    }
}

void StandInAgent::Accept()
{
    const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
    {
        return;
    }
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0)
    {
        m_daemonPid = credentials.pid;
        Say("daemon connected, pid " + std::to_string(credentials.pid));
    }
    else
    {
        Say("daemon connected, pid unknown");
    }
    m_clientFd = fd;
    if (!m_options.configFile.empty())
    {
        Send("config");
    }
    if (!m_options.steps.empty() && m_nextStepAt == std::chrono::steady_clock::time_point{})
    {
        m_nextStepAt = std::chrono::steady_clock::now() + m_options.steps.front().after;
    }
}

void StandInAgent::Disconnect()
{
    if (m_clientFd >= 0)
    {
        ::close(m_clientFd);
        m_clientFd = -1;
    }
}

void StandInAgent::ReadFromDaemon()
{
    char buffer[1024];
    const ssize_t n = ::recv(m_clientFd, buffer, sizeof buffer, 0);
    if (n > 0)
    {
        // The daemon never answers; show whatever it sends anyway.
        Say("daemon sent " + std::string(buffer, static_cast<size_t>(n)));
        return;
    }
    if (n < 0 && errno == EINTR)
    {
        return;
    }
    Disconnect();
    Say("daemon disconnected");
    if (m_options.exitOnDisconnect)
    {
        m_quit = true;
    }
}

bool StandInAgent::Send(const std::string& command)
{
    if (m_clientFd < 0)
    {
        Say("not connected; cannot send " + command);
        return false;
    }
    const std::string json = CommandJson(command, m_options.configFile);
    size_t sent = 0;
    while (sent < json.size())
    {
        const ssize_t n = ::send(m_clientFd, json.data() + sent, json.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
        {
            continue;
        }
        if (n <= 0)
        {
            Say("send failed: " + std::string(std::strerror(errno)));
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    Say("sent " + json);
    return true;
}

void StandInAgent::Control(const std::string& word)
{
    if (word.empty())
    {
        return;
    }
    if (word == "quit")
    {
        m_quit = true;
    }
    else if (word == "close")
    {
        // Drop the daemon and stop listening, so that its reconnection fails.
        if (m_clientFd >= 0)
        {
            Disconnect();
            Say("closed the connection");
        }
        StopListening();
    }
    else if (word == "listen")
    {
        Listen();
    }
    else if (word == "exit" || word == "config" || word == "fim_status" || word == "ioc_status")
    {
        Send(word);
    }
    else
    {
        Say("unknown control word: " + word);
    }
}

void StandInAgent::ReadControlInput()
{
    char buffer[256];
    const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
    {
        return;
    }
    if (n <= 0)
    {
        m_stdinOpen = false;
        return;
    }
    m_stdinBuffer.append(buffer, static_cast<size_t>(n));
    for (size_t end = m_stdinBuffer.find('\n'); end != std::string::npos; end = m_stdinBuffer.find('\n'))
    {
        std::string word = m_stdinBuffer.substr(0, end);
        m_stdinBuffer.erase(0, end + 1);
        const auto first = word.find_first_not_of(" \t\r");
        const auto last = word.find_last_not_of(" \t\r");
        Control(first == std::string::npos ? std::string() : word.substr(first, last - first + 1));
    }
}

std::string StandInAgent::DefaultSocketPath()
{
    const char* path = std::getenv(kSocketVariable);
    return path != nullptr && *path != '\0' ? path : "/var/run/corvid/outpost/sock/agent_edr.sock";
}

bool StandInAgent::StartDaemon()
{
    const pid_t pid = ::fork();
    if (pid < 0)
    {
        Say("fork failed: " + std::string(std::strerror(errno)));
        return false;
    }
    if (pid == 0)
    {
        ::setenv(kSocketVariable, m_options.socketPath.c_str(), 1);
        ::execl(m_options.daemonBinary.c_str(), m_options.daemonBinary.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    m_launcherPid = pid;
    m_childrenLeft = true;
    Say("started " + m_options.daemonBinary + " (pid " + std::to_string(pid) + ")");
    return true;
}

void StandInAgent::ReapChildren()
{
    for (;;)
    {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, WNOHANG);
        if (pid == 0)
        {
            return;
        }
        if (pid < 0)
        {
            if (errno == ECHILD && m_childrenLeft)
            {
                m_childrenLeft = false;
                if (m_clientFd < 0)
                {
                    m_quit = true;
                }
            }
            return;
        }
        if (WIFEXITED(status))
        {
            m_lastStatus = WEXITSTATUS(status);
            Say("process " + std::to_string(pid) + " exited with status " + std::to_string(m_lastStatus));
        }
        else if (WIFSIGNALED(status))
        {
            m_lastStatus = 128 + WTERMSIG(status);
            Say("process " + std::to_string(pid) + " killed by signal " + std::to_string(WTERMSIG(status)));
        }
    }
}

int StandInAgent::PollTimeoutMs() const
{
    if (m_options.steps.empty() || m_clientFd < 0 || m_nextStepAt == std::chrono::steady_clock::time_point{})
    {
        return -1;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_nextStepAt -
                                                                            std::chrono::steady_clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

void StandInAgent::RunDueSteps()
{
    while (!m_options.steps.empty() && m_clientFd >= 0 &&
           m_nextStepAt != std::chrono::steady_clock::time_point{} &&
           std::chrono::steady_clock::now() >= m_nextStepAt)
    {
        const Step step = m_options.steps.front();
        m_options.steps.pop_front();
        Control(step.command);
        if (!m_options.steps.empty())
        {
            m_nextStepAt = std::chrono::steady_clock::now() + m_options.steps.front().after;
        }
    }
}

int StandInAgent::Run()
{
    if (::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
    {
        return 1;
    }
    struct sigaction action
    {
    };
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD})
    {
        ::sigaction(signal, &action, nullptr);
    }
    std::signal(SIGPIPE, SIG_IGN);

    if (!Listen())
    {
        return 1;
    }
    if (!m_options.daemonBinary.empty())
    {
        // The daemon detaches; as subreaper this process still collects it.
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        if (!StartDaemon())
        {
            return 1;
        }
    }

    while (!m_quit)
    {
        pollfd fds[4];
        nfds_t count = 0;
        fds[count++] = {g_signalPipe[0], POLLIN, 0};
        const int clientIndex = m_clientFd >= 0 ? static_cast<int>(count) : -1;
        if (clientIndex >= 0)
        {
            fds[count++] = {m_clientFd, POLLIN, 0};
        }
        // One daemon at a time: a second connection waits in the backlog.
        const int listenIndex = m_clientFd < 0 && m_listenFd >= 0 ? static_cast<int>(count) : -1;
        if (listenIndex >= 0)
        {
            fds[count++] = {m_listenFd, POLLIN, 0};
        }
        const int stdinIndex = m_stdinOpen ? static_cast<int>(count) : -1;
        if (stdinIndex >= 0)
        {
            fds[count++] = {STDIN_FILENO, POLLIN, 0};
        }
        const int rc = ::poll(fds, count, PollTimeoutMs());
        if (rc < 0 && errno != EINTR)
        {
            Say("poll failed: " + std::string(std::strerror(errno)));
            return 1;
        }
        if (rc > 0 && (fds[0].revents & POLLIN) != 0)
        {
            char signals[32];
            ssize_t n = 0;
            while ((n = ::read(g_signalPipe[0], signals, sizeof signals)) > 0)
            {
                for (ssize_t i = 0; i < n; ++i)
                {
                    if (signals[i] == SIGINT || signals[i] == SIGTERM)
                    {
                        // Like the real agent: tell a connected daemon to stop.
                        if (m_clientFd >= 0)
                        {
                            Send("exit");
                        }
                        m_quit = true;
                    }
                }
            }
            ReapChildren();
        }
        if (rc > 0 && clientIndex >= 0 && (fds[clientIndex].revents & (POLLIN | POLLHUP | POLLERR)) != 0)
        {
            ReadFromDaemon();
        }
        if (rc > 0 && listenIndex >= 0 && (fds[listenIndex].revents & POLLIN) != 0)
        {
            Accept();
        }
        if (rc > 0 && stdinIndex >= 0 && (fds[stdinIndex].revents & (POLLIN | POLLHUP)) != 0)
        {
            ReadControlInput();
        }
        RunDueSteps();
        if (!m_options.daemonBinary.empty() && !m_childrenLeft && m_clientFd < 0)
        {
            m_quit = true;
        }
    }
    if (m_childrenLeft)
    {
        StopDaemon();
    }
    return m_options.daemonBinary.empty() ? 0 : m_lastStatus;
}

void StandInAgent::StopDaemon()
{
    // A daemon started here must not outlive the tool.
    if (m_daemonPid <= 0 || ::kill(m_daemonPid, SIGTERM) != 0)
    {
        return;
    }
    Say("sent SIGTERM to " + std::to_string(m_daemonPid));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (m_childrenLeft && std::chrono::steady_clock::now() < deadline)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ReapChildren();
    }
    if (m_childrenLeft && ::kill(m_daemonPid, SIGKILL) == 0)
    {
        ::waitpid(m_daemonPid, nullptr, 0);
        Say("killed " + std::to_string(m_daemonPid));
    }
}

} // namespace vantor::tools
