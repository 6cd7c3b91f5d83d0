#pragma once
// Groups: wait for, or be told about, the end of a set of tasks.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "fennick/Dispatch/Block.h"
#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Ref.h"
#include "fennick/Dispatch/Time.h"

namespace fennick::dispatch {

/// A counter of unfinished tasks. enter() adds one, leave() removes one; when
/// the count comes back to zero the group is "emptied": waiters return and the
/// blocks given to notify() are submitted to their queues.
class Group : public std::enable_shared_from_this<Group> {
  struct Private {};

 public:
  static Ref<Group> create();
  explicit Group(Private) {}
  Group(const Group&) = delete;
  Group& operator=(const Group&) = delete;

  /// One more unfinished task.
  void enter() noexcept;
  /// One task finished. More leaves than enters abort the process. The caller
  /// must hold a reference to the group until leave() returns: a waiter may
  /// free it as soon as the count reaches zero.
  void leave();
  /// Blocks until the group is emptied or `deadline` passes (FOREVER waits as
  /// long as it takes, NOW only looks). Returns true when the group emptied
  /// (or was empty), false on timeout.
  bool wait(Time deadline);
  /// Submits `block` to `queue` once the group is emptied; at once if it is
  /// empty now. Each block is submitted exactly once.
  void notify(const Ref<Queue>& queue, Block block);
  /// Submits `block` to `queue` as a task of this group.
  void async(const Ref<Queue>& queue, Block block);

 private:
  std::atomic<std::int64_t> count_{0};
  std::mutex mutex_;  // the last leave, waits and notifications meet here
  std::condition_variable emptied_;
  std::uint64_t emptyings_ = 0;
  std::vector<std::pair<Ref<Queue>, Block>> notifications_;
};

}  // namespace fennick::dispatch

// Also reachable from fennick, like the rest of the framework.
namespace fennick {
using dispatch::Group;
}  // namespace fennick
