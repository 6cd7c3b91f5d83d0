// Functional operations on Dictionary: inversion, mapping of values, and the
// forgiving set, take, add and fetch-or-create operations.
//
// addObject_forKey and removeObjectOrDieForKey check that the key was absent
// (respectively present) only in diagnostic builds: those that define
// FENNICK_DIAGNOSTICS or leave NDEBUG undefined. A failed check throws
// Exception (NSInternalInconsistencyException) after the change was made;
// shipped builds simply set or remove.
#include "fennick/Runtime/Collections/Dictionary.h"

#include <fmt/format.h>

#if defined(FENNICK_DIAGNOSTICS) || !defined(NDEBUG)
#define FENNICK_DICTIONARY_CHECKS 1
#else
#define FENNICK_DICTIONARY_CHECKS 0
#endif

namespace fennick {

namespace {

#if FENNICK_DICTIONARY_CHECKS
void checkCountChange(std::size_t before, std::size_t after, std::size_t expected,
                      const char* operation, const Id& key) {
  if (after == expected) return;
  throw Exception(NSInternalInconsistencyException,
                  fmt::format("Dictionary::{}: count went from {} to {} "
                              "for key {}",
                              operation, before, after, key ? key->description() : "(nil)"));
}
#endif

}  // namespace

Ref<Dictionary> Dictionary::dictionaryByInversingKeysAndValues() const {
  auto inverse = dictionaryWithCapacity(count());
  enumerateKeysAndObjectsUsingBlock(
      [&](const Id& key, const Id& value, bool&) { inverse->setObject_forKey(key, value); });
  return inverse;
}

Ref<Dictionary> Dictionary::mapValues(
    const std::function<Id(const Id&, const Id&, bool&)>& block) const {
  auto mapped = make<Dictionary>();
  mapped->table_.reserve(count());
  enumerateKeysAndObjectsUsingBlock([&](const Id& key, const Id& value, bool& stop) {
    // Keys are stored already copied, with their hash: reuse both.
    if (Id result = block(key, value, stop))
      mapped->table_.insertNew(Entry{key, key->hash(), std::move(result)});
  });
  mapped->makeImmutable();
  return mapped;
}

bool Dictionary::safeSetObject_forKey(const Id& object, const Id& key) {
  if (!object || !key) return false;
  setObject_forKey(object, key);
  return true;
}

Id Dictionary::takeObjectForKey(const Id& key) {
  Id value = objectForKey(key);
  if (value) removeObjectForKey(key);
  return value;
}

void Dictionary::addObject_forKey(const Id& object, const Id& key) {
#if FENNICK_DICTIONARY_CHECKS
  const std::size_t before = count();
  setObject_forKey(object, key);
  checkCountChange(before, count(), before + 1, "addObject_forKey", key);
#else
  setObject_forKey(object, key);
#endif
}

void Dictionary::removeObjectOrDieForKey(const Id& key) {
#if FENNICK_DICTIONARY_CHECKS
  const std::size_t before = count();
  removeObjectForKey(key);
  checkCountChange(before, count(), before - 1, "removeObjectOrDieForKey", key);
#else
  removeObjectForKey(key);
#endif
}

Id Dictionary::fetchOrCreateObjectForKey_creationBlock(const Id& key,
                                                       const std::function<Id()>& create) {
  if (Id present = objectForKey(key)) return present;
  Id created = create();
  if (created) setObject_forKey(created, key);
  return created;
}

}  // namespace fennick
