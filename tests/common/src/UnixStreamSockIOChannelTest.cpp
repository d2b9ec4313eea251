#include "common/Logging.h"
#include "common/ReadBufferPool.h"
#include "common/UnixClientStreamSockIOChannel.h"
#include "common/UnixServerStreamSockIOChannel.h"
#include "common/UnixSocket.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Poco/Message.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using vantor::common::IOChannel;
using vantor::common::IOChannelException;
using vantor::common::Logging;
using vantor::common::UnixClientStreamSockIOChannel;
using vantor::common::UnixServerStreamSockIOChannel;

namespace
{

using vantor::test::Eventually;

// Bytes and errors that a channel's callbacks delivered.
struct Received
{
    std::mutex mutex;
    std::condition_variable cv;
    std::string bytes;
    std::vector<IOChannel::Error> errors;

    void Attach(IOChannel& channel)
    {
        channel.SetDataCallback(
            [this](std::vector<uint8_t> data)
            {
                std::lock_guard lock(mutex);
                bytes.append(data.begin(), data.end());
                cv.notify_all();
            });
        channel.SetErrorCallback(
            [this](IOChannel::Error error)
            {
                std::lock_guard lock(mutex);
                errors.push_back(error);
                cv.notify_all();
            });
    }

    bool WaitForBytes(const std::string& expected, std::chrono::milliseconds timeout = 3s)
    {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, timeout, [&] { return bytes == expected; });
    }

    std::string Text()
    {
        std::lock_guard lock(mutex);
        return bytes;
    }

    std::vector<IOChannel::Error> Errors()
    {
        std::lock_guard lock(mutex);
        return errors;
    }
};

std::vector<uint8_t> Bytes(const std::string& text)
{
    return std::vector<uint8_t>(text.begin(), text.end());
}

// A raw socket bound (bind) or connected to path; -1 on failure.
int RawSocket(const std::string& path, bool bind)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const auto* raw = reinterpret_cast<const sockaddr*>(&address);
    if ((bind ? ::bind(fd, raw, sizeof(address)) : ::connect(fd, raw, sizeof(address))) != 0)
    {
        ::close(fd);
        return -1;
    }
    return fd;
}

class UnixStreamSockIOChannelTest : public testing::Test
{
protected:
    void SetUp() override
    {
        // A broken pipe must show up as an error, not as a fatal SIGPIPE.
        std::signal(SIGPIPE, SIG_DFL);
    }

    vantor::test::TempDir m_tmp;
    const std::string m_dir = m_tmp.Path();
    const std::string m_path = m_tmp.File("sock");
    vantor::test::LogCapture m_log{Logging::Edr(), Poco::Message::PRIO_DEBUG};
};

TEST_F(UnixStreamSockIOChannelTest, BadPathsAndConnectFailuresMapToDistinctErrors)
{
    // Socket paths are limited to 91 characters.
    EXPECT_NO_THROW(UnixClientStreamSockIOChannel(std::string(91, 'p'), 1));
    EXPECT_THAT([] { UnixClientStreamSockIOChannel(std::string(92, 'p'), 1); },
                testing::ThrowsMessage<IOChannelException>(testing::StrEq("IOChannel: Invalid data")));
    EXPECT_THROW(UnixClientStreamSockIOChannel("", 1), IOChannelException);

    UnixClientStreamSockIOChannel missing(m_dir + "/absent.sock", 1);
    EXPECT_THAT([&] { missing.Start(); },
                testing::ThrowsMessage<IOChannelException>(testing::StrEq("IOChannel: Invalid data")));

    // Bound but not listening: the connection is refused.
    const int fd = RawSocket(m_path, true);
    ASSERT_GE(fd, 0);
    UnixClientStreamSockIOChannel refused(m_path, 1);
    EXPECT_THAT([&] { refused.Start(); },
                testing::ThrowsMessage<IOChannelException>(testing::StrEq("IOChannel: Remote failure")));
    ::close(fd);
    EXPECT_EQ(m_log.Count("UnixClientStreamSockIOChannel::Connect"), 2u);

    UnixClientStreamSockIOChannel never(m_path, 1);
    EXPECT_THROW(never.Write(Bytes("x")), IOChannelException);
}

TEST_F(UnixStreamSockIOChannelTest, DataTravelsBothWaysAndASecondClientWaitsForTheFirstToLeave)
{
    // The server creates its missing directory and replaces a stale file.
    const std::string path = m_dir + "/a/b/agent.sock";
    std::filesystem::create_directories(m_dir + "/a/b");
    std::ofstream(path) << "stale";
    UnixServerStreamSockIOChannel server(path);
    Received atServer;
    atServer.Attach(server);
    ASSERT_NO_THROW(server.Start());
    EXPECT_EQ(m_log.Count("UnixServerStreamSockIOChannel: Bound to " + path), 1u);

    UnixClientStreamSockIOChannel client(path, 1);
    Received atClient;
    atClient.Attach(client);
    ASSERT_NO_THROW(client.Start());

    const std::string big(100000, 'z');
    client.Write(Bytes("{\"command\":\"exit\"}"));
    EXPECT_TRUE(atServer.WaitForBytes("{\"command\":\"exit\"}"));
    ASSERT_TRUE(Eventually([&] { return server.HasClient(); }, 1s));
    server.Write(Bytes(big));
    EXPECT_TRUE(atClient.WaitForBytes(big));

    // A second client waits in the backlog until the first leaves.
    const int second = RawSocket(path, false);
    ASSERT_GE(second, 0);
    ASSERT_EQ(::send(second, "second;", 7, MSG_NOSIGNAL), 7);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(atServer.Text(), "{\"command\":\"exit\"}")
        << "the second client was served alongside the first";
    client.Stop();
    EXPECT_TRUE(atServer.WaitForBytes("{\"command\":\"exit\"}second;"));
    EXPECT_EQ(m_log.Count("UnixServerStreamSockIOChannel: EOF received. Waiting for incoming connections..."),
              1u);
    ::close(second);

    server.Stop();
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(atServer.Errors().empty());
    EXPECT_TRUE(atClient.Errors().empty());
    EXPECT_EQ(m_log.Count("UnixServerStreamSockIOChannel: New incoming connection accepted."), 2u);
    EXPECT_EQ(m_log.Count("UnixServerStreamSockIOChannel: Stopped."), 1u);
}

TEST_F(UnixStreamSockIOChannelTest, ClosedPeerLeadsToRetriesThenTimeout)
{
    auto server = std::make_unique<UnixServerStreamSockIOChannel>(m_path);
    server->Start();
    UnixClientStreamSockIOChannel client(m_path, 2);
    Received atClient;
    atClient.Attach(client);
    client.Start();

    const auto closed = std::chrono::steady_clock::now();
    server.reset();
    ASSERT_TRUE(Eventually([&] { return !atClient.Errors().empty(); }, 5s));
    const auto elapsed = std::chrono::steady_clock::now() - closed;
    // Two attempts with a one-second pause after each.
    EXPECT_GE(elapsed, 1800ms);
    EXPECT_LT(elapsed, 3500ms);
    EXPECT_EQ(atClient.Errors(), std::vector<IOChannel::Error>{IOChannel::Timeout});
    EXPECT_EQ(m_log.Count("UnixClientStreamSockIOChannel: EOF Received. Trying to reconnect..."), 1u);
    EXPECT_EQ(m_log.Count("UnixClientStreamSockIOChannel: Trying to reconnect... 1"), 1u);
    EXPECT_EQ(m_log.Count("UnixClientStreamSockIOChannel: Trying to reconnect... 2"), 1u);
    EXPECT_EQ(m_log.Count("UnixClientStreamSockIOChannel: Trying to reconnect... 3"), 0u);
    EXPECT_EQ(m_log.Count("UnixClientStreamSockIOChannel: Aborting reconnection due to timeout."), 1u);
    EXPECT_THROW(client.Write(Bytes("x")), IOChannelException);
    client.Stop();
}

TEST_F(UnixStreamSockIOChannelTest, ReconnectsWhenServerComesBackAndStopEndsReconnection)
{
    auto server = std::make_unique<UnixServerStreamSockIOChannel>(m_path);
    server->Start();
    UnixClientStreamSockIOChannel client(m_path, 0);
    Received atClient;
    atClient.Attach(client);
    std::atomic<int> reconnected{0};
    client.SetReconnectedCallback([&] { ++reconnected; });
    client.Start();

    server.reset();
    ASSERT_TRUE(Eventually([&] { return m_log.Count("Trying to reconnect... 2") == 1; }, 3s));
    server = std::make_unique<UnixServerStreamSockIOChannel>(m_path);
    Received atServer;
    atServer.Attach(*server);
    server->Start();
    ASSERT_TRUE(Eventually([&] { return reconnected == 1; }, 3s));
    client.Write(Bytes("back"));
    EXPECT_TRUE(atServer.WaitForBytes("back"));

    // Stopped while it waits to reconnect: ends at once, without an error.
    server.reset();
    ASSERT_TRUE(Eventually([&] { return m_log.Count("Trying to reconnect... 1") == 2; }, 3s));
    const auto before = std::chrono::steady_clock::now();
    client.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 900ms);
    EXPECT_EQ(m_log.Count("UnixClientStreamSockIOChannel: Aborting reconnection because socket is closing."),
              1u);
    EXPECT_EQ(m_log.Count("Aborting reconnection due to timeout."), 0u);
    EXPECT_EQ(m_log.Count("UnixClientStreamSockIOChannel: Stopped."), 1u);
    EXPECT_TRUE(atClient.Errors().empty());
}

TEST_F(UnixStreamSockIOChannelTest, BrokenPipeIsAnExceptionNotASignal)
{
    // Client side: the peer stops reading, so sends fail with EPIPE.
    const int listener = RawSocket(m_path, true);
    ASSERT_GE(listener, 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    UnixClientStreamSockIOChannel client(m_path, -1);
    client.Start();
    const int accepted = ::accept(listener, nullptr, nullptr);
    ASSERT_GE(accepted, 0);
    ASSERT_EQ(::shutdown(accepted, SHUT_RD), 0);
    EXPECT_THAT([&] { client.Write(Bytes("lost")); },
                testing::ThrowsMessage<IOChannelException>(testing::StrEq("IOChannel: Remote failure")));
    client.Stop();
    ::close(accepted);
    ::close(listener);

    // Server side, the same.
    UnixServerStreamSockIOChannel server(m_dir + "/server.sock");
    server.Start();
    const int peer = RawSocket(m_dir + "/server.sock", false);
    ASSERT_GE(peer, 0);
    ASSERT_TRUE(Eventually([&] { return server.HasClient(); }, 1s));
    ASSERT_EQ(::shutdown(peer, SHUT_RD), 0);
    EXPECT_THAT([&] { server.Write(Bytes("lost")); },
                testing::ThrowsMessage<IOChannelException>(testing::StrEq("IOChannel: Remote failure")));
    server.Stop();
    ::close(peer);
}

// A busy channel reads into buffers that its consumer gave back instead of
// allocating one per read; a small read keeps a buffer of its own size, and
// the pool keeps no more than a few spares.
TEST(ReadBufferPoolTest, FullReadsReuseBuffersGivenBackAndTheSparesStayFew)
{
    using vantor::common::ReadBufferPool;
    using vantor::common::UnixSocket;
    constexpr size_t kReadSize = 64 * 1024;
    while (ReadBufferPool::Spares() > 0)
    {
        ReadBufferPool::Take(0);
    }
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    const auto readAfterWriting = [&](size_t bytes)
    {
        const std::vector<uint8_t> sent(bytes, 'x');
        EXPECT_EQ(UnixSocket::WriteAll(fds[0], sent, "test"), IOChannel::Success);
        std::vector<uint8_t> data;
        EXPECT_EQ(UnixSocket::ReadAvailable(fds[1], kReadSize, data, "test"), IOChannel::Success);
        EXPECT_EQ(data.size(), bytes);
        return data;
    };

    auto first = readAfterWriting(kReadSize);
    const uint8_t* const memory = first.data();
    ReadBufferPool::Give(std::move(first));
    EXPECT_EQ(readAfterWriting(kReadSize).data(), memory);

    ReadBufferPool::Give(readAfterWriting(kReadSize));
    EXPECT_EQ(readAfterWriting(100).capacity(), 100U);
    EXPECT_EQ(ReadBufferPool::Spares(), 1U);

    for (size_t i = 0; i < ReadBufferPool::kMaxSpares + 2; ++i)
    {
        ReadBufferPool::Give(std::vector<uint8_t>(kReadSize));
    }
    EXPECT_EQ(ReadBufferPool::Spares(), ReadBufferPool::kMaxSpares);
    ::close(fds[0]);
    ::close(fds[1]);
}

} // namespace
