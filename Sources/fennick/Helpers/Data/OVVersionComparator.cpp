#include "fennick/Helpers/Data/OVVersionComparator.h"

#include "fennick/Runtime/Collections/Array.h"

namespace fennick {

namespace {
std::u16string utf16(const Ref<String>& text) {
  return text ? VersionOrder::toUTF16(text->view()) : std::u16string();
}
std::string_view view(const Ref<String>& text) { return text ? text->view() : std::string_view(); }
}  // namespace

int OVVersionComparator::typeOfCharacter(const Ref<String>& token) {
  return static_cast<int>(VersionOrder::typeOfCharacter(utf16(token)));
}

Ref<Array> OVVersionComparator::splitVersionString(const Ref<String>& version) {
  const std::vector<std::u16string> tokens = VersionOrder::splitVersionString(utf16(version));
  Ref<Array> result = Array::arrayWithCapacity(tokens.size());
  for (const std::u16string& token : tokens) result->addObject(String::string(VersionOrder::toUTF8(token)));
  return result;
}

int OVVersionComparator::compareVersion_toVersion(const Ref<String>& a, const Ref<String>& b) {
  return VersionOrder::compareVersions(view(a), view(b));
}

}  // namespace fennick
