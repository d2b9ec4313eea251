#pragma once

#include <cstddef>
#include <string>

namespace vantor::util
{

// Reads a file whole through a plain descriptor (no stream buffer or locale
// per open): the /proc files read at every process start. Stops once text
// holds more than maxBytes. False when the file cannot be opened or read;
// text is replaced.
bool ReadSmallFile(const std::string& path, std::string& text, std::size_t maxBytes);

} // namespace vantor::util
