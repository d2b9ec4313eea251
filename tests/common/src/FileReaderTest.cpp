#include "common/FileReader.h"
#include "common/StatHelper.h"
#include "common/util/Digest.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <tuple>

namespace vantor::common
{
namespace
{

using Stage = FileReadException::Stage;
using util::Digest;
using Algorithm = Digest::Algorithm;

// Runs call and answers the FileReadException it threw.
template <typename Call>
FileReadException Failure(Call call)
{
    try
    {
        call();
    }
    catch (const FileReadException& e)
    {
        return e;
    }
    ADD_FAILURE() << "no FileReadException";
    return FileReadException(Stage::Read, "", 0);
}

std::string Pattern(std::size_t size)
{
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
    {
        text[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    }
    return text;
}

TEST(FileReaderTest, ChunksCoverALargeFileInOrderWithinTheChunkSize)
{
    test::TempDir dir;
    const std::string content = Pattern(3 * FileReader::kChunkSize + 17);
    const std::string path = dir.Write("big", content);
    FileReader reader(path, FileReader::Links::NoFollow);
    EXPECT_EQ(reader.Size(), content.size());
    struct stat st
    {
    };
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(reader.Inode(), st.st_ino);

    std::string joined;
    std::size_t chunks = 0;
    const auto total = reader.ForEachChunk(
        [&](std::string_view chunk)
        {
            EXPECT_LE(chunk.size(), FileReader::kChunkSize);
            EXPECT_FALSE(chunk.empty());
            joined.append(chunk);
            ++chunks;
            return true;
        });
    EXPECT_EQ(total, content.size());
    EXPECT_EQ(joined, content);
    EXPECT_GE(chunks, 4u);
}

TEST(FileReaderTest, ReadingStopsWhenTheSinkOrTheBoundSays)
{
    test::TempDir dir;
    const std::string content = Pattern(5 * FileReader::kChunkSize);
    FileReader reader(dir.Write("big", content), FileReader::Links::Follow);
    std::size_t calls = 0;
    const auto total = reader.ForEachChunk([&](std::string_view) { return ++calls < 2; });
    EXPECT_EQ(calls, 2u);
    EXPECT_LE(total, 2 * FileReader::kChunkSize);
    std::string rest;
    EXPECT_EQ(reader.ReadUpTo(rest, content.size()), content.size() - total)
        << "reading goes on where it stopped";
    EXPECT_EQ(rest, content.substr(total));

    // Bounded, and the target string is replaced, not appended to.
    const std::string path = dir.Write("f", "0123456789");
    rest = "previous content that is longer";
    EXPECT_EQ(FileReader(path, FileReader::Links::Follow).ReadUpTo(rest, 4), 4u);
    EXPECT_EQ(rest, "0123");
    EXPECT_EQ(FileReader(dir.Write("empty", ""), FileReader::Links::Follow).ReadUpTo(rest, 10), 0u);
    EXPECT_EQ(rest, "");
}

TEST(FileReaderTest, RefusesWhatIsNoReadableRegularFileWithItsReason)
{
    test::TempDir dir;
    const std::string file = dir.Write("f", "data");

    const auto missing = Failure([&] { FileReader(dir.File("missing"), FileReader::Links::Follow); });
    EXPECT_EQ(missing.GetStage(), Stage::Open);
    EXPECT_EQ(missing.Error(), ENOENT);
    EXPECT_EQ(std::string(missing.what()),
              "Failed to open " + dir.File("missing") + ": No such file or directory");

    const auto directory = Failure([&] { FileReader(dir.Path(), FileReader::Links::Follow); });
    EXPECT_EQ(directory.GetStage(), Stage::NotRegular);
    EXPECT_EQ(std::string(directory.what()), "Not a regular file: " + dir.Path());

    // Opened non-blocking: a FIFO is refused at once instead of blocking.
    ASSERT_EQ(::mkfifo(dir.File("fifo").c_str(), 0600), 0);
    EXPECT_EQ(Failure([&] { FileReader(dir.File("fifo"), FileReader::Links::Follow); }).GetStage(),
              Stage::NotRegular);

    ASSERT_EQ(::symlink(file.c_str(), dir.File("link").c_str()), 0);
    EXPECT_EQ(FileReader(dir.File("link"), FileReader::Links::Follow).Size(), 4u);
    const auto link = Failure([&] { FileReader(dir.File("link"), FileReader::Links::NoFollow); });
    EXPECT_EQ(link.GetStage(), Stage::Open);
    EXPECT_EQ(link.Error(), ELOOP);
}

TEST(FileReaderTest, SizeLimitsRefuseAtOpenAndWhileReading)
{
    test::TempDir dir;
    const std::string path = dir.Write("f", Pattern(1000));
    FileReader reader(path, FileReader::Links::Follow);
    reader.RequireAtMost(1000);
    const auto tooLarge = Failure([&] { reader.RequireAtMost(999); });
    EXPECT_EQ(tooLarge.GetStage(), Stage::TooLarge);
    EXPECT_EQ(tooLarge.Error(), EFBIG);
    EXPECT_EQ(std::string(tooLarge.what()), "File too large: " + path);

    // A file that grew past the limit after it was opened.
    std::size_t seen = 0;
    const auto grown = Failure(
        [&]
        {
            reader.ForEachChunk(
                [&](std::string_view chunk)
                {
                    seen += chunk.size();
                    return true;
                },
                999);
        });
    EXPECT_EQ(grown.GetStage(), Stage::TooLarge);
    EXPECT_EQ(seen, 0u) << "nothing past the limit reaches the sink";
}

TEST(StatHelperTest, StatsFollowsOrNotAndReadsBounded)
{
    test::TempDir dir;
    const std::string file = dir.Write("a.txt", "abc");
    ASSERT_EQ(::symlink(file.c_str(), dir.File("link").c_str()), 0);
    EXPECT_TRUE(S_ISREG(StatHelper::Stat(dir.File("link")).st_mode));
    EXPECT_TRUE(S_ISLNK(StatHelper::Lstat(dir.File("link")).st_mode));
    EXPECT_EQ(StatHelper::ReadLink(dir.File("link")), file);
    EXPECT_FALSE(StatHelper::TryStat(dir.File("missing"), true));
    EXPECT_THROW(StatHelper::Stat(dir.File("missing")), StatHelperException);

    std::string content;
    EXPECT_EQ(StatHelper::ReadContent(file, content, 100), StatHelper::ReadResult::Complete);
    EXPECT_EQ(content, "abc");
    EXPECT_EQ(StatHelper::ReadContent(file, content, 2), StatHelper::ReadResult::SizeLimitReached);
    EXPECT_EQ(content, "ab");
}

// FIPS 180 and RFC 1321 test vectors.
constexpr const char* kSha256Abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* kSha256Empty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

TEST(DigestTest, KnownDigestsInEachAlgorithmAndStreamingInPiecesFinishesOnce)
{
    EXPECT_EQ(Digest::HexOf(Algorithm::Md5, "abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(Digest::HexOf(Algorithm::Sha1, "abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(Digest::HexOf(Algorithm::Sha256, ""), kSha256Empty);
    EXPECT_EQ(Digest::Hex(std::string("\x00\x0f\x10\x7f\x80\xff", 6)), "000f107f80ff");

    Digest digest(Algorithm::Sha256);
    digest.Update("a");
    digest.Update("");
    digest.Update("bc");
    const std::string raw = digest.Finish();
    EXPECT_EQ(raw.size(), 32u);
    EXPECT_EQ(Digest::Hex(raw), kSha256Abc);
    EXPECT_EQ(Digest::HexOf(Algorithm::Sha256, "abc"), kSha256Abc);
    EXPECT_THROW(digest.Update("more"), std::logic_error);
    EXPECT_THROW(digest.Finish(), std::logic_error);
}

TEST(DigestTest, FileDigestSpansReadBuffersOrFailsWithTheReason)
{
    test::TempDir dir;
    const std::string path = dir.Write("million", std::string(1000000, 'a'));
    static_assert(1000000 > FileReader::kChunkSize);
    EXPECT_EQ(Digest::HexOfFile(Algorithm::Sha256, path, 1000000),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    EXPECT_EQ(Digest::HexOfFile(Algorithm::Sha256, dir.Write("empty", ""), 0), kSha256Empty);

    // A file that cannot be hashed fails with the reason and its name.
    struct Case
    {
        std::string file;
        std::size_t limit;
        Stage stage;
    };
    for (const Case& unhashable :
         {Case{dir.File("missing"), 100, Stage::Open}, Case{dir.Write("f", "abc"), 2, Stage::TooLarge}})
    {
        const auto failure =
            Failure([&] { Digest::HexOfFile(Algorithm::Sha256, unhashable.file, unhashable.limit); });
        EXPECT_EQ(failure.GetStage(), unhashable.stage) << unhashable.file;
        EXPECT_NE(std::string(failure.what()).find(unhashable.file), std::string::npos) << failure.what();
    }
    EXPECT_THROW(Digest::HexOfFile(Algorithm::Sha256, dir.Path(), 100), std::runtime_error);
}

} // namespace
} // namespace vantor::common
