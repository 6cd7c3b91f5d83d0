#include "fennick/Runtime/Collections/Set.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Null.h"

namespace fennick {

FENNICK_DEFINE_CLASS(Set) {
  builder.archiveNames({"NSSet", "NSMutableSet"});
  builder.coding();
  builder.property("count", &Set::count);
}

Ref<Set> Set::set() { return make<Set>(); }

Ref<Set> Set::setWithCapacity(std::size_t capacity) {
  auto set = make<Set>();
  set->table_.reserve(capacity);
  return set;
}

Ref<Set> Set::setWithObjects(std::initializer_list<Id> objects) {
  auto set = setWithCapacity(objects.size());
  for (const Id& object : objects) set->addObject(object);
  return set;
}

Ref<Set> Set::setWithArray(const Ref<Array>& array) {
  auto set = setWithCapacity(array ? array->count() : 0);
  set->addObjectsFromArray(array);
  return set;
}

Ref<Set> Set::setWithSet(const Ref<Set>& other) {
  auto set = make<Set>();
  if (other) set->unionSet(other);
  return set;
}

const Ref<Set>& Set::emptySet() {
  static const Ref<Set>& empty = *new Ref<Set>([] {
    auto set = make<Set>();
    set->makeImmutable();
    return set;
  }());
  return empty;
}

Id Set::member(const Id& object) const {
  if (!object) return nullptr;
  const Entry* entry = table_.find(*object, object->hash());
  return entry ? entry->key : nullptr;
}

Id Set::anyObject() const {
  Id any;
  table_.forEach([&](const Entry& entry) {
    any = entry.key;
    return false;
  });
  return any;
}

Ref<Array> Set::allObjects() const {
  auto objects = Array::arrayWithCapacity(count());
  table_.forEach([&](const Entry& entry) {
    objects->addObject(entry.key);
    return true;
  });
  return objects;
}

bool Set::isSubsetOfSet(const Ref<Set>& other) const {
  bool subset = true;
  table_.forEach([&](const Entry& entry) {
    subset = other && other->table_.find(*entry.key, entry.hash);
    return subset;
  });
  return subset;
}

bool Set::intersectsSet(const Ref<Set>& other) const {
  if (!other) return false;
  bool intersects = false;
  table_.forEach([&](const Entry& entry) {
    intersects = other->table_.find(*entry.key, entry.hash) != nullptr;
    return !intersects;
  });
  return intersects;
}

void Set::addObject(const Id& object) {
  requireNonNil(object, "Set::addObject");
  willMutate("addObject:");
  const std::size_t hash = object->hash();
  if (!table_.find(*object, hash)) table_.insertNew(Entry{object, hash, 1});
}

void Set::removeObject(const Id& object) {
  willMutate("removeObject:");
  if (object) table_.remove(*object, object->hash());
}

void Set::removeAllObjects() {
  willMutate("removeAllObjects");
  table_.clear();
}

void Set::unionSet(const Ref<Set>& other) {
  if (!other) return;
  for (const Id& object : other->allObjects()->toVector()) addObject(object);
}

void Set::minusSet(const Ref<Set>& other) {
  if (!other) return;
  for (const Id& object : other->allObjects()->toVector()) removeObject(object);
}

void Set::intersectSet(const Ref<Set>& other) {
  for (const Id& object : allObjects()->toVector())
    if (!other || !other->containsObject(object)) removeObject(object);
}

void Set::addObjectsFromArray(const Ref<Array>& array) {
  if (!array) return;
  for (const Id& object : array->toVector()) addObject(object);
}

void Set::enumerateObjectsUsingBlock(const std::function<void(const Id&, bool&)>& block) const {
  const std::uint64_t seen = mutations_;
  bool stop = false;
  const auto& entries = table_.rawEntries();
  for (std::size_t i = 0; i < entries.size() && !stop; ++i) {
    if (!entries[i].key) continue;
    const Id object = entries[i].key;
    block(object, stop);
    checkNotMutatedSince(seen);
  }
}

bool Set::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* set = Set::dynamicCastObject(other);
  if (!set || set->count() != count()) return false;
  bool equal = true;
  table_.forEach([&](const Entry& entry) {
    equal = set->table_.find(*entry.key, entry.hash) != nullptr;
    return equal;
  });
  return equal;
}

std::string Set::description() const {
  std::string text = "{(\n";
  table_.forEach([&](const Entry& entry) {
    text += "    " + entry.key->description() + ",\n";
    return true;
  });
  if (count()) text.erase(text.size() - 2, 1);  // no comma after the last member
  return text + ")}";
}

Id Set::copy() const {
  if (!isMutable()) return std::const_pointer_cast<Object>(self());
  auto copy = make<Set>();
  copy->table_ = table_;
  copy->makeImmutable();
  return copy;
}

Id Set::mutableCopy() const {
  auto copy = make<Set>();
  copy->table_ = table_;
  return copy;
}

Id Set::valueForKey(std::string_view key) const {
  if (key == "@count") return Number::of(count());
  auto values = setWithCapacity(count());
  table_.forEach([&](const Entry& entry) {
    Id value = entry.key->valueForKey(key);
    values->addObject(value ? value : Id(Null::null()));
    return true;
  });
  return values;
}

}  // namespace fennick
