#include "audit/UserNameCache.h"

#include "audit/SyscallRecord.h"
#include "common/Logging.h"

#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace vantor::audit::internal
{

UserNameCache& UserNameCache::Instance()
{
    static UserNameCache cache;
    return cache;
}

std::string UserNameCache::Lookup(uint32_t uid)
{
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
    struct passwd entry
    {
    };
    struct passwd* result = nullptr;
    for (;;)
    {
        const int rc = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result);
        if (rc == ERANGE && buffer.size() < (1U << 20))
        {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        break;
    }
    return result != nullptr ? std::string(result->pw_name) : std::to_string(uid);
}

std::string UserNameCache::UserName(uint32_t uid)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_names.find(uid);
    if (it == m_names.end())
    {
        it = m_names.emplace(uid, Lookup(uid)).first;
    }
    return it->second;
}

std::string UserNameCache::LoginName(uint32_t auid)
{
    if (auid == SyscallRecord::kUnsetAuid)
    {
        return "system-user";
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_names.find(auid);
    if (it == m_names.end())
    {
        it = m_names.emplace(auid, Lookup(auid)).first;
        EDR_LOG_DEBUG("Setting Audit username for Auid:" << auid << " to " << it->second);
    }
    return it->second;
}

} // namespace vantor::audit::internal
