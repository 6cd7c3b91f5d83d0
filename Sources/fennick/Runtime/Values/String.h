#pragma once
// Immutable text, stored as UTF-8. Operations that the platform defines on
// UTF-16 units (length, the capitalised first letter) convert as they go.
#include "fennick/Runtime/Coding/DataCoding.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <fmt/format.h>

#include <string>
#include <string_view>

namespace fennick {

class Dictionary;

class String : public Object {
  FENNICK_DECLARE_CLASS(String, Object)

 public:
  /// A string holding a copy of the UTF-8 text.
  static Ref<String> string(std::string_view utf8 = {});
  static Ref<String> string(std::string&& utf8);
  static Ref<String> string(const char* utf8) { return string(std::string_view(utf8)); }
  /// A string from fmt-style formatting ("{}").
  template <class... Args>
  static Ref<String> format(fmt::format_string<Args...> pattern, Args&&... args) {
    return string(fmt::format(pattern, std::forward<Args>(args)...));
  }

  /// Whether the bytes are well-formed UTF-8 (no overlong forms, surrogates or
  /// code points past U+10FFFF).
  static bool isValidUTF8(std::string_view text) noexcept;

  const std::string& utf8() const noexcept { return text_; }
  std::string_view view() const noexcept { return text_; }
  const char* UTF8String() const noexcept { return text_.c_str(); }
  /// Length in UTF-16 code units, as the platform counts it.
  std::size_t length() const noexcept;
  bool isEmpty() const noexcept { return text_.empty(); }

  bool isEqualToString(std::string_view other) const noexcept { return text_ == other; }
  bool hasPrefix(std::string_view prefix) const noexcept { return view().starts_with(prefix); }
  bool hasSuffix(std::string_view suffix) const noexcept { return view().ends_with(suffix); }
  Ref<String> stringByAppendingString(std::string_view tail) const;
  /// The first UTF-16 unit replaced by its capitalised (title-case) form, the
  /// rest unchanged; an empty string stays as it is.
  Ref<String> stringWithCapitalizedFirstLetter() const;
  /// -1, 0 or 1 as this version string is lower than, the same as or higher
  /// than `other`, by the framework's one version order (VersionOrder.h).
  int compareVersion(std::string_view other) const;

  // Identifiers, digests, trimming and URL escaping (StringExtensions.cpp).
  /// "com.pellora.DesktopClient", the base of the application's identifiers.
  static Ref<String> baseBundleIdentifier();
  /// The receiver, ".", and the suffix: base->identifier("updates").
  Ref<String> identifier(std::string_view suffix) const;
  /// The MD5 (32) or SHA-1 (40) digest of the UTF-8 bytes in lower-case hex;
  /// nil for other kinds.
  Ref<String> hashString(OVHashKind kind) const;
  /// Without white space and line breaks (Unicode Z*, U+0009 to U+000D,
  /// U+0085) at either end.
  Ref<String> stringByTrimmingWhitespaces() const;
  /// The legacy URL escaping (see URLParamsStringWithDictionary), then every
  /// "&" as "%26"; nil when the text is not valid UTF-8.
  Ref<String> URLEncodedString() const;
  /// "key=value&key=value" in the dictionary's order, keys and values (their
  /// descriptions) through the legacy escaping only: characters that may not
  /// appear anywhere in a URL are escaped as UTF-8 "%XX", reserved ones such
  /// as "/?:@&=+$,;#" are kept, so an "&" or "=" inside a key or value stays
  /// as it is.
  static Ref<String> URLParamsStringWithDictionary(const Ref<Dictionary>& parameters);

  bool isEqual(const Object* other) const override;
  std::size_t hash() const override { return hash_; }
  std::string description() const override { return text_; }
  Id copy() const override;

 protected:
  explicit String(std::string text);

 private:
  const std::string text_;
  const std::size_t hash_;
};

inline namespace literals {
/// "key"_s makes a Ref<String>.
inline Ref<String> operator""_s(const char* text, std::size_t length) {
  return String::string(std::string_view(text, length));
}
}  // namespace literals

}  // namespace fennick
