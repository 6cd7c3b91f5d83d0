#include "fennick/Runtime/ObjectModel/Class.h"

#include "fennick/Runtime/ObjectModel/Object.h"

#include <mutex>
#include <shared_mutex>

namespace fennick {

struct ClassRegistry {
  std::shared_mutex mutex;
  detail::StringMap<const Class*> byName;
};

namespace {

ClassRegistry& registry() {
  static ClassRegistry* instance = new ClassRegistry;  // lives as long as the process
  return *instance;
}

const std::vector<std::string>& noKeyPaths() {
  static const std::vector<std::string>& empty = *new std::vector<std::string>;
  return empty;
}

}  // namespace

Class::Class(std::string name, const Class* superclass)
    : name_(std::move(name)), archiveName_(name_), superclass_(superclass) {}

bool Class::isSubclassOfClass(const Class* other) const noexcept {
  for (const Class* c = this; c; c = c->superclass_)
    if (c == other) return true;
  return false;
}

const Method* Class::methodForSelector(Selector selector) const noexcept {
  for (const Class* c = this; c; c = c->superclass_)
    if (auto it = c->methods_.find(selector); it != c->methods_.end()) return &it->second;
  return nullptr;
}

const Property* Class::propertyForKey(std::string_view key) const noexcept {
  // Key-value coding and observation ask for the same property several times
  // per change; remember the last answer of this thread. Records never change
  // once built, so the cached pointer stays valid.
  struct LastLookup {
    const Class* cls = nullptr;
    std::string key;
    const Property* property = nullptr;
  };
  thread_local LastLookup last;
  if (last.cls == this && last.key == key) return last.property;
  const Property* found = nullptr;
  for (const Class* c = this; c && !found; c = c->superclass_)
    if (auto it = c->properties_.find(key); it != c->properties_.end()) found = &it->second;
  last.cls = this;
  last.key.assign(key);
  last.property = found;
  return found;
}

const std::vector<std::string>& Class::keyPathsForValuesAffectingKey(
    std::string_view key) const noexcept {
  for (const Class* c = this; c; c = c->superclass_)
    if (auto it = c->dependencies_.find(key); it != c->dependencies_.end()) return it->second;
  return noKeyPaths();
}

Id Class::allocateForDecoding() const { return allocator_ ? allocator_() : nullptr; }

const Class* Class::named(std::string_view name) {
  detail::registerBuiltinClasses();
  ClassRegistry& r = registry();
  std::shared_lock lock(r.mutex);
  auto it = r.byName.find(name);
  return it == r.byName.end() ? nullptr : it->second;
}

void detail::registerClass(const Class* cls, const std::vector<std::string>& archiveNames) {
  ClassRegistry& r = registry();
  std::unique_lock lock(r.mutex);
  r.byName.try_emplace(cls->name(), cls);
  for (const std::string& alias : archiveNames) r.byName.try_emplace(alias, cls);
}

}  // namespace fennick
