#pragma once

#include "audit/AuditEventBuilder.h"
#include "audit/CaptureCounters.h"
#include "audit/EventProcessingThread.h"
#include "audit/ParserThread.h"
#include "common/IOChannel.h"

#include <functional>
#include <memory>

namespace vantor::audit
{

class AuditEventProcessor;

// The capture path from an audit channel to the rule engine: the channel's
// raw text goes to the parser thread, whose typed events go to the
// processing thread, whose event processor routes them to the handlers.
// Start() starts the consumers before the channel. Stop() stops the channel
// first, then the processing thread, then the parser; it does not wait for a
// backlog to be worked off: text and events still queued are dropped (a
// parser blocked on the full processing queue is released by the stop).
class CapturePipeline
{
public:
    using CpuUsage = std::function<float()>;

    struct Limits
    {
        uint64_t cpuPercent = 100;
        uint64_t memoryPercent = 0;
        uint64_t totalMemoryKb = 0;
    };

    // cpuUsage makes one sampler per thread (a sampler is not shared between
    // threads); empty: no throttling.
    CapturePipeline(std::unique_ptr<common::IOChannel> channel,
                    std::shared_ptr<const edr::LibMagicWrapper> magic, AuditEventProcessor& processor,
                    Limits limits, const std::function<CpuUsage()>& makeCpuUsage = {});
    ~CapturePipeline();

    CapturePipeline(const CapturePipeline&) = delete;
    CapturePipeline& operator=(const CapturePipeline&) = delete;

    // Throws IOChannelException when the channel cannot be opened.
    void Start();
    void Stop();

    // The channel, for what it counts (KernelIOChannel::GetOverflowCount).
    const common::IOChannel& GetChannel() const { return *m_channel; }

    // What the parser, the intake and the processing lost so far, and their
    // CPU pauses; callable from any thread.
    CaptureCounters GetCounters() const;

private:
    std::unique_ptr<common::IOChannel> m_channel;
    const AuditEventProcessor& m_processor;
    AuditEventBuilder m_builder;
    EventProcessingThread m_processing;
    ParserThread m_parser;
    bool m_started = false;
};

} // namespace vantor::audit
