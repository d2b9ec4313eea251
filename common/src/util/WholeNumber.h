#pragma once

#include <charconv>
#include <string_view>
#include <system_error>

namespace vantor::util
{

// Reads a text that is one number and nothing else: no blanks, nothing after
// the digits, a value that fits T. False otherwise (value may then be
// changed), also for an empty text.
template <typename T>
bool ParseWholeNumber(std::string_view text, T& value, int base = 10)
{
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return ec == std::errc() && end == text.data() + text.size();
}

} // namespace vantor::util
