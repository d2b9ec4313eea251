#pragma once

#include <string>
#include <string_view>

namespace vantor::util
{

// Standard alphabet with padding, no line breaks.
std::string Base64Encode(std::string_view data);

// Throws std::invalid_argument "Base64Decode: invalid input" for text that is
// not base64.
std::string Base64Decode(std::string_view text);

} // namespace vantor::util
