#pragma once

#include "common/UniqueFd.h"
#include "common/WorkerThread.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace vantor::common
{

// A byte stream with its own event-loop thread: readable data becomes calls of
// the data callback, failures become calls of the error callback.
class IOChannel
{
public:
    enum Error : int32_t
    {
        Success = 0,
        Timeout = 1,
        RemoteFailure = 2,
        AccessDenied = 3,
        InvalidData = 4,
        InvalidState = 5,
        Unknown = 6
    };

    using ErrorCallback = std::function<void(Error)>;
    using DataCallback = std::function<void(std::vector<uint8_t>)>;

    static const char* ErrorText(Error error);

    // readBufSize must not be 0; selectTimeoutSeconds 0 means no time-out.
    IOChannel(uint64_t readBufSize, int64_t selectTimeoutSeconds);

    virtual void OnData(std::vector<uint8_t> data);
    virtual void OnEOF() = 0;
    virtual Error Read(std::vector<uint8_t>& data) = 0;
    virtual Error OnTimeout();
    virtual ~IOChannel();
    virtual void Write(const std::vector<uint8_t>& data) = 0;
    virtual void Start() = 0;
    virtual void Stop() = 0;

    IOChannel(const IOChannel&) = delete;
    IOChannel& operator=(const IOChannel&) = delete;

    // Must be set before Start.
    void SetErrorCallback(ErrorCallback callback);
    void SetDataCallback(DataCallback callback);
    bool IsStopping() const;
    void WakeUp();

protected:
    // Runs the select loop on its own thread (started by Start of a derived class).
    void StartEventLoop();
    // Sets the stopping flag, wakes the loop and waits for it.
    void StopEventLoop();
    void ReportError(Error error);

    ErrorCallback m_errorCallback;
    WorkerThread m_eventLoop;
    uint64_t m_readBufSize;
    DataCallback m_dataCallback;
    // Read end, write end.
    UniqueFd m_selfPipe[2];
    std::atomic<bool> m_stopping{false};
    int64_t m_selectTimeoutSeconds;
    std::atomic<int> m_fd{-1};
    std::mutex m_startStopMutex;

private:
    void EventLoop();
};

// Carries one IOChannel::Error; what() answers the error's text.
class IOChannelException : public std::runtime_error
{
public:
    explicit IOChannelException(IOChannel::Error error);
    const char* what() const noexcept override;
    IOChannel::Error GetError() const { return m_error; }

private:
    IOChannel::Error m_error;
};

} // namespace vantor::common
