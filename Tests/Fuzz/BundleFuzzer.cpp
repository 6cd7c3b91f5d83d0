// Executables from outside, read as bundles: the "__info_plist" section of an
// ELF image (any class, byte order or damage) and the property list inside it.
// Reading must stay inside the input and never crash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Processes/Internal/BundleELFSection.h"
#include "fennick/Runtime/Coding/PropertyList.h"

using namespace fennick;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view image(reinterpret_cast<const char*>(bytes), size);
  auto section = detail::readELFSection(image, "__info_plist");
  if (!section) return 0;
  if (section->size() > detail::maxELFSectionSize) std::abort();
  Id list = PropertyList::propertyListWithBytes_format_error(*section, nullptr, nullptr);
  if (auto info = Dictionary::dynamicCastObject(list)) (void)info->objectForKey("CFBundleIdentifier");
  return 0;
}
