#include "edr/daemon/AgentCommand.h"

#include "common/util/Json.h"

#include <array>
#include <utility>

namespace vantor::edr
{

AgentCommand::AgentCommand(std::string_view buffer)
{
    if (!util::ParseJson(m_message, buffer) || !m_message.IsObject())
    {
        return;
    }
    m_kind = Kind::Unnamed;
    const auto it = m_message.FindMember("command");
    if (it == m_message.MemberEnd() || !it->value.IsString())
    {
        return;
    }
    m_name = std::string_view(it->value.GetString(), it->value.GetStringLength());
    static constexpr std::array<std::pair<std::string_view, Kind>, 4> kKnown{{{"fim_status", Kind::FimStatus},
                                                                              {"ioc_status", Kind::IocStatus},
                                                                              {"config", Kind::Config},
                                                                              {"exit", Kind::Exit}}};
    m_kind = Kind::Unknown;
    for (const auto& [name, kind] : kKnown)
    {
        if (m_name == name)
        {
            m_kind = kind;
        }
    }
}

std::optional<std::string> AgentCommand::ConfigFile() const
{
    if (m_kind == Kind::Invalid)
    {
        return std::nullopt;
    }
    const auto it = m_message.FindMember("config_file");
    if (it == m_message.MemberEnd() || !it->value.IsString())
    {
        return std::nullopt;
    }
    return std::string(it->value.GetString(), it->value.GetStringLength());
}

} // namespace vantor::edr
