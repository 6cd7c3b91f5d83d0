#include "fennick/Helpers/OVReceptionist+Advanced.h"

#include "fennick/Helpers/OVObjectHolder.h"
#include "fennick/Helpers/OVReceptionist.h"
#include "fennick/Runtime/Array.h"
#include "fennick/Runtime/ClassBuilder.h"
#include "fennick/Runtime/Collection.h"
#include "fennick/Runtime/Null.h"
#include "fennick/Runtime/Number.h"
#include "fennick/Runtime/Set.h"

#include <utility>

namespace fennick {

namespace {

constexpr std::uint64_t kLowOptionBits = 0xF;
// New, old and prior always; initial never: the receptionist makes its own.
constexpr std::uint64_t kRegistrationOptions =
    NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld | NSKeyValueObservingOptionPrior;

bool isPrior(const Ref<Dictionary>& change) {
  auto* flag = dynamic_cast<const Number*>(change->objectForKey(NSKeyValueChangeNotificationIsPriorKey).get());
  return flag && flag->boolValue();
}

// Members of a collection in enumeration order (keys for dictionaries).
std::vector<Id> members(const Collection& collection) {
  if (auto* array = dynamic_cast<const Array*>(&collection)) return array->toVector();
  if (auto* set = dynamic_cast<const Set*>(&collection)) return set->allObjects()->toVector();
  if (auto* dictionary = dynamic_cast<const Dictionary*>(&collection))
    return dictionary->allKeys()->toVector();
  return {};
}

}  // namespace

namespace detail {

namespace {
thread_local DeferredReceptionistCalls* activeCollector = nullptr;
}  // namespace

DeferredReceptionistCalls::DeferredReceptionistCalls() : outer_(activeCollector) { activeCollector = this; }

DeferredReceptionistCalls::~DeferredReceptionistCalls() { activeCollector = outer_; }

void DeferredReceptionistCalls::run() {
  activeCollector = outer_;  // calls made by the calls themselves run directly
  for (auto& call : std::exchange(calls_, {})) call();
  activeCollector = this;
}

void DeferredReceptionistCalls::call(std::function<void()> call) {
  if (activeCollector) activeCollector->calls_.push_back(std::move(call));
  else call();
}

}  // namespace detail

FENNICK_DEFINE_CLASS(OVReceptionistSubscriptionRequest) {}
FENNICK_DEFINE_CLASS(OVReceptionistStartSubscriptionRequest) {}
FENNICK_DEFINE_CLASS(OVReceptionistStopSubscriptionRequest) {}
FENNICK_DEFINE_CLASS(OVReceptionistSubscriptionInfo) {}
FENNICK_DEFINE_CLASS(OVReceptionistChangeInfo) {}
FENNICK_DEFINE_CLASS(OVReceptionistHandlingInfo) {}

// -- Requests -------------------------------------------------------------------------

Ref<OVReceptionistSubscriptionRequest>
OVReceptionistSubscriptionRequest::requestWithObjectsInfo_keyPathesInfo_context(
    const Id& objectsInfo, const Id& keyPathesInfo, void* context) {
  auto request = make<OVReceptionistSubscriptionRequest>();
  request->setObjectsInfo(objectsInfo);
  request->setKeyPathesInfo(keyPathesInfo);
  request->setContext(context);
  return request;
}

Ref<OVReceptionistSubscriptionRequest> OVReceptionistSubscriptionRequest::initWithPrototype(
    const Ref<OVReceptionistSubscriptionRequest>& prototype) {
  auto request = make<OVReceptionistSubscriptionRequest>();
  if (prototype) request->copyFromPrototype(*prototype);
  return request;
}

void OVReceptionistSubscriptionRequest::setKeyPathesInfo(const Id& keyPathesInfo) {
  keyPathesInfo_ = keyPathesInfo ? keyPathesInfo->copy() : nullptr;
}

void OVReceptionistSubscriptionRequest::copyFromPrototype(const OVReceptionistSubscriptionRequest& prototype) {
  setKeyPathesInfo(prototype.keyPathesInfo_);
  objectsInfo_ = prototype.objectsInfo_;
  context_ = prototype.context_;
}

Ref<OVReceptionistSubscriptionRequest> OVReceptionistSubscriptionRequest::makeEmpty() const {
  return make<OVReceptionistSubscriptionRequest>();
}

Id OVReceptionistSubscriptionRequest::copy() const {
  auto request = makeEmpty();
  request->copyFromPrototype(*this);
  return request;
}

Ref<OVReceptionistStartSubscriptionRequest> OVReceptionistSubscriptionRequest::buildStartRequest() const {
  auto request = OVReceptionistStartSubscriptionRequest::request();
  request->copyFromPrototype(*this);
  return request;
}

Ref<OVReceptionistStopSubscriptionRequest> OVReceptionistSubscriptionRequest::buildStopRequest() const {
  auto request = OVReceptionistStopSubscriptionRequest::request();
  request->copyFromPrototype(*this);
  return request;
}

void OVReceptionistSubscriptionRequest::performForReceptionist(OVReceptionist& receptionist) {
  if (auto path = String::dynamicCastObject(keyPathesInfo_)) {
    performForReceptionist_forKeyPath(receptionist, path);
  } else if (auto paths = Collection::dynamicCastObject(keyPathesInfo_)) {
    for (const Id& path : members(*paths))
      performForReceptionist_forKeyPath(receptionist, String::dynamicCastObject(path));
  } else {
    performForReceptionist_forKeyPath(receptionist, nullptr);
  }
}

void OVReceptionistSubscriptionRequest::performForReceptionist_forKeyPath(OVReceptionist& receptionist,
                                                                         const Ref<String>& keyPath) {
  if (auto objects = Collection::dynamicCastObject(objectsInfo_)) {
    for (const Id& object : members(*objects))
      performForReceptionist_forKeyPath_object(receptionist, keyPath, object);
  } else {
    performForReceptionist_forKeyPath_object(receptionist, keyPath, objectsInfo_);
  }
}

void OVReceptionistSubscriptionRequest::performForReceptionist_forKeyPath_object(OVReceptionist&,
                                                                                const Ref<String>&,
                                                                                const Id&) {}

Ref<OVReceptionistSubscriptionInfo>
OVReceptionistSubscriptionRequest::buildSubscriptionInfoForReceptionist_forKeyPath_object(
    OVReceptionist&, const Ref<String>& keyPath, const Id& object) {
  auto info = OVReceptionistSubscriptionInfo::info();
  info->setObservedObjectHolder(object ? OVObjectHolder::weakHolderForObject(object) : nullptr);
  info->setKeyPath(keyPath);
  info->setContext(context_);
  return info;
}

Ref<OVReceptionistStartSubscriptionRequest> OVReceptionistStartSubscriptionRequest::request() {
  return make<OVReceptionistStartSubscriptionRequest>();
}

Ref<OVReceptionistSubscriptionRequest> OVReceptionistStartSubscriptionRequest::makeEmpty() const {
  return make<OVReceptionistStartSubscriptionRequest>();
}

void OVReceptionistStartSubscriptionRequest::copyFromPrototype(
    const OVReceptionistSubscriptionRequest& prototype) {
  OVReceptionistSubscriptionRequest::copyFromPrototype(prototype);
  auto* start = dynamic_cast<const OVReceptionistStartSubscriptionRequest*>(&prototype);
  if (!start) return;
  originalObserver_ = start->originalObserver_;
  options_ = start->options_;
  changeBlock_ = start->changeBlock_;
  target_ = start->target_;
  action_ = start->action_;
}

std::optional<OVMethodSignature> OVReceptionistStartSubscriptionRequest::methodSignatureForHandler_selector_keyPath(
    const Object& handler, Selector selector, const Ref<String>& keyPath) {
  if (selector) {
    if (!handler.respondsToSelector(selector)) return std::nullopt;
    return OVMethodSignature{selector, selector.signatureArgumentCount()};
  }
  if (!keyPath) return std::nullopt;
  const std::string word = keyPath->stringWithCapitalizedFirstLetter()->utf8();
  for (const char* pattern : {"didChange{}OfObject:newValue:oldValue:", "didChange{}OfObject:newValue:",
                              "didChange{}OfObject:", "didChange{}"}) {
    const Selector candidate = Selector::named(fmt::format(fmt::runtime(pattern), word));
    if (handler.respondsToSelector(candidate))
      return OVMethodSignature{candidate, candidate.signatureArgumentCount()};
  }
  return std::nullopt;
}

OVReceptionistChangeBlock
OVReceptionistStartSubscriptionRequest::changeBlockForReceptionist_forKeyPath_object_handler_selector_options(
    OVReceptionist&, const Ref<String>& keyPath, const Id&, const Id& handler, Selector& selector,
    std::uint64_t& options) {
  if (!handler) return nullptr;
  const auto signature = methodSignatureForHandler_selector_keyPath(*handler, selector, keyPath);
  if (!signature) return nullptr;
  selector = signature->selector;
  const std::size_t arguments = signature->numberOfArguments;
  if (arguments == 4) options |= NSKeyValueObservingOptionNew;
  else if (arguments >= 5) options |= NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld;
  return [weakHandler = WeakRef<Object>(handler), method = signature->selector,
          arguments](const Ref<OVReceptionistChangeInfo>& change) {
    Id target = weakHandler.lock();
    if (!target) return;
    target->performSelector(method, arguments >= 3 ? change->changedObject() : nullptr,
                            arguments >= 4 ? change->newValue() : nullptr,
                            arguments >= 5 ? change->oldValue() : nullptr);
  };
}

Ref<OVReceptionistSubscriptionInfo>
OVReceptionistStartSubscriptionRequest::buildSubscriptionInfoForReceptionist_forKeyPath_object(
    OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object) {
  auto info = OVReceptionistSubscriptionRequest::buildSubscriptionInfoForReceptionist_forKeyPath_object(
      receptionist, keyPath, object);
  info->setOriginalObserver(originalObserver_);
  std::uint64_t options = options_;
  OVReceptionistChangeBlock block = changeBlock_;
  if (!block) {
    Selector action = action_;
    block = changeBlockForReceptionist_forKeyPath_object_handler_selector_options(
        receptionist, keyPath, object, target(), action, options);
    // No callback can be built: such a subscription is not started.
    if (!block) return nullptr;
  }
  info->setOptions(options);
  info->setChangeBlock(std::move(block));
  return info;
}

void OVReceptionistStartSubscriptionRequest::performForReceptionist_forKeyPath_object(
    OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object) {
  if (auto info = buildSubscriptionInfoForReceptionist_forKeyPath_object(receptionist, keyPath, object))
    receptionist.startObservationWithInfo_object(info, object);
}

Ref<OVReceptionistStopSubscriptionRequest> OVReceptionistStopSubscriptionRequest::request() {
  return make<OVReceptionistStopSubscriptionRequest>();
}

Ref<OVReceptionistSubscriptionRequest> OVReceptionistStopSubscriptionRequest::makeEmpty() const {
  return make<OVReceptionistStopSubscriptionRequest>();
}

void OVReceptionistStopSubscriptionRequest::performForReceptionist_forKeyPath_object(
    OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object) {
  receptionist.stopObservationWithInfo_object(
      buildSubscriptionInfoForReceptionist_forKeyPath_object(receptionist, keyPath, object), object);
}

// -- Subscription and change records ----------------------------------------------

Ref<OVReceptionistSubscriptionInfo> OVReceptionistSubscriptionInfo::info() {
  return make<OVReceptionistSubscriptionInfo>();
}

Ref<OVReceptionistSubscriptionInfo> OVReceptionistSubscriptionInfo::initWithPrototype(
    const Ref<OVReceptionistSubscriptionInfo>& prototype) {
  auto info = make<OVReceptionistSubscriptionInfo>();
  if (prototype) info->copyFrom(*prototype);
  return info;
}

void OVReceptionistSubscriptionInfo::copyFrom(const OVReceptionistSubscriptionInfo& prototype) {
  originalObserver_ = prototype.originalObserver_;
  observedObjectHolder_ = prototype.observedObjectHolder_;
  keyPath_ = prototype.keyPath_;
  options_ = prototype.options_;
  context_ = prototype.context_;
  changeBlock_ = prototype.changeBlock_;
}

void OVReceptionistSubscriptionInfo::setObservedObjectHolder(const Ref<OVObjectHolder>& holder) {
  observedObjectHolder_ = holder ? std::static_pointer_cast<OVObjectHolder>(holder->copy()) : nullptr;
}

void OVReceptionistSubscriptionInfo::setKeyPath(const Ref<String>& keyPath) {
  keyPath_ = keyPath ? std::static_pointer_cast<String>(keyPath->copy()) : nullptr;
}

const OVReceptionistChangeBlock& OVReceptionistSubscriptionInfo::changeBlock() const {
  static const OVReceptionistChangeBlock& none = *new OVReceptionistChangeBlock;
  return changeBlock_ ? *changeBlock_ : none;
}

void OVReceptionistSubscriptionInfo::setChangeBlock(OVReceptionistChangeBlock block) {
  changeBlock_ = block ? std::make_shared<const OVReceptionistChangeBlock>(std::move(block)) : nullptr;
}

bool OVReceptionistSubscriptionInfo::isEqual(const Object* other) const {
  auto* info = dynamic_cast<const OVReceptionistSubscriptionInfo*>(other);
  return info && isEqualObject_toObject(observedObjectHolder_, info->observedObjectHolder_) &&
         isEqualObject_toObject(keyPath_, info->keyPath_);
}

std::size_t OVReceptionistSubscriptionInfo::hash() const {
  return (observedObjectHolder_ ? observedObjectHolder_->hash() : 0) ^ (keyPath_ ? keyPath_->hash() : 0);
}

Id OVReceptionistSubscriptionInfo::copy() const {
  auto info = make<OVReceptionistSubscriptionInfo>();
  info->copyFrom(*this);
  return info;
}

void OVReceptionistSubscriptionInfo::notifyChangeOfObject_keyPath_change_isInitial(
    const Id& object, const Ref<String>&, const Ref<Dictionary>& change, bool isInitial) {
  if (isPrior(change) && !(options_ & NSKeyValueObservingOptionPrior)) return;
  if (!changeBlock_) return;
  const auto block = changeBlock_;  // the subscriber may replace this record's callback
  auto changeInfo = buildChangeInfoWithChangeDictionary_changedObject_isInitial(change, object, isInitial);
  if (isStopped()) return;  // checked last: a stop that returned before this point is honoured
  (*block)(changeInfo);
}

Ref<OVReceptionistChangeInfo>
OVReceptionistSubscriptionInfo::buildChangeInfoWithChangeDictionary_changedObject_isInitial(
    const Ref<Dictionary>& change, const Id& object, bool isInitial) {
  auto info = OVReceptionistChangeInfo::initWithPrototype(
      std::static_pointer_cast<OVReceptionistSubscriptionInfo>(Object::self()));
  info->setChangedObject(object);
  info->setChangeDictionary(change);
  info->setInitial(isInitial);
  return info;
}

Ref<OVReceptionistChangeInfo> OVReceptionistChangeInfo::initWithPrototype(
    const Ref<OVReceptionistSubscriptionInfo>& prototype) {
  auto info = make<OVReceptionistChangeInfo>();
  if (prototype) info->copyFrom(*prototype);
  return info;
}

void OVReceptionistChangeInfo::setChangeDictionary(const Ref<Dictionary>& change) {
  changeDictionary_ = change ? std::static_pointer_cast<Dictionary>(change->copy()) : nullptr;
}

Id OVReceptionistChangeInfo::newValue() const {
  Id value = changeDictionary_ ? changeDictionary_->objectForKey(NSKeyValueChangeNewKey) : nullptr;
  return value ? value->nonNullObject() : nullptr;
}

Id OVReceptionistChangeInfo::oldValue() const {
  Id value = changeDictionary_ ? changeDictionary_->objectForKey(NSKeyValueChangeOldKey) : nullptr;
  return value ? value->nonNullObject() : nullptr;
}

bool OVReceptionistChangeInfo::isChanged() const { return !isEqualObject_toObject(newValue(), oldValue()); }

// -- Handling record ---------------------------------------------------------------

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
  const bool prior = isPrior(copy);
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
