// Functional operations on Array: mapping, filtering, grouping, matching of
// two arrays by a caller's equality, and take operations that remove and
// return in one step. Callbacks run synchronously, in index order, on the
// caller's thread; walks go through enumerateObjectsUsingBlock so that a
// callback that mutates the receiver is caught.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"

#include <algorithm>

namespace fennick {

namespace {

// Whether `matcher` finds `mine` equal to some member of `other`. The inner
// walk stops at the first match, so the matcher sees `other` only up to it.
bool matchesAny(const Id& mine, const Ref<Array>& other, const Array::Matcher& matcher) {
  if (!other) return false;
  bool found = false;
  other->enumerateObjectsUsingBlock([&](const Id& theirs, std::size_t, bool& stop) {
    found = matcher(mine, theirs);
    stop = found;
  });
  return found;
}

}  // namespace

Ref<Array> Array::map(const IndexedBlock& block) const {
  auto result = arrayWithCapacity(count());
  enumerateObjectsUsingBlock([&](const Id& object, std::size_t index, bool& stop) {
    if (Id mapped = block(object, index, stop)) result->objects_.push_back(std::move(mapped));
  });
  return result;
}

Ref<Array> Array::flatMap(
    const std::function<Ref<Array>(const Id&, std::size_t, bool&)>& block) const {
  auto result = array();
  enumerateObjectsUsingBlock([&](const Id& object, std::size_t index, bool& stop) {
    const Ref<Array> part = block(object, index, stop);
    if (part && !part->isEmpty())
      result->objects_.insert(result->objects_.end(), part->objects_.begin(), part->objects_.end());
  });
  return result;
}

Ref<Array> Array::filter(const IndexedTest& test) const {
  return map([&](const Id& object, std::size_t index, bool& stop) -> Id {
    return test(object, index, stop) ? object : nullptr;
  });
}

Ref<Dictionary> Array::groupBy(const KeyMaker& keyMaker) const {
  auto groups = Dictionary::dictionary();
  enumerateObjectsUsingBlock([&](const Id& object, std::size_t index, bool&) {
    const Id key = keyMaker(object, index);
    requireNonNil(key, "Array::groupBy", "key");
    auto group = std::static_pointer_cast<Array>(groups->objectForKey(key));
    if (!group) {
      group = array();
      groups->setObject_forKey(group, key);
    }
    group->objects_.push_back(object);
  });
  return groups;
}

Ref<Dictionary> Array::makeDictionaryWithKeyMaker(const KeyMaker& keyMaker) const {
  auto dictionary = Dictionary::dictionaryWithCapacity(count());
  enumerateObjectsUsingBlock([&](const Id& object, std::size_t index, bool&) {
    if (const Id key = keyMaker(object, index)) dictionary->setObject_forKey(object, key);
  });
  return dictionary;
}

Id Array::singleObject() const { return lastObject(); }

Id Array::singleObjectOrNil() const { return objects_.size() == 1 ? objects_.front() : nullptr; }

Id Array::safeObjectAtIndex(std::int64_t index) const {
  if (index < 0 || static_cast<std::uint64_t>(index) >= objects_.size()) return nullptr;
  return objects_[static_cast<std::size_t>(index)];
}

Ref<Array> Array::subtractArray_withBlock(const Ref<Array>& other, const Matcher& matcher) const {
  return filter([&](const Id& mine, std::size_t, bool&) { return !matchesAny(mine, other, matcher); });
}

Ref<Array> Array::intersectionWithArray_block(const Ref<Array>& other,
                                              const Matcher& matcher) const {
  return filter([&](const Id& mine, std::size_t, bool&) { return matchesAny(mine, other, matcher); });
}

Ref<Array> Array::prefix(std::size_t n) const {
  if (objects_.empty()) return emptyArray();
  return subarrayWithRange(0, std::min(n, objects_.size()));
}

bool Array::safeAddObject(const Id& object) {
  if (!object) return false;
  addObject(object);
  return true;
}

void Array::filterIn(const IndexedTest& test) {
  // An immutable array refuses before the test sees any member.
  if (!isMutable()) willMutate("filterIn:");
  std::vector<bool> keep(objects_.size(), true);
  enumerateObjectsUsingBlock([&](const Id& object, std::size_t index, bool& stop) {
    keep[index] = test(object, index, stop);
  });
  if (std::find(keep.begin(), keep.end(), false) == keep.end()) return;
  willMutate("filterIn:");
  std::size_t index = 0;
  std::erase_if(objects_, [&](const Id&) { return !keep[index++]; });
}

Ref<Array> Array::takeObjectsAtIndexes(const std::vector<std::size_t>& indexes) {
  // An index set: ascending and without repeats, whatever order was passed.
  std::vector<std::size_t> sorted = indexes;
  std::sort(sorted.begin(), sorted.end());
  sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
  if (!sorted.empty() && sorted.back() >= objects_.size())
    throwIndexOutOfRange("Array::takeObjectsAtIndexes", sorted.back());
  auto taken = arrayWithCapacity(sorted.size());
  for (std::size_t index : sorted) taken->objects_.push_back(objects_[index]);
  if (sorted.empty()) return taken;
  willMutate("removeObjectsAtIndexes:");
  std::size_t position = 0, next = 0;
  std::erase_if(objects_, [&](const Id&) {
    const bool drop = next < sorted.size() && sorted[next] == position;
    if (drop) ++next;
    ++position;
    return drop;
  });
  return taken;
}

Id Array::takeObjectAtIndex(std::size_t index) {
  Id object = objectAtIndex(index);
  removeObjectAtIndex(index);
  return object;
}

Id Array::takeLastObject() {
  if (objects_.empty()) return nullptr;
  Id object = objects_.back();
  removeLastObject();
  return object;
}

Id Array::takeFirstObject() {
  if (objects_.empty()) return nullptr;
  Id object = objects_.front();
  removeObjectAtIndex(0);
  return object;
}

}  // namespace fennick
