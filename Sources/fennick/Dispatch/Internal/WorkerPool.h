#pragma once
// The one pool of worker threads behind the global queues.
//
// About as many workers run as there are cores. A worker stops counting as
// running while it blocks: explicitly (a sync wait, a group wait, once, a
// BlockingScope), or when the pool's monitor finds it asleep in the kernel
// while queued work makes no progress. Either way the pool may start or wake
// another worker, up to kMaxThreads. A worker that comes back while too many
// run finishes its item and parks. Workers with nothing to do spin for a
// moment, then park on a futex and retire after kIdleTimeout.
//
// Waking is frugal: a producer wakes a parked worker only when no worker is
// already searching for work and fewer than the core count are running; a
// worker that finds work while it was the last searcher passes the search on.
// The waker first takes a place among the running workers, then claims a
// sleeper (idle_ down, a token up) or starts a thread, so a burst of
// submissions costs one wake-up, not one per item, and racing producers never
// start more workers than there are cores.
#include <sys/types.h>

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

namespace fennick::dispatch::detail {

class PoolMonitor;

/// What a worker is doing, as the monitor sees it. `activity` holds the serial
/// number of the item being run (bumped per item) and the flags below.
struct alignas(64) WorkerRecord {
  static constexpr std::uint64_t kBusy = 1;       // running an item
  static constexpr std::uint64_t kPresumed = 2;   // the monitor took it for blocked
  static constexpr std::uint64_t kBlocking = 4;   // inside a BlockingScope
  static constexpr std::uint64_t kSerialStep = 8;

  std::atomic<std::uint64_t> activity{0};
  std::atomic<pid_t> tid{0};
  std::atomic<int> rootIndex{0};
  std::atomic<bool> used{false};
};

class WorkerPool {
 public:
  static constexpr int kClassCount = 5;
  /// Threads of the pool, blocked ones included: far below the system's limit.
  static constexpr int kMaxThreads = 255;
  /// Workers that the monitor may take for blocked per class at one time.
  static constexpr int kMaxPresumedPerClass = 32;
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
  /// The most workers that run at once when none blocks.
  int maxRunning() const noexcept { return maxRunning_; }
  /// How many times the monitor has taken a worker for blocked, for tests and
  /// diagnostics: each time may have started a thread beyond maxRunning().
  std::uint64_t presumedBlockedCount() const noexcept {
    return presumedTotal_.load(std::memory_order_relaxed);
  }

 private:
  friend class PoolMonitor;

  WorkerPool();

  struct alignas(64) Root {
    MpscQueue<WorkItem> items;
    alignas(64) std::atomic<std::uint64_t> pushed{0};
    alignas(64) std::atomic<std::uint64_t> popped{0};  // written by the holder of `popping`
    std::atomic<bool> popping{false};
    Ref<Queue> queue;

    bool hasWork() const noexcept {
      return pushed.load(std::memory_order_seq_cst) != popped.load(std::memory_order_seq_cst);
    }
  };

  void notifyWork() noexcept;
  /// Counts one more running worker unless as many run as there are cores.
  bool reserveRunning() noexcept;
  /// Starts a worker already counted as running and searching.
  bool spawnWorker() noexcept;
  void workerMain() noexcept;
  WorkItem* tryPop(int& index) noexcept;
  WorkItem* search(int& index) noexcept;
  bool hasQueuedWork() const noexcept;
  bool park() noexcept;
  bool leaveIdle() noexcept;
  void run(WorkItem* item, int index) noexcept;
  WorkerRecord* claimRecord() noexcept;
  /// Counts a worker that had stopped counting (blocked) as running again.
  void resumeCounting() noexcept { running_.fetch_add(1, std::memory_order_seq_cst); }
  /// The monitor found `record` asleep in its item while work waits.
  bool presumeBlocked(WorkerRecord& record, std::uint64_t seen) noexcept;

  Root roots_[kClassCount];
  WorkerRecord records_[kMaxThreads];
  std::atomic<int> presumed_[kClassCount] = {};
  std::atomic<std::uint64_t> presumedTotal_{0};
  PoolMonitor* monitor_;
  const int maxRunning_;
  alignas(64) std::atomic<int> running_{0};    // workers neither parked nor blocked
  alignas(64) std::atomic<int> searching_{0};  // running workers looking for work
  alignas(64) std::atomic<int> idle_{0};       // parked workers nobody has claimed
  alignas(64) std::atomic<std::uint32_t> tokens_{0};  // wake-ups handed to claimed sleepers
  std::atomic<int> threads_{0};
};

}  // namespace fennick::dispatch::detail
