#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Set.h"

namespace fennick {

FENNICK_DEFINE_CLASS(CountedSet) {
  builder.archiveNames({"NSCountedSet"});
  builder.coding();
}

Ref<CountedSet> CountedSet::countedSet() { return make<CountedSet>(); }

Ref<CountedSet> CountedSet::countedSetWithArray(const Ref<Array>& array) {
  auto set = make<CountedSet>();
  set->addObjectsFromArray(array);
  return set;
}

std::size_t CountedSet::countForObject(const Id& object) const {
  if (!object) return 0;
  const Entry* entry = table_.find(*object, object->hash());
  return entry ? entry->occurrences : 0;
}

void CountedSet::addObject(const Id& object) {
  requireNonNil(object, "CountedSet::addObject");
  willMutate("addObject:");
  const std::size_t hash = object->hash();
  if (Entry* entry = table_.find(*object, hash)) ++entry->occurrences;
  else table_.insertNew(Entry{object, hash, 1});
}

void CountedSet::removeObject(const Id& object) {
  if (!object) return;
  willMutate("removeObject:");
  const std::size_t hash = object->hash();
  Entry* entry = table_.find(*object, hash);
  if (entry && --entry->occurrences == 0) table_.remove(*object, hash);
}

bool CountedSet::isEqual(const Object* other) const {
  auto* counted = CountedSet::dynamicCastObject(other);
  if (!counted || !Set::isEqual(other)) return false;
  bool equal = true;
  table_.forEach([&](const Entry& entry) {
    equal = counted->countForObject(entry.key) == entry.occurrences;
    return equal;
  });
  return equal;
}

std::string CountedSet::description() const {
  std::string text = "<CountedSet> (";
  bool first = true;
  table_.forEach([&](const Entry& entry) {
    text += fmt::format("{}{} [{}]", first ? "" : ", ", entry.key->description(), entry.occurrences);
    first = false;
    return true;
  });
  return text + ")";
}

Id CountedSet::copy() const { return mutableCopy(); }

Id CountedSet::mutableCopy() const {
  auto copy = make<CountedSet>();
  copy->table_ = table_;
  return copy;
}

}  // namespace fennick
