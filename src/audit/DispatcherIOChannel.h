#pragma once

#include "common/UnixClientStreamSockIOChannel.h"

#include <atomic>
#include <string>

namespace vantor::audit
{

// Client of the audit dispatcher's Unix socket (auditd's af_unix plugin in
// its "string" format): receives raw audit text, one record per line, in
// chunks cut anywhere, and hands each chunk to the data callback.
class DispatcherIOChannel : public common::UnixClientStreamSockIOChannel
{
public:
    // reconnectTimeout as for the base: attempts one second apart, 0 for
    // ever (the dispatcher goes away while the audit daemon restarts).
    // Audit text arrives in bursts; large reads keep the per-chunk work
    // (select, wake-ups of the parser) low.
    static constexpr uint64_t kReadBufSize = 64 * 1024;

    explicit DispatcherIOChannel(std::string socketPath, int64_t reconnectTimeout = 0);
    ~DispatcherIOChannel() override;

    void OnData(std::vector<uint8_t> data) override;
    void Write(const std::vector<uint8_t>& data) override;
    void Start() override;
    void Stop() override;

private:
    std::atomic<bool> m_started{false};
};

} // namespace vantor::audit
