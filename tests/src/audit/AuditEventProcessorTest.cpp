#include "tests/src/audit/AuditFixture.h"
#include "tests/src/audit/FakeProc.h"
#include "tests/src/audit/TestEvent.h"
#include "tests/support/LogCapture.h"

#include "audit/AuditEventProcessor.h"
#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace vantor::audit
{
namespace
{

using edr::EventRule;
using edr::EventType;
using test::MakeEvent;

constexpr pid_t kOwnPid = 99;

class AuditEventProcessorTest : public testing::Test
{
protected:
    void SetUp() override
    {
        m_router.AddRoute("files", {"fim", EventRule::DirectoryPathRule, {}, {"/watched"}});
        m_router.AddRoute("processes", {"ioc", EventRule::ProcessRule, {9, 10}, {}});
        m_router.AddRoute("network", {"ioc", EventRule::NetworkRule, {12}, {}});
    }

    // What the handlers would see: "tag:id" per tag, in tag order.
    AuditEventProcessor::Dispatch Recorder()
    {
        return [this](const AuditEventProcessor::Tags& tags, edr::Event& event)
        {
            std::vector<std::string> sorted(tags.begin(), tags.end());
            std::sort(sorted.begin(), sorted.end());
            for (const auto& tag : sorted)
            {
                m_seen.push_back(tag + ":" + std::to_string(event.GetEventId()));
            }
        };
    }

    void Process(std::unique_ptr<edr::Event> event) { m_processor.ProcessEvent(std::move(event)); }

    test::FakeProc m_proc;
    std::shared_ptr<ProcessTree> m_tree = std::make_shared<ProcessTree>(m_proc.Root());
    EventRouter m_router;
    std::vector<std::string> m_seen;
    AuditEventProcessor m_processor{m_tree, kOwnPid, m_router, Recorder()};
    test::LogCapture m_log{common::Logging::Edr()};
};

TEST_F(AuditEventProcessorTest, UnsuccessfulEventsAreDroppedExceptTwoCategories)
{
    auto failedOpen = MakeEvent(EventType::Read, 0, 21);
    failedOpen->successful = false;
    failedOpen->category = 4;
    Process(std::move(failedOpen));
    EXPECT_TRUE(m_seen.empty());
    EXPECT_TRUE(m_log.Contains("RuleEngine::ProcessEvent: Dropping unsuccessful Test event with ID 21"));

    for (uint32_t category : {1U, 2U})
    {
        auto failed = MakeEvent(EventType::Write, 0, 21 + category);
        failed->successful = false;
        failed->category = category;
        Process(std::move(failed));
    }
    EXPECT_EQ(m_seen, (std::vector<std::string>{"fim:22", "fim:23"}));
    EXPECT_TRUE(m_log.Contains("RuleEngine::ProcessEvent: Procesing event with ID 22"));
}

TEST_F(AuditEventProcessorTest, EventsOfHostAgentToolsTheirDescendantsAndTheDaemonAreDropped)
{
    m_proc.AddProcess(100, 1, "/usr/sbin/outpost-updater", 10);
    m_proc.AddProcess(101, 100, "/usr/bin/bash", 20);
    m_proc.AddProcess(102, 101, "/usr/bin/rpm", 30);
    m_proc.AddProcess(kOwnPid, 1, "/usr/sbin/corvid-edr", 5);
    m_proc.AddProcess(300, kOwnPid, "/usr/bin/sh", 40);

    Process(MakeEvent(EventType::Write, 102, 31)); // grandchild of a tool
    Process(MakeEvent(EventType::Write, 100, 32));
    Process(MakeEvent(EventType::Write, kOwnPid, 33));
    Process(MakeEvent(EventType::Write, 300, 34));  // child of the daemon
    Process(MakeEvent(EventType::Write, 4444, 36)); // unknown anywhere: processed
    Process(MakeEvent(EventType::AbnormalEnd, 102, 37));
    EXPECT_EQ(m_seen, (std::vector<std::string>{"fim:36", "ioc:37"}));
    EXPECT_EQ(m_log.Count("AuditRuleEngine::ShouldProcessEvent: Dropping Corvid generated event with ID: "),
              4U);
    EXPECT_TRUE(m_log.Contains("Dropping Corvid generated event with ID: 31"));
}

TEST_F(AuditEventProcessorTest, CloneAloneReachesNoHandlerAndNullIsRefused)
{
    auto fork = test::BuildEvents(test::AuditFixture("fork"));
    ASSERT_EQ(fork.at(0)->GetType(), EventType::Clone);
    Process(std::move(fork[0]));
    EXPECT_TRUE(m_seen.empty());
    EXPECT_EQ(m_tree->CloneCacheSize(), 1U);
    EXPECT_THAT([&] { m_processor.ProcessEvent(nullptr); },
                testing::ThrowsMessage<std::invalid_argument>(
                    testing::StrEq("RuleEngine::ProcessEvent: 'event' is nullptr")));
    EXPECT_THROW(AuditEventProcessor(m_tree, kOwnPid, m_router, {}), std::invalid_argument);

    // Without a tree a clone has no use either; other events go on.
    AuditEventProcessor treeless(nullptr, kOwnPid, m_router, Recorder());
    treeless.ProcessEvent(std::move(fork[2]));
    treeless.ProcessEvent(MakeEvent(EventType::Running, 300, 43));
    EXPECT_EQ(m_seen, (std::vector<std::string>{"ioc:43"}));
}

TEST_F(AuditEventProcessorTest, CachedFileEventsAreRefreshedAndGoFirst)
{
    auto cached = MakeEvent(EventType::Write, 0, 51);
    test::TestEvent* raw = cached.get();
    m_processor.CacheFileEvent(std::move(cached));
    EXPECT_EQ(raw->refreshed, 0);
    Process(MakeEvent(EventType::Write, 0, 52));
    EXPECT_EQ(m_seen, (std::vector<std::string>{"fim:51", "fim:52"}));
    EXPECT_EQ(m_processor.CachedFileEventCount(), 0U);

    class Broken : public test::TestEvent
    {
    public:
        void Refresh() override { throw std::runtime_error("gone"); }
    };
    auto broken = std::make_unique<Broken>();
    broken->id = 53;
    m_processor.CacheFileEvent(std::move(broken));
    m_processor.ProcessCachedFileEvents();
    EXPECT_TRUE(m_log.Contains("Failed to process cached file event with ID 53"));
}

TEST_F(AuditEventProcessorTest, AHandlerFailureIsLoggedAndTheNextEventGoesOn)
{
    int calls = 0;
    AuditEventProcessor processor(m_tree, kOwnPid, m_router,
                                  [&](const AuditEventProcessor::Tags&, edr::Event&)
                                  {
                                      if (++calls == 1)
                                      {
                                          throw std::runtime_error("handler broke");
                                      }
                                  });
    processor.ProcessEvent(MakeEvent(EventType::Write, 0, 61));
    processor.ProcessEvent(MakeEvent(EventType::Write, 0, 62));
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(m_log.Contains("Failed to process event with ID 61: handler broke"));
}

// Processes and their pseudo events as the handlers of one process rule see
// them.
class AuditEventProcessorTreeTest : public testing::Test
{
protected:
    using Seen = std::vector<std::pair<EventType, pid_t>>;

    // A tree whose pseudo running or terminate events are test events.
    static std::shared_ptr<ProcessTree> MakeTree(const test::FakeProc& proc, EventType pseudoType)
    {
        const auto pseudo = [pseudoType](const ProcessInfo& p)
        { return std::unique_ptr<edr::Event>(MakeEvent(pseudoType, p.GetPid(), 0)); };
        return pseudoType == EventType::Running ? std::make_shared<ProcessTree>(proc.Root(), pseudo)
                                                : std::make_shared<ProcessTree>(proc.Root(), nullptr, pseudo);
    }

    AuditEventProcessor MakeProcessor(EventType pseudoType, edr::EventRule::Action routed,
                                      std::chrono::seconds cleanInterval = ProcessTreeUpdater::kCleanInterval)
    {
        m_router.AddRoute("p", {"ioc", EventRule::ProcessRule, {routed}, {}});
        return AuditEventProcessor(
            MakeTree(m_proc, pseudoType), kOwnPid, m_router,
            [this](const AuditEventProcessor::Tags&, edr::Event& event)
            { m_seen.emplace_back(event.GetType(), event.GetActorProcessId()); },
            cleanInterval);
    }

    test::FakeProc m_proc;
    EventRouter m_router;
    Seen m_seen;
};

TEST_F(AuditEventProcessorTreeTest, AContainerRuntimeIsAnnouncedBeforeItsEvent)
{
    auto processor = MakeProcessor(EventType::Running, 9);
    m_proc.AddProcess(600, 1, "/usr/bin/conmon", 10);
    auto exec = MakeEvent(EventType::Running, 601, 61);
    exec->ppid = 600;
    exec->category = 3;
    processor.ProcessEvent(std::move(exec));
    EXPECT_EQ(m_seen, (Seen{{EventType::Running, 600}, {EventType::Running, 601}}));
}

TEST_F(AuditEventProcessorTreeTest, ProcessesThatEndedUnseenAreAnnouncedWhenTheTreeIsCleaned)
{
    test::LogCapture log(common::Logging::Edr(), Poco::Message::PRIO_DEBUG);
    // Not cleaned within a test's time the process stays unannounced;
    // cleaned after every event it is announced.
    for (const bool cleanedAlways : {false, true})
    {
        SCOPED_TRACE(cleanedAlways ? "cleaned after every event" : "rarely cleaned");
        auto processor =
            MakeProcessor(EventType::Exit, 11,
                          cleanedAlways ? std::chrono::seconds(0) : ProcessTreeUpdater::kCleanInterval);
        m_proc.AddProcess(700, 1, "/usr/bin/worker", 10);
        processor.ProcessEvent(MakeEvent(EventType::Write, 700, 71));
        m_proc.RemoveProcess(700);
        processor.ProcessEvent(MakeEvent(EventType::Write, 0, 72));
        EXPECT_EQ(m_seen, (cleanedAlways ? Seen{{EventType::Exit, 700}} : Seen{}));
        EXPECT_EQ(log.Contains(cleanedAlways ? "FileEventCache size:0 events, ProcessTree size:"
                                             : "FileEventCache size:"),
                  cleanedAlways);
    }
}

} // namespace
} // namespace vantor::audit
