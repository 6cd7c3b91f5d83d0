#pragma once
// Names used by bindings (Object::bind_toObject_withKeyPath_options and
// friends), with the platform's string values: the keys of the dictionary that
// infoForBinding answers and the options a binding understands.
namespace fennick {

/// infoForBinding: the observed object (absent once it has been destroyed).
inline constexpr const char* NSObservedObjectKey = "NSObservedObject";
/// infoForBinding: the observed key path.
inline constexpr const char* NSObservedKeyPathKey = "NSObservedKeyPath";
/// infoForBinding: the options the binding was made with (never absent).
inline constexpr const char* NSOptionsKey = "NSOptions";

/// Option: a ValueTransformer applied to observed values (and reversed by
/// propagateValue_forBinding).
inline constexpr const char* NSValueTransformerBindingOption = "NSValueTransformer";
/// Option: the registered name of a ValueTransformer, used when the
/// NSValueTransformer option is absent.
inline constexpr const char* NSValueTransformerNameBindingOption = "NSValueTransformerName";
/// Option: the value given to the bound property instead of nil (or the null
/// marker) after transformation.
inline constexpr const char* NSNullPlaceholderBindingOption = "NSNullPlaceholder";

}  // namespace fennick
