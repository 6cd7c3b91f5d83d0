#include "fennick/Helpers/Coordination/OVCancellationGroup.h"

#include "fennick/Dispatch/Blocking.h"
#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

#include <thread>

namespace fennick {

namespace {
// The queue-specific marker: its key is this text, and so is its value.
constexpr const char kInternalQueueKey[] = "InternalQueueKey";
}  // namespace

FENNICK_DEFINE_CLASS(OVCancellationGroup) {
  builder.method("didChangeCancelledOfChild:newValue:",
                 &OVCancellationGroup::didChangeCancelledOfChild_newValue);
}

OVCancellationGroup::Lock::Lock(std::recursive_mutex& mutex) : mutex_(mutex) {
  if (mutex_.try_lock()) return;
  dispatch::BlockingScope waiting;
  mutex_.lock();
}

OVCancellationGroup::OVCancellationGroup(std::int64_t policy)
    : policy_(policy), internalQueue_(OVBuildInternalDispatchQueue("cancellation-group-internal")) {
  internalQueue_->setSpecific(kInternalQueueKey, const_cast<char*>(kInternalQueueKey));
  receptionist_ = OVReceptionist::initWithInternalQueue(internalQueue_);
}

Ref<OVCancellationGroup> OVCancellationGroup::initWithPolicy(std::int64_t policy) {
  return make<OVCancellationGroup>(policy);
}

OVCancellationGroup::~OVCancellationGroup() {
  performBlock([this] { receptionist_->stopAllObservations(); });
}

void OVCancellationGroup::performBlock(const std::function<void()>& block) {
  // The marker is read from the group's own queue, not from the current one:
  // it is always there, so the block always runs inline on the caller.
  if (internalQueue_->getSpecific(kInternalQueueKey)) {
    Lock lock(mutex_);
    block();
  } else {
    internalQueue_->sync([&] { block(); });
  }
}

void OVCancellationGroup::addCancellationHandler(dispatch::Block handler) {
  if (!handler) return;
  performBlock([&] { detail::addOrRunCancellationHandler(isCancelled(), cancellationHandlers_, std::move(handler)); });
}

void OVCancellationGroup::addChild(const Ref<OVCancellation>& child) {
  if (!child) return;
  enum class Then { nothing, checkChildren, cancelChild } then = Then::nothing;
  performBlock([&] {
    if (child->isCancelled()) {
      if (cancelledChildren_->safeAddObject(child)) then = Then::checkChildren;
    } else if (isCancelled()) {
      cancelledChildren_->addObject(child);
      then = Then::cancelChild;
    } else {
      nonCancelledChildren_->addObject(child);
      receptionist_->startObservationOfObject_forKeyPath_target_action(
          child, "isCancelled", Object::self(), Selector::named("didChangeCancelledOfChild:newValue:"));
    }
  });
  // Children and observers are other people's code: called with no lock held.
  if (then == Then::checkChildren) checkChildren();
  if (then == Then::cancelChild) child->cancel();
}

void OVCancellationGroup::didChangeCancelledOfChild_newValue(const Id& child, const Ref<Number>& value) {
  OVAssertOnQueue(internalQueue_);
  if (!value || !value->boolValue()) return;
  receptionist_->stopObservationOfObject_forKeyPath(child, "isCancelled");
  checkChildren();
}

void OVCancellationGroup::checkChildren() {
  bool cancelGroup = false;
  {
    Lock lock(mutex_);
    if (isCancelled()) return;
    for (const Id& child : nonCancelledChildren_->allObjects()->toVector()) {
      if (!std::static_pointer_cast<OVCancellation>(child)->isCancelled()) continue;
      nonCancelledChildren_->removeObject(child);
      cancelledChildren_->addObject(child);
    }
    cancelGroup = !cancelledChildren_->isEmpty() &&
                  (policy() == OVCancellationGroupPolicyAny || nonCancelledChildren_->isEmpty());
  }
  if (cancelGroup) cancel();
}

void OVCancellationGroup::cancel() {
  // One caller does the work. The others wait until the group reads as
  // cancelled, except a re-entrant call from the working thread's own
  // observers, which returns at once.
  if (cancelling_.exchange(true, std::memory_order_acq_rel)) {
    if (cancellingThread_.load(std::memory_order_acquire) != std::this_thread::get_id())
      cancelled_.wait(false, std::memory_order_acquire);
    return;
  }
  cancellingThread_.store(std::this_thread::get_id(), std::memory_order_release);
  // Observers of isCancelled run here, with no lock of ours held.
  changeValueForKey("isCancelled", [this] {
    cancelled_.store(true, std::memory_order_release);
    cancelled_.notify_all();
  });
  std::vector<Id> children;
  std::vector<dispatch::Block> handlers;
  {
    // Children added from now on see the group cancelled and cancel
    // themselves; those added before are in the set.
    Lock lock(mutex_);
    children = nonCancelledChildren_->allObjects()->toVector();
    for (const Id& child : children) cancelledChildren_->addObject(child);
    nonCancelledChildren_->removeAllObjects();
    handlers = std::exchange(cancellationHandlers_, {});
  }
  for (const Id& child : children) std::static_pointer_cast<OVCancellation>(child)->cancel();
  detail::runCancellationHandlers(std::move(handlers));
}

}  // namespace fennick
