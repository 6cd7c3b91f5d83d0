// Version strings from outside: two versions separated by a NUL byte (or the
// input split in half). The order must be antisymmetric, reflexive, and the
// same on the ASCII fast path as by the token rules.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fennick/Runtime/Values/VersionOrder.h"

using namespace fennick;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);
  const auto separator = input.find('\0');
  const std::size_t split = separator == std::string_view::npos ? size / 2 : separator;
  const std::string_view a = input.substr(0, split);
  const std::string_view b = input.substr(std::min(size, split + (separator == std::string_view::npos ? 0 : 1)));

  const int forward = VersionOrder::compareVersions(a, b);
  if (forward < -1 || forward > 1) std::abort();
  if (VersionOrder::compareVersions(b, a) != -forward) std::abort();
  if (VersionOrder::compareVersions(a, a) != 0) std::abort();
  if (VersionOrder::compareVersionsByTokens(VersionOrder::toUTF16(a), VersionOrder::toUTF16(b)) != forward)
    std::abort();
  for (const std::u16string& token : VersionOrder::splitVersionString(VersionOrder::toUTF16(a)))
    if (token.empty()) std::abort();
  return 0;
}
