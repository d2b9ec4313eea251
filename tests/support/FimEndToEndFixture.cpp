#include "tests/support/FimEndToEndFixture.h"

#include "common/util/Json.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace vantor::test
{

using namespace std::chrono_literals;

std::string Describe(const std::vector<FimDocument>& documents)
{
    std::string text;
    for (const auto& doc : documents)
    {
        text += doc.action + " " + doc.path + (doc.newPath.empty() ? "" : " -> " + doc.newPath) + " by " +
                std::to_string(doc.actor) + "\n";
    }
    return text;
}

bool ReadFimPayload(const std::string& text, std::vector<FimDocument>& documents)
{
    rapidjson::Document payload;
    if (!util::ParseJson(payload, text) || !payload.IsObject() || !payload.HasMember("events") ||
        !payload["events"].IsArray())
    {
        return false;
    }
    for (const auto& event : payload["events"].GetArray())
    {
        FimDocument doc;
        doc.action = util::GetString(event, "eventAction");
        doc.path = util::GetString(event, "imagePath");
        if (const auto actor = event.FindMember("actor");
            actor != event.MemberEnd() && actor->value.IsObject())
        {
            const auto number = [&](const char* key)
            {
                const auto member = actor->value.FindMember(key);
                return member != actor->value.MemberEnd() && member->value.IsInt64()
                           ? member->value.GetInt64()
                           : -1;
            };
            doc.actor = number("processID");
            doc.userId = number("userID");
            doc.procTitle = util::GetString(actor->value, "procTitle");
        }
        const auto operation = event.FindMember("operation");
        if (operation != event.MemberEnd() && operation->value.IsObject() &&
            operation->value.HasMember("new") && operation->value["new"].IsObject())
        {
            doc.newPath = util::GetString(operation->value["new"], "path");
        }
        if (event.HasMember("associatedRules") && event["associatedRules"].IsArray())
        {
            for (const auto& rule : event["associatedRules"].GetArray())
            {
                doc.rules.emplace_back(rule.IsString() ? rule.GetString() : "?");
            }
        }
        documents.push_back(std::move(doc));
    }
    return true;
}

void FimEndToEndFixture::SetUp()
{
    if (const std::string skip = m_harness.EnterForCapture(); !skip.empty())
    {
        GTEST_SKIP() << skip;
    }
    ASSERT_FALSE(HasFatalFailure());
    m_state = AuditKernelState::Take();
    const std::string& dir = m_harness.Dir();
    m_watched = dir + "/watched";
    m_spool = m_watched + "/spool/";
    m_spoolFiles = m_spool + "fim";
    for (const auto& path : {m_watched + "/excluded", dir + "/outside", dir + "/keys", m_spoolFiles})
    {
        std::filesystem::create_directories(path);
    }
    const std::string key = "e2e-key-" + std::to_string(::getpid());
    std::ofstream(dir + "/keys/edr_hmac.key") << key << "\n";
    m_receiver = std::make_unique<ReceiverProcess>(dir, key);
    WriteManifest();
}

void FimEndToEndFixture::TearDown()
{
    m_agent.reset();
    m_receiver.reset();
    if (!m_state)
    {
        return;
    }
    if (m_daemonRan)
    {
        std::vector<std::string> left;
        for (const auto& line : ListRules())
        {
            if (IsOurRule(line))
            {
                left.push_back(line);
            }
        }
        EXPECT_TRUE(left.empty()) << "the daemon left audit rules:\n" << RunCommand("auditctl -l");
    }
    m_state->Restore();
}

void FimEndToEndFixture::WatchAlso(const std::string& ruleId, const std::string& path)
{
    m_extraRules.emplace_back(ruleId, path);
    WriteManifest(m_extraRules);
}

void FimEndToEndFixture::WriteManifest(const std::vector<std::pair<std::string, std::string>>& extraRules)
{
    rapidjson::Document manifest;
    ASSERT_TRUE(util::ParseJson(manifest, R"({"data": {"fim": {"policyVersion": "1.0", "rules": [{
        "ruleId": "e2e-watched", "ruleType": "directory", "imagePath": "", "trackContentChange": false,
        "recursiveDepth": "all",
        "notify": ["create", "modifyContent", "rename", "modifySecuritySettings", "modifyMetadata", "delete"],
        "exclusionFilters": [{"objectType": "directory", "patterns": [""]},
                             {"objectType": "file", "patterns": ["*.tmp"]}]}]}}})"));
    auto& allocator = manifest.GetAllocator();
    auto& rule = manifest["data"]["fim"]["rules"][0];
    rule["imagePath"].SetString(m_watched.c_str(), allocator);
    const std::string excluded = m_watched + "/excluded";
    rule["exclusionFilters"][0]["patterns"][0].SetString(excluded.c_str(), allocator);
    // A copy: adding to the array may move the rule.
    const rapidjson::Value prototype(rule, allocator);
    for (const auto& [id, path] : extraRules)
    {
        rapidjson::Value extra(prototype, allocator);
        extra["ruleId"].SetString(id.c_str(), allocator);
        extra["imagePath"].SetString(path.c_str(), allocator);
        manifest["data"]["fim"]["rules"].PushBack(extra, allocator);
    }
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    manifest.Accept(writer);
    m_manifest = m_harness.Dir() + "/fim_manifest.json";
    std::ofstream(m_manifest) << buffer.GetString();
}

void FimEndToEndFixture::StartDaemon(const std::string& dispatcherSocket,
                                     const std::function<void(rapidjson::Document&)>& change)
{
    m_agent = std::make_unique<AgentProcess>(m_harness.Dir() + "/agent.out", m_agentSocket);
    const pid_t agentPid = m_agent->Pid();
    m_harness.WriteConfiguration(
        [&](rapidjson::Document& config)
        {
            auto& allocator = config.GetAllocator();
            auto set = [&](rapidjson::Value& object, const char* key, const std::string& value)
            { SetString(config, object, key, value); };
            config["outpost_pid"].SetInt(agentPid);
            auto& common = config["common_config"];
            set(common, "ca_cert_path", m_receiver->CaFile());
            set(common, "service_url", m_receiver->Url("/"));
            common["connection_timeout"].SetUint(2);
            common["request_timeout"].SetUint(5);
            auto& fim = config["fim_config"];
            set(fim, "event_file_path", m_spool);
            set(fim, "service_url", m_receiver->Url("/fim"));
            set(fim, "manifest_path", m_manifest);
            fim["upload_interval"].SetUint(1);
            fim["max_file_age_sec"].SetUint(1);
            if (!dispatcherSocket.empty())
            {
                config["edr_config"].AddMember("dispatcher_socket_path",
                                               rapidjson::Value(dispatcherSocket.c_str(), allocator),
                                               allocator);
            }
            if (change)
            {
                change(config);
            }
        });
    ASSERT_NO_FATAL_FAILURE(m_agent->Start(m_harness.ConfigFile()));
    m_daemonRan = true;
    m_daemonPid = m_agent->DaemonPid();
    ASSERT_GT(m_daemonPid, 0) << ReadText(m_harness.Dir() + "/agent.out") << m_harness.Syslog();
    // A restarted daemon appends to the same log, which may rotate meanwhile:
    // its own line is the one its main thread (its pid) writes.
    const std::string ready = "[" + std::to_string(m_daemonPid) + "]:Memory threshold: softLimit";
    ASSERT_TRUE(Eventually([&] { return m_harness.LogContains(ready); }, 10s))
        << m_harness.Log() << m_harness.Syslog();
    ASSERT_TRUE(Eventually([&] { return !RulesContaining(m_watched).empty(); }, 5s))
        << RunCommand("auditctl -l");
    m_daemonPids.insert(m_daemonPid);
    m_agentPids.insert(agentPid);
}

void FimEndToEndFixture::ExitDaemon()
{
    ASSERT_TRUE(m_agent);
    EXPECT_EQ(m_agent->Exit(), 0) << ReadText(m_harness.Dir() + "/agent.out");
    m_agent.reset();
}

void FimEndToEndFixture::AwaitDispatcherDelivery()
{
    const bool delivered = Eventually(
        [&]
        {
            RunCommand("auditctl -m corvid-e2e-dispatcher-check");
            return Eventually([&] { return m_harness.LogContains("Audit parser queue size:"); }, 200ms);
        },
        10s);
    ASSERT_TRUE(delivered) << "auditd sends nothing to the daemon\n" << m_harness.Log();
}

std::vector<FimDocument> FimEndToEndFixture::Received()
{
    for (const auto& entry : std::filesystem::directory_iterator(m_receiver->Output()))
    {
        if (entry.path().extension() != ".payload")
        {
            continue;
        }
        const int index = std::atoi(entry.path().stem().c_str());
        if (m_payloads.count(index) != 0)
        {
            continue;
        }
        std::vector<FimDocument> documents;
        if (ReadFimPayload(ReadText(entry.path()), documents))
        {
            m_payloads.emplace(index, std::move(documents));
            m_unreadable.erase(index);
        }
        else
        {
            m_unreadable.insert(index);
        }
    }
    std::vector<FimDocument> all;
    for (const auto& [index, documents] : m_payloads)
    {
        all.insert(all.end(), documents.begin(), documents.end());
    }
    return all;
}

size_t FimEndToEndFixture::Count(const std::vector<FimDocument>& documents, const FimDocument& wanted)
{
    return static_cast<size_t>(std::count_if(documents.begin(), documents.end(),
                                             [&](const FimDocument& doc)
                                             {
                                                 return doc.action == wanted.action &&
                                                        doc.path == wanted.path &&
                                                        doc.actor == wanted.actor &&
                                                        doc.rules == wanted.rules;
                                             }));
}

bool FimEndToEndFixture::AllArrived(const std::vector<FimDocument>& expected)
{
    const auto documents = Received();
    return std::all_of(expected.begin(), expected.end(),
                       [&](const FimDocument& doc) { return Count(documents, doc) >= 1; });
}

bool FimEndToEndFixture::SpoolIsEmpty() const
{
    return std::filesystem::is_empty(m_spoolFiles);
}

size_t FimEndToEndFixture::SpooledFiles() const
{
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_spoolFiles))
    {
        count += entry.path().extension() != ".tmp" ? 1 : 0;
    }
    return count;
}

} // namespace vantor::test
