// File integrity monitoring end to end: the real daemon, started by the
// stand-in agent, on the real kernel audit stream (or a private auditd's
// dispatcher socket), uploading to the local HTTPS receiver.

#include "common/util/Json.h"
#include "edr/PathEscape.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FimEndToEndFixture.h"
#include "tests/support/PrivateAuditd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace vantor::fim
{
namespace
{

using namespace std::chrono_literals;
using test::Eventually;
using test::ReadText;
using test::RunCommand;
using test::RunProgram;
using Document = test::FimDocument;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

class FimEndToEndProcessTest : public test::FimEndToEndFixture
{
protected:
    void TearDown() override
    {
        if (HasFailure() && m_daemonRan)
        {
            // What the daemon and auditd saw, to tell a lost record from a lost document.
            const auto tail = [](const std::string& text)
            { return text.substr(std::max<size_t>(text.size(), 8000) - 8000); };
            std::cerr << "daemon log tail:\n"
                      << tail(m_harness.Log()) << "\nauditd output:\n"
                      << tail(ReadText(m_harness.Dir() + "/auditd/auditd.out")) << "\n";
        }
        // The daemon goes before the audit daemon it reads.
        m_agent.reset();
        m_auditd.reset();
        FimEndToEndFixture::TearDown();
    }

    // The daemon reading a private auditd's dispatcher socket, once records
    // reach it.
    void StartDaemonThroughAuditd(const std::function<void(rapidjson::Document&)>& change = {})
    {
        std::filesystem::create_directory(m_harness.Dir() + "/auditd");
        m_auditd = std::make_unique<test::PrivateAuditd>(m_harness.Dir() + "/auditd");
        const std::string problem = m_auditd->WaitReady();
        ASSERT_TRUE(problem.empty()) << problem;
        // In dispatcher mode the daemon leaves the enabled flag to auditd, which
        // was told not to change it.
        RunCommand("auditctl -e 1");
        ASSERT_NO_FATAL_FAILURE(StartDaemon(m_auditd->Socket(), change));
        ASSERT_TRUE(m_harness.LogContains("DispatcherIOChannel: Started.")) << m_harness.Log();
        ASSERT_NO_FATAL_FAILURE(AwaitDispatcherDelivery());
    }

    // The document of that action and path, once it is in the spool.
    std::optional<rapidjson::Document> Await(const std::string& action, const std::string& path)
    {
        std::optional<rapidjson::Document> found;
        std::string spooled;
        Eventually(
            [&]
            {
                spooled.clear();
                for (const auto& entry : std::filesystem::directory_iterator(m_spoolFiles))
                {
                    rapidjson::Document file;
                    if (entry.path().extension() == ".tmp")
                    {
                        continue;
                    }
                    if (!util::ParseJson(file, ReadText(entry.path())))
                    {
                        ADD_FAILURE() << entry.path() << " is not valid JSON";
                        continue;
                    }
                    for (auto& event : file["events"].GetArray())
                    {
                        const std::string escaped(util::GetString(event, "imagePath"));
                        const auto unescaped = edr::PathEscape::Unescape(escaped);
                        EXPECT_TRUE(unescaped) << escaped;
                        spooled += std::string(util::GetString(event, "eventAction")) + " " + escaped + "\n";
                        if (util::GetString(event, "eventAction") == action && unescaped == path)
                        {
                            found.emplace().CopyFrom(event, found->GetAllocator());
                            return true;
                        }
                    }
                }
                return false;
            },
            10s);
        EXPECT_TRUE(found) << "no " << action << " " << path << "\n" << spooled;
        return found;
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

    // Waits for every expected document, lets the spool drain and one more
    // upload round pass, then checks that each came exactly once and that
    // nothing else did.
    void ExpectExactly(const std::vector<Document>& expected)
    {
        EXPECT_TRUE(Eventually([&] { return AllArrived(expected); }, 15s)) << test::Describe(Received());
        EXPECT_TRUE(Eventually([&] { return SpoolIsEmpty(); }, 5s));
        std::this_thread::sleep_for(2500ms);
        const auto documents = Received();
        for (const auto& doc : expected)
        {
            EXPECT_EQ(Count(documents, doc), 1u)
                << doc.action << " " << doc.path << " by " << doc.actor << "\n"
                << test::Describe(documents);
        }
        for (const auto& doc : documents)
        {
            EXPECT_EQ(Count(expected, doc), 1u)
                << "unexpected: " << doc.action << " " << doc.path << " by " << doc.actor;
            EXPECT_EQ(m_daemonPids.count(doc.actor), 0u) << "the daemon's own work: " << doc.path;
            EXPECT_EQ(m_agentPids.count(doc.actor), 0u) << "the agent's work: " << doc.path;
        }
    }

    std::unique_ptr<test::PrivateAuditd> m_auditd;
};

// Each step of two workloads is uploaded exactly once, with its actor and
// rule, after waiting in the spool while the receiver was down or failing.
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
    EXPECT_TRUE(Received().empty()) << test::Describe(Received());
    m_receiver->Heal();
    ExpectExactly(expected);
    EXPECT_TRUE(m_harness.LogContains("UploadSchedule: Events successfully uploaded."));
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
    if (const std::string why = test::PrivateAuditd::WhyUnavailable(); !why.empty())
    {
        GTEST_SKIP() << why;
    }
    ASSERT_NO_FATAL_FAILURE(StartDaemonThroughAuditd());
    const auto expected = Workload("dispatched");
    ExpectExactly(expected);
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

// Uploads go nowhere, so every document stays in the spool: the baseline at
// start, content that a writer left, touch and chmod against the previous
// settings. Renames, removed directories and hostile names from real kernel
// records are covered on captured records.
TEST_F(FimEndToEndProcessTest, SpooledDocumentsTellWhatHappened)
{
    const std::string existing = m_watched + "/existing.txt";
    std::ofstream(existing) << "before\n";
    ::chmod(existing.c_str(), 0644);
    std::ofstream(m_manifest)
        << R"({"data": {"fim": {"policyVersion": "1.0", "collectHashes": true, "rules": [{
            "ruleId": "docs", "ruleType": "directory", "imagePath": ")"
        << m_watched << R"(", "trackContentChange": true, "recursiveDepth": "all",
            "notify": ["create", "modifyContent", "modifyMetadata", "modifySecuritySettings",
                       "rename", "delete"]}]}}})";
    // Nothing listens there: documents stay in the spool.
    ASSERT_NO_FATAL_FAILURE(StartDaemon({},
                                        [&](rapidjson::Document& config)
                                        {
                                            test::SetString(config, config["fim_config"], "service_url",
                                                            "https://127.0.0.1:9/fim");
                                            config["fim_config"]["upload_interval"].SetUint(3600);
                                        }));
    // The baseline at start, with the content status of the file.
    auto doc = Await("Baseline", existing);
    ASSERT_TRUE(doc);
    EXPECT_STREQ((*doc)["contentStatus"].GetString(), "READ_SUCCESSFUL");

    // What a writer leaves: the create is documented with it.
    RunProgram({"/bin/sh", "-c", "echo text > " + m_watched + "/echoed.txt"});
    doc = Await("create", m_watched + "/echoed.txt");
    ASSERT_TRUE(doc);
    EXPECT_STREQ((*doc)["fileContent"].GetString(), "text\n");
    EXPECT_STREQ((*doc)["contentStatus"].GetString(), "READ_SUCCESSFUL");

    // touch changes the times alone.
    RunProgram({"/bin/touch", existing});
    doc = Await("modifyMetadata", existing);
    ASSERT_TRUE(doc);
    EXPECT_STREQ((*doc)["fileContent"].GetString(), "before\n");

    // chmod, with the permission it replaced.
    RunProgram({"/bin/chmod", "600", existing});
    doc = Await("modifySecuritySettings", existing);
    ASSERT_TRUE(doc);
    EXPECT_STREQ((*doc)["securitySettings"]["old"]["permission"].GetString(), "0644");
    EXPECT_STREQ((*doc)["securitySettings"]["new"]["permission"].GetString(), "0600");
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

// A burst of file work, in both channel modes, on a host whose audit state
// the daemon did not make: audit already enabled, rules of others in the
// kernel (a watch, a system call rule and an exclusion identical to the
// daemon's own in meaning). Every operation of the burst must arrive as a
// document, and after "exit" the kernel must hold exactly the rules it held
// before the daemon started, with the enabled flag as it was.
enum class Channel
{
    Kernel,
    Dispatcher
};

constexpr int kBurstFiles = 10000;
// An administrator's EOE exclusion: the same meaning as the daemon's own.
const std::string kForeignEoeRule = "-a always,exclude -F msgtype=EOE";

class FimBurstProcessTest : public FimEndToEndProcessTest, public testing::WithParamInterface<Channel>
{
protected:
    void SetUp() override
    {
        FimEndToEndProcessTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
        {
            return;
        }
        if (const std::string why = test::PrivateAuditd::WhyUnavailable();
            GetParam() == Channel::Dispatcher && !why.empty())
        {
            GTEST_SKIP() << why;
        }
        m_foreignDir = m_harness.Dir() + "/foreign";
        std::filesystem::create_directory(m_foreignDir);
        m_foreignKey = "foreign_probe_" + std::to_string(::getpid());
        RunCommand("auditctl -e 1");
        RunCommand("auditctl -w " + m_foreignDir + " -p wa -k " + m_foreignKey);
        RunCommand("auditctl -a always,exit -F arch=b64 -S fchownat -F key=" + m_foreignKey);
        RunCommand("auditctl " + kForeignEoeRule);
        m_foreignRules = test::ListRules();
        ASSERT_EQ(test::RulesContaining(m_foreignKey).size(), 2u) << RunCommand("auditctl -l");
        ASSERT_EQ(test::StatusValue("enabled"), 1);
    }

    void TearDown() override
    {
        FimEndToEndProcessTest::TearDown();
        // Ours to remove: the fixture puts back only what the daemon may have
        // changed.
        if (m_foreignKey.empty())
        {
            return;
        }
        RunCommand("auditctl -W " + m_foreignDir + " -p wa -k " + m_foreignKey);
        RunCommand("auditctl -d always,exit -F arch=b64 -S fchownat -F key=" + m_foreignKey);
        // Only the one planted here: the list held as many before.
        const auto before = m_state ? m_state->rules : std::vector<std::string>{};
        const auto count = [&](const std::vector<std::string>& rules)
        { return std::count(rules.begin(), rules.end(), kForeignEoeRule); };
        if (count(test::ListRules()) > count(before))
        {
            RunCommand("auditctl -d always,exclude -F msgtype=EOE");
        }
        EXPECT_TRUE(test::RulesContaining(m_foreignKey).empty());
    }

    // The rules planted here, in list order.
    std::vector<std::string> Planted(const std::vector<std::string>& rules) const
    {
        std::vector<std::string> planted;
        std::copy_if(rules.begin(), rules.end(), std::back_inserter(planted),
                     [&](const std::string& rule)
                     { return rule.find(m_foreignKey) != std::string::npos || rule == kForeignEoeRule; });
        return planted;
    }

    // Each file created with content, rewritten and deleted, by a child
    // process of its own; answers its pid.
    pid_t Burst()
    {
        const std::string dir = m_watched;
        const pid_t pid = ::fork();
        if (pid == 0)
        {
            for (int i = 0; i < kBurstFiles; ++i)
            {
                const std::string path = dir + "/burst-" + std::to_string(i);
                int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
                if (fd < 0 || ::write(fd, "first\n", 6) != 6 || ::close(fd) != 0)
                {
                    ::_exit(1);
                }
                fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
                if (fd < 0 || ::write(fd, "second\n", 7) != 7 || ::close(fd) != 0 ||
                    ::unlink(path.c_str()) != 0)
                {
                    ::_exit(2);
                }
            }
            ::_exit(0);
        }
        EXPECT_EQ(test::WaitForChild(pid, 120s), 0);
        return pid;
    }

    std::string m_foreignDir;
    std::string m_foreignKey;
    std::vector<std::string> m_foreignRules;
};

TEST_P(FimBurstProcessTest, EveryOperationOfABurstArrivesAndExitLeavesTheAuditStateAsFound)
{
    // Room for the whole burst in the spool, and few files to upload.
    const auto roomForTheBurst = [](rapidjson::Document& config)
    {
        config["fim_config"]["max_disk_size_mb"].SetUint(256);
        config["fim_config"]["max_file_size_kb"].SetUint(4096);
    };
    if (GetParam() == Channel::Dispatcher)
    {
        ASSERT_NO_FATAL_FAILURE(StartDaemonThroughAuditd(roomForTheBurst));
    }
    else
    {
        ASSERT_NO_FATAL_FAILURE(StartDaemon({}, roomForTheBurst));
    }

    const pid_t actor = Burst();
    const size_t expected = 3 * static_cast<size_t>(kBurstFiles);
    // Per path of the burst, the actions in arrival order.
    std::map<std::string, std::vector<std::string>> actions;
    size_t documents = 0;
    size_t otherActor = 0;
    // Waits while documents keep coming: a slow host takes longer, a lost
    // one never comes.
    auto lastProgress = std::chrono::steady_clock::now();
    for (size_t seen = 0; documents < expected;)
    {
        std::this_thread::sleep_for(500ms);
        actions.clear();
        documents = otherActor = 0;
        for (const auto& doc : Received())
        {
            if (doc.path.rfind(m_watched + "/burst-", 0) == 0)
            {
                ++documents;
                otherActor += doc.actor != actor || doc.rules != std::vector<std::string>{kRuleId} ? 1 : 0;
                actions[doc.path].push_back(doc.action);
            }
        }
        const auto now = std::chrono::steady_clock::now();
        if (documents > seen)
        {
            seen = documents;
            lastProgress = now;
        }
        else if (now - lastProgress > 20s)
        {
            break;
        }
    }
    // Every file once created, once rewritten and once deleted, in that
    // order, by the burst's process under the rule.
    const std::vector<std::string> lifecycle{"create", "modifyContent", "delete"};
    EXPECT_EQ(documents, expected);
    EXPECT_EQ(actions.size(), static_cast<size_t>(kBurstFiles));
    EXPECT_EQ(otherActor, 0u);
    size_t wrong = 0;
    for (const auto& [path, pathActions] : actions)
    {
        if (pathActions != lifecycle && wrong++ < 5)
        {
            ADD_FAILURE() << path << ": " << testing::PrintToString(pathActions);
        }
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(UnreadablePayloads(), 0u);

    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
    // Nothing lost on the way, nor counted as lost (the channel sums up at its
    // stop); the log with the files it rotated out (a burst logs much).
    std::string log;
    for (int i = 9; i >= 0; --i)
    {
        log += ReadText(m_harness.LogFile() + "." + std::to_string(i));
    }
    log += m_harness.Log();
    EXPECT_EQ(log.find("were lost"), std::string::npos);
    EXPECT_EQ(log.find("Audit parser queue threshold hit"), std::string::npos);
    // What the daemon found: the foreign rules in their order, audit still on
    // (none of its own rules: the fixture checks that).
    EXPECT_EQ(Planted(test::ListRules()), Planted(m_foreignRules)) << RunCommand("auditctl -l");
    EXPECT_EQ(test::StatusValue("enabled"), 1);
}

INSTANTIATE_TEST_SUITE_P(Channels, FimBurstProcessTest, testing::Values(Channel::Kernel, Channel::Dispatcher),
                         [](const testing::TestParamInfo<Channel>& info)
                         { return info.param == Channel::Kernel ? "Kernel" : "Dispatcher"; });

// What the shipped daemon does with its FIM spool on the wire: files found in
// its spool at start go to the stand-alone receiver, which refuses what the
// back end refuses (uncompressed bodies, missing fixed headers, bad
// signatures).
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

TEST_F(FimEndToEndProcessTest, UploadsGoCompressedAndAnswersAreValidated)
{
    const auto dir = [&](const std::string& name) { return m_harness.Dir() + "/wire-" + name; };
    for (const auto& path : {dir("received"), dir("certs")})
    {
        std::filesystem::create_directories(path);
    }
    // The first answer is signed with another key: the daemon must not take
    // it for a success, keep the file and send it again.
    const pid_t receiver = Spawn({kReceiver, "--output", dir("received"), "--cert-dir", dir("certs"),
                                  "--hmac-key-file", m_harness.Dir() + "/keys/edr_hmac.key", "--request-log",
                                  dir("requests.log"), "--bad-signature", "1"},
                                 dir("receiver.out"));
    const struct Stop
    {
        pid_t pid;
        ~Stop()
        {
            if (pid > 0)
            {
                test::StopChild(pid, 1s);
            }
        }
    } stop{receiver};
    ASSERT_TRUE(Eventually([&] { return !Field(ReadText(dir("receiver.out")), "public_key").empty(); }, 10s))
        << ReadText(dir("receiver.out"));
    const std::string out = ReadText(dir("receiver.out"));
    // The back end's answer key where the daemon looks for it.
    std::filesystem::copy_file(Field(out, "public_key"), m_harness.Dir() + "/keys/edr_response.pub");
    // A spool file as an earlier run left it.
    std::ofstream(m_spoolFiles + "/fim_events.0001")
        << R"({"events":[{"eventAction":"create","imagePath":"/wire/1"}]})";
    ASSERT_NO_FATAL_FAILURE(StartDaemon(
        {},
        [&](rapidjson::Document& config)
        {
            test::SetString(config, config["common_config"], "ca_cert_path", Field(out, "ca"));
            test::SetString(config, config["common_config"], "service_url", Field(out, "url"));
            test::SetString(config, config["fim_config"], "service_url", Field(out, "url") + "/fim");
        }));
    ASSERT_TRUE(Eventually([&] { return SpoolIsEmpty(); }, 20s)) << m_harness.Log();
    // The paths of the stored payloads, in arrival order.
    std::map<int, std::string> payloads;
    for (const auto& entry : std::filesystem::directory_iterator(dir("received")))
    {
        payloads[std::atoi(entry.path().stem().c_str())] = ReadText(entry.path());
    }
    std::vector<Document> documents;
    for (const auto& [number, text] : payloads)
    {
        EXPECT_TRUE(test::ReadFimPayload(text, documents)) << number << ".payload: " << text;
    }
    ASSERT_EQ(documents.size(), 2u) << test::Describe(documents);
    EXPECT_EQ(documents[0].path, "/wire/1");
    EXPECT_EQ(documents[1].path, "/wire/1");
    EXPECT_TRUE(m_harness.LogContains("Request payload data is LZMA compressed."));
    EXPECT_TRUE(m_harness.LogContains("Response signature validation failed"));
    EXPECT_FALSE(m_harness.LogContains("answers are not validated"));
    EXPECT_EQ(ReadText(dir("requests.log")),
              "POST /upload/fim 200 Content-Encoding=LZMA Accept-Encoding=LZMA\n"
              "POST /upload/fim 200 Content-Encoding=LZMA Accept-Encoding=LZMA\n");
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

} // namespace
} // namespace vantor::fim
