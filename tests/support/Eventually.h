#pragma once

#include <chrono>
#include <functional>

namespace vantor::test
{

// Polls condition every 20 ms until it holds or timeout has passed; answers
// whether it held. For tests that wait on another thread or process.
bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

} // namespace vantor::test
