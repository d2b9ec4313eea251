#pragma once

#include <condition_variable>
#include <future>
#include <mutex>

namespace vantor::common
{

// Work that runs one execution at a time on an asynchronous launch. Stop()
// always waits for the current execution to finish; a derived class may
// supply OnCancel() to make that quicker and reads IsCancelling() inside its
// work to give up early.
class AsyncTask
{
public:
    enum class State
    {
        Idle = 0,
        Running = 1,
        Cancelling = 2
    };

    AsyncTask() = default;
    virtual ~AsyncTask();

    AsyncTask(const AsyncTask&) = delete;
    AsyncTask& operator=(const AsyncTask&) = delete;

    // Starts one execution unless one is under way; answers whether it did.
    bool Launch();
    void Stop();

    State GetState() const;
    bool IsCancelling() const;

protected:
    virtual void DoWork() = 0;
    virtual void OnCancel() {}

private:
    void OnExecute();

    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    State m_state = State::Idle;
    std::future<void> m_future;
};

} // namespace vantor::common
