#pragma once

#include "tests/src/audit/AuditKernelState.h"
#include "tests/support/PrivateAuditd.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

namespace vantor::test
{

// A private auditd under dir/auditd, ready for the daemon's dispatcher channel,
// with auditing enabled: in dispatcher mode the daemon leaves that flag to
// auditd, which was told not to change it. Null with why set when this host
// cannot run one; null with a test failure when it would not start.
inline std::unique_ptr<PrivateAuditd> StartDispatcherAuditd(const std::string& dir, std::string& why)
{
    why = PrivateAuditd::WhyUnavailable();
    if (!why.empty())
    {
        return nullptr;
    }
    std::filesystem::create_directory(dir + "/auditd");
    auto auditd = std::make_unique<PrivateAuditd>(dir + "/auditd");
    const std::string problem = auditd->WaitReady();
    if (!problem.empty())
    {
        ADD_FAILURE() << problem;
        return nullptr;
    }
    RunCommand("auditctl -e 1");
    return auditd;
}

} // namespace vantor::test
