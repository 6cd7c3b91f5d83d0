#pragma once
// The engine's view of a Queue's protected parts.
#include "fennick/Dispatch/Queue.h"

namespace fennick::dispatch::internal {

struct QueueAccess {
  using Kind = Queue::Kind;

  static Kind kind(const Queue& queue) noexcept { return queue.kind(); }
  static bool isRoot(const Queue& queue) noexcept {
    return queue.kind() == Kind::Global || queue.kind() == Kind::MainLoop;
  }
  static Queue* target(const Queue& queue) noexcept { return queue.targetPointer(); }
  static void enqueue(Queue& queue, WorkItem* item, bool wake) { queue.enqueue(item, wake); }
};

/// Runs one item that `running` took from its queue, with the right queues
/// current. Exceptions escaping a block end the process, as they would on a
/// thread of its own.
void runItem(WorkItem* item, Queue* running) noexcept;

/// Aborts with "fennick dispatch: <message>" on standard error.
[[noreturn]] void fail(const char* message, const char* label = nullptr) noexcept;

}  // namespace fennick::dispatch::internal
