#include "ioc/EventProcessor.h"

#include "common/Logging.h"
#include "ioc/EventFields.h"
#include "ioc/TtlProcessTree.h"

#include <ostream>

namespace vantor::ioc::internal
{

namespace
{

// Runs one step; what it throws ends only that step.
template <typename Step>
void Guarded(Step step)
{
    try
    {
        step();
    }
    catch (const TtlProcessTreeException& e)
    {
        EDR_LOG_ERROR("TTL exception: " << e.what());
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Failed to process event: " << e.what());
    }
}

// "<type> event for '<name>' process with pid <pid>" of the reporting lines;
// formatted only when a line is written.
struct Described
{
    const edr::Event& event;
    pid_t pid;
};

std::ostream& operator<<(std::ostream& out, const Described& described)
{
    return out << described.event.GetActionName() << " event for '"
               << EventFields::ProcessName(described.event) << "' process with pid " << described.pid;
}

} // namespace

EventProcessor::EventProcessor(TtlProcessTree& tree, Engine& filtering, Engine& hashMatching,
                               Engine& heuristics, Engine& tagging, ReportSink report,
                               std::function<void()> swept, Clock clock)
    : m_tree(tree)
    , m_filtering(filtering)
    , m_hashMatching(hashMatching)
    , m_heuristics(heuristics)
    , m_tagging(tagging)
    , m_report(std::move(report))
    , m_swept(std::move(swept))
    , m_clock(std::move(clock))
{
}

void EventProcessor::Process(const EventPtr& event)
{
    if (event)
    {
        Guarded([&] { Handle(event); });
    }
    Guarded([&] { CleanUp(); });
}

void EventProcessor::Handle(const EventPtr& event)
{
    if (!EventFields::IsSuccessful(*event))
    {
        EDR_LOG_DEBUG("Dropping unsuccessful " << event->GetActionName() << " event with ID "
                                               << event->GetEventId());
        return;
    }
    const edr::EventType type = event->GetType();
    const pid_t pid = event->GetActorProcessId();
    bool reported = m_tree.HasTag(pid, TtlProcessTree::kReported);
    if (reported)
    {
        ReportPending(pid);
    }

    const bool running = type == edr::EventType::Running;
    if (running)
    {
        m_tree.AddOrUpdate(*event);
        // A reused pid is a new process that nobody reported yet.
        reported = reported && m_tree.HasTag(pid, TtlProcessTree::kReported);
    }
    else if (type == edr::EventType::Exit || type == edr::EventType::AbnormalEnd)
    {
        m_tree.MarkTerminated(pid);
    }
    if (m_heuristics.GetVerdict(event) == Verdict::Clean)
    {
        EDR_LOG_DEBUG("Dropping " << event->GetActionName() << " event for process " << pid
                                  << " based on heuristics");
        return;
    }
    const bool cached = m_tree.CacheEvent(event);

    const Verdict hash = m_hashMatching.GetVerdict(event);
    if (hash > Verdict::CleanWithoutHash)
    {
        ReportWithCached(event, pid, cached, !reported);
    }
    else if (hash == Verdict::CleanWithoutHash && running)
    {
        // The start of a known executable is worth a report; its other
        // events are not, unless tagging says so.
        ReportWithCached(event, pid, cached, false);
    }
    else if (m_tagging.GetVerdict(event) > Verdict::CleanWithoutHash || reported)
    {
        ReportWithCached(event, pid, cached, !reported);
    }
    else
    {
        EDR_LOG_DEBUG("Ignoring " << event->GetActionName() << " event for clean process with pid " << pid);
    }
}

void EventProcessor::ReportPending(pid_t pid)
{
    const auto pending = m_tree.TakeCachedEvents(pid);
    if (pending.empty())
    {
        return;
    }
    for (const auto& event : pending)
    {
        EDR_LOG_DEBUG("Processing pending Event: " << event->GetActionName() << ". Event ID: "
                                                   << event->GetEventId() << ". PID: " << pid);
    }
    Report(pending, pid, false);
    Sweep();
}

void EventProcessor::ReportWithCached(const EventPtr& event, pid_t pid, bool cached, bool markReported)
{
    auto events = m_tree.TakeCachedEvents(pid);
    if (!cached)
    {
        events.push_back(event);
    }
    Report(events, pid, markReported);
}

void EventProcessor::Report(const std::vector<EventPtr>& events, pid_t pid, bool markReported)
{
    for (const auto& event : events)
    {
        if (m_filtering.GetVerdict(event) == Verdict::Clean)
        {
            EDR_LOG_DEBUG("Filtering out " << (Described{*event, pid}));
            continue;
        }
        EDR_LOG_DEBUG("Reporting " << (Described{*event, pid}));
        if (markReported)
        {
            MarkReported(pid);
            markReported = false;
        }
        Send(event);
    }
}

void EventProcessor::Send(const EventPtr& event)
{
    try
    {
        m_report(event);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_ERROR("Failed to generate protobuf: " << e.what());
    }
}

void EventProcessor::MarkReported(pid_t pid)
{
    if (m_tree.HasTag(pid, TtlProcessTree::kExcluded))
    {
        EDR_LOG_DEBUG("Removing 'Excluded' tag from process " << pid);
        m_tree.RemoveTag(pid, TtlProcessTree::kExcluded);
    }
    m_tree.AddTag(pid, TtlProcessTree::kReported);
}

void EventProcessor::Sweep()
{
    m_lastCleanUp = m_clock();
    if (m_tree.DeleteStaleProcesses() && m_swept)
    {
        m_swept();
    }
}

void EventProcessor::CleanUp()
{
    if (m_clock() - m_lastCleanUp > kCleanUpInterval)
    {
        Sweep();
    }
}

} // namespace vantor::ioc::internal
