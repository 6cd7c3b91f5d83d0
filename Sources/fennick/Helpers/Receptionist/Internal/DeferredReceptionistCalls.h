#pragma once
#include <functional>
#include <vector>

namespace fennick::detail {

/// Calls that bookkeeping wants to make to subscribers (the synthetic first
/// call) are collected while the bookkeeping lock is held and made once it is
/// released, so that subscriber code never runs under the receptionist's lock.
class DeferredReceptionistCalls {
 public:
  DeferredReceptionistCalls();
  ~DeferredReceptionistCalls();
  DeferredReceptionistCalls(const DeferredReceptionistCalls&) = delete;
  DeferredReceptionistCalls& operator=(const DeferredReceptionistCalls&) = delete;
  /// Runs the collected calls, in order.
  void run();
  /// Collects the call when a collector is active on this thread, else makes it.
  static void call(std::function<void()> call);

 private:
  std::vector<std::function<void()>> calls_;
  DeferredReceptionistCalls* outer_;
};

}  // namespace fennick::detail
