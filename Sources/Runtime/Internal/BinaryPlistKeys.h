#pragma once
// A look into binary property lists before libplist parses them: libplist
// aborts the process when a dictionary key, stored as UTF-16, holds the
// character U+0000 (its key accessor asserts that the key's length equals its
// C string length). Such input must fail as corrupt instead.
#include <string_view>

namespace fennick::detail {

/// Whether some dictionary of the binary property list `bytes` has a UTF-16
/// key containing U+0000. Damaged structure (offsets outside the input, bad
/// sizes) answers false and is left to the parser to reject.
bool binaryPlistHasKeyWithNUL(std::string_view bytes);

}  // namespace fennick::detail
