// String operations for identifiers, digests, trimming and URL queries.
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/String.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <array>
#include <optional>

namespace fennick {

namespace {

// White space and line breaks as the platform's whitespace-and-newline set
// counts them.
bool isWhitespaceOrNewline(UChar32 c) {
  if ((c >= 0x09 && c <= 0x0D) || c == 0x85) return true;
  const auto type = u_charType(c);
  return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
}

// Characters that may stand anywhere in a URL and so are never escaped by the
// legacy escaping: the unreserved and reserved characters of RFC 2396, plus
// "#". Everything else (controls, space, "\"%<>[\\]^`{|}", DEL and every
// non-ASCII byte) becomes "%XX".
constexpr auto kURLLegal = [] {
  std::array<bool, 256> legal{};
  for (int c = 'a'; c <= 'z'; ++c) legal[c] = true;
  for (int c = 'A'; c <= 'Z'; ++c) legal[c] = true;
  for (int c = '0'; c <= '9'; ++c) legal[c] = true;
  for (unsigned char c : std::string_view("-_.!~*'();/?:@&=+$,#")) legal[c] = true;
  return legal;
}();

// The legacy escaping of UTF-8 text, or nullopt when the text is not UTF-8
// (the platform cannot convert it and answers nil).
std::optional<std::string> legacyPercentEscaped(std::string_view text) {
  if (!String::isValidUTF8(text)) return std::nullopt;
  static constexpr char kUpperHex[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(text.size());
  for (unsigned char c : text) {
    if (kURLLegal[c]) {
      escaped.push_back(static_cast<char>(c));
    } else {
      escaped.push_back('%');
      escaped.push_back(kUpperHex[c >> 4]);
      escaped.push_back(kUpperHex[c & 15]);
    }
  }
  return escaped;
}

}  // namespace

Ref<String> String::baseBundleIdentifier() {
  static const Ref<String> identifier = string("com.pellora.DesktopClient");
  return identifier;
}

Ref<String> String::identifier(std::string_view suffix) const {
  std::string joined;
  joined.reserve(text_.size() + 1 + suffix.size());
  joined.append(text_).append(".").append(suffix);
  return string(std::move(joined));
}

Ref<String> String::hashString(OVHashKind kind) const {
  Ref<Data> digest = Data::dataWithString(text_)->calculateHashOfKind(kind);
  if (!digest) return nullptr;
  return string(digest->transformFromEncoding_toEncoding(OVDataEncodingRaw, OVDataEncodingHex)->stringView());
}

Ref<String> String::stringByTrimmingWhitespaces() const {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text_.data());
  const auto size = static_cast<std::int32_t>(text_.size());
  std::int32_t begin = 0;
  while (begin < size) {
    std::int32_t next = begin;
    UChar32 c = 0;
    U8_NEXT(bytes, next, size, c);
    if (c < 0 || !isWhitespaceOrNewline(c)) break;
    begin = next;
  }
  std::int32_t end = size;
  while (end > begin) {
    std::int32_t previous = end;
    UChar32 c = 0;
    U8_PREV(bytes, begin, previous, c);
    if (c < 0 || !isWhitespaceOrNewline(c)) break;
    end = previous;
  }
  if (begin == 0 && end == size) return std::static_pointer_cast<String>(copy());
  return string(view().substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin)));
}

Ref<String> String::URLEncodedString() const {
  auto escaped = legacyPercentEscaped(text_);
  if (!escaped) return nullptr;
  std::string result;
  result.reserve(escaped->size());
  for (char c : *escaped) {
    if (c == '&') result.append("%26");
    else result.push_back(c);
  }
  return string(std::move(result));
}

Ref<String> String::URLParamsStringWithDictionary(const Ref<Dictionary>& parameters) {
  std::string query;
  if (!parameters) return string(std::move(query));
  parameters->enumerateKeysAndObjectsUsingBlock([&](const Id& key, const Id& value, bool&) {
    // Text that the legacy escaping cannot convert prints as "(null)", as a
    // nil escape does in the platform's "%@".
    const auto escapedKey = legacyPercentEscaped(key->description());
    const auto escapedValue = legacyPercentEscaped(value->description());
    if (!query.empty()) query.push_back('&');
    query.append(escapedKey.value_or("(null)")).append("=").append(escapedValue.value_or("(null)"));
  });
  return string(std::move(query));
}

}  // namespace fennick
