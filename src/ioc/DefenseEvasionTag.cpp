#include "ioc/DefenseEvasionTag.h"

#include "common/Logging.h"
#include "common/StatHelper.h"
#include "ioc/EventFields.h"

#include <sys/stat.h>

namespace vantor::ioc::internal
{

namespace
{

const std::vector<mode_t> kDefaultPermissions{S_ISUID, S_ISGID, S_IWOTH};

std::string_view BaseName(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/')
    {
        path.remove_suffix(1);
    }
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool IsHidden(const std::string& path)
{
    const std::string_view name = BaseName(path);
    return name.size() > 1 && name.front() == '.' && name != "..";
}

} // namespace

DefenseEvasionTag::DefenseEvasionTag()
    : Tag("DefenseEvasion")
    , m_permissions(kDefaultPermissions)
{
}

std::optional<mode_t> DefenseEvasionTag::ParsePermission(std::string_view text)
{
    // "04000" as much as "4000"; more digits than that is no mode.
    if (text.empty() || text.size() > 5)
    {
        return std::nullopt;
    }
    mode_t bits = 0;
    for (const char digit : text)
    {
        if (digit < '0' || digit > '7')
        {
            return std::nullopt;
        }
        bits = bits * 8 + static_cast<mode_t>(digit - '0');
    }
    if (bits == 0 || bits > 07777)
    {
        return std::nullopt;
    }
    return bits;
}

void DefenseEvasionTag::ApplyOwnSettings(const rapidjson::Value& settings)
{
    const auto member = settings.FindMember("permissions");
    if (member == settings.MemberEnd() || !member->value.IsArray())
    {
        EDR_LOG_WARNING("Expected an array of suspicious permissions for"
                        << " DefenseEvasion"
                        << " tag. Using default permissions ...");
        m_permissions = kDefaultPermissions;
        return;
    }
    std::vector<mode_t> permissions;
    const auto& list = member->value;
    for (rapidjson::SizeType i = 0; i < list.Size(); ++i)
    {
        if (!list[i].IsString())
        {
            EDR_LOG_ERROR("Error reading permission at index " << i);
            continue;
        }
        const auto bits = ParsePermission(std::string_view(list[i].GetString(), list[i].GetStringLength()));
        if (!bits)
        {
            EDR_LOG_ERROR("Invalid permission found at index " << i);
            continue;
        }
        permissions.push_back(*bits);
    }
    m_permissions = std::move(permissions);
}

bool DefenseEvasionTag::IsApplicable(const edr::Event& event, const ProcessInfo& process) const
{
    if (CreatesHiddenArtifact(event))
    {
        EDR_LOG_DEBUG("Defense Evasion Hidden Artifacts technique is applicable for this process id "
                      << process.pid);
        return true;
    }
    if (SetsSuspiciousPermission(event))
    {
        EDR_LOG_DEBUG("Defense Evasion Permissions Change technique is applicable for this process id "
                      << process.pid);
        return true;
    }
    EDR_LOG_TRACE("Defense Evasion tactic is not applicable for this process id " << process.pid);
    return false;
}

bool DefenseEvasionTag::CreatesHiddenArtifact(const edr::Event& event)
{
    switch (event.GetType())
    {
    case edr::EventType::Create:
    {
        const auto file = EventFields::File(event);
        return file && IsHidden(*file);
    }
    case edr::EventType::Rename:
    {
        const auto from = EventFields::File(event);
        const auto to = EventFields::NewFile(event);
        return from && to && !IsHidden(*from) && IsHidden(*to);
    }
    default:
        return false;
    }
}

bool DefenseEvasionTag::SetsSuspiciousPermission(const edr::Event& event) const
{
    if (event.GetType() != edr::EventType::Attribute || m_permissions.empty())
    {
        return false;
    }
    const auto file = EventFields::File(event);
    if (!file)
    {
        return false;
    }
    std::optional<struct stat> status;
    try
    {
        status = common::StatHelper::TryStat(*file, true);
    }
    catch (const std::exception& e)
    {
        EDR_LOG_DEBUG(e.what());
        return false;
    }
    if (!status)
    {
        return false;
    }
    for (const mode_t bits : m_permissions)
    {
        if ((status->st_mode & bits) == bits)
        {
            return true;
        }
    }
    return false;
}

} // namespace vantor::ioc::internal
