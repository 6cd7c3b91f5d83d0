#include "fennick/Dispatch/Group.h"

#include "fennick/Dispatch/Blocking.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"

namespace fennick::dispatch {

Ref<Group> Group::create() { return std::make_shared<Group>(Private{}); }

void Group::enter() noexcept { count_.fetch_add(1, std::memory_order_acq_rel); }

void Group::leave() {
  // Leaves that cannot empty the group stay off the lock.
  std::int64_t count = count_.load(std::memory_order_acquire);
  while (count > 1) {
    if (count_.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) return;
  }
  std::vector<std::pair<Ref<Queue>, Block>> due;
  {
    std::lock_guard lock(mutex_);
    const std::int64_t left = count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left < 0) detail::fail("Group::leave() without a matching enter()");
    if (left > 0) return;
    ++emptyings_;
    due.swap(notifications_);
  }
  emptied_.notify_all();
  for (auto& [queue, block] : due) queue->async(std::move(block));
}

bool Group::wait(Time deadline) {
  if (count_.load(std::memory_order_acquire) == 0) return true;
  if (deadline.isNow()) return false;
  BlockingScope blocking;
  std::unique_lock lock(mutex_);
  const std::uint64_t seen = emptyings_;
  const auto emptied = [&] {
    return emptyings_ != seen || count_.load(std::memory_order_acquire) == 0;
  };
  if (deadline.isForever()) {
    emptied_.wait(lock, emptied);
    return true;
  }
  if (deadline.isWallClock()) return emptied_.wait_until(lock, deadline.toSystem(), emptied);
  return emptied_.wait_until(lock, deadline.toSteady(), emptied);
}

void Group::notify(const Ref<Queue>& queue, Block block) {
  {
    std::lock_guard lock(mutex_);
    if (count_.load(std::memory_order_acquire) != 0) {
      notifications_.emplace_back(queue, std::move(block));
      return;
    }
  }
  queue->async(std::move(block));
}

void Group::async(const Ref<Queue>& queue, Block block) {
  enter();
  detail::asyncInGroup(*queue, std::move(block), shared_from_this());
}

}  // namespace fennick::dispatch
