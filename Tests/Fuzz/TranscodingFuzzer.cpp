// transformFromEncoding:toEncoding: over all sixteen pairs of encodings on
// text from outside: whatever the text decodes to from one encoding, the
// transform to another must be that encoding of it, and must decode back to
// the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fennick/Runtime/Values/Data.h"

using namespace fennick;

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

bool equal(const Ref<Data>& a, const Ref<Data>& b) { return a && b && a->isEqual(b.get()); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const Ref<Data> input = Data::dataWithBytes(bytes, size);
  constexpr OVDataEncoding kEncodings[] = {OVDataEncodingRaw, OVDataEncodingBase64, OVDataEncodingBase32,
                                           OVDataEncodingHex};
  for (OVDataEncoding from : kEncodings) {
    const Ref<Data> raw = input->transformFromEncoding_toEncoding(from, OVDataEncodingRaw);
    for (OVDataEncoding to : kEncodings) {
      const Ref<Data> output = input->transformFromEncoding_toEncoding(from, to);
      check(!raw == !output);
      if (!raw) continue;
      check(equal(output, raw->transformFromEncoding_toEncoding(OVDataEncodingRaw, to)));
      check(equal(output->transformFromEncoding_toEncoding(to, OVDataEncodingRaw), raw));
    }
    check(!input->transformFromEncoding_toEncoding(from, static_cast<OVDataEncoding>(4)));
  }
  return 0;
}
