#pragma once

#include <chrono>
#include <functional>

namespace vantor::test
{

// Polls condition every 20 ms until it holds or timeout has passed; answers
// whether it held. For tests that wait on another thread or process.
bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// Waits up to 15 s until condition holds, running nudge every half second
// meanwhile: the audit capture completes an event only once later records
// arrive, and an otherwise idle host may send none.
bool EventuallyWithTraffic(const std::function<bool()>& condition, const std::function<void()>& nudge);

} // namespace vantor::test
