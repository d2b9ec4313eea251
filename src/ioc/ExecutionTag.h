#pragma once

#include "ioc/Tag.h"

namespace vantor::ioc::internal
{

// "Execution": a process starts (process-running event) as an interpreter
// (the "processRegex" on the executable) that runs a script from a
// temporary or shared location (the "pathRegex" on the secondary image; a
// relative script is taken from the working directory), or a shell is
// given an alternative start-up file ("--rcfile", "--init-file" among its
// arguments; this pattern is fixed).
class ExecutionTag : public Tag
{
public:
    ExecutionTag();

    bool IsApplicable(const edr::Event& event, const ProcessInfo& process) const override;

private:
    bool RunsScriptFromPath(const ProcessInfo& process) const;
    bool HasStartupFileArgument(const edr::Event& event) const;

    const size_t m_path;
    const size_t m_process;
    RegexPatterns m_argument;
};

} // namespace vantor::ioc::internal
