#pragma once
// Helpers shared by the dispatch tests.
#include <chrono>
#include <thread>

namespace fennick::dispatch::testing {

/// Polls `done` until it holds; false after `timeout`. For conditions that other
/// threads make true, where the test has no event to wait on.
template <class Predicate>
bool eventually(Predicate done, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace fennick::dispatch::testing
