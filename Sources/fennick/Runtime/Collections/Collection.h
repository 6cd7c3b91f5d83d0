#pragma once
// What Array, Dictionary and Set share: a mutable/immutable flag, a mutation
// counter that catches changes made while the collection is being walked, and
// the exceptions for nil members and bad indexes.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <vector>

namespace fennick {

class Collection : public Object {
  FENNICK_DECLARE_CLASS(Collection, Object)

 public:
  virtual std::size_t count() const noexcept = 0;
  bool isEmpty() const noexcept { return count() == 0; }
  /// Mutable collections accept changes; immutable ones (copies, the shared
  /// empty instances) throw Exception (NSInternalInconsistencyException).
  bool isMutable() const noexcept { return mutable_; }
  /// A mutable shallow copy.
  virtual Id mutableCopy() const = 0;
  /// Freezes the collection: later mutations throw, and copy() returns it
  /// as it is. For collections built once and then shared.
  void makeImmutable() noexcept { mutable_ = false; }
  /// Throws Exception (NSGenericException) when the collection changed since a
  /// walk saw `seen` mutations.
  void checkNotMutatedSince(std::uint64_t seen) const;

 protected:
  Collection() = default;

  void willMutate(const char* operation);
  std::uint64_t mutations() const noexcept { return mutations_; }
  static void requireNonNil(const Id& object, const char* operation, const char* what = "object");
  [[noreturn]] void throwIndexOutOfRange(const char* operation, std::size_t index) const;

  // Counts mutations so that walks can detect them; walks compare it with the
  // value they started with.
  std::uint64_t mutations_ = 0;

 private:
  bool mutable_ = true;
};

/// Index returned when an object is not found.
inline constexpr std::size_t NSNotFound = static_cast<std::size_t>(INT64_MAX);

/// Iterator over a collection's members that throws when the collection is
/// mutated during the walk.
template <class Owner, class Inner>
class CheckedIterator {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = typename Inner::value_type;
  using difference_type = std::ptrdiff_t;
  using reference = decltype(*std::declval<Inner>());
  using pointer = void;

  CheckedIterator(const Owner* owner, Inner inner, std::uint64_t mutations)
      : owner_(owner), inner_(inner), mutations_(mutations) {}
  reference operator*() const { return *inner_; }
  CheckedIterator& operator++() {
    owner_->checkNotMutatedSince(mutations_);
    ++inner_;
    return *this;
  }
  bool operator==(const CheckedIterator& other) const { return inner_ == other.inner_; }

 private:
  const Owner* owner_;
  Inner inner_;
  std::uint64_t mutations_;
};

/// Walks the live entries of a hash-table collection (Dictionary, Set) in
/// insertion order, skipping removed entries and throwing when the collection
/// is mutated during the walk. `Project` turns an entry into what the walk yields.
template <class Entry, class Project>
class TableIterator {
 public:
  using Inner = typename std::vector<Entry>::const_iterator;
  TableIterator(const Collection* owner, Inner at, Inner end, std::uint64_t mutations)
      : owner_(owner), at_(at), end_(end), mutations_(mutations) {
    skipHoles();
  }
  decltype(auto) operator*() const { return Project{}(*at_); }
  const Entry* operator->() const { return &*at_; }
  TableIterator& operator++() {
    owner_->checkNotMutatedSince(mutations_);
    ++at_;
    skipHoles();
    return *this;
  }
  bool operator==(const TableIterator& other) const { return at_ == other.at_; }

 private:
  void skipHoles() {
    while (at_ != end_ && !at_->key) ++at_;
  }
  const Collection* owner_;
  Inner at_, end_;
  std::uint64_t mutations_;
};

}  // namespace fennick
