#include "fennick/Runtime/Collections/Array.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Null.h"

#include <algorithm>

namespace fennick {

FENNICK_DEFINE_CLASS(Array) {
  builder.archiveNames({"NSArray", "NSMutableArray"});
  builder.coding();
  builder.property("count", &Array::count);
}

Ref<Array> Array::array() { return make<Array>(); }

Ref<Array> Array::arrayWithCapacity(std::size_t capacity) {
  auto array = make<Array>();
  array->objects_.reserve(capacity);
  return array;
}

Ref<Array> Array::arrayWithObjects(std::initializer_list<Id> objects) {
  for (const Id& object : objects) requireNonNil(object, "Array::arrayWithObjects");
  return make<Array>(std::vector<Id>(objects));
}

Ref<Array> Array::arrayWithVector(std::vector<Id> objects) {
  for (const Id& object : objects) requireNonNil(object, "Array::arrayWithVector");
  return make<Array>(std::move(objects));
}

Ref<Array> Array::arrayWithArray(const Ref<Array>& other) {
  return other ? make<Array>(other->objects_) : array();
}

const Ref<Array>& Array::emptyArray() {
  static const Ref<Array>& empty = *new Ref<Array>([] {
    auto array = make<Array>();
    array->makeImmutable();
    return array;
  }());
  return empty;
}

const Id& Array::objectAtIndex(std::size_t index) const {
  if (index >= objects_.size()) throwIndexOutOfRange("Array::objectAtIndex", index);
  return objects_[index];
}

std::size_t Array::indexOfObject(const Id& object) const {
  if (!object) return NSNotFound;
  for (std::size_t i = 0; i < objects_.size(); ++i)
    if (objects_[i] == object || objects_[i]->isEqual(object)) return i;
  return NSNotFound;
}

std::size_t Array::indexOfObjectIdenticalTo(const Id& object) const {
  auto it = std::find(objects_.begin(), objects_.end(), object);
  return it == objects_.end() ? NSNotFound : static_cast<std::size_t>(it - objects_.begin());
}

Ref<Array> Array::arrayByAddingObject(const Id& object) const {
  requireNonNil(object, "Array::arrayByAddingObject");
  std::vector<Id> objects = objects_;
  objects.push_back(object);
  return make<Array>(std::move(objects));
}

Ref<Array> Array::subarrayWithRange(std::size_t location, std::size_t length) const {
  if (location > objects_.size() || length > objects_.size() - location)
    throwIndexOutOfRange("Array::subarrayWithRange", location + length);
  const auto first = objects_.begin() + static_cast<std::ptrdiff_t>(location);
  return make<Array>(std::vector<Id>(first, first + static_cast<std::ptrdiff_t>(length)));
}

Ref<Array> Array::sortedArrayUsingComparator(
    const std::function<bool(const Id&, const Id&)>& less) const {
  std::vector<Id> objects = objects_;
  std::stable_sort(objects.begin(), objects.end(), less);
  return make<Array>(std::move(objects));
}

Ref<Array> Array::reverseArray() const {
  return make<Array>(std::vector<Id>(objects_.rbegin(), objects_.rend()));
}

Ref<String> Array::componentsJoinedByString(std::string_view separator) const {
  std::string joined;
  for (std::size_t i = 0; i < objects_.size(); ++i) {
    if (i) joined.append(separator);
    joined.append(objects_[i]->description());
  }
  return String::string(std::move(joined));
}

void Array::addObject(const Id& object) {
  requireNonNil(object, "Array::addObject");
  willMutate("addObject:");
  objects_.push_back(object);
}

void Array::addObjectsFromArray(const Ref<Array>& other) {
  if (!other) return;
  willMutate("addObjectsFromArray:");
  const std::vector<Id> added = other->objects_;  // other may be this array
  objects_.insert(objects_.end(), added.begin(), added.end());
}

void Array::insertObject_atIndex(const Id& object, std::size_t index) {
  requireNonNil(object, "Array::insertObject_atIndex");
  if (index > objects_.size()) throwIndexOutOfRange("Array::insertObject_atIndex", index);
  willMutate("insertObject:atIndex:");
  objects_.insert(objects_.begin() + static_cast<std::ptrdiff_t>(index), object);
}

void Array::replaceObjectAtIndex_withObject(std::size_t index, const Id& object) {
  requireNonNil(object, "Array::replaceObjectAtIndex_withObject");
  if (index >= objects_.size())
    throwIndexOutOfRange("Array::replaceObjectAtIndex_withObject", index);
  willMutate("replaceObjectAtIndex:withObject:");
  objects_[index] = object;
}

void Array::removeObjectAtIndex(std::size_t index) {
  if (index >= objects_.size()) throwIndexOutOfRange("Array::removeObjectAtIndex", index);
  willMutate("removeObjectAtIndex:");
  objects_.erase(objects_.begin() + static_cast<std::ptrdiff_t>(index));
}

void Array::removeLastObject() {
  if (objects_.empty()) throwIndexOutOfRange("Array::removeLastObject", 0);
  willMutate("removeLastObject");
  objects_.pop_back();
}

void Array::removeObject(const Id& object) {
  willMutate("removeObject:");
  if (!object) return;
  std::erase_if(objects_, [&](const Id& member) { return member == object || member->isEqual(object); });
}

void Array::removeAllObjects() {
  willMutate("removeAllObjects");
  objects_.clear();
}

void Array::enumerateObjectsUsingBlock(
    const std::function<void(const Id&, std::size_t, bool&)>& block) const {
  const std::uint64_t seen = mutations_;
  bool stop = false;
  for (std::size_t i = 0; i < objects_.size() && !stop; ++i) {
    block(objects_[i], i, stop);
    checkNotMutatedSince(seen);
  }
}

void Array::enumerateObjectsReverseUsingBlock(
    const std::function<void(const Id&, std::size_t, bool&)>& block) const {
  const std::uint64_t seen = mutations_;
  bool stop = false;
  for (std::size_t i = objects_.size(); i-- > 0 && !stop;) {
    block(objects_[i], i, stop);
    checkNotMutatedSince(seen);
  }
}

bool Array::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* array = Array::dynamicCastObject(other);
  if (!array || array->objects_.size() != objects_.size()) return false;
  for (std::size_t i = 0; i < objects_.size(); ++i)
    if (!isEqualObject_toObject(objects_[i], array->objects_[i])) return false;
  return true;
}

std::string Array::description() const {
  if (objects_.empty()) return "(\n)";
  std::string text = "(\n";
  for (std::size_t i = 0; i < objects_.size(); ++i) {
    text += "    " + objects_[i]->description();
    text += i + 1 < objects_.size() ? ",\n" : "\n";
  }
  return text + ")";
}

Id Array::copy() const {
  if (!isMutable()) return std::const_pointer_cast<Object>(self());
  auto copy = make<Array>(objects_);
  copy->makeImmutable();
  return copy;
}

Id Array::mutableCopy() const { return make<Array>(objects_); }

Id Array::valueForKey(std::string_view key) const {
  if (key == "@count") return Number::of(objects_.size());
  auto values = arrayWithCapacity(objects_.size());
  for (const Id& object : objects_) {
    Id value = object->valueForKey(key);
    values->objects_.push_back(value ? value : Id(Null::null()));
  }
  return values;
}

}  // namespace fennick
