#pragma once

#include <chrono>
#include <string>

namespace vantor::util
{

// "%Y-%m-%d %H:%M:%S" in UTC, the form of times in log lines.
std::string FormatLogTime(std::chrono::system_clock::time_point t);
// "%FT%TZ" in UTC, the form of times in documents.
std::string FormatIsoTime(std::chrono::system_clock::time_point t);

} // namespace vantor::util
