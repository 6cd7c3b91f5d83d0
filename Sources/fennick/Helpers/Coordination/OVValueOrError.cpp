#include "fennick/Helpers/Coordination/OVValueOrError.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Coding/Coder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVValueOrError) {
  builder.coding();
  builder.property("value", &OVValueOrError::value);
  builder.property("error", &OVValueOrError::error);
}
// Archives name the class before any instance exists.
FENNICK_REGISTER_CLASS(OVValueOrError);

Ref<OVValueOrError> OVValueOrError::initWithValue(const Id& value) { return make<OVValueOrError>(value, nullptr); }

Ref<OVValueOrError> OVValueOrError::initWithError(const Ref<Error>& error) {
  return make<OVValueOrError>(nullptr, error);
}

Ref<OVValueOrError> OVValueOrError::me() const {
  return std::const_pointer_cast<OVValueOrError>(std::static_pointer_cast<const OVValueOrError>(self()));
}

Ref<OVValueOrError> OVValueOrError::liftValue(const ValueTransform& transform) const {
  Id current = value();
  if (!current) return me();
  return initWithValue(transform(current));
}

Ref<OVValueOrError> OVValueOrError::liftError(const ErrorTransform& transform) const {
  Ref<Error> current = error();
  if (!current) return me();
  return initWithError(transform(current));
}

void OVValueOrError::onValue(const std::function<void(const Id&)>& consumer) const {
  if (Id current = value()) consumer(current);
}

void OVValueOrError::onError(const std::function<void(const Ref<Error>&)>& consumer) const {
  if (Ref<Error> current = error()) consumer(current);
}

Id OVValueOrError::copy() const { return me(); }

std::string OVValueOrError::description() const {
  Id v = value();
  Ref<Error> e = error();
  return fmt::format("<OVValueOrError: value={} error={}>", v ? v->description() : "(null)",
                     e ? e->description() : "(null)");
}

void OVValueOrError::encodeWithCoder(Coder& coder) const {
  coder.encodeObject_forKey(value(), "value");
  coder.encodeObject_forKey(error(), "error");
}

void OVValueOrError::initWithCoder(Coder& coder) {
  value_.store(coder.decodeObjectOfClass_forKey(Object::staticClass(), "value"));
  error_.store(Error::dynamicCastObject(coder.decodeObjectOfClass_forKey(Error::staticClass(), "error")));
}

}  // namespace fennick
