// File integrity monitoring end to end: the real daemon, started by the
// stand-in agent, on the real kernel audit stream (or a private auditd's
// dispatcher socket), uploading to the local HTTPS receiver.

#include "common/util/Json.h"
#include "tests/src/audit/AuditKernelState.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/PrivateAuditd.h"
#include "tools/TestReceiver.h"

#include <gtest/gtest.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vantor::fim
{
namespace
{

using namespace std::chrono_literals;
using test::DaemonHarness;
using test::Eventually;
using test::ReadText;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

constexpr const char* kRuleId = "e2e-watched";

// Waits for a child of ours; -1 when it is still running after timeout.
int WaitFor(pid_t pid, std::chrono::milliseconds timeout)
{
    int status = 0;
    if (!Eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout))
    {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void Stop(pid_t pid, std::chrono::milliseconds grace)
{
    if (pid <= 0 || ::kill(pid, 0) != 0)
    {
        return;
    }
    ::kill(pid, SIGTERM);
    if (WaitFor(pid, grace) < 0)
    {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
}

// Runs a program to its end and answers its pid.
pid_t RunProgram(std::vector<std::string> argv)
{
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        std::vector<char*> args;
        for (auto& arg : argv)
        {
            args.push_back(arg.data());
        }
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    EXPECT_EQ(WaitFor(pid, 5s), 0) << argv[0];
    return pid;
}

// The receiver runs in a child process: its server threads would keep the
// test from leaving its private mount namespace. One byte a command over a
// pipe, one byte of answer: 'd' down, 'u' up, 'f' answer 503 from now on,
// 'h' answer normally again.
class ReceiverProcess
{
public:
    ReceiverProcess(const std::string& dir, const std::string& hmacKey)
        : m_output(dir + "/received")
        , m_caFile(dir + "/certs/receiver.crt")
    {
        std::filesystem::create_directories(m_output);
        std::filesystem::create_directories(dir + "/certs");
        int command[2];
        int answer[2];
        if (::pipe2(command, O_CLOEXEC) != 0 || ::pipe2(answer, O_CLOEXEC) != 0)
        {
            ADD_FAILURE() << "pipe: " << std::strerror(errno);
            return;
        }
        m_pid = ::fork();
        if (m_pid == 0)
        {
            ::close(command[1]);
            ::close(answer[0]);
            tools::TestReceiver::Options options;
            options.outputDir = m_output;
            options.certDir = dir + "/certs";
            options.hmacKey = hmacKey;
            Serve(command[0], answer[1], std::move(options));
        }
        ::close(command[0]);
        ::close(answer[1]);
        m_command = command[1];
        m_answer = answer[0];
        uint16_t port = 0;
        if (::read(m_answer, &port, sizeof port) != sizeof port)
        {
            ADD_FAILURE() << "the receiver did not start";
        }
        m_port = port;
    }

    ~ReceiverProcess()
    {
        if (m_command >= 0)
        {
            ::close(m_command);
            ::close(m_answer);
        }
        if (m_pid > 0 && WaitFor(m_pid, 5s) < 0)
        {
            Stop(m_pid, 1s);
        }
    }

    void Down() { Tell('d'); }
    void Up() { Tell('u'); }
    void Fail() { Tell('f'); }
    void Heal() { Tell('h'); }

    std::string Url(const std::string& path) const
    {
        return "https://127.0.0.1:" + std::to_string(m_port) + path;
    }
    const std::string& CaFile() const { return m_caFile; }
    const std::string& Output() const { return m_output; }
    pid_t Pid() const { return m_pid; }

private:
    [[noreturn]] static void Serve(int command, int answer, tools::TestReceiver::Options options)
    {
        try
        {
            tools::TestReceiver receiver(std::move(options));
            receiver.Start();
            const uint16_t port = receiver.Port();
            if (::write(answer, &port, sizeof port) != sizeof port)
            {
                ::_exit(1);
            }
            char c = 0;
            while (::read(command, &c, 1) == 1)
            {
                switch (c)
                {
                case 'd':
                    receiver.Stop();
                    break;
                case 'u':
                    receiver.Start();
                    break;
                case 'f':
                    receiver.FailNext(1000000, 503);
                    break;
                case 'h':
                    receiver.FailNext(0);
                    break;
                }
                if (::write(answer, &c, 1) != 1)
                {
                    break;
                }
            }
            receiver.Stop();
        }
        catch (...)
        {
            ::_exit(1);
        }
        ::_exit(0);
    }

    void Tell(char c)
    {
        char back = 0;
        ASSERT_EQ(::write(m_command, &c, 1), 1);
        ASSERT_EQ(::read(m_answer, &back, 1), 1);
        ASSERT_EQ(back, c);
    }

    std::string m_output;
    std::string m_caFile;
    pid_t m_pid = -1;
    int m_command = -1;
    int m_answer = -1;
    uint16_t m_port = 0;
};

// The stand-in agent, started with the daemon. Its pid is known before it
// runs, so that the configuration can name it as outpost_pid.
class AgentProcess
{
public:
    explicit AgentProcess(const std::string& output)
        : m_output(output)
    {
        int go[2];
        int control[2];
        if (::pipe2(go, O_CLOEXEC) != 0 || ::pipe2(control, O_CLOEXEC) != 0)
        {
            ADD_FAILURE() << "pipe: " << std::strerror(errno);
            return;
        }
        m_pid = ::fork();
        if (m_pid == 0)
        {
            ::close(go[1]);
            ::close(control[1]);
            char c = 0;
            char configFile[4096] = {};
            // The parent sends the configuration file's name once it is written.
            const ssize_t n = ::read(go[0], configFile, sizeof configFile - 1);
            if (n <= 0 || ::read(go[0], &c, 1) != 0)
            {
                ::_exit(126);
            }
            ::dup2(control[0], STDIN_FILENO);
            const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
            ::dup2(out, STDOUT_FILENO);
            ::dup2(out, STDERR_FILENO);
            ::execl(DaemonHarness::kOutpost, DaemonHarness::kOutpost, "--config", configFile, "--start",
                    DaemonHarness::kDaemon, static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(go[0]);
        ::close(control[0]);
        m_go = go[1];
        m_control = control[1];
    }

    ~AgentProcess()
    {
        if (m_go >= 0)
        {
            ::close(m_go);
        }
        if (m_control >= 0)
        {
            ::close(m_control);
        }
        Stop(m_pid, 5s);
        // Left to us, its subreaper, if the agent went first.
        if (m_daemonPid > 0 && ::waitpid(m_daemonPid, nullptr, WNOHANG) == 0)
        {
            Stop(m_daemonPid, 5s);
        }
    }

    pid_t Pid() const { return m_pid; }

    void Start(const std::string& configFile)
    {
        ASSERT_EQ(::write(m_go, configFile.data(), configFile.size()),
                  static_cast<ssize_t>(configFile.size()));
        ::close(m_go);
        m_go = -1;
    }

    // The daemon's pid, once it has connected.
    pid_t DaemonPid()
    {
        const std::string marker = "corvid-outpost: daemon connected, pid ";
        Eventually([&] { return ReadText(m_output).find(marker) != std::string::npos; }, 10s);
        const std::string text = ReadText(m_output);
        const auto at = text.find(marker);
        if (at != std::string::npos)
        {
            m_daemonPid = std::atoi(text.c_str() + at + marker.size());
        }
        return m_daemonPid;
    }

    // Has the agent send "exit"; answers the agent's status (the daemon's).
    int Exit()
    {
        const std::string word = "exit\n";
        EXPECT_EQ(::write(m_control, word.data(), word.size()), static_cast<ssize_t>(word.size()));
        const int status = WaitFor(m_pid, 15s);
        if (status >= 0)
        {
            m_pid = 0;
        }
        return status;
    }

private:
    std::string m_output;
    pid_t m_pid = -1;
    pid_t m_daemonPid = 0;
    int m_go = -1;
    int m_control = -1;
};

struct Document
{
    std::string action;
    std::string path;
    long long actor = -1;
    std::vector<std::string> rules;
    std::string newPath; // the new name of a rename
};

std::string Describe(const std::vector<Document>& documents)
{
    std::string text;
    for (const auto& doc : documents)
    {
        text += doc.action + " " + doc.path + (doc.newPath.empty() ? "" : " -> " + doc.newPath) + " by " +
                std::to_string(doc.actor) + "\n";
    }
    return text;
}

class FimEndToEndProcessTest : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::string problem = test::DaemonHarness::CaptureProblem();
        if (!problem.empty())
        {
            GTEST_SKIP() << problem;
        }
        const std::string skip = m_harness.Enter();
        if (!skip.empty())
        {
            GTEST_SKIP() << skip;
        }
        m_state = test::AuditKernelState::Take();
        ASSERT_NO_FATAL_FAILURE(m_harness.MountPrivateDev());
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

    void TearDown() override
    {
        m_agent.reset();
        m_receiver.reset();
        if (m_state)
        {
            if (m_daemonRan)
            {
                EXPECT_TRUE(test::RulesContaining("corvid_").empty()) << "the daemon left audit rules";
            }
            m_state->Restore();
            EXPECT_TRUE(test::RulesContaining("corvid_").size() <= CountOurs(m_state->rules));
        }
    }

    static size_t CountOurs(const std::vector<std::string>& rules)
    {
        return static_cast<size_t>(std::count_if(rules.begin(), rules.end(),
                                                 [](const std::string& line)
                                                 { return line.find("corvid_") != std::string::npos; }));
    }

    void WriteManifest()
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
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        manifest.Accept(writer);
        m_manifest = m_harness.Dir() + "/fim_manifest.json";
        std::ofstream(m_manifest) << buffer.GetString();
    }

    // Starts the agent and with it the daemon; waits until the FIM rule is in
    // the kernel and the capture runs.
    void StartDaemon(const std::string& dispatcherSocket = {})
    {
        m_agent = std::make_unique<AgentProcess>(m_harness.Dir() + "/agent.out");
        const pid_t agentPid = m_agent->Pid();
        m_harness.WriteConfiguration(
            [&](rapidjson::Document& config)
            {
                auto& allocator = config.GetAllocator();
                auto set = [&](rapidjson::Value& object, const char* key, const std::string& value) {
                    object[key].SetString(value.c_str(), static_cast<rapidjson::SizeType>(value.size()),
                                          allocator);
                };
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
            });
        ASSERT_NO_FATAL_FAILURE(m_agent->Start(m_harness.ConfigFile()));
        m_daemonRan = true;
        m_daemonPid = m_agent->DaemonPid();
        ASSERT_GT(m_daemonPid, 0) << ReadText(m_harness.Dir() + "/agent.out") << m_harness.Syslog();
        ASSERT_TRUE(Eventually([&] { return m_harness.LogContains("Memory threshold: softLimit"); }, 10s))
            << m_harness.Log() << m_harness.Syslog();
        ASSERT_TRUE(Eventually([&] { return !test::RulesContaining(m_watched).empty(); }, 5s))
            << test::RunCommand("auditctl -l");
        m_daemonPids.insert(m_daemonPid);
        m_agentPids.insert(agentPid);
    }

    void ExitDaemon()
    {
        ASSERT_TRUE(m_agent);
        EXPECT_EQ(m_agent->Exit(), 0) << ReadText(m_harness.Dir() + "/agent.out");
        m_agent.reset();
    }

    // Create, write, rename, chmod, chown and delete of one file, each by a
    // process of its own but the write, which this process does; then work
    // that must not be reported. Answers the documents that must arrive.
    std::vector<Document> Workload(const std::string& name)
    {
        const std::string first = m_watched + "/" + name + ".txt";
        const std::string second = m_watched + "/" + name + "-renamed.txt";
        std::vector<Document> expected;
        expected.push_back({"create", first, RunProgram({"/bin/touch", first}), {kRuleId}, {}});
        {
            const int fd = ::open(first.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
            EXPECT_GE(fd, 0);
            EXPECT_EQ(::write(fd, "content\n", 8), 8);
            ::close(fd);
            expected.push_back({"modifyContent", first, ::getpid(), {kRuleId}, {}});
        }
        expected.push_back({"rename", first, RunProgram({"/bin/mv", first, second}), {kRuleId}, second});
        expected.push_back(
            {"modifySecuritySettings", second, RunProgram({"/bin/chmod", "600", second}), {kRuleId}, {}});
        expected.push_back(
            {"modifySecuritySettings", second, RunProgram({"/bin/chown", "1:1", second}), {kRuleId}, {}});
        expected.push_back({"delete", second, RunProgram({"/bin/rm", second}), {kRuleId}, {}});

        // Outside the tree, below the excluded directory, and a file that the
        // file filter excludes.
        RunProgram({"/bin/touch", m_harness.Dir() + "/outside/" + name + ".txt"});
        RunProgram({"/bin/touch", m_watched + "/excluded/" + name + ".txt"});
        RunProgram({"/bin/touch", m_watched + "/" + name + ".tmp"});
        return expected;
    }

    std::vector<Document> Received() const
    {
        std::map<int, std::string> payloads;
        for (const auto& entry : std::filesystem::directory_iterator(m_receiver->Output()))
        {
            if (entry.path().extension() == ".payload")
            {
                payloads[std::atoi(entry.path().stem().c_str())] = ReadText(entry.path());
            }
        }
        std::vector<Document> documents;
        for (const auto& [index, text] : payloads)
        {
            rapidjson::Document payload;
            if (!util::ParseJson(payload, text) || !payload.IsObject() || !payload.HasMember("events") ||
                !payload["events"].IsArray())
            {
                ADD_FAILURE() << index << ".payload is not a FIM payload: " << text;
                continue;
            }
            for (const auto& event : payload["events"].GetArray())
            {
                Document doc;
                doc.action = util::GetString(event, "eventAction");
                doc.path = util::GetString(event, "imagePath");
                if (event.HasMember("actor") && event["actor"].IsObject() &&
                    event["actor"].HasMember("processID") && event["actor"]["processID"].IsNumber())
                {
                    doc.actor = event["actor"]["processID"].GetInt64();
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
        }
        return documents;
    }

    static size_t Count(const std::vector<Document>& documents, const Document& wanted)
    {
        return static_cast<size_t>(std::count_if(documents.begin(), documents.end(),
                                                 [&](const Document& doc)
                                                 {
                                                     return doc.action == wanted.action &&
                                                            doc.path == wanted.path &&
                                                            doc.actor == wanted.actor &&
                                                            doc.rules == wanted.rules;
                                                 }));
    }

    bool AllArrived(const std::vector<Document>& expected) const
    {
        const auto documents = Received();
        return std::all_of(expected.begin(), expected.end(),
                           [&](const Document& doc) { return Count(documents, doc) >= 1; });
    }

    bool SpoolIsEmpty() const { return std::filesystem::is_empty(m_spoolFiles); }

    // Waits for every expected document, lets the spool drain and one more
    // upload round pass, then checks that each came exactly once and that
    // nothing else did.
    void ExpectExactly(const std::vector<Document>& expected)
    {
        EXPECT_TRUE(Eventually([&] { return AllArrived(expected); }, 15s)) << Describe(Received());
        EXPECT_TRUE(Eventually([&] { return SpoolIsEmpty(); }, 5s));
        std::this_thread::sleep_for(2500ms);
        const auto documents = Received();
        for (const auto& doc : expected)
        {
            EXPECT_EQ(Count(documents, doc), 1u)
                << doc.action << " " << doc.path << " by " << doc.actor << "\n"
                << Describe(documents);
        }
        for (const auto& doc : documents)
        {
            EXPECT_EQ(Count(expected, doc), 1u)
                << "unexpected: " << doc.action << " " << doc.path << " by " << doc.actor;
            EXPECT_EQ(m_daemonPids.count(doc.actor), 0u) << "the daemon's own work: " << doc.path;
            EXPECT_EQ(m_agentPids.count(doc.actor), 0u) << "the agent's work: " << doc.path;
        }
    }

    // Spool files with data that reached the disk.
    size_t SpooledFiles() const
    {
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(m_spoolFiles))
        {
            count += entry.path().extension() != ".tmp" ? 1 : 0;
        }
        return count;
    }

    // Declared first so that it goes last: the namespace is left once no
    // child of ours runs.
    DaemonHarness m_harness;
    std::optional<test::AuditKernelState> m_state;
    std::unique_ptr<ReceiverProcess> m_receiver;
    std::unique_ptr<AgentProcess> m_agent;
    std::string m_watched;
    std::string m_spool;
    std::string m_spoolFiles;
    std::string m_manifest;
    pid_t m_daemonPid = 0;
    bool m_daemonRan = false;
    std::set<long long> m_daemonPids;
    std::set<long long> m_agentPids;
};

TEST_F(FimEndToEndProcessTest, EveryStepOfAWorkloadIsUploadedOnceWithItsActorAndRule)
{
    ASSERT_NO_FATAL_FAILURE(StartDaemon());
    const auto expected = Workload("report");
    ExpectExactly(expected);
    EXPECT_TRUE(m_harness.LogContains("UploadSchedule: Events successfully uploaded."));
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

TEST_F(FimEndToEndProcessTest, DocumentsWaitInTheSpoolWhileTheReceiverIsDownOrFailing)
{
    ASSERT_NO_FATAL_FAILURE(StartDaemon());
    m_receiver->Down();
    auto expected = Workload("stopped");
    ASSERT_TRUE(Eventually([&] { return m_harness.LogContains("Couldn't connect to server"); }, 5s))
        << m_harness.Log();
    m_receiver->Up();
    m_receiver->Fail();
    const auto failing = Workload("failing");
    expected.insert(expected.end(), failing.begin(), failing.end());
    ASSERT_TRUE(Eventually(
        [&] { return m_harness.LogContains("HttpUploader: Upload failed. (HTTP status 503)"); }, 10s))
        << m_harness.Log();
    ASSERT_TRUE(Eventually([&] { return SpooledFiles() > 1; }, 5s)) << "the second workload has its own file";
    EXPECT_TRUE(Received().empty()) << Describe(Received());
    m_receiver->Heal();
    ExpectExactly(expected);
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

TEST_F(FimEndToEndProcessTest, CorruptSpoolFileIsDeletedAndTheNextOneIsSent)
{
    std::ofstream(m_spoolFiles + "/fim_events.0001") << "{\"events\": [{\"eventAction\": \"create\", \x01";
    ASSERT_NO_FATAL_FAILURE(StartDaemon());
    const auto expected = Workload("after-corrupt");
    ExpectExactly(expected);
    const std::string log = m_harness.Log();
    const auto parse = log.find("UploadSchedule: Failed to parse file: ");
    const auto deleted = log.find("UploadSchedule: Deleting corrupt file: ");
    const auto uploaded = log.find("UploadSchedule: Events successfully uploaded.");
    ASSERT_NE(parse, std::string::npos) << log;
    EXPECT_NE(log.find("fim_events.0001 Missing a name for object member. (offset: 38)", parse),
              std::string::npos);
    ASSERT_NE(deleted, std::string::npos);
    EXPECT_LT(deleted, uploaded);
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

TEST_F(FimEndToEndProcessTest, RestartLosesNoSpooledDocument)
{
    m_receiver->Down();
    ASSERT_NO_FATAL_FAILURE(StartDaemon());
    const auto expected = Workload("before-restart");
    // Give the processing thread time to hand every event to the spool.
    ASSERT_TRUE(Eventually([&] { return SpooledFiles() > 0; }, 5s));
    std::this_thread::sleep_for(1500ms);
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
    EXPECT_GT(SpooledFiles(), 0u);
    EXPECT_TRUE(Received().empty());

    m_receiver->Up();
    ASSERT_NO_FATAL_FAILURE(StartDaemon());
    ExpectExactly(expected);
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

TEST_F(FimEndToEndProcessTest, WorkloadArrivesThroughTheAuditDispatcher)
{
    if (test::StatusValue("pid").value_or(0) != 0)
    {
        GTEST_SKIP() << "an audit daemon is already running";
    }
    if (::access("/usr/sbin/auditd", X_OK) != 0)
    {
        GTEST_SKIP() << "auditd is not installed";
    }
    const std::string auditdDir = m_harness.Dir() + "/auditd";
    std::filesystem::create_directory(auditdDir);
    test::PrivateAuditd auditd(auditdDir);
    const std::string problem = auditd.WaitReady();
    ASSERT_TRUE(problem.empty()) << problem;
    // In dispatcher mode the daemon leaves the enabled flag to auditd, which
    // was told not to change it.
    test::RunCommand("auditctl -e 1");
    ASSERT_NO_FATAL_FAILURE(StartDaemon(auditd.Socket()));
    ASSERT_TRUE(m_harness.LogContains("DispatcherIOChannel: Started.")) << m_harness.Log();
    const auto expected = Workload("dispatched");
    ExpectExactly(expected);
    if (HasFailure())
    {
        // What the daemon and auditd saw, to tell a lost record from a lost document.
        std::cerr << "daemon log:\n"
                  << m_harness.Log() << "\nauditd output:\n"
                  << test::ReadText(auditdDir + "/auditd.out") << "\n";
    }
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

} // namespace
} // namespace vantor::fim
