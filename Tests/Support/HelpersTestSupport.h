#pragma once
// Waiting helpers for tests of asynchronous helpers: bounded, so that a lost
// callback fails the test instead of hanging it.
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace fennick::testing {

/// Polls `done` until it holds or `timeout` passes; returns whether it held.
inline bool eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

/// Counts signals and lets a test wait for a number of them.
class Latch {
 public:
  void signal() {
    std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  bool waitFor(int count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return count_ >= count; });
  }
  int count() {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

}  // namespace fennick::testing
