// Waits for a condition that another thread or process makes true, polling every 5 ms;
// the limit only guards against a hang and is no measure of anything.
//
//   ASSERT_TRUE(tuqvutest::eventually([&] { return server.answers(); }));
#pragma once

#include <chrono>
#include <thread>

namespace tuqvutest {

template <typename Condition>
bool eventually(Condition condition,
                std::chrono::milliseconds limit = std::chrono::milliseconds(20000)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace tuqvutest
