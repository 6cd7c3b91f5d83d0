#pragma once
// The hidden root of the main queue: its items run on the process's main
// thread, inside dispatch::main() or runMainQueueUntil().
#include <atomic>
#include <chrono>
#include <cstdint>

#include "fennick/Dispatch/Internal/MpscQueue.h"
#include "fennick/Dispatch/Internal/WorkItem.h"
#include "fennick/Dispatch/Internal/QueueCore.h"

namespace fennick::dispatch::internal {

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

}  // namespace fennick::dispatch::internal
