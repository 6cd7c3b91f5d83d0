// Text the system facts read from the machine (os-release, logind records,
// /proc/cpuinfo, locale variables, machine-id, interface names) must parse to
// a value of the documented shape, never crash.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fennick/Platform/SystemFacts.h"

using namespace fennick::platform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);

  const auto version = osVersionFromOSRelease(input);
  (void)version;
  if (assignedValue(input, "BUILD_ID").find('\n') != std::string::npos) std::abort();
  if (processorBrandFromCPUInfo(input).find('\n') != std::string::npos) std::abort();

  const std::string uuid = uuidFromMachineID(input);
  if (!uuid.empty() && (uuid.size() != 36 || uuid[8] != '-' || uuid[23] != '-')) std::abort();

  const std::string tag = languageTagFromLocale(input);
  if (tag.find('.') != std::string::npos || tag.find('@') != std::string::npos) std::abort();

  // The comparison must be a consistent order: antisymmetric on any split.
  const std::string_view left = input.substr(0, size / 2), right = input.substr(size / 2);
  if (compareNumerically(left, right) != -compareNumerically(right, left)) std::abort();
  if (compareNumerically(left, left) != 0) std::abort();
  return 0;
}
