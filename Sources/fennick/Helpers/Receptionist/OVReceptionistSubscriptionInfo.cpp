#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionInfo.h"

#include "fennick/Helpers/Receptionist/Internal/ReceptionistChanges.h"
#include "fennick/Helpers/Coordination/OVObjectHolder.h"
#include "fennick/Helpers/Receptionist/OVReceptionistChangeInfo.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVReceptionistSubscriptionInfo) {}

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
  if (detail::isPriorChange(change) && !(options_ & NSKeyValueObservingOptionPrior)) return;
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

}  // namespace fennick
