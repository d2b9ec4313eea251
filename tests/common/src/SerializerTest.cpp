#include "common/Serializer.h"
#include "common/SqlRowIterator.h"
#include "common/StorageException.h"
#include "tests/common/src/CommonTestHelpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using vantor::common::Serializer;
using vantor::common::SqlRowIterator;
using vantor::common::StorageException;

TEST(SerializerTest, ByteFormIsLittleEndianWithLengthPrefixedStrings)
{
    std::string buffer;
    Serializer::AppendInt64(buffer, 0x0102030405060708LL);
    Serializer::AppendString(buffer, "ab");
    Serializer::AppendInt64(buffer, -2);
    const std::string expected("\x08\x07\x06\x05\x04\x03\x02\x01"
                               "\x02\x00\x00\x00\x00\x00\x00\x00"
                               "ab"
                               "\xfe\xff\xff\xff\xff\xff\xff\xff",
                               26);
    EXPECT_EQ(buffer, expected);

    Serializer reader(buffer);
    EXPECT_EQ(reader.GetInt64(), 0x0102030405060708LL);
    EXPECT_EQ(reader.GetString(), "ab");
    EXPECT_EQ(reader.GetInt64(), -2);
    EXPECT_TRUE(reader.AtEnd());
}

TEST(SerializerTest, ShortInputIsAnOutOfRangeError)
{
    std::string shortBody;
    Serializer::AppendInt64(shortBody, 5);
    // A hostile length near the top of the range must not wrap around.
    std::string huge;
    Serializer::AppendInt64(huge, -1);
    const struct
    {
        std::string data;
        bool asString;
        const char* what;
    } cases[] = {{"1234567", false, "data"},
                 {"1234", true, "data"},
                 {shortBody + "abcd", true, "string"},
                 {huge + "abc", true, "string"}};
    for (const auto& c : cases)
    {
        EXPECT_EQ(vantor::test::ErrorOf<std::out_of_range>(
                      [&]
                      {
                          Serializer reader(c.data);
                          c.asString ? (void)reader.GetString() : (void)reader.GetInt64();
                      }),
                  std::string("Serializer: Insufficient bytes to get ") + c.what)
            << c.data.size();
    }
}

TEST(SqlRowIteratorTest, ReadsTypedRowsAndRejectsBadOnes)
{
    using Type = SqlRowIterator::ColumnType;
    SqlRowIterator rows({Type::Text, Type::Integer});

    std::string row;
    Serializer::AppendString(row, "/etc/passwd");
    Serializer::AppendInt64(row, 42);
    rows.Add(row);
    rows.Add(row.substr(0, row.size() - 1));

    EXPECT_THAT([&] { rows.Add(""); }, testing::ThrowsMessage<StorageException>(
                                           testing::StrEq("SqlRowIterator::Add: 'row' cannot be empty")));

    ASSERT_TRUE(rows.HasNext());
    const auto values = rows.Next();
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(std::get<std::string>(values[0]), "/etc/passwd");
    EXPECT_EQ(std::get<int64_t>(values[1]), 42);

    ASSERT_TRUE(rows.HasNext());
    EXPECT_THAT([&] { rows.Next(); }, testing::ThrowsMessage<StorageException>(
                                          testing::StrEq("SqlRowIterator::Next: Incomplete sql row")));
    EXPECT_FALSE(rows.HasNext());
    EXPECT_THROW(rows.Next(), std::out_of_range);
}
