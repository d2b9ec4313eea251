#pragma once

// File integrity monitoring end to end: the real daemon, started by the
// stand-in agent inside a DaemonHarness, on the real kernel audit stream (or
// a private auditd's dispatcher socket), uploading to the local HTTPS
// receiver. The kernel's audit state is taken before each test and put back
// after it; a daemon that ran must have left none of its rules.

#include "tests/src/audit/AuditKernelState.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/ReceiverProcess.h"

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vantor::test
{

// One uploaded FIM document, the parts the tests compare.
struct FimDocument
{
    std::string action;
    std::string path;
    long long actor = -1;
    std::vector<std::string> rules;
    std::string newPath;     // the new name of a rename
    long long userId = -1;   // the actor's
    std::string procTitle{}; // the actor's
};

std::string Describe(const std::vector<FimDocument>& documents);
// Appends the documents of an uploaded payload or a spool file ({"events":
// [...]}); false when the text is not one.
bool ReadFimPayload(const std::string& text, std::vector<FimDocument>& documents);

class FimEndToEndFixture : public testing::Test
{
protected:
    static constexpr const char* kRuleId = "e2e-watched";

    // Skips where the daemon cannot capture; otherwise enters the harness,
    // takes the audit state and starts the receiver.
    void SetUp() override;
    // Stops the agent and the receiver, checks that no rule of the daemon is
    // left and puts the audit state back.
    void TearDown() override;

    // Starts the agent and with it the daemon (reading the dispatcher socket
    // when one is named); change edits the configuration last. Waits until
    // the FIM rule is in the kernel and the capture runs.
    void StartDaemon(const std::string& dispatcherSocket = {},
                     const std::function<void(rapidjson::Document&)>& change = {});
    // Has the agent send "exit" and expects the daemon to end with 0.
    void ExitDaemon();
    // auditd sends only to the dispatcher clients it has accepted, in its own
    // time after they connected: user messages go to the audit stream until
    // the daemon has received text from it.
    void AwaitDispatcherDelivery();

    // Every document received so far, in upload order. A payload that cannot
    // be read yet (it may still be written) is tried again by the next call.
    std::vector<FimDocument> Received();
    // Payload files that were not FIM payloads when last read.
    size_t UnreadablePayloads() const { return m_unreadable.size(); }
    static size_t Count(const std::vector<FimDocument>& documents, const FimDocument& wanted);
    bool AllArrived(const std::vector<FimDocument>& expected);
    bool SpoolIsEmpty() const;
    // Spool files with data that reached the disk.
    size_t SpooledFiles() const;

    // Declared first so that it goes last: the namespace is left once no
    // child of ours runs.
    DaemonHarness m_harness;
    std::optional<AuditKernelState> m_state;
    std::unique_ptr<ReceiverProcess> m_receiver;
    std::unique_ptr<AgentProcess> m_agent;
    std::string m_watched;
    std::string m_spool;
    std::string m_spoolFiles;
    std::string m_manifest;
    // When set, the agent listens there instead of the default socket.
    std::string m_agentSocket;
    pid_t m_daemonPid = 0;
    bool m_daemonRan = false;
    std::set<long long> m_daemonPids;
    std::set<long long> m_agentPids;

    // Adds a rule like the watched one for another path to the manifest;
    // before StartDaemon.
    void WatchAlso(const std::string& ruleId, const std::string& path);

private:
    void WriteManifest(const std::vector<std::pair<std::string, std::string>>& extraRules = {});

    // Documents of each payload file read so far, by the file's number.
    std::map<int, std::vector<FimDocument>> m_payloads;
    std::set<int> m_unreadable;
    std::vector<std::pair<std::string, std::string>> m_extraRules;
};

} // namespace vantor::test
