#pragma once

#include <cstdint>

namespace vantor::audit
{

// What the capture path lost or held back since it was built, as totals:
// every place between the audit channel and the handlers that can drop text
// or events, and the pauses of the CPU limit. The counters behind it are
// relaxed atomics bumped where the loss happens; this is a copy of them.
struct CaptureCounters
{
    // Parser queue: buffers (and their bytes) refused while queueing was
    // off, and text still queued when the parser stopped.
    uint64_t queueDroppedBuffers = 0;
    uint64_t queueDroppedBytes = 0;
    uint64_t discardedBytesAtStop = 0;
    // Intake: events of system calls without an event class, events of
    // other record types, events their class refused (of failed calls,
    // and of the others), over-long lines cut out of the text, buffers that
    // libauparse failed on.
    uint64_t unsupportedSyscalls = 0;
    uint64_t otherRecords = 0;
    uint64_t failedCalls = 0;
    uint64_t malformedEvents = 0;
    uint64_t overlongLines = 0;
    uint64_t feedErrors = 0;
    // Processing: events whose handling failed, events still queued when
    // the processing thread stopped.
    uint64_t failedEvents = 0;
    uint64_t droppedAtStop = 0;
    // CPU limit: pauses begun and their whole length.
    uint64_t parserCpuPauses = 0;
    uint64_t parserPausedMs = 0;
    uint64_t processingCpuPauses = 0;
    uint64_t processingPausedMs = 0;
};

} // namespace vantor::audit
