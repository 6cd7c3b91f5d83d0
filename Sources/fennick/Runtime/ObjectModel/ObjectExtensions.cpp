// General object operations: grouped change notifications for several keys.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/Object.h"

namespace fennick {

void Object::willChangeValuesForKeys(const Ref<Array>& keys) {
  if (!keys) return;
  keys->enumerateObjectsUsingBlock(
      [this](const Id& key, std::size_t, bool&) { willChangeValueForKey(key->description()); });
}

void Object::didChangeValuesForKeys(const Ref<Array>& keys) {
  if (!keys) return;
  // Last to first, so that each did closes the most recent will.
  keys->enumerateObjectsReverseUsingBlock(
      [this](const Id& key, std::size_t, bool&) { didChangeValueForKey(key->description()); });
}

void Object::changeValuesForKeys_withBlock(const Ref<Array>& keys, const std::function<void()>& block) {
  willChangeValuesForKeys(keys);
  if (block) block();
  didChangeValuesForKeys(keys);
}

}  // namespace fennick
