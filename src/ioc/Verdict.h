#pragma once

#include <stdexcept>
#include <string>

namespace vantor::ioc
{

// How bad an engine judges an event's process. The order matters: a larger
// value is worse, and a process's stored verdict never goes down.
enum class Verdict : int
{
    Clean = 1,
    CleanWithoutHash = 2,
    Unknown = 3,
    Suspicious = 4,
    Malicious = 5
};

// The conversions throw VerdictException with the texts below; verdict texts
// come from the snapshot database, so a bad one must fail one event, not the
// thread.
class VerdictException : public std::invalid_argument
{
public:
    using std::invalid_argument::invalid_argument;
};

// "Clean", "CleanWithoutHash", "Unknown", "Suspicious" or "Malicious"; any
// other value throws "Cannot convert verdict <n> to string".
const char* ToString(Verdict verdict);
// The verdict of a stored number; outside 1-5 throws as ToString does.
Verdict VerdictFromInt(int value);
// Exact (case-sensitive) text; any other throws "Unknown verdict string:
// <text>".
Verdict VerdictFromString(const std::string& text);

} // namespace vantor::ioc
