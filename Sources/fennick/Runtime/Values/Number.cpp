#include "fennick/Runtime/Values/Number.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

#include <array>
#include <bit>
#include <cmath>
#include <functional>

namespace fennick {

namespace {

__extension__ typedef __int128 Int128;

constexpr std::int64_t kSmallMin = -1;
constexpr std::int64_t kSmallMax = 255;

// The integral value of an integral number, widened so that signed and
// unsigned values compare exactly.
Int128 wideValue(Number::Kind kind, std::uint64_t bits) {
  if (kind == Number::Kind::Unsigned) return static_cast<Int128>(bits);
  return static_cast<Int128>(static_cast<std::int64_t>(bits));
}

std::partial_ordering compareIntegerToDouble(Int128 integer, double value) {
  if (std::isnan(value)) return std::partial_ordering::unordered;
  if (value >= 0x1p64) return std::partial_ordering::less;
  if (value < -0x1p63) return std::partial_ordering::greater;
  const double whole = std::trunc(value);
  const Int128 truncated = static_cast<Int128>(whole);
  if (integer != truncated) return integer <=> truncated;
  return 0.0 <=> (value - whole);
}

std::size_t hashInteger(Int128 value) {
  const auto low = static_cast<std::uint64_t>(value);
  const auto high = static_cast<std::uint64_t>(value >> 64);
  return std::hash<std::uint64_t>()(low ^ (high * 0x9E3779B97F4A7C15ull));
}

}  // namespace

FENNICK_DEFINE_CLASS(Number) {
  builder.archiveNames({"NSNumber"});
  builder.property("boolValue", &Number::boolValue);
  builder.property("integerValue", &Number::integerValue);
  builder.property("doubleValue", &Number::doubleValue);
}

Ref<Number> Number::numberWithBool(bool value) {
  static const Ref<Number>& yes = *new Ref<Number>(make<Number>(Kind::Bool, 1));
  static const Ref<Number>& no = *new Ref<Number>(make<Number>(Kind::Bool, 0));
  return value ? yes : no;
}

Ref<Number> Number::numberWithInteger(std::int64_t value) {
  static const auto& cache = *new auto([] {
    std::array<Ref<Number>, kSmallMax - kSmallMin + 1> small;
    for (std::int64_t v = kSmallMin; v <= kSmallMax; ++v)
      small[static_cast<std::size_t>(v - kSmallMin)] =
          make<Number>(Kind::Signed, static_cast<std::uint64_t>(v));
    return small;
  }());
  if (value >= kSmallMin && value <= kSmallMax)
    return cache[static_cast<std::size_t>(value - kSmallMin)];
  return make<Number>(Kind::Signed, static_cast<std::uint64_t>(value));
}

Ref<Number> Number::numberWithUnsignedInteger(std::uint64_t value) {
  return make<Number>(Kind::Unsigned, value);
}

Ref<Number> Number::numberWithDouble(double value) {
  return make<Number>(Kind::Double, std::bit_cast<std::uint64_t>(value));
}

bool Number::boolValue() const noexcept {
  return kind_ == Kind::Double ? doubleValue() != 0.0 : bits_ != 0;
}

std::int64_t Number::integerValue() const noexcept {
  if (kind_ != Kind::Double) return static_cast<std::int64_t>(bits_);
  const double value = doubleValue();
  if (std::isnan(value)) return 0;
  if (value >= 0x1p63) return INT64_MAX;
  if (value < -0x1p63) return INT64_MIN;
  return static_cast<std::int64_t>(value);
}

std::uint64_t Number::unsignedIntegerValue() const noexcept {
  if (kind_ != Kind::Double) return bits_;
  const double value = doubleValue();
  if (std::isnan(value) || value <= -1.0) return static_cast<std::uint64_t>(integerValue());
  if (value >= 0x1p64) return UINT64_MAX;
  return static_cast<std::uint64_t>(value);
}

double Number::doubleValue() const noexcept {
  switch (kind_) {
    case Kind::Double: return std::bit_cast<double>(bits_);
    case Kind::Unsigned: return static_cast<double>(bits_);
    default: return static_cast<double>(static_cast<std::int64_t>(bits_));
  }
}

std::partial_ordering Number::compare(const Number& other) const noexcept {
  if (kind_ == other.kind_ && kind_ != Kind::Double) {
    if (kind_ == Kind::Unsigned) return bits_ <=> other.bits_;
    return static_cast<std::int64_t>(bits_) <=> static_cast<std::int64_t>(other.bits_);
  }
  const bool mineDouble = kind_ == Kind::Double;
  const bool theirsDouble = other.kind_ == Kind::Double;
  if (mineDouble && theirsDouble) return doubleValue() <=> other.doubleValue();
  if (!mineDouble && !theirsDouble) return wideValue(kind_, bits_) <=> wideValue(other.kind_, other.bits_);
  if (theirsDouble) return compareIntegerToDouble(wideValue(kind_, bits_), other.doubleValue());
  return 0 <=> compareIntegerToDouble(wideValue(other.kind_, other.bits_), doubleValue());
}

bool Number::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* number = Number::dynamicCastObject(other);
  return number && compare(*number) == std::partial_ordering::equivalent;
}

std::size_t Number::hash() const {
  if (kind_ != Kind::Double) return hashInteger(wideValue(kind_, bits_));
  const double value = doubleValue();
  // Integral doubles hash as the integer they equal.
  if (value == std::trunc(value) && value >= -0x1p63 && value < 0x1p64)
    return hashInteger(static_cast<Int128>(value));
  return std::hash<std::uint64_t>()(bits_);
}

std::string Number::description() const {
  switch (kind_) {
    case Kind::Double: return fmt::format("{}", doubleValue());
    case Kind::Unsigned: return fmt::format("{}", bits_);
    default: return fmt::format("{}", static_cast<std::int64_t>(bits_));
  }
}

Id Number::copy() const { return std::const_pointer_cast<Object>(self()); }

}  // namespace fennick
