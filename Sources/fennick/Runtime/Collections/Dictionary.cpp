#include "fennick/Runtime/Collections/Dictionary.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Internal/TextHash.h"

namespace fennick {

namespace {

std::size_t textHash(std::string_view text) { return detail::hashText(text); }

bool keyHasText(const Object& key, std::string_view text) {
  auto* string = String::dynamicCastObject(&key);
  return string && string->view() == text;
}

}  // namespace

FENNICK_DEFINE_CLASS(Dictionary) {
  builder.archiveNames({"NSDictionary", "NSMutableDictionary"});
  builder.coding();
}

Ref<Dictionary> Dictionary::dictionary() { return make<Dictionary>(); }

Ref<Dictionary> Dictionary::dictionaryWithCapacity(std::size_t capacity) {
  auto dictionary = make<Dictionary>();
  dictionary->table_.reserve(capacity);
  return dictionary;
}

Ref<Dictionary> Dictionary::dictionaryWithObjectsAndKeys(
    std::initializer_list<std::pair<Id, Id>> entries) {
  auto dictionary = dictionaryWithCapacity(entries.size());
  for (const auto& [key, object] : entries) dictionary->setObject_forKey(object, key);
  return dictionary;
}

Ref<Dictionary> Dictionary::dictionaryWithStringKeys(
    std::initializer_list<std::pair<std::string_view, Id>> entries) {
  auto dictionary = dictionaryWithCapacity(entries.size());
  for (const auto& [key, object] : entries) dictionary->setObject_forKey(object, key);
  return dictionary;
}

Ref<Dictionary> Dictionary::dictionaryWithDictionary(const Ref<Dictionary>& other) {
  auto dictionary = make<Dictionary>();
  if (other) dictionary->table_ = other->table_;
  return dictionary;
}

const Ref<Dictionary>& Dictionary::emptyDictionary() {
  static const Ref<Dictionary>& empty = *new Ref<Dictionary>([] {
    auto dictionary = make<Dictionary>();
    dictionary->makeImmutable();
    return dictionary;
  }());
  return empty;
}

Id Dictionary::objectForKey(const Id& key) const {
  if (!key) return nullptr;
  const Entry* entry = table_.find(*key, key->hash());
  return entry ? entry->value : nullptr;
}

Id Dictionary::objectForKey(std::string_view key) const {
  const Id* found = findObjectForKey(key);
  return found ? *found : nullptr;
}

const Id* Dictionary::findObjectForKey(std::string_view key) const noexcept {
  const Entry* entry = const_cast<Table&>(table_).findWith(
      textHash(key), [&](const Object& candidate) { return keyHasText(candidate, key); });
  return entry ? &entry->value : nullptr;
}

void Dictionary::store(const Id& object, const Id& key, std::size_t hash) {
  willMutate("setObject:forKey:");
  if (Entry* entry = table_.find(*key, hash)) {
    entry->value = object;
    return;
  }
  // Keys are copied so that a key changed later cannot corrupt the table;
  // strings are immutable and would copy to themselves anyway.
  table_.insertNew(Entry{key->isMemberOfClass(String::staticClass()) ? key : key->copy(), hash, object});
}

void Dictionary::setObject_forKey(const Id& object, const Id& key) {
  requireNonNil(key, "Dictionary::setObject_forKey", "key");
  requireNonNil(object, "Dictionary::setObject_forKey", "object");
  store(object, key, key->hash());
}

void Dictionary::setObject_forKey(const Id& object, std::string_view key) {
  requireNonNil(object, "Dictionary::setObject_forKey", "object");
  willMutate("setObject:forKey:");
  const std::size_t hash = textHash(key);
  if (Entry* entry = table_.findWith(hash, [&](const Object& c) { return keyHasText(c, key); })) {
    entry->value = object;
    return;
  }
  table_.insertNew(Entry{String::string(key), hash, object});
}

void Dictionary::removeObjectForKey(const Id& key) {
  requireNonNil(key, "Dictionary::removeObjectForKey", "key");
  willMutate("removeObjectForKey:");
  table_.remove(*key, key->hash());
}

void Dictionary::removeObjectForKey(std::string_view key) {
  willMutate("removeObjectForKey:");
  const std::size_t hash = textHash(key);
  if (const Entry* entry = table_.findWith(hash, [&](const Object& c) { return keyHasText(c, key); })) {
    const Id found = entry->key;
    table_.remove(*found, hash);
  }
}

void Dictionary::removeAllObjects() {
  willMutate("removeAllObjects");
  table_.clear();
}

void Dictionary::addEntriesFromDictionary(const Ref<Dictionary>& other) {
  if (!other) return;
  const Table entries = other->table_;  // other may be this dictionary
  entries.forEach([&](const Entry& entry) {
    store(entry.value, entry.key, entry.hash);
    return true;
  });
}

Ref<Array> Dictionary::allKeys() const {
  auto keys = Array::arrayWithCapacity(count());
  table_.forEach([&](const Entry& entry) {
    keys->addObject(entry.key);
    return true;
  });
  return keys;
}

Ref<Array> Dictionary::allValues() const {
  auto values = Array::arrayWithCapacity(count());
  table_.forEach([&](const Entry& entry) {
    values->addObject(entry.value);
    return true;
  });
  return values;
}

Ref<Array> Dictionary::allKeysForObject(const Id& object) const {
  auto keys = Array::array();
  table_.forEach([&](const Entry& entry) {
    if (isEqualObject_toObject(entry.value, object)) keys->addObject(entry.key);
    return true;
  });
  return keys;
}

void Dictionary::enumerateKeysAndObjectsUsingBlock(
    const std::function<void(const Id&, const Id&, bool&)>& block) const {
  const std::uint64_t seen = mutations_;
  bool stop = false;
  const auto& entries = table_.rawEntries();
  for (std::size_t i = 0; i < entries.size() && !stop; ++i) {
    if (!entries[i].key) continue;
    const Entry entry = entries[i];  // the block may replace the value
    block(entry.key, entry.value, stop);
    checkNotMutatedSince(seen);
  }
}

bool Dictionary::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* dictionary = Dictionary::dynamicCastObject(other);
  if (!dictionary || dictionary->count() != count()) return false;
  bool equal = true;
  table_.forEach([&](const Entry& entry) {
    const Entry* match = dictionary->table_.find(*entry.key, entry.hash);
    equal = match && isEqualObject_toObject(match->value, entry.value);
    return equal;
  });
  return equal;
}

std::string Dictionary::description() const {
  std::string text = "{\n";
  table_.forEach([&](const Entry& entry) {
    text += "    " + entry.key->description() + " = " + entry.value->description() + ";\n";
    return true;
  });
  return text + "}";
}

Id Dictionary::copy() const {
  if (!isMutable()) return std::const_pointer_cast<Object>(self());
  auto copy = make<Dictionary>();
  copy->table_ = table_;
  copy->makeImmutable();
  return copy;
}

Id Dictionary::mutableCopy() const {
  auto copy = make<Dictionary>();
  copy->table_ = table_;
  return copy;
}

Id Dictionary::valueForKey(std::string_view key) const {
  if (key.starts_with('@')) return Object::valueForKey(key.substr(1));
  return objectForKey(key);
}

void Dictionary::setValueForKey(const Id& value, std::string_view key) {
  if (value) setObject_forKey(value, key);
  else removeObjectForKey(key);
}

}  // namespace fennick
