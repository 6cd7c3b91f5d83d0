#pragma once
// A cancellation group ties child cancellation objects (tokens or other
// groups) to one parent that behaves like a token. Cancelling the group
// cancels every child; a child's cancellation, observed through a receptionist
// on the group's own queue, cancels the group as its policy says.
//
// Public operations run on the calling thread, under the group's recursive
// lock, which the group's queue-bound steps take too: any thread may call
// them at once. Handlers run on the global utility queue.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Helpers/OVCancellation.h"
#include "fennick/Helpers/OVReceptionist.h"
#include "fennick/Runtime/Number.h"
#include "fennick/Runtime/Set.h"

#include <mutex>

namespace fennick {

/// When a group cancels itself: with policy 0 (Any) as soon as one child is
/// cancelled; with any other policy (All, 1 by convention) once at least one
/// child is cancelled and none remains uncancelled.
enum OVCancellationGroupPolicy : std::int64_t {
  OVCancellationGroupPolicyAny = 0,
  OVCancellationGroupPolicyAll = 1,
};

class OVCancellationGroup : public OVCancellation {
  FENNICK_DECLARE_CLASS(OVCancellationGroup, OVCancellation)

 public:
  /// The only way to make a group (there is no plain init).
  static Ref<OVCancellationGroup> initWithPolicy(std::int64_t policy);
  /// Stops observing the children; cancels nothing and runs no handler.
  ~OVCancellationGroup() override;

  bool isCancelled() const override { return cancelled_.load(std::memory_order_acquire); }
  std::int64_t policy() const { return policy_.load(std::memory_order_relaxed); }
  /// Cancels the group and every child not yet cancelled.
  void cancel() override;
  void addCancellationHandler(std::function<void()> handler) override;
  /// Adds a token or group. A cancelled child may cancel the group at once
  /// (by the policy); a child added to a cancelled group is cancelled at once.
  void addChild(const Ref<OVCancellation>& child);
  /// Runs the block in the group's context: inline, on the calling thread.
  void performBlock(const std::function<void()>& block);
  /// The receptionist's action for a child's change of "isCancelled".
  void didChangeCancelledOfChild_newValue(const Id& child, const Ref<Number>& value);

  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }

 protected:
  explicit OVCancellationGroup(std::int64_t policy);

 private:
  void checkChildren();
  void cancelOnQueue();
  void cancelUncancelledChildren();

  std::atomic<bool> cancelled_{false};
  bool suppressCheckChildren_ = false;
  std::atomic<std::int64_t> policy_;
  Ref<Set> cancelledChildren_ = Set::set();
  Ref<Set> nonCancelledChildren_ = Set::set();
  std::vector<std::function<void()>> cancellationHandlers_;
  Ref<dispatch::Queue> internalQueue_;
  Ref<OVReceptionist> receptionist_;
  // Holders of this lock may wait on other queues (cancelling a token syncs
  // onto its queue), so a worker that has to wait for it tells the pool.
  class Lock {
   public:
    explicit Lock(std::recursive_mutex& mutex);
    ~Lock() { mutex_.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    std::recursive_mutex& mutex_;
  };
  std::recursive_mutex mutex_;
};

}  // namespace fennick
