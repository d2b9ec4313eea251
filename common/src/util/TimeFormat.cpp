#include "common/util/TimeFormat.h"

#include <ctime>

namespace vantor::util
{

namespace
{
std::string Format(std::chrono::system_clock::time_point t, const char* format)
{
    const std::time_t secs = std::chrono::system_clock::to_time_t(t);
    std::tm tm{};
    gmtime_r(&secs, &tm);
    char buf[64];
    const size_t n = std::strftime(buf, sizeof buf, format, &tm);
    return std::string(buf, n);
}
} // namespace

std::string FormatLogTime(std::chrono::system_clock::time_point t)
{
    return Format(t, "%Y-%m-%d %H:%M:%S");
}

std::string FormatIsoTime(std::chrono::system_clock::time_point t)
{
    return Format(t, "%FT%TZ");
}

} // namespace vantor::util
