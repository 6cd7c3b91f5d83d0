#pragma once
// The one ordering of version strings in the framework, the way a person
// reads them: 2.10.1 above 2.9, 1.0b3 below 1.0, 3.* above any 3.x.
//
// A version is trimmed of white space, lower-cased and split into tokens:
// runs of decimal digits (numbers), runs of other non-punctuation characters
// (words), runs of "*" (the wildcard when it is exactly one "*"), and single
// punctuation characters (separators: ".", "-", "_" ...). Tokens are compared
// position by position; the shorter list is padded with ".", "0" pairs, so
// 1.0 equals 1 and 1.0.0. At the first position that differs:
//   numbers compare by value, words alphabetically;
//   any two separators, or two wildcards, are equal;
//   a wildcard is above anything else;
//   a number is above a word or a separator;
//   a separator is above a word (so 1.0b1 is below 1.0 and 1.0.1).
// There is no table of pre-release words: alpha < beta < final < rc purely
// alphabetically.
//
// Characters are classified per UTF-16 unit with the Unicode tables (decimal
// digits Nd, punctuation P*). ASCII versions take a fast path that neither
// allocates nor converts; other text is converted to UTF-16 first.
// All functions are thread-safe.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fennick {

/// Token classes; the values are part of the interface.
enum class VersionTokenClass : int {
  Number = 0,
  String = 1,
  Separator = 2,
  Wildcard = 3,
};

class VersionOrder {
 public:
  VersionOrder() = delete;

  /// The class of a character or of a whole token, tested in this order:
  /// "." separator, "*" wildcard, containing a decimal digit number,
  /// containing punctuation separator, anything else string.
  static VersionTokenClass typeOfCharacter(std::u16string_view token) noexcept;
  /// The tokens of a version (trimmed; not lower-cased). Empty for a version
  /// that is empty or only white space.
  static std::vector<std::u16string> splitVersionString(std::u16string_view version);
  /// -1, 0 or 1 as `a` is lower than, the same as or higher than `b` (UTF-8;
  /// malformed bytes read as U+FFFD).
  static int compareVersions(std::string_view a, std::string_view b);

  /// The token-by-token comparison over the split lists, without the ASCII
  /// fast path; compareVersions gives the same answers.
  static int compareVersionsByTokens(std::u16string_view a, std::u16string_view b);

  static std::u16string toUTF16(std::string_view utf8);
  static std::string toUTF8(std::u16string_view utf16);
};

}  // namespace fennick
