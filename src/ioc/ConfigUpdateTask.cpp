#include "ioc/ConfigUpdateTask.h"

#include "common/Logging.h"

#include <thread>

namespace vantor::ioc::internal
{

ConfigUpdateTask::~ConfigUpdateTask()
{
    Stop();
}

void ConfigUpdateTask::Submit(Update update)
{
    {
        std::lock_guard lock(m_mutex);
        m_pending.push_back(std::move(update));
        if (m_draining)
        {
            return;
        }
        m_draining = true;
    }
    // The previous execution has already seen an empty queue and is only
    // leaving; it is idle in a moment.
    while (!Launch())
    {
        std::this_thread::yield();
    }
}

void ConfigUpdateTask::DoWork()
{
    for (;;)
    {
        Update update;
        {
            std::lock_guard lock(m_mutex);
            if (m_pending.empty() || IsCancelling())
            {
                if (!m_pending.empty())
                {
                    EDR_LOG_WARNING("Ioc::Component: Dropping " << m_pending.size()
                                                                << " configuration updates at shutdown");
                    m_pending.clear();
                }
                m_draining = false;
                return;
            }
            update = std::move(m_pending.front());
            m_pending.pop_front();
        }
        try
        {
            update();
        }
        catch (const std::exception& e)
        {
            EDR_LOG_ERROR("Ioc::Component: Failed to update configuration: " << e.what());
        }
    }
}

} // namespace vantor::ioc::internal
