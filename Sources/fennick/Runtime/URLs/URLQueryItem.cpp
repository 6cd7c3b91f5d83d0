#include "fennick/Runtime/URLs/URLQueryItem.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(URLQueryItem) {}

Ref<URLQueryItem> URLQueryItem::queryItemWithName_value(std::string name, std::optional<std::string> value) {
  return make<URLQueryItem>(std::move(name), std::move(value));
}

std::string URLQueryItem::description() const { return value_ ? name_ + "=" + *value_ : name_; }

bool URLQueryItem::isEqual(const Object* other) const {
  auto* item = dynamicCastObject(other);
  return item && item->name_ == name_ && item->value_ == value_;
}

std::size_t URLQueryItem::hash() const { return std::hash<std::string>()(name_); }

Id URLQueryItem::copy() const { return std::const_pointer_cast<Object>(self()); }

}  // namespace fennick
