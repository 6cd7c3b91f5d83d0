#pragma once
// Value transformers turn a value into another one (and, where the transformer
// allows it, back again). Bindings apply them between the observed value and
// the bound property. Transformers are found by name in a process-wide,
// thread-safe registry, which starts with the standard ones:
//   "NSNegateBoolean"  a boolean negated (reversible),
//   "NSIsNil"          YES for nil (one way),
//   "NSIsNotNil"       YES for anything but nil (one way).
#include "fennick/Runtime/ObjectModel/Object.h"

#include <functional>
#include <string_view>

namespace fennick {

class Array;

inline constexpr const char* NSNegateBooleanTransformerName = "NSNegateBoolean";
inline constexpr const char* NSIsNilTransformerName = "NSIsNil";
inline constexpr const char* NSIsNotNilTransformerName = "NSIsNotNil";

class ValueTransformer : public Object {
  FENNICK_DECLARE_CLASS(ValueTransformer, Object)

 public:
  using Transform = std::function<Id(const Id&)>;

  /// A transformer that does nothing (the base behaviour): both directions
  /// answer the value unchanged.
  static Ref<ValueTransformer> init();
  /// A transformer made of functions. Without `reverse` it is one way:
  /// allowsReverseTransformation() is false.
  static Ref<ValueTransformer> valueTransformerWithBlocks(Transform forward, Transform reverse = nullptr);

  /// Registers `transformer` under `name`, replacing any other; nil removes
  /// the name. Thread-safe.
  static void setValueTransformer_forName(const Ref<ValueTransformer>& transformer, std::string_view name);
  /// The transformer registered under `name`, or nil. Thread-safe.
  static Ref<ValueTransformer> valueTransformerForName(std::string_view name);
  /// The registered names, sorted.
  static Ref<Array> valueTransformerNames();

  /// The class of the values that transformedValue answers (Object when
  /// unspecified). On the platform this is asked of the class; here each
  /// transformer answers for its class.
  virtual const Class* transformedValueClass() const;
  /// Whether reverseTransformedValue may be used. The default is true.
  virtual bool allowsReverseTransformation() const;
  /// The transformed value; the default answers `value` unchanged.
  virtual Id transformedValue(const Id& value) const;
  /// The value that transforms into `value`. The default answers
  /// transformedValue(value) when reverse transformation is allowed and throws
  /// Exception (NSInternalInconsistencyException) otherwise.
  virtual Id reverseTransformedValue(const Id& value) const;

 protected:
  ValueTransformer() = default;
};

}  // namespace fennick
