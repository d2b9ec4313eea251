#include "tests/support/IocEndToEndFixture.h"

#include "common/util/Json.h"
#include "ioc/protobuf/IocEvents.pb.h"
#include "tests/support/ChildProcess.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

namespace vantor::test
{

namespace
{

namespace pb = ::com::corvid::ioc::model::proto::event;

template <typename Message>
IocEvent Common(const char* kind, const Message& message)
{
    IocEvent event;
    event.kind = kind;
    event.action = pb::EventAction_Name(message.eventaction());
    event.pid = message.actor().processid();
    event.image = message.actor().imagepath();
    return event;
}

IocBatch Decode(int file, const pb::IoCEvent& batch)
{
    IocBatch decoded{file, batch.sequenceno(), {}};
    auto& events = decoded.events;
    for (const auto& message : batch.processevent())
    {
        auto event = Common("processEvent", message);
        event.target = message.imagepath();
        event.parent = message.parentprocessid();
        event.arguments = message.arguments();
        event.meta = message.agentmetadata();
        events.push_back(std::move(event));
    }
    for (const auto& message : batch.fileevent())
    {
        auto event = Common("fileEvent", message);
        event.target = message.fullpath();
        event.sha256 = message.sha256();
        event.meta = message.agentmetadata();
        events.push_back(std::move(event));
    }
    for (const auto& message : batch.networkevent())
    {
        auto event = Common("networkEvent", message);
        event.target = message.remoteaddress() + ":" + std::to_string(message.remoteport());
        event.meta = message.agentmetadata();
        events.push_back(std::move(event));
    }
    for (const auto& message : batch.directoryevent())
    {
        auto event = Common("directoryEvent", message);
        event.target = message.path();
        events.push_back(std::move(event));
    }
    for (const auto& message : batch.loadedmodule())
    {
        auto event = Common("loadedModule", message);
        event.target = message.modulename();
        events.push_back(std::move(event));
    }
    return decoded;
}

} // namespace

std::optional<IocBatch> ReadIocBatch(const std::string& bytes, int file)
{
    pb::IoCEvent batch;
    if (!batch.ParseFromString(bytes))
    {
        return std::nullopt;
    }
    return Decode(file, batch);
}

std::string Describe(const std::vector<IocEvent>& events)
{
    std::string text;
    for (const auto& event : events)
    {
        text += event.kind + " " + event.action + " pid " + std::to_string(event.pid) + " (" + event.image +
                ") " + event.target + (event.parent >= 0 ? " parent " + std::to_string(event.parent) : "") +
                (event.meta.empty() ? "" : " meta " + event.meta) + "\n";
    }
    return text;
}

void IocEndToEndFixture::SetUp()
{
    FimEndToEndFixture::SetUp();
    if (IsSkipped() || HasFatalFailure())
    {
        return;
    }
    m_iocSpool = m_harness.Dir() + "/spool/ioc";
    // The workload runs as in a login session: the kernel does not audit
    // file reads by processes without a login user (daemons).
    if (ReadText("/proc/self/loginuid") == "4294967295")
    {
        std::ofstream("/proc/self/loginuid") << "0";
    }
    // Away from the default socket: the daemon must follow the agent there.
    m_agentSocket = m_harness.Dir() + "/agent_edr.sock";
}

void IocEndToEndFixture::StartIocDaemon(const std::string& manifest,
                                        const std::function<void(rapidjson::Document&)>& change)
{
    rapidjson::Document document;
    ASSERT_TRUE(util::ParseJson(document, manifest)) << manifest;
    auto& allocator = document.GetAllocator();
    const std::string gateway = m_receiver->Url("/ioc");
    document["globalSettings"].AddMember("gateway_url", rapidjson::Value(gateway.c_str(), allocator),
                                         allocator);
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    document.Accept(writer);
    const std::string path = m_harness.Dir() + "/ioc_manifest.json";
    std::ofstream(path, std::ios::trunc) << buffer.GetString();
    StartDaemon({},
                [&](rapidjson::Document& config)
                {
                    auto& ioc = config["ioc_config"];
                    SetString(config, ioc, "event_file_path", m_harness.Dir() + "/spool/");
                    SetString(config, ioc, "service_url", m_receiver->Url("/service"));
                    SetString(config, ioc["manifests"][0], "manifest_path", path);
                    ioc["upload_interval"].SetUint(1);
                    ioc["max_file_age_sec"].SetUint(1);
                    if (change)
                    {
                        change(config);
                    }
                });
    EXPECT_TRUE(std::filesystem::exists(m_agentSocket));
    EXPECT_FALSE(std::filesystem::exists(DaemonHarness::kAgentSocket));
}

std::vector<IocBatch> IocEndToEndFixture::Batches() const
{
    std::map<int, IocBatch> batches;
    for (const auto& entry : std::filesystem::directory_iterator(m_receiver->Output()))
    {
        if (entry.path().extension() != ".ioc")
        {
            continue;
        }
        const int file = std::atoi(entry.path().stem().c_str());
        if (auto batch = ReadIocBatch(ReadText(entry.path()), file))
        {
            batches.emplace(file, std::move(*batch));
        }
    }
    std::vector<IocBatch> ordered;
    for (auto& [file, batch] : batches)
    {
        ordered.push_back(std::move(batch));
    }
    return ordered;
}

std::vector<IocEvent> IocEndToEndFixture::Events() const
{
    std::vector<IocEvent> events;
    for (const auto& batch : Batches())
    {
        events.insert(events.end(), batch.events.begin(), batch.events.end());
    }
    return events;
}

size_t IocEndToEndFixture::SpooledBatches() const
{
    size_t count = 0;
    if (std::filesystem::exists(m_iocSpool))
    {
        for (const auto& entry : std::filesystem::directory_iterator(m_iocSpool))
        {
            count +=
                entry.path().extension() != ".tmp" && std::filesystem::file_size(entry.path()) > 0 ? 1 : 0;
        }
    }
    return count;
}

std::vector<long long> IocEndToEndFixture::RunTimes(const std::vector<std::string>& argv, int n)
{
    std::vector<long long> pids;
    for (int i = 0; i < n; ++i)
    {
        pids.push_back(RunProgram(argv));
    }
    return pids;
}

void IocEndToEndFixture::Nudge()
{
    RunProgram({"/usr/bin/sleep", "0"});
}

} // namespace vantor::test
