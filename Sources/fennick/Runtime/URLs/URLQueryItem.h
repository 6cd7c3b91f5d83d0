#pragma once
// One name-value pair of a URL's query ("name=value"), as URL components read
// and write them. Immutable.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <optional>
#include <string>

namespace fennick {

class URLQueryItem : public Object {
  FENNICK_DECLARE_CLASS(URLQueryItem, Object)

 public:
  /// A nil value writes the name alone, without "=".
  static Ref<URLQueryItem> queryItemWithName_value(std::string name, std::optional<std::string> value);

  const std::string& name() const noexcept { return name_; }
  const std::optional<std::string>& value() const noexcept { return value_; }

  /// "name=value", or "name" without a value.
  std::string description() const override;
  bool isEqual(const Object* other) const override;
  std::size_t hash() const override;
  /// Immutable: the receiver itself.
  Id copy() const override;

 protected:
  URLQueryItem(std::string name, std::optional<std::string> value)
      : name_(std::move(name)), value_(std::move(value)) {}

 private:
  const std::string name_;
  const std::optional<std::string> value_;
};

}  // namespace fennick
