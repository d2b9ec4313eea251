#include "audit/CapturePipeline.h"
#include "audit/AuditEventProcessor.h"
#include "audit/EventRouter.h"
#include "common/IOChannel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace vantor::audit
{
namespace
{

using namespace std::chrono_literals;

// A channel whose text the test pushes in.
class FakeChannel : public common::IOChannel
{
public:
    FakeChannel()
        : IOChannel(1024, 0)
    {
    }
    void Push(const std::string& text) { OnData({text.begin(), text.end()}); }
    void OnEOF() override {}
    Error Read(std::vector<uint8_t>&) override { return Success; }
    void Write(const std::vector<uint8_t>&) override {}
    void Start() override {}
    void Stop() override {}
};

// A file created in the watched directory, as the kernel reports it.
std::string CreateRecords(unsigned long serial)
{
    const std::string stamp = "audit(1700000000.100:" + std::to_string(serial) + "): ";
    return "type=SYSCALL msg=" + stamp +
           "arch=c000003e syscall=257 success=yes exit=3 a0=ffffff9c a1=1 a2=941 a3=1b6 items=2 ppid=1 "
           "pid=4242 auid=4294967295 uid=0 gid=0 euid=0 suid=0 fsuid=0 egid=0 sgid=0 fsgid=0 tty=(none) "
           "ses=4294967295 comm=\"touch\" exe=\"/usr/bin/touch\" key=\"k\"\n"
           "type=CWD msg=" +
           stamp +
           "cwd=\"/\"\n"
           "type=PATH msg=" +
           stamp +
           "item=0 name=\"/watched/\" inode=1 dev=fe:00 mode=040755 ouid=0 ogid=0 rdev=00:00 "
           "nametype=PARENT\n"
           "type=PATH msg=" +
           stamp +
           "item=1 name=\"/watched/file\" inode=2 dev=fe:00 mode=0100644 ouid=0 ogid=0 rdev=00:00 "
           "nametype=CREATE\n"
           "type=PROCTITLE msg=" +
           stamp + "proctitle=746F756368\n";
}

TEST(CapturePipelineTest, StopDoesNotWaitForABacklogToBeProcessed)
{
    EventRouter router;
    router.AddRoute("rule", {"tag", edr::EventRule::FilePathRule, {}, {"/watched/file"}});
    std::atomic<size_t> handled{0};
    AuditEventProcessor processor(nullptr, 99, router,
                                  [&](const AuditEventProcessor::Tags&, edr::Event&)
                                  {
                                      ++handled;
                                      std::this_thread::sleep_for(1ms);
                                  });
    auto channel = std::make_unique<FakeChannel>();
    FakeChannel& input = *channel;
    // The smallest processing queue, 10,000 events: the parser blocks on it.
    CapturePipeline pipeline(std::move(channel), nullptr, processor, CapturePipeline::Limits{100, 1, 1});
    pipeline.Start();
    constexpr unsigned long kEvents = 25000;
    std::string text;
    for (unsigned long serial = 1; serial <= kEvents; ++serial)
    {
        text += CreateRecords(serial);
        if (serial % 500 == 0)
        {
            input.Push(text);
            text.clear();
        }
    }
    // Seconds of work queued behind the handler.
    for (int i = 0; i < 500 && handled.load() < 100; ++i)
    {
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_GE(handled.load(), 100u) << "the events reach the handler";
    std::this_thread::sleep_for(500ms);

    const auto started = std::chrono::steady_clock::now();
    pipeline.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
    EXPECT_LT(handled.load(), static_cast<size_t>(kEvents) / 2);
}

} // namespace
} // namespace vantor::audit
