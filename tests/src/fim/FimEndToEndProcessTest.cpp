// File integrity monitoring end to end: the real daemon, started by the
// stand-in agent, on the real kernel audit stream (or a private auditd's
// dispatcher socket), uploading to the local HTTPS receiver.

#include "tests/support/ChildProcess.h"
#include "tests/support/FimEndToEndFixture.h"
#include "tests/support/PrivateAuditd.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>
#include <unistd.h>

namespace vantor::fim
{
namespace
{

using namespace std::chrono_literals;
using test::Eventually;
using test::RunProgram;
using Document = test::FimDocument;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

class FimEndToEndProcessTest : public test::FimEndToEndFixture
{
protected:
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
    EXPECT_TRUE(Received().empty()) << test::Describe(Received());
    m_receiver->Heal();
    ExpectExactly(expected);
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
    std::filesystem::create_directory(m_harness.Dir() + "/auditd");
    test::PrivateAuditd auditd(m_harness.Dir() + "/auditd");
    const std::string problem = auditd.WaitReady();
    ASSERT_TRUE(problem.empty()) << problem;
    // In dispatcher mode the daemon leaves the enabled flag to auditd, which
    // was told not to change it.
    test::RunCommand("auditctl -e 1");
    ASSERT_NO_FATAL_FAILURE(StartDaemon(auditd.Socket()));
    ASSERT_TRUE(m_harness.LogContains("DispatcherIOChannel: Started.")) << m_harness.Log();
    ASSERT_NO_FATAL_FAILURE(AwaitDispatcherDelivery());
    const auto expected = Workload("dispatched");
    ExpectExactly(expected);
    if (HasFailure())
    {
        // What the daemon and auditd saw, to tell a lost record from a lost document.
        std::cerr << "daemon log:\n"
                  << m_harness.Log() << "\nauditd output:\n"
                  << test::ReadText(m_harness.Dir() + "/auditd/auditd.out") << "\n";
    }
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

} // namespace
} // namespace vantor::fim
