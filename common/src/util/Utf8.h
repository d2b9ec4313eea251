#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vantor::util
{

// Length of the valid UTF-8 sequence at the start of text; 0 when the first
// byte does not start one (or text is empty).
std::size_t Utf8SequenceLength(std::string_view text);

// Whether every byte of text belongs to a valid UTF-8 sequence.
bool IsValidUtf8(std::string_view text);

// The text with U+FFFD in place of each byte that does not start a valid
// sequence; the result lives in scratch.
const std::string& ValidUtf8(std::string_view text, std::string& scratch);

} // namespace vantor::util
