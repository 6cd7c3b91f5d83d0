#pragma once
// One-time initialisation.
#include <atomic>
#include <cstdint>
#include <functional>
#include <type_traits>

namespace fennick::dispatch {

class OnceFlag;

namespace detail {
void runOnce(std::atomic<std::uint32_t>& state, void (*function)(void*), void* context);
}

/// The state of one once() site; usually a static. Constant-initialised.
class OnceFlag {
 public:
  constexpr OnceFlag() noexcept = default;
  OnceFlag(const OnceFlag&) = delete;
  OnceFlag& operator=(const OnceFlag&) = delete;

 private:
  template <class F>
  friend void once(OnceFlag& flag, F&& function);

  static constexpr std::uint32_t kDone = 3;
  std::atomic<std::uint32_t> state_{0};
};

/// Runs `function` once per flag in the life of the process. Concurrent
/// callers wait until it has returned; later callers return at once, seeing
/// everything it did. If it throws, the exception reaches its caller and a
/// later call tries again. Calling once() on the same flag from inside the
/// function aborts (it would wait for itself).
template <class F>
void once(OnceFlag& flag, F&& function) {
  if (flag.state_.load(std::memory_order_acquire) == OnceFlag::kDone) return;
  using Function = std::remove_reference_t<F>;
  detail::runOnce(
      flag.state_, [](void* context) { std::invoke(*static_cast<Function*>(context)); },
      const_cast<void*>(static_cast<const void*>(std::addressof(function))));
}

}  // namespace fennick::dispatch

// Also reachable from fennick, like the rest of the framework.
namespace fennick {
using dispatch::OnceFlag;
using dispatch::once;
}  // namespace fennick
