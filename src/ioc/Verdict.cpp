#include "ioc/Verdict.h"

#include <array>

namespace vantor::ioc
{

namespace
{
constexpr std::array<const char*, 5> kTexts{"Clean", "CleanWithoutHash", "Unknown", "Suspicious",
                                            "Malicious"};

bool InRange(int value)
{
    return value >= static_cast<int>(Verdict::Clean) && value <= static_cast<int>(Verdict::Malicious);
}

[[noreturn]] void ThrowUnconvertible(int value)
{
    throw VerdictException("Cannot convert verdict " + std::to_string(value) + " to string");
}
} // namespace

const char* ToString(Verdict verdict)
{
    const int value = static_cast<int>(verdict);
    if (!InRange(value))
    {
        ThrowUnconvertible(value);
    }
    return kTexts[static_cast<size_t>(value - 1)];
}

Verdict VerdictFromInt(int value)
{
    if (!InRange(value))
    {
        ThrowUnconvertible(value);
    }
    return static_cast<Verdict>(value);
}

Verdict VerdictFromString(const std::string& text)
{
    for (size_t i = 0; i < kTexts.size(); ++i)
    {
        if (text == kTexts[i])
        {
            return static_cast<Verdict>(static_cast<int>(i) + 1);
        }
    }
    throw VerdictException("Unknown verdict string: " + text);
}

} // namespace vantor::ioc
