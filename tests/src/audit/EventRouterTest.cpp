#include "tests/src/audit/FakeProc.h"
#include "tests/src/audit/TestEvent.h"
#include "tests/support/LogCapture.h"

#include "audit/EventRouter.h"
#include "common/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vantor::audit
{
namespace
{

using edr::EventRule;
using edr::EventType;
using test::MakeEvent;

class TestRouter : public EventRouter
{
public:
    using EventRouter::AddRoute;
    using EventRouter::EventRouter;
    using EventRouter::RemoveRoute;
    void AddRules(const Rules&, const std::string&) override {}
    void DeleteRules(const std::string&) override {}
};

class EventRouterTest : public testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* tag : {"fim", "ioc"})
        {
            m_router.RegisterEventHandlers(
                tag,
                [this, tag](edr::Event& event)
                { m_seen.push_back(tag + std::string(":") + std::to_string(event.GetEventId())); },
                [] {});
        }
        m_router.AddRoute("fim", EventRule::DirectoryPathRule, {5}, {"/watched"});
        m_router.AddRoute("ioc", EventRule::ProcessRule, {9, 10}, {});
        m_router.AddRoute("ioc", EventRule::NetworkRule, {12}, {});
    }

    void Process(std::unique_ptr<edr::Event> event) { m_router.ProcessEvent(std::move(event)); }

    static constexpr pid_t kOwnPid = 99;
    test::FakeProc m_proc;
    std::shared_ptr<ProcessTree> m_tree = std::make_shared<ProcessTree>(m_proc.Root());
    TestRouter m_router{m_tree, kOwnPid};
    std::vector<std::string> m_seen;
    test::LogCapture m_log{common::Logging::Edr()};
};

TEST_F(EventRouterTest, EventsReachTheTagsOfTheirPathOrAction)
{
    Process(MakeEvent(EventType::Write, 0, 1)); // /watched/file
    auto outside = MakeEvent(EventType::Write, 0, 2);
    outside->file = "/elsewhere/file";
    Process(std::move(outside));
    auto renamedIn = MakeEvent(EventType::Rename, 0, 3);
    renamedIn->file = "/tmp/x";
    renamedIn->newFile = "/watched/x";
    Process(std::move(renamedIn));
    Process(MakeEvent(EventType::Running, 0, 4));
    Process(MakeEvent(EventType::Exit, 0, 5)); // no rule asked for exits
    Process(MakeEvent(EventType::Connect, 0, 6));
    Process(MakeEvent(EventType::Bind, 0, 7));
    Process(MakeEvent(EventType::AbnormalEnd, 0, 8));
    EXPECT_EQ(m_seen, (std::vector<std::string>{"fim:1", "fim:3", "ioc:4", "ioc:6", "ioc:8"}));

    m_seen.clear();
    m_router.RemoveRoute("ioc", EventRule::NetworkRule, {12}, {});
    m_router.RemoveRoute("fim", EventRule::DirectoryPathRule, {5}, {"/watched"});
    Process(MakeEvent(EventType::Connect, 0, 9));
    Process(MakeEvent(EventType::Write, 0, 10));
    EXPECT_TRUE(m_seen.empty());
}

TEST_F(EventRouterTest, UnsuccessfulEventsAreDroppedExceptTwoCategories)
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

TEST_F(EventRouterTest, EventsOfHostAgentToolsTheirDescendantsAndTheDaemonAreDropped)
{
    m_proc.AddProcess(100, 1, "/usr/sbin/outpost-updater", 10);
    m_proc.AddProcess(101, 100, "/usr/bin/bash", 20);
    m_proc.AddProcess(102, 101, "/usr/bin/rpm", 30);
    m_proc.AddProcess(200, 1, "/usr/bin/outpost-probe", 10); // half of a run-together entry
    m_proc.AddProcess(kOwnPid, 1, "/usr/sbin/corvid-edr", 5);

    Process(MakeEvent(EventType::Write, 102, 31)); // grandchild of a tool
    Process(MakeEvent(EventType::Write, 100, 32));
    Process(MakeEvent(EventType::Write, kOwnPid, 33));
    Process(MakeEvent(EventType::Write, 200, 34));
    Process(MakeEvent(EventType::Write, 4444, 35)); // unknown anywhere: processed
    Process(MakeEvent(EventType::AbnormalEnd, 102, 36));
    EXPECT_EQ(m_seen, (std::vector<std::string>{"fim:34", "fim:35", "ioc:36"}));
    EXPECT_EQ(m_log.Count("AuditRuleEngine::ShouldProcessEvent: Dropping Corvid generated event with ID: "),
              3U);
    EXPECT_TRUE(m_log.Contains("Dropping Corvid generated event with ID: 31"));
}

TEST_F(EventRouterTest, CloneAloneReachesNoHandlerAndNullIsRefused)
{
    Process(MakeEvent(EventType::Clone, 300, 41));
    EXPECT_TRUE(m_seen.empty());
    EXPECT_EQ(m_tree->CloneCacheSize(), 1U);
    EXPECT_THAT([&] { m_router.ProcessEvent(nullptr); },
                testing::ThrowsMessage<std::invalid_argument>(
                    testing::StrEq("RuleEngine::ProcessEvent: 'event' is nullptr")));
}

TEST_F(EventRouterTest, CachedFileEventsAreRefreshedAndGoFirst)
{
    auto cached = MakeEvent(EventType::Write, 0, 51);
    test::TestEvent* raw = cached.get();
    m_router.CacheFileEvent(std::move(cached));
    EXPECT_EQ(raw->refreshed, 0);
    Process(MakeEvent(EventType::Write, 0, 52));
    EXPECT_EQ(m_seen, (std::vector<std::string>{"fim:51", "fim:52"}));
    EXPECT_EQ(m_router.CachedFileEventCount(), 0U);

    class Broken : public test::TestEvent
    {
    public:
        void Refresh() override { throw std::runtime_error("gone"); }
    };
    auto broken = std::make_unique<Broken>();
    broken->id = 53;
    m_router.CacheFileEvent(std::move(broken));
    m_router.ProcessCachedFileEvents();
    EXPECT_TRUE(m_log.Contains("Failed to process cached file event with ID 53"));
}

TEST_F(EventRouterTest, AContainerRuntimeIsAnnouncedToProcessRulesBeforeItsEvent)
{
    auto tree = std::make_shared<ProcessTree>(m_proc.Root(),
                                              [](const ProcessInfo& p)
                                              {
                                                  auto event = MakeEvent(EventType::Running, p.GetPid(), 0);
                                                  return std::unique_ptr<edr::Event>(std::move(event));
                                              });
    TestRouter router(tree, kOwnPid);
    std::vector<std::pair<EventType, pid_t>> seen;
    router.RegisterEventHandlers(
        "ioc", [&](edr::Event& event) { seen.emplace_back(event.GetType(), event.GetActorProcessId()); },
        [] {});
    router.AddRoute("ioc", EventRule::ProcessRule, {9}, {});
    m_proc.AddProcess(600, 1, "/usr/bin/conmon", 10);
    auto exec = MakeEvent(EventType::Running, 601, 61);
    exec->ppid = 600;
    exec->category = 3;
    router.ProcessEvent(std::move(exec));
    EXPECT_EQ(seen, (std::vector<std::pair<EventType, pid_t>>{{EventType::Running, 600},
                                                              {EventType::Running, 601}}));
}

} // namespace
} // namespace vantor::audit
