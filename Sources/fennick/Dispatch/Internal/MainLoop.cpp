#include "fennick/Dispatch/Internal/MainLoop.h"

#include <thread>

#include "fennick/Dispatch/Internal/CurrentQueue.h"
#include "fennick/Dispatch/Internal/Futex.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Internal/SerialQueue.h"

namespace fennick::dispatch::detail {

MainLoop::MainLoop() : QueueCore("fennick.main-loop", QOS_CLASS_USER_INTERACTIVE, QueueKind::MainLoop, nullptr) {}

MainLoop& MainLoop::shared() {
  // Immortal, like the worker pool: blocks may reach it while the process exits.
  static const Ref<MainLoop>* loop = new Ref<MainLoop>(std::make_shared<MainLoop>());
  return **loop;
}

const Ref<Queue>& MainLoop::mainQueue() {
  static const Ref<Queue>* queue = new Ref<Queue>(std::make_shared<SerialQueue>(
      "fennick.main", QOS_CLASS_USER_INTERACTIVE, shared().shared_from_this()));
  return *queue;
}

void MainLoop::enqueue(WorkItem* item, bool) {
  items_.push(item);
  size_.fetch_add(1, std::memory_order_seq_cst);
  signal_.fetch_add(1, std::memory_order_seq_cst);
  futexWake(signal_, 1);
  if (WakeHook hook = wakeHook_.load(std::memory_order_acquire)) hook();
}

bool MainLoop::runOne() noexcept {
  if (size_.load(std::memory_order_acquire) <= 0) return false;
  WorkItem* item = items_.pop();
  while (item == nullptr) {
    std::this_thread::yield();
    item = items_.pop();
  }
  size_.fetch_sub(1, std::memory_order_relaxed);
  FrameScope scope(this);
  runItem(item, this);
  return true;
}

void MainLoop::serveFromNestedLoop() noexcept {
  // The main queue's drains all run here, on the main thread: a drain that
  // is running now is on this very stack, below the nested loop.
  static_cast<SerialQueue&>(QueueCore::of(*mainQueue())).releaseRunningDrain();
}

void MainLoop::waitForWork(std::chrono::nanoseconds timeout) noexcept {
  const std::uint32_t seen = signal_.load(std::memory_order_seq_cst);
  if (size_.load(std::memory_order_seq_cst) > 0) return;
  futexWaitFor(signal_, seen, timeout);
}

}  // namespace fennick::dispatch::detail
