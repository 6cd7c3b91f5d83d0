#include "fennick/Runtime/ObjectModel/Object.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Collections/Set.h"
#include "fennick/Runtime/Observation/Internal/AutomaticChange.h"
#include "fennick/Runtime/Observation/Internal/SideTable.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>

namespace fennick {

namespace {

std::string instanceLabel(const Object& object) {
  return fmt::format("<{} {}>", object.objectClass()->name(), static_cast<const void*>(&object));
}

}  // namespace

const Class* Object::staticClass() {
  static const Class* const cls = [] {
    auto* root = new Class("Object", nullptr);
    root->archiveName_ = "NSObject";
    detail::registerClass(root, {"NSObject"});
    return root;
  }();
  return cls;
}

Object::~Object() { delete side_.load(std::memory_order_acquire); }

const Class* Object::objectClass() const { return staticClass(); }

bool Object::isEqual(const Object* other) const { return other == this; }

std::size_t Object::hash() const { return reinterpret_cast<std::uintptr_t>(this); }

std::string Object::description() const {
  return fmt::format("<{}: {}>", objectClass()->name(), static_cast<const void*>(this));
}

Id Object::copy() const {
  throw Exception(NSInvalidArgumentException,
                  fmt::format("-[{} copyWithZone:]: unrecognized selector sent to instance {}",
                              objectClass()->name(), static_cast<const void*>(this)));
}

bool Object::respondsToSelector(Selector selector) const noexcept {
  return selector && objectClass()->instancesRespondToSelector(selector);
}

Id Object::performSelector(Selector selector, const Id& a, const Id& b, const Id& c) {
  const Method* method = selector ? objectClass()->methodForSelector(selector) : nullptr;
  if (!method)
    throw Exception(NSInvalidArgumentException,
                    fmt::format("-[{} {}]: unrecognized selector sent to instance {}",
                                objectClass()->name(), selector.name(),
                                static_cast<const void*>(this)));
  const Id arguments[3] = {a, b, c};
  return method->implementation(*this, arguments);
}

// -- Key-value coding ---------------------------------------------------------------

Id Object::valueForKey(std::string_view key) const {
  if (const Property* property = objectClass()->propertyForKey(key)) return property->getter(*this);
  return valueForUndefinedKey(key);
}

void Object::setValueForKey(const Id& value, std::string_view key) {
  const Property* property = objectClass()->propertyForKey(key);
  if (!property || !property->setter) return setValueForUndefinedKey(value, key);
  if (!value && property->isScalar) return setNilValueForKey(key);
  if (!property->notifiesAutomatically) return property->setter(*this, value);
  ValueChangeScope change(*this, key);
  {
    const detail::AutomaticChangeFrame frame(*this, key);
    property->setter(*this, value);
  }
  change.commit();
}

Id Object::valueForKeyPath(std::string_view keyPath) const {
  const auto dot = keyPath.find('.');
  if (dot == std::string_view::npos) return valueForKey(keyPath);
  Id next = valueForKey(keyPath.substr(0, dot));
  return next ? next->valueForKeyPath(keyPath.substr(dot + 1)) : nullptr;
}

void Object::setValueForKeyPath(const Id& value, std::string_view keyPath) {
  const auto dot = keyPath.find('.');
  if (dot == std::string_view::npos) return setValueForKey(value, keyPath);
  if (Id next = valueForKey(keyPath.substr(0, dot))) next->setValueForKeyPath(value, keyPath.substr(dot + 1));
}

Id Object::valueForUndefinedKey(std::string_view key) const {
  throw Exception(NSUndefinedKeyException,
                  fmt::format("[{} valueForUndefinedKey:]: this class is not key value "
                              "coding-compliant for the key {}.",
                              instanceLabel(*this), key));
}

void Object::setValueForUndefinedKey(const Id&, std::string_view key) {
  throw Exception(NSUndefinedKeyException,
                  fmt::format("[{} setValue:forUndefinedKey:]: this class is not key value "
                              "coding-compliant for the key {}.",
                              instanceLabel(*this), key));
}

void Object::setNilValueForKey(std::string_view key) {
  throw Exception(NSInvalidArgumentException,
                  fmt::format("[{} setNilValueForKey]: could not set nil as the value for the key {}.",
                              instanceLabel(*this), key));
}

// -- Archiving ------------------------------------------------------------------------

void Object::encodeWithCoder(Coder&) const {
  throw Exception(NSInvalidArchiveOperationException,
                  fmt::format("-[{} encodeWithCoder:]: the class does not support coding",
                              objectClass()->name()));
}

void Object::initWithCoder(Coder&) {
  throw Exception(NSInvalidUnarchiveOperationException,
                  fmt::format("-[{} initWithCoder:]: the class does not support coding",
                              objectClass()->name()));
}

Id Object::nonNullObject() { return self(); }

namespace detail {

void throwUnboxMismatch(const Id& value, const char* expected) {
  throw Exception(NSInvalidArgumentException,
                  fmt::format("expected {}, got {}", expected,
                              value ? value->objectClass()->name() : std::string("nil")));
}

void abortBadMethod(const std::string& className, std::string_view selector, std::size_t parameters) {
  std::fprintf(stderr, "fennick: class %s registers method \"%.*s\" with %zu parameters\n",
               className.c_str(), static_cast<int>(selector.size()), selector.data(), parameters);
  std::abort();
}

}  // namespace detail

bool Object::isEqualObject_toObject(const Object* a, const Object* b) {
  if (a == b) return true;
  if (!a || !b) return false;
  return a->isEqual(b);
}

bool Object::isEqualObject_toObject(const Id& a, const Id& b) {
  return isEqualObject_toObject(a.get(), b.get());
}

}  // namespace fennick
