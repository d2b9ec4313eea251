#pragma once

#include "common/WorkerThread.h"

#include <condition_variable>
#include <mutex>

namespace vantor::common
{

// Work that runs one execution at a time on a thread of its own. Stop()
// always waits for the current execution to finish; a derived class may
// supply OnCancel() to make that quicker and reads IsCancelling() inside its
// work to give up early. Derived classes Stop() in their own destructor, as
// the work uses their members.
//
// Launch, Stop and the state queries may be called from any thread.
class AsyncTask
{
public:
    enum class State
    {
        Idle = 0,
        Running = 1,
        Cancelling = 2
    };

    AsyncTask();
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
    // Last: joined before the state it reports to goes away.
    WorkerThread m_execution;
};

} // namespace vantor::common
