#include "ioc/Verdict.h"
#include "tests/support/ExpectThrowText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vantor::ioc
{

TEST(VerdictTest, TextsRoundTripAndOrderRanksBadness)
{
    const char* texts[] = {"Clean", "CleanWithoutHash", "Unknown", "Suspicious", "Malicious"};
    for (int value = 1; value <= 5; ++value)
    {
        const Verdict verdict = VerdictFromInt(value);
        EXPECT_STREQ(texts[value - 1], ToString(verdict));
        EXPECT_EQ(verdict, VerdictFromString(texts[value - 1]));
    }
    EXPECT_LT(Verdict::CleanWithoutHash, Verdict::Unknown);
    EXPECT_LT(Verdict::Suspicious, Verdict::Malicious);
}

TEST(VerdictTest, ValuesAndTextsOutsideTheScaleFailWithTheirTexts)
{
    for (int value : {0, 6, -1})
    {
        test::ExpectThrowText<VerdictException>([&] { ToString(static_cast<Verdict>(value)); },
                                                "Cannot convert verdict " + std::to_string(value) +
                                                    " to string");
        EXPECT_THROW(VerdictFromInt(value), VerdictException);
    }
    // The whole text is compared: a longer one would show as a mismatch.
    for (const char* text : {"clean", "", "Clean ", "Bad"})
    {
        EXPECT_THAT([&] { VerdictFromString(text); }, testing::ThrowsMessage<VerdictException>(testing::StrEq(
                                                          std::string("Unknown verdict string: ") + text)))
            << text;
    }
}

} // namespace vantor::ioc
