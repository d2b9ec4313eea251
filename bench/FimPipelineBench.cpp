// File integrity monitoring from raw audit text to the receiver:
//  1. raw text -> AuparseFeed + AuditEventBuilder -> AuditEventProcessor (with the
//     process tree) -> the FIM component's event processor -> FIM spool files
//     on a temporary directory, on one thread as the processing thread runs
//     it; the files the events name exist (made by the corpus) so stat,
//     content and SHA-256 reads are real;
//  2. the spool files -> the FIM upload schedule -> HttpUploader (LZMA,
//     HMAC-signed) -> the local test receiver over loopback TLS.
// The FIM component adds its rules to a router that installs their routes
// instead of kernel rules.
//
// Usage: FimPipelineBench [events] [--show] (default 100000 events; --show
// prints one document). Prints documents per
// second for each stage and for the two together, CPU seconds (getrusage,
// all threads; the receiver shares the process during the upload) and the
// peak RSS. Last, the heap that one document waiting for its file to settle
// holds: the same events into an event processor that lets none settle;
// and the CPU time to build them.

#include "bench/AuditCorpus.h"
#include "bench/ResourceUsage.h"

#include "audit/AuditEventBuilder.h"
#include "audit/AuditEventProcessor.h"
#include "audit/AuparseFeed.h"
#include "audit/EventRouter.h"
#include "audit/ProcessTree.h"
#include "common/HmacRequestSigner.h"
#include "common/HttpService.h"
#include "common/HttpUploader.h"
#include "common/Logging.h"
#include "common/LzmaHttpInterceptor.h"
#include "common/Scheduler.h"
#include "common/SpoolStorage.h"
#include "common/SqlStorage.h"
#include "edr/LibMagicWrapper.h"
#include "fim/BaselineEventSqlDataFormatter.h"
#include "fim/Component.h"
#include "fim/Config.h"
#include "fim/EventProcessor.h"
#include "fim/EventRuleManager.h"
#include "fim/UploadSchedule.h"
#include "tools/TestReceiver.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace
{

namespace fs = std::filesystem;
using namespace vantor;
using bench::AuditCorpus;
using bench::ResourceUsage;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kFirstSerial = 1000;
constexpr size_t kChunkSize = 64 * 1024;
constexpr const char* kMagicDatabase = "/usr/share/misc/magic.mgc";

// An event rule engine whose routes are those of the FIM rules, as the audit
// rule engine would install them, without the kernel.
class FimRouter : public edr::EventRuleEngine
{
public:
    explicit FimRouter(std::shared_ptr<audit::ProcessTree> tree)
        : m_events(std::move(tree), ::getpid(), m_router,
                   [this](const Tags& tags, edr::Event& event) { DispatchEvent(tags, event); })
    {
    }

    void AddRules(const edr::EventRuleEngine::Rules& rules, const std::string& tag) override
    {
        for (const auto& rule : rules)
        {
            m_router.AddRoute(rule->GetId(), {tag, rule->GetType(), rule->GetActions(), rule->GetPaths()});
            m_rules.push_back(rule);
        }
    }
    void DeleteRules(const std::string&) override
    {
        for (const auto& rule : m_rules)
        {
            m_router.RemoveRoute(rule->GetId());
        }
        m_rules.clear();
    }
    void ProcessEvent(std::unique_ptr<edr::Event> event) { m_events.ProcessEvent(std::move(event)); }

private:
    audit::EventRouter m_router;
    audit::AuditEventProcessor m_events;
    edr::EventRuleEngine::Rules m_rules;
};

rapidjson::Document Json(const std::string& text)
{
    rapidjson::Document document;
    document.Parse(text.c_str());
    return document;
}

// Documents in the spool files (the FIM formatter's {"events": [...]}).
size_t CountSpooledDocuments(const std::string& directory, uint64_t& bytes, bool show)
{
    size_t documents = 0;
    bytes = 0;
    for (const auto& entry : fs::directory_iterator(directory))
    {
        std::ifstream in(entry.path(), std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        bytes += text.str().size();
        rapidjson::Document document;
        document.Parse(text.str().c_str());
        if (document.IsObject() && document.HasMember("events") && document["events"].IsArray())
        {
            documents += document["events"].Size();
            if (show && document["events"].Size() > 0)
            {
                rapidjson::StringBuffer buffer;
                rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
                document["events"][0].Accept(writer);
                std::printf("a document: %s\n", buffer.GetString());
                show = false;
            }
        }
    }
    return documents;
}

// Hands the audit text to the router in chunks, as capture reads it;
// answers the events typed.
size_t FeedText(const std::string& text, audit::AuditEventBuilder& builder, FimRouter& router)
{
    audit::AuparseFeed feed(builder);
    size_t typed = 0;
    const auto process = [&](audit::AuparseFeed::Events events)
    {
        typed += events.size();
        for (auto& event : events)
        {
            router.ProcessEvent(std::move(event));
        }
    };
    const auto* data = reinterpret_cast<const uint8_t*>(text.data());
    for (size_t at = 0; at < text.size(); at += kChunkSize)
    {
        process(feed.Feed(data + at, std::min(kChunkSize, text.size() - at)));
    }
    process(feed.Flush());
    return typed;
}

// Heap bytes per waiting document: the corpus through a second router whose
// handler feeds an event processor that waits an hour for files to settle.
// A first run, built at once, fills the process tree and the file states;
// only the waiting documents of a second run are counted.
void MeasurePending(const AuditCorpus& corpus, size_t eventCount, const std::string& work,
                    common::SpoolStorage& spool)
{
    auto router = std::make_shared<FimRouter>(std::make_shared<audit::ProcessTree>());
    fim::internal::EventRuleManager rules(*router, "fim-pending");
    if (rules.LoadManifest(work + "/manifest.json"))
    {
        std::fprintf(stderr, "pending: the manifest was refused\n");
        return;
    }
    fim::internal::EventProcessor::Settings settings;
    settings.settleTime = std::chrono::hours(1);
    settings.maxPending = eventCount;
    // A store of its own, so that building includes its statements.
    fs::remove(work + "/PendingStates.db");
    common::SqlStorage store(work, "PendingStates.db", std::make_unique<fim::BaselineEventSqlDataFormatter>(),
                             false);
    fim::internal::EventProcessor processor(rules, spool, &store, settings);
    router->RegisterEventHandlers(
        "fim-pending", [&](edr::Event& event) { processor.HandleEvent(event); }, [] {});
    audit::AuditEventBuilder builder(std::make_shared<const edr::LibMagicWrapper>(kMagicDatabase));
    const auto run = [&](uint32_t firstSerial)
    { FeedText(corpus.Generate(eventCount, firstSerial), builder, *router); };
    run(kFirstSerial + 2 * static_cast<uint32_t>(eventCount));
    processor.Flush();
    spool.FlushDataCache();
    const size_t heap0 = ResourceUsage::HeapInUse();
    run(kFirstSerial + 4 * static_cast<uint32_t>(eventCount));
    const size_t pending = processor.GetPendingCount();
    const size_t heap1 = ResourceUsage::HeapInUse();
    std::printf("pending documents: %zu, heap %.1f MB, %.0f bytes per pending document\n", pending,
                static_cast<double>(heap1 - heap0) / 1e6,
                pending > 0 ? static_cast<double>(heap1 - heap0) / static_cast<double>(pending) : 0.0);
    router->UnregisterEventHandlers("fim-pending");
    // The document thread's work alone: every waiting document built and
    // spooled at once.
    const double cpu0 = ResourceUsage::CpuSeconds();
    processor.Flush();
    spool.FlushDataCache();
    const double cpu = ResourceUsage::CpuSeconds() - cpu0;
    std::printf("building them: CPU %.2f s, %.1f us per document\n", cpu,
                pending > 0 ? cpu * 1e6 / static_cast<double>(pending) : 0.0);
    processor.Stop();
}

double Seconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

int Run(size_t eventCount, bool show)
{
    AuditCorpus corpus(CORVID_SOURCE_DIR "/tests/fixtures/audit");
    const std::string text = corpus.Generate(eventCount, kFirstSerial);
    std::printf("corpus: %zu events, %.1f MB of text; peak RSS with the corpus: %llu KB\n", eventCount,
                static_cast<double>(text.size()) / 1e6,
                static_cast<unsigned long long>(ResourceUsage::PeakRssKb()));

    const std::string work = corpus.Root() + "/fim-bench";
    fs::create_directories(work + "/received");
    std::ofstream(work + "/key") << "bench-key";
    tools::TestReceiver::Options options;
    options.outputDir = work + "/received";
    options.certDir = work;
    options.hmacKey = "bench-key";
    tools::TestReceiver receiver(options);
    receiver.Start();

    common::HttpServiceSettings settings;
    settings.caCertPath = receiver.Certificate().certPath;
    settings.useSystemProxy = false;
    settings.customerId = "bench";
    settings.agentId = "bench";
    auto service = std::make_shared<common::HttpService>(
        settings, std::make_shared<common::HmacRequestSigner>(work + "/key"));
    service->AddInterceptor(std::make_shared<common::LzmaHttpInterceptor>());
    service->Start();
    auto uploader = std::make_shared<common::HttpUploader>(service, 1);

    // One rule over the workload's data directory, every action, content and
    // hashes collected.
    std::ofstream(work + "/manifest.json")
        << R"({"data":{"fim":{"policyVersion":"1.0","collectHashes":true,"rules":[{"ruleId":"bench-data",)"
        << R"("ruleType":"directory","imagePath":")" << corpus.DataDir()
        << R"(","recursiveDepth":"all","trackContentChange":true,"notify":["create","delete","rename",)"
        << R"("modifyContent","modifyMetadata","modifySecuritySettings","read"]}]}}})";
    // Spool limits large enough that nothing is cleaned up during the run;
    // file size as the daemon's default.
    auto config = std::make_unique<fim::Config>(Json(
        R"({"event_file_name":"events","event_file_path":")" + work +
        R"(","max_disk_size_mb":4096,"max_file_age_sec":86400,"max_file_size_kb":0,"service_url":")" +
        receiver.Url("/upload/fim") + R"(","upload_interval":3600,"manifests":[{"a":1}],"manifest_path":")" +
        work + R"(/manifest.json","manifest_type":"fim"})"));

    // Not started: the component's own upload schedule must not run; the
    // bench runs the uploads itself.
    common::Scheduler scheduler;
    auto router = std::make_shared<FimRouter>(std::make_shared<audit::ProcessTree>());
    fim::Component component(std::move(config), uploader, scheduler, router, work);
    if (!component.IsEnabled())
    {
        std::fprintf(stderr, "the FIM component did not enable itself with the bench manifest\n");
        return 1;
    }
    common::SpoolStorage& spool = component.GetSpool();

    // Stage 1: raw text to spool files.
    audit::AuditEventBuilder builder(std::make_shared<const edr::LibMagicWrapper>(kMagicDatabase));
    const double cpu0 = ResourceUsage::CpuSeconds();
    const auto start = Clock::now();
    const size_t typed = FeedText(text, builder, *router);
    // Documents wait for their files to settle: build them now.
    component.FlushDocuments();
    // Writes are queued to the spool's task in order: once this one is in,
    // every document before it is.
    if (!spool.Write(R"({"benchEnd":true})").Succeeded() || !spool.FlushDataCache())
    {
        std::fprintf(stderr, "the spool refused the end marker\n");
        return 1;
    }
    const auto spooled = Clock::now();
    const double cpu1 = ResourceUsage::CpuSeconds();

    uint64_t spoolBytes = 0;
    const size_t documents = CountSpooledDocuments(spool.Directory(), spoolBytes, show) - 1;
    const size_t files = spool.FileIndices().size();

    // Stage 2: spool files to the receiver.
    fim::internal::UploadSchedule upload(component.GetConfig(), spool, uploader);
    const auto uploadStart = Clock::now();
    size_t runs = 0;
    while (!spool.FileIndices().empty() && runs < 2 * files + 10)
    {
        upload.RunOnce();
        ++runs;
    }
    const auto uploaded = Clock::now();
    const double cpu2 = ResourceUsage::CpuSeconds();
    const size_t left = spool.FileIndices().size();
    const size_t stored = receiver.StoredCount();

    const double spoolSeconds = Seconds(spooled - start);
    const double uploadSeconds = Seconds(uploaded - uploadStart);
    std::printf("typed events: %zu; FIM documents: %zu in %zu spool files (%.1f MB)\n", typed, documents,
                files, static_cast<double>(spoolBytes) / 1e6);
    std::printf(
        "raw text -> spool:   %.2f s, %.0f events/s, %.0f docs/s, CPU %.2f s (%.1f us per document)\n",
        spoolSeconds, static_cast<double>(eventCount) / spoolSeconds,
        static_cast<double>(documents) / spoolSeconds, cpu1 - cpu0,
        (cpu1 - cpu0) * 1e6 / static_cast<double>(documents));
    std::printf(
        "spool -> receiver:   %.2f s, %.0f docs/s, %.1f MB/s of JSON, CPU %.2f s; %zu uploads, %zu stored, "
        "%zu files left\n",
        uploadSeconds, static_cast<double>(documents) / uploadSeconds,
        static_cast<double>(spoolBytes) / 1e6 / uploadSeconds, cpu2 - cpu1, runs, stored, left);
    std::printf("raw text -> receiver: %.0f docs/s\n",
                static_cast<double>(documents) / (spoolSeconds + uploadSeconds));
    std::printf("peak RSS: %llu KB\n", static_cast<unsigned long long>(ResourceUsage::PeakRssKb()));

    service->Stop();
    receiver.Stop();
    MeasurePending(corpus, eventCount, work, spool);
    return left == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    size_t events = 100000;
    bool show = false;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        if (arg == "--show")
        {
            show = true;
        }
        else if (std::strtoull(arg.c_str(), nullptr, 10) > 0)
        {
            events = std::strtoull(arg.c_str(), nullptr, 10);
        }
        else
        {
            std::fprintf(stderr, "usage: FimPipelineBench [events] [--show]\n");
            return 2;
        }
    }
    try
    {
        return Run(events, show);
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "FimPipelineBench: %s\n", e.what());
        return 1;
    }
}
