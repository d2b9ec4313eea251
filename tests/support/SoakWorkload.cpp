#include "tests/support/SoakWorkload.h"

#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonHarness.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace vantor::test
{

using namespace std::chrono_literals;

namespace
{

class Journal
{
public:
    explicit Journal(const std::string& path)
        : m_fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600))
    {
    }

    // One write per line, so that a line is whole even if the run ends it.
    void Add(int64_t time, const std::string& text) const
    {
        const std::string line = std::to_string(time) + " " + text + "\n";
        if (::write(m_fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        {
            ::_exit(3);
        }
    }

private:
    int m_fd;
};

bool WriteFile(const std::string& path, const std::string& content, int flags, mode_t mode)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, mode);
    if (fd < 0)
    {
        return false;
    }
    const bool written = ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    return ::close(fd) == 0 && written;
}

// Runs a copy of true under a new name; answers its pid, or -1.
pid_t RunMarked(const std::string& image, const std::string& program)
{
    if (!WriteFile(image, program, O_CREAT | O_EXCL, 0755))
    {
        return -1;
    }
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        ::execl(image.c_str(), image.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? pid
                                                                                                         : -1;
}

[[noreturn]] void Loop(const SoakWorkload::Options& options, int stop)
{
    const Journal journal(options.journal);
    const std::string program = ReadText("/usr/bin/true");
    pollfd stopped{stop, POLLIN, 0};
    for (long round = 1; ::poll(&stopped, 1, static_cast<int>(options.pause.count())) == 0; ++round)
    {
        const std::string name = options.watched + "/soak-" + std::to_string(round);
        const std::string renamed = name + "-renamed";
        int64_t time = SoakWorkload::Now();
        if (WriteFile(name, {}, O_CREAT | O_EXCL, 0644))
        {
            journal.Add(time, "create " + name);
        }
        time = SoakWorkload::Now();
        if (WriteFile(name, "round " + std::to_string(round) + "\n", O_TRUNC, 0))
        {
            journal.Add(time, "modifyContent " + name);
        }
        time = SoakWorkload::Now();
        if (::rename(name.c_str(), renamed.c_str()) == 0)
        {
            journal.Add(time, "rename " + name);
        }
        time = SoakWorkload::Now();
        if (::unlink(renamed.c_str()) == 0)
        {
            journal.Add(time, "delete " + renamed);
        }
        if (round % options.markEvery == 0)
        {
            const std::string image = options.markDir + "/mark-" + std::to_string(round);
            time = SoakWorkload::Now();
            if (const pid_t pid = RunMarked(image, program); pid > 0)
            {
                journal.Add(time, "mark " + std::to_string(pid) + " " + image);
            }
        }
    }
    ::_exit(0);
}

} // namespace

SoakWorkload::SoakWorkload(Options options)
{
    int stop[2];
    if (::pipe2(stop, O_CLOEXEC) != 0)
    {
        ADD_FAILURE() << "pipe failed";
        return;
    }
    m_pid = ::fork();
    if (m_pid == 0)
    {
        ::close(stop[1]);
        Loop(options, stop[0]);
    }
    ::close(stop[0]);
    m_stop = stop[1];
}

SoakWorkload::~SoakWorkload()
{
    Stop();
}

void SoakWorkload::Stop()
{
    if (m_stop >= 0)
    {
        ::close(m_stop);
        m_stop = -1;
    }
    if (m_pid > 0)
    {
        EXPECT_EQ(WaitForChild(m_pid, 10s), 0) << "the workload failed";
        m_pid = -1;
    }
}

std::vector<SoakWorkload::Operation> SoakWorkload::ReadJournal(const std::string& path)
{
    std::vector<Operation> operations;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
    {
        std::istringstream fields(line);
        Operation operation;
        fields >> operation.time >> operation.action;
        if (operation.action == "mark")
        {
            fields >> operation.pid;
        }
        fields >> std::ws;
        std::getline(fields, operation.path);
        operations.push_back(std::move(operation));
    }
    return operations;
}

int64_t SoakWorkload::Now()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

} // namespace vantor::test
