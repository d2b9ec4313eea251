#pragma once

// Indicators of compromise end to end: the FIM fixture's daemon, agent,
// receiver and kernel state, with an IOC manifest of the test's own, IOC
// batches uploaded every second to the receiver's gateway route, and the
// batches the receiver stored decoded for comparison. The agent socket is
// moved into the test's directory.

#include "tests/support/FimEndToEndFixture.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vantor::test
{

// One event of a stored IOC batch, the parts the tests compare.
struct IocEvent
{
    std::string kind;   // "processEvent", "fileEvent", "networkEvent", ...
    std::string action; // the EventAction name: "RUNNING", "NONE", "ESTABLISHED", ...
    long long pid = -1; // the actor's
    std::string image;  // the actor's executable
    // The process's image, the file's full path, or the remote address and
    // port ("127.0.0.1:443").
    std::string target;
    long long parent = -1; // process events: the parent's pid
    std::string arguments; // process events
    std::string sha256;    // file events
    std::string meta;      // the actor's tags and verdicts (JSON), when sent
};

struct IocBatch
{
    int file = 0; // the receiver's number of the stored upload
    uint64_t sequence = 0;
    std::vector<IocEvent> events;
};

std::string Describe(const std::vector<IocEvent>& events);
// One serialised batch (as uploaded or spooled); nothing when it does not parse.
std::optional<IocBatch> ReadIocBatch(const std::string& bytes, int file = 0);

class IocEndToEndFixture : public FimEndToEndFixture
{
protected:
    // Also gives this process (and so the workload) a login user id where it
    // has none: the kernel audits file reads of login sessions only.
    void SetUp() override;

    // Writes the manifest (its "gateway_url" is set to the receiver) and
    // starts the daemon with it; batches go into Dir()/spool/ioc. The agent
    // and the daemon meet on a socket in Dir(), not on the default one.
    // change edits the configuration last.
    void StartIocDaemon(const std::string& manifest,
                        const std::function<void(rapidjson::Document&)>& change = {});

    // Every batch stored so far, in arrival order; one whose file cannot be
    // parsed yet is left for the next call.
    std::vector<IocBatch> Batches() const;
    std::vector<IocEvent> Events() const;
    // Finished batches waiting in the spool.
    size_t SpooledBatches() const;
    // Runs the command n times; answers the pids.
    static std::vector<long long> RunTimes(const std::vector<std::string>& argv, int n);
    // A process start that makes the capture complete earlier events; its own
    // events are of no interest.
    static void Nudge();

    std::string m_iocSpool;
};

} // namespace vantor::test
