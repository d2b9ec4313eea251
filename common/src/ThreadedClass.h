#pragma once

#include "common/WorkerThread.h"

#include <atomic>
#include <mutex>
#include <string>

namespace vantor::common
{

// Base of objects that own exactly one worker thread. The worker runs Run()
// until it returns; Stop() raises the stopping flag, lets the derived class
// wake its worker (OnStop) and waits for it. Exceptions never leave the
// worker: they are logged. Derived classes stop the worker in their own
// destructor, as it uses their members.
//
// Start, Stop and IsRunning may be called from any thread but the worker.
class ThreadedClass
{
public:
    explicit ThreadedClass(std::string name);
    virtual ~ThreadedClass();

    ThreadedClass(const ThreadedClass&) = delete;
    ThreadedClass& operator=(const ThreadedClass&) = delete;

    void Start();
    void Stop();

    bool IsRunning() const;
    const std::string& Name() const { return m_thread.Name(); }

protected:
    virtual void Run() = 0;
    // Called by Stop() after the stopping flag is set; wakes a blocked worker.
    virtual void OnStop() {}

    bool IsStopping() const { return m_stopping.load(std::memory_order_acquire); }
    // Whether the caller runs on the worker.
    bool IsWorkerThread() const { return m_thread.IsCurrent(); }

private:
    mutable std::mutex m_mutex;
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_running{false};
    // Last: joined before the flags it reads go away.
    WorkerThread m_thread;
};

} // namespace vantor::common
