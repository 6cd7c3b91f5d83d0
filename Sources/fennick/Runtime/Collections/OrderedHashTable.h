#pragma once
// The storage behind Dictionary and Set: entries in insertion order in one
// vector, found through an open-addressing index of entry positions. Removal
// leaves a hole that later compaction squeezes out. Keys compare with
// isEqual/hash; each entry caches its key's hash.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace fennick::detail {

template <class Entry>
class OrderedHashTable {
 public:
  std::size_t size() const noexcept { return live_; }
  void reserve(std::size_t count) {
    entries_.reserve(count);
    if (count > kLinearLimit && count * 4 > index_.size() * 3) rebuildIndex(count);
  }

  /// The entry whose key equals `key` (hash given), or nullptr.
  Entry* find(const Object& key, std::size_t hash) noexcept {
    return findWith(hash, [&](const Object& candidate) {
      return &candidate == &key || candidate.isEqual(&key);
    });
  }
  const Entry* find(const Object& key, std::size_t hash) const noexcept {
    return const_cast<OrderedHashTable*>(this)->find(key, hash);
  }
  /// The entry with this hash whose key satisfies `equal`, or nullptr: lookups
  /// by a value that is not an object (text, for instance).
  template <class Equal>
  Entry* findWith(std::size_t hash, Equal&& equal) noexcept {
    if (index_.empty()) {
      for (Entry& entry : entries_)
        if (entry.key && entry.hash == hash && equal(*entry.key)) return &entry;
      return nullptr;
    }
    for (std::size_t slot = start(hash);; slot = (slot + 1) & mask()) {
      const std::int32_t position = index_[slot];
      if (position == kEmpty) return nullptr;
      if (position == kDeleted) continue;
      Entry& entry = entries_[static_cast<std::size_t>(position)];
      if (entry.hash == hash && equal(*entry.key)) return &entry;
    }
  }

  /// Appends an entry whose key is known to be absent.
  Entry& insertNew(Entry entry) {
    if (index_.empty() && entries_.size() < kLinearLimit) {
      entries_.push_back(std::move(entry));
      ++live_;
      return entries_.back();
    }
    if ((used_ + 1) * 4 > index_.size() * 3) rebuildIndex(live_ + 1);
    const std::size_t hash = entry.hash;
    std::size_t slot = start(hash);
    while (index_[slot] >= 0) slot = (slot + 1) & mask();
    if (index_[slot] == kEmpty) ++used_;
    index_[slot] = static_cast<std::int32_t>(entries_.size());
    entries_.push_back(std::move(entry));
    ++live_;
    return entries_.back();
  }

  /// Removes the entry for a key; returns it when there was one.
  std::optional<Entry> remove(const Object& key, std::size_t hash) {
    if (index_.empty()) {
      Entry* entry = find(key, hash);
      if (!entry) return std::nullopt;
      std::optional<Entry> removed(std::move(*entry));
      *entry = Entry{};
      --live_;
      if (live_ * 2 < entries_.size() && entries_.size() > 4) compact();
      return removed;
    }
    for (std::size_t slot = start(hash);; slot = (slot + 1) & mask()) {
      const std::int32_t position = index_[slot];
      if (position == kEmpty) return std::nullopt;
      if (position == kDeleted) continue;
      Entry& entry = entries_[static_cast<std::size_t>(position)];
      if (entry.hash == hash && (entry.key.get() == &key || entry.key->isEqual(&key))) {
        std::optional<Entry> removed(std::move(entry));
        entry = Entry{};
        index_[slot] = kDeleted;
        --live_;
        if (live_ * 2 < entries_.size() && entries_.size() > 16) compact();
        return removed;
      }
    }
  }

  void clear() noexcept {
    entries_.clear();
    index_.clear();
    live_ = used_ = 0;
  }

  /// Calls f(entry) for each live entry, in insertion order, until f returns false.
  template <class F>
  void forEach(F&& f) const {
    for (const Entry& entry : entries_)
      if (entry.key && !f(entry)) return;
  }
  template <class F>
  void forEach(F&& f) {
    for (Entry& entry : entries_)
      if (entry.key && !f(entry)) return;
  }
  /// Live entry positions are stable between mutations; iteration helpers.
  const std::vector<Entry>& rawEntries() const noexcept { return entries_; }

 private:
  // Up to this many entries, lookups scan the entries: no index to allocate or
  // probe, which suits the many small dictionaries (change records, options).
  static constexpr std::size_t kLinearLimit = 8;
  static constexpr std::int32_t kEmpty = -1;
  static constexpr std::int32_t kDeleted = -2;

  std::size_t mask() const noexcept { return index_.size() - 1; }
  // Identity hashes are aligned addresses and integer hashes are the integers:
  // mix the bits so that every slot bit depends on the whole hash.
  std::size_t start(std::size_t hash) const noexcept {
    std::uint64_t h = hash;
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    return static_cast<std::size_t>(h) & mask();
  }

  void rebuildIndex(std::size_t forCount) {
    std::size_t capacity = 8;
    while (capacity * 3 < forCount * 4 + 4) capacity *= 2;
    if (capacity < index_.size() && live_ == entries_.size()) capacity = index_.size();
    index_.assign(capacity, kEmpty);
    used_ = 0;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (!entries_[i].key) continue;
      std::size_t slot = start(entries_[i].hash);
      while (index_[slot] != kEmpty) slot = (slot + 1) & mask();
      index_[slot] = static_cast<std::int32_t>(i);
      ++used_;
    }
  }

  void compact() {
    std::vector<Entry> kept;
    kept.reserve(live_);
    for (Entry& entry : entries_)
      if (entry.key) kept.push_back(std::move(entry));
    entries_ = std::move(kept);
    if (live_ <= kLinearLimit) {
      index_.clear();
      used_ = 0;
    } else {
      rebuildIndex(live_);
    }
  }

  std::vector<Entry> entries_;
  std::vector<std::int32_t> index_;
  std::size_t live_ = 0;
  std::size_t used_ = 0;  // index slots that are not empty (live or deleted)
};

}  // namespace fennick::detail
