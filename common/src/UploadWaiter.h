#pragma once

#include "common/HttpUploader.h"

#include <condition_variable>
#include <memory>
#include <mutex>

namespace vantor::common
{

// The answer of one upload, awaited by the task that started it, so that an
// upload schedule sends one payload at a time and keeps its data until the
// answer. Cancel() lets the waiter go without the answer (the schedule is
// stopping); the completion callback may still run later and finds nothing
// waiting.
//
// Thread-safe: the callback runs on the HTTP service's thread, Cancel on the
// stopping one.
class UploadWaiter
{
public:
    enum class Outcome
    {
        Succeeded,
        Failed,
        Cancelled
    };

    UploadWaiter();

    // The completion callback to hand to the uploader.
    HttpUploader::Callback Completion() const;
    // Blocks until the upload ended or the wait was cancelled.
    Outcome Wait() const;
    void Cancel();

private:
    struct State
    {
        std::mutex mutex;
        std::condition_variable cv;
        bool done = false;
        bool cancelled = false;
        bool success = false;
    };
    const std::shared_ptr<State> m_state;
};

} // namespace vantor::common
