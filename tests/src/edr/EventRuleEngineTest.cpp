#include "edr/EventRuleEngine.h"

#include "common/Logging.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

using vantor::edr::Event;
using vantor::edr::EventRuleEngine;
using vantor::test::ExpectThrowText;

namespace
{

class FileEvent : public Event
{
public:
    explicit FileEvent(std::string file)
        : m_file(std::move(file))
    {
    }
    std::string GetFile() const override { return m_file; }

private:
    std::string m_file;
};

// Exposes the protected dispatch as the audit rule engine would use it.
class TestEngine : public EventRuleEngine
{
public:
    using EventRuleEngine::DispatchEvent;
    using EventRuleEngine::InvalidateEventHandlers;
    void AddRules(const Rules&, const std::string&) override {}
    void DeleteRules(const std::string&) override {}
};

const auto kNoInvalidate = [] {};

} // namespace

TEST(EventRuleEngineTest, RegistrationIsCheckedLoggedReplacedAndRemoved)
{
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    TestEngine engine;
    const auto onEvent = [](Event&) {};
    const std::string prefix = "EventRuleEngine::RegisterEventHandlers: ";
    ExpectThrowText<std::exception>([&] { engine.RegisterEventHandlers("", onEvent, kNoInvalidate); },
                                    prefix + "'tag' is empty");
    ExpectThrowText<std::exception>([&] { engine.RegisterEventHandlers("fim", nullptr, kNoInvalidate); },
                                    prefix + "'ruleMatchedEventHandler' is invalid");
    ExpectThrowText<std::exception>([&] { engine.RegisterEventHandlers("fim", onEvent, nullptr); },
                                    prefix + "'invalidatedEventHandler' is invalid");
    ExpectThrowText<std::exception>([&] { engine.UnregisterEventHandlers(""); },
                                    "EventRuleEngine::UnregisterEventHandlers: 'tag' is empty");
    EXPECT_FALSE(engine.HasEventHandlers("fim"));

    int first = 0;
    int second = 0;
    engine.RegisterEventHandlers(
        "fim", [&](Event&) { ++first; }, kNoInvalidate);
    EXPECT_TRUE(log.Contains(prefix + "Adding event handlers for 'fim'"));
    engine.RegisterEventHandlers(
        "fim", [&](Event&) { ++second; }, kNoInvalidate);
    EXPECT_TRUE(log.Contains(prefix + "Replacing event handlers for 'fim'"));
    FileEvent event("/etc/passwd");
    engine.DispatchEvent({"fim"}, event);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);

    engine.UnregisterEventHandlers("fim");
    EXPECT_TRUE(log.Contains("EventRuleEngine::UnregisterEventHandlers: Removing event handlers for 'fim'"));
    engine.UnregisterEventHandlers("fim");
    EXPECT_TRUE(log.Contains("EventRuleEngine::UnregisterEventHandlers: No event handlers found for 'fim'"));
    engine.DispatchEvent({"fim"}, event);
    EXPECT_EQ(second, 1);

    // Unregistering from inside a handler fails instead of deadlocking.
    bool refused = false;
    engine.RegisterEventHandlers(
        "self",
        [&](Event&)
        {
            try
            {
                engine.UnregisterEventHandlers("self");
            }
            catch (const std::logic_error&)
            {
                refused = true;
            }
        },
        kNoInvalidate);
    engine.DispatchEvent({"self"}, event);
    EXPECT_TRUE(refused);
    EXPECT_TRUE(engine.HasEventHandlers("self"));
}

TEST(EventRuleEngineTest, DispatchAndInvalidationReachTheirTagsAndSurviveAThrowingHandler)
{
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    TestEngine engine;
    std::vector<std::string> seen;
    int invalidated = 0;
    engine.RegisterEventHandlers(
        "bad", [](Event& e) { throw std::runtime_error("broken " + e.GetFile()); }, kNoInvalidate);
    engine.RegisterEventHandlers(
        "fim", [&](Event& e) { seen.push_back("fim:" + e.GetFile()); }, [&] { ++invalidated; });
    engine.RegisterEventHandlers(
        "ioc", [&](Event& e) { seen.push_back("ioc:" + e.GetFile()); },
        [] { throw std::runtime_error("no"); });
    engine.RegisterEventHandlers(
        "other", [&](Event&) { seen.push_back("other"); }, [&] { ++invalidated; });
    // The event class carries no type: asking for it throws the event's own
    // exception, which is caught as well.
    engine.RegisterEventHandlers(
        "typed", [](Event& e) { e.GetType(); }, kNoInvalidate);

    FileEvent event("/tmp/x");
    engine.DispatchEvent({"bad", "fim", "ioc", "typed", "unknown"}, event);
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<std::string>{"fim:/tmp/x", "ioc:/tmp/x"}));
    EXPECT_TRUE(log.Contains("Exception: broken /tmp/x"));
    EXPECT_EQ(log.Count("Exception: "), 2U);

    engine.InvalidateEventHandlers(); // every tag, past one that throws
    EXPECT_EQ(invalidated, 2);
}

// After a tag is unregistered its handler must never run again, so the
// state it uses can go, while other threads dispatch.
TEST(EventRuleEngineTest, ConcurrentDispatchAndRegistration)
{
    TestEngine engine;
    std::atomic<bool> stop{false};
    std::atomic<long> calls{0};
    std::vector<std::jthread> dispatchers;
    for (int t = 0; t < 3; ++t)
    {
        dispatchers.emplace_back(
            [&]
            {
                FileEvent event("/var/log/messages");
                while (!stop.load())
                {
                    engine.DispatchEvent({"t0", "t1", "t2", "t3"}, event);
                }
            });
    }
    for (std::vector<std::jthread> registrars; registrars.size() < 2;) // joined as the loop ends
    {
        registrars.emplace_back(
            [&, t = static_cast<int>(registrars.size())]
            {
                for (int i = 0; i < 300; ++i)
                {
                    const std::string tag = "t" + std::to_string((i + t) % 4);
                    auto owned = std::make_unique<std::string>(tag);
                    engine.RegisterEventHandlers(
                        tag,
                        [&calls, state = owned.get()](Event& e)
                        {
                            if (!state->empty() && !e.GetFile().empty())
                            {
                                ++calls;
                            }
                        },
                        kNoInvalidate);
                    std::this_thread::yield();
                    engine.UnregisterEventHandlers(tag);
                    owned.reset();
                }
            });
    }
    stop = true;
    dispatchers.clear();
    for (int i = 0; i < 4; ++i)
    {
        EXPECT_FALSE(engine.HasEventHandlers("t" + std::to_string(i)));
    }
    const long before = calls.load();
    engine.RegisterEventHandlers(
        "t0", [&calls](Event&) { ++calls; }, kNoInvalidate);
    FileEvent event("/x");
    engine.DispatchEvent({"t0"}, event);
    EXPECT_EQ(calls.load(), before + 1);
}
