#pragma once
// An ordered collection of non-nil objects. One class serves the mutable and
// the immutable form: factories make mutable arrays, copy() makes an immutable
// one (and returns the receiver when it is immutable already).
#include "fennick/Runtime/Collections/Collection.h"

#include <functional>
#include <initializer_list>
#include <vector>

namespace fennick {

class Dictionary;
class Set;

class Array : public Collection {
  FENNICK_DECLARE_CLASS(Array, Collection)

 public:
  using Iterator = CheckedIterator<Array, std::vector<Id>::const_iterator>;

  static Ref<Array> array();
  static Ref<Array> arrayWithCapacity(std::size_t capacity);
  /// Throws Exception (NSInvalidArgumentException) for a nil member.
  static Ref<Array> arrayWithObjects(std::initializer_list<Id> objects);
  static Ref<Array> arrayWithVector(std::vector<Id> objects);
  static Ref<Array> arrayWithArray(const Ref<Array>& other);
  /// The shared immutable empty array.
  static const Ref<Array>& emptyArray();

  std::size_t count() const noexcept override { return objects_.size(); }
  /// Throws Exception (NSRangeException) when out of range.
  const Id& objectAtIndex(std::size_t index) const;
  const Id& operator[](std::size_t index) const { return objectAtIndex(index); }
  Id firstObject() const { return objects_.empty() ? nullptr : objects_.front(); }
  Id lastObject() const { return objects_.empty() ? nullptr : objects_.back(); }
  bool containsObject(const Id& object) const { return indexOfObject(object) != NSNotFound; }
  /// First index of an equal object, or NSNotFound.
  std::size_t indexOfObject(const Id& object) const;
  std::size_t indexOfObjectIdenticalTo(const Id& object) const;
  std::vector<Id> toVector() const { return objects_; }
  Ref<Array> arrayByAddingObject(const Id& object) const;
  Ref<Array> subarrayWithRange(std::size_t location, std::size_t length) const;
  Ref<Array> sortedArrayUsingComparator(
      const std::function<bool(const Id&, const Id&)>& less) const;
  Ref<Array> reverseArray() const;
  Ref<String> componentsJoinedByString(std::string_view separator) const;

  void addObject(const Id& object);
  void addObjectsFromArray(const Ref<Array>& other);
  void insertObject_atIndex(const Id& object, std::size_t index);
  void replaceObjectAtIndex_withObject(std::size_t index, const Id& object);
  void removeObjectAtIndex(std::size_t index);
  void removeLastObject();
  /// Removes every member equal to `object`.
  void removeObject(const Id& object);
  void removeAllObjects();

  /// Calls f(object, index, stop) in index order until stop is set.
  void enumerateObjectsUsingBlock(
      const std::function<void(const Id&, std::size_t, bool&)>& block) const;
  /// The same, from the last index to the first.
  void enumerateObjectsReverseUsingBlock(
      const std::function<void(const Id&, std::size_t, bool&)>& block) const;
  Iterator begin() const { return Iterator(this, objects_.begin(), mutations_); }
  Iterator end() const { return Iterator(this, objects_.end(), mutations_); }

  // Functional operations -----------------------------------------------------
  using IndexedBlock = std::function<Id(const Id&, std::size_t, bool&)>;
  using IndexedTest = std::function<bool(const Id&, std::size_t, bool&)>;
  using KeyMaker = std::function<Id(const Id&, std::size_t)>;
  using Matcher = std::function<bool(const Id& mine, const Id& theirs)>;

  /// Non-nil results, in order (a new mutable array).
  Ref<Array> map(const IndexedBlock& block) const;
  /// Concatenation of every non-empty array returned.
  Ref<Array> flatMap(const std::function<Ref<Array>(const Id&, std::size_t, bool&)>& block) const;
  /// Members passing the test, in order.
  Ref<Array> filter(const IndexedTest& test) const;
  /// key -> mutable array of members with that key; a nil key throws Exception.
  Ref<Dictionary> groupBy(const KeyMaker& keyMaker) const;
  /// key -> member; nil keys are skipped; the later member wins.
  Ref<Dictionary> makeDictionaryWithKeyMaker(const KeyMaker& keyMaker) const;
  /// The last member (nil when empty); the count is not checked.
  Id singleObject() const;
  /// The only member when there is exactly one, else nil.
  Id singleObjectOrNil() const;
  /// The member at a signed index, or nil when out of range (never throws).
  Id safeObjectAtIndex(std::int64_t index) const;
  /// Members equal (by the matcher) to no member of `other`.
  Ref<Array> subtractArray_withBlock(const Ref<Array>& other, const Matcher& matcher) const;
  /// Members equal (by the matcher) to at least one member of `other`.
  Ref<Array> intersectionWithArray_block(const Ref<Array>& other, const Matcher& matcher) const;
  /// A new array of the first min(n, count) members; the shared empty array
  /// when the receiver is empty.
  Ref<Array> prefix(std::size_t n) const;
  /// Appends a non-nil object (YES) or does nothing (NO).
  bool safeAddObject(const Id& object);
  /// Removes, after the walk, every member whose test was false; members not
  /// visited because the test set stop are kept.
  void filterIn(const IndexedTest& test);
  /// Returns the members at the indexes, in index order, then removes them.
  /// The indexes act as an index set (order and repeats do not matter); one
  /// out of range throws Exception (NSRangeException) and removes nothing.
  Ref<Array> takeObjectsAtIndexes(const std::vector<std::size_t>& indexes);
  /// Returns the member at the index, then removes it; throws when out of range.
  Id takeObjectAtIndex(std::size_t index);
  Id takeLastObject();
  Id takeFirstObject();

  // Object --------------------------------------------------------------------
  bool isEqual(const Object* other) const override;
  std::size_t hash() const override { return objects_.size(); }
  std::string description() const override;
  Id copy() const override;
  Id mutableCopy() const override;
  /// valueForKey of every member (the null singleton for nil); "@count" etc.
  Id valueForKey(std::string_view key) const override;
  void encodeWithCoder(Coder& coder) const override;
  void initWithCoder(Coder& coder) override;

 protected:
  Array() = default;
  explicit Array(std::vector<Id> objects) : objects_(std::move(objects)) {}

 private:
  std::vector<Id> objects_;
};

}  // namespace fennick
