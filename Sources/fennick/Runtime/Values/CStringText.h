#pragma once
// Our strings carry their length and may hold NUL bytes ("%00" in a URL,
// "\u0000" in JSON, a NUL in a property list or a caller's buffer). The
// system and C libraries read a C string only up to its first NUL, so such a
// string handed over as one would silently name something else: the path
// "/srv/victim\0/Store.sqlite" is the folder "/srv/victim" to every system
// call. Each place that hands text of ours to a C interface asks holdsNulByte
// first and refuses the text (nil, NO, or an error such as EINVAL) instead.
#include <string_view>

namespace fennick {

/// Whether `text` holds a NUL byte, so that a C interface would see only the
/// part before it.
constexpr bool holdsNulByte(std::string_view text) noexcept {
  return text.find('\0') != std::string_view::npos;
}

}  // namespace fennick
