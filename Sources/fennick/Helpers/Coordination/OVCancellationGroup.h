#pragma once
// A cancellation group ties child cancellation objects (tokens or other
// groups) to one parent that behaves like a token. Cancelling the group
// cancels every child; a child's cancellation, observed through a receptionist
// on the group's own queue, cancels the group as its policy says.
//
// Thread safety: every public operation may be called from any thread at
// once. The bookkeeping runs on the calling thread under the group's lock;
// nothing outside the group (a child's cancel, an observer of isCancelled, a
// handler) is ever called with that lock held, except inside performBlock,
// which runs the caller's block under it.
//
// Asynchrony: a child's cancellation reaches its group asynchronously,
// through the group's receptionist on the group's internal queue. Right after
// a child's cancel() returns, the group may still read as not cancelled; add
// a cancellation handler to the group to learn when it is. Cancelling the
// group itself is synchronous: when cancel() returns, the group and every
// child it had read as cancelled, and the handlers are on the utility queue.
//
// Lifetime: dropping the last reference stops observing the children and
// cancels nothing. Child notifications already queued for the group find it
// gone and do nothing; handlers already submitted to the utility queue still
// run.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Helpers/Coordination/OVCancellation.h"
#include "fennick/Helpers/Receptionist/OVReceptionist.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Collections/Set.h"

#include <mutex>
#include <thread>

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
  void addCancellationHandler(dispatch::Block handler) override;
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

  std::atomic<bool> cancelled_{false};
  std::atomic<bool> cancelling_{false};
  std::atomic<std::thread::id> cancellingThread_{};
  std::atomic<std::int64_t> policy_;
  Ref<Set> cancelledChildren_ = Set::set();
  Ref<Set> nonCancelledChildren_ = Set::set();
  std::vector<dispatch::Block> cancellationHandlers_;
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
