#include "fennick/Helpers/Data/OVPropertyReflection.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

#include <algorithm>

namespace fennick {

FENNICK_DEFINE_CLASS(OVPropertyReflection) {}

namespace {
ClassList withoutDuplicates(const ClassList& classes) {
  ClassList unique;
  for (const Class* cls : classes)
    if (cls && std::find(unique.begin(), unique.end(), cls) == unique.end()) unique.push_back(cls);
  return unique;
}
}  // namespace

OVPropertyReflection::OVPropertyReflection(Ref<String> key, ClassList objectClasses, Id defaultValue,
                                           Ref<ValueTransformer> valueTransformer)
    : key_(std::move(key)),
      objectClasses_(std::move(objectClasses)),
      defaultValue_(std::move(defaultValue)),
      valueTransformer_(std::move(valueTransformer)) {}

Ref<OVPropertyReflection> OVPropertyReflection::initWithKey_objectClasses_defaultValue_valueTransformer(
    std::string_view key, const ClassList& objectClasses, const Id& defaultValue,
    const Ref<ValueTransformer>& valueTransformer) {
  return make<OVPropertyReflection>(String::string(key), withoutDuplicates(objectClasses), defaultValue,
                                    valueTransformer);
}

Id OVPropertyReflection::serializedValue(const Id& value) const {
  return valueTransformer_ ? valueTransformer_->transformedValue(value) : value;
}

Id OVPropertyReflection::deserializedValue(const Id& value) const {
  return valueTransformer_ ? valueTransformer_->reverseTransformedValue(value) : value;
}

Id OVPropertyReflection::decodeValueFromDecoder(Coder& decoder) const {
  Id value = deserializedValue(decoder.decodeObjectOfClasses_forKey(objectClasses_, key_->view()));
  return value ? value : defaultValue_;
}

void OVPropertyReflection::encodeValue_encoder(const Id& value, Coder& encoder) const {
  encoder.encodeObject_forKey(serializedValue(value), key_->view());
}

bool OVPropertyReflection::isEqual(const Object* other) const {
  if (const auto* reflection = dynamicCastObject(other)) return key_->isEqual(reflection->key_.get());
  return Object::isEqual(other);
}

std::string OVPropertyReflection::description() const {
  std::string classes;
  for (const Class* cls : objectClasses_) classes += (classes.empty() ? "" : ", ") + cls->name();
  return fmt::format("<OVPropertyReflection {} ({})>", key_->utf8(), classes);
}

Id OVPropertyReflection::copy() const { return std::const_pointer_cast<Object>(self()); }

}  // namespace fennick
