#pragma once

#include "common/ThreadedClass.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace vantor::common
{

// A thread of its own that runs queued tasks one at a time, in order. A
// timed task runs once its time has come, after the tasks queued before
// it. A task that throws is logged as name + ": Task failed: " + its text
// and the queue goes on.
//
// Shutdown (also on destruction) runs the tasks already queued, since a
// caller told that its work is queued must not lose it, drops the timed
// ones and refuses every later task.
//
// All operations may be called from any thread, the tasks included (except
// Shutdown, which waits for the queue's thread).
class TaskQueue : private ThreadedClass
{
public:
    using Task = std::function<void()>;
    using SteadyClock = std::chrono::steady_clock;

    // Starts the thread.
    explicit TaskQueue(std::string name);
    ~TaskQueue() override;

    // Answers false once the queue has been shut down. An empty task throws
    // std::invalid_argument.
    bool Post(Task task);
    bool PostAt(SteadyClock::time_point when, Task task);

    void Shutdown();

private:
    void Run() override;
    void OnStop() override;
    void RequireTask(const Task& task) const;
    // Runs enqueue under the lock unless the queue is shut down; enqueue
    // answers whether the thread needs a signal.
    template <typename Enqueue>
    bool Accept(Enqueue enqueue);

    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<Task> m_tasks;
    std::multimap<SteadyClock::time_point, Task> m_timed;
    bool m_accepting = true;
};

} // namespace vantor::common
