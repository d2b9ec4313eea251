// libFuzzer entry point: any bytes as the agent channel's pending buffer,
// read as the daemon's main loop reads it before it dispatches. It stops
// there: a "config" command reads the file it names (any path, a FIFO
// included) and replaces the kernel audit rules, "exit" stops the daemon;
// what such a file holds is the ConfigurationFuzzer's input. What is read
// must agree with itself: a message that is not one JSON object names
// nothing, and the kind of a named command depends on its text alone, not
// on escapes, spacing, other members or trailing bytes.

#include "edr/daemon/AgentCommand.h"
#include "tests/fuzz/FuzzSupport.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace
{

using vantor::edr::AgentCommand;
using Kind = AgentCommand::Kind;

// The kind of {"command": name} as the agent would write it; nothing when
// the name is not UTF-8 (an escaped lone surrogate gives such a name), as
// such a message can only be written with escapes.
std::optional<Kind> KindOfPlain(std::string_view name)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, rapidjson::CrtAllocator,
                      rapidjson::kWriteValidateEncodingFlag>
        writer(buffer);
    writer.StartObject();
    writer.Key("command");
    if (!writer.String(name.data(), static_cast<rapidjson::SizeType>(name.size())))
    {
        return std::nullopt;
    }
    writer.EndObject();
    return AgentCommand(std::string_view(buffer.GetString(), buffer.GetSize())).GetKind();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    vantor::test::QuietLogsAtTrace();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const AgentCommand command(std::string_view(reinterpret_cast<const char*>(data), size));
    const Kind kind = command.GetKind();
    const bool consistent = kind == Kind::Invalid   ? command.Name().empty() && !command.ConfigFile()
                            : kind == Kind::Unnamed ? command.Name().empty()
                                                    : KindOfPlain(command.Name()).value_or(kind) == kind;
    if (!consistent)
    {
        std::abort();
    }
    return 0;
}
