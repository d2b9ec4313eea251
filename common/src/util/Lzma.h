#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vantor::util
{

class LzmaException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// LZMA2 in the .xz container (CRC64 checked), the encoding that the back end
// accepts as "Content-Encoding: LZMA". Throws LzmaException on failure.
std::string LzmaCompress(std::string_view data);

// Refuses input that is not a complete .xz stream or that expands beyond
// maxOutput bytes, so a hostile answer cannot exhaust memory.
std::string LzmaDecompress(std::string_view data, std::size_t maxOutput = 64 * 1024 * 1024);

} // namespace vantor::util
