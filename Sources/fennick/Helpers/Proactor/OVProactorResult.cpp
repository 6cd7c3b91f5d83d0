#include "fennick/Helpers/Proactor/OVProactorResult.h"

#include "fennick/Helpers/Proactor/OVProactorAction.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVProactorResult) {}

Ref<OVProactorResult> OVProactorResult::initWithAction(const Ref<OVProactorAction>& action) {
  auto result = make<OVProactorResult>();
  result->weakAction_ = action;
  result->weakDelegate_ = action ? action->delegate() : nullptr;
  result->objectsByKey_ = Dictionary::dictionary();
  return result;
}

Ref<OVProactorAction> OVProactorResult::action() const { return action_ ? action_ : weakAction_.lock(); }

Id OVProactorResult::delegate() const { return delegate_ ? delegate_ : weakDelegate_.lock(); }

Id OVProactorResult::objectForKey(const Id& key) const { return key ? objectsByKey_->objectForKey(key) : nullptr; }

void OVProactorResult::setObject_forKey(const Id& object, const Id& key) {
  objectsByKey_->safeSetObject_forKey(object, key);
}

Id OVProactorResult::error() const { return objectsByKey_->objectForKey("error"); }

Id OVProactorResult::copy() const {
  auto owner = action();
  auto copy = make<OVProactorResult>();
  copy->action_ = owner;
  copy->weakAction_ = owner;
  copy->delegate_ = owner ? owner->delegate() : nullptr;
  copy->weakDelegate_ = copy->delegate_;
  copy->objectsByKey_ = Dictionary::castObject(objectsByKey_->mutableCopy());
  return copy;
}

}  // namespace fennick
