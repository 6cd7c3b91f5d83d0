#pragma once
// The one pool of worker threads behind the global queues.
//
// About as many workers run as there are cores. A worker that blocks (in a
// sync wait, a group wait, a BlockingScope) stops counting, so the pool may
// start another one, up to kMaxThreads. Workers with nothing to do spin for a
// moment, then park on a futex and retire after kIdleTimeout.
//
// Waking is frugal: a producer wakes a parked worker only when no worker is
// already searching for work and fewer than the core count are running; a
// worker that finds work while it was the last searcher passes the search on.
// The waker claims the sleeper (idle_ down, a token up), so a burst of
// submissions costs one wake-up, not one per item.
#include <atomic>
#include <chrono>
#include <cstdint>

#include "fennick/Dispatch/Internal/MpscQueue.h"
#include "fennick/Dispatch/Internal/WorkItem.h"
#include "fennick/Dispatch/QoS.h"
#include "fennick/Dispatch/Ref.h"

namespace fennick::dispatch {
class Queue;
}

namespace fennick::dispatch::internal {

class WorkerPool {
 public:
  static constexpr int kClassCount = 5;
  static constexpr int kMaxThreads = 255;
  static constexpr std::chrono::seconds kIdleTimeout{5};

  /// Immortal: the pool outlives static destruction, so late work is safe.
  static WorkerPool& shared();

  /// The pool index of a class (higher runs first); -1 for unknown values.
  static int indexOf(qos_class_t qos) noexcept;
  const Ref<Queue>& globalQueue(int index) const noexcept { return roots_[index].queue; }

  void push(int index, WorkItem* item, bool wake);

  /// Bracket a blocking wait on a pool thread (see BlockingScope).
  void willBlock() noexcept;
  void didUnblock() noexcept;
  static bool onWorkerThread() noexcept;

  /// Current number of pool threads, for tests and diagnostics.
  int threadCount() const noexcept { return threads_.load(std::memory_order_relaxed); }

 private:
  WorkerPool();

  struct alignas(64) Root {
    MpscQueue<WorkItem> items;
    alignas(64) std::atomic<std::int64_t> size{0};
    std::atomic<bool> popping{false};
    Ref<Queue> queue;
  };

  void notifyWork() noexcept;
  void spawnWorker() noexcept;
  void workerMain() noexcept;
  WorkItem* tryPop(int& index) noexcept;
  WorkItem* search(int& index) noexcept;
  bool hasQueuedWork() const noexcept;
  bool park() noexcept;
  bool leaveIdle() noexcept;
  void run(WorkItem* item, int index) noexcept;

  Root roots_[kClassCount];
  const int maxRunning_;
  alignas(64) std::atomic<int> running_{0};    // workers neither parked nor blocked
  alignas(64) std::atomic<int> searching_{0};  // running workers looking for work
  alignas(64) std::atomic<int> idle_{0};       // parked workers nobody has claimed
  alignas(64) std::atomic<std::uint32_t> tokens_{0};  // wake-ups handed to claimed sleepers
  std::atomic<int> threads_{0};
};

}  // namespace fennick::dispatch::internal
