#include "fim/AccountNames.h"

#include <grp.h>
#include <pwd.h>

#include <array>

namespace vantor::fim::internal
{

std::string AccountNames::UserName(uid_t uid)
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

std::string AccountNames::GroupName(gid_t gid)
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

} // namespace vantor::fim::internal
