#pragma once
// The node that carries work through queues. Items of asynchronous blocks come
// from a per-thread cache and are recycled after they run; sync callers and
// serial queues keep their items inside themselves, so they never allocate.
#include <atomic>
#include <cstdint>

#include "fennick/Dispatch/Block.h"
#include "fennick/Dispatch/Ref.h"

namespace fennick::dispatch {
class Group;
}

namespace fennick::dispatch::detail {
class QueueCore;
}

namespace fennick::dispatch::detail {

enum class ItemKind : std::uint8_t {
  Block,        // run `block`
  Drain,        // drain the serial queue in `context`, which targets the running queue
  SyncWaiter,   // a sync caller (context: SyncRequest*) waiting to own a serial queue
  SyncExecute,  // run a sync caller's function here (context: SyncRequest*), then wake it
};

struct WorkItem {
  std::atomic<WorkItem*> next{nullptr};
  ItemKind kind = ItemKind::Block;
  // A barrier block of a concurrent queue: it runs alone on that queue.
  bool barrier = false;
  void* context = nullptr;
  // Set when a concurrent queue forwards the item to its target: the queues from
  // `origin` up to the running one are current while the item runs.
  Ref<QueueCore> origin;
  // Left once the block has run: a group's task costs no wrapper around the
  // block (which would not fit inline and would be boxed on the heap).
  Ref<Group> group;
  Block block;

  /// An empty Block item.
  static WorkItem* allocate();
  /// Returns an item whose block and origin are empty to the cache.
  static void recycle(WorkItem* item) noexcept;
  /// Drops a Block item that will never run; other kinds are left alone.
  static void discard(WorkItem* item) noexcept;
};

}  // namespace fennick::dispatch::detail
