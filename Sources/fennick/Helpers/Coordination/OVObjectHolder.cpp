#include "fennick/Helpers/Coordination/OVObjectHolder.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

#include <fmt/format.h>

#include <cstdint>

namespace fennick {

FENNICK_DEFINE_CLASS(OVObjectHolder) { builder.property("object", &OVObjectHolder::object); }
FENNICK_DEFINE_CLASS(OVStrongObjectHolder) {}
FENNICK_DEFINE_CLASS(OVUnownedObjectHolder) {}
FENNICK_DEFINE_CLASS(OVWeakObjectHolder) { builder.property("weakObject", &OVWeakObjectHolder::weakObject); }

Ref<OVStrongObjectHolder> OVObjectHolder::strongHolderOfObject(const Id& object) {
  return OVStrongObjectHolder::initWithObject(object);
}

Ref<OVWeakObjectHolder> OVObjectHolder::weakHolderForObject(const Id& object) {
  return OVWeakObjectHolder::initWithObject(object);
}

Ref<OVUnownedObjectHolder> OVObjectHolder::unownedHolderForObject(const Id& object) {
  return OVUnownedObjectHolder::initWithObject(object);
}

Ref<OVObjectHolder> OVObjectHolder::init() { return make<OVObjectHolder>(); }

// The abstract holder ignores its object.
Ref<OVObjectHolder> OVObjectHolder::initWithObject(const Id&) { return init(); }

bool OVObjectHolder::isEqual(const Object* other) const {
  auto* holder = dynamic_cast<const OVObjectHolder*>(other);
  return holder && holder->objectAddress() == objectAddress();
}

std::size_t OVObjectHolder::hash() const { return reinterpret_cast<std::uintptr_t>(objectAddress()); }

std::string OVObjectHolder::description() const {
  return fmt::format("<{}: {}; object = {}>", objectClass()->name(), static_cast<const void*>(this),
                     static_cast<const void*>(objectAddress()));
}

Id OVObjectHolder::copy() const { return init(); }

Ref<OVStrongObjectHolder> OVStrongObjectHolder::initWithObject(const Id& object) {
  return make<OVStrongObjectHolder>(object);
}

Id OVStrongObjectHolder::copy() const { return initWithObject(object_); }

Ref<OVUnownedObjectHolder> OVUnownedObjectHolder::initWithObject(const Id& object) {
  return make<OVUnownedObjectHolder>(object.get(), object);
}

bool OVUnownedObjectHolder::isEqual(const Object* other) const {
  // Both branches compare addresses: the stored one of an unowned (or weak)
  // holder, the held object's of any other holder.
  if (auto* unowned = dynamic_cast<const OVUnownedObjectHolder*>(other)) return unowned->address_ == address_;
  return OVObjectHolder::isEqual(other);
}

Id OVUnownedObjectHolder::copy() const { return make<OVUnownedObjectHolder>(address_, reference_); }

Ref<OVWeakObjectHolder> OVWeakObjectHolder::initWithObject(const Id& object) {
  return make<OVWeakObjectHolder>(object.get(), object);
}

Id OVWeakObjectHolder::copy() const { return make<OVWeakObjectHolder>(address_, reference_); }

}  // namespace fennick
