// How the collections archive themselves, in the layout the platform uses:
// members under "NS.objects", dictionary keys under "NS.keys".
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Coding/Coder.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Collections/Set.h"

#include <algorithm>
#include <cstdint>

namespace fennick {

void Array::encodeWithCoder(Coder& coder) const { coder.encodeArrayOfObjects_forKey(objects_, "NS.objects"); }

void Array::initWithCoder(Coder& coder) {
  for (Id& object : coder.decodeArrayOfObjectsForKey("NS.objects")) addObject(object);
}

void Dictionary::encodeWithCoder(Coder& coder) const {
  std::vector<Id> keys, values;
  keys.reserve(count());
  values.reserve(count());
  table_.forEach([&](const Entry& entry) {
    keys.push_back(entry.key);
    values.push_back(entry.value);
    return true;
  });
  coder.encodeArrayOfObjects_forKey(keys, "NS.keys");
  coder.encodeArrayOfObjects_forKey(values, "NS.objects");
}

void Dictionary::initWithCoder(Coder& coder) {
  std::vector<Id> keys = coder.decodeArrayOfObjectsForKey("NS.keys");
  std::vector<Id> values = coder.decodeArrayOfObjectsForKey("NS.objects");
  if (keys.size() != values.size())
    throw Exception(NSInvalidUnarchiveOperationException, "an archived dictionary has more keys than objects or fewer");
  for (std::size_t i = 0; i < keys.size(); ++i)
    if (keys[i] && values[i]) setObject_forKey(values[i], keys[i]);
}

void Set::encodeWithCoder(Coder& coder) const {
  coder.encodeArrayOfObjects_forKey(allObjects()->toVector(), "NS.objects");
}

void Set::initWithCoder(Coder& coder) {
  for (Id& object : coder.decodeArrayOfObjectsForKey("NS.objects"))
    if (object) addObject(object);
}

void CountedSet::encodeWithCoder(Coder& coder) const {
  // Each member once under "NS.objects" with its count beside it.
  const std::vector<Id> members = allObjects()->toVector();
  coder.encodeArrayOfObjects_forKey(members, "NS.objects");
  for (std::size_t i = 0; i < members.size(); ++i)
    coder.encodeInt64_forKey(static_cast<std::int64_t>(countForObject(members[i])),
                             "NS.count." + std::to_string(i));
}

void CountedSet::initWithCoder(Coder& coder) {
  std::vector<Id> members = coder.decodeArrayOfObjectsForKey("NS.objects");
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (!members[i]) continue;
    const std::int64_t times = coder.decodeInt64ForKey("NS.count." + std::to_string(i));
    // The count comes from the archive: it is added at once, not counted out.
    addObject(members[i]);
    Entry* entry = table_.find(*members[i], members[i]->hash());
    const auto extra = static_cast<std::size_t>(std::max<std::int64_t>(times, 1) - 1);
    entry->occurrences += std::min(extra, SIZE_MAX - entry->occurrences);
  }
}

}  // namespace fennick
