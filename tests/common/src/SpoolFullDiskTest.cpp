// The spool on a small file system that fills up: a tmpfs of 1 MiB mounted
// in the test's directory, filled to the last page by a filler file.

#include "common/Logging.h"
#include "common/Scheduler.h"
#include "common/SpoolRawDataFormatter.h"
#include "common/SpoolStorage.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/TmpfsMount.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

using namespace vantor::common;
using namespace std::chrono_literals;
using vantor::test::Eventually;
namespace fs = std::filesystem;

namespace
{

constexpr std::size_t kKiB = 1024;

class SpoolFullDiskTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const auto skip = m_tmpfs.Mount(m_tmp.File("small"), 1024);
        if (!skip.empty())
        {
            GTEST_SKIP() << skip;
        }
        ASSERT_FALSE(HasFailure());
        fs::create_directory(m_spoolDir);
    }

    // 1 MiB quota (the smallest), files of at most 300 KiB.
    SpoolStorage& Make()
    {
        m_spool = std::make_unique<SpoolStorage>(
            m_scheduler, m_spoolDir, "events", std::make_unique<SpoolRawDataFormatter>(),
            SpoolStorage::Settings{.maxDiskSizeMb = 1, .maxFileSizeKb = 300}, 100);
        return *m_spool;
    }

    // A file of one record: 'c' repeated, 300 KiB minus a little.
    static std::string Record(char c) { return std::string(290 * kKiB, c); }

    // What one record-per-file spool holds on disk, oldest first, one
    // character per file.
    std::string OnDisk()
    {
        std::string contents;
        for (const auto index : m_spool->FileIndices())
        {
            std::ifstream in(m_spool->FileName(index), std::ios::binary);
            contents += static_cast<char>(in.get());
        }
        return contents;
    }

    void Spool(char c)
    {
        ASSERT_TRUE(m_spool->Write(Record(c)).Succeeded());
        m_spool->FlushDataCache();
    }

    vantor::test::TempDir m_tmp;
    vantor::test::TmpfsMount m_tmpfs;
    const std::string m_spoolDir = m_tmp.File("small/spool");
    Scheduler m_scheduler;
    std::unique_ptr<SpoolStorage> m_spool;
};

} // namespace

TEST_F(SpoolFullDiskTest, RecordsAreHeldWhileTheDiskIsFullAndWrittenInOrderOnceItHasRoom)
{
    vantor::test::LogCapture log(Logging::Edr());
    auto& spool = Make();
    ASSERT_NO_FATAL_FAILURE(m_tmpfs.Fill());

    // Small records through the cache: each cache that fills is held.
    for (int i = 0; i < 20; ++i)
    {
        ASSERT_TRUE(spool.Write(std::string(40 * kKiB, static_cast<char>('a' + i))).Succeeded());
    }
    EXPECT_FALSE(spool.FlushDataCache());
    EXPECT_GE(spool.HeldFiles(), 2u);
    EXPECT_EQ(spool.HeldBytes(), 20 * 40 * kKiB);
    EXPECT_EQ(spool.CacheSize(), 0u);
    EXPECT_TRUE(spool.FileIndices().empty());
    EXPECT_EQ(spool.Dropped().files, 0u);
    EXPECT_TRUE(log.Contains("SpoolStorage: Failed to flush cached data: Storage: Failed to write to"));
    EXPECT_FALSE(log.Contains("Dropping"));

    // The retry finds room without any further write or flush.
    m_tmpfs.Free();
    ASSERT_TRUE(Eventually([&] { return spool.HeldFiles() == 0; }, 10s));
    EXPECT_EQ(spool.Dropped().files, 0u);
    std::string all;
    SpoolStorage::File file;
    while (spool.ReadOldestFile(file) == SpoolStorage::ReadStatus::Ok)
    {
        all += file.data;
        ASSERT_TRUE(spool.DeleteFile(file));
    }
    ASSERT_EQ(all.size(), 20 * 40 * kKiB);
    for (int i = 0; i < 20; ++i)
    {
        EXPECT_EQ(all[static_cast<std::size_t>(i) * 40 * kKiB], 'a' + i) << "record " << i << " out of order";
    }
}

TEST_F(SpoolFullDiskTest, QuotaDropsTheOldestHeldFilesAndCountsThem)
{
    vantor::test::LogCapture log(Logging::Edr());
    auto& spool = Make();
    ASSERT_NO_FATAL_FAILURE(m_tmpfs.Fill());
    for (char c : {'B', 'C', 'D'})
    {
        ASSERT_NO_FATAL_FAILURE(Spool(c));
    }
    EXPECT_EQ(spool.HeldFiles(), 3u);
    EXPECT_EQ(spool.Dropped().files, 0u);

    // 4 × 290 KiB is over the 1 MiB quota: B goes, then C.
    ASSERT_NO_FATAL_FAILURE(Spool('E'));
    ASSERT_NO_FATAL_FAILURE(Spool('F'));
    EXPECT_EQ(spool.HeldFiles(), 3u);
    EXPECT_EQ(spool.Dropped().files, 2u);
    EXPECT_EQ(spool.Dropped().bytes, 2 * 290 * kKiB);
    EXPECT_EQ(log.Count("bytes held in memory, not yet written"), 2u);

    m_tmpfs.Free();
    EXPECT_TRUE(spool.FlushDataCache());
    EXPECT_EQ(OnDisk(), "DEF");

    // A spool that ends while the disk is full says what it could not keep.
    spool.Clear();
    ASSERT_NO_FATAL_FAILURE(m_tmpfs.Fill());
    ASSERT_NO_FATAL_FAILURE(Spool('H'));
    ASSERT_EQ(spool.HeldFiles(), 1u);
    m_spool.reset();
    EXPECT_TRUE(log.Contains("SpoolStorage: Dropping 296960 bytes in 1 files that the disk did not take"));
}

TEST_F(SpoolFullDiskTest, WrittenFilesGoBeforeHeldOnesWhenTheQuotaMustGive)
{
    auto& spool = Make();
    ASSERT_NO_FATAL_FAILURE(Spool('A'));
    ASSERT_NO_FATAL_FAILURE(m_tmpfs.Fill());
    for (char c : {'B', 'C', 'D'})
    {
        ASSERT_NO_FATAL_FAILURE(Spool(c));
    }
    // A (written, oldest) made room for D; nothing held was lost.
    EXPECT_EQ(spool.Dropped().files, 1u);
    EXPECT_EQ(spool.Dropped().bytes, 290 * kKiB);
    EXPECT_EQ(spool.HeldFiles() + spool.FileIndices().size(), 3u);
    EXPECT_EQ(OnDisk().find('A'), std::string::npos);

    m_tmpfs.Free();
    EXPECT_TRUE(spool.FlushDataCache());
    EXPECT_EQ(OnDisk(), "BCD");
    EXPECT_EQ(spool.Dropped().files, 1u);
}
