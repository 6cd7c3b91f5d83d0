// Functional operations on Set: mapping, filtering, grouping, matching of two
// sets by a caller's equality, and the forgiving add, replace and take
// operations. Callbacks run synchronously, in the set's enumeration order, on
// the caller's thread; walks go through enumerateObjectsUsingBlock so that a
// callback that mutates the receiver is caught.
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Collections/Set.h"

namespace fennick {

namespace {

// Whether `matcher` finds `mine` equal to some member of `other`; the walk
// over `other` stops at the first match.
bool matchesAny(const Id& mine, const Ref<Set>& other, const Set::Matcher& matcher) {
  if (!other) return false;
  bool found = false;
  other->enumerateObjectsUsingBlock([&](const Id& theirs, bool& stop) {
    found = matcher(mine, theirs);
    stop = found;
  });
  return found;
}

bool isNilOrEmpty(const Ref<Set>& set) { return !set || set->isEmpty(); }

}  // namespace

Ref<Set> Set::setByUnionOfSet_andSet2(const Ref<Set>& set1, const Ref<Set>& set2) {
  // Hands back an argument itself when the other adds nothing: callers may
  // rely on getting the very instance they passed.
  Ref<Set> result;
  if (isNilOrEmpty(set1)) result = set2;
  else if (isNilOrEmpty(set2)) result = set1;
  else result = mutableSetByUnionOfSet_andSet2(set1, set2);
  return result ? result : std::static_pointer_cast<Set>(set()->copy());
}

Ref<Set> Set::mutableSetByUnionOfSet_andSet2(const Ref<Set>& set1, const Ref<Set>& set2) {
  auto result = set();
  result->unionSet(set1);
  result->unionSet(set2);
  return result;
}

Ref<Set> Set::map(const Block& block) const {
  auto result = setWithCapacity(count());
  enumerateObjectsUsingBlock([&](const Id& object, bool& stop) {
    if (const Id mapped = block(object, stop)) result->addObject(mapped);
  });
  return result;
}

Ref<Set> Set::flatMap(const std::function<Ref<Set>(const Id&, bool&)>& block) const {
  auto result = set();
  enumerateObjectsUsingBlock([&](const Id& object, bool& stop) {
    const Ref<Set> part = block(object, stop);
    if (part && !part->isEmpty()) result->unionSet(part);
  });
  return result;
}

Ref<Set> Set::filter(const Test& test) const {
  return map([&](const Id& object, bool& stop) -> Id { return test(object, stop) ? object : nullptr; });
}

Ref<Dictionary> Set::groupBy(const KeyMaker& keyMaker) const {
  auto groups = Dictionary::dictionary();
  enumerateObjectsUsingBlock([&](const Id& object, bool&) {
    const Id key = keyMaker(object);
    requireNonNil(key, "Set::groupBy", "key");
    auto group = std::static_pointer_cast<Set>(groups->objectForKey(key));
    if (!group) {
      group = set();
      groups->setObject_forKey(group, key);
    }
    group->addObject(object);
  });
  return groups;
}

Ref<Dictionary> Set::makeDictionaryWithKeyMaker(const KeyMaker& keyMaker) const {
  auto dictionary = Dictionary::dictionaryWithCapacity(count());
  enumerateObjectsUsingBlock([&](const Id& object, bool&) {
    if (const Id key = keyMaker(object)) dictionary->setObject_forKey(object, key);
  });
  return dictionary;
}

Id Set::singleObject() const { return anyObject(); }

Ref<Set> Set::subtractSet_withBlock(const Ref<Set>& other, const Matcher& matcher) const {
  return filter([&](const Id& mine, bool&) { return !matchesAny(mine, other, matcher); });
}

Ref<Set> Set::intersectionWithSet_block(const Ref<Set>& other, const Matcher& matcher) const {
  return filter([&](const Id& mine, bool&) { return matchesAny(mine, other, matcher); });
}

Ref<Dictionary> Set::intersectingPairsWithSet_block(const Ref<Set>& other,
                                                    const Matcher& matcher) const {
  // Every visited pair is stored, matching or not, so a member without a
  // match ends up paired with the last member the inner walk saw. Callers
  // that want matches only re-test the pairs.
  auto pairs = Dictionary::dictionary();
  if (!other) return pairs;
  enumerateObjectsUsingBlock([&](const Id& mine, bool&) {
    other->enumerateObjectsUsingBlock([&](const Id& theirs, bool& stop) {
      stop = matcher(mine, theirs);
      pairs->setObject_forKey(theirs, mine);
    });
  });
  return pairs;
}

void Set::forEach(const std::function<void(const Id&, bool&)>& block) const {
  enumerateObjectsUsingBlock(block);
}

bool Set::safeAddObject(const Id& object) {
  if (!object) return false;
  const std::size_t before = count();
  addObject(object);
  return count() > before;
}

void Set::addOrReplaceObject(const Id& object) {
  requireNonNil(object, "Set::addOrReplaceObject");
  if (const Id present = member(object)) removeObject(present);
  addObject(object);
}

void Set::filterIn(const Test& test) {
  if (!isMutable()) willMutate("filterIn:");
  // The walk goes over a snapshot so that removals cannot disturb it.
  const auto snapshot = std::static_pointer_cast<Set>(copy());
  snapshot->enumerateObjectsUsingBlock([&](const Id& object, bool& stop) {
    if (!test(object, stop)) removeObject(object);
  });
}

Id Set::takeObject(const Id& object) {
  Id stored = member(object);
  if (stored) removeObject(stored);
  return stored;
}

}  // namespace fennick
