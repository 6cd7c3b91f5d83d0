#pragma once
// Conversions between C++ values and runtime objects, used by key-value coding
// and by the method tables: scalars box into Number, text into String, and
// object references pass through with a checked downcast.
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <string>
#include <string_view>
#include <type_traits>

namespace fennick {

namespace detail {
template <class T>
struct IsRef : std::false_type {};
template <class U>
struct IsRef<std::shared_ptr<U>> : std::true_type {
  using Element = U;
};
template <class T>
using Bare = std::remove_cvref_t<T>;

[[noreturn]] void throwUnboxMismatch(const Id& value, const char* expected);
// Instantiated only for an unsupported type, so that the compiler's
// diagnostic names the type (as CannotBox<T>) beside the list of what works.
template <class Unsupported>
struct CannotBox {
  static_assert(sizeof(Unsupported) == 0,
                "fennick::box cannot box this type (named in CannotBox<...>); it boxes Ref<T> and Id, "
                "bool, integers, floating point, enumerations, and text convertible to std::string_view");
};
template <class Unsupported>
struct CannotUnbox {
  static_assert(sizeof(Unsupported) == 0,
                "fennick::unbox cannot unbox to this type (named in CannotUnbox<...>); it unboxes to Id, "
                "Ref<T>, bool, integers, floating point, enumerations and std::string");
};

}  // namespace detail

/// A runtime object for a C++ value.
template <class T>
Id box(T&& value) {
  using V = detail::Bare<T>;
  if constexpr (detail::IsRef<V>::value) {
    return std::static_pointer_cast<Object>(std::forward<T>(value));
  } else if constexpr (std::is_enum_v<V>) {
    return Number::of(static_cast<std::underlying_type_t<V>>(value));
  } else if constexpr (std::is_arithmetic_v<V>) {
    return Number::of(value);
  } else if constexpr (std::is_convertible_v<const V&, std::string_view>) {
    return String::string(std::string_view(value));
  } else {
    detail::CannotBox<V>{};
  }
}

/// The C++ value of a runtime object. Object references are checked casts;
/// scalars need a Number, text needs a String. A mismatch throws Exception
/// (NSInvalidArgumentException).
template <class T>
T unbox(const Id& value) {
  using V = detail::Bare<T>;
  if constexpr (std::is_same_v<V, Id>) {
    return value;
  } else if constexpr (detail::IsRef<V>::value) {
    using Element = typename detail::IsRef<V>::Element;
    if (!value) return nullptr;
    auto cast = std::dynamic_pointer_cast<Element>(value);
    if (!cast) detail::throwUnboxMismatch(value, "an object of another class");
    return cast;
  } else if constexpr (std::is_arithmetic_v<V> || std::is_enum_v<V>) {
    auto* number = Number::dynamicCastObject(value.get());
    if (!number) detail::throwUnboxMismatch(value, "a number");
    if constexpr (std::is_same_v<V, bool>) return number->boolValue();
    else if constexpr (std::is_floating_point_v<V>) return static_cast<V>(number->doubleValue());
    else if constexpr (std::is_enum_v<V>) return static_cast<V>(number->integerValue());
    else if constexpr (std::is_signed_v<V>) return static_cast<V>(number->integerValue());
    else return static_cast<V>(number->unsignedIntegerValue());
  } else if constexpr (std::is_same_v<V, std::string>) {
    auto* string = String::dynamicCastObject(value.get());
    if (!string) detail::throwUnboxMismatch(value, "a string");
    return string->utf8();
  } else {
    detail::CannotUnbox<V>{};
  }
}

/// Whether a C++ type boxes into a scalar (which refuses nil).
template <class T>
inline constexpr bool isScalarBox =
    std::is_arithmetic_v<detail::Bare<T>> || std::is_enum_v<detail::Bare<T>>;

}  // namespace fennick
