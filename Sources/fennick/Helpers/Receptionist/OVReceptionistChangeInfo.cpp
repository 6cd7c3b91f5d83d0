#include "fennick/Helpers/Receptionist/OVReceptionistChangeInfo.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Null.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVReceptionistChangeInfo) {}

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

}  // namespace fennick
