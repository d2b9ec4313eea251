#include "tests/support/HostileWorkload.h"

#include "tests/support/DaemonHarness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <sstream>
#include <unistd.h>

namespace vantor::test
{

const std::vector<HostileName>& HostileNames()
{
    static const std::vector<HostileName> names = {
        {"quotes", R"(it's "quoted")", R"(it's "quoted")"},
        {"newline", "two\nlines", "two\nlines"},
        {"tab and space", "tab\there now", "tab\there now"},
        {"invalid bytes", "bad\xff\xfe.bin", R"(bad\xFF\xFE.bin)"},
        {"overlong and lone continuation", "\xc0\xaf\x80slash", R"(\xC0\xAF\x80slash)"},
        {"truncated sequence", "cut\xe2\x82", R"(cut\xE2\x82)"},
        {"backslashes", R"(back\slash\x41)", R"(back\\slash\\x41)"},
        {"leading dash", "-rf --no-preserve-root", "-rf --no-preserve-root"},
        {"valid UTF-8", "na\xc3\xafve-\xe5\x90\x8d\xe5\x89\x8d", "na\xc3\xafve-\xe5\x90\x8d\xe5\x89\x8d"},
        {"255 bytes", std::string(250, 'L') + "\xff" + "end", std::string(250, 'L') + R"(\xFFend)"},
    };
    return names;
}

std::string NestedDirectory(const std::string& base, size_t length)
{
    std::string path = base;
    for (int level = 0; path.size() < length; ++level)
    {
        const size_t room = std::max<size_t>(length - path.size(), 2) - 1;
        path += "/" + std::string(std::min<size_t>(room, 200), static_cast<char>('a' + level % 26));
    }
    std::filesystem::create_directories(path);
    return path;
}

pid_t ForkUnprivileged(const std::function<int()>& body)
{
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0 ||
            ::setuid(0) == 0)
        {
            ::_exit(125);
        }
        ::_exit(body());
    }
    return pid;
}

long long StatusKb(pid_t pid, const char* field)
{
    std::istringstream status(ReadText("/proc/" + std::to_string(pid) + "/status"));
    const std::string key = std::string(field) + ":";
    for (std::string line; std::getline(status, line);)
    {
        if (line.rfind(key, 0) == 0)
        {
            return std::stoll(line.substr(key.size()));
        }
    }
    return -1;
}

void CopyExecutable(const std::string& from, const std::string& path, const std::string& tail)
{
    std::ofstream(path, std::ios::binary) << ReadText(from) << tail;
    std::filesystem::permissions(path, std::filesystem::perms(0755));
}

} // namespace vantor::test
