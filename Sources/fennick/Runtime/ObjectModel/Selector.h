#pragma once
// Interned method names. Two selectors with the same name are the same value,
// so comparison and hashing are pointer operations.
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace fennick {

namespace detail {
struct SelectorName;
}

class Selector {
 public:
  /// The null selector ("no action").
  constexpr Selector() noexcept = default;
  /// The selector with this name, interned on first use. Thread-safe.
  static Selector named(std::string_view name);

  explicit operator bool() const noexcept { return data_ != nullptr; }
  /// The name; empty for the null selector.
  const std::string& name() const noexcept;
  /// Number of arguments a method with this name takes: one per colon.
  std::size_t parameterCount() const noexcept;
  /// The argument count of the method signature: colons + 2 (receiver and
  /// selector count as arguments).
  std::size_t signatureArgumentCount() const noexcept { return parameterCount() + 2; }

  friend bool operator==(Selector a, Selector b) noexcept { return a.data_ == b.data_; }
  std::size_t hash() const noexcept { return std::hash<const void*>()(data_); }

 private:
  explicit Selector(const detail::SelectorName* data) noexcept : data_(data) {}
  const detail::SelectorName* data_ = nullptr;
};

}  // namespace fennick

template <>
struct std::hash<fennick::Selector> {
  std::size_t operator()(fennick::Selector s) const noexcept { return s.hash(); }
};
