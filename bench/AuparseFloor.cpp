#include "bench/AuparseFloor.h"

#include "bench/ResourceUsage.h"

#include <benchmark/benchmark.h>

#include <auparse.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace vantor::bench
{

namespace
{

void Walk(auparse_state_t* state, auparse_cb_event_t type, void* data)
{
    if (type != AUPARSE_CB_EVENT_READY)
    {
        return;
    }
    auto& result = *static_cast<AuparseFloor::Result*>(data);
    ++result.events;
    if (::auparse_first_record(state) <= 0)
    {
        return;
    }
    do
    {
        ++result.records;
        if (::auparse_first_field(state) <= 0)
        {
            continue;
        }
        do
        {
            ++result.fields;
            const char* name = ::auparse_get_field_name(state);
            const char* value = ::auparse_get_field_str(state);
            result.bytesRead +=
                (name != nullptr ? std::strlen(name) : 0) + (value != nullptr ? std::strlen(value) : 0);
        } while (::auparse_next_field(state) > 0);
    } while (::auparse_next_record(state) > 0);
}

struct AuparseDeleter
{
    void operator()(auparse_state_t* state) const { ::auparse_destroy(state); }
};

} // namespace

AuparseFloor::Result AuparseFloor::Run(std::string_view text, size_t chunkSize)
{
    Result result;
    std::unique_ptr<auparse_state_t, AuparseDeleter> state(::auparse_init(AUSOURCE_FEED, nullptr));
    if (!state)
    {
        throw std::runtime_error("AuparseFloor: auparse_init failed");
    }
    ::auparse_add_callback(state.get(), &Walk, &result, nullptr);
    for (size_t at = 0; at < text.size(); at += chunkSize)
    {
        const size_t size = std::min(chunkSize, text.size() - at);
        if (::auparse_feed(state.get(), text.data() + at, size) < 0)
        {
            throw std::runtime_error("AuparseFloor: auparse_feed failed");
        }
    }
    ::auparse_flush_feed(state.get());
    return result;
}

double AuparseFloor::Measure(benchmark::State& state, std::string_view text, uint64_t expectedEvents)
{
    Result result;
    double cpu = 0;
    for (auto _ : state)
    {
        const double before = ResourceUsage::ProcessCpuSeconds();
        result = Run(text);
        benchmark::DoNotOptimize(result);
        cpu += ResourceUsage::ProcessCpuSeconds() - before;
    }
    // Every event of the corpus must have come through whole.
    if (result.events != expectedEvents)
    {
        state.SkipWithError("libauparse did not report every event of the corpus");
        return 0;
    }
    const double events = static_cast<double>(result.events) * static_cast<double>(state.iterations());
    const double nsPerEvent = cpu * 1e9 / events;
    state.SetItemsProcessed(static_cast<int64_t>(events));
    state.counters["cpu_ns_per_event"] = nsPerEvent;
    state.counters["events"] = static_cast<double>(result.events);
    state.counters["records"] = static_cast<double>(result.records);
    return nsPerEvent;
}

} // namespace vantor::bench
