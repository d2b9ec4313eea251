#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace vantor::test
{

// A process that waits on a pipe and then runs a command. It is detached
// (double fork): the daemon drops the activity of its own descendants, and a
// real host agent or workload is not the daemon's child either.
class DetachedCommand
{
public:
    explicit DetachedCommand(std::vector<std::string> argv)
    {
        int go[2];
        int report[2];
        if (::pipe(go) != 0 || ::pipe(report) != 0)
        {
            throw std::runtime_error("pipe failed");
        }
        const pid_t middle = ::fork();
        if (middle == 0)
        {
            const pid_t worker = ::fork();
            if (worker == 0)
            {
                ::close(go[1]);
                // Wait until the middle process is gone and this one belongs to init.
                while (::getppid() == middle)
                {
                    ::usleep(1000);
                }
                char byte = 0;
                if (::read(go[0], &byte, 1) == 1)
                {
                    std::vector<char*> args;
                    for (auto& a : argv)
                    {
                        args.push_back(a.data());
                    }
                    args.push_back(nullptr);
                    ::execv(args[0], args.data());
                }
                ::_exit(127);
            }
            [[maybe_unused]] const auto n = ::write(report[1], &worker, sizeof worker);
            ::_exit(0);
        }
        ::close(go[0]);
        ::close(report[1]);
        if (::read(report[0], &m_pid, sizeof m_pid) != sizeof m_pid)
        {
            m_pid = -1;
        }
        ::close(report[0]);
        ::waitpid(middle, nullptr, 0);
        m_go = go[1];
    }
    ~DetachedCommand()
    {
        if (m_go >= 0)
        {
            ::close(m_go); // a command never started ends here
        }
    }
    pid_t Pid() const { return m_pid; }
    // Starts the command and waits until the process is gone.
    void Run()
    {
        const char byte = 1;
        [[maybe_unused]] const auto n = ::write(m_go, &byte, 1);
        ::close(m_go);
        m_go = -1;
        for (int i = 0; i < 500 && ::kill(m_pid, 0) == 0; ++i)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

private:
    pid_t m_pid = -1;
    int m_go = -1;
};

inline pid_t RunDetached(const std::vector<std::string>& argv)
{
    DetachedCommand command(argv);
    command.Run();
    return command.Pid();
}

} // namespace vantor::test
