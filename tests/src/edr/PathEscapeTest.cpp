#include "edr/PathEscape.h"
#include "common/util/Utf8.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>

using vantor::edr::PathEscape;

namespace
{

TEST(PathEscapeTest, InvalidBytesAndBackslashesAreEscapedTheRestIsKept)
{
    EXPECT_EQ(PathEscape::Escape("/etc/h\xc3\xb6sts \xf0\x9f\x98\x80"), "/etc/h\xc3\xb6sts \xf0\x9f\x98\x80");
    EXPECT_EQ(PathEscape::Escape("/w/bad\xff\xfe.txt"), "/w/bad\\xFF\\xFE.txt");
    EXPECT_EQ(PathEscape::Escape("/w/a\\b"), "/w/a\\\\b");
    // A name that spells an escape is not confused with the byte.
    EXPECT_EQ(PathEscape::Escape("/w/\\xFF"), "/w/\\\\xFF");
    EXPECT_EQ(PathEscape::Escape("end\xc3"), "end\\xC3");               // cut sequence
    EXPECT_EQ(PathEscape::Escape("\xc0\xaf"), "\\xC0\\xAF");            // overlong '/'
    EXPECT_EQ(PathEscape::Escape("\xed\xa0\x80"), "\\xED\\xA0\\x80");   // surrogate
    EXPECT_EQ(PathEscape::Escape("\xf0\x9f\x98x"), "\\xF0\\x9F\\x98x"); // cut four bytes
    EXPECT_EQ(PathEscape::Escape(std::string("new\nline\x01", 9)), std::string("new\nline\x01", 9));
}

TEST(PathEscapeTest, EveryByteStringComesBackAndTwoNamesNeverShareATextForm)
{
    std::mt19937 random(1234);
    // Bytes biased towards the troublesome ones: backslash, 'x', hex digits,
    // lead and continuation bytes.
    const std::string alphabet = std::string("\\xF0AaZ/.\x80\xbf\xc3\xe2\xed\xf0\xff\xfe\x01", 18);
    std::set<std::string> names;
    std::set<std::string> texts;
    for (int i = 0; i < 5000; ++i)
    {
        std::string name;
        const size_t length = random() % 12;
        for (size_t j = 0; j < length; ++j)
        {
            name.push_back(random() % 4 == 0 ? static_cast<char>(random() % 256)
                                             : alphabet[random() % alphabet.size()]);
        }
        const std::string text = PathEscape::Escape(name);
        ASSERT_TRUE(vantor::util::IsValidUtf8(text)) << text;
        ASSERT_EQ(PathEscape::Unescape(text), name) << text;
        ASSERT_EQ(PathEscape::NeedsEscape(name), text != name) << text;
        if (names.insert(name).second)
        {
            ASSERT_TRUE(texts.insert(text).second) << "two names share " << text;
        }
    }
}

TEST(PathEscapeTest, TextsThatNoNameMakesAreRefused)
{
    EXPECT_EQ(PathEscape::Unescape("/w/a\\\\b\\xFF"), std::string("/w/a\\b\xff"));
    EXPECT_EQ(PathEscape::Unescape("trailing\\"), std::nullopt);
    EXPECT_EQ(PathEscape::Unescape("\\x4"), std::nullopt);
    EXPECT_EQ(PathEscape::Unescape("\\xzz"), std::nullopt);
    EXPECT_EQ(PathEscape::Unescape("\\xff"), std::nullopt); // lower-case digits are not the form
    EXPECT_EQ(PathEscape::Unescape("\\n"), std::nullopt);
    EXPECT_EQ(PathEscape::Unescape("raw\xff"), std::nullopt);
}

} // namespace
