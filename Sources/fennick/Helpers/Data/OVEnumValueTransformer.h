#pragma once
// Turns integer enumeration values into readable strings and back, so that a
// property reflection (OVPropertyReflection) archives an enumeration as text:
//
//   auto modes = OVEnumValueTransformer::initWithMapping_defaultValue(
//       Dictionary::dictionaryWithObjectsAndKeys({{Number::of(0), "none"_s}, {Number::of(1), "all"_s}}), 0);
//   modes->transformedValue(Number::of(1));        // "all"
//   modes->reverseTransformedValue("other"_s);     // 0, the default
//
// Immutable after creation; thread-safe.
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/Observation/ValueTransformer.h"

#include <cstdint>

namespace fennick {

class OVEnumValueTransformer : public ValueTransformer {
  FENNICK_DECLARE_CLASS(OVEnumValueTransformer, ValueTransformer)

 public:
  /// `mapping` holds number -> string; the inverse is derived from it (when
  /// two numbers share a string, the later one wins). `defaultValue` is the
  /// number for strings the mapping lacks.
  static Ref<OVEnumValueTransformer> initWithMapping_defaultValue(const Ref<Dictionary>& mapping,
                                                                 std::int64_t defaultValue);
  /// No mapping, default 0.
  static Ref<OVEnumValueTransformer> init();

  const Ref<Dictionary>& mapping() const noexcept { return mapping_; }
  const Ref<Dictionary>& inverseMapping() const noexcept { return inverseMapping_; }
  std::int64_t defaultValue() const noexcept { return defaultValue_; }

  /// The string for an enumeration value, or nil (there is no default string).
  Ref<String> transformedEnumValue(std::int64_t value) const;
  /// The enumeration value for a string, or the default.
  std::int64_t transformedStringValue(const Ref<String>& value) const;

  /// transformedEnumValue of the value read as a number (nil and other
  /// objects read as 0).
  Id transformedValue(const Id& value) const override;
  /// A number holding transformedStringValue of the value read as a string
  /// (anything else counts as an unknown string); never nil.
  Id reverseTransformedValue(const Id& value) const override;
  /// String.
  const Class* transformedValueClass() const override;
  bool allowsReverseTransformation() const override { return true; }

 protected:
  OVEnumValueTransformer(Ref<Dictionary> mapping, Ref<Dictionary> inverseMapping, std::int64_t defaultValue);

 private:
  const Ref<Dictionary> mapping_;
  const Ref<Dictionary> inverseMapping_;
  const std::int64_t defaultValue_;
};

}  // namespace fennick
