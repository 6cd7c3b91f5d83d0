// JSON text from outside into runtime objects. Decoding either fails with the
// reading error or gives objects that write back to text which decodes to
// the same objects, in every writing style. Text that decodes holds no raw
// NUL and stays accepted only as a whole: the same text with a NUL or a
// stray character after it is refused, however the decoder sees its end.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/JSON.h"
#include "fennick/Runtime/Coding/PropertyList.h"

using namespace fennick;

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

Id decode(std::string_view text, Ref<Error>* error = nullptr) {
  return JSON::JSONObjectWithString_options_error(text, JSONReadingFragmentsAllowed, error);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  Ref<Error> error;
  const Id value = decode(text, &error);
  require((value != nullptr) != (error != nullptr));
  if (!value) {
    require(error->domain() == NSCocoaErrorDomain && error->code() == NSPropertyListReadCorruptError);
    return 0;
  }
  require(text.find('\0') == std::string_view::npos);
  for (std::string_view tail : {std::string_view("\0", 1), std::string_view(" \0 ", 3), std::string_view(" x")})
    require(!decode(std::string(text).append(tail)));

  for (std::uint32_t style : {0u, unsigned{JSONWritingPrettyPrinted | JSONWritingSortedKeys},
                              unsigned{JSONWritingWithoutEscapingSlashes}}) {
    std::string written;
    require(JSON::writeJSONObject_toString_options_error(value, written, style | JSONWritingFragmentsAllowed, nullptr));
    const Id again = decode(written);
    require(again && again->isEqual(value.get()));
  }
  return 0;
}
