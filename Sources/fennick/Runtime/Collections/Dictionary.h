#pragma once
// A map from non-nil keys to non-nil objects. Keys are copied on insertion and
// compared with isEqual/hash; enumeration follows insertion order. One class
// serves the mutable and the immutable form, as for Array.
#include "fennick/Runtime/Collections/Collection.h"
#include "fennick/Runtime/Collections/OrderedHashTable.h"

#include <functional>
#include <initializer_list>
#include <string_view>
#include <utility>

namespace fennick {

class Array;

class Dictionary : public Collection {
  FENNICK_DECLARE_CLASS(Dictionary, Collection)

 public:
  struct Entry {
    Id key;
    std::size_t hash = 0;
    Id value;
  };
  using Table = detail::OrderedHashTable<Entry>;

  static Ref<Dictionary> dictionary();
  static Ref<Dictionary> dictionaryWithCapacity(std::size_t capacity);
  /// {key, object} pairs; a nil key or object throws Exception.
  static Ref<Dictionary> dictionaryWithObjectsAndKeys(std::initializer_list<std::pair<Id, Id>> entries);
  /// Text keys, for literals: dictionaryWithStrings({{"a", value}}).
  static Ref<Dictionary> dictionaryWithStringKeys(
      std::initializer_list<std::pair<std::string_view, Id>> entries);
  static Ref<Dictionary> dictionaryWithDictionary(const Ref<Dictionary>& other);
  static const Ref<Dictionary>& emptyDictionary();

  std::size_t count() const noexcept override { return table_.size(); }
  Id objectForKey(const Id& key) const;
  /// Lookup by text without making a String key.
  Id objectForKey(std::string_view key) const;
  Id objectForKey(const char* key) const { return objectForKey(std::string_view(key)); }
  /// The stored reference for a text key, or nullptr, without taking a
  /// reference of one's own: for walks through nested dictionaries that copy
  /// only what they return. Valid until the dictionary next changes.
  const Id* findObjectForKey(std::string_view key) const noexcept;
  Id operator[](std::string_view key) const { return objectForKey(key); }
  Id operator[](const Id& key) const { return objectForKey(key); }
  /// Stores a copy of the key; a nil key or object throws Exception
  /// (NSInvalidArgumentException).
  void setObject_forKey(const Id& object, const Id& key);
  void setObject_forKey(const Id& object, std::string_view key);
  void removeObjectForKey(const Id& key);
  void removeObjectForKey(std::string_view key);
  void removeAllObjects();
  void addEntriesFromDictionary(const Ref<Dictionary>& other);
  Ref<Array> allKeys() const;
  Ref<Array> allValues() const;
  Ref<Array> allKeysForObject(const Id& object) const;

  /// Calls f(key, object, stop) in insertion order until stop is set.
  void enumerateKeysAndObjectsUsingBlock(
      const std::function<void(const Id&, const Id&, bool&)>& block) const;

  // Functional operations -----------------------------------------------------
  /// value -> key; for a shared value the key enumerated last wins.
  Ref<Dictionary> dictionaryByInversingKeysAndValues() const;
  /// The same keys with f's results; keys whose result is nil are left out.
  Ref<Dictionary> mapValues(const std::function<Id(const Id&, const Id&, bool&)>& block) const;
  /// Sets and answers YES only when key and object are both non-nil.
  bool safeSetObject_forKey(const Id& object, const Id& key);
  /// The value for the key (or nil), removing the entry.
  Id takeObjectForKey(const Id& key);
  /// Sets the value for a key that is meant to be absent. Diagnostic builds
  /// (FENNICK_DIAGNOSTICS defined, or NDEBUG not defined) check that the count
  /// grew and throw Exception (NSInternalInconsistencyException) when it did
  /// not; other builds simply set, replacing a present value.
  void addObject_forKey(const Id& object, const Id& key);
  /// Removes the entry for a key that is meant to be present. Diagnostic
  /// builds check that the count shrank and throw as above; other builds
  /// simply remove, doing nothing for an absent key.
  void removeObjectOrDieForKey(const Id& key);
  /// The value for the key, or the creation block's non-nil result, stored.
  Id fetchOrCreateObjectForKey_creationBlock(const Id& key, const std::function<Id()>& create);

  // Iteration over entries (key, hash, value) in insertion order.
  struct EntryOf {
    const Entry& operator()(const Entry& entry) const { return entry; }
  };
  using Iterator = TableIterator<Entry, EntryOf>;
  Iterator begin() const;
  Iterator end() const;

  // Object --------------------------------------------------------------------
  bool isEqual(const Object* other) const override;
  std::size_t hash() const override { return table_.size(); }
  std::string description() const override;
  Id copy() const override;
  Id mutableCopy() const override;
  /// The entry for the key (keys beginning with "@" go to the object itself).
  Id valueForKey(std::string_view key) const override;
  /// Sets the entry, or removes it for nil.
  void setValueForKey(const Id& value, std::string_view key) override;
  void encodeWithCoder(Coder& coder) const override;
  void initWithCoder(Coder& coder) override;

 protected:
  Dictionary() = default;

 private:
  void store(const Id& object, const Id& key, std::size_t hash);
  Table table_;
};

inline Dictionary::Iterator Dictionary::begin() const {
  const auto& entries = table_.rawEntries();
  return Iterator(this, entries.begin(), entries.end(), mutations_);
}
inline Dictionary::Iterator Dictionary::end() const {
  const auto& entries = table_.rawEntries();
  return Iterator(this, entries.end(), entries.end(), mutations_);
}

}  // namespace fennick
