#include "fim/AccountNames.h"

#include <grp.h>
#include <pwd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <unordered_map>

namespace vantor::fim::internal
{

namespace
{

using Clock = std::chrono::steady_clock;

// Each lookup reads the account database anew (files, a socket), while the
// documents of one round mostly name the same few ids.
constexpr Clock::duration kKeepFor = std::chrono::seconds(1);
constexpr size_t kMaxKept = 256;

struct Kept
{
    std::string name;
    Clock::time_point until;
};
using KeptNames = std::unordered_map<uint32_t, Kept>;

template <typename LookUp>
std::string KeptOrLookedUp(KeptNames& kept, uint32_t id, LookUp lookUp)
{
    const auto now = Clock::now();
    const auto it = kept.find(id);
    if (it != kept.end() && now < it->second.until)
    {
        return it->second.name;
    }
    if (kept.size() >= kMaxKept)
    {
        kept.clear();
    }
    std::string name = lookUp(id);
    kept[id] = {name, now + kKeepFor};
    return name;
}

std::string LookUpUser(uid_t uid)
{
    std::array<char, 1024> buffer{};
    passwd pwd{};
    passwd* result = nullptr;
    if (getpwuid_r(uid, &pwd, buffer.data(), buffer.size(), &result) == 0 && result != nullptr)
    {
        return result->pw_name;
    }
    return std::to_string(uid);
}

std::string LookUpGroup(gid_t gid)
{
    std::array<char, 1024> buffer{};
    group grp{};
    group* result = nullptr;
    if (getgrgid_r(gid, &grp, buffer.data(), buffer.size(), &result) == 0 && result != nullptr)
    {
        return result->gr_name;
    }
    return std::to_string(gid);
}

} // namespace

std::string AccountNames::UserName(uid_t uid)
{
    thread_local KeptNames users;
    return KeptOrLookedUp(users, uid, LookUpUser);
}

std::string AccountNames::GroupName(gid_t gid)
{
    thread_local KeptNames groups;
    return KeptOrLookedUp(groups, gid, LookUpGroup);
}

} // namespace vantor::fim::internal
