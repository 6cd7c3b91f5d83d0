// Hexadecimal, Base64 and Base32 text from outside: decoding must stay inside
// the input and never crash; text that Base64 or Base32 accepts must be the
// canonical encoding of what it decodes to (nothing else is accepted), and
// the input's bytes must come back unchanged through every encoder.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fennick/Runtime/Values/Data.h"

using namespace fennick;

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

bool sameBytes(const Ref<Data>& data, std::string_view bytes) { return data && data->stringView() == bytes; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);
  const Ref<Data> data = Data::dataWithBytes(bytes, size);

  check(data->decodeFromHex()->length() == size / 2);
  for (std::string_view type : {kSecBase64Encoding, kSecBase32Encoding}) {
    if (const Ref<Data> decoded = data->decodeFromEncodingType(type))
      check(sameBytes(decoded->encodeToEncodingType(type), input));
    check(sameBytes(data->encodeToEncodingType(type)->decodeFromEncodingType(type), input));
  }
  check(sameBytes(data->encodeToHex()->decodeFromHex(), input));
  return 0;
}
