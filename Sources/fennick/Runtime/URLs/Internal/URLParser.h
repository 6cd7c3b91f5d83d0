#pragma once
// Text rules of URLs: parsing into components and writing them back (RFC
// 3986), resolution of references against a base, percent encoding and the
// path-string helpers that file URLs share. Pure functions of their
// arguments; nothing here touches the file system. Internal to the runtime.
#include "fennick/Runtime/URLs/URL.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace fennick::detail::url {

/// Whether every character is allowed or part of a well-formed "%XX".
bool isWellFormed(std::string_view text, bool (*allowed)(unsigned char));
bool acceptsAnyCharacter(unsigned char);

/// The components of URL text; nil when the text is malformed.
std::optional<URL::Parts> parse(std::string_view text);
/// The text of components.
std::string write(const URL::Parts& parts);
/// The target of `reference` resolved against `base` (RFC 3986, 5.2.2).
URL::Parts resolve(const URL::Parts& reference, const URL::Parts& base);
/// "." and ".." segments applied (RFC 3986, 5.2.4).
std::string removeDotSegments(std::string_view path);

/// "%XX" sequences decoded; malformed ones are kept as written.
std::string decode(std::string_view text);
/// Every byte that the component does not allow written as "%XX".
std::string encode(std::string_view text, URLCharacterSet allowed);

std::string withoutTrailingSlash(std::string path);
/// Runs of "/" collapsed to one.
std::string collapseSlashes(std::string_view path);
/// The last component of a path, trailing slashes ignored; "/" for the root.
std::string_view lastComponentOf(std::string_view path);
/// The offset of the dot that starts the component's extension, or npos.
std::size_t extensionDot(std::string_view component);

}  // namespace fennick::detail::url
