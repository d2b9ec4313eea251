#pragma once

#include "common/PeriodicSchedule.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

namespace vantor::audit
{

class RuleEngine;

// Puts the engine's kernel rules back when somebody else removed them: a
// restart of auditd (its rule loader begins with -D) or a stray
// `auditctl -D` would otherwise leave the daemon running without its rules
// and blind. Each run reads the kernel's rule list once and installs again
// what is missing; the events pay nothing for it. Every repair is logged and
// counted for the health-status records.
//
// Runs on the Scheduler; the totals may be read from any thread. Holds the
// engine weakly: once it is gone, runs do nothing.
class KernelRuleWatchdog : public common::PeriodicSchedule
{
public:
    static constexpr std::chrono::seconds kInterval{10};

    explicit KernelRuleWatchdog(std::weak_ptr<RuleEngine> engine, std::chrono::seconds interval = kInterval);

    // Kernel rules of ours found gone, and installed again, since the start.
    uint64_t TotalMissing() const { return m_missing.load(std::memory_order_relaxed); }
    uint64_t TotalReinstalled() const { return m_reinstalled.load(std::memory_order_relaxed); }

    // One check, as a run does it.
    void Check();

protected:
    void Run() override { Check(); }

private:
    const std::weak_ptr<RuleEngine> m_engine;
    std::atomic<uint64_t> m_missing{0};
    std::atomic<uint64_t> m_reinstalled{0};
};

} // namespace vantor::audit
