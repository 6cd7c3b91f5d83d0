// Text the system facts read from the machine (os-release, logind records,
// /proc/cpuinfo, /proc/stat, locale variables, machine-id, interface names)
// must parse to a value of the documented shape, never crash: a text fact is
// plain UTF-8 without control characters, or empty.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fennick/Platform/System/SystemFacts.h"
#include "fennick/Runtime/Values/String.h"

using namespace fennick::platform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);

  const auto isPlain = [](const std::string& text) {
    if (!fennick::String::isValidUTF8(text)) return false;
    for (unsigned char c : text)
      if (c < 0x20 || c == 0x7f) return false;
    return true;
  };
  const auto version = osVersionFromOSRelease(input);
  if (version.major < 0 || version.minor < 0 || version.patch < 0) std::abort();
  if (!isPlain(assignedValue(input, "BUILD_ID"))) std::abort();
  if (!isPlain(processorBrandFromCPUInfo(input))) std::abort();
  if (const auto boot = bootTimeFromStat(input); boot && *boot <= 0) std::abort();

  const std::string uuid = uuidFromMachineID(input);
  if (!uuid.empty() && (uuid.size() != 36 || uuid[8] != '-' || uuid[23] != '-')) std::abort();

  const std::string tag = languageTagFromLocale(input);
  for (char c : tag)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') std::abort();

  // The comparison must be a consistent order: antisymmetric on any split.
  const std::string_view left = input.substr(0, size / 2), right = input.substr(size / 2);
  if (compareNumerically(left, right) != -compareNumerically(right, left)) std::abort();
  if (compareNumerically(left, left) != 0) std::abort();
  return 0;
}
