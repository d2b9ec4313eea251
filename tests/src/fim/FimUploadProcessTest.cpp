// What the shipped daemon does with its FIM spool on the wire: the real
// corvid-edr, started by the stand-in agent, uploading files found in its
// spool at start to the stand-alone receiver, which refuses what the back
// end refuses (uncompressed bodies, missing fixed headers, bad signatures).

#include "tests/src/audit/AuditKernelState.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/FimEndToEndFixture.h"

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace vantor::fim
{
namespace
{

using namespace std::chrono_literals;
using test::DaemonHarness;
using test::Eventually;
using test::ReadText;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

constexpr const char* kReceiver = CORVID_BINARY_DIR "/corvid-test-receiver";

// Starts a program with its output appended to a file.
pid_t Spawn(const std::vector<std::string>& argv, const std::string& output)
{
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        std::vector<char*> args;
        for (const auto& arg : argv)
        {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    return pid;
}

// The value after "<key>: " on a line of text, or empty.
std::string Field(const std::string& text, const std::string& key)
{
    const auto at = text.find(key + ": ");
    if (at == std::string::npos)
    {
        return {};
    }
    const auto start = at + key.size() + 2;
    return text.substr(start, text.find('\n', start) - start);
}

class FimUploadProcessTest : public testing::Test
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
        m_spoolFiles = Dir("spool/fim");
        for (const auto& path : {Dir("keys"), Dir("watched"), Dir("received"), Dir("certs"), m_spoolFiles})
        {
            std::filesystem::create_directories(path);
        }
        std::ofstream(Dir("keys/edr_hmac.key")) << "upload-key-" << ::getpid() << "\n";
        std::ofstream(Dir("fim_manifest.json"))
            << R"({"data": {"fim": {"policyVersion": "1.0", "rules": [{"ruleId": "w", "ruleType": "directory",
                  "imagePath": ")"
            << Dir("watched") << R"(", "recursiveDepth": "all", "notify": ["create"]}]}}})";
    }

    void TearDown() override
    {
        m_agent.reset();
        if (m_receiver > 0)
        {
            test::StopChild(m_receiver, 1s);
        }
        if (m_state)
        {
            m_state->Restore();
        }
    }

    std::string Dir(const std::string& name) const { return m_harness.Dir() + "/" + name; }

    // The receiver with its misbehaviour flags; answers once it listens.
    void StartReceiver(const std::vector<std::string>& flags = {})
    {
        std::vector<std::string> argv{
            kReceiver,          "--output",        Dir("received"),          "--cert-dir",
            Dir("certs"),       "--hmac-key-file", Dir("keys/edr_hmac.key"), "--request-log",
            Dir("requests.log")};
        argv.insert(argv.end(), flags.begin(), flags.end());
        m_receiver = Spawn(argv, Dir("receiver.out"));
        ASSERT_TRUE(
            Eventually([&] { return !Field(ReadText(Dir("receiver.out")), "public_key").empty(); }, 10s))
            << ReadText(Dir("receiver.out"));
        const std::string out = ReadText(Dir("receiver.out"));
        m_url = Field(out, "url");
        m_ca = Field(out, "ca");
        m_publicKey = Field(out, "public_key");
    }

    // The back end's answer key where the daemon looks for it.
    void ProvisionResponseKey() { std::filesystem::copy_file(m_publicKey, Dir("keys/edr_response.pub")); }

    // Spool files as an earlier run left them: one document each.
    void SeedSpool(const std::string& name, int count)
    {
        for (int i = 1; i <= count; ++i)
        {
            char file[32];
            std::snprintf(file, sizeof file, "/fim_events.%04d", i);
            std::ofstream(m_spoolFiles + file)
                << R"({"events":[{"eventAction":"create","imagePath":")" << Path(name, i) << R"("}]})";
        }
    }

    static std::string Path(const std::string& name, int i) { return "/" + name + "/" + std::to_string(i); }

    void StartDaemon(uint64_t uploadInterval)
    {
        m_agent = std::make_unique<test::AgentProcess>(Dir("agent.out"));
        m_harness.WriteConfiguration(
            [&](rapidjson::Document& config)
            {
                auto set = [&](rapidjson::Value& object, const char* key, const std::string& value)
                { test::SetString(config, object, key, value); };
                config["outpost_pid"].SetInt(m_agent->Pid());
                auto& common = config["common_config"];
                set(common, "ca_cert_path", m_ca);
                set(common, "service_url", m_url);
                common["connection_timeout"].SetUint(2);
                common["request_timeout"].SetUint(5);
                auto& fim = config["fim_config"];
                set(fim, "event_file_path", Dir("spool"));
                set(fim, "service_url", m_url + "/fim");
                set(fim, "manifest_path", Dir("fim_manifest.json"));
                fim["upload_interval"].SetUint64(uploadInterval);
            });
        ASSERT_NO_FATAL_FAILURE(m_agent->Start(m_harness.ConfigFile()));
        // Known to the agent's cleanup from now on.
        ASSERT_GT(m_agent->DaemonPid(), 0) << ReadText(Dir("agent.out")) << m_harness.Syslog();
        ASSERT_TRUE(Eventually([&] { return m_harness.LogContains("Memory threshold: softLimit"); }, 15s))
            << m_harness.Log() << ReadText(Dir("agent.out")) << m_harness.Syslog();
    }

    bool SpoolIsEmpty() const { return std::filesystem::is_empty(m_spoolFiles); }

    // The image paths of the stored payloads, in arrival order.
    std::vector<std::string> Uploaded() const
    {
        std::map<int, std::string> payloads;
        for (const auto& entry : std::filesystem::directory_iterator(Dir("received")))
        {
            payloads[std::atoi(entry.path().stem().c_str())] = ReadText(entry.path());
        }
        std::vector<test::FimDocument> documents;
        for (const auto& [number, text] : payloads)
        {
            EXPECT_TRUE(test::ReadFimPayload(text, documents)) << number << ".payload: " << text;
        }
        std::vector<std::string> paths;
        for (const auto& doc : documents)
        {
            paths.push_back(doc.path);
        }
        return paths;
    }

    // Declared first so that it goes last.
    DaemonHarness m_harness;
    std::optional<test::AuditKernelState> m_state;
    std::string m_spoolFiles;
    pid_t m_receiver = -1;
    std::unique_ptr<test::AgentProcess> m_agent;
    std::string m_url;
    std::string m_ca;
    std::string m_publicKey;
};

TEST_F(FimUploadProcessTest, UploadsGoCompressedAndAnswersAreValidated)
{
    // The first answer is signed with another key: the daemon must not take
    // it for a success, keep the file and send it again.
    ASSERT_NO_FATAL_FAILURE(StartReceiver({"--bad-signature", "1"}));
    ProvisionResponseKey();
    SeedSpool("wire", 1);
    ASSERT_NO_FATAL_FAILURE(StartDaemon(1));
    ASSERT_TRUE(Eventually([&] { return SpoolIsEmpty(); }, 20s)) << m_harness.Log();
    EXPECT_EQ(Uploaded(), (std::vector<std::string>{"/wire/1", "/wire/1"}));
    EXPECT_TRUE(m_harness.LogContains("Request payload data is LZMA compressed."));
    EXPECT_TRUE(m_harness.LogContains("Response signature validation failed"));
    EXPECT_FALSE(m_harness.LogContains("answers are not validated"));
    const std::string requests = ReadText(Dir("requests.log"));
    EXPECT_EQ(requests, "POST /upload/fim 200 Content-Encoding=LZMA Accept-Encoding=LZMA\n"
                        "POST /upload/fim 200 Content-Encoding=LZMA Accept-Encoding=LZMA\n");
    EXPECT_EQ(m_agent->Exit(), 0) << ReadText(Dir("agent.out"));
}

} // namespace
} // namespace vantor::fim
