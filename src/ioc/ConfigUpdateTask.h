#pragma once

#include "common/AsyncTask.h"

#include <deque>
#include <functional>
#include <mutex>

namespace vantor::ioc::internal
{

// Applies configuration updates one after the other, in the order they were
// submitted, on an asynchronous launch: the caller (the daemon's main
// thread, holding its own lock) never waits for manifests to be read or
// kernel rules to be installed.
//
// Stop() waits for the update being applied and drops those still waiting
// (logged). Submit may be called from any thread.
class ConfigUpdateTask : public common::AsyncTask
{
public:
    using Update = std::function<void()>;

    ConfigUpdateTask() = default;
    ~ConfigUpdateTask() override;

    // Queues one update; an exception it throws is logged.
    void Submit(Update update);

protected:
    void DoWork() override;

private:
    std::mutex m_mutex;
    std::deque<Update> m_pending;
    // An execution has been launched that looks at m_pending again before it
    // ends; a submission then needs no launch of its own.
    bool m_draining = false;
};

} // namespace vantor::ioc::internal
