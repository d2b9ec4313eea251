// Both spools on a small, full disk: the shipped daemon, started by the
// stand-in agent, spools FIM documents and IOC batches of the same file
// creates onto a tmpfs while the receiver is down. Past their quota the
// oldest files go and are counted in health-status records; while the disk
// is full, what is accepted waits in memory within the quota; once space
// and the receiver return, what the quota kept arrives exactly once, with
// later documents behind it.

#include "edr/AHSRecord.h"
#include "tests/support/IocEndToEndFixture.h"
#include "tests/support/StatusRecords.h"
#include "tests/support/TmpfsMount.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vantor::edr
{
namespace
{

using namespace std::chrono_literals;
using test::EventuallyWithTraffic;

const auto* const g_environment = testing::AddGlobalTestEnvironment(new test::AuditKernelStateEnvironment);

constexpr std::size_t kQuota = 1024 * 1024; // max_disk_size_mb 1, the smallest
constexpr std::size_t kMaxFileKb = 256;
// Room for both quotas and the spools' bookkeeping, no more.
constexpr std::size_t kTmpfsKb = 4 * 1024;
// Each document names a path of some 2 KB, so that a few hundred files
// overrun a quota: the first batch twice over, the one made while the disk
// is full well within it.
constexpr int kBeforeFull = 700;
constexpr int kWhileFull = 100;
constexpr int kAfter = 10;

class SpoolFullDiskProcessTest : public test::IocEndToEndFixture
{
protected:
    void SetUp() override
    {
        IocEndToEndFixture::SetUp();
        if (IsSkipped() || HasFatalFailure())
        {
            return;
        }
        m_tmpfs = std::make_unique<test::TmpfsMount>();
        if (const std::string skip = m_tmpfs->Mount(m_harness.Dir() + "/small", kTmpfsKb); !skip.empty())
        {
            GTEST_SKIP() << skip;
        }
        // Eight levels of 250 characters, within FIM's depth limit.
        m_deep = m_watched;
        for (char c = 'a'; c < 'a' + 8; ++c)
        {
            m_deep += "/" + std::string(250, c);
        }
        std::filesystem::create_directories(m_deep);
        for (const char* spool : {"/fim", "/ioc"})
        {
            std::filesystem::create_directories(m_tmpfs->Path() + spool);
        }
    }

    void TearDown() override
    {
        IocEndToEndFixture::TearDown();
        m_tmpfs.reset();
    }

    void Create(int from, int to)
    {
        for (int i = from; i < to; ++i)
        {
            std::ofstream(m_deep + "/f" + std::to_string(i)) << i;
        }
    }

    // Notes the spools' disk usage; answers the smaller and the larger one.
    std::pair<std::size_t, std::size_t> Watch()
    {
        const auto fim = test::TmpfsMount::Usage(m_tmpfs->Path() + "/fim");
        const auto ioc = test::TmpfsMount::Usage(m_tmpfs->Path() + "/ioc");
        m_peak = std::max({m_peak, fim, ioc});
        return std::minmax(fim, ioc);
    }

    // Indices of the files whose FIM document / IOC event arrived, with the
    // number of times each did.
    std::vector<int> Arrivals(bool ioc)
    {
        std::vector<int> counts(kBeforeFull + kWhileFull + kAfter, 0);
        const auto note = [&](const std::string& path)
        {
            if (path.rfind(m_deep + "/f", 0) == 0)
            {
                const int i = std::atoi(path.c_str() + m_deep.size() + 2);
                if (i >= 0 && i < static_cast<int>(counts.size()))
                {
                    ++counts[static_cast<size_t>(i)];
                }
            }
        };
        if (ioc)
        {
            for (const auto& event : Events())
            {
                note(event.kind == "fileEvent" ? event.target : std::string());
            }
        }
        else
        {
            for (const auto& doc : Received())
            {
                note(doc.action == "create" ? doc.path : std::string());
            }
        }
        return counts;
    }

    // The files that the quota records of a context the receiver stored count.
    uint64_t EvictedFiles(const char* contextId) const
    {
        return test::Total(test::ReadStatusRecords(m_receiver->Output()), contextId,
                           AHSStatusCode::kSpoolEvicted, "files");
    }

    std::unique_ptr<test::TmpfsMount> m_tmpfs;
    std::string m_deep;
    std::size_t m_peak = 0;
};

TEST_F(SpoolFullDiskProcessTest, QuotaEvictsOldestCountsThemAndTheRestArrivesOnceSpaceReturns)
{
    const std::string spools = m_tmpfs->Path() + "/";
    ASSERT_NO_FATAL_FAILURE(StartIocDaemon(
        R"({"policyVersion": "2.0.0", "policyId": "full-disk", "productId": "corvid-edr",
        "heuristicsEnabled": false, "globalSettings": {"maxFileSizeToProcess": 52428800, "tags": {"thresholdScore": 0}},
        "rules": [{"ruleId": "full-disk-creates", "ruleType": "Directory", "path": ")" +
            m_deep + R"(", "notify": ["create"]}]})",
        [&](rapidjson::Document& config)
        {
            for (const char* section : {"fim_config", "ioc_config"})
            {
                auto& component = config[section];
                test::SetString(config, component, "event_file_path", spools);
                component["max_disk_size_mb"].SetUint(1);
                component["max_file_size_kb"].SetUint(kMaxFileKb);
            }
            config["edr_config"].AddMember("status_upload_interval", 1, config.GetAllocator());
        }));
    ASSERT_NO_FATAL_FAILURE(m_receiver->Down());
    Create(0, kBeforeFull);
    ASSERT_TRUE(EventuallyWithTraffic(
        [&]
        { return Watch().first > kQuota / 2 && m_harness.LogContains("SpoolStorage: Cleanup completed."); },
        Nudge))
        << m_harness.Log();

    m_tmpfs->Fill();
    Create(kBeforeFull, kBeforeFull + kWhileFull);
    ASSERT_TRUE(EventuallyWithTraffic(
        [&]
        {
            Watch();
            return m_harness.LogContains("bytes in memory");
        },
        Nudge))
        << m_harness.Log();

    m_tmpfs->Free();
    ASSERT_NO_FATAL_FAILURE(m_receiver->Up());
    const int total = kBeforeFull + kWhileFull + kAfter;
    Create(kBeforeFull + kWhileFull, total);
    // What the quota kept is the newest: from some file on, all of them.
    const auto keptTail = [&](const std::vector<int>& counts)
    {
        const auto first = std::find_if(counts.begin(), counts.end(), [](int n) { return n > 0; });
        return first != counts.begin() && first != counts.end() &&
               std::all_of(first, counts.end(), [](int n) { return n == 1; });
    };
    ASSERT_TRUE(EventuallyWithTraffic(
        [&]
        {
            return Arrivals(false)[total - 1] > 0 && Arrivals(true)[total - 1] > 0 && Watch().second == 0 &&
                   EvictedFiles(AHSContext::kFimSpool) > 0 && EvictedFiles(AHSContext::kIocSpool) > 0;
        },
        Nudge))
        << m_harness.Log();
    for (const bool ioc : {false, true})
    {
        const auto counts = Arrivals(ioc);
        std::string seen;
        for (const int n : counts)
        {
            seen += static_cast<char>('0' + std::min(n, 9));
        }
        // An IOC batch the uploader had already read still goes out when the
        // quota deletes its file, so the kept ones need not be one tail.
        const bool kept = ioc ? std::count(counts.begin(), counts.end(), 0) > 0 &&
                                    std::all_of(counts.begin(), counts.end(), [](int n) { return n <= 1; })
                              : keptTail(counts);
        EXPECT_TRUE(kept) << (ioc ? "ioc: " : "fim: ") << seen;
        // Nothing accepted within the quota while the disk was full is lost.
        EXPECT_TRUE(std::all_of(counts.begin() + kBeforeFull, counts.end(), [](int n) { return n == 1; }))
            << seen;
    }
    EXPECT_LE(m_peak, kQuota + kMaxFileKb * 1024);
    std::cout << "evicted files: fim " << EvictedFiles(AHSContext::kFimSpool) << ", ioc "
              << EvictedFiles(AHSContext::kIocSpool) << "; largest spool on disk " << m_peak << " bytes"
              << std::endl;
    ASSERT_NO_FATAL_FAILURE(ExitDaemon());
}

} // namespace
} // namespace vantor::edr
