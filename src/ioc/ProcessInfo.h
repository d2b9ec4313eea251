#pragma once

#include "ioc/ImageFile.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::edr
{
class Event;
}

namespace vantor::ioc
{

namespace internal
{
class ProcReader;
}

// What the IOC process memory knows of one process: its identity, image and
// secondary image (the script when the image is an interpreter), arguments,
// working directory, users, state, priority, loaded libraries, and what the
// engines gave it: tags with their scores (the states "Excluded",
// "Reported", "Terminated" and "TtlExpired" are tags too, scored 0) and
// verdicts. Unknown texts are kept as empty texts.
//
// A plain value; the TTL process tree guards the copies it holds.
struct ProcessInfo
{
    enum class State
    {
        Waiting,
        Running,
        Sleeping,
        Traced,
        Paging,
        Zombie,
        Unknown
    };

    pid_t pid = 0;
    pid_t parentPid = 0;
    // Milliseconds since the epoch; with the pid, the process's identity.
    int64_t creationTime = 0;
    std::string arguments;
    std::string cwd;
    int64_t uid = 0;
    int64_t euid = 0;
    int64_t gid = 0;
    int64_t auid = 0;
    ImageFile image;
    ImageFile secondaryImage;
    State state = State::Unknown;
    int64_t priority = 0;
    std::vector<std::string> libraries;
    std::set<pid_t> children;
    // Tag name -> score.
    std::map<std::string, int64_t> tags;
    // Engine name -> verdict value (a larger value is worse).
    std::map<std::string, int> verdicts;

    // From a process-running event; the creation time is the caller's.
    static ProcessInfo FromEvent(const edr::Event& event, int64_t creationTime);
    // From the proc file system; throws std::runtime_error "Failed to update
    // process info: <reason>" when the process does not run. Each field that
    // cannot be read is logged and left empty.
    static ProcessInfo FromProc(const internal::ProcReader& proc, pid_t pid);

    int64_t Score() const;
    bool HasTag(const std::string& tag) const { return tags.count(tag) != 0; }

    // "Waiting", "Running", "Sleeping", "Traced", "Paging", "Zombie" or
    // "Unknown".
    static const char* StateText(State state);
    // The state of a /proc stat state letter.
    static State StateOf(char letter);
    // The script an interpreter runs, from its arguments; empty when the
    // image is no interpreter or runs no file.
    static std::string ScriptOf(const std::string& image, const std::vector<std::string>& arguments);
    static std::string JoinArguments(const std::vector<std::string>& arguments);
};

} // namespace vantor::ioc
