#include "fennick/Helpers/Proactor/OVProactor.h"

#include "fennick/Dispatch/OVDispatchQueue.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVProactor) {}

OVProactor::OVProactor() : internalQueue_(OVBuildInternalDispatchQueue("Proactor")) {}

Ref<dispatch::Queue> OVProactor::invocationQueue() { return dispatch::global(QOS_CLASS_UTILITY); }

Ref<OVProactor> OVProactor::init() { return initWithDelegate(nullptr); }

Ref<OVProactor> OVProactor::initWithDelegate(const Id& delegate) {
  auto proactor = make<OVProactor>();
  proactor->delegate_ = delegate;
  return proactor;
}

Id OVProactor::delegate() const {
  std::lock_guard lock(delegateMutex_);
  return delegate_.lock();
}

void OVProactor::setDelegate(const Id& delegate) {
  std::lock_guard lock(delegateMutex_);
  delegate_ = delegate;
}

Ref<OVProactorGroup> OVProactor::addGroupWithID_startsActionAutomatically_handlerBlock(
    const Id& identifier, bool startsActionAutomatically, OVProactorHandler handler) {
  auto group = OVProactorGroup::initWithIdentifier_proactor_startsActionAutomatically_handlerBlock(
      identifier, std::static_pointer_cast<OVProactor>(self()), startsActionAutomatically,
      std::move(handler));
  internalQueue_->sync([&] { groupsByID_->setObject_forKey(group, identifier); });
  return group;
}

Ref<OVProactorGroup> OVProactor::addGroupWithID_startsActionAutomatically_delegateHandlerSelector(
    const Id& identifier, bool startsActionAutomatically, Selector selector) {
  OVProactorHandler handler = [selector](const Ref<OVProactorAction>& action) {
    auto group = action->group();
    auto proactor = group ? group->proactor() : nullptr;
    Id delegate = proactor ? proactor->delegate() : nullptr;
    if (!delegate) return;
    invocationQueue()->async([delegate, selector, action] { delegate->performSelector(selector, action); });
  };
  return addGroupWithID_startsActionAutomatically_handlerBlock(identifier, startsActionAutomatically,
                                                               std::move(handler));
}

Ref<OVProactorGroup> OVProactor::groupWithID(const Id& identifier) const {
  return internalQueue_->sync(
      [&] { return OVProactorGroup::castObject(groupsByID_->objectForKey(identifier)); });
}

}  // namespace fennick
