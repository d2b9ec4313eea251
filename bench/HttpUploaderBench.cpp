// Upload throughput of the HTTP layer: 100 KB JSON-like payloads, LZMA
// compressed, HMAC signed, over loopback TLS to the local test receiver.
// Reports uploads per second and the process CPU time spent per MB of
// payload (client and receiver share the process, so the CPU figure is an
// upper bound for the client side).
#include "common/HmacRequestSigner.h"
#include "common/HttpService.h"
#include "common/HttpUploader.h"
#include "common/LzmaHttpInterceptor.h"
#include "tools/TestReceiver.h"

#include <benchmark/benchmark.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>

using namespace vantor::common;

namespace
{

std::string Payload(std::size_t size)
{
    // Event documents compress well but not trivially: repeated keys with
    // varying values.
    std::mt19937 rng(3);
    std::string out = "{\"events\":[";
    while (out.size() < size)
    {
        out += "{\"path\":\"/var/lib/app/file" + std::to_string(rng() % 100000) +
               "\",\"pid\":" + std::to_string(rng() % 65536) + ",\"sha256\":\"" + std::to_string(rng()) +
               std::to_string(rng()) + "\"},";
    }
    out.resize(size - 2);
    out += "]}";
    return out;
}

double ProcessCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void BM_Upload100KbLzma(benchmark::State& state)
{
    char pattern[] = "/tmp/corvid-bench-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    std::filesystem::create_directories(dir + "/out");
    std::ofstream(dir + "/key") << "bench-key";
    vantor::tools::TestReceiver::Options options;
    options.outputDir = dir + "/out";
    options.certDir = dir;
    options.hmacKey = "bench-key";
    vantor::tools::TestReceiver receiver(options);
    receiver.Start();

    HttpServiceSettings settings;
    settings.caCertPath = receiver.Certificate().certPath;
    settings.useSystemProxy = false;
    settings.customerId = "bench";
    settings.agentId = "bench";
    auto service = std::make_shared<HttpService>(settings, std::make_shared<HmacRequestSigner>(dir + "/key"));
    service->AddInterceptor(std::make_shared<LzmaHttpInterceptor>());
    service->Start();
    HttpUploader uploader(service, 1);
    const std::string payload = Payload(100 * 1024);
    const std::string url = receiver.Url("/upload/bench");

    std::size_t failures = 0;
    const double cpuStart = ProcessCpuSeconds();
    for (auto _ : state)
    {
        std::promise<bool> done;
        uploader.Upload(url, payload, "application/json", "fim", [&](bool ok) { done.set_value(ok); });
        if (!done.get_future().get())
        {
            ++failures;
        }
    }
    const double cpu = ProcessCpuSeconds() - cpuStart;
    const double megabytes =
        static_cast<double>(payload.size()) * static_cast<double>(state.iterations()) / 1e6;
    state.counters["uploads_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["cpu_ms_per_MB"] = cpu * 1000.0 / megabytes;
    state.counters["failures"] = static_cast<double>(failures);
    state.SetBytesProcessed(static_cast<int64_t>(payload.size()) * state.iterations());
    service->Stop();
    receiver.Stop();
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_Upload100KbLzma)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
