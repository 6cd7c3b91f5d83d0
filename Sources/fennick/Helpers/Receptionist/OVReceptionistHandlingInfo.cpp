#include "fennick/Helpers/Receptionist/OVReceptionistHandlingInfo.h"

#include "fennick/Helpers/Receptionist/Internal/DeferredReceptionistCalls.h"
#include "fennick/Helpers/Receptionist/Internal/ReceptionistChanges.h"
#include "fennick/Helpers/Coordination/OVObjectHolder.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"

#include <algorithm>

namespace fennick {

namespace {

constexpr std::uint64_t kLowOptionBits = 0xF;
// New, old and prior always; initial never: the receptionist makes its own.
constexpr std::uint64_t kRegistrationOptions =
    NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld | NSKeyValueObservingOptionPrior;

}  // namespace

FENNICK_DEFINE_CLASS(OVReceptionistHandlingInfo) {}

Ref<OVReceptionistHandlingInfo> OVReceptionistHandlingInfo::initWithObjectHolder_externalQueue_internalQueue(
    const Ref<OVObjectHolder>& holder, const Ref<dispatch::Queue>& externalQueue,
    const Ref<dispatch::Queue>& internalQueue) {
  auto handling = make<OVReceptionistHandlingInfo>();
  handling->objectHolder_ = holder;
  handling->externalQueue_ = externalQueue;
  handling->internalQueue_ = internalQueue;
  handling->subsriptionInfosByKeyPath_ = Dictionary::dictionary();
  handling->lock_ = std::make_shared<std::recursive_mutex>();
  return handling;
}

void OVReceptionistHandlingInfo::startObservationWithInfo_holder(
    const Ref<OVReceptionistSubscriptionInfo>& info, const Ref<OVObjectHolder>&) {
  const Ref<String>& keyPath = info->keyPath();
  if (!keyPath) return;
  auto list = Array::dynamicCastObject(subsriptionInfosByKeyPath_->objectForKey(keyPath));
  if (!list) {
    list = Array::array();
    subsriptionInfosByKeyPath_->setObject_forKey(list, keyPath);
  }
  list->addObject(info);
  Id object = objectHolder_->object();
  if (!object) return;
  if (list->count() == 1) scheduleReconcile(keyPath);
  if (info->options() & NSKeyValueObservingOptionInitial)
    detail::DeferredReceptionistCalls::call([info, object, keyPath] {
      auto change = Dictionary::dictionaryWithCapacity(2);
      change->setObject_forKey(Number::numberWithInteger(NSKeyValueChangeSetting), NSKeyValueChangeKindKey);
      Id value = object->valueForKeyPath(keyPath->view());
      change->setObject_forKey(value ? value : Id(Null::null()), NSKeyValueChangeNewKey);
      info->notifyChangeOfObject_keyPath_change_isInitial(object, keyPath, change, true);
    });
}

void OVReceptionistHandlingInfo::stopObservationWithInfo_holder(
    const Ref<OVReceptionistSubscriptionInfo>& info, const Ref<OVObjectHolder>&) {
  if (const Ref<String>& keyPath = info->keyPath()) {
    auto list = Array::dynamicCastObject(subsriptionInfosByKeyPath_->objectForKey(keyPath));
    if (!list || list->isEmpty()) return;
    list->filterIn([&](const Id& record, std::size_t, bool&) {
      if (!record->isEqual(info)) return true;
      static_cast<OVReceptionistSubscriptionInfo*>(record.get())->markStopped();
      return false;
    });
    if (!list->isEmpty()) return;
    subsriptionInfosByKeyPath_->removeObjectForKey(keyPath);
    scheduleReconcile(keyPath);
    return;
  }
  for (const Id& keyPath : subsriptionInfosByKeyPath_->allKeys()->toVector()) {
    auto path = std::static_pointer_cast<String>(keyPath);
    stopRecords(path);
    scheduleReconcile(path);
  }
  subsriptionInfosByKeyPath_->removeAllObjects();
}

bool OVReceptionistHandlingInfo::isHandlingObject(const Id& object) const {
  return object && objectHolder_->object() == object;
}

void OVReceptionistHandlingInfo::stopRecords(const Ref<String>& keyPath) {
  if (auto list = Array::dynamicCastObject(subsriptionInfosByKeyPath_->objectForKey(keyPath)))
    for (const Id& record : list->toVector())
      static_cast<OVReceptionistSubscriptionInfo*>(record.get())->markStopped();
}

void OVReceptionistHandlingInfo::scheduleReconcile(const Ref<String>& keyPath) {
  auto self = std::static_pointer_cast<OVReceptionistHandlingInfo>(Object::self());
  detail::DeferredReceptionistCalls::call([self, keyPath] { self->reconcileRegistration(keyPath); });
}

void OVReceptionistHandlingInfo::reconcileRegistration(const Ref<String>& keyPath) {
  const Id object = objectHolder_->object();
  std::unique_lock lock(*lock_);
  Registration& registration = registrations_[keyPath->utf8()];
  if (registration.busy) return;  // the thread at work sees this change when it re-checks
  registration.busy = true;
  try {
    for (;;) {
      auto list = Array::dynamicCastObject(subsriptionInfosByKeyPath_->objectForKey(keyPath));
      const bool wanted = object && list && !list->isEmpty();
      if (wanted == registration.registered) break;
      const std::uint64_t options =
          wanted ? (static_cast<const OVReceptionistSubscriptionInfo&>(*list->firstObject()).options() &
                    ~kLowOptionBits) + kRegistrationOptions
                 : 0;
      lock.unlock();
      if (wanted)
        object->addObserver_forKeyPath_options_context(Object::self(), keyPath->view(), options, nullptr);
      else if (object)
        object->removeObserverIfRegistered_forKeyPath(this, keyPath->view());
      lock.lock();
      registration.registered = wanted;
    }
  } catch (...) {
    if (!lock.owns_lock()) lock.lock();
    registration.busy = false;
    throw;
  }
  registration.busy = false;
  if (!registration.registered) registrations_.erase(keyPath->utf8());
}

void OVReceptionistHandlingInfo::observeValueForKeyPath_ofObject_change_context(
    const std::string& keyPath, const Id& object, const Ref<Dictionary>& change, void*) {
  auto copy = std::static_pointer_cast<Dictionary>(change->copy());
  const bool prior = detail::isPriorChange(copy);
  auto self = std::static_pointer_cast<OVReceptionistHandlingInfo>(Object::self());
  performInternalOperationFromExternalQueue_block(
      false, [self, path = String::string(keyPath), object, copy, prior] {
        self->deliver(path, object, copy, prior);
      });
}

void OVReceptionistHandlingInfo::deliver(const Ref<String>& keyPath, const Id& object,
                                         const Ref<Dictionary>& change, bool prior) {
  std::vector<Id> records;
  {
    std::lock_guard lock(*lock_);
    auto list = Array::dynamicCastObject(subsriptionInfosByKeyPath_->objectForKey(keyPath));
    if (!list) return;
    records = list->toVector();
  }
  // Prior notifications run last to first and the following ones first to
  // last, so that subscribers see them nested.
  if (prior) std::reverse(records.begin(), records.end());
  for (const Id& record : records) {
    auto* info = static_cast<OVReceptionistSubscriptionInfo*>(record.get());
    if (deliversInline()) {  // what performExternalOperation... does inline, without a block
      info->notifyChangeOfObject_keyPath_change_isInitial(object, keyPath, change, false);
      continue;
    }
    performExternalOperationFromInternalQueue_block(
        true, [info = std::static_pointer_cast<OVReceptionistSubscriptionInfo>(record), object, keyPath,
               change] { info->notifyChangeOfObject_keyPath_change_isInitial(object, keyPath, change, false); });
  }
}

void OVReceptionistHandlingInfo::performInternalOperationFromExternalQueue_block(bool sync,
                                                                                 dispatch::Block block) {
  if (!internalQueue_) return block();
  if (!sync || externalQueue_) return internalQueue_->async(std::move(block));
  block();
}

void OVReceptionistHandlingInfo::performExternalOperationFromInternalQueue_block(bool sync,
                                                                                 dispatch::Block block) {
  if (externalQueue_) return externalQueue_->async(std::move(block));
  if (!internalQueue_ || sync) return block();
  internalQueue_->async(std::move(block));
}

}  // namespace fennick
