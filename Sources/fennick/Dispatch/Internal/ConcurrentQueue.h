#pragma once
// A queue whose blocks may run in parallel.
//
// While nothing holds it back, each item goes straight to the target, tagged
// with this queue (so that the queue is current while the item runs and hears
// when it ends) and counted as in flight. A barrier, a suspension or an
// inactive start sets the held bit: from then on items wait in order in a list
// under the mutex, and pump() lets them go as their turn comes. A barrier
// starts once nothing is in flight and runs alone; the list goes on after it.
// Only what enters the queue directly is counted here: blocks that reach it
// through another concurrent queue belong to that queue.
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>

#include "fennick/Dispatch/Internal/QueueCore.h"

namespace fennick::dispatch::detail {

struct SyncRequest;

class ConcurrentQueue final : public QueueCore {
 public:
  ConcurrentQueue(std::string label, qos_class_t qos, Ref<Queue> target, bool inactive = false);
  ~ConcurrentQueue() override;

  void enqueue(WorkItem* item, bool wake) override;
  void enqueueBarrier(WorkItem* item) override;
  void suspend() override;
  void resume() override;
  void activate() override;

  /// Sync: returns once the caller may run on this queue (alone, for a
  /// barrier), counted as in flight until leave(). A thread already running
  /// work of this queue enters at once, since a barrier waits for it anyway.
  void enter(SyncRequest& request, bool barrier, bool reentrant);
  void leave(bool barrier) noexcept { finished(barrier); }

  /// An item this queue let go has run.
  void finished(bool barrier) noexcept;

 private:
  static constexpr std::uint64_t kHeld = std::uint64_t{1} << 63;

  struct Waiting {
    WorkItem* item;        // an item to forward, or
    SyncRequest* request;  // a sync caller to let in
    bool barrier;
  };

  bool tryCount() noexcept;
  void forward(WorkItem* item, bool wake);
  void pumpLocked();
  void releaseLocked(const Waiting& waiting);

  alignas(64) std::atomic<std::uint64_t> state_;  // items in flight | kHeld
  std::mutex mutex_;                                // guards the members below
  std::deque<Waiting> waiting_;
  int suspended_ = 0;
  bool inactive_ = false;
  bool barrierRunning_ = false;
};

}  // namespace fennick::dispatch::detail
