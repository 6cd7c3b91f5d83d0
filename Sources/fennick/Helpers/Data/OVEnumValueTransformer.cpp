#include "fennick/Helpers/Data/OVEnumValueTransformer.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Number.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVEnumValueTransformer) {}

OVEnumValueTransformer::OVEnumValueTransformer(Ref<Dictionary> mapping, Ref<Dictionary> inverseMapping,
                                               std::int64_t defaultValue)
    : mapping_(std::move(mapping)), inverseMapping_(std::move(inverseMapping)), defaultValue_(defaultValue) {}

Ref<OVEnumValueTransformer> OVEnumValueTransformer::initWithMapping_defaultValue(const Ref<Dictionary>& mapping,
                                                                                 std::int64_t defaultValue) {
  Ref<Dictionary> copy = mapping ? Dictionary::castObject(mapping->copy()) : Dictionary::dictionary();
  Ref<Dictionary> inverse = copy->dictionaryByInversingKeysAndValues();
  return make<OVEnumValueTransformer>(std::move(copy), std::move(inverse), defaultValue);
}

Ref<OVEnumValueTransformer> OVEnumValueTransformer::init() { return initWithMapping_defaultValue(nullptr, 0); }

Ref<String> OVEnumValueTransformer::transformedEnumValue(std::int64_t value) const {
  return String::dynamicCastObject(mapping_->objectForKey(Number::numberWithInteger(value)));
}

std::int64_t OVEnumValueTransformer::transformedStringValue(const Ref<String>& value) const {
  const auto* number = value ? Number::dynamicCastObject(inverseMapping_->objectForKey(value).get()) : nullptr;
  return number ? number->integerValue() : defaultValue_;
}

Id OVEnumValueTransformer::transformedValue(const Id& value) const {
  const auto* number = Number::dynamicCastObject(value.get());
  return transformedEnumValue(number ? number->integerValue() : 0);
}

Id OVEnumValueTransformer::reverseTransformedValue(const Id& value) const {
  return Number::numberWithInteger(transformedStringValue(String::dynamicCastObject(value)));
}

const Class* OVEnumValueTransformer::transformedValueClass() const { return String::staticClass(); }

}  // namespace fennick
