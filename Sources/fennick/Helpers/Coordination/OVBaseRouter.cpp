#include "fennick/Helpers/Coordination/OVBaseRouter.h"

#include "fennick/Helpers/Coordination/OVObjectHolder.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Set.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVBaseRouter) { builder.property("listners", &OVBaseRouter::listners); }

OVBaseRouter::OVBaseRouter() : listners_(Set::set()) {}

Ref<OVBaseRouter> OVBaseRouter::init() { return make<OVBaseRouter>(); }

void OVBaseRouter::addListner(const Id& listener) {
  if (listener) listners_->addObject(OVObjectHolder::unownedHolderForObject(listener));
}

void OVBaseRouter::removeListner(const Id& listener) {
  if (listener) listners_->removeObject(OVObjectHolder::unownedHolderForObject(listener));
}

void OVBaseRouter::listenToBlock(const std::function<void(const Id& listener)>& callback) const {
  if (!callback) return;
  const Ref<Set> snapshot = Set::setWithSet(listners_);
  for (const Id& member : *snapshot) {
    auto holder = OVObjectHolder::dynamicCastObject(member);
    if (Id listener = holder ? holder->object() : nullptr) callback(listener);
  }
}

}  // namespace fennick
