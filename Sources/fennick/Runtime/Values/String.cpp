#include "fennick/Runtime/Values/String.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Internal/TextHash.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

namespace fennick {

FENNICK_DEFINE_CLASS(String) {
  builder.archiveNames({"NSString", "NSMutableString"});
  builder.property("length", &String::length);
}

String::String(std::string text)
    : text_(std::move(text)), hash_(detail::hashText(text_)) {}

Ref<String> String::string(std::string_view utf8) { return make<String>(std::string(utf8)); }

Ref<String> String::string(std::string&& utf8) { return make<String>(std::move(utf8)); }

std::size_t String::length() const noexcept {
  std::size_t units = 0;
  for (unsigned char c : text_) {
    if ((c & 0xC0) == 0x80) continue;  // continuation byte
    units += (c >= 0xF0) ? 2 : 1;      // four-byte sequences need a surrogate pair
  }
  return units;
}

Ref<String> String::stringByAppendingString(std::string_view tail) const {
  std::string joined;
  joined.reserve(text_.size() + tail.size());
  joined.append(text_).append(tail);
  return string(std::move(joined));
}

Ref<String> String::stringWithCapitalizedFirstLetter() const {
  if (text_.empty()) return std::static_pointer_cast<String>(copy());
  int32_t offset = 0;
  UChar32 first = 0;
  U8_NEXT(reinterpret_cast<const uint8_t*>(text_.data()), offset,
          static_cast<int32_t>(text_.size()), first);
  // A supplementary character is two UTF-16 units; changing only its first
  // unit (a lone surrogate) would leave it as it is.
  if (first < 0 || first > 0xFFFF) return std::static_pointer_cast<String>(copy());
  const UChar32 title = u_totitle(first);
  if (title == first) return std::static_pointer_cast<String>(copy());
  std::string result;
  char buffer[U8_MAX_LENGTH];
  int32_t length = 0;
  [[maybe_unused]] UBool error = false;  // cannot happen: the buffer fits any code point
  U8_APPEND(reinterpret_cast<uint8_t*>(buffer), length, U8_MAX_LENGTH, title, error);
  result.append(buffer, static_cast<std::size_t>(length));
  result.append(text_, static_cast<std::size_t>(offset));
  return string(std::move(result));
}

bool String::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* string = String::dynamicCastObject(other);
  return string && string->hash_ == hash_ && string->text_ == text_;
}

Id String::copy() const { return std::const_pointer_cast<Object>(self()); }

bool String::isValidUTF8(std::string_view text) noexcept {
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t extra = lead < 0x80 ? 0 : (lead & 0xE0) == 0xC0 ? 1 : (lead & 0xF0) == 0xE0 ? 2 : (lead & 0xF8) == 0xF0 ? 3 : 9;
    if (extra == 9 || i + extra >= text.size() + (extra ? 0 : 1)) return false;
    std::uint32_t code = extra == 0 ? lead : lead & (0x3F >> extra);
    for (std::size_t k = 1; k <= extra; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    static constexpr std::uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += extra + 1;
  }
  return true;
}

}  // namespace fennick
