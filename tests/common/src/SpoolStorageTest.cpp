#include "common/SpoolStorage.h"
#include "common/Scheduler.h"
#include "common/SpoolRawDataFormatter.h"
#include "tests/common/src/CommonTestHelpers.h"
#include "tests/support/Eventually.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <set>
#include <thread>

using namespace vantor::common;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using vantor::test::ErrorOf;
using vantor::test::ReadWhole;
namespace fs = std::filesystem;

namespace
{

// Refuses records that start with '!' and can be told to fail serialising.
class TestFormatter : public SpoolDataFormatter
{
public:
    explicit TestFormatter(bool* failSerialize = nullptr)
        : m_failSerialize(failSerialize)
    {
    }
    size_t Append(std::string_view record) override
    {
        if (!record.empty() && record[0] == '!')
        {
            throw std::invalid_argument("refused record");
        }
        return m_raw.Append(record);
    }
    void Serialize(std::string& out) override
    {
        if (m_failSerialize != nullptr && *m_failSerialize)
        {
            throw std::runtime_error("broken");
        }
        m_raw.Serialize(out);
    }
    void Reset() override { m_raw.Reset(); }

private:
    SpoolRawDataFormatter m_raw;
    bool* m_failSerialize;
};

class SpoolStorageTest : public ::testing::Test
{
protected:
    std::unique_ptr<SpoolStorage> Make(SpoolStorage::Settings settings = {}, std::uint64_t count = 10000,
                                       std::unique_ptr<SpoolDataFormatter> formatter = nullptr)
    {
        if (!formatter)
        {
            formatter = std::make_unique<SpoolRawDataFormatter>();
        }
        return std::make_unique<SpoolStorage>(m_scheduler, m_dir, "events", std::move(formatter), settings,
                                              count);
    }

    // One record, one file.
    static void Spool(SpoolStorage& spool, const std::string& record)
    {
        ASSERT_TRUE(spool.Write(record).Succeeded());
        ASSERT_TRUE(spool.FlushDataCache());
    }

    static std::string ReadOldest(SpoolStorage& spool, SpoolStorage::File* out = nullptr)
    {
        SpoolStorage::File file;
        if (spool.ReadOldestFile(file) != SpoolStorage::ReadStatus::Ok)
        {
            return "<none>";
        }
        if (out != nullptr)
        {
            *out = file;
        }
        return file.data;
    }

    vantor::test::TempDir m_tmp;
    const std::string m_dir = m_tmp.Path();
    Scheduler m_scheduler;
};

TEST_F(SpoolStorageTest, ConstructorValidatesInOrder)
{
    const auto make =
        [&](const std::string& dir, const std::string& prefix, bool formatter, std::uint64_t count)
    {
        return ErrorOf(
            [&]
            {
                SpoolStorage s(m_scheduler, dir, prefix,
                               formatter ? std::make_unique<SpoolRawDataFormatter>() : nullptr, {}, count);
            });
    };
    EXPECT_EQ(make("", "", false, 1), "SpoolStorage: Max file count must be between 2 and 10000");
    EXPECT_EQ(make(m_dir, "p", true, 10001), "SpoolStorage: Max file count must be between 2 and 10000");
    EXPECT_EQ(make("", "", false, 2), "SpoolStorage: Path cannot be empty");
    EXPECT_EQ(make(m_dir, "", false, 2), "SpoolStorage: Prefix cannot be empty");
    EXPECT_EQ(make(m_dir, "../p", false, 2), "SpoolStorage: Prefix cannot contain '/'");
    EXPECT_EQ(make(m_dir, "p", false, 2), "SpoolStorage: dataFormatter cannot be null");
    EXPECT_EQ(make(m_dir + "/missing", "p", true, 2), "SpoolStorage: Invalid Path");
    m_tmp.Write("file", "x");
    EXPECT_EQ(make(m_dir + "/file", "p", true, 2), "SpoolStorage: Path is not a directory");
    EXPECT_EQ(make(m_dir, "p", true, 2), "no error");
    EXPECT_EQ(make(m_dir, "p", true, 10000), "no error");

    // The spool registers its schedule and removes it when it goes.
    auto spool = Make();
    EXPECT_EQ(m_scheduler.EntryCount(), 1u);
    spool.reset();
    EXPECT_EQ(m_scheduler.EntryCount(), 0u);
}

TEST_F(SpoolStorageTest, RecordSizeIsBoundedByMaxFileSize)
{
    auto spool = Make({.maxFileSizeKb = 1});
    EXPECT_EQ(ErrorOf([&] { spool->Write(std::string(1025, 'x')); }),
              "SpoolStorage::Write: data is larger than max file size");
    EXPECT_EQ(ErrorOf([&] { spool->WriteAsync(std::string(1025, 'x'), {}); }),
              "SpoolStorage::WriteAsync: data is larger than max file size");
    EXPECT_EQ(ErrorOf([&] { spool->Write("key", "data"); }), "SpoolStorage::Write is not implemented");

    // 600 + 1024 does not fit: the cache goes to disk first, then the full
    // record fills a file of its own at once.
    ASSERT_TRUE(spool->Write(std::string(600, 'a')).Succeeded());
    ASSERT_TRUE(spool->Write(std::string(1024, 'b')).Succeeded());
    EXPECT_THAT(spool->FileIndices(), ElementsAre(1, 2));
    EXPECT_EQ(ReadWhole(m_dir + "/events.0001"), std::string(600, 'a'));
    EXPECT_EQ(ReadWhole(m_dir + "/events.0002"), std::string(1024, 'b'));
    EXPECT_EQ(spool->DiskUsage(), 1624u);
    EXPECT_EQ(spool->CacheSize(), 0u);

    // A larger limit applies at once; invalid values are ignored.
    spool->Update({.maxDiskSizeMb = SpoolStorage::kLimitMaxDiskSizeMb + 1, .maxFileSizeKb = 2});
    EXPECT_TRUE(spool->Write(std::string(2048, 'c')).Succeeded());
    spool->Update({.maxFileSizeKb = SpoolStorage::kLimitMaxFileSizeKb + 1});
    EXPECT_THAT(ErrorOf([&] { spool->Write(std::string(2049, 'd')); }),
                HasSubstr("larger than max file size"));
}

TEST_F(SpoolStorageTest, WritersWaitWhileTooMuchIsPendingAndNothingIsLost)
{
    auto spool = Make({.maxFileSizeKb = 1});
    // The first record's callback holds the spool's worker, so later records
    // pile up unmoved.
    std::mutex mutex;
    std::condition_variable cv;
    bool holding = false;
    bool release = false;
    spool->WriteAsync("first",
                      [&](const SpoolStorage::WriteResult&)
                      {
                          std::unique_lock lock(mutex);
                          holding = true;
                          cv.notify_all();
                          cv.wait(lock, [&] { return release; });
                      });
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(10), [&] { return holding; }));
    }
    std::atomic<int> written{0};
    std::atomic<int> completed{0};
    std::thread producer(
        [&]
        {
            for (int i = 0; i < 3000; ++i)
            {
                spool->WriteAsync(std::string(1000, 'r'), [&](const SpoolStorage::WriteResult& r)
                                  { completed += r.Succeeded() ? 1 : 0; });
                ++written;
            }
        });
    // 1 MiB of pending records at most: the producer stops after 1,048.
    int last = -1;
    while (written != last)
    {
        last = written;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    EXPECT_EQ(written.load(), 1048);
    {
        std::lock_guard lock(mutex);
        release = true;
    }
    cv.notify_all();
    producer.join();
    EXPECT_EQ(written.load(), 3000);
    vantor::test::Eventually([&] { return completed == 3000; }, std::chrono::seconds(30));
    EXPECT_EQ(completed.load(), 3000) << "every record is written";
}

TEST_F(SpoolStorageTest, FormatterFailuresAreReported)
{
    bool failSerialize = false;
    auto spool = Make({}, 10000, std::make_unique<TestFormatter>(&failSerialize));
    const auto refused = spool->Write("!bad");
    EXPECT_EQ(refused.status, SpoolStorage::WriteStatus::Refused);
    EXPECT_EQ(refused.message, "refused record");

    ASSERT_TRUE(spool->Write("lost").Succeeded());
    failSerialize = true;
    EXPECT_FALSE(spool->FlushDataCache());
    failSerialize = false;
    EXPECT_EQ(spool->CacheSize(), 0u); // dropped, not retried forever
    EXPECT_TRUE(spool->FileIndices().empty());
    EXPECT_EQ(spool->Dropped().files, 1u);
    EXPECT_EQ(spool->Dropped().bytes, 4u);

    // The asynchronous form reports through its callback, on the spool task.
    std::promise<SpoolStorage::WriteResult> done;
    spool->WriteAsync("!bad", [&](const SpoolStorage::WriteResult& r) { done.set_value(r); });
    EXPECT_EQ(done.get_future().get().status, SpoolStorage::WriteStatus::Refused);
}

TEST_F(SpoolStorageTest, ReadsOldestFirstAndResumesAfterRestart)
{
    auto spool = Make();
    Spool(*spool, "one");
    Spool(*spool, "two");
    SpoolStorage::File file;
    EXPECT_EQ(ReadOldest(*spool, &file), "one");
    EXPECT_EQ(file.path, m_dir + "/events.0001");
    // Not deleted until the reader says so (after a successful upload).
    EXPECT_EQ(ReadOldest(*spool), "one");
    EXPECT_TRUE(spool->DeleteFile(file));
    EXPECT_FALSE(spool->DeleteFile(file));

    // A restart finds the files and numbers on after the newest; the cache
    // is written out when the spool goes.
    ASSERT_TRUE(spool->Write("three").Succeeded());
    spool.reset();
    spool = Make();
    EXPECT_THAT(spool->FileIndices(), ElementsAre(2, 3));
    Spool(*spool, "four");
    EXPECT_THAT(spool->FileIndices(), ElementsAre(2, 3, 4));
    for (const char* expected : {"two", "three", "four"})
    {
        ASSERT_EQ(ReadOldest(*spool, &file), expected);
        spool->DeleteFile(file);
    }
    EXPECT_EQ(spool->ReadOldestFile(file), SpoolStorage::ReadStatus::Empty);
    EXPECT_EQ(spool->DiskUsage(), 0u);
}

TEST_F(SpoolStorageTest, OldestFilesGoFirstWhenNamesOrQuotaRunOut)
{
    {
        // Both names in use: the oldest file makes room.
        auto spool = Make({}, 2);
        Spool(*spool, "A");
        Spool(*spool, "B");
        Spool(*spool, "C");
        EXPECT_THAT(spool->FileIndices(), ElementsAre(1, 2));
        EXPECT_EQ(ReadWhole(m_dir + "/events.0001"), "B");
        EXPECT_EQ(ReadWhole(m_dir + "/events.0002"), "C");
        spool->Clear();
        EXPECT_TRUE(fs::is_empty(m_dir));
    }
    // 1 MiB quota, 400 KiB files: the third file pushes out the first.
    auto spool = Make({.maxDiskSizeMb = 1, .maxFileSizeKb = 400});
    for (char c : {'x', 'y', 'z'})
    {
        Spool(*spool, std::string(400 * 1024, c));
    }
    EXPECT_THAT(spool->FileIndices(), ElementsAre(2, 3));
    EXPECT_EQ(spool->DiskUsage(), 800u * 1024);
    EXPECT_EQ(spool->Dropped().files, 1u);
    EXPECT_EQ(spool->Dropped().bytes, 400u * 1024);
    EXPECT_EQ(ReadOldest(*spool)[0], 'y');
}

TEST_F(SpoolStorageTest, DefragmentationRenamesAndReadersFindTheirFileByInode)
{
    auto spool = Make({}, 4);
    for (const char* r : {"r1", "r2", "r3", "r4"})
    {
        Spool(*spool, r);
    }
    SpoolStorage::File first;
    ASSERT_EQ(ReadOldest(*spool, &first), "r1");
    ASSERT_TRUE(spool->DeleteFile(first));

    // The uploader holds r2 (index 2) while the next flush finds index 4 in
    // use with 1 free: the files move down to 1..3.
    SpoolStorage::File held;
    ASSERT_EQ(ReadOldest(*spool, &held), "r2");
    ASSERT_EQ(held.index, 2u);
    Spool(*spool, "r5");
    EXPECT_THAT(spool->FileIndices(), ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(ReadWhole(m_dir + "/events.0001"), "r2");
    EXPECT_EQ(ReadWhole(m_dir + "/events.0004"), "r5");

    // Deleting by the old index must take r2 (now at 1), not r3 (now at 2).
    ASSERT_TRUE(spool->DeleteFile(held));
    EXPECT_THAT(spool->FileIndices(), ElementsAre(2, 3, 4));
    EXPECT_EQ(ReadOldest(*spool), "r3");
}

TEST_F(SpoolStorageTest, OnlyCanonicalRegularFilesBelongToTheSpool)
{
    for (const char* name :
         {"events.1", "events.0000", "events.00x1", "events.00001", "events.0001x", "other.0001",
          "events.10001", "eventsx.0002", "events..0003", "events.tmp", "events.0002"})
    {
        m_tmp.Write(name, "x");
    }
    fs::create_directory(m_dir + "/events.0003");
    fs::create_symlink(m_dir + "/events.0002", m_dir + "/events.0005");
    m_tmp.Write("events.0007.tmp", "half a fil"); // an interrupted write
    m_tmp.Write("events.9999", "last");

    auto spool = Make();
    EXPECT_THAT(spool->FileIndices(), ElementsAre(2, 9999));
    EXPECT_FALSE(fs::exists(m_dir + "/events.0007.tmp"));
    EXPECT_TRUE(fs::exists(m_dir + "/events.tmp"));
    EXPECT_EQ(ErrorOf([&] { spool->FileName(0); }), "SpoolStorage: File index out of range");
    EXPECT_EQ(ErrorOf([&] { spool->FileName(10001); }), "SpoolStorage: File index out of range");
    EXPECT_EQ(spool->FileName(10000), m_dir + "/events.10000");
}

TEST_F(SpoolStorageTest, UnreadableFileIsDeletedAndDoesNotBlockTheRest)
{
    // Larger than the spool ever writes: refused without being loaded.
    {
        const int fd = ::open((m_dir + "/events.0001").c_str(), O_CREAT | O_WRONLY, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::ftruncate(fd, 1LL << 30), 0);
        ::close(fd);
    }
    m_tmp.Write("events.0002", "good");
    m_tmp.Write("events.0003", "gone");
    auto spool = Make();
    fs::remove(m_dir + "/events.0003");

    SpoolStorage::File file;
    EXPECT_EQ(spool->ReadOldestFile(file), SpoolStorage::ReadStatus::Failed);
    EXPECT_FALSE(fs::exists(m_dir + "/events.0001"));
    EXPECT_EQ(ReadOldest(*spool, &file), "good");
    spool->DeleteFile(file);
    EXPECT_EQ(spool->ReadOldestFile(file), SpoolStorage::ReadStatus::Empty);
}

TEST_F(SpoolStorageTest, NoRecordWaitsLongerThanTheMaxFileAge)
{
    auto spool = Make({.maxFileAgeSec = 1});
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(spool->Write("early").Succeeded());
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    ASSERT_TRUE(spool->Write("late").Succeeded());
    EXPECT_TRUE(spool->FileIndices().empty());

    vantor::test::Eventually([&] { return !spool->FileIndices().empty(); }, std::chrono::seconds(3));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(950));
    EXPECT_LT(waited, std::chrono::milliseconds(1800));
    EXPECT_EQ(ReadWhole(m_dir + "/events.0001"), "earlylate");
}

TEST(SpoolStorageScheduleTest, ChecksItsArgumentsAndSyncsOnItsOwnThread)
{
    EXPECT_EQ(ErrorOf([] { SpoolStorageSchedule s({}, std::chrono::seconds(1)); }),
              "SpoolStorageSchedule: 'syncCallback' is invalid");
    std::promise<std::thread::id> synced;
    SpoolStorageSchedule schedule([&] { synced.set_value(std::this_thread::get_id()); },
                                  std::chrono::seconds(60));
    EXPECT_EQ(ErrorOf([&] { schedule.AddTask({}); }), "SpoolStorageSchedule::AddTask: task cannot be empty");
    schedule.Execute();
    EXPECT_NE(synced.get_future().get(), std::this_thread::get_id());
    schedule.Shutdown();
    EXPECT_FALSE(schedule.AddTask([] {}));
}

// A fixed-size record that proves itself whole: "R<seq>:" then filler
// derived from seq, then a newline.
constexpr size_t kRecordSize = 4096;
// Large files with few records: most of the child's time goes into writing
// files, so that the kill and the reader land in a write often.
constexpr size_t kFileSizeKb = 256;

std::string MakeRecord(unsigned seq)
{
    char head[16];
    std::snprintf(head, sizeof head, "R%010u:", seq);
    std::string r = head;
    r.resize(kRecordSize - 1, static_cast<char>('a' + seq % 26));
    return r + '\n';
}

TEST_F(SpoolStorageTest, CompletedFilesSurviveKillDuringWrites)
{
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
    {
        // The child spools as fast as it can until it is killed; it must
        // never return into the test runner.
        try
        {
            Scheduler scheduler;
            SpoolStorage spool(scheduler, m_dir, "events", std::make_unique<SpoolRawDataFormatter>(),
                               {.maxDiskSizeMb = 100, .maxFileSizeKb = kFileSizeKb}, 10000);
            for (unsigned seq = 0;; ++seq)
            {
                spool.WriteAsync(MakeRecord(seq), {});
                if (seq % 16 == 0)
                {
                    spool.Write(MakeRecord(++seq)); // keeps the queue short
                }
            }
        }
        catch (...)
        {
        }
        ::_exit(1);
    }
    struct Reaper
    {
        pid_t pid;
        ~Reaper()
        {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    } reaper{pid};

    // While the child writes, a reader never sees a spool file half done.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::set<std::string> complete;
    while (complete.size() < 12 && std::chrono::steady_clock::now() < deadline)
    {
        for (const auto& entry : fs::directory_iterator(m_dir))
        {
            if (entry.path().extension() == ".tmp" || complete.count(entry.path()) > 0)
            {
                continue;
            }
            std::ifstream in(entry.path(), std::ios::binary);
            if (!in)
            {
                continue; // not there yet or already replaced
            }
            const std::string data(std::istreambuf_iterator<char>(in), {});
            // Records fill every file exactly: any other size is a partial file.
            ASSERT_EQ(data.size(), kFileSizeKb * 1024) << entry.path();
            ASSERT_EQ(data.substr(0, 1), "R");
            complete.insert(entry.path());
        }
    }
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status));

    // Every file the spool takes is whole, in order, with no record lost
    // between files.
    auto spool = Make({.maxDiskSizeMb = 100, .maxFileSizeKb = kFileSizeKb});
    ASSERT_GE(spool->FileIndices().size(), 10u);
    // The quota may have removed the first files; the rest run on unbroken.
    std::optional<unsigned> expected;
    size_t files = 0;
    SpoolStorage::File file;
    while (spool->ReadOldestFile(file) == SpoolStorage::ReadStatus::Ok)
    {
        ASSERT_EQ(file.data.size(), kFileSizeKb * 1024) << file.path;
        if (!expected)
        {
            expected = static_cast<unsigned>(std::stoul(file.data.substr(1, 10)));
        }
        for (size_t off = 0; off < file.data.size(); off += kRecordSize)
        {
            ASSERT_TRUE(file.data.compare(off, kRecordSize, MakeRecord(*expected)) == 0)
                << file.path << " at " << off << " should hold record " << *expected;
            ++*expected;
        }
        ASSERT_TRUE(spool->DeleteFile(file));
        ++files;
    }
    EXPECT_GE(files, 10u);
    for (const auto& entry : fs::directory_iterator(m_dir))
    {
        ADD_FAILURE() << "left behind: " << entry.path();
    }
}

} // namespace
