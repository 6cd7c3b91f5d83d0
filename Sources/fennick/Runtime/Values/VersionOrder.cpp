#include "fennick/Runtime/Values/VersionOrder.h"

#include "fennick/Runtime/Values/String.h"

#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <array>
#include <cstdint>
#include <limits>
#include <optional>

namespace fennick {

namespace {

using TokenClass = VersionTokenClass;
constexpr std::int64_t maxValue = std::numeric_limits<std::int64_t>::max();

// -- Unicode classification ------------------------------------------------------

bool isDecimalDigit(UChar32 c) { return u_charType(c) == U_DECIMAL_DIGIT_NUMBER; }

bool isPunctuation(UChar32 c) {
  switch (u_charType(c)) {
    case U_DASH_PUNCTUATION:
    case U_START_PUNCTUATION:
    case U_END_PUNCTUATION:
    case U_CONNECTOR_PUNCTUATION:
    case U_OTHER_PUNCTUATION:
    case U_INITIAL_PUNCTUATION:
    case U_FINAL_PUNCTUATION:
      return true;
    default:
      return false;
  }
}

// White space and line breaks: the separators Z*, the controls tab to
// carriage return, and next-line.
bool isWhiteSpaceOrNewline(char16_t c) {
  if ((c >= 0x09 && c <= 0x0D) || c == 0x85) return true;
  const auto type = u_charType(c);
  return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
}

std::u16string_view trimmed(std::u16string_view text) {
  while (!text.empty() && isWhiteSpaceOrNewline(text.front())) text.remove_prefix(1);
  while (!text.empty() && isWhiteSpaceOrNewline(text.back())) text.remove_suffix(1);
  return text;
}

// Decimal reading of a token: its leading digits, saturated.
std::int64_t decimalValue(std::u16string_view token) {
  std::int64_t value = 0;
  for (std::size_t i = 0; i < token.size();) {
    UChar32 c;
    U16_NEXT(token.data(), i, token.size(), c);
    const int digit = isDecimalDigit(c) ? u_charDigitValue(c) : -1;
    if (digit < 0) break;
    value = value > (maxValue - digit) / 10 ? maxValue : value * 10 + digit;
  }
  return value;
}

int sign(int difference) { return (difference > 0) - (difference < 0); }

int compareValues(std::int64_t a, std::int64_t b) { return (a > b) - (a < b); }

// The decision for one position; nullopt means "go on".
std::optional<int> decide(TokenClass ta, TokenClass tb) {
  if (ta == tb) return std::nullopt;  // equal classes are decided by the caller
  if (ta == TokenClass::Wildcard) return 1;
  if (tb == TokenClass::Wildcard) return -1;
  if (ta == TokenClass::Number) return 1;
  if (tb == TokenClass::Number) return -1;
  return ta == TokenClass::Separator ? 1 : -1;  // separator against string
}

// -- ASCII fast path ---------------------------------------------------------------

// Per byte: the class of an ASCII character, or Other for bytes >= 0x80.
enum : std::uint8_t { kNumber, kString, kSeparator, kWildcard, kOther };

constexpr std::array<std::uint8_t, 256> asciiClasses = [] {
  std::array<std::uint8_t, 256> table{};
  for (int c = 0; c < 256; ++c) table[c] = c < 0x80 ? kString : kOther;
  for (int c = '0'; c <= '9'; ++c) table[c] = kNumber;
  // ASCII punctuation (P*); $ + < = > ^ ` | ~ are symbols and count as words.
  for (char c : std::string_view("!\"#%&'(),-./:;?@[\\]_{}")) table[static_cast<unsigned char>(c)] = kSeparator;
  table['*'] = kWildcard;
  return table;
}();

constexpr bool isAsciiSpace(unsigned char c) { return c == ' ' || (c >= 0x09 && c <= 0x0D); }
constexpr unsigned char lower(unsigned char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; }

struct AsciiToken {
  TokenClass cls = TokenClass::Separator;
  std::string_view text;  // words: original case
  std::int64_t value = 0;
};

// Yields the tokens of an ASCII version, then the ".", "0" padding. Refuses
// (sets `failed`) as soon as it meets a byte outside ASCII before the token
// it is reading is complete, so that no decision is taken on a token that
// Unicode rules could read differently.
class AsciiTokens {
 public:
  explicit AsciiTokens(std::string_view text) {
    const char* begin = text.data();
    const char* end = begin + text.size();
    while (begin < end && isAsciiSpace(static_cast<unsigned char>(*begin))) ++begin;
    while (end > begin && isAsciiSpace(static_cast<unsigned char>(end[-1]))) --end;
    // A trailing byte outside ASCII might be white space that trimming removes.
    if (end > begin && static_cast<unsigned char>(end[-1]) >= 0x80) failed = true;
    cursor_ = begin;
    end_ = end;
  }

  bool exhausted() const { return cursor_ == end_; }

  AsciiToken next() {
    AsciiToken token;
    if (exhausted()) {
      const bool dot = (padding_++ % 2) == 0;
      token.cls = dot ? TokenClass::Separator : TokenClass::Number;
      return token;
    }
    const char* start = cursor_;
    const std::uint8_t cls = asciiClasses[static_cast<unsigned char>(*cursor_)];
    if (cls == kOther) {
      failed = true;
      return token;
    }
    ++cursor_;
    if (cls != kSeparator)
      while (cursor_ < end_ && asciiClasses[static_cast<unsigned char>(*cursor_)] == cls) ++cursor_;
    if (cursor_ < end_ && asciiClasses[static_cast<unsigned char>(*cursor_)] == kOther) failed = true;
    token.text = std::string_view(start, static_cast<std::size_t>(cursor_ - start));
    switch (cls) {
      case kNumber:
        token.cls = TokenClass::Number;
        for (char c : token.text) {
          const int digit = c - '0';
          token.value = token.value > (maxValue - digit) / 10 ? maxValue : token.value * 10 + digit;
        }
        break;
      case kString:
        token.cls = TokenClass::String;
        break;
      case kWildcard:
        // "**" is punctuation but not the wildcard.
        token.cls = token.text.size() == 1 ? TokenClass::Wildcard : TokenClass::Separator;
        break;
      default:
        token.cls = TokenClass::Separator;
    }
    return token;
  }

  bool failed = false;

 private:
  const char* cursor_ = nullptr;
  const char* end_ = nullptr;
  std::size_t padding_ = 0;
};

int compareWordsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  const std::size_t common = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < common; ++i) {
    const unsigned char ca = lower(static_cast<unsigned char>(a[i]));
    const unsigned char cb = lower(static_cast<unsigned char>(b[i]));
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  return compareValues(static_cast<std::int64_t>(a.size()), static_cast<std::int64_t>(b.size()));
}

// The comparison for ASCII text, or nullopt when the text is not ASCII.
std::optional<int> compareAscii(std::string_view a, std::string_view b) {
  AsciiTokens left(a), right(b);
  while (!(left.exhausted() && right.exhausted())) {
    const AsciiToken ta = left.next(), tb = right.next();
    if (left.failed || right.failed) return std::nullopt;
    if (auto decided = decide(ta.cls, tb.cls)) return decided;
    if (ta.cls == TokenClass::Number) {
      if (ta.value != tb.value) return compareValues(ta.value, tb.value);
    } else if (ta.cls == TokenClass::String) {
      if (int order = compareWordsIgnoringAsciiCase(ta.text, tb.text)) return order;
    }
  }
  if (left.failed || right.failed) return std::nullopt;
  return 0;
}

// -- General path ------------------------------------------------------------------

std::u16string lowercased(std::u16string_view text) {
  std::u16string result(text.size(), u'\0');
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = u_strToLower(reinterpret_cast<UChar*>(result.data()), static_cast<int32_t>(result.size()),
                                reinterpret_cast<const UChar*>(text.data()), static_cast<int32_t>(text.size()),
                                "", &status);
  if (status == U_BUFFER_OVERFLOW_ERROR) {
    result.assign(static_cast<std::size_t>(length), u'\0');
    status = U_ZERO_ERROR;
    length = u_strToLower(reinterpret_cast<UChar*>(result.data()), length,
                          reinterpret_cast<const UChar*>(text.data()), static_cast<int32_t>(text.size()), "", &status);
  }
  if (U_FAILURE(status)) return std::u16string(text);
  result.resize(static_cast<std::size_t>(length));
  return result;
}

}  // namespace

VersionTokenClass VersionOrder::typeOfCharacter(std::u16string_view token) noexcept {
  if (token == u".") return TokenClass::Separator;
  if (token == u"*") return TokenClass::Wildcard;
  bool punctuation = false;
  for (std::size_t i = 0; i < token.size();) {
    UChar32 c;
    U16_NEXT(token.data(), i, token.size(), c);
    if (isDecimalDigit(c)) return TokenClass::Number;
    punctuation = punctuation || isPunctuation(c);
  }
  return punctuation ? TokenClass::Separator : TokenClass::String;
}

std::vector<std::u16string> VersionOrder::splitVersionString(std::u16string_view version) {
  std::vector<std::u16string> tokens;
  const std::u16string_view text = trimmed(version);
  if (text.empty()) return tokens;
  std::u16string current(1, text[0]);
  TokenClass currentClass = typeOfCharacter(text.substr(0, 1));
  for (std::size_t i = 1; i < text.size(); ++i) {
    const TokenClass cls = typeOfCharacter(text.substr(i, 1));
    if (cls == currentClass && cls != TokenClass::Separator) {
      current += text[i];
    } else {
      tokens.push_back(std::move(current));
      current.assign(1, text[i]);
    }
    currentClass = cls;
  }
  tokens.push_back(std::move(current));
  return tokens;
}

int VersionOrder::compareVersionsByTokens(std::u16string_view a, std::u16string_view b) {
  std::vector<std::u16string> left = splitVersionString(lowercased(a));
  std::vector<std::u16string> right = splitVersionString(lowercased(b));
  const std::size_t n = std::max(left.size(), right.size());
  for (auto* shorter : {&left, &right})
    for (std::size_t index = shorter->size(); index < n; index += 2) {
      shorter->push_back(u".");
      shorter->push_back(u"0");
    }
  for (std::size_t i = 0; i < n; ++i) {
    const TokenClass ta = typeOfCharacter(left[i]), tb = typeOfCharacter(right[i]);
    if (auto decided = decide(ta, tb)) return *decided;
    if (ta == TokenClass::Number) {
      if (int order = compareValues(decimalValue(left[i]), decimalValue(right[i]))) return order;
    } else if (ta == TokenClass::String) {
      if (int order = sign(left[i].compare(right[i]))) return order;
    }
  }
  return 0;
}

int VersionOrder::compareVersions(std::string_view a, std::string_view b) {
  if (auto ascii = compareAscii(a, b)) return *ascii;
  return compareVersionsByTokens(toUTF16(a), toUTF16(b));
}

std::u16string VersionOrder::toUTF16(std::string_view utf8) {
  std::u16string result(utf8.size(), u'\0');  // never more units than bytes
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(reinterpret_cast<UChar*>(result.data()), static_cast<int32_t>(result.size()), &length,
                       utf8.data(), static_cast<int32_t>(utf8.size()), 0xFFFD, nullptr, &status);
  result.resize(U_SUCCESS(status) ? static_cast<std::size_t>(length) : 0);
  return result;
}

std::string VersionOrder::toUTF8(std::u16string_view utf16) {
  std::string result(utf16.size() * 3, '\0');
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToUTF8WithSub(result.data(), static_cast<int32_t>(result.size()), &length,
                     reinterpret_cast<const UChar*>(utf16.data()), static_cast<int32_t>(utf16.size()), 0xFFFD,
                     nullptr, &status);
  result.resize(U_SUCCESS(status) ? static_cast<std::size_t>(length) : 0);
  return result;
}

int String::compareVersion(std::string_view other) const { return VersionOrder::compareVersions(text_, other); }

}  // namespace fennick
