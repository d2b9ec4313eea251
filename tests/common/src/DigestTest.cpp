#include "common/util/Digest.h"
#include "common/FileReader.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace vantor::util
{
namespace
{

using Algorithm = Digest::Algorithm;

// FIPS 180 and RFC 1321 test vectors.
constexpr const char* kSha256Abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* kSha256MillionA = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
constexpr const char* kSha256Empty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

TEST(DigestTest, KnownDigestsOfDataInEachAlgorithm)
{
    EXPECT_EQ(Digest::HexOf(Algorithm::Md5, "abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(Digest::HexOf(Algorithm::Sha1, "abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(Digest::HexOf(Algorithm::Sha256, "abc"), kSha256Abc);
    EXPECT_EQ(Digest::HexOf(Algorithm::Sha256, ""), kSha256Empty);
    EXPECT_EQ(Digest::Hex(std::string("\x00\x0f\x10\x7f\x80\xff", 6)), "000f107f80ff");
}

TEST(DigestTest, StreamingInPiecesEqualsOneShotAndFinishesOnce)
{
    Digest digest(Algorithm::Sha256);
    digest.Update("a");
    digest.Update("");
    digest.Update("bc");
    const std::string raw = digest.Finish();
    EXPECT_EQ(raw.size(), 32u);
    EXPECT_EQ(Digest::Hex(raw), kSha256Abc);
    EXPECT_THROW(digest.Update("more"), std::logic_error);
    EXPECT_THROW(digest.Finish(), std::logic_error);
}

TEST(DigestTest, FileDigestSpansReadBuffersOrFailsWithTheReason)
{
    test::TempDir dir;
    const std::string path = dir.Write("million", std::string(1000000, 'a'));
    static_assert(1000000 > common::FileReader::kChunkSize);
    EXPECT_EQ(Digest::HexOfFile(Algorithm::Sha256, path, 1000000), kSha256MillionA);
    EXPECT_EQ(Digest::HexOfFile(Algorithm::Sha256, dir.Write("empty", ""), 0), kSha256Empty);

    // A file that cannot be hashed fails with the reason and its name.
    const std::string small = dir.Write("f", "abc");
    const auto stageOf = [&](const std::string& file, std::size_t limit)
    {
        try
        {
            Digest::HexOfFile(Algorithm::Sha256, file, limit);
        }
        catch (const common::FileReadException& e)
        {
            EXPECT_NE(std::string(e.what()).find(file), std::string::npos) << e.what();
            return e.GetStage();
        }
        ADD_FAILURE() << file << " was hashed";
        return common::FileReadException::Stage::Read;
    };
    EXPECT_EQ(stageOf(dir.File("missing"), 100), common::FileReadException::Stage::Open);
    EXPECT_EQ(stageOf(small, 2), common::FileReadException::Stage::TooLarge);
    EXPECT_THROW(Digest::HexOfFile(Algorithm::Sha256, dir.Path(), 100), std::runtime_error);
}

} // namespace
} // namespace vantor::util
