#pragma once
// Run-time class records: a name, a superclass, a method table (selectors), a
// property table (key-value coding), key-path dependencies for observation and
// an allocator for unarchiving. Records are built once, on first use, by
// ClassBuilder, and are immutable afterwards, so reading them needs no lock.
#include "fennick/Runtime/ObjectModel/Ref.h"
#include "fennick/Runtime/ObjectModel/Selector.h"

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace fennick {

class Object;

/// A method of the method table: called with the receiver and exactly
/// `parameterCount` object arguments; scalar results come back boxed.
struct Method {
  using Implementation = std::function<Id(Object& receiver, const Id* arguments)>;
  Selector selector;
  std::size_t parameterCount = 0;
  Implementation implementation;
};

/// A key-value coding property.
struct Property {
  std::string key;
  std::function<Id(const Object&)> getter;
  /// Null for read-only properties.
  std::function<void(Object&, const Id&)> setter;
  /// Scalar properties refuse nil (setNilValueForKey).
  bool isScalar = false;
  /// Setting through key-value coding sends will/did change notifications
  /// around the setter.
  bool notifiesAutomatically = false;
};

namespace detail {
struct StringHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view s) const noexcept {
    return std::hash<std::string_view>()(s);
  }
};
template <class V>
using StringMap = std::unordered_map<std::string, V, StringHash, std::equal_to<>>;
}  // namespace detail

class Class {
 public:
  Class(const Class&) = delete;
  Class& operator=(const Class&) = delete;

  const std::string& name() const noexcept { return name_; }
  const Class* superclass() const noexcept { return superclass_; }
  /// True for this class and every subclass of `other`.
  bool isSubclassOfClass(const Class* other) const noexcept;

  /// The method for a selector, looked up along the superclass chain.
  const Method* methodForSelector(Selector selector) const noexcept;
  bool instancesRespondToSelector(Selector selector) const noexcept {
    return methodForSelector(selector) != nullptr;
  }
  /// The key-value coding property for a key, along the superclass chain.
  const Property* propertyForKey(std::string_view key) const noexcept;
  /// Key paths whose changes also change `key` (keyPathsForValuesAffecting<Key>),
  /// merged along the superclass chain; empty when there are none.
  const std::vector<std::string>& keyPathsForValuesAffectingKey(std::string_view key) const noexcept;

  /// Name under which instances are archived ("NSArray" for Array).
  const std::string& archiveName() const noexcept { return archiveName_; }
  /// Whether instances encode and decode themselves.
  bool supportsCoding() const noexcept { return static_cast<bool>(allocator_); }
  bool supportsSecureCoding() const noexcept { return secureCoding_; }
  /// A blank instance for a decoder to fill; nullptr for classes without coding.
  Id allocateForDecoding() const;

  /// Makes the class's reflection (an OVClassReflection of the helpers layer,
  /// which owns the cache): the class's static makeReflection(), inherited by
  /// subclasses that declare none; nullptr when no class up the chain
  /// declares one.
  using ReflectionMaker = Id (*)();
  ReflectionMaker reflectionMaker() const noexcept { return reflectionMaker_; }

  /// The class registered under a name or archive name, or nullptr. Classes
  /// register when first used; FENNICK_REGISTER_CLASS registers at load.
  static const Class* named(std::string_view name);

 private:
  template <class T>
  friend class ClassBuilder;
  friend struct ClassRegistry;
  friend class Object;
  Class(std::string name, const Class* superclass);

  std::string name_;
  std::string archiveName_;
  std::vector<std::string> archiveAliases_;
  const Class* superclass_;
  std::unordered_map<Selector, Method> methods_;
  detail::StringMap<Property> properties_;
  detail::StringMap<std::vector<std::string>> dependencies_;
  std::function<Id()> allocator_;
  bool secureCoding_ = false;
  ReflectionMaker reflectionMaker_ = nullptr;
};

namespace detail {
/// Adds a finished class record to the registry by name (and archive names).
void registerClass(const Class* cls, const std::vector<std::string>& archiveNames);
}  // namespace detail

}  // namespace fennick
