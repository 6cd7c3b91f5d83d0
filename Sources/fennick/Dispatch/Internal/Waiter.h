#pragma once
// A one-shot wake-up for a thread that waits on another (sync hand-off, remote
// execution). The waiter spins briefly, then sleeps on a futex; the signaller
// pays a system call only when the waiter really went to sleep.
#include <atomic>
#include <cstdint>

namespace fennick::dispatch::detail {

class Waiter {
 public:
  /// Returns once signal() was called. On a pool thread, the pool is told that
  /// this worker blocks.
  void wait() noexcept;
  /// Wakes the waiter. After this call the Waiter may already be destroyed.
  void signal() noexcept;
  /// Makes the waiter usable again.
  void reset() noexcept { state_.store(kWaiting, std::memory_order_relaxed); }

 private:
  static constexpr std::uint32_t kWaiting = 0;
  static constexpr std::uint32_t kSignalled = 1;
  static constexpr std::uint32_t kSleeping = 2;
  std::atomic<std::uint32_t> state_{kWaiting};
};

}  // namespace fennick::dispatch::detail
