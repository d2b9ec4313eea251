// What FIM documents say, end to end: the real daemon, started by the
// stand-in agent, on the real kernel audit stream. Uploads go nowhere, so
// every document stays in the spool, where the test reads it: the baseline at
// start, content that a writer left, touch and chmod against the previous
// settings. Renames, removed directories and hostile names from real kernel
// records are covered on captured records.

#include "common/util/Json.h"
#include "edr/PathEscape.h"
#include "tests/src/audit/AuditKernelState.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/DaemonHarness.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace vantor::fim
{
namespace
{

using namespace std::chrono_literals;
using test::DaemonHarness;
using test::Eventually;
using test::ReadText;
using test::RunProgram;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

// One document as found in the spool, its path already unescaped.
struct Document
{
    std::string action;
    std::string path;
    rapidjson::Document json;
};

class FimDocumentsProcessTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (const std::string skip = m_harness.EnterForCapture(); !skip.empty())
        {
            GTEST_SKIP() << skip;
        }
        ASSERT_FALSE(HasFatalFailure());
        m_state = test::AuditKernelState::Take();
        const std::string& dir = m_harness.Dir();
        m_watched = dir + "/watched";
        m_spoolFiles = dir + "/spool/fim";
        for (const auto& path : {m_watched, m_spoolFiles, dir + "/keys"})
        {
            std::filesystem::create_directories(path);
        }
        std::ofstream(dir + "/keys/edr_hmac.key") << "documents-key\n";
        std::ofstream(m_watched + "/existing.txt") << "before\n";
        ::chmod((m_watched + "/existing.txt").c_str(), 0644);
        std::ofstream(m_harness.Dir() + "/fim_manifest.json")
            << R"({"data": {"fim": {"policyVersion": "1.0", "collectHashes": true, "rules": [{
                "ruleId": "docs", "ruleType": "directory", "imagePath": ")"
            << m_watched << R"(", "trackContentChange": true, "recursiveDepth": "all",
                "notify": ["create", "modifyContent", "modifyMetadata", "modifySecuritySettings",
                           "rename", "delete"]}]}}})";
    }

    void TearDown() override
    {
        if (HasFailure() && m_daemonRan)
        {
            // What the daemon made of the events, to tell a lost record from a lost document.
            std::istringstream log(m_harness.Log());
            for (std::string line; std::getline(log, line);)
            {
                for (const char* mark : {"Processing Event id", "Event exception", "Dropping Event", "lost",
                                         "KernelIOChannel", "Baseline"})
                {
                    if (line.find(mark) != std::string::npos)
                    {
                        std::cerr << line << "\n";
                        break;
                    }
                }
            }
        }
        m_agent.reset();
        if (m_state)
        {
            if (m_daemonRan)
            {
                EXPECT_TRUE(test::RulesContaining(m_watched).empty()) << "the daemon left audit rules";
            }
            m_state->Restore();
        }
    }

    void StartDaemon()
    {
        m_agent = std::make_unique<test::AgentProcess>(m_harness.Dir() + "/agent.out");
        const pid_t agentPid = m_agent->Pid();
        m_harness.WriteConfiguration(
            [&](rapidjson::Document& config)
            {
                auto set = [&](rapidjson::Value& object, const char* key, const std::string& value)
                { test::SetString(config, object, key, value); };
                config["outpost_pid"].SetInt(agentPid);
                auto& fim = config["fim_config"];
                set(fim, "event_file_path", m_harness.Dir() + "/spool/");
                // Nothing listens there: documents stay in the spool.
                set(fim, "service_url", "https://127.0.0.1:9/fim");
                set(fim, "manifest_path", m_harness.Dir() + "/fim_manifest.json");
                fim["upload_interval"].SetUint(3600);
                fim["max_file_age_sec"].SetUint(1);
            });
        ASSERT_NO_FATAL_FAILURE(m_agent->Start(m_harness.ConfigFile()));
        m_daemonRan = true;
        ASSERT_GT(m_agent->DaemonPid(), 0) << ReadText(m_harness.Dir() + "/agent.out") << m_harness.Syslog();
        ASSERT_TRUE(Eventually([&] { return m_harness.LogContains("Memory threshold: softLimit"); }, 10s))
            << m_harness.Log() << m_harness.Syslog();
        ASSERT_TRUE(Eventually([&] { return !test::RulesContaining(m_watched).empty(); }, 5s))
            << test::RunCommand("auditctl -l");
    }

    // Every document in the spool files so far.
    std::vector<Document> Spooled() const
    {
        std::vector<Document> documents;
        for (const auto& entry : std::filesystem::directory_iterator(m_spoolFiles))
        {
            if (entry.path().extension() == ".tmp")
            {
                continue;
            }
            rapidjson::Document file;
            if (!util::ParseJson(file, ReadText(entry.path())))
            {
                ADD_FAILURE() << entry.path() << " is not valid JSON";
                continue;
            }
            for (auto& event : file["events"].GetArray())
            {
                Document doc;
                doc.action = util::GetString(event, "eventAction");
                const auto path = vantor::edr::PathEscape::Unescape(util::GetString(event, "imagePath"));
                EXPECT_TRUE(path) << util::GetString(event, "imagePath");
                doc.path = path.value_or("");
                doc.json.CopyFrom(event, doc.json.GetAllocator());
                documents.push_back(std::move(doc));
            }
        }
        return documents;
    }

    // The one document of that action and path, once it is in the spool.
    std::optional<Document> Await(const std::string& action, const std::string& path)
    {
        std::optional<Document> found;
        Eventually(
            [&]
            {
                for (auto& doc : Spooled())
                {
                    if (doc.action == action && doc.path == path)
                    {
                        found = std::move(doc);
                        return true;
                    }
                }
                return false;
            },
            10s);
        EXPECT_TRUE(found) << "no " << action << " " << path << "\n" << Describe();
        return found;
    }

    std::string Describe() const
    {
        std::string text;
        for (const auto& doc : Spooled())
        {
            text += doc.action + " " + vantor::edr::PathEscape::Escape(doc.path) + "\n";
        }
        return text;
    }

    DaemonHarness m_harness;
    std::optional<test::AuditKernelState> m_state;
    std::unique_ptr<test::AgentProcess> m_agent;
    std::string m_watched;
    std::string m_spoolFiles;
    bool m_daemonRan = false;
};

TEST_F(FimDocumentsProcessTest, DocumentsTellWhatHappened)
{
    ASSERT_NO_FATAL_FAILURE(StartDaemon());
    const std::string existing = m_watched + "/existing.txt";
    // The baseline at start, with the content status of the file.
    auto doc = Await("Baseline", existing);
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc->json["contentStatus"].GetString(), "READ_SUCCESSFUL");

    // What a writer leaves: the create is documented with it.
    RunProgram({"/bin/sh", "-c", "echo text > " + m_watched + "/echoed.txt"});
    doc = Await("create", m_watched + "/echoed.txt");
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc->json["fileContent"].GetString(), "text\n");
    EXPECT_STREQ(doc->json["contentStatus"].GetString(), "READ_SUCCESSFUL");

    // touch changes the times alone.
    RunProgram({"/bin/touch", existing});
    doc = Await("modifyMetadata", existing);
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc->json["fileContent"].GetString(), "before\n");

    // chmod, with the permission it replaced.
    RunProgram({"/bin/chmod", "600", existing});
    doc = Await("modifySecuritySettings", existing);
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc->json["securitySettings"]["old"]["permission"].GetString(), "0644");
    EXPECT_STREQ(doc->json["securitySettings"]["new"]["permission"].GetString(), "0600");
    EXPECT_EQ(m_agent->Exit(), 0);
}

} // namespace
} // namespace vantor::fim
