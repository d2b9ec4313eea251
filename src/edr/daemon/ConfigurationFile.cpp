#include "edr/daemon/ConfigurationFile.h"

#include "common/util/Json.h"

#include <cstdint>

namespace vantor::edr
{

ConfigurationFile::Status ConfigurationFile::Load(const std::string& path)
{
    std::string text;
    if (!util::ReadFile(path, text))
    {
        return Status::Unreadable;
    }
    if (!util::ParseJson(m_root, text) || !m_root.IsObject())
    {
        return Status::Invalid;
    }
    return Status::Ok;
}

bool ConfigurationFile::HasSections(std::initializer_list<const char*> names) const
{
    for (const char* name : names)
    {
        const auto it = m_root.FindMember(name);
        if (it == m_root.MemberEnd() || !it->value.IsObject())
        {
            return false;
        }
    }
    return true;
}

bool ConfigurationFile::ReadOutpost(int32_t& pid, std::string& path) const
{
    const auto pidIt = m_root.FindMember("outpost_pid");
    const auto pathIt = m_root.FindMember("outpost_path");
    if (pidIt == m_root.MemberEnd() || !pidIt->value.IsNumber() || pathIt == m_root.MemberEnd() ||
        !pathIt->value.IsString())
    {
        return false;
    }
    const double value = pidIt->value.GetDouble();
    pid = value >= INT32_MIN && value <= INT32_MAX ? static_cast<int32_t>(value) : 0;
    path.assign(pathIt->value.GetString(), pathIt->value.GetStringLength());
    return true;
}

} // namespace vantor::edr
