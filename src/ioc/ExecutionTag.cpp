#include "ioc/ExecutionTag.h"

#include "edr/Event.h"
#include "ioc/TagPatterns.h"

#include <stdexcept>

namespace vantor::ioc::internal
{

ExecutionTag::ExecutionTag()
    : Tag("Execution")
    , m_path(AddPattern("pathRegex", TagPatterns::kExecutionPath))
    , m_process(AddPattern("processRegex", TagPatterns::kExecutionProcess))
{
    if (!m_argument.Add(TagPatterns::kExecutionArgument))
    {
        throw std::logic_error("Execution tag: the argument pattern does not compile");
    }
}

bool ExecutionTag::IsApplicable(const edr::Event& event, const ProcessInfo& process) const
{
    return event.GetType() == edr::EventType::Running && Matches(m_process, process.image.path) &&
           (RunsScriptFromPath(process) || HasStartupFileArgument(event));
}

bool ExecutionTag::RunsScriptFromPath(const ProcessInfo& process) const
{
    const std::string& script = process.secondaryImage.path;
    if (script.empty())
    {
        return false;
    }
    if (script.front() == '/' || process.cwd.empty())
    {
        return Matches(m_path, script);
    }
    return Matches(m_path, process.cwd + (process.cwd.back() == '/' ? "" : "/") + script);
}

bool ExecutionTag::HasStartupFileArgument(const edr::Event& event) const
{
    std::vector<std::string> arguments;
    try
    {
        arguments = event.GetActorProcessArguments();
    }
    catch (const edr::EventException&)
    {
        return false;
    }
    // The first argument is the program itself.
    for (size_t i = 1; i < arguments.size(); ++i)
    {
        if (m_argument.Matches(0, arguments[i]))
        {
            return true;
        }
    }
    return false;
}

} // namespace vantor::ioc::internal
