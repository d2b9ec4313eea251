// A loss-and-crash soak of the shipped daemon on the real kernel: the
// stand-in agent runs it with a FIM and an IOC manifest while a workload
// creates, writes, renames and deletes files under the watched tree and
// runs marked processes. Meanwhile the upload receiver is stopped for an
// outage and started again on its port, and the daemon is killed with
// SIGKILL at random points and started again. At the end the spools drain
// and SoakTally counts the workload against what arrived.
//
// The short run of `make test` takes its defaults; bench/crash-soak.sh runs
// the long one through these variables:
//   CORVID_SOAK_DURATION_SEC  workload length (30)
//   CORVID_SOAK_KILLS         SIGKILLs of the daemon (3)
//   CORVID_SOAK_OUTAGE_SEC    receiver outage, from a tenth of the run (10)
//   CORVID_SOAK_DRAIN_SEC     longest wait for the spools to drain (60)
//   CORVID_SOAK_SEED          kill times (random when unset)
//
// One of the kills falls right after the receiver is back, while the daemon
// sends what it spooled during the outage.

#include "tests/support/ChildProcess.h"
#include "tests/support/IocEndToEndFixture.h"
#include "tests/support/SoakTally.h"
#include "tests/support/SoakWorkload.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vantor::edr
{
namespace
{

using namespace std::chrono_literals;
using Seconds = std::chrono::duration<double>;
using test::Eventually;
using test::ReadText;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

// Every process start is watched; a start is reported when its executable
// is new to IOC, as each marked process's copy is.
constexpr const char* kManifest = R"({"policyVersion": "2.0.0", "policyId": "soak", "productId": "corvid-edr",
    "globalSettings": {}, "rules": [{"ruleId": "soak-starts", "ruleType": "Process", "notify": ["start"]}]})";

double Setting(const char* name, double fallback)
{
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::strtod(value, nullptr) : fallback;
}

// Whether a process is gone or a zombie (dead, its spool files final).
bool Dead(pid_t pid)
{
    const std::string stat = ReadText("/proc/" + std::to_string(pid) + "/stat");
    const auto close = stat.rfind(')');
    return close == std::string::npos || stat.compare(close, 3, ") Z") == 0;
}

class CrashSoakProcessTest : public test::IocEndToEndFixture
{
protected:
    void SetUp() override
    {
        IocEndToEndFixture::SetUp();
        m_begin = std::chrono::steady_clock::now();
    }

    void TearDown() override
    {
        if (m_receiverPid > 0)
        {
            test::StopChild(m_receiverPid, 5s);
        }
        IocEndToEndFixture::TearDown();
    }

    void Say(const std::string& text) const
    {
        std::cout << "soak: " << std::fixed << std::setprecision(1)
                  << Seconds(std::chrono::steady_clock::now() - m_begin).count() << " s: " << text
                  << std::endl;
    }

    void Start()
    {
        // Empties the harness's syslog socket, which holds only a few lines:
        // a full one would block the next daemon in syslog() at its start.
        m_harness.Syslog();
        ASSERT_NO_FATAL_FAILURE(StartIocDaemon(kManifest));
        m_tally.Started(test::SoakWorkload::Now());
    }

    // SIGKILL, then the spool files the dead daemon left are owed.
    void KillAndRestart(int number, int of)
    {
        const int64_t time = test::SoakWorkload::Now();
        ASSERT_EQ(::kill(m_daemonPid, SIGKILL), 0);
        ASSERT_TRUE(Eventually([&] { return Dead(m_daemonPid); }, 5s));
        Say("kill " + std::to_string(number) + " of " + std::to_string(of) + " (daemon " +
            std::to_string(m_daemonPid) + "): left " + std::to_string(SpooledFiles()) + " FIM files and " +
            std::to_string(SpooledBatches()) + " IOC batches in the spools");
        m_tally.Killed(time, m_spoolFiles, m_iocSpool);
        m_agent.reset();
        ASSERT_NO_FATAL_FAILURE(Start());
    }

    // Stops serving (answers in flight go out first), then ends the process.
    void StopReceiver()
    {
        m_receiver->Down();
        ASSERT_EQ(::kill(m_receiver->Pid(), SIGTERM), 0);
        // Reaped by the fixture's receiver object at the end, not here.
        siginfo_t info{};
        ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(m_receiver->Pid()), &info, WEXITED | WNOWAIT), 0);
        Say("receiver stopped");
    }

    // The receiver program on the same port and output directory; what the
    // first one stored is moved aside, as the program numbers from 1 again.
    void RestartReceiver()
    {
        std::filesystem::create_directories(m_earlier);
        for (const auto& entry : std::filesystem::directory_iterator(m_receiver->Output()))
        {
            std::filesystem::rename(entry.path(), m_earlier + "/" + entry.path().filename().string());
        }
        const std::string url = m_receiver->Url("");
        const std::string port = url.substr(url.rfind(':') + 1);
        const std::string out = m_harness.Dir() + "/receiver.out";
        const std::string dir = m_harness.Dir();
        m_receiverPid = ::fork();
        if (m_receiverPid == 0)
        {
            const std::string program = CORVID_BINARY_DIR "/corvid-test-receiver";
            const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            ::dup2(fd, STDOUT_FILENO);
            ::dup2(fd, STDERR_FILENO);
            ::execl(program.c_str(), program.c_str(), "--output", m_receiver->Output().c_str(), "--port",
                    port.c_str(), "--cert-dir", (dir + "/certs").c_str(), "--hmac-key-file",
                    (dir + "/keys/edr_hmac.key").c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ASSERT_TRUE(Eventually([&] { return ReadText(out).find("url: ") != std::string::npos; }, 10s))
            << ReadText(out);
        Say("receiver started again on port " + port);
    }

    // Both spools empty and nothing new stored for three seconds.
    bool Drained(std::chrono::seconds timeout)
    {
        size_t stored = 0;
        int quiet = 0;
        return Eventually(
            [&]
            {
                Nudge();
                const size_t now = std::distance(std::filesystem::directory_iterator(m_receiver->Output()),
                                                 std::filesystem::directory_iterator());
                quiet = now == stored && SpooledFiles() == 0 && SpooledBatches() == 0 ? quiet + 1 : 0;
                stored = now;
                std::this_thread::sleep_for(500ms);
                return quiet >= 6;
            },
            timeout);
    }

    std::chrono::steady_clock::time_point m_begin;
    pid_t m_receiverPid = -1;
    std::string m_earlier;
    test::SoakTally m_tally;
};

TEST_F(CrashSoakProcessTest, NothingTheDaemonSpooledIsLostOrDuplicatedAcrossKillsAndAnOutage)
{
    const Seconds duration(Setting("CORVID_SOAK_DURATION_SEC", 30));
    const int kills = static_cast<int>(Setting("CORVID_SOAK_KILLS", 3));
    const Seconds outage(Setting("CORVID_SOAK_OUTAGE_SEC", 10));
    const auto drain = std::chrono::seconds(static_cast<long>(Setting("CORVID_SOAK_DRAIN_SEC", 60)));
    const auto seed = static_cast<unsigned>(Setting("CORVID_SOAK_SEED", std::random_device()()));
    const Seconds outageBegins = duration / 10;
    const Seconds outageEnds = outageBegins + outage;
    ASSERT_GE(kills, 1);
    ASSERT_LE((outageEnds + 10s).count(), duration.count()) << "the run must outlast the outage by 10 s";
    m_earlier = m_harness.Dir() + "/received-before-outage";

    // One kill follows the receiver's return; the others fall anywhere.
    int killed = 0;
    const std::function<void()> kill = [&] { KillAndRestart(++killed, kills); };
    std::mt19937 random(seed);
    std::vector<std::pair<Seconds, std::function<void()>>> steps{{outageBegins, [&] { StopReceiver(); }},
                                                                 {outageEnds, [&] { RestartReceiver(); }}};
    std::uniform_real_distribution<double> anywhere(2.0, duration.count() - 5.0);
    for (int i = 1; i < kills; ++i)
    {
        steps.emplace_back(Seconds(anywhere(random)), kill);
    }
    steps.emplace_back(outageEnds + Seconds(std::uniform_real_distribution<double>(0.5, 2.0)(random)), kill);
    std::stable_sort(steps.begin(), steps.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::cout << "soak: " << duration.count() << " s of workload, " << kills << " kills, receiver outage of "
              << outage.count() << " s from " << outageBegins.count() << " s, seed " << seed << std::endl;

    ASSERT_NO_FATAL_FAILURE(Start());
    const std::string journal = m_harness.Dir() + "/journal";
    std::filesystem::create_directories(m_harness.Dir() + "/marks");
    test::SoakWorkload workload({m_watched, m_harness.Dir() + "/marks", journal});
    const auto begin = std::chrono::steady_clock::now();
    for (const auto& [at, step] : steps)
    {
        std::this_thread::sleep_until(begin + std::chrono::duration_cast<std::chrono::nanoseconds>(at));
        ASSERT_NO_FATAL_FAILURE(step());
    }
    std::this_thread::sleep_until(begin + std::chrono::duration_cast<std::chrono::nanoseconds>(duration));
    workload.Stop();
    Say("workload stopped; waiting for the spools to drain");
    EXPECT_TRUE(Drained(drain)) << "the spools did not drain in " << drain.count() << " s";
    Say("drained");

    m_tally.AddReceived(m_earlier);
    m_tally.AddReceived(m_receiver->Output());
    const bool clean = m_tally.Report(test::SoakWorkload::ReadJournal(journal), std::cout);
    EXPECT_TRUE(clean) << "the soak found loss or duplicates (above)";
    ExitDaemon();
}

} // namespace
} // namespace vantor::edr
