#include "tests/support/Eventually.h"

#include <thread>

namespace vantor::test
{

bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

bool EventuallyWithTraffic(const std::function<bool()>& condition, const std::function<void()>& nudge)
{
    for (int i = 0; i < 30; ++i)
    {
        if (Eventually(condition, std::chrono::milliseconds(500)))
        {
            return true;
        }
        nudge();
    }
    return condition();
}

} // namespace vantor::test
