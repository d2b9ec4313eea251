#include "tests/support/ChildProcess.h"

#include "tests/support/DaemonHarness.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::test
{

using namespace std::chrono_literals;

int WaitForChild(pid_t pid, std::chrono::milliseconds timeout)
{
    int status = 0;
    if (!Eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout))
    {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void StopChild(pid_t pid, std::chrono::milliseconds grace)
{
    if (pid <= 0 || ::kill(pid, 0) != 0)
    {
        return;
    }
    ::kill(pid, SIGTERM);
    if (WaitForChild(pid, grace) < 0)
    {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
}

pid_t RunProgram(std::vector<std::string> argv)
{
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        std::vector<char*> args;
        for (auto& arg : argv)
        {
            args.push_back(arg.data());
        }
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    EXPECT_EQ(WaitForChild(pid, 5s), 0) << argv[0];
    return pid;
}

} // namespace vantor::test
