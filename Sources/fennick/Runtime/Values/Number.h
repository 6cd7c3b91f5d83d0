#pragma once
// Boxed scalars: booleans, signed and unsigned integers, doubles. Numbers are
// equal across kinds when their values are equal (1, 1u, 1.0 and true), and
// hash consistently with that.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <compare>
#include <cstdint>
#include <type_traits>

namespace fennick {

class Number : public Object {
  FENNICK_DECLARE_CLASS(Number, Object)

 public:
  enum class Kind { Bool, Signed, Unsigned, Double };

  static Ref<Number> numberWithBool(bool value);
  static Ref<Number> numberWithInteger(std::int64_t value);
  static Ref<Number> numberWithUnsignedInteger(std::uint64_t value);
  static Ref<Number> numberWithDouble(double value);
  /// The right constructor for any arithmetic type.
  template <class T>
    requires std::is_arithmetic_v<T>
  static Ref<Number> of(T value) {
    if constexpr (std::is_same_v<T, bool>) return numberWithBool(value);
    else if constexpr (std::is_floating_point_v<T>) return numberWithDouble(value);
    else if constexpr (std::is_signed_v<T>) return numberWithInteger(value);
    else return numberWithUnsignedInteger(value);
  }

  Kind kind() const noexcept { return kind_; }
  bool boolValue() const noexcept;
  std::int64_t integerValue() const noexcept;
  std::uint64_t unsignedIntegerValue() const noexcept;
  double doubleValue() const noexcept;
  /// Exact numeric order across kinds (no rounding through double).
  std::partial_ordering compare(const Number& other) const noexcept;

  bool isEqual(const Object* other) const override;
  std::size_t hash() const override;
  std::string description() const override;
  Id copy() const override;

 protected:
  Number(Kind kind, std::uint64_t bits) : kind_(kind), bits_(bits) {}

 private:
  Kind kind_;
  std::uint64_t bits_;  // the value's bit pattern for its kind
};

}  // namespace fennick
