#include "common/FileReader.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

namespace vantor::common
{
namespace
{

using Stage = FileReadException::Stage;

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

} // namespace
} // namespace vantor::common
