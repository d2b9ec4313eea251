#pragma once

#include "ioc/Engine.h"

#include <chrono>
#include <functional>
#include <sys/types.h>
#include <vector>

namespace vantor::ioc
{
class TtlProcessTree;
}

namespace vantor::ioc::internal
{

// Runs each event through the verdict chain and decides whether it is
// reported (handed to the report sink), kept in the process tree's cache
// until its process is worth reporting, or dropped:
//
//  1. an unsuccessful event is dropped before any engine sees it;
//  2. a process already reported first has its cached events reported, in
//     event id order;
//  3. a process-running event adds or updates its process in the tree, an
//     exit or abnormal end marks it terminated; the heuristics engine
//     drops behaviour seen often enough ("Clean"); an event it keeps is
//     cached under its process (a start too, so that a process reported
//     later is reported with its start);
//  4. the hash matching engine judges the process;
//  5. the event is reported when that verdict is worse than
//     "CleanWithoutHash"; when it is "CleanWithoutHash" (a known
//     executable) and the event starts the process; or when the process is
//     reported already or the tagging engine's verdict is worse than
//     "CleanWithoutHash". Otherwise it waits in the cache;
//  6. reporting takes the process's cached events with the current one and
//     asks the filtering engine for each: "Clean" drops it, any other
//     verdict hands it to the sink and marks the process "Reported"
//     (removing "Excluded") unless only the start of a known executable is
//     reported. A sink that throws loses that one event ("Failed to
//     generate protobuf: ");
//  7. at most once a second the tree deletes its stale processes, and the
//     sweep callback runs when it did;
//  8. a TtlProcessTreeException ("TTL exception: ") or any other exception
//     ("Failed to process event: ") is logged and ends only that event.
//
// The engines, the tree and the callbacks must outlive the processor. Only
// one thread calls Process; the engines may be re-configured meanwhile.
class EventProcessor
{
public:
    using EventPtr = Engine::EventPtr;
    using ReportSink = std::function<void(const EventPtr&)>;
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    static constexpr std::chrono::seconds kCleanUpInterval{1};

    EventProcessor(TtlProcessTree& tree, Engine& filtering, Engine& hashMatching, Engine& heuristics,
                   Engine& tagging, ReportSink report, std::function<void()> swept = {},
                   Clock clock = std::chrono::steady_clock::now);

    EventProcessor(const EventProcessor&) = delete;
    EventProcessor& operator=(const EventProcessor&) = delete;

    // Never throws for an event's failure.
    void Process(const EventPtr& event);

private:
    void Handle(const EventPtr& event);
    void ReportPending(pid_t pid);
    // The process's cached events, with the current one when it is not
    // among them.
    void ReportWithCached(const EventPtr& event, pid_t pid, bool cached, bool markReported);
    void Report(const std::vector<EventPtr>& events, pid_t pid, bool markReported);
    void Send(const EventPtr& event);
    void MarkReported(pid_t pid);
    void Sweep();
    void CleanUp();

    TtlProcessTree& m_tree;
    Engine& m_filtering;
    Engine& m_hashMatching;
    Engine& m_heuristics;
    Engine& m_tagging;
    const ReportSink m_report;
    const std::function<void()> m_swept;
    const Clock m_clock;
    std::chrono::steady_clock::time_point m_lastCleanUp{};
};

} // namespace vantor::ioc::internal
