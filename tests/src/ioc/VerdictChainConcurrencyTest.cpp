// The engines re-configured on one thread while another processes events,
// as a configuration update does while the processing thread runs; meant
// for the sanitizer builds, which see the races a plain build hides.

#include "ioc/EventProcessor.h"
#include "ioc/FilteringEngine.h"
#include "ioc/HashMatchingEngine.h"
#include "ioc/HeuristicsEngine.h"
#include "ioc/NetworkRule.h"
#include "ioc/TtlProcessTree.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/src/ioc/IocTestJson.h"
#include "tests/src/ioc/ScriptedEngine.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace vantor;
using namespace ioc::internal;
using ioc::test::IocTestEvent;

TEST(VerdictChainConcurrencyTest, EnginesAreReconfiguredWhileEventsAreProcessed)
{
    test::TempDir dir;
    const std::string tool = dir.Write("tool", "#!/bin/sh\n");
    ioc::test::FakeProc proc;
    ioc::TtlProcessTree tree(proc.Root());
    FilteringEngine filtering(tree);
    HashMatchingEngine hashMatching(tree);
    HeuristicsEngine heuristics(tree, true);
    ioc::test::ScriptedEngine tagging;
    std::atomic<uint64_t> reported{0};
    EventProcessor processor(tree, filtering, hashMatching, heuristics, tagging,
                             [&](const auto&) { ++reported; });

    const auto connects =
        std::make_shared<const FilteringEngine::Rules>(FilteringEngine::Rules{std::make_shared<NetworkRule>(
            ioc::test::Json(R"({"ruleId": "c", "ruleType": "Network", "notify": ["establish"]})"))});
    const auto none = std::make_shared<const FilteringEngine::Rules>();
    std::atomic<bool> done{false};
    std::atomic<int> updates{0};
    std::thread updater(
        [&]
        {
            for (int i = 0; !done; ++i, ++updates)
            {
                filtering.SetRules(i % 2 == 0 ? connects : none);
                hashMatching.Reset(i % 2 == 0 ? std::vector<std::string>{tool} : std::vector<std::string>{},
                                   1024);
                heuristics.Reconfigure(i % 3 != 0);
            }
        });

    while (updates.load() == 0)
    {
        std::this_thread::yield();
    }
    constexpr pid_t kProcesses = 50;
    for (uint32_t id = 1; id <= 3000 || updates.load() < 100; ++id)
    {
        const pid_t pid = 100 + static_cast<pid_t>(id % kProcesses);
        IocTestEvent event;
        if (id <= kProcesses)
        {
            event = ioc::test::ProcessEvent(edr::EventType::Running, tool);
            event.ppid = 100;
        }
        else if (id % 2 == 0)
        {
            event =
                ioc::test::NetworkEvent(edr::EventType::Connect, "10.0.0.1", static_cast<uint16_t>(id % 7));
        }
        else
        {
            event = ioc::test::FileEvent(edr::EventType::Write, tool);
        }
        event.pid = pid;
        event.id = id;
        processor.Process(std::make_shared<IocTestEvent>(event));
    }
    done = true;
    updater.join();
    EXPECT_EQ(tree.Size(), static_cast<size_t>(kProcesses));

    // The last configuration holds for the next events: a connection of a
    // process the chain has not seen is reported.
    filtering.SetRules(connects);
    hashMatching.Reset({}, 1024);
    heuristics.Reconfigure(false);
    const uint64_t before = reported.load();
    auto start = ioc::test::RunningEvent(999, 1, tool);
    start.id = 1;
    processor.Process(std::make_shared<IocTestEvent>(start));
    auto connect = ioc::test::By(999, ioc::test::NetworkEvent(edr::EventType::Connect, "10.0.0.1", 1));
    connect.id = 2;
    processor.Process(std::make_shared<IocTestEvent>(connect));
    EXPECT_EQ(reported.load() - before, 1u);
}
