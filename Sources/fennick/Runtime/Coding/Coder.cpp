#include "fennick/Runtime/Coding/Coder.h"

#include <fmt/format.h>

namespace fennick {

void Coder::unsupported(const char* operation) const {
  throw Exception(NSInvalidArgumentException,
                  fmt::format("-[Coder {}]: not available in this coder", operation));
}

void Coder::encodeObject_forKey(const Id&, std::string_view) { unsupported("encodeObject:forKey:"); }
void Coder::encodeConditionalObject_forKey(const Id&, std::string_view) {
  unsupported("encodeConditionalObject:forKey:");
}
void Coder::encodeBool_forKey(bool, std::string_view) { unsupported("encodeBool:forKey:"); }
void Coder::encodeInt64_forKey(std::int64_t, std::string_view) { unsupported("encodeInt64:forKey:"); }
void Coder::encodeDouble_forKey(double, std::string_view) { unsupported("encodeDouble:forKey:"); }
void Coder::encodeBytes_forKey(std::span<const std::uint8_t>, std::string_view) {
  unsupported("encodeBytes:length:forKey:");
}
std::vector<std::uint8_t> Coder::decodeBytesForKey(std::string_view) {
  unsupported("decodeBytesForKey:returnedLength:");
}
void Coder::encodeArrayOfObjects_forKey(const std::vector<Id>&, std::string_view) {
  unsupported("encodeArrayOfObjects:forKey:");
}
bool Coder::containsValueForKey(std::string_view) const { unsupported("containsValueForKey:"); }
Id Coder::decodeObjectOfClass_forKey(const Class*, std::string_view) {
  unsupported("decodeObjectOfClass:forKey:");
}
Id Coder::decodeObjectOfClasses_forKey(const ClassList&, std::string_view) {
  unsupported("decodeObjectOfClasses:forKey:");
}
const ClassList& Coder::allowedClasses() const { unsupported("allowedClasses"); }
bool Coder::decodeBoolForKey(std::string_view) { unsupported("decodeBoolForKey:"); }
std::int64_t Coder::decodeInt64ForKey(std::string_view) { unsupported("decodeInt64ForKey:"); }
double Coder::decodeDoubleForKey(std::string_view) { unsupported("decodeDoubleForKey:"); }
std::vector<Id> Coder::decodeArrayOfObjectsForKey(std::string_view) {
  unsupported("decodeArrayOfObjectsForKey:");
}
void Coder::failWithError(const Ref<Error>&) { unsupported("failWithError:"); }

}  // namespace fennick
