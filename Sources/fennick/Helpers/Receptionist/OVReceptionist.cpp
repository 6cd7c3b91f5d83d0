#include "fennick/Helpers/Receptionist/OVReceptionist.h"

#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Helpers/Receptionist/Internal/DeferredReceptionistCalls.h"
#include "fennick/Helpers/Coordination/OVObjectHolder.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

#include <atomic>
#include <chrono>

namespace fennick {

FENNICK_DEFINE_CLASS(OVReceptionist) {}

OVReceptionist::OVReceptionist()
    : handlingInfosByHolder_(Dictionary::dictionary()),
      lock_(std::make_shared<std::recursive_mutex>()) {}

Ref<OVReceptionist> OVReceptionist::init() { return make<OVReceptionist>(); }

Ref<OVReceptionist> OVReceptionist::initWithInternalQueue(const Ref<dispatch::Queue>& queue) {
  auto receptionist = make<OVReceptionist>();
  receptionist->internalQueue_ = queue;
  return receptionist;
}

Ref<OVReceptionist> OVReceptionist::initWithConcurrentQueue(const Ref<dispatch::Queue>& queue) {
  auto receptionist = make<OVReceptionist>();
  receptionist->internalQueue_ = OVBuildDispatchQueue(
      fmt::format("{} internal queue", receptionist->description()), QOS_CLASS_UTILITY, queue, false);
  receptionist->externalQueue_ = queue;
  return receptionist;
}

OVReceptionist::~OVReceptionist() { stopAllObservations(); }

std::string OVReceptionist::description() const {
  return fmt::format("<OVReceptionist: {}>", static_cast<const void*>(this));
}

void OVReceptionist::performInternalOperationSync_block(bool sync, dispatch::Block block) {
  if (!internalQueue_) block();
  else if (sync) internalQueue_->sync([&] { block(); });
  else internalQueue_->async(std::move(block));
}

void OVReceptionist::runRequest(const Ref<OVReceptionistSubscriptionRequest>& request) {
  detail::DeferredReceptionistCalls initialCalls;
  {
    std::lock_guard lock(*lock_);
    request->performForReceptionist(*this);
  }
  initialCalls.run();
}

void OVReceptionist::submitRequest(Ref<OVReceptionistSubscriptionRequest> request, Id keepAlive) {
  auto self = std::static_pointer_cast<OVReceptionist>(Object::self());
  performInternalOperationSync_block(
      false, [self, request = std::move(request), keepAlive = std::move(keepAlive)] { self->runRequest(request); });
}

void OVReceptionist::startObservationOfObject_forKeyPath_changeBlock(const Id& object,
                                                                     std::string_view keyPath,
                                                                     ChangeBlock block) {
  startObservationOfObject_forKeyPath_wantsInitialInvocation_changeBlock(object, keyPath, false,
                                                                         std::move(block));
}

void OVReceptionist::startObservationOfObject_forKeyPath_wantsInitialInvocation_changeBlock(
    const Id& object, std::string_view keyPath, bool wantsInitialInvocation, ChangeBlock block) {
  auto self = std::static_pointer_cast<OVReceptionist>(Object::self());
  performInternalOperationSync_block(
      false, [self, object, path = String::string(keyPath), wantsInitialInvocation,
              block = std::move(block)] {
        auto request = OVReceptionistStartSubscriptionRequest::request();
        request->setObjectsInfo(object);
        request->setKeyPathesInfo(path);
        if (wantsInitialInvocation)
          request->setOptions(request->options() | NSKeyValueObservingOptionInitial);
        request->setChangeBlock([block](const Ref<OVReceptionistChangeInfo>& change) {
          const Ref<String>& changedPath = change->keyPath();
          block(change->changedObject(), changedPath ? changedPath->utf8() : std::string(),
                change->newValue(), change->oldValue());
        });
        self->runRequest(request);
      });
}

void OVReceptionist::startObservationOfObject_forKeyPath_target_action(const Id& object,
                                                                       std::string_view keyPath,
                                                                       const Id& target,
                                                                       Selector action) {
  auto request = OVReceptionistStartSubscriptionRequest::request();
  request->setObjectsInfo(object);
  request->setKeyPathesInfo(String::string(keyPath));
  request->setTarget(target);
  request->setAction(action);
  request->setOptions(request->options() | NSKeyValueObservingOptionInitial);
  // The target stays alive until the request has been processed.
  submitRequest(request, target);
}

void OVReceptionist::stopObservationOfObject_forKeyPath(const Id& object, std::string_view keyPath) {
  auto request = OVReceptionistStopSubscriptionRequest::request();
  request->setObjectsInfo(object);
  request->setKeyPathesInfo(String::string(keyPath));
  submitRequest(request);
}

void OVReceptionist::stopAllObservationOfObject(const Id& object) {
  auto request = OVReceptionistStopSubscriptionRequest::request();
  request->setObjectsInfo(object);
  submitRequest(request);
}

void OVReceptionist::stopAllObservations() { runRequest(OVReceptionistStopSubscriptionRequest::request()); }

namespace {

bool drainsOnMainThread(Ref<dispatch::Queue> queue) {
  const Ref<dispatch::Queue> main = dispatch::mainQueue();
  for (; queue; queue = queue->target())
    if (queue == main) return true;
  return false;
}

}  // namespace

void OVReceptionist::waitForPendingRequests() {
  if (!internalQueue_) return;
  if (!dispatch::isMainThread() || !drainsOnMainThread(internalQueue_)) {
    if (!internalQueue_->isCurrent()) internalQueue_->sync([] {});
    return;
  }
  // In a block of a queue of ours that drains on the main thread, everything
  // submitted before has run, and serving the main queue could never run it
  // again (it stays serial while its block waits). The main queue itself
  // counts as current on the main thread even between blocks, and is served.
  if (internalQueue_ != dispatch::mainQueue() && internalQueue_->isCurrent()) return;
  // The main thread counts as holding the main queue: serve it instead.
  auto done = std::make_shared<std::atomic<bool>>(false);
  internalQueue_->async([done] { done->store(true, std::memory_order_release); });
  while (!dispatch::runMainQueueUntil([&] { return done->load(std::memory_order_acquire); },
                                      std::chrono::hours(1))) {
  }
}

void OVReceptionist::performRequest(const Ref<OVReceptionistSubscriptionRequest>& request) {
  if (!request) return;
  submitRequest(std::static_pointer_cast<OVReceptionistSubscriptionRequest>(request->copy()));
}

void OVReceptionist::startObservationWithInfo_object(const Ref<OVReceptionistSubscriptionInfo>& info,
                                                     const Id& object) {
  // Subscriptions are per object: "every object" has nothing to register with.
  if (!object || !info) return;
  std::lock_guard lock(*lock_);
  const Ref<OVObjectHolder>& holder = info->observedObjectHolder();
  auto handling = OVReceptionistHandlingInfo::dynamicCastObject(handlingInfosByHolder_->objectForKey(holder));
  if (handling && !handling->isHandlingObject(object)) {
    // The record of an object that died without a stop, whose address the
    // new object now has: its registrations died with that object.
    handling->stopObservationWithInfo_holder(OVReceptionistSubscriptionInfo::info(), holder);
    handlingInfosByHolder_->removeObjectForKey(holder);
    handling = nullptr;
  }
  if (!handling) {
    handling = OVReceptionistHandlingInfo::initWithObjectHolder_externalQueue_internalQueue(
        holder, externalQueue_, internalQueue_);
    handling->lock_ = lock_;
    handlingInfosByHolder_->setObject_forKey(handling, holder);
  }
  handling->startObservationWithInfo_holder(info, holder);
}

void OVReceptionist::stopObservationWithInfo_holder(const Ref<OVReceptionistSubscriptionInfo>& info,
                                                    const Id& holder) {
  auto handling = OVReceptionistHandlingInfo::dynamicCastObject(handlingInfosByHolder_->objectForKey(holder));
  if (!handling) return;
  handling->stopObservationWithInfo_holder(info, OVObjectHolder::dynamicCastObject(holder));
  if (handling->isEmpty()) handlingInfosByHolder_->removeObjectOrDieForKey(holder);
}

void OVReceptionist::stopObservationWithInfo_object(const Ref<OVReceptionistSubscriptionInfo>& info,
                                                    const Id& object) {
  if (!info) return;
  std::lock_guard lock(*lock_);
  if (object) return stopObservationWithInfo_holder(info, info->observedObjectHolder());
  // Every object: the same stop for each holder, matching that holder's records.
  for (const Id& holder : handlingInfosByHolder_->allKeys()->toVector()) {
    auto perObject = std::static_pointer_cast<OVReceptionistSubscriptionInfo>(info->copy());
    perObject->setObservedObjectHolder(OVObjectHolder::dynamicCastObject(holder));
    stopObservationWithInfo_holder(perObject, holder);
  }
}

}  // namespace fennick
