#pragma once

// The capture path as the daemon assembles it, on the real kernel: kernel
// channel -> parser thread -> processing thread -> rule engine -> handler.
// Tests give their rules; the handler records what it sees of each event.

#include "common/Logging.h"
#include "tests/src/audit/AuditKernelState.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "audit/CapturePipeline.h"
#include "audit/KernelIOChannel.h"
#include "audit/ProcessTree.h"
#include "audit/RuleEngine.h"
#include "edr/LibMagicWrapper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vantor::test
{

// What a handler saw of one event.
struct SeenEvent
{
    edr::EventType type = edr::EventType::Accept;
    pid_t pid = 0;
    pid_t ppid = 0;
    std::string image;
    std::string file;
    uint32_t uid = 0;
    std::string userName;
    bool hasProcess = false;
    // Of a known acting process: its arguments and title.
    std::vector<std::string> arguments;
    std::string title;
};

class PipelineCaptureFixture : public AuditCaptureFixture
{
protected:
    using Rules = edr::EventRuleEngine::Rules;

    void SetUp() override
    {
        AuditCaptureFixture::SetUp();
        if (IsSkipped())
        {
            return;
        }
        m_watched = m_dir.Path() + "/watched";
        std::filesystem::create_directories(m_watched);
    }

    void TearDown() override
    {
        m_capture.reset();
        m_engine.reset();
        if (HasFailure())
        {
            for (const auto& line : m_log.Lines())
            {
                std::cerr << line << "\n";
            }
            std::lock_guard lock(m_mutex);
            for (const auto& seen : m_seen)
            {
                std::cerr << "seen type " << static_cast<int>(seen.type) << " pid " << seen.pid << " "
                          << seen.file << "\n";
            }
        }
        AuditCaptureFixture::TearDown();
    }

    // The rule engine (the agent at agentPid, image "/usr/sbin/outpost") with
    // the rules under the tag, fed from the kernel.
    void StartPipeline(pid_t agentPid, const std::string& tag, const Rules& rules)
    {
        m_engine = std::make_unique<audit::RuleEngine>(
            agentPid, "/usr/sbin/outpost", std::make_shared<audit::ProcessTree>(), 0, m_dir.Path());
        m_engine->RegisterEventHandlers(
            tag, [this](edr::Event& event) { Record(event); }, [] {});
        m_engine->AddRules(rules, tag);

        auto channel = std::make_unique<audit::KernelIOChannel>();
        channel->SetEnableAudit(true);
        m_capture = std::make_unique<audit::CapturePipeline>(
            std::move(channel), std::make_shared<const edr::LibMagicWrapper>("/usr/share/misc/magic.mgc"),
            m_engine->GetEventProcessor(), audit::CapturePipeline::Limits{});
        m_capture->Start();
    }

    std::vector<SeenEvent> SeenBy(pid_t pid) const
    {
        std::lock_guard lock(m_mutex);
        std::vector<SeenEvent> out;
        std::copy_if(m_seen.begin(), m_seen.end(), std::back_inserter(out),
                     [pid](const SeenEvent& seen) { return seen.pid == pid; });
        return out;
    }

    std::optional<SeenEvent> SeenFile(edr::EventType type, const std::string& file) const
    {
        std::lock_guard lock(m_mutex);
        const auto it =
            std::find_if(m_seen.begin(), m_seen.end(),
                         [&](const SeenEvent& seen) { return seen.type == type && seen.file == file; });
        return it != m_seen.end() ? std::optional<SeenEvent>(*it) : std::nullopt;
    }

    template <typename Pred>
    static bool WaitFor(Pred pred, std::chrono::milliseconds limit = std::chrono::milliseconds(8000))
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!pred())
        {
            if (std::chrono::steady_clock::now() > end)
            {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

    LogCapture m_log{common::Logging::Edr(), Poco::Message::PRIO_DEBUG};
    TempDir m_dir;
    std::string m_watched;
    std::unique_ptr<audit::RuleEngine> m_engine;
    std::unique_ptr<audit::CapturePipeline> m_capture;
    mutable std::mutex m_mutex;
    std::vector<SeenEvent> m_seen;

private:
    void Record(edr::Event& event)
    {
        SeenEvent seen;
        seen.type = event.GetType();
        seen.pid = event.GetActorProcessId();
        seen.ppid = event.GetActorParentProcessId();
        seen.image = event.GetImage();
        seen.uid = event.GetActorUserId();
        seen.userName = event.GetActorUserName();
        seen.hasProcess = event.HasProcess();
        if (seen.hasProcess)
        {
            seen.arguments = event.GetActorProcessArguments();
            seen.title = event.GetCommandLine();
        }
        if (event.GetCategory() == static_cast<uint32_t>(edr::EventCategory::File))
        {
            seen.file = event.GetFile();
        }
        std::lock_guard lock(m_mutex);
        m_seen.push_back(std::move(seen));
    }
};

} // namespace vantor::test
