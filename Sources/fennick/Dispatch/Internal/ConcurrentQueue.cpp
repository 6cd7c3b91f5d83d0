#include "fennick/Dispatch/Internal/ConcurrentQueue.h"

#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Internal/SyncRequest.h"
#include "fennick/Dispatch/Internal/WorkItem.h"

namespace fennick::dispatch::detail {

ConcurrentQueue::ConcurrentQueue(std::string label, qos_class_t qos, Ref<Queue> target, bool inactive)
    : QueueCore(std::move(label), qos, QueueKind::Concurrent, std::move(target)),
      state_(inactive ? kHeld : 0),
      suspended_(inactive ? 1 : 0),
      inactive_(inactive) {}

ConcurrentQueue::~ConcurrentQueue() {
  // Work held back by a suspension that was never lifted is discarded.
  for (const Waiting& waiting : waiting_) {
    if (waiting.item != nullptr) WorkItem::discard(waiting.item);
  }
}

bool ConcurrentQueue::tryCount() noexcept {
  std::uint64_t state = state_.load(std::memory_order_relaxed);
  while ((state & kHeld) == 0) {
    if (state_.compare_exchange_weak(state, state + 1, std::memory_order_acq_rel)) return true;
  }
  return false;
}

void ConcurrentQueue::forward(WorkItem* item, bool wake) {
  // The reference keeps this queue alive until the item ran, and tells the
  // runner whom to report to. An item that came through another concurrent
  // queue already reports there.
  if (!item->origin) item->origin = shared_from_this();
  targetPointer()->enqueue(item, wake);
}

void ConcurrentQueue::enqueue(WorkItem* item, bool wake) {
  if (item->origin) {
    targetPointer()->enqueue(item, wake);  // counted by the queue it entered
    return;
  }
  if (tryCount()) {
    forward(item, wake);
    return;
  }
  std::lock_guard lock(mutex_);
  waiting_.push_back({item, nullptr, item->barrier});
  pumpLocked();
}

void ConcurrentQueue::enqueueBarrier(WorkItem* item) {
  item->barrier = true;
  std::lock_guard lock(mutex_);
  state_.fetch_or(kHeld, std::memory_order_acq_rel);
  waiting_.push_back({item, nullptr, true});
  pumpLocked();
}

void ConcurrentQueue::enter(SyncRequest& request, bool barrier, bool reentrant) {
  if (!barrier) {
    if (reentrant) {
      state_.fetch_add(1, std::memory_order_acq_rel);
      return;
    }
    if (tryCount()) return;
  }
  request.waiter.reset();
  {
    std::lock_guard lock(mutex_);
    if (barrier) state_.fetch_or(kHeld, std::memory_order_acq_rel);
    waiting_.push_back({nullptr, &request, barrier});
    pumpLocked();
  }
  request.waiter.wait();
}

void ConcurrentQueue::finished(bool barrier) noexcept {
  if (!barrier) {
    const std::uint64_t before = state_.fetch_sub(1, std::memory_order_acq_rel);
    // Only the last item out can let a waiting barrier in.
    if ((before & kHeld) == 0 || (before & ~kHeld) != 1) return;
  }
  std::lock_guard lock(mutex_);
  if (barrier) {
    barrierRunning_ = false;
    state_.fetch_sub(1, std::memory_order_acq_rel);
  }
  pumpLocked();
}

void ConcurrentQueue::suspend() {
  std::lock_guard lock(mutex_);
  ++suspended_;
  state_.fetch_or(kHeld, std::memory_order_acq_rel);
}

void ConcurrentQueue::resume() {
  std::lock_guard lock(mutex_);
  if (suspended_ <= (inactive_ ? 1 : 0)) fail("resume() without a matching suspend() on queue", label().c_str());
  --suspended_;
  pumpLocked();
}

void ConcurrentQueue::activate() {
  std::lock_guard lock(mutex_);
  if (!inactive_) return;
  inactive_ = false;
  --suspended_;
  pumpLocked();
}

// Lets waiting work go in order while nothing holds it back. Items are
// forwarded under the lock so that they reach the target in their order.
void ConcurrentQueue::pumpLocked() {
  while (!waiting_.empty() && suspended_ == 0 && !barrierRunning_) {
    const Waiting next = waiting_.front();
    if (next.barrier) {
      if ((state_.load(std::memory_order_acquire) & ~kHeld) != 0) return;
      barrierRunning_ = true;
    }
    waiting_.pop_front();
    state_.fetch_add(1, std::memory_order_acq_rel);
    releaseLocked(next);
  }
  if (waiting_.empty() && suspended_ == 0 && !barrierRunning_) {
    state_.fetch_and(~kHeld, std::memory_order_acq_rel);
  }
}

void ConcurrentQueue::releaseLocked(const Waiting& waiting) {
  if (waiting.request != nullptr) {
    waiting.request->waiter.signal();
  } else {
    forward(waiting.item, true);
  }
}

}  // namespace fennick::dispatch::detail
