#include "fennick/Dispatch/Internal/Waiter.h"

#include "fennick/Dispatch/Blocking.h"
#include "fennick/Dispatch/Internal/Futex.h"

namespace fennick::dispatch::detail {

void Waiter::wait() noexcept {
  // A hand-off often follows within microseconds: try before sleeping.
  for (int spin = 0; spin < 256; ++spin) {
    if (state_.load(std::memory_order_acquire) == kSignalled) return;
    cpuRelax();
  }
  BlockingScope blocking;
  std::uint32_t expected = kWaiting;
  if (!state_.compare_exchange_strong(expected, kSleeping, std::memory_order_acquire)) return;
  while (state_.load(std::memory_order_acquire) != kSignalled) futexWait(state_, kSleeping);
}

void Waiter::signal() noexcept {
  if (state_.exchange(kSignalled, std::memory_order_acq_rel) == kSleeping) futexWake(state_, 1);
}

}  // namespace fennick::dispatch::detail
