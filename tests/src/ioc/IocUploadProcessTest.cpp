// What IOC uploads from the real kernel: the shipped daemon, started by the
// stand-in agent, holds IOC's kernel rules while it runs and reports a
// workload through its verdict chain into protobuf batches that the local
// HTTPS receiver takes on the gateway route (it refuses what the back end
// refuses) and the test decodes.

#include "common/util/Sha256.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/IocEndToEndFixture.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vantor::ioc
{
namespace
{

using namespace std::chrono_literals;
using test::EventuallyWithTraffic;
using test::IocEvent;
using test::RunProgram;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

constexpr const char* kTrue = "/usr/bin/true";

// Every process start is watched; the one repeated command is a known
// executable, so each of its starts is worth a report until heuristics
// has seen it often enough.
std::string Manifest(const std::string& rules, const std::string& tags = R"({"thresholdScore": 0})")
{
    return R"({"policyVersion": "2.0.0", "policyId": "e2e-ioc", "productId": "corvid-edr",
        "heuristicsEnabled": true, "globalSettings": {"maxFileSizeToProcess": 52428800, "sendMetadata": true,
        "knownProcessPaths": [")" +
           std::string(kTrue) + R"("], "tags": )" + tags + R"(}, "rules": [
        {"ruleId": "e2e-starts", "ruleType": "Process", "notify": ["start"]})" +
           rules + "]}";
}

// Runs the command n times from a forked child of this process that execs
// nothing itself, so that the runs are siblings of each other only and no
// tag of this process's other children reaches them; answers their pids.
std::vector<long long> RunTimesApart(const std::vector<std::string>& argv, int n)
{
    int pipe[2];
    EXPECT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    const pid_t runner = ::fork();
    if (runner == 0)
    {
        std::vector<char*> args;
        for (const auto& arg : argv)
        {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        for (int i = 0; i < n; ++i)
        {
            const pid_t pid = ::fork();
            if (pid == 0)
            {
                ::execv(args[0], args.data());
                ::_exit(127);
            }
            int status = 0;
            if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
                ::write(pipe[1], &pid, sizeof pid) != sizeof pid)
            {
                ::_exit(1);
            }
        }
        ::_exit(0);
    }
    ::close(pipe[1]);
    std::vector<long long> pids;
    pid_t pid = 0;
    while (::read(pipe[0], &pid, sizeof pid) == sizeof pid)
    {
        pids.push_back(pid);
    }
    ::close(pipe[0]);
    EXPECT_EQ(test::WaitForChild(runner, 10s), 0);
    EXPECT_EQ(pids.size(), static_cast<size_t>(n));
    pids.resize(static_cast<size_t>(n), -1);
    return pids;
}

class IocUploadProcessTest : public test::IocEndToEndFixture
{
protected:
    static std::vector<IocEvent> Select(const std::vector<IocEvent>& events,
                                        const std::function<bool(const IocEvent&)>& pick)
    {
        std::vector<IocEvent> picked;
        std::copy_if(events.begin(), events.end(), std::back_inserter(picked), pick);
        return picked;
    }

    // How many process starts of pid arrived.
    static size_t Starts(const std::vector<IocEvent>& events, long long pid)
    {
        return Select(events, [&](const IocEvent& e) { return e.kind == "processEvent" && e.pid == pid; })
            .size();
    }

    // The started process of that image whose parent is parent, or -1.
    static long long ChildOf(const std::vector<IocEvent>& events, long long parent, const std::string& image)
    {
        const auto found =
            Select(events, [&](const IocEvent& e)
                   { return e.kind == "processEvent" && e.parent == parent && e.image == image; });
        return found.empty() ? -1 : found.front().pid;
    }

    bool AllStarted(const std::vector<long long>& pids) const
    {
        const auto events = Events();
        return std::all_of(pids.begin(), pids.end(), [&](long long pid) { return Starts(events, pid) > 0; });
    }

    // Each of pids started exactly once in what arrived.
    void ExpectStartedOnce(const std::vector<long long>& pids) const
    {
        const auto events = Events();
        for (const long long pid : pids)
        {
            EXPECT_EQ(Starts(events, pid), 1u) << pid << "\n" << test::Describe(events);
        }
    }
};

TEST_F(IocUploadProcessTest, TaggedWorkloadArrivesDecodedWhileWhitelistedAndRepeatedBehaviourStaysOut)
{
    const std::string dir = m_harness.Dir();
    std::filesystem::create_directories(dir + "/creds");
    const std::string credentials = dir + "/creds/id_rsa";
    std::ofstream(credentials) << "e2e credential\n";
    const std::string digest = util::Sha256Hex(test::ReadText(credentials));
    const std::string download = m_receiver->Url("/download/16");
    // Run from /tmp by bash (Execution), it reads the credential file with
    // a viewing tool (CredentialAccess) and fetches from loopback with a
    // transfer tool (Exfiltration). wget: curl's non-blocking connect is an
    // unsuccessful call, which IOC drops.
    const std::string script = dir + "/stage.sh";
    std::ofstream(script) << "/usr/bin/head -c 64 " << credentials << " > /dev/null\n"
                          << "/usr/bin/wget -q --no-check-certificate -O /dev/null " << download << "\n";
    ASSERT_NO_FATAL_FAILURE(StartIocDaemon(Manifest(
        R"(,
        {"ruleId": "e2e-credentials", "ruleType": "File", "path": ")" +
            credentials + R"(", "notify": ["read"]},
        {"ruleId": "e2e-loopback", "ruleType": "Network", "notify": ["establish"], "inclusionFilters": [
            {"filterType": [{"objectType": "network", "protocol": "any", "remoteIPAddress": ["127\\.0\\.0\\.1"]}]}]},
        {"ruleId": "e2e-quiet-cat", "ruleType": "EDR", "ruleClass": "WhitelistGlobal", "applyTo": ["/usr/bin/cat"],
         "exclusionFilters": [{"filterType": [{"objectType": "process", "actorProcess": ["/usr/bin/cat"]}]}]})",
        R"({"thresholdScore": 10, "Execution": {"score": 5, "exclusions": []},
            "CredentialAccess": {"score": 5, "exclusions": [], "pathRegex": "^)" +
            dir + R"(/creds/.*$"}, "Exfiltration": {"score": 5, "exclusions": []}})")));
    // The process and network rules live in the kernel under IOC's key
    // while the daemon runs.
    const std::string rules = testing::PrintToString(test::RulesContaining("key=IOC"));
    for (const char* call : {"-S execve", "connect", "accept"})
    {
        EXPECT_NE(rules.find(call), std::string::npos) << call << " in " << rules;
    }

    // A first sighting of an executable is reported whatever its tags; the
    // second runs are judged by their tags alone.
    const auto stages = RunTimes({"/usr/bin/bash", script}, 2);
    const auto tails = RunTimesApart({"/usr/bin/tail", "-c", "64", credentials}, 2);
    const pid_t whitelisted = RunProgram({"/usr/bin/cat", credentials});
    const auto repeated = RunTimes({kTrue}, 11);
    // Reported only after all of the above were processed.
    const pid_t last = RunProgram({"/usr/bin/sync"});

    const std::vector<long long> owed(repeated.begin(), repeated.begin() + 10);
    ASSERT_TRUE(EventuallyWithTraffic(
        [&]
        {
            const auto events = Events();
            return Starts(events, last) > 0 && ChildOf(events, stages[1], "/usr/bin/wget") > 0 &&
                   AllStarted(owed);
        },
        Nudge))
        << test::Describe(Events()) << m_harness.Log();
    const auto events = Events();
    const std::string described = test::Describe(events);

    // Both tools of the second run reach the threshold through the tags of
    // the script and their own: their events and their starts arrive, with
    // the tags that made them.
    const long long head = ChildOf(events, stages[1], "/usr/bin/head");
    ASSERT_GT(head, 0) << described;
    const auto reads =
        Select(events, [&](const IocEvent& e) { return e.kind == "fileEvent" && e.pid == head; });
    ASSERT_EQ(reads.size(), 1u) << described;
    EXPECT_EQ(reads[0].action, "READ");
    EXPECT_EQ(reads[0].image, "/usr/bin/head");
    EXPECT_EQ(reads[0].target, credentials);
    EXPECT_EQ(reads[0].sha256, digest);
    for (const char* tag : {"\"Execution\":5", "\"CredentialAccess\":5"})
    {
        EXPECT_NE(reads[0].meta.find(tag), std::string::npos) << tag << " in " << reads[0].meta;
    }
    const long long wget = ChildOf(events, stages[1], "/usr/bin/wget");
    const auto connects =
        Select(events, [&](const IocEvent& e) { return e.kind == "networkEvent" && e.pid == wget; });
    ASSERT_EQ(connects.size(), 1u) << described;
    EXPECT_EQ(connects[0].action, "ESTABLISHED");
    EXPECT_EQ(connects[0].image, "/usr/bin/wget");
    EXPECT_EQ(download.find("https://" + connects[0].target + "/"), 0u) << connects[0].target;
    // The script's shell carries Execution only: below the threshold.
    EXPECT_EQ(Starts(events, stages[1]), 0u) << described;

    // The first tail is a first sighting; the second one (like its only
    // sibling, the first) has CredentialAccess alone, below the threshold.
    EXPECT_EQ(
        Select(events, [&](const IocEvent& e) { return e.kind == "fileEvent" && e.pid == tails[0]; }).size(),
        1u)
        << described;
    EXPECT_TRUE(Select(events, [&](const IocEvent& e) { return e.pid == tails[1]; }).empty()) << described;

    EXPECT_TRUE(
        Select(events, [&](const IocEvent& e) { return e.pid == whitelisted || e.image == "/usr/bin/cat"; })
            .empty())
        << described;

    // Ten starts of the same command by the same parent arrive, the eleventh
    // is dropped.
    ExpectStartedOnce(owed);
    EXPECT_EQ(Starts(events, repeated.back()), 0u) << described;
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
    EXPECT_TRUE(test::RulesContaining("key=IOC").empty()) << "the daemon left IOC's rules";
    EXPECT_TRUE(m_harness.LogContains("Ioc component destroyed."));
}

} // namespace
} // namespace vantor::ioc
