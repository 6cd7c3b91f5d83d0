#pragma once
// A queue that runs one item at a time, in order.
//
// Ownership protocol: `pending_` counts the items pushed and not yet retired,
// plus one for a sync caller that took the queue while it was idle. Whoever
// moves it from zero owns the queue: it either runs the work inline (sync) or
// schedules the queue's drain on the target. The owner alone pops items. A
// drain that meets a waiting sync caller hands ownership to it and stops. A
// sync caller that is done hands the queue straight to the next waiting sync
// caller, or schedules the drain when other work is left.
//
// An owner that finds the queue suspended parks it instead of going on (see
// Suspension); the resume that ends the suspension restarts it.
//
// The main queue's drain may be released while one of its items is still
// running: the item started a nested event loop that serves the main queue,
// and the drain's owner (the main thread) is the one that lets it go (see
// releaseRunningDrain).
#include <atomic>
#include <cstdint>

#include "fennick/Dispatch/Internal/MpscQueue.h"
#include "fennick/Dispatch/Internal/WorkItem.h"
#include "fennick/Dispatch/Internal/QueueCore.h"
#include "fennick/Dispatch/Internal/Suspension.h"

namespace fennick::dispatch::detail {

struct SyncRequest;

class SerialQueue final : public QueueCore {
 public:
  SerialQueue(std::string label, qos_class_t qos, Ref<Queue> target, bool inactive = false);
  ~SerialQueue() override;

  /// Runs one batch. Called by the runner of `running` (the target when the
  /// drain was scheduled), with this queue current.
  void drain(QueueCore* running) noexcept;

  void suspend() override { suspension_.suspend(); }
  void resume() override;
  void activate() override;

  /// Sync: takes the queue if it is idle and not suspended.
  bool tryAcquire() noexcept;
  /// Sync: waits in line until a drain hands the queue over.
  void acquire(SyncRequest& request) noexcept;
  /// Sync: gives the queue back, scheduling a drain if work arrived meanwhile.
  void release() noexcept;

  /// Called from inside an item of this queue's drain, on the thread running
  /// the drain: the drain retires everything it ran, that item included, and
  /// passes the queue on as at the end of a batch, so that a new drain can run
  /// the items behind it while it is still on the stack. The released drain
  /// stops when the item returns. False when no drain of this queue is
  /// running. Only the main queue uses it: its drains all run on one thread.
  bool releaseRunningDrain() noexcept;

  /// Items a drain runs before it lets other queues of its target go first.
  static constexpr std::uint64_t kBatchLimit = 128;

 public:
  void enqueue(WorkItem* item, bool wake) override;

 private:
  void schedule(bool wake);
  /// The caller owns the queue and it has work: drain it unless suspended.
  void start(bool wake);
  void finishBatch(std::uint64_t retired, QueueCore* running) noexcept;
  /// Stops a drain that found the queue suspended.
  void pause(std::uint64_t retired) noexcept;
  void handOff(SyncRequest& request, std::uint64_t retired) noexcept;
  WorkItem* popReady() noexcept;

  // A drain in progress, on the stack of the thread running it.
  struct ActiveDrain {
    QueueCore* running;
    std::uint64_t retired = 0;
    bool released = false;
  };

  MpscQueue<WorkItem> items_;
  alignas(64) std::atomic<std::uint64_t> pending_{0};
  // Keeps the queue alive while its drain is scheduled; only the owner touches it.
  Ref<QueueCore> keepAlive_;
  // An item that a releasing sync holder took off the list before scheduling a
  // drain; the drain runs it first. Touched only by the queue's owner.
  WorkItem* carried_ = nullptr;
  WorkItem drainItem_;
  Suspension suspension_;
  // The drain that owns the queue right now, if one does. Touched only by
  // the queue's owner, away from the producers' cache line.
  ActiveDrain* activeDrain_ = nullptr;
};

}  // namespace fennick::dispatch::detail
