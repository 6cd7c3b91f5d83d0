#pragma once
// The hidden root of the main queue: its items run on the process's main
// thread, inside dispatch::main(), runMainQueueUntil() or GLib's main loop.
// runOne() may be re-entered from inside an item: see serveFromNestedLoop().
#include <atomic>
#include <chrono>
#include <cstdint>

#include "fennick/Dispatch/Internal/MpscQueue.h"
#include "fennick/Dispatch/Internal/WorkItem.h"
#include "fennick/Dispatch/Internal/QueueCore.h"

namespace fennick::dispatch::detail {

class MainLoop final : public QueueCore {
 public:
  MainLoop();

  /// The one loop (immortal) and the main queue that drains on it.
  static MainLoop& shared();
  static const Ref<Queue>& mainQueue();

  /// Main thread: runs one waiting item; false when none is waiting.
  bool runOne() noexcept;
  /// Main thread: sleeps until an item arrives or `timeout` passes.
  void waitForWork(std::chrono::nanoseconds timeout) noexcept;
  /// Main thread, before it serves the main queue from a loop that may have
  /// been started by a block of that queue (a modal dialog's nested loop, a
  /// nested runMainQueueUntil): the drain running that block lets the queue
  /// go, so that the blocks behind it run inside the nested loop, one at a
  /// time and in order, while the block that started the loop stays
  /// suspended on the stack. Queues that target the main queue stay serial:
  /// one whose block is suspended runs nothing else until that block
  /// returns. Nothing happens when no block of the main queue is running.
  void serveFromNestedLoop() noexcept;

  /// Items waiting to run (drains of queues targeting the main queue).
  std::int64_t pendingCount() const noexcept { return size_.load(std::memory_order_acquire); }
  /// An outside event loop that serves the main queue (GLib's) installs a
  /// function here; every arriving item calls it on the submitting thread.
  using WakeHook = void (*)();
  void setWakeHook(WakeHook hook) noexcept { wakeHook_.store(hook, std::memory_order_release); }

  void enqueue(WorkItem* item, bool wake) override;

 private:
  MpscQueue<WorkItem> items_;
  std::atomic<std::int64_t> size_{0};
  std::atomic<std::uint32_t> signal_{0};
  std::atomic<WakeHook> wakeHook_{nullptr};
};

}  // namespace fennick::dispatch::detail
