#pragma once
// An unordered collection of distinct non-nil objects, compared with
// isEqual/hash (enumeration follows insertion order). One class serves the
// mutable and the immutable form, as for Array.
#include "fennick/Runtime/Collections/Collection.h"
#include "fennick/Runtime/Collections/OrderedHashTable.h"

#include <functional>
#include <initializer_list>

namespace fennick {

class Array;
class Dictionary;

class Set : public Collection {
  FENNICK_DECLARE_CLASS(Set, Collection)

 public:
  struct Entry {
    Id key;
    std::size_t hash = 0;
    std::size_t occurrences = 0;  // used by CountedSet
  };
  using Table = detail::OrderedHashTable<Entry>;

  static Ref<Set> set();
  static Ref<Set> setWithCapacity(std::size_t capacity);
  /// A nil member throws Exception (NSInvalidArgumentException).
  static Ref<Set> setWithObjects(std::initializer_list<Id> objects);
  static Ref<Set> setWithArray(const Ref<Array>& array);
  static Ref<Set> setWithSet(const Ref<Set>& other);
  static const Ref<Set>& emptySet();

  std::size_t count() const noexcept override { return table_.size(); }
  bool containsObject(const Id& object) const { return member(object) != nullptr; }
  /// The stored member equal to `object`, or nil.
  Id member(const Id& object) const;
  Id anyObject() const;
  Ref<Array> allObjects() const;
  bool isSubsetOfSet(const Ref<Set>& other) const;
  bool intersectsSet(const Ref<Set>& other) const;

  /// Adds the object unless an equal member is present.
  virtual void addObject(const Id& object);
  virtual void removeObject(const Id& object);
  void removeAllObjects();
  void unionSet(const Ref<Set>& other);
  void minusSet(const Ref<Set>& other);
  void intersectSet(const Ref<Set>& other);
  void addObjectsFromArray(const Ref<Array>& array);

  /// Calls f(object, stop) until stop is set.
  void enumerateObjectsUsingBlock(const std::function<void(const Id&, bool&)>& block) const;

  // Functional operations -----------------------------------------------------
  using Block = std::function<Id(const Id&, bool&)>;
  using Test = std::function<bool(const Id&, bool&)>;
  using KeyMaker = std::function<Id(const Id&)>;
  using Matcher = std::function<bool(const Id& mine, const Id& theirs)>;

  /// The first set when the second is empty or nil and the reverse (the very
  /// argument, not a copy); otherwise a new union; never nil.
  static Ref<Set> setByUnionOfSet_andSet2(const Ref<Set>& set1, const Ref<Set>& set2);
  /// Always a new mutable set holding both (nil adds nothing).
  static Ref<Set> mutableSetByUnionOfSet_andSet2(const Ref<Set>& set1, const Ref<Set>& set2);
  Ref<Set> map(const Block& block) const;
  Ref<Set> flatMap(const std::function<Ref<Set>(const Id&, bool&)>& block) const;
  Ref<Set> filter(const Test& test) const;
  /// key -> mutable set of members; a nil key throws Exception.
  Ref<Dictionary> groupBy(const KeyMaker& keyMaker) const;
  Ref<Dictionary> makeDictionaryWithKeyMaker(const KeyMaker& keyMaker) const;
  /// Any member (nil when empty); the count is not checked.
  Id singleObject() const;
  Ref<Set> subtractSet_withBlock(const Ref<Set>& other, const Matcher& matcher) const;
  Ref<Set> intersectionWithSet_block(const Ref<Set>& other, const Matcher& matcher) const;
  /// mine -> the first matching member of `other`, or else the member of
  /// `other` visited last (every member of the receiver gets an entry).
  Ref<Dictionary> intersectingPairsWithSet_block(const Ref<Set>& other, const Matcher& matcher) const;
  void forEach(const std::function<void(const Id&, bool&)>& block) const;
  /// Adds a non-nil object; YES only when the count grew.
  bool safeAddObject(const Id& object);
  /// Replaces an equal member by `object`.
  void addOrReplaceObject(const Id& object);
  /// Removes every member whose test is false (walks a copy).
  void filterIn(const Test& test);
  /// Removes and returns the stored member equal to `object`, or nil.
  Id takeObject(const Id& object);

  struct MemberOf {
    const Id& operator()(const Entry& entry) const { return entry.key; }
  };
  using Iterator = TableIterator<Entry, MemberOf>;
  Iterator begin() const;
  Iterator end() const;

  // Object --------------------------------------------------------------------
  bool isEqual(const Object* other) const override;
  std::size_t hash() const override { return table_.size(); }
  std::string description() const override;
  Id copy() const override;
  Id mutableCopy() const override;
  Id valueForKey(std::string_view key) const override;
  void encodeWithCoder(Coder& coder) const override;
  void initWithCoder(Coder& coder) override;

 protected:
  Set() = default;
  Table table_;
};

inline Set::Iterator Set::begin() const {
  const auto& entries = table_.rawEntries();
  return Iterator(this, entries.begin(), entries.end(), mutations_);
}
inline Set::Iterator Set::end() const {
  const auto& entries = table_.rawEntries();
  return Iterator(this, entries.end(), entries.end(), mutations_);
}

/// A set that counts how often each member was added; a member leaves when it
/// has been removed as often.
class CountedSet : public Set {
  FENNICK_DECLARE_CLASS(CountedSet, Set)

 public:
  static Ref<CountedSet> countedSet();
  static Ref<CountedSet> countedSetWithArray(const Ref<Array>& array);

  /// How many times an equal object was added (0 when absent).
  std::size_t countForObject(const Id& object) const;
  void addObject(const Id& object) override;
  void removeObject(const Id& object) override;

  bool isEqual(const Object* other) const override;
  std::string description() const override;
  Id copy() const override;
  Id mutableCopy() const override;
  void encodeWithCoder(Coder& coder) const override;
  void initWithCoder(Coder& coder) override;

 protected:
  CountedSet() = default;
};

}  // namespace fennick
