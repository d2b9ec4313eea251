#pragma once

// What a hostile host throws at the daemon: file names and process titles
// made of every awkward byte, paths close to PATH_MAX, and work done by an
// unprivileged user.

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::test
{

// The account-less "nobody" ids the unprivileged workload runs as.
inline constexpr uid_t kNobody = 65534;

struct HostileName
{
    const char* label;
    std::string raw;     // the bytes of the name
    std::string escaped; // how documents and batches write it
};

// One name of each hostile kind (quotes, control characters, bytes that are
// not UTF-8, backslashes, a leading '-', 255 bytes, ...), all different.
const std::vector<HostileName>& HostileNames();

// Makes nested directories below base, each name at most 255 bytes, until
// the path is length bytes long; answers it.
std::string NestedDirectory(const std::string& base, size_t length);

// Forks a child that gives up root for kNobody (no supplementary groups)
// and exits with body's answer (125 when it cannot drop); answers its pid.
pid_t ForkUnprivileged(const std::function<int()>& body);

// A "kB" line of /proc/<pid>/status ("VmHWM", "VmRSS"); -1 when unreadable.
long long StatusKb(pid_t pid, const char* field);

// Copies an executable to path with tail appended, so that each copy has a
// hash of its own; mode 0755.
void CopyExecutable(const std::string& from, const std::string& path, const std::string& tail);

} // namespace vantor::test
