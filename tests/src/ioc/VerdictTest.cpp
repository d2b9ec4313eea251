#include "ioc/Verdict.h"

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
        try
        {
            ToString(static_cast<Verdict>(value));
            ADD_FAILURE() << value;
        }
        catch (const VerdictException& e)
        {
            EXPECT_EQ("Cannot convert verdict " + std::to_string(value) + " to string", e.what());
        }
        EXPECT_THROW(VerdictFromInt(value), VerdictException);
    }
    for (const char* text : {"clean", "", "Clean ", "Bad"})
    {
        try
        {
            VerdictFromString(text);
            ADD_FAILURE() << text;
        }
        catch (const VerdictException& e)
        {
            EXPECT_EQ(std::string("Unknown verdict string: ") + text, e.what());
        }
    }
}

} // namespace vantor::ioc
