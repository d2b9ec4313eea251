#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace benchmark
{
class State;
}

namespace vantor::bench
{

// The least any consumer of libauparse pays: feed mode, the text in chunks,
// and a callback that only walks every record and field of each complete
// event, reading names and values. The yardstick for the event intake.
class AuparseFloor
{
public:
    struct Result
    {
        uint64_t events = 0;
        uint64_t records = 0;
        uint64_t fields = 0;
        uint64_t bytesRead = 0; // of names and values, so nothing is optimised away
    };

    static constexpr size_t kChunkSize = 64 * 1024;

    // Throws std::runtime_error when libauparse cannot be set up or fails.
    static Result Run(std::string_view text, size_t chunkSize = kChunkSize);

    // The body of a Google Benchmark of the floor: runs the text once per
    // iteration, checks that libauparse reported expectedEvents, sets the
    // items processed and the "cpu_ns_per_event" counter, and answers the
    // CPU ns per event (0 when the run was refused).
    static double Measure(benchmark::State& state, std::string_view text, uint64_t expectedEvents);
};

} // namespace vantor::bench
