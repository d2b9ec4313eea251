#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <sys/types.h>

namespace vantor::edr
{

// What the kernel's /proc/<pid>/stat says of a process that the subsystems
// need: capture reads it when it records a process start and hands it on
// with the event, so that a consumer does not read the file a second time.
struct ProcessStat
{
    char state = '?';
    pid_t parentPid = 0;
    int64_t priority = 0;
    uint64_t startTicks = 0; // clock ticks after boot

    // The fields of the file's text. The command name may hold blanks and
    // parentheses, so the fields are those after the last ')'. Nothing when
    // the text is malformed: fewer than the 22 fields, a state that is not
    // one letter, or a number field that is not a number.
    static std::optional<ProcessStat> Parse(std::string_view text);

    bool operator==(const ProcessStat&) const = default;
};

} // namespace vantor::edr
