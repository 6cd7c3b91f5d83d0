#include "fennick/Dispatch/Once.h"

#include "fennick/Dispatch/Blocking.h"
#include "fennick/Dispatch/Internal/Futex.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"

namespace fennick::dispatch::detail {
namespace {

constexpr std::uint32_t kIdle = 0;
constexpr std::uint32_t kRunning = 1;
constexpr std::uint32_t kRunningWithWaiters = 2;
constexpr std::uint32_t kDone = 3;

// The flags whose function runs on this thread, to catch re-entry.
struct Running {
  const std::atomic<std::uint32_t>* state;
  Running* previous;
};
thread_local Running* running = nullptr;

bool runsOnThisThread(const std::atomic<std::uint32_t>& state) {
  for (const Running* entry = running; entry != nullptr; entry = entry->previous) {
    if (entry->state == &state) return true;
  }
  return false;
}

void finish(std::atomic<std::uint32_t>& state, std::uint32_t outcome) {
  if (state.exchange(outcome, std::memory_order_acq_rel) == kRunningWithWaiters) {
    futexWake(state, INT32_MAX);
  }
}

}  // namespace

void runOnce(std::atomic<std::uint32_t>& state, void (*function)(void*), void* context) {
  for (;;) {
    std::uint32_t observed = kIdle;
    if (state.compare_exchange_strong(observed, kRunning, std::memory_order_acquire)) {
      Running entry{&state, running};
      running = &entry;
      try {
        function(context);
      } catch (...) {
        running = entry.previous;
        finish(state, kIdle);
        throw;
      }
      running = entry.previous;
      finish(state, kDone);
      return;
    }
    if (observed == kDone) return;
    if (runsOnThisThread(state)) fail("once() called again from its own function");
    BlockingScope blocking;
    while (observed == kRunning || observed == kRunningWithWaiters) {
      if (observed == kRunning &&
          !state.compare_exchange_strong(observed, kRunningWithWaiters, std::memory_order_acquire)) {
        continue;
      }
      futexWait(state, kRunningWithWaiters);
      observed = state.load(std::memory_order_acquire);
    }
    if (observed == kDone) return;
    // The function threw: try again.
  }
}

}  // namespace fennick::dispatch::detail
