#pragma once

#include <atomic>
#include <future>
#include <mutex>
#include <string>

namespace vantor::common
{

// Base of objects that own exactly one worker thread. The worker runs Run()
// until it returns; Stop() raises the stopping flag, lets the derived class
// wake its worker (OnStop) and waits for it. Exceptions never leave the
// worker: they are logged.
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
    const std::string& Name() const { return m_name; }

protected:
    virtual void Run() = 0;
    // Called by Stop() after the stopping flag is set; wakes a blocked worker.
    virtual void OnStop() {}

    bool IsStopping() const { return m_stopping.load(std::memory_order_acquire); }

private:
    void Worker();

    const std::string m_name;
    mutable std::mutex m_mutex;
    std::future<void> m_future;
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_running{false};
};

} // namespace vantor::common
