#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

namespace vantor::audit::internal
{

// Process-wide cache of user names by uid, filled through getpwuid_r once per
// uid: events ask for names constantly and the user database is slow (NSS).
class UserNameCache
{
public:
    static UserNameCache& Instance();

    // The user name of uid; a uid without an entry gives its number as text.
    std::string UserName(uint32_t uid);
    // The login name of an audit user id; the unset auid is "system-user".
    std::string LoginName(uint32_t auid);

private:
    std::string Lookup(uint32_t uid);

    std::mutex m_mutex;
    std::unordered_map<uint32_t, std::string> m_names;
};

} // namespace vantor::audit::internal
