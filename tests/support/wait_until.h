// Polling for a condition that another thread or process makes true.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kavo::test {

// True as soon as `condition` holds; false if it still does not after
// `timeout`. The condition is asked once more at the deadline, so a slow
// poll never loses the last chance.
inline bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = std::chrono::seconds(5),
                      std::chrono::milliseconds poll = std::chrono::milliseconds(10)) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(poll);
  }
  return true;
}

}  // namespace kavo::test
