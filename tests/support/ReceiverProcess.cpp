#include "tests/support/ReceiverProcess.h"

#include "tests/support/ChildProcess.h"
#include "tools/TestReceiver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace vantor::test
{

namespace
{

using namespace std::chrono_literals;

// The child's side: serves until the command pipe closes.
[[noreturn]] void Serve(int command, int answer, tools::TestReceiver::Options options)
{
    try
    {
        tools::TestReceiver receiver(std::move(options));
        receiver.Start();
        const uint16_t port = receiver.Port();
        if (::write(answer, &port, sizeof port) != sizeof port)
        {
            ::_exit(1);
        }
        char c = 0;
        while (::read(command, &c, 1) == 1)
        {
            switch (c)
            {
            case 'd':
                receiver.Stop();
                break;
            case 'u':
                receiver.Start();
                break;
            case 'f':
                receiver.FailNext(1000000, 503);
                break;
            case 'h':
                receiver.FailNext(0);
                break;
            default:
                if (c >= '0' && c <= '9')
                {
                    receiver.SetHostility(static_cast<tools::HostileAnswer::Mode>(c - '0'));
                }
                break;
            }
            if (::write(answer, &c, 1) != 1)
            {
                break;
            }
        }
        receiver.Stop();
    }
    catch (...)
    {
        ::_exit(1);
    }
    ::_exit(0);
}

} // namespace

ReceiverProcess::ReceiverProcess(const std::string& dir, const std::string& hmacKey)
    : m_output(dir + "/received")
    , m_caFile(dir + "/certs/receiver.crt")
    , m_requestLog(dir + "/requests.log")
{
    std::filesystem::create_directories(m_output);
    std::filesystem::create_directories(dir + "/certs");
    int command[2];
    int answer[2];
    if (::pipe2(command, O_CLOEXEC) != 0 || ::pipe2(answer, O_CLOEXEC) != 0)
    {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return;
    }
    m_pid = ::fork();
    if (m_pid == 0)
    {
        ::close(command[1]);
        ::close(answer[0]);
        tools::TestReceiver::Options options;
        options.outputDir = m_output;
        options.certDir = dir + "/certs";
        options.hmacKey = hmacKey;
        options.requestLog = m_requestLog;
        Serve(command[0], answer[1], std::move(options));
    }
    ::close(command[0]);
    ::close(answer[1]);
    m_command = command[1];
    m_answer = answer[0];
    uint16_t port = 0;
    if (::read(m_answer, &port, sizeof port) != sizeof port)
    {
        ADD_FAILURE() << "the receiver did not start";
    }
    m_port = port;
}

ReceiverProcess::~ReceiverProcess()
{
    if (m_command >= 0)
    {
        ::close(m_command);
        ::close(m_answer);
    }
    if (m_pid > 0 && WaitForChild(m_pid, 5s) < 0)
    {
        StopChild(m_pid, 1s);
    }
}

void ReceiverProcess::Down()
{
    Tell('d');
}

void ReceiverProcess::Up()
{
    Tell('u');
}

void ReceiverProcess::Fail()
{
    Tell('f');
}

void ReceiverProcess::Heal()
{
    Tell('h');
}

void ReceiverProcess::Misbehave(tools::HostileAnswer::Mode mode)
{
    Tell(static_cast<char>('0' + static_cast<int>(mode)));
}

std::string ReceiverProcess::Url(const std::string& path) const
{
    return "https://127.0.0.1:" + std::to_string(m_port) + path;
}

void ReceiverProcess::Tell(char c)
{
    char back = 0;
    ASSERT_EQ(::write(m_command, &c, 1), 1);
    ASSERT_EQ(::read(m_answer, &back, 1), 1);
    ASSERT_EQ(back, c);
}

} // namespace vantor::test
