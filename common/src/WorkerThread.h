#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace vantor::common
{

// Owns at most one thread: Start runs a body on a new thread, Join waits for
// it to end. An exception that leaves the body is logged as "Uncaught
// exception in " + name + ". Exception:" + its text and never reaches the
// owner or ends the process. The destructor joins, so the thread never
// outlives its owner; the body must therefore end once the owner asks it to.
// (An owner destroyed by its own thread cannot wait for itself: that thread
// is let go to finish on its own.)
//
// Start and Join belong to the owner (one thread at a time); IsCurrent may
// be asked from any thread. Joining from the owned thread itself would wait
// for ever and throws std::logic_error instead.
class WorkerThread
{
public:
    explicit WorkerThread(std::string name);
    ~WorkerThread();

    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // Collects a thread that is still owned first: a caller restarts only
    // a thread that has ended or is about to.
    void Start(std::function<void()> body);
    // Returns at once when no thread is owned.
    void Join();

    // Whether a thread was started and not yet joined (it may have ended).
    bool Joinable() const { return m_thread.joinable(); }
    // Whether the caller runs on the owned thread's body.
    bool IsCurrent() const;
    const std::string& Name() const { return m_shared->name; }

private:
    // What the thread reads: shared, so that a thread let go never reads a
    // destroyed owner.
    struct Shared
    {
        std::string name;
        std::atomic<std::thread::id> id{};
        // Set once Start has stored the thread: a body that destroys its
        // owner must not run before the owner is done with it.
        std::atomic<bool> started{false};
    };

    static void Run(Shared& shared, const std::function<void()>& body) noexcept;

    std::shared_ptr<Shared> m_shared;
    std::thread m_thread;
};

} // namespace vantor::common
