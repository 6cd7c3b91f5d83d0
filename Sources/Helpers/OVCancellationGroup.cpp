#include "fennick/Helpers/OVCancellationGroup.h"

#include "fennick/Dispatch/Blocking.h"
#include "fennick/FoundationExtensions/OVDispatchQueue.h"
#include "fennick/Runtime/Array.h"
#include "fennick/Runtime/ClassBuilder.h"

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

void OVCancellationGroup::addCancellationHandler(std::function<void()> handler) {
  if (!handler) return;
  performBlock([&] { detail::addOrRunCancellationHandler(isCancelled(), cancellationHandlers_, std::move(handler)); });
}

void OVCancellationGroup::addChild(const Ref<OVCancellation>& child) {
  performBlock([&] {
    if (!child) return;
    if (child->isCancelled()) {
      if (cancelledChildren_->safeAddObject(child)) checkChildren();
      return;
    }
    nonCancelledChildren_->addObject(child);
    if (!isCancelled())
      receptionist_->startObservationOfObject_forKeyPath_target_action(
          child, "isCancelled", Object::self(), Selector::named("didChangeCancelledOfChild:newValue:"));
    else
      child->cancel();
  });
}

void OVCancellationGroup::didChangeCancelledOfChild_newValue(const Id& child, const Ref<Number>& value) {
  OVAssertOnQueue(internalQueue_);
  Lock lock(mutex_);
  if (!value || !value->boolValue()) return;
  receptionist_->stopObservationOfObject_forKeyPath(child, "isCancelled");
  checkChildren();
}

void OVCancellationGroup::checkChildren() {
  OVAssertOnQueue(internalQueue_);
  Lock lock(mutex_);
  if (suppressCheckChildren_) return;
  suppressCheckChildren_ = true;
  if (isCancelled()) {
    cancelUncancelledChildren();
  } else {
    for (const Id& child : nonCancelledChildren_->allObjects()->toVector()) {
      if (!std::static_pointer_cast<OVCancellation>(child)->isCancelled()) continue;
      nonCancelledChildren_->removeObject(child);
      cancelledChildren_->addObject(child);
    }
    if (!cancelledChildren_->isEmpty() &&
        (policy() == OVCancellationGroupPolicyAny || nonCancelledChildren_->isEmpty()))
      cancelOnQueue();
  }
  suppressCheckChildren_ = false;
}

void OVCancellationGroup::cancel() {
  performBlock([this] { cancelOnQueue(); });
}

void OVCancellationGroup::cancelUncancelledChildren() {
  const auto children = nonCancelledChildren_->allObjects()->toVector();
  for (const Id& child : children) std::static_pointer_cast<OVCancellation>(child)->cancel();
  for (const Id& child : children) cancelledChildren_->addObject(child);
  nonCancelledChildren_->removeAllObjects();
}

void OVCancellationGroup::cancelOnQueue() {
  OVAssertOnQueue(internalQueue_);
  Lock lock(mutex_);
  if (isCancelled()) return;
  changeValueForKey("isCancelled", [this] { cancelled_.store(true, std::memory_order_release); });
  cancelUncancelledChildren();
  detail::runCancellationHandlers(std::exchange(cancellationHandlers_, {}));
}

}  // namespace fennick
