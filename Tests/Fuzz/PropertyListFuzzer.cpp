// Property lists from outside: binary and XML text must decode to objects or
// to an error, never crash; whatever decodes must write back in both formats
// and read back as an equal object.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fennick/Runtime/Array.h"
#include "fennick/Runtime/Date.h"
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/PropertyList.h"

using namespace fennick;

namespace {

bool holdsDate(const Id& value) {
  if (Date::dynamicCastObject(value)) return true;
  if (auto array = Array::dynamicCastObject(value))
    return std::any_of(array->begin(), array->end(), [](const Id& member) { return holdsDate(member); });
  if (auto dictionary = Dictionary::dynamicCastObject(value)) {
    const Ref<Array> keys = dictionary->allKeys();
    return std::any_of(keys->begin(), keys->end(),
                       [&](const Id& key) { return holdsDate(dictionary->objectForKey(key)); });
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);
  Ref<Error> error;
  Id plist = PropertyList::propertyListWithBytes_format_error(input, nullptr, &error);
  if (!plist) {
    if (!error) std::abort();
    return 0;
  }
  for (auto format : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
    Ref<Error> writeError;
    Ref<Data> written = PropertyList::dataWithPropertyList_format_error(plist, format, &writeError);
    if (!written) continue;  // e.g. a date outside the writable range
    Ref<Error> rereadError;
    Id reread = PropertyList::propertyListWithData_format_error(written, nullptr, &rereadError);
    if (!reread) std::abort();
    // XML keeps whole seconds of dates, so only the binary form must round-trip
    // exactly, and only without dates: libplist reads a binary date through a
    // truncating (seconds, microseconds) pair that drops the last microsecond
    // of dates far from 2001 and the sign of those within the second before it.
    if (format == PropertyListFormat::Binary && !holdsDate(plist) && !reread->isEqual(plist.get())) std::abort();
  }
  return 0;
}
