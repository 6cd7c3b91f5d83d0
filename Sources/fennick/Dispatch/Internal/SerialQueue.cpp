#include "fennick/Dispatch/Internal/SerialQueue.h"

#include <thread>
#include <utility>

#include "fennick/Dispatch/Internal/Futex.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Internal/SyncRequest.h"

namespace fennick::dispatch::detail {

SerialQueue::SerialQueue(std::string label, qos_class_t qos, Ref<Queue> target, bool inactive)
    : QueueCore(std::move(label), qos, QueueKind::Serial, std::move(target)), suspension_(inactive) {
  drainItem_.kind = ItemKind::Drain;
  drainItem_.context = this;
}

SerialQueue::~SerialQueue() {
  // Only a suspended (or never activated) queue dies with work: it is
  // discarded. Sync callers hold a reference, so all of it is blocks.
  std::uint64_t left = pending_.load(std::memory_order_acquire);
  if (carried_ != nullptr) {
    WorkItem::discard(std::exchange(carried_, nullptr));
    --left;
  }
  for (; left > 0; --left) WorkItem::discard(popReady());
}

void SerialQueue::enqueue(WorkItem* item, bool wake) {
  items_.push(item);
  if (pending_.fetch_add(1, std::memory_order_acq_rel) == 0) start(wake);
}

void SerialQueue::start(bool wake) {
  if (suspension_.isSuspended() && suspension_.park()) return;
  schedule(wake);
}

void SerialQueue::resume() {
  if (suspension_.resume(label().c_str())) schedule(true);
}

void SerialQueue::activate() {
  if (suspension_.activate()) schedule(true);
}

void SerialQueue::schedule(bool wake) {
  keepAlive_ = shared_from_this();
  targetPointer()->enqueue(&drainItem_, wake);
}

void SerialQueue::drain(QueueCore* running) noexcept {
  ActiveDrain active{running};
  activeDrain_ = &active;
  // Read once: carried_ shares a cache line with the producers' counter.
  WorkItem* carried = std::exchange(carried_, nullptr);
  std::uint64_t known = pending_.load(std::memory_order_acquire);
  while (active.retired < kBatchLimit) {
    if (active.retired == known) {
      known = pending_.load(std::memory_order_acquire);
      if (known == active.retired) break;
    }
    if (suspension_.isSuspended()) {
      carried_ = carried;
      activeDrain_ = nullptr;
      pause(active.retired);
      return;
    }
    WorkItem* item = carried ? std::exchange(carried, nullptr) : popReady();
    ++active.retired;
    if (item->kind == ItemKind::SyncWaiter) {
      activeDrain_ = nullptr;
      handOff(*static_cast<SyncRequest*>(item->context), active.retired);
      return;
    }
    runItem(item, this);
    // Released from inside the item: the queue is no longer ours to touch.
    if (active.released) return;
  }
  activeDrain_ = nullptr;
  finishBatch(active.retired, running);
}

bool SerialQueue::releaseRunningDrain() noexcept {
  ActiveDrain* active = std::exchange(activeDrain_, nullptr);
  if (active == nullptr) return false;
  // Items run one at a time, so `carried` was used up before the item that
  // calls us: retiring what ran is all there is to settle.
  active->released = true;
  finishBatch(active->retired, active->running);
  return true;
}

void SerialQueue::finishBatch(std::uint64_t retired, QueueCore* running) noexcept {
  Ref<QueueCore> self = std::move(keepAlive_);
  if (pending_.fetch_sub(retired, std::memory_order_acq_rel) == retired) return;
  // Work is left: go to the back of the target so that its other queues get a
  // turn. The thread running us continues with the queue the item reaches, so
  // nobody needs waking, unless a retargeting sent it elsewhere.
  keepAlive_ = std::move(self);
  QueueCore* target = targetPointer();
  bool continued = false;
  for (QueueCore* queue = target; queue != nullptr && !continued; queue = queue->targetPointer()) {
    continued = queue == running;
  }
  target->enqueue(&drainItem_, !continued);
}

void SerialQueue::pause(std::uint64_t retired) noexcept {
  Ref<QueueCore> self = std::move(keepAlive_);
  if (pending_.fetch_sub(retired, std::memory_order_acq_rel) == retired) return;
  if (suspension_.park()) return;
  // Resumed while we stopped: carry on with a fresh batch.
  keepAlive_ = std::move(self);
  targetPointer()->enqueue(&drainItem_, true);
}

void SerialQueue::handOff(SyncRequest& request, std::uint64_t retired) noexcept {
  // The waiter's own item stays counted: it stands for the new owner.
  if (retired > 1) pending_.fetch_sub(retired - 1, std::memory_order_acq_rel);
  Ref<QueueCore> self = std::move(keepAlive_);
  request.waiter.signal();
}

WorkItem* SerialQueue::popReady() noexcept {
  // The item is counted, so it is in the list or about to be linked.
  for (unsigned spins = 0;; ++spins) {
    if (WorkItem* item = items_.pop()) return item;
    if (spins < 128) {
      cpuRelax();
    } else {
      std::this_thread::yield();
    }
  }
}

bool SerialQueue::tryAcquire() noexcept {
  if (suspension_.isSuspended()) return false;
  std::uint64_t idle = 0;
  return pending_.compare_exchange_strong(idle, 1, std::memory_order_acquire,
                                          std::memory_order_relaxed);
}

void SerialQueue::acquire(SyncRequest& request) noexcept {
  request.waiter.reset();
  enqueue(&request.item, true);
  request.waiter.wait();
}

void SerialQueue::release() noexcept {
  if (pending_.fetch_sub(1, std::memory_order_acq_rel) == 1) return;
  if (suspension_.isSuspended() && suspension_.park()) return;
  // Others are queued and the queue is still ours until we pass it on. A sync
  // waiter at the head takes it directly, so that waiting syncs never need a
  // free worker (every worker may be blocked on something the waiter holds).
  // Other work goes to a drain on the target, starting with the item taken.
  WorkItem* next = popReady();
  if (next->kind == ItemKind::SyncWaiter) {
    handOff(*static_cast<SyncRequest*>(next->context), 1);
    return;
  }
  carried_ = next;
  schedule(true);
}

}  // namespace fennick::dispatch::detail
