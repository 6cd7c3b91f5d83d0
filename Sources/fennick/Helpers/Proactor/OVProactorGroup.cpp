#include "fennick/Helpers/Proactor/OVProactorGroup.h"

#include "fennick/Helpers/Proactor/OVProactor.h"
#include "fennick/Runtime/Values/Null.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVProactorGroup) {}

OVProactorGroup::OVProactorGroup(Id identifier, const Ref<OVProactor>& proactor,
                                 bool startsActionAutomatically, OVProactorHandler handler)
    : identifier_(identifier ? identifier->copy() : nullptr),
      proactor_(proactor),
      startsActionAutomatically_(startsActionAutomatically),
      handlerBlock_(std::move(handler)),
      internalQueue_(proactor ? proactor->internalQueue() : nullptr) {}

Ref<OVProactorGroup> OVProactorGroup::initWithIdentifier_proactor_startsActionAutomatically_handlerBlock(
    const Id& identifier, const Ref<OVProactor>& proactor, bool startsActionAutomatically,
    OVProactorHandler handler) {
  return make<OVProactorGroup>(identifier, proactor, startsActionAutomatically, std::move(handler));
}

OVProactorHandler OVProactorGroup::handlerBlock() const {
  std::lock_guard lock(handlerMutex_);
  return handlerBlock_;
}

void OVProactorGroup::setHandlerBlock(OVProactorHandler handler) {
  std::lock_guard lock(handlerMutex_);
  handlerBlock_ = std::move(handler);
}

Ref<OVProactorAction> OVProactorGroup::actionForArgument(const Id& argument) {
  const Id key = argument ? argument : Id(Null::null());
  auto findOrMake = [&] {
    if (auto existing = OVProactorAction::castObject(actionsByArgument_->objectForKey(key))) return existing;
    auto action = OVProactorAction::initWithGroup_argument(std::static_pointer_cast<OVProactorGroup>(self()), key);
    actionsByArgument_->safeSetObject_forKey(action, key);
    return action;
  };
  return internalQueue_ ? internalQueue_->sync(findOrMake) : findOrMake();
}

}  // namespace fennick
