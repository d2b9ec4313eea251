#include "edr/daemon/AgentCommand.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

using vantor::edr::AgentCommand;
using Kind = AgentCommand::Kind;
using namespace std::string_literals;

namespace
{

struct Case
{
    std::string buffer;
    Kind kind;
    std::string name;
    std::optional<std::string> configFile;
};

TEST(AgentCommandTest, OneObjectNamesTheCommandAnythingElseIsInvalid)
{
    const Case cases[] = {
        {R"({"command":"config","config_file":"/etc/corvid/edr.json"})", Kind::Config, "config",
         "/etc/corvid/edr.json"},
        {R"({"command":"config"})", Kind::Config, "config", std::nullopt},
        {R"({"command":"config","config_file":7})", Kind::Config, "config", std::nullopt},
        {"{\"command\":\"exit\"}\n\0\0"s, Kind::Exit, "exit", std::nullopt},
        {R"( {"command":"fim_status"} )", Kind::FimStatus, "fim_status", std::nullopt},
        {R"({"command":"ioc_status","config_file":"/x"})", Kind::IocStatus, "ioc_status", "/x"},
        {R"({"command":"reboot"})", Kind::Unknown, "reboot", std::nullopt},
        // The text is compared whole: an embedded NUL makes another command.
        {R"({"command":"exit\u0000now"})", Kind::Unknown, "exit\0now"s, std::nullopt},
        {R"({"command":5,"config_file":"/x"})", Kind::Unnamed, "", "/x"},
        {R"({})", Kind::Unnamed, "", std::nullopt},
        // Two objects in one read, a split one, a non-object, bad UTF-8.
        {R"({"command":"exit"}{"command":"exit"})", Kind::Invalid, "", std::nullopt},
        {R"({"command":"con)", Kind::Invalid, "", std::nullopt},
        {R"([{"command":"exit"}])", Kind::Invalid, "", std::nullopt},
        {"{\"command\":\"\xff\"}", Kind::Invalid, "", std::nullopt},
        {"", Kind::Invalid, "", std::nullopt},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.buffer);
        const AgentCommand command(c.buffer);
        EXPECT_EQ(command.GetKind(), c.kind);
        EXPECT_EQ(command.Name(), c.name);
        EXPECT_EQ(command.ConfigFile(), c.configFile);
    }
}

} // namespace
