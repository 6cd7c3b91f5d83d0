#pragma once
// The suspend count of a queue, and the hand-over of the queue between the
// owner that stops because it finds the queue suspended and the resume() that
// ends the suspension.
//
// An owner that meets a suspension parks the queue: it sets `parked_` and then
// looks at the count again. A resume that brings the count to zero takes the
// parked queue over and restarts it. Both sides write first and read second
// (sequentially consistent), so either the owner sees the resume and goes on,
// or the resume sees the parked queue: work is never left behind.
#include <atomic>
#include <cstdint>

#include "fennick/Dispatch/Internal/QueueAccess.h"

namespace fennick::dispatch::detail {

class Suspension {
 public:
  /// An inactive queue starts suspended once, and activate() ends that.
  explicit Suspension(bool inactive) noexcept : count_(inactive ? 1 : 0), inactive_(inactive) {}

  bool isSuspended() const noexcept { return count_.load(std::memory_order_acquire) != 0; }

  void suspend() noexcept { count_.fetch_add(1, std::memory_order_seq_cst); }

  /// True when the caller took over a parked queue and must restart it.
  /// Aborts when there is no suspend() to undo.
  bool resume(const char* label) noexcept {
    std::uint32_t count = count_.load(std::memory_order_seq_cst);
    do {
      if (count <= (inactive_.load(std::memory_order_acquire) ? 1u : 0u)) {
        fail("resume() without a matching suspend() on queue", label);
      }
    } while (!count_.compare_exchange_weak(count, count - 1, std::memory_order_seq_cst));
    return count == 1 && takeOver();
  }

  /// Ends the initial suspension of an inactive queue; later calls do nothing.
  /// True as for resume().
  bool activate() noexcept {
    if (!inactive_.exchange(false, std::memory_order_acq_rel)) return false;
    return count_.fetch_sub(1, std::memory_order_seq_cst) == 1 && takeOver();
  }

  bool isInactive() const noexcept { return inactive_.load(std::memory_order_acquire); }

  /// Called by the owner of a suspended queue that still has work. True when
  /// the queue is parked (the owner leaves it); false when a resume came in
  /// between and the owner carries on.
  bool park() noexcept {
    parked_.store(true, std::memory_order_seq_cst);
    if (count_.load(std::memory_order_seq_cst) != 0) return true;
    bool expected = true;
    return !parked_.compare_exchange_strong(expected, false, std::memory_order_seq_cst);
  }

 private:
  bool takeOver() noexcept { return parked_.exchange(false, std::memory_order_seq_cst); }

  std::atomic<std::uint32_t> count_;
  std::atomic<bool> inactive_;
  std::atomic<bool> parked_{false};
};

}  // namespace fennick::dispatch::detail
