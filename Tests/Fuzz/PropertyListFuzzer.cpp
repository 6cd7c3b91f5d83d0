// Property lists from outside: binary and XML text must decode to objects or
// to an error, never crash; whatever decodes must write back in both formats
// and read back as an equal object. The scans that guard the parser must
// never count fewer levels than the parser built: whatever decodes with
// containers n levels deep is refused by the scan when it allows only n - 1.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/Internal/BinaryPropertyListScan.h"
#include "fennick/Runtime/Coding/Internal/XMLPropertyListScan.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Coding/PropertyList.h"

using namespace fennick;

namespace {

// Dates, and reals that are not numbers (NaN equals nothing, itself included).
bool holdsInexactValue(const Id& value) {
  if (Date::dynamicCastObject(value)) return true;
  if (auto number = Number::dynamicCastObject(value))
    return number->kind() == Number::Kind::Double && std::isnan(number->doubleValue());
  if (auto array = Array::dynamicCastObject(value))
    return std::any_of(array->begin(), array->end(), [](const Id& member) { return holdsInexactValue(member); });
  if (auto dictionary = Dictionary::dynamicCastObject(value)) {
    const Ref<Array> keys = dictionary->allKeys();
    return std::any_of(keys->begin(), keys->end(),
                       [&](const Id& key) { return holdsInexactValue(dictionary->objectForKey(key)); });
  }
  return false;
}

// Levels of non-empty containers. A UID reads as {"CF$UID": n} but is a leaf
// to the parser; counting it as one can only lower the level asked for.
std::size_t nesting(const Id& value) {
  std::size_t deepest = 0;
  if (auto array = Array::dynamicCastObject(value)) {
    for (const Id& member : *array) deepest = std::max(deepest, nesting(member));
    return array->count() ? deepest + 1 : 0;
  }
  auto dictionary = Dictionary::dynamicCastObject(value);
  if (!dictionary || !dictionary->count()) return 0;
  if (dictionary->count() == 1 && Number::dynamicCastObject(dictionary->objectForKey("CF$UID"))) return 0;
  const Ref<Array> keys = dictionary->allKeys();
  for (const Id& key : *keys) deepest = std::max(deepest, nesting(dictionary->objectForKey(key)));
  return deepest + 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);
  Ref<Error> error;
  PropertyListFormat format{};
  Id plist = PropertyList::propertyListWithBytes_format_error(input, &format, &error);
  if (!plist) {
    if (!error) std::abort();
    return 0;
  }
  if (const std::size_t levels = nesting(plist)) {
    const char* hazard = format == PropertyListFormat::Binary ? detail::binaryPropertyListHazard(input, levels - 1)
                                                              : detail::xmlPropertyListHazard(input, levels - 1);
    if (!hazard) std::abort();
  }
  for (auto outputFormat : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
    Ref<Error> writeError;
    Ref<Data> written = PropertyList::dataWithPropertyList_format_error(plist, outputFormat, &writeError);
    if (!written) continue;  // e.g. a date outside the writable range
    Ref<Error> rereadError;
    Id reread = PropertyList::propertyListWithData_format_error(written, nullptr, &rereadError);
    if (!reread) std::abort();
    // XML keeps whole seconds of dates, so only the binary form must round-trip
    // exactly, and only without dates: libplist reads a binary date through a
    // truncating (seconds, microseconds) pair that drops the last microsecond
    // of dates far from 2001 and the sign of those within the second before it.
    if (outputFormat == PropertyListFormat::Binary && !holdsInexactValue(plist) && !reread->isEqual(plist.get()))
      std::abort();
  }
  return 0;
}
